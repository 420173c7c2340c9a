// Preloaded into the daemon: lets a random time pass in the parent after each fork, so that a child may have ended
// before its parent has gone on. DELAY_AFTER_FORK_US is the longest, in microseconds.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

// A child with memory of its own serves as well, and nothing else can stand in for vfork: that returns in the child first.
pid_t vfork(void) {
  static pid_t (*next)(void);
  if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, "fork");
  const pid_t pid = next();
  if (pid > 0) {
    const char* longest = getenv("DELAY_AFTER_FORK_US");
    if (longest != NULL && atol(longest) > 0) {
      struct timespec time;
      clock_gettime(CLOCK_MONOTONIC, &time);
      // The low bits of the time are as good as dice here.
      const struct timespec pause = {0, (time.tv_nsec / 7 % atol(longest)) * 1000};
      nanosleep(&pause, NULL);
    }
  }
  return pid;
}
