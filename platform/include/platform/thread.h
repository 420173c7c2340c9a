// A named thread with cooperative cancellation. Its body is the virtual threadProc of a subclass.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/semaphore.h"

namespace Tessaro::Iot::Component {

class CThread {
 public:
  static constexpr int32_t policy_normal = 0;  // SCHED_OTHER
  static constexpr int32_t policy_fifo = 1;    // SCHED_FIFO, reset in forked children

  // `name` is shown by ps and gdb (its first 15 bytes), `policy` is one of the values above with `priority` for it,
  // `stack_size` is in bytes, 0 for the system's default. Where the policy is not permitted the thread runs with the
  // normal one. The thread is not started here.
  // Context: any thread.
  CThread(std::string name, int32_t policy, int32_t priority, uint32_t stack_size);

  // The thread must have ended or been stopped: a subclass whose body uses its own fields calls stopThread in its own
  // destructor. What still runs here is stopped and joined.
  virtual ~CThread();
  CThread(const CThread&) = delete;
  CThread& operator=(const CThread&) = delete;

  // Starts the thread; works again after the body has returned or stopThread was called.
  // Returns true when the thread was created; false when the system refused or the body still runs.
  // Context: any thread, one at a time with stopThread.
  bool createThread();

  // Cancels the thread and waits for its body to return; returns at once for a thread that never ran. On the thread
  // itself it only cancels.
  // Returns true.
  // Context: any thread but the main thread's signal handler, one at a time with createThread.
  bool stopThread();

  // Asks the body to end: `looping` turns false and a `sleep` of the body ends at once. It neither joins nor kills, and
  // is harmless before the thread exists.
  // Context: any, including signal handlers.
  void cancelThread() noexcept;

  // False once the thread has been asked to stop.
  // Context: any.
  [[nodiscard]] bool looping() const noexcept;

  // Lets `duration_ms` milliseconds pass on the calling thread. On a CThread it ends early when that thread is
  // cancelled; on the main thread the signal window is open meanwhile.
  // Context: any thread; signal handlers on the main thread.
  static void sleep(int64_t duration_ms) noexcept;

  [[nodiscard]] const std::string& name() const noexcept { return name_; }

 protected:
  // The body. It must not throw.
  virtual int32_t threadProc() = 0;

 private:
  static void* run(void* self) noexcept;
  void apply_policy() const noexcept;

  const std::string name_;
  const int32_t policy_;
  const int32_t priority_;
  const uint32_t stack_size_;
  std::atomic<bool> looping_{true};
  std::atomic<bool> finished_{true};  // the body has returned, or never ran
  bool joinable_ = false;
  pthread_t thread_{};
  CSemaphore wake_;  // posted by cancelThread, waited on by sleep
};

}  // namespace Tessaro::Iot::Component
