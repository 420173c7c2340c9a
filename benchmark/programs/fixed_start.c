// usage: fixed_start KEY_CHAIN_COMMAND BUS_PROGRAM ARG...
// Does what a gateway's start does once, however many services it has. Prints the nanoseconds from the fork of a shell
// for the command to its end, and those from the bus daemon's exec until it listens.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bare_bus.h"

enum { nap_ns = 50000, most_naps = 100000 };

// Fills `executed` with the moment of the exec: the child shares this memory until then.
static pid_t start(char* const* arguments, volatile int64_t* executed) {
  const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
  const pid_t pid = vfork();
  if (pid == 0) {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) dup2(nowhere, stream);
    *executed = now_ns();
    execv(arguments[0], arguments);
    _exit(127);
  }
  close(nowhere);
  if (pid < 0) give_up("no process");
  return pid;
}

static int64_t key_chain_ns(const char* command) {
  char* const arguments[] = {(char*)"/bin/sh", (char*)"-c", (char*)command, NULL};
  int64_t executed = 0;
  const int64_t begin = now_ns();
  int status = 0;
  if (waitpid(start(arguments, &executed), &status, 0) < 0 || status != 0) give_up("the key-chain tool failed");
  return now_ns() - begin;
}

// Looked at more often than anybody would who only waits for it: how long the bus takes is asked, not when it is seen.
// To be heard by it takes more, once for each connection: that belongs to who connects.
static int64_t bus_ns(char* const* arguments) {
  int64_t executed = 0;
  const pid_t pid = start(arguments, &executed);
  const struct timespec nap = {0, nap_ns};
  DBusConnection* connection = NULL;
  for (int naps = 0; connection == NULL && naps < most_naps; ++naps) {
    if (access(BUS_SOCKET, F_OK) == 0) connection = dbus_connection_open_private(BUS_ADDRESS, NULL);
    if (connection == NULL) nanosleep(&nap, NULL);
  }
  const int64_t end = now_ns();
  if (connection == NULL) give_up("no bus");
  kill(pid, SIGKILL);
  waitpid(pid, NULL, 0);
  return end - executed;
}

int main(int argc, char** argv) {
  if (argc < 3) give_up("usage: fixed_start KEY_CHAIN_COMMAND BUS_PROGRAM ARG...");
  const int64_t key_chain = key_chain_ns(argv[1]);
  printf("%lld %lld\n", (long long)key_chain, (long long)bus_ns(argv + 2));
  return 0;
}
