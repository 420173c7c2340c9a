// Preloaded into the daemon: writes how long each of its threads has waited, of the waits that ran to their end, to the
// file that WAIT_TIMES names. A line is the thread's name, the time that it asked for, the time that it took, and when
// it ended, in microseconds. The clock is one that nothing adjusts.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static int file = -1;

__attribute__((constructor)) static void open_file(void) {
  const char* name = getenv("WAIT_TIMES");
  // The daemon's children are other programs.
  if (name == NULL || strcmp(program_invocation_short_name, "quorvaned") != 0) return;
  file = open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

static long now_us(clockid_t clock) {
  struct timespec time;
  clock_gettime(clock, &time);
  return time.tv_sec * 1000000L + time.tv_nsec / 1000;
}

static void note(long asked, long begin) {
  if (file < 0) return;
  const long end = now_us(CLOCK_MONOTONIC_RAW);
  char name[16] = "";
  char line[96];
  pthread_getname_np(pthread_self(), name, sizeof name);
  const int length = snprintf(line, sizeof line, "%s %ld %ld %ld\n", name, asked, end - begin, end);
  if (write(file, line, (size_t)length) != length) file = -1;
}

int sem_clockwait(sem_t* semaphore, clockid_t clock, const struct timespec* deadline) {
  static int (*next)(sem_t*, clockid_t, const struct timespec*);
  if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, "sem_clockwait");
  const long asked = deadline->tv_sec * 1000000L + deadline->tv_nsec / 1000 - now_us(clock);
  const long begin = now_us(CLOCK_MONOTONIC_RAW);
  const int result = next(semaphore, clock, deadline);
  const int error = errno;
  if (result != 0 && error == ETIMEDOUT) note(asked, begin);
  errno = error;
  return result;
}

int ppoll(struct pollfd* entries, nfds_t count, const struct timespec* limit, const sigset_t* mask) {
  static int (*next)(struct pollfd*, nfds_t, const struct timespec*, const sigset_t*);
  if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, "ppoll");
  const long begin = now_us(CLOCK_MONOTONIC_RAW);
  const int result = next(entries, count, limit, mask);
  const int error = errno;
  if (result == 0 && limit != NULL) note(limit->tv_sec * 1000000L + limit->tv_nsec / 1000, begin);
  errno = error;
  return result;
}
