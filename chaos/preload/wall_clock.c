// Preloaded into the daemon: its wall clock is off by as many seconds as the number in the file that WALL_CLOCK names
// says, eight bytes that may change at any time. Clocks that only run forward are left alone.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static const volatile int64_t* offset;

__attribute__((constructor)) static void map_file(void) {
  const char* name = getenv("WALL_CLOCK");
  if (name == NULL) return;
  const int file = open(name, O_RDONLY | O_CLOEXEC);
  if (file < 0) return;
  void* page = mmap(NULL, sizeof *offset, PROT_READ, MAP_SHARED, file, 0);
  close(file);
  if (page != MAP_FAILED) offset = page;
}

static time_t off_by(void) { return offset != NULL ? *offset : 0; }

int clock_gettime(clockid_t clock, struct timespec* result) {
  static int (*next)(clockid_t, struct timespec*);
  if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, "clock_gettime");
  const int status = next(clock, result);
  if (status == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) result->tv_sec += off_by();
  return status;
}

int gettimeofday(struct timeval* result, void* zone) {
  static int (*next)(struct timeval*, void*);
  if (next == NULL) *(void**)&next = dlsym(RTLD_NEXT, "gettimeofday");
  const int status = next(result, zone);
  if (status == 0) result->tv_sec += off_by();
  return status;
}

time_t time(time_t* result) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (result != NULL) *result = now.tv_sec;
  return now.tv_sec;
}
