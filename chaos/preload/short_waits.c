// Preloaded into the daemon: its threads wait a tenth of the time that they ask for, so that a thousand cycles of the
// stack fit into minutes.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <semaphore.h>
#include <time.h>

int sem_clockwait(sem_t* semaphore, clockid_t clock, const struct timespec* deadline) {
  static int (*next)(sem_t*, clockid_t, const struct timespec*);
  if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, "sem_clockwait");
  struct timespec earlier;
  clock_gettime(clock, &earlier);
  const long second = 1000000000L;
  long left = (deadline->tv_sec - earlier.tv_sec) * second + deadline->tv_nsec - earlier.tv_nsec;
  left = left > 0 ? left / 10 + earlier.tv_nsec : earlier.tv_nsec;
  earlier.tv_sec += left / second;
  earlier.tv_nsec = left % second;
  return next(semaphore, clock, &earlier);
}
