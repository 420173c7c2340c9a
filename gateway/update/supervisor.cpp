#include "supervisor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>
#include <utility>

#include "names.h"

namespace gateway::update {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto look_again = 200ms;
constexpr auto settling_time = 3s;
// Longer than the five seconds of the supervisor's forced end.
constexpr auto orderly_end = 7s;
constexpr auto kill_wait = 5s;

// The process that holds the lock of the pid file, 0 for none.
int lock_holder() {
  const Descriptor file(::open(supervisor_pid_file, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  if (!file.valid() || ::fcntl(file.get(), F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return 0;
  return lock.l_pid;
}

bool runs(int pid, const std::string& program) {
  char target[PATH_MAX];
  const ssize_t size = ::readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), target, sizeof target);
  if (size < 0) return false;
  const std::string_view executable(target, static_cast<std::size_t>(size));
  // The kernel's mark of a program whose file has been replaced.
  return executable == program || executable == program + " (deleted)";
}

struct ProcessLine {
  std::string command;
  char state = 'X';
  int parent = 0;
};

// "PID (COMMAND) STATE PARENT ...", where the command may hold anything.
ProcessLine read_process(const std::filesystem::path& directory) {
  ProcessLine process;
  std::ifstream file(directory / "stat");
  std::string line;
  std::getline(file, line);
  const auto begin = line.find('(');
  const auto end = line.rfind(')');
  if (begin == std::string::npos || end == std::string::npos || end + 4 > line.size()) return process;
  process.command = line.substr(begin + 1, end - begin - 1);
  process.state = line[end + 2];
  process.parent = static_cast<int>(std::strtol(line.c_str() + end + 4, nullptr, 10));
  return process;
}

bool stays_during_upgrade(const ProcessLine& process) {
  // The kernel keeps the first fifteen characters of a command.
  return process.command == "fota" || process.command == "RemoteTerminalD";
}

bool has_services(int pid) {
  std::error_code error;
  for (std::filesystem::directory_iterator at("/proc", error), end; !error && at != end; at.increment(error)) {
    const std::string entry = at->path().filename().string();
    if (entry.find_first_not_of("0123456789") != std::string::npos) continue;
    const ProcessLine process = read_process(at->path());
    if (process.parent == pid && process.state != 'Z' && process.state != 'X' && !stays_during_upgrade(process)) {
      return true;
    }
  }
  return false;
}

std::chrono::milliseconds time_until(Clock::time_point end) {
  return std::max(std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()), 0ms);
}

}  // namespace

// --- the process -----------------------------------------------------------------------------------------------------

Supervisor::Found Supervisor::find(const std::string& root, std::optional<Supervisor>& supervisor) {
  const int pid = lock_holder();
  if (pid <= 0) return Found::none;
  Descriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  // Asked again behind the handle: now both mean the same process.
  if (!handle.valid() || lock_holder() != pid) return Found::none;
  if (!runs(pid, root + supervisor_program)) return Found::foreign;
  supervisor.emplace(Supervisor(pid, std::move(handle)));
  return Found::ours;
}

bool Supervisor::wait_for_end(std::chrono::milliseconds time) const {
  const auto end = Clock::now() + time;
  pollfd process{handle_.get(), POLLIN, 0};
  for (;;) {
    const int ready = ::poll(&process, 1, static_cast<int>(time_until(end).count()));
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}

bool Supervisor::signal(int number) const {
  return ::syscall(SYS_pidfd_send_signal, handle_.get(), number, nullptr, 0) == 0;
}

void Supervisor::end() const {
  signal(SIGTERM);
  if (wait_for_end(orderly_end)) return;
  signal(SIGKILL);
  (void)wait_for_end(kill_wait);
}

bool Supervisor::wait_for_services(std::chrono::milliseconds time) const {
  const auto end = Clock::now() + time;
  while (has_services(pid_)) {
    if (Clock::now() >= end || wait_for_end(20ms)) return false;
  }
  return true;
}

Supervisor::Comes Supervisor::wait_until_up(std::chrono::milliseconds time) const {
  const auto end = Clock::now() + time;
  do {
    if (wait_for_end(look_again)) return Comes::ended;
    if (!answers(pid_)) continue;
    if (wait_for_end(settling_time)) return Comes::ended;
    if (answers(pid_)) return Comes::up;
  } while (Clock::now() < end);
  return Comes::silent;
}

// --- the bus ---------------------------------------------------------------------------------------------------------

// Takes the call. The reply, or null with `error` set.
DBusMessage* Bus::ask(DBusMessage* call, DBusError* error) {
  constexpr int time_out_ms = 3000;
  DBusMessage* reply = dbus_connection_send_with_reply_and_block(connection_.get(), call, time_out_ms, error);
  dbus_message_unref(call);
  return reply;
}

bool Bus::connect(std::string& problem) {
  DBusError error = DBUS_ERROR_INIT;
  connection_ = open_bus(&error);
  DBusMessage* reply = nullptr;
  if (connection_) {
    // The greeting by hand: libdbus would wait for its answer much longer.
    reply = ask(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "Hello"), &error);
  }
  const bool connected = reply != nullptr;
  if (connected) dbus_message_unref(reply);
  if (!connected) problem = dbus_error_is_set(&error) ? error.message : "no memory";
  dbus_error_free(&error);
  return connected;
}

int Bus::supervisor_pid() {
  DBusMessage* call = dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS,
                                                   "GetConnectionUnixProcessID");
  const char* owner = supervisor_name;
  dbus_message_append_args(call, DBUS_TYPE_STRING, &owner, DBUS_TYPE_INVALID);
  DBusMessage* reply = ask(call, nullptr);
  dbus_uint32_t pid = 0;
  if (reply == nullptr) return 0;
  (void)dbus_message_get_args(reply, nullptr, DBUS_TYPE_UINT32, &pid, DBUS_TYPE_INVALID);
  dbus_message_unref(reply);
  return static_cast<int>(pid);
}

Bus::Answer Bus::call(const char* member, std::string& problem) {
  DBusError error = DBUS_ERROR_INIT;
  DBusMessage* reply =
      ask(dbus_message_new_method_call(supervisor_name, supervisor_object, supervisor_name, member), &error);
  if (reply != nullptr) {
    dbus_message_unref(reply);
    return Answer::yes;
  }
  const bool heard = dbus_error_has_name(&error, DBUS_ERROR_NO_REPLY) ||
                     dbus_error_has_name(&error, DBUS_ERROR_DISCONNECTED) ||
                     dbus_error_has_name(&error, DBUS_ERROR_TIMEOUT);
  problem = dbus_error_is_set(&error) ? error.message : "no memory";
  dbus_error_free(&error);
  return heard ? Answer::unclear : Answer::no;
}

bool Bus::wait_until_lost(std::chrono::milliseconds time) {
  const auto end = Clock::now() + time;
  while (dbus_connection_get_is_connected(connection_.get())) {
    const auto left = time_until(end);
    if (left == 0ms) return false;
    (void)dbus_connection_read_write_dispatch(connection_.get(), static_cast<int>(left.count()));
  }
  return true;
}

bool answers(int pid) {
  std::string ignored;
  Bus bus;
  return bus.connect(ignored) && bus.supervisor_pid() == pid && bus.call("get_le_status", ignored) == Bus::Answer::yes;
}

// --- the start -------------------------------------------------------------------------------------------------------

namespace {

[[noreturn]] void become_launcher(const std::string& program) {
  (void)::setsid();
  // Nobody's child: nobody here waits for a launcher that may take half a minute.
  if (::fork() != 0) ::_exit(0);
  const int sink = ::open("/dev/null", O_RDWR);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) (void)::dup2(sink, standard);
  for (const int number : {SIGHUP, SIGPIPE}) (void)::signal(number, SIG_DFL);
  sigset_t none;
  (void)::sigemptyset(&none);
  (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
  (void)::execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
  ::_exit(127);
}

}  // namespace

bool launch(const std::string& root) {
  const std::string program = root + supervisor_program;
  const pid_t child = ::fork();
  if (child == 0) become_launcher(program);
  while (child > 0 && ::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  return child > 0;
}

}  // namespace gateway::update
