// A counting semaphore whose waits follow the monotonic clock.
#pragma once

#include <semaphore.h>

#include <cstdint>

namespace Tessaro::Iot::Component {

class CSemaphore {
 public:
  // Context: any thread.
  explicit CSemaphore(uint32_t initial_count = 0) noexcept;
  ~CSemaphore();
  CSemaphore(const CSemaphore&) = delete;
  CSemaphore& operator=(const CSemaphore&) = delete;

  // Takes one count, waiting at most `timeout_ms` milliseconds for it (0 or less: does not wait).
  // Returns true when a count was taken, false when the time ran out.
  // Context: any thread.
  bool pend(int64_t timeout_ms) noexcept;

  // Adds one count.
  // Context: any, including signal handlers.
  void post() noexcept;

  // Takes every count that is there, without waiting.
  // Context: any thread.
  void drain() noexcept;

 private:
  sem_t semaphore_;
};

}  // namespace Tessaro::Iot::Component
