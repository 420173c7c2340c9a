// The host of the child processes: the one owner of fork, signal and reap.
//
// All children are forked and reaped by one thread, the main thread, whatever thread asks: the kernel sends the
// parent-death signal when the *thread* that forked ends, so a child forked by a short-lived thread would be killed
// with it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <thread>

#include "platform/function.h"
#include "platform/spawn_plan.h"
#include "platform/unique_fd.h"

namespace Tessaro::Iot::Component {

// Names one process for good. The pid is what people read; the serial is never reused, so a reference that outlived
// its process can never mean a stranger that was given the same number.
struct ProcessRef {
  int32_t pid = 0;
  uint64_t serial = 0;  // 0: no process

  bool operator==(const ProcessRef&) const = default;
};

class CProcessHost {
 public:
  using StartedHandler = TFunction1<void, ProcessRef>;
  using EndedHandler = TFunction2<void, int32_t, int32_t>;  // pid and raw status of wait(2)
  using Step = TFunction0<bool>;

  // The host of this process, created at the first call and never destroyed.
  // Context: any thread.
  static CProcessHost& instance();

  CProcessHost();
  ~CProcessHost();
  CProcessHost(const CProcessHost&) = delete;
  CProcessHost& operator=(const CProcessHost&) = delete;

  // Makes the calling thread the one that forks and reaps, and gives SIGCHLD its default disposition, blocked, so that
  // deaths arrive as data in `serve`. Without it (unit tests) every thread forks directly.
  // Returns false when the descriptors of the loop cannot be made.
  // Context: main thread, before any other thread exists.
  [[nodiscard]] bool bind_to_this_thread();

  // Starts a child. `on_started` runs on the forking thread, after the fork and before anything is reaped, also after
  // a failed fork; what it stores is therefore stored before the child's death can be noticed.
  // Returns the child, or a reference with pid 0 when the fork failed.
  // Context: any thread; the signal handler on the main thread. Another thread waits for the main thread, and must hold
  // no lock that `on_started`, or the handler of `serve`, takes.
  ProcessRef spawn(const CSpawnPlan& plan, const StartedHandler& on_started);

  // Has the forking thread run `step` again and again until it returns false, and look at deaths and signals after
  // each: who starts many children in a row need not change the thread for each of them. Asked for by the forking
  // thread itself, the steps follow each other at once. Returns when the last step is done.
  // Context: as for `spawn`, which a step may call; a step must not wait.
  void run_steps(const Step& step);

  // Takes over the process `pid`, which need not be a child, by its open handle (pidfd).
  // Returns a reference that `signal` understands; release it with `forget`.
  // Context: any thread.
  [[nodiscard]] ProcessRef adopt(int32_t pid, UniqueFd handle);

  // Gives up an adopted process; nothing happens to the process, nor for a reference to a child.
  // Context: any thread.
  void forget(ProcessRef process);

  // Sends a signal to the process if it is still the one that the reference names.
  // Returns 0, or -1 when it has gone or could not be signalled.
  // Context: any thread; the signal handler, on the main thread only.
  int32_t signal(ProcessRef process, int32_t signal_number);

  // True while the reference names a process that has not been reaped (an ended but unreaped child counts).
  // Context: any thread.
  [[nodiscard]] bool is_current(ProcessRef process);

  // Runs a child to its end and reaps it; other children's deaths wait for `serve`.
  // Context: main thread, before `serve`; the thread's signal window is open while it waits.
  void run_to_end(const CSpawnPlan& plan);

  // Waits until the child has ended, at most `timeout_ms` milliseconds, without reaping it. Returns at once for
  // anything but a child.
  // Context: main thread, and the signal handler on it.
  void wait_until_ended(ProcessRef process, int64_t timeout_ms);

  // One turn of the main loop: carries out what was asked for, then hands every ended child to `on_ended` and reaps it,
  // then waits for the next request or death, at most `timeout_ms` milliseconds, with the signal window open.
  // Context: main thread.
  void serve(int64_t timeout_ms, const EndedHandler& on_ended);

 private:
  struct Request;

  bool on_host_thread() const;
  bool is_child(ProcessRef process) const;  // with the lock held
  ProcessRef fork_and_store(const CSpawnPlan& plan, const StartedHandler& on_started);
  bool find_ended_child(int32_t& pid, int32_t& raw_status);
  bool serve_requests();
  void wait_for_event(int64_t timeout_ms);

  std::mutex mutex_;  // guards the four below
  uint64_t next_serial_ = 1;
  std::map<int32_t, uint64_t> children_;  // pid to serial, from the fork to the reap
  std::map<uint64_t, UniqueFd> adopted_;  // serial to pidfd
  std::list<Request*> requests_;          // each owned by the thread that waits for it

  std::condition_variable served_;
  std::thread::id host_thread_;  // written before any other thread exists
  UniqueFd child_event_;         // signalfd of SIGCHLD
  bool may_have_ended_ = true;   // a child, since the last look; the host thread's
  UniqueFd request_event_;       // eventfd
};

}  // namespace Tessaro::Iot::Component
