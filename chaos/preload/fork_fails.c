// Preloaded into the daemon: while the file that FORK_FAILS_WHILE names is there, the machine has no room for another
// process or thread.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/types.h>
#include <unistd.h>

static int refused(void) {
  const char* path = getenv("FORK_FAILS_WHILE");
  return path != NULL && access(path, F_OK) == 0;
}

// A child with memory of its own serves as well, and nothing else can stand in for vfork: that returns in the child first.
pid_t vfork(void) {
  static pid_t (*next)(void);
  if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, "fork");
  if (refused()) {
    errno = EAGAIN;
    return -1;
  }
  return next();
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) {
  static int (*next)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, "pthread_create");
  return refused() ? EAGAIN : next(thread, attributes, body, argument);
}
