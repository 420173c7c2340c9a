#include "private_bus.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace test {

namespace {

constexpr const char* daemon_program = "/usr/bin/dbus-daemon";

// Who may do what is no matter of these tests: everybody may do everything.
std::string configuration(const std::string& address) {
  return R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>)" +
         address + R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";
}

// In the child: the daemon, which ends with the test whatever happens to the test.
[[noreturn]] void become_daemon(const char* configuration_argument, int output) {
  (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
  (void)::dup2(output, STDOUT_FILENO);
  ::execl(daemon_program, daemon_program, configuration_argument, "--nofork", "--nopidfile", "--nosyslog",
          "--print-address=1", static_cast<char*>(nullptr));
  ::_exit(127);
}

}  // namespace

PrivateBus::PrivateBus() : socket_path_(dir_ / "socket"), address_("unix:path=" + socket_path_) {
  write_file(dir_ / "bus.conf", configuration(address_));
  (void)start();
}

PrivateBus::~PrivateBus() { kill(); }

bool PrivateBus::start() {
  const std::string argument = "--config-file=" + (dir_ / "bus.conf");
  int output[2];
  if (::pipe2(output, O_CLOEXEC) != 0) return false;
  pid_ = ::fork();
  if (pid_ == 0) become_daemon(argument.c_str(), output[1]);
  (void)::close(output[1]);
  char first = '\0';
  const bool listens = ::read(output[0], &first, 1) == 1;  // it prints its address once it listens
  (void)::close(output[0]);
  if (!listens) kill();
  return listens;
}

void PrivateBus::kill() {
  if (pid_ <= 0) return;
  (void)::kill(pid_, SIGKILL);
  (void)::waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

void PrivateBus::freeze() {
  (void)::kill(pid_, SIGSTOP);
  (void)::waitpid(pid_, nullptr, WUNTRACED);
}

void PrivateBus::thaw() { (void)::kill(pid_, SIGCONT); }

}  // namespace test
