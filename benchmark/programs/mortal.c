// usage: mortal RECORD NAME
// A service that adds one line to RECORD, the moment of its first instructions in nanoseconds of the wall clock, NAME
// and its pid, and then waits to be killed.
#include <fcntl.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char** argv) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (argc < 3) return 1;
  char line[512];
  const int length =
      snprintf(line, sizeof line, "%lld%09ld %s %d\n", (long long)now.tv_sec, now.tv_nsec, argv[2], getpid());
  const int record = open(argv[1], O_WRONLY | O_APPEND | O_CREAT, 0644);
  // One write, so that the lines of many services do not mix.
  if (record < 0 || write(record, line, (size_t)length) != length) return 1;
  close(record);
  for (;;) pause();
}
