#include "main.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "arguments.h"
#include "install_root.h"
#include "paths.h"
#include "pid_file.h"
#include "platform/dir.h"
#include "platform/json_opr.h"
#include "platform/process_host.h"
#include "platform/signal_window.h"
#include "platform/sys/process.h"
#include "platform/thread.h"
#include "process_end.h"
#include "process_scan.h"
#include "progress_relay.h"
#include "start_up.h"
#include "startup_log.h"
#include "status_client.h"

// The handled signals run the daemon's shutdown in the handler itself. That is safe because they are blocked in every
// thread, and opened only where the main thread waits: there it holds no lock and is in the middle of nothing. A fault
// cannot be held back: SIGSEGV and SIGILL stay open everywhere, and abort() opens SIGABRT. What comes that way is
// logged by means that neither lock nor allocate, and handed to the main thread where it happened elsewhere.

namespace Tessaro::Iot::Quorvaned {

using namespace Component;

namespace {

constexpr int32_t exit_failure = -1;       // 255 for the shell
constexpr int64_t serve_wait_ms = 60'000;  // nothing is known to need it: deaths and requests end the wait
constexpr int64_t stop_pause_ms = 3000;
constexpr uint32_t backstop_s = 8;  // longer than any orderly end takes
constexpr size_t alternate_stack_size = size_t{64} * 1024;

enum class Action { stop, stop_keeping_remote_debug, finish_upgrade, end_at_once };

struct HandledSignal {
  int32_t number;
  Action action;
};

constexpr HandledSignal handled_signals[] = {{SIGTERM, Action::stop},
                                             {SIGINT, Action::stop},
                                             {SIGSEGV, Action::end_at_once},
                                             {SIGQUIT, Action::stop},
                                             {SIGILL, Action::stop},
                                             {SIGABRT, Action::stop},
                                             {SIGUSR1, Action::stop_keeping_remote_debug},
                                             {SIGUSR2, Action::finish_upgrade}};
constexpr int32_t ignored_signals[] = {SIGTTOU, SIGTTIN, SIGTSTP, SIGHUP, SIGPIPE};

// Set once on the start path, before anything can read them.
int32_t progress_fd = -1;
std::atomic<CStartup*> startup{nullptr};
pthread_t main_thread;
alignas(16) char alternate_stack[alternate_stack_size];

Action action_of(int32_t number) noexcept {
  for (const HandledSignal& handled : handled_signals) {
    if (handled.number == number) return handled.action;
  }
  return Action::stop;
}

// The handled signals that are held back outside of waits.
sigset_t held_back_signals() noexcept {
  sigset_t set;
  (void)::sigemptyset(&set);
  for (const HandledSignal& handled : handled_signals) {
    if (handled.number != SIGSEGV && handled.number != SIGILL) (void)::sigaddset(&set, handled.number);
  }
  return set;
}

void write_caught_line(int32_t number) noexcept {
  // sigdescr_np gives strsignal's text without its buffer and its translation.
  const char* const description = ::sigdescr_np(number);
  char message[96] = "caught ";
  (void)::strncat(message, description != nullptr ? description : "Unknown signal", 48);
  (void)::strcat(message, "(");
  char digits[] = {static_cast<char>('0' + number / 10), static_cast<char>('0' + number % 10), '\0'};
  (void)::strcat(message, number < 10 ? digits + 1 : digits);
  (void)::strcat(message, ") signal, exit");
  write_startup_log_in_handler(__FILE_NAME__, __LINE__, message);
}

// A fault may have left a lock held that the orderly end needs. The kernel then ends the process, and with it the
// services.
void arm_backstop() noexcept { (void)::alarm(backstop_s); }

// A signal that somebody sent, unlike a fault of this thread.
bool was_sent(const siginfo_t& info) noexcept { return info.si_code <= 0; }

void hand_to_main_thread(int32_t number, const siginfo_t& info) noexcept {
  const bool own_end = !was_sent(info) || number == SIGABRT;
  if (own_end) arm_backstop();
  (void)::pthread_kill(main_thread, number);
  if (own_end) wait_for_the_end();  // this thread cannot go on: it would fault, or abort for good
}

// Leaves the signal pending on the main thread until its next wait.
void hold_back(int32_t number, void* context) noexcept {
  (void)::sigaddset(&static_cast<ucontext_t*>(context)->uc_sigmask, number);
  (void)::pthread_kill(main_thread, number);
}

void act_on(int32_t number) noexcept {
  write_caught_line(number);
  CStartup* const controller = startup.load();
  if (controller == nullptr) ::_exit(exit_failure);  // a fault before there is anything to stop
  switch (action_of(number)) {
    case Action::finish_upgrade:
      controller->finish_upgrade();
    case Action::stop_keeping_remote_debug:
      controller->stop(1);
      break;
    default:
      controller->stop(0);
  }
}

void fatal_signal_handler(int32_t number, siginfo_t* info, void* context) noexcept {
  const int32_t saved_errno = errno;
  if (action_of(number) == Action::end_at_once) {
    write_caught_line(number);
    ::_exit(exit_failure);
  }
  if (::pthread_equal(::pthread_self(), main_thread) == 0) {
    hand_to_main_thread(number, *info);
  } else if (!SignalWindow::inside() && number == SIGILL && was_sent(*info)) {
    hold_back(number, context);
  } else {
    if (!SignalWindow::inside()) arm_backstop();
    act_on(number);
  }
  errno = saved_errno;
}

void install_signal_handlers() noexcept {
  main_thread = ::pthread_self();
  learn_time_zone();
  stack_t stack{};
  stack.ss_sp = alternate_stack;
  stack.ss_size = sizeof alternate_stack;
  (void)::sigaltstack(&stack, nullptr);  // without it a fault by stack overflow has no log line
  for (const HandledSignal& handled : handled_signals) {
    struct sigaction action {};
    action.sa_sigaction = fatal_signal_handler;
    // Of several that are pending at once only one may enter: it does not return, and what the kernel had put below it
    // would never run. The others stay pending until the shutdown waits itself.
    action.sa_mask = held_back_signals();
    const bool can_be_fault = handled.number == SIGSEGV || handled.number == SIGILL;
    action.sa_flags = SA_SIGINFO | (can_be_fault ? SA_ONSTACK : 0);
    (void)::sigaction(handled.number, &action, nullptr);  // none of them can be refused
  }
  for (const int32_t number : ignored_signals) (void)::signal(number, SIG_IGN);
  (void)::alarm(0);  // an alarm outlives a re-execution
  (void)::signal(SIGALRM, SIG_DFL);
}

// A starter may have closed the standard descriptors; the first pipes and sockets would take their numbers.
void open_missing_standard_descriptors() noexcept {
  int fd = ::open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO) fd = ::dup(fd);
  if (fd >= 0) (void)::close(fd);
}

void discard_own_output() noexcept {
  const int sink = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (sink < 0) return;
  (void)::dup2(sink, STDOUT_FILENO);
  (void)::dup2(sink, STDERR_FILENO);
  (void)::close(sink);
}

// Goes on in the background; returns only in the child. The parent relays the progress with the signal mask that it was
// started with, so that the terminal's signals end it.
void daemonize(const sigset_t& starter_mask) {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) std::exit(exit_failure);
  const pid_t pid = ::fork();
  if (pid < 0) std::exit(exit_failure);
  if (pid > 0) {
    (void)::pthread_sigmask(SIG_SETMASK, &starter_mask, nullptr);
    (void)::close(ends[1]);
    relay_progress(ends[0], STDOUT_FILENO, relay_silence_ms);
    (void)::close(ends[0]);
    std::exit(0);
  }
  (void)::close(ends[0]);
  // A launcher that is stopped does not read: lines that do not fit are dropped rather than waited for.
  (void)::fcntl(ends[1], F_SETFL, O_NONBLOCK);
  progress_fd = ends[1];
  (void)::setsid();  // a fresh child leads no group, so it cannot fail
  (void)::umask(0);
  discard_own_output();
}

// All threads share one heap. With one for each, what a thread has given back is of no use to the others, and every
// start of the bus's threads finds other gaps: the daemon would grow for hours before it stays as it is.
// And what one large message has taken is given back, which it would not be once the allocator had grown used to it.
void keep_heap_small() noexcept {
  constexpr int own_mapping_size = 128 * 1024;
  (void)::mallopt(M_ARENA_MAX, 1);
  (void)::mallopt(M_MMAP_THRESHOLD, own_mapping_size);
}

[[nodiscard]] int32_t run_daemon(int32_t argc, char** argv) {
  keep_heap_small();
  for (int32_t position = 1; position < argc; ++position) {
    STARTUP_LOG("quorvaned start, argv[%d]:%s", position, argv[position]);
  }
  const StartRequest request = read_start_request(argc, argv);
  STARTUP_LOG("quorvaned start, pid:%d legal_count:%d nofork:%s", ::getpid(), request.legal_count,
              request.nofork ? "true" : "false");
  if (!request.is_legal()) {
    (void)std::puts("input parameter error");
    return exit_failure;
  }
  const ServiceArguments arguments = take_service_arguments(request, argc, argv);

  // From here on no handled signal gets in before the handlers stand and there is a controller that they can act on;
  // one that is pending, from before a re-execution, waits. Set, not added: the starter may have blocked others.
  const sigset_t held_back = held_back_signals();
  sigset_t starter_mask;
  (void)::pthread_sigmask(SIG_SETMASK, &held_back, &starter_mask);
  if (!request.nofork) daemonize(starter_mask);
  install_signal_handlers();
  CProcessHost& processes = CProcessHost::instance();
  if (!processes.bind_to_this_thread()) return exit_failure;
  startup = new CStartup(progress_fd, arguments);

  sigset_t open_mask;  // SIGCHLD alone stays blocked: it is read as data
  (void)::sigemptyset(&open_mask);
  (void)::sigaddset(&open_mask, SIGCHLD);
  SignalWindow::open_on_this_thread(open_mask);
  (void)!::chdir((get_install_root() + "/bin").c_str());  // then no catalogue is found, and that is said
  CStartup& controller = *startup.load();
  if (!controller.start()) return exit_failure;
  for (;;) {
    processes.serve(serve_wait_ms, [&controller](int32_t pid, int32_t raw_status) {
      STARTUP_LOG("wait pid(%d) status(%d)", pid, raw_status);
      controller.on_child_exit(pid);
    });
  }
}

enum class StopMode { everything, except_remote_debug };

// Signals a process that was found by its name, if its number still means that program.
void signal_program(int32_t pid, const std::string& name, int32_t signal_number) {
  const UniqueFd process = open_program(pid, name);
  if (process.valid()) (void)sys::signal_open_process(process.get(), signal_number);  // it may end meanwhile
}

void kill_programs(const std::string& name) {
  std::vector<int32_t> pids;
  (void)find_processes_by_name(name, pids);  // an unreadable /proc shows nobody
  for (const int32_t pid : pids) {
    if (pid == ::getpid()) continue;
    STARTUP_LOG("kill -%d %s(%d)", SIGKILL, name.c_str(), pid);
    signal_program(pid, name, SIGKILL);
  }
}

// Signals the running daemons. Returns true when one was found.
bool signal_daemons(int32_t signal_number) {
  std::vector<int32_t> pids;
  if (CDir::isDir(Paths::pid_file)) {
    pids.push_back(read_locked_pid(Paths::pid_file));
  } else {
    (void)find_processes_by_name("quorvaned", pids);  // an unreadable /proc shows nobody
  }
  bool found = false;
  for (const int32_t pid : pids) {
    if (pid < 1 || pid == ::getpid()) continue;
    STARTUP_LOG("stop, kill -%d %d", signal_number, pid);
    signal_program(pid, "quorvaned", signal_number);
    found = true;
  }
  return found;
}

void kill_catalogued_services(StopMode mode) {
  Json::Value catalogue;
  {
    std::ifstream stream(get_install_root() + "/config/services.json", std::ios::binary);
    if (!JsonOpr::parse(stream, catalogue) || !catalogue.isArray()) return;
  }
  for (const Json::Value& element : catalogue) {
    const std::string exec = JsonOpr::get_json_value(element, "exec", "");
    const bool spared = exec == "fota" || exec == "RemoteTerminalDaemon";
    if (mode == StopMode::except_remote_debug && spared) continue;
    kill_programs(exec);
  }
}

// Signals the daemon, whose own shutdown stops the services; without one it kills the services itself. It does not look
// whether anything has ended: the pause is all.
void stop_command(StopMode mode) {
  if (!signal_daemons(mode == StopMode::except_remote_debug ? SIGUSR1 : SIGTERM)) {
    STARTUP_LOG("stop, can't find quorvaned");
    kill_catalogued_services(mode);
    kill_programs("dbus-daemon");
  }
  CThread::sleep(stop_pause_ms);
  if (mode == StopMode::except_remote_debug) {
    (void)std::puts("quorvaned: all services except\033[31m RemoteDebugDaemon \033[0mis stopped");
    (void)std::puts("IF you want to stop all services, please run \033[32miot_gateway_stop.sh all\033[0m");
  } else {
    (void)std::puts("quorvaned: shutdown completed");
  }
}

}  // namespace

int32_t quorvaned_main(int32_t argc, char** argv) {
  open_missing_standard_descriptors();
  switch (mode_of(argc, argv)) {
    case Mode::stop_all:
      stop_command(StopMode::everything);
      return 0;
    case Mode::stop_except_remotedebug:
      stop_command(StopMode::except_remote_debug);
      return 0;
    case Mode::status:
      return status_command();
    case Mode::error:
      (void)std::puts("input parameter error");
      return exit_failure;
    case Mode::start:
      break;
  }
  return run_daemon(argc, argv);
}

}  // namespace Tessaro::Iot::Quorvaned
