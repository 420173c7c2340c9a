// Preloaded into the daemon: writes how long each of its threads has waited, of the waits that ran to their end, to the
// file that WAIT_TIMES names. A line is the thread's name, the time that it asked for, the time that it took, and when
// it ended, in microseconds. The clock is one that nothing adjusts.
//
// Where WAIT_ENDS names a file, every wait with a limit writes two lines to it: "begin", the thread's number, the time
// that it asked for, and when it began; and "end", the thread's number, 1 when its time was over and 0 when something
// else ended it, and when that was. A wait that never ends has no second line.
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
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

static int file = -1;
static int ends = -1;

static int opened(const char* variable) {
  const char* name = getenv(variable);
  // The daemon's children are other programs.
  if (name == NULL || strcmp(program_invocation_short_name, "quorvaned") != 0) return -1;
  return open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

__attribute__((constructor)) static void open_files(void) {
  file = opened("WAIT_TIMES");
  ends = opened("WAIT_ENDS");
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

static long us(const struct timespec* time) { return time->tv_sec * 1000000L + time->tv_nsec / 1000; }

static void mark(const char* what, long value, long moment) {
  char line[96];
  const int length = snprintf(line, sizeof line, "%s %d %ld %ld\n", what, (int)gettid(), value, moment);
  if (write(ends, line, (size_t)length) != length) ends = -1;
}

// Gives the moment.
static long begin_wait(long asked) {
  const int error = errno;
  const long begin = now_us(CLOCK_MONOTONIC_RAW);
  if (ends >= 0) mark("begin", asked, begin);
  errno = error;
  return begin;
}

static void end_wait(int is_over) {
  const int error = errno;
  if (ends >= 0) mark("end", is_over, now_us(CLOCK_MONOTONIC_RAW));
  errno = error;
}

int sem_clockwait(sem_t* semaphore, clockid_t clock, const struct timespec* deadline) {
  static int (*next)(sem_t*, clockid_t, const struct timespec*);
  if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, "sem_clockwait");
  const long asked = us(deadline) - now_us(clock);
  const long begin = begin_wait(asked);
  const int result = next(semaphore, clock, deadline);
  const int error = errno;
  const int is_over = result != 0 && error == ETIMEDOUT;
  end_wait(is_over);
  if (is_over) note(asked, begin);
  errno = error;
  return result;
}

int ppoll(struct pollfd* entries, nfds_t count, const struct timespec* limit, const sigset_t* mask) {
  static int (*next)(struct pollfd*, nfds_t, const struct timespec*, const sigset_t*);
  if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, "ppoll");
  if (limit == NULL) return next(entries, count, limit, mask);
  const long begin = begin_wait(us(limit));
  const int result = next(entries, count, limit, mask);
  const int error = errno;
  end_wait(result == 0);
  if (result == 0) note(us(limit), begin);
  errno = error;
  return result;
}

int poll(struct pollfd* entries, nfds_t count, int limit_ms) {
  static int (*next)(struct pollfd*, nfds_t, int);
  if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, "poll");
  if (limit_ms < 0) return next(entries, count, limit_ms);
  (void)begin_wait(limit_ms * 1000L);
  const int result = next(entries, count, limit_ms);
  end_wait(result == 0);
  return result;
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const struct timespec* deadline) {
  static int (*next)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const struct timespec*);
  if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, "pthread_cond_clockwait");
  (void)begin_wait(us(deadline) - now_us(clock));
  const int result = next(condition, mutex, clock, deadline);
  end_wait(result == ETIMEDOUT);
  return result;
}

int nanosleep(const struct timespec* limit, struct timespec* left) {
  static int (*next)(const struct timespec*, struct timespec*);
  if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, "nanosleep");
  (void)begin_wait(us(limit));
  const int result = next(limit, left);
  end_wait(result == 0);
  return result;
}
