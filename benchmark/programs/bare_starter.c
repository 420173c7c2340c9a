// usage: bare_starter COUNT PROGRAM FILE SIGNAL
// Starts COUNT times PROGRAM FILE NUMBER, as fast as they can be started. When a line comes in, sends all of them the
// signal, waits for their ends, and prints when it sent the first one and when it had seen the last one's end, in
// nanoseconds since 1970.
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static int64_t now_ns(void) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

static pid_t start(const char* program, const char* file, int number) {
  char text[16];
  snprintf(text, sizeof text, "%d", number);
  char* const arguments[] = {(char*)program, (char*)file, text, NULL};
  const pid_t pid = vfork();
  if (pid == 0) {
    execv(program, arguments);
    _exit(127);
  }
  return pid;
}

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  const int count = (int)strtol(argv[1], NULL, 10);
  const int signal_number = (int)strtol(argv[4], NULL, 10);
  pid_t* pids = calloc((size_t)count + 1, sizeof *pids);
  if (pids == NULL) return 1;
  for (int number = 0; number < count; ++number) pids[number] = start(argv[2], argv[3], number);
  char line[16];
  if (fgets(line, sizeof line, stdin) == NULL) return 1;
  const int64_t begin = now_ns();
  for (int number = 0; number < count; ++number) kill(pids[number], signal_number);
  for (int number = 0; number < count; ++number) wait(NULL);
  printf("%lld %lld\n", (long long)begin, (long long)now_ns());
  free(pids);
  return 0;
}
