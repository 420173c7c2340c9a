#include "platform/process_host.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>

#include <csignal>
#include <utility>

#include "platform/signal_window.h"
#include "platform/sys/clock.h"
#include "platform/sys/process.h"
#include "platform/time.h"

// Why no signal of the daemon can reach a stranger, and no death is lost:
//
//   fork -> pid stored -> death noticed -> pid cleared -> pid reaped
//
// One thread does the first and the last four of these, so they cannot overlap. It forks and lets the starter store the
// pid before it looks for deaths again, so a death always finds the pid that it belongs to, however fast the child was.
// It looks for deaths without reaping: while a child is a zombie the kernel keeps its number, so everybody who still
// reads that number means this child. Only after the owner was told, and has cleared the pid if it keeps one, does it
// strike the child from the table and reap it, in one step under the lock that every sender holds while it looks its
// target up and signals it. A sender therefore finds the child in the table, and then its number is still taken, or
// does not find it and sends nothing. The serial tells two children apart that were given the same number one after
// the other.
//
// Nothing is allocated while the lock is held: where there is no memory the process ends on the spot, and its end,
// which signals the services, needs the lock.

namespace Tessaro::Iot::Component {

struct CProcessHost::Request {
  const Step& step;
  bool done = false;
};

CProcessHost& CProcessHost::instance() {
  // Never destroyed: threads may still ask it for a signal while the process ends.
  static CProcessHost* const host = new CProcessHost();
  return *host;
}

CProcessHost::CProcessHost() = default;
CProcessHost::~CProcessHost() = default;

bool CProcessHost::bind_to_this_thread() {
  // A starter that ignores SIGCHLD hands that down, and then the kernel would keep no death for us.
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  (void)::sigaction(SIGCHLD, &standard, nullptr);  // cannot fail for SIGCHLD
  sigset_t child_signal;
  (void)::sigemptyset(&child_signal);
  (void)::sigaddset(&child_signal, SIGCHLD);
  (void)::pthread_sigmask(SIG_BLOCK, &child_signal, nullptr);
  child_event_ = UniqueFd(::signalfd(-1, &child_signal, SFD_NONBLOCK | SFD_CLOEXEC));
  request_event_ = UniqueFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  host_thread_ = std::this_thread::get_id();
  return child_event_.valid() && request_event_.valid();
}

bool CProcessHost::on_host_thread() const {
  return host_thread_ == std::thread::id() || host_thread_ == std::this_thread::get_id();
}

ProcessRef CProcessHost::spawn(const CSpawnPlan& plan, const StartedHandler& on_started) {
  ProcessRef started;
  run_steps([&] {
    started = fork_and_store(plan, on_started);
    return false;
  });
  return started;
}

void CProcessHost::run_steps(const Step& step) {
  if (on_host_thread()) {
    while (step()) {
    }
    return;
  }
  Request request{step};
  std::list<Request*> entry{&request};
  std::unique_lock lock(mutex_);
  requests_.splice(requests_.end(), entry);
  const uint64_t one = 1;
  (void)!::write(request_event_.get(), &one, sizeof one);  // full: the host is awake already
  served_.wait(lock, [&request] { return request.done; });
}

ProcessRef CProcessHost::fork_and_store(const CSpawnPlan& plan, const StartedHandler& on_started) {
  ProcessRef process;
  std::map<int32_t, uint64_t> fresh{{0, 0}};
  auto entry = fresh.extract(fresh.begin());
  const int32_t pid = sys::fork_child(plan);
  if (pid > 0) {
    const std::lock_guard lock(mutex_);
    process = ProcessRef{pid, next_serial_++};
    entry.key() = pid;
    entry.mapped() = process.serial;
    (void)children_.insert(std::move(entry));
  }
  if (on_started) on_started(process);
  return process;
}

ProcessRef CProcessHost::adopt(int32_t pid, UniqueFd handle) {
  if (!handle.valid()) return ProcessRef{pid, 0};
  std::map<uint64_t, UniqueFd> fresh;
  fresh.emplace(0, std::move(handle));
  auto entry = fresh.extract(fresh.begin());
  const std::lock_guard lock(mutex_);
  const ProcessRef process{pid, next_serial_++};
  entry.key() = process.serial;
  (void)adopted_.insert(std::move(entry));
  return process;
}

void CProcessHost::forget(ProcessRef process) {
  const std::lock_guard lock(mutex_);
  adopted_.erase(process.serial);
}

int32_t CProcessHost::signal(ProcessRef process, int32_t signal_number) {
  const std::lock_guard lock(mutex_);
  const auto adopted = adopted_.find(process.serial);
  if (adopted != adopted_.end()) return sys::signal_open_process(adopted->second.get(), signal_number);
  return is_child(process) ? sys::send_signal(process.pid, signal_number) : -1;
}

bool CProcessHost::is_current(ProcessRef process) {
  const std::lock_guard lock(mutex_);
  const auto adopted = adopted_.find(process.serial);
  if (adopted != adopted_.end()) return sys::signal_open_process(adopted->second.get(), 0) == 0;
  return is_child(process);
}

bool CProcessHost::is_child(ProcessRef process) const {
  const auto child = children_.find(process.pid);
  return child != children_.end() && child->second == process.serial;
}

void CProcessHost::run_to_end(const CSpawnPlan& plan) {
  constexpr int64_t recheck_ms = 1000;
  const ProcessRef process = spawn(plan, nullptr);
  if (process.pid < 1) return;
  while (!sys::peek_ended_child(process.pid)) {
    pollfd event{child_event_.get(), POLLIN, 0};
    (void)SignalWindow::poll(&event, 1, recheck_ms);
    signalfd_siginfo sign{};
    (void)!::read(child_event_.get(), &sign, sizeof sign);  // emptied; other deaths are found by the first serve
    may_have_ended_ = true;
  }
  const std::lock_guard lock(mutex_);
  children_.erase(process.pid);
  sys::reap_child(process.pid);
}

void CProcessHost::wait_until_ended(ProcessRef process, int64_t timeout_ms) {
  constexpr int64_t recheck_ms = 10;
  const int64_t end = CTime::getSystemStartupMilliSecond() + timeout_ms;
  const auto lives = [this, process] {
    const std::lock_guard lock(mutex_);
    return is_child(process) && !sys::peek_ended_child(process.pid);
  };
  while (lives() && CTime::getSystemStartupMilliSecond() < end) {
    sys::pause_for(recheck_ms);
  }
}

void CProcessHost::serve(int64_t timeout_ms, const EndedHandler& on_ended) {
  bool more = serve_requests();
  int32_t pid = 0;
  int32_t raw_status = 0;
  while (find_ended_child(pid, raw_status)) {
    on_ended(pid, raw_status);
    {
      const std::lock_guard lock(mutex_);
      children_.erase(pid);
      sys::reap_child(pid);
    }
    if (!more) more = serve_requests();  // a start does not wait behind a burst of deaths
  }
  if (more) {
    // Without descriptors: one that is ready would keep a pending signal waiting.
    (void)SignalWindow::poll(nullptr, 0, 0);
  } else {
    wait_for_event(timeout_ms);
  }
}

// The kernel goes through all children for each look, so there is none without a sign that one has ended. One sign may
// stand for many deaths: it counts until nobody is found. It is taken before the look, so that one that comes during a
// look leads to another.
bool CProcessHost::find_ended_child(int32_t& pid, int32_t& raw_status) {
  signalfd_siginfo sign{};
  if (!child_event_.valid() || ::read(child_event_.get(), &sign, sizeof sign) > 0) may_have_ended_ = true;
  may_have_ended_ = may_have_ended_ && sys::peek_ended_child(pid, raw_status);
  return may_have_ended_;
}

// Returns true when a request has more steps: they come after a look at deaths and signals.
bool CProcessHost::serve_requests() {
  std::unique_lock lock(mutex_);
  while (!requests_.empty()) {
    Request* const request = requests_.front();
    lock.unlock();
    if (request->step()) return true;
    lock.lock();
    requests_.pop_front();
    request->done = true;
    served_.notify_all();
  }
  return false;
}

void CProcessHost::wait_for_event(int64_t timeout_ms) {
  pollfd events[] = {{child_event_.get(), POLLIN, 0}, {request_event_.get(), POLLIN, 0}};
  (void)SignalWindow::poll(events, 2, timeout_ms);  // whatever ended the wait, the next turn looks at everything
  may_have_ended_ = true;
  uint64_t count = 0;
  (void)!::read(request_event_.get(), &count, sizeof count);
}

}  // namespace Tessaro::Iot::Component
