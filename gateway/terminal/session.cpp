#include "session.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <utility>

namespace gateway {
namespace {

// What the terminal's line editing takes for the end of the input, when it stands at the beginning of a line. An empty
// line in front of it is nothing to a shell.
constexpr char end_of_input[] = {'\n', '\x04'};

// In the child. Whatever the daemon has set for itself is set back.
[[noreturn]] void run_shell(const std::string& path) {
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGCHLD, SIGTSTP, SIGTTIN, SIGTTOU}) {
    std::signal(number, SIG_DFL);
  }
  ::umask(022);
  ::setenv("PATH", path.c_str(), 1);
  ::setenv("TERM", "xterm", 0);
  ::setenv("HOME", "/", 0);
  if (::chdir("/") != 0) ::_exit(EXIT_FAILURE);
  ::execl("/bin/sh", "sh", static_cast<char*>(nullptr));
  ::_exit(EXIT_FAILURE);
}

}  // namespace

std::optional<Session> Session::start(Descriptor connection, const std::string& path) {
  int master = -1;
  const pid_t shell = ::forkpty(&master, nullptr, nullptr, nullptr);
  if (shell == 0) run_shell(path);
  if (shell < 0) return std::nullopt;
  // Else the shells of later connections would keep this terminal open.
  ::fcntl(master, F_SETFD, FD_CLOEXEC);
  ::fcntl(master, F_SETFL, O_NONBLOCK);
  return Session(std::move(connection), Descriptor(master));
}

pollfd Session::connection_wish() const {
  return {connection_.get(), static_cast<short>(input_.reads() | output_.writes()), 0};
}

pollfd Session::terminal_wish() const {
  short events = static_cast<short>(output_.reads() | input_.writes());
  if (input_.done() && !end_told_) events |= POLLOUT;
  // Passed over when nothing is wished for: of a shell that has ended poll would tell without end.
  return {events != 0 ? terminal_.get() : -1, events, 0};
}

bool Session::serve(const pollfd& connection, const pollfd& terminal) {
  // Both directions of the connection are closed: nobody reads the output.
  if ((connection.revents & (POLLHUP | POLLERR)) != 0) return false;
  if ((connection.revents & POLLIN) != 0) input_.fill(connection_.get());
  if ((terminal.revents & (POLLIN | POLLHUP | POLLERR)) != 0) output_.fill(terminal_.get());
  // A shell that has just ended takes no input, but its last words may still be on their way.
  (void)input_.drain(terminal_.get());
  // The client will say no more and may still listen, like one at the end of a pipe.
  if (input_.done() && !end_told_) end_told_ = ::write(terminal_.get(), end_of_input, sizeof end_of_input) > 0;
  return output_.drain(connection_.get()) && !output_.done();
}

}  // namespace gateway
