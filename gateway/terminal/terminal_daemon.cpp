// RemoteTerminalDaemon: gives a shell to each connection at /quorvane/run/console/terminal.socket.
//
// It is for the work on a gateway that is being repaired or upgraded, so it depends on nothing that goes down
// meanwhile: it is no client of the bus, and belongs to no terminal. The supervisor spares it in upgrades and forced
// exits and starts another one after each; that one finds the lock taken and leaves at once.
#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <list>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "descriptor.h"
#include "session.h"
#include "terminal_socket.h"

namespace {

using gateway::Descriptor;
using gateway::Session;

constexpr const char* lock_path = "/quorvane/run/console/terminal.lock";
constexpr const char* socket_path = "/quorvane/run/console/terminal.socket";
constexpr std::size_t most_sessions = 4;
constexpr std::string_view all_taken = "All sessions of this terminal are in use.\r\n";

// Signals as something that can be waited for: the requests to stop, and the ends of shells.
Descriptor take_signals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int number : {SIGTERM, SIGINT, SIGCHLD}) sigaddset(&set, number);
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
  return Descriptor(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

// Also collects the shells that have ended. True: there was a request to stop.
bool read_signals(const Descriptor& signals) {
  bool stop = false;
  for (signalfd_siginfo info{}; ::read(signals.get(), &info, sizeof info) == sizeof info;) {
    if (info.ssi_signo != SIGCHLD) stop = true;
  }
  while (::waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  return stop;
}

// The usual places, behind the installation's own programs.
std::string search_path() {
  std::error_code error;
  const std::string bin = std::filesystem::read_symlink("/proc/self/exe", error).parent_path().string();
  const std::string usual = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
  return error ? usual : bin + ":" + usual;
}

void admit(const Descriptor& listener, std::list<Session>& sessions, const std::string& path) {
  Descriptor connection = gateway::accept_friend(listener);
  if (!connection.valid()) return;
  if (sessions.size() >= most_sessions) {
    (void)::send(connection.get(), all_taken.data(), all_taken.size(), MSG_NOSIGNAL);  // it may have gone
    return;
  }
  auto session = Session::start(std::move(connection), path);
  if (session) sessions.push_back(std::move(*session));
}

// Until a request to stop. What is left of the sessions then ends with the caller's list.
void serve(const Descriptor& listener, const Descriptor& signals, std::list<Session>& sessions) {
  const std::string path = search_path();
  for (;;) {
    std::vector<pollfd> wishes = {{listener.get(), POLLIN, 0}, {signals.get(), POLLIN, 0}};
    for (const Session& session : sessions) {
      wishes.push_back(session.connection_wish());
      wishes.push_back(session.terminal_wish());
    }
    (void)::poll(wishes.data(), wishes.size(), -1);  // when interrupted nothing is found, and it waits again
    if (wishes[1].revents != 0 && read_signals(signals)) return;
    std::size_t at = 2;
    std::erase_if(sessions, [&](Session& session) {
      const bool goes_on = session.serve(wishes[at], wishes[at + 1]);
      at += 2;
      return !goes_on;
    });
    if (wishes[0].revents != 0) admit(listener, sessions, path);
  }
}

}  // namespace

int main() {
  ::umask(022);
  // The terminal that the supervisor was started from is none of its business.
  (void)::setsid();
  std::signal(SIGHUP, SIG_IGN);
  std::signal(SIGPIPE, SIG_IGN);
  const Descriptor signals = take_signals();
  const gateway::Lock lock = gateway::take_lock(lock_path);
  if (!lock.file.valid()) return lock.taken ? EXIT_SUCCESS : EXIT_FAILURE;
  const Descriptor listener = gateway::listen_at(socket_path);
  if (!listener.valid()) return EXIT_FAILURE;
  std::list<Session> sessions;
  serve(listener, signals, sessions);
  // While the lock is held the socket is this process's.
  ::unlink(socket_path);
  return EXIT_SUCCESS;
}
