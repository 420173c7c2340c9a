#include "platform/sys/process.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <string>
#include <vector>

#include "platform/spawn_plan.h"

namespace Tessaro::Iot::Component::sys {

namespace {

constexpr int first_private_fd = 3;

// Everything that the child needs, laid out before it begins: it borrows the daemon's memory until the exec, and may
// neither allocate there, because another thread may hold the allocator's lock, nor change what the daemon reads.
struct PreparedChild {
  const char* program = nullptr;
  char* const* arguments = nullptr;
  char* const* environment = nullptr;
  const char* working_directory = nullptr;  // null: stay
  int32_t parent_death_signal = 0;
  bool discard_output = false;
  mode_t extra_umask = 0;
  pid_t parent = 0;
  int descriptor_limit = 0;
};

void reset_signal_handlers() noexcept {
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  for (int number = 1; number < NSIG; ++number) {
    (void)::sigaction(number, &standard, nullptr);  // refused for SIGKILL, SIGSTOP and glibc's own
  }
}

void discard_output() noexcept {
  for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
    (void)::close(fd);
    const int sink = ::open("/dev/null", O_WRONLY);
    if (sink >= 0 && sink != fd) {
      (void)::dup2(sink, fd);
      (void)::close(sink);
    }
  }
}

void close_private_descriptors(int descriptor_limit) noexcept {
  // One call instead of one per possible descriptor, of which there may be a thousand million.
  if (::close_range(first_private_fd, ~0U, 0) == 0) return;
  for (int fd = first_private_fd; fd < descriptor_limit; ++fd) (void)::close(fd);
}

// The child's whole life up to the exec. It only makes calls that are safe beside the daemon's threads. What it changes
// of signals, descriptors, directories and priorities is its own. Every handled signal is blocked when it begins, so
// none can run the daemon's handlers in here. Never inlined: its caller's frame is the one that the daemon goes on
// with.
[[noreturn, gnu::noinline]] void run_child(const PreparedChild& child) noexcept {
  reset_signal_handlers();
  if (child.parent_death_signal != 0) {
    (void)::prctl(PR_SET_PDEATHSIG, child.parent_death_signal);
    // The daemon may have died before the line above, and then nobody would ever stop this child.
    if (::getppid() != child.parent) ::_exit(0);
  }
  const sched_param no_priority{};
  (void)::sched_setscheduler(0, SCHED_OTHER, &no_priority);  // the daemon may have been started with another one
  if (child.discard_output) discard_output();
  close_private_descriptors(child.descriptor_limit);
  if (child.working_directory != nullptr)
    (void)!::chdir(child.working_directory);  // refused: the program is looked for from here
  if (child.extra_umask != 0) (void)::umask(::umask(0) | child.extra_umask);
  sigset_t none;
  (void)::sigemptyset(&none);
  (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
  // execvpe, since it also runs scripts that do not name an interpreter.
  (void)::execvpe(child.program, child.arguments, child.environment);
  // _exit: exit would run the daemon's destructors and print its buffers a second time.
  ::_exit(0);
}

std::vector<char*> argument_pointers(const std::vector<std::string>& arguments) {
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

// The daemon's environment with `entry` in the place of the variable of the same name.
std::vector<char*> environment_pointers(const std::string& entry) {
  std::vector<char*> pointers;
  const std::string prefix = entry.substr(0, entry.find('=') + 1);
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    if (entry.empty() || std::string(*variable).compare(0, prefix.size(), prefix) != 0) pointers.push_back(*variable);
  }
  if (!entry.empty()) pointers.push_back(const_cast<char*>(entry.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

int32_t raw_status_of(const siginfo_t& info) noexcept {
  constexpr int32_t core_flag = 0x80;
  constexpr int32_t exit_shift = 8;
  switch (info.si_code) {
    case CLD_EXITED:
      return static_cast<int32_t>(info.si_status) << exit_shift;
    case CLD_DUMPED:
      return info.si_status | core_flag;
    default:
      return info.si_status;
  }
}

bool peek(idtype_t which, id_t id, int32_t& pid, int32_t& raw_status) noexcept {
  siginfo_t info{};
  if (::waitid(which, id, &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == 0) return false;
  pid = info.si_pid;
  raw_status = raw_status_of(info);
  return true;
}

}  // namespace

int32_t fork_child(const CSpawnPlan& plan) {
  const std::vector<char*> arguments = argument_pointers(plan.arguments);
  const std::vector<char*> environment = environment_pointers(plan.environment_entry);
  PreparedChild child;
  child.program = plan.program.c_str();
  child.arguments = arguments.data();
  child.environment = environment.data();
  child.working_directory = plan.working_directory.empty() ? nullptr : plan.working_directory.c_str();
  child.parent_death_signal = plan.parent_death_signal;
  child.discard_output = plan.discard_output;
  child.extra_umask = plan.extra_umask;
  child.parent = ::getpid();
  child.descriptor_limit = ::getdtablesize();

  // Nothing may reach the child before it has given up the daemon's handlers: a stop would run there.
  sigset_t all;
  sigset_t before;
  (void)::sigfillset(&all);
  (void)::pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t pid = ::vfork();  // without a copy of the daemon's page tables, which would be a third of a start
  if (pid == 0) run_child(child);
  (void)::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return pid;
}

int32_t send_signal(int32_t pid, int32_t signal_number) noexcept { return ::kill(pid, signal_number); }

bool peek_ended_child(int32_t& pid, int32_t& raw_status) noexcept { return peek(P_ALL, 0, pid, raw_status); }

bool peek_ended_child(int32_t pid) noexcept {
  int32_t ended = 0;
  int32_t raw_status = 0;
  return peek(P_PID, static_cast<id_t>(pid), ended, raw_status);
}

void reap_child(int32_t pid) noexcept {
  (void)::waitpid(pid, nullptr, WNOHANG);  // it was seen to have ended
}

int32_t open_process(int32_t pid) noexcept { return static_cast<int32_t>(::syscall(SYS_pidfd_open, pid, 0)); }

int32_t signal_open_process(int32_t process_fd, int32_t signal_number) noexcept {
  return static_cast<int32_t>(::syscall(SYS_pidfd_send_signal, process_fd, signal_number, nullptr, 0));
}

}  // namespace Tessaro::Iot::Component::sys
