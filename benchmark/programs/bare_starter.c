// usage: bare_starter COUNT PROGRAM FILE SIGNAL [LOG]
// Starts COUNT times PROGRAM FILE NUMBER, as fast as they can be started. When a line comes in, sends all of them the
// signal, waits for their ends, and prints when it began to send it, in nanoseconds since 1970. With LOG it writes a
// line there before each signal and, unless that is SIGKILL, two after each end, as the daemon does.
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

// As long as the daemon's own lines are, in bytes: of the signal, of the wait for the process, and of its end.
enum { kill_line = 92, wait_line = 74, process_exit_line = 82 };

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

// Writers take turns, as the daemon's do.
static void write_line(const char* log, size_t length) {
  char line[128];
  if (log == NULL) return;
  memset(line, 'x', length);
  line[length - 1] = '\n';
  struct stat status;
  const int file = open(log, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
  if (file < 0 || flock(file, LOCK_EX) != 0 || fstat(file, &status) != 0) _exit(1);
  if (write(file, line, length) != (ssize_t)length) _exit(1);
  close(file);
}

static void end_all(const pid_t* pids, int count, int signal_number, const char* log) {
  for (int number = 0; number < count; ++number) {
    write_line(log, kill_line);
    kill(pids[number], signal_number);
  }
  for (int number = 0; number < count; ++number) {
    wait(NULL);
    if (signal_number == SIGKILL) continue;
    write_line(log, wait_line);
    write_line(log, process_exit_line);
  }
}

int main(int argc, char** argv) {
  if (argc != 5 && argc != 6) return 2;
  const int count = (int)strtol(argv[1], NULL, 10);
  const int signal_number = (int)strtol(argv[4], NULL, 10);
  pid_t* pids = calloc((size_t)count + 1, sizeof *pids);
  if (pids == NULL) return 1;
  for (int number = 0; number < count; ++number) pids[number] = start(argv[2], argv[3], number);
  char line[16];
  if (fgets(line, sizeof line, stdin) == NULL) return 1;
  const int64_t begin = now_ns();
  end_all(pids, count, signal_number, argv[5]);
  printf("%lld\n", (long long)begin);
  free(pids);
  return 0;
}
