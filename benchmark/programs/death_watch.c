// usage: death_watch COUNT FILE
// Watches the COUNT services whose pids are in FILE. Prints "ready", and when all have ended, the moments of the first
// and of the last end in nanoseconds since 1970.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "slots.h"

static int64_t now_ns(void) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const int count = (int)strtol(argv[1], NULL, 10);
  const int file = open(argv[2], O_RDONLY);
  const int watch = epoll_create1(0);
  for (int number = 0; number < count; ++number) {
    struct Slot slot;
    if (pread(file, &slot, sizeof slot, number * (long)sizeof slot) != sizeof slot) return 1;
    const int process = (int)syscall(SYS_pidfd_open, slot.pid, 0);
    struct epoll_event event = {.events = EPOLLIN, .data = {.fd = process}};
    if (process < 0 || epoll_ctl(watch, EPOLL_CTL_ADD, process, &event) != 0) return 1;
  }
  puts("ready");
  fflush(stdout);
  int64_t first_ns = 0;
  for (int left = count; left > 0;) {
    struct epoll_event ended[64];
    const int news = epoll_wait(watch, ended, 64, -1);
    if (first_ns == 0) first_ns = now_ns();
    for (int place = 0; place < news; ++place) close(ended[place].data.fd);
    left -= news > 0 ? news : 0;
  }
  printf("%lld %lld\n", (long long)first_ns, (long long)now_ns());
  return 0;
}
