// usage: bare_watcher LOG RESTARTS COUNT PROGRAM RECORD PREFIX
// Starts COUNT services, PROGRAM RECORD PREFIX_NUMBER, and notes each death in LOG, a line with the wall clock's time.
// With RESTARTS 1 it looks once a second for the dead, notes them again and starts them again. Writes "up" when all are
// started; they end with it.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { most_services = 2000 };

static const char* log_path;
static const char* program;
static const char* record;
static const char* prefix;
static pid_t services[most_services];

static void give_up(const char* what) {
  fprintf(stderr, "bare_watcher: %s\n", what);
  exit(1);
}

static void note(const char* what, int number) {
  struct timeval now;
  gettimeofday(&now, NULL);
  char line[256];
  const int length = snprintf(line, sizeof line, "%lld.%06ld %s %s%04d\n", (long long)now.tv_sec, (long)now.tv_usec,
                              what, prefix, number);
  const int file = open(log_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
  if (file < 0 || write(file, line, (size_t)length) != length) give_up("the log cannot be written");
  close(file);
}

static void start(int number) {
  char name[256];
  snprintf(name, sizeof name, "%s%04d", prefix, number);
  char* const arguments[] = {(char*)program, (char*)record, name, NULL};
  services[number] = fork();
  if (services[number] < 0) give_up("no process");
  if (services[number] > 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, NULL);
  execv(program, arguments);
  _exit(1);
}

static void take_deaths(int count) {
  pid_t ended;
  while ((ended = waitpid(-1, NULL, WNOHANG)) > 0) {
    int number = 0;
    while (number < count && services[number] != ended) ++number;
    if (number == count) continue;
    note("died", number);
    services[number] = 0;
  }
}

static void restart_dead(int count) {
  for (int number = 0; number < count; ++number) {
    if (services[number] != 0) continue;
    note("again", number);
    start(number);
  }
}

// A second from now; a wait with a timeout would be later by as much as the kernel finds good.
static void set_pass(int timer) {
  const struct itimerspec second = {.it_value = {1, 0}};
  timerfd_settime(timer, 0, &second, NULL);
}

int main(int argc, char** argv) {
  if (argc != 7) give_up("usage: bare_watcher LOG RESTARTS COUNT PROGRAM RECORD PREFIX");
  log_path = argv[1];
  const int restarts = (int)strtol(argv[2], NULL, 10);
  const int count = (int)strtol(argv[3], NULL, 10);
  program = argv[4];
  record = argv[5];
  prefix = argv[6];
  if (count < 1 || count > most_services) give_up("too many services");
  sigset_t child_signal;
  sigemptyset(&child_signal);
  sigaddset(&child_signal, SIGCHLD);
  sigprocmask(SIG_BLOCK, &child_signal, NULL);
  struct pollfd events[] = {{signalfd(-1, &child_signal, SFD_NONBLOCK | SFD_CLOEXEC), POLLIN, 0},
                            {timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), POLLIN, 0}};
  for (int number = 0; number < count; ++number) start(number);
  puts("up");
  fflush(stdout);
  if (restarts) set_pass(events[1].fd);
  for (;;) {
    poll(events, 2, -1);
    struct signalfd_siginfo news;
    if (read(events[0].fd, &news, sizeof news) > 0) take_deaths(count);
    uint64_t passes;
    if (read(events[1].fd, &passes, sizeof passes) < 0) continue;
    restart_dead(count);
    set_pass(events[1].fd);
  }
}
