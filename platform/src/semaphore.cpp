#include "platform/semaphore.h"

#include "platform/sys/clock.h"

namespace Tessaro::Iot::Component {

CSemaphore::CSemaphore(uint32_t initial_count) noexcept : semaphore_{} {
  (void)::sem_init(&semaphore_, 0, initial_count);  // fails only for counts beyond SEM_VALUE_MAX
}

CSemaphore::~CSemaphore() { (void)::sem_destroy(&semaphore_); }

bool CSemaphore::pend(int64_t timeout_ms) noexcept { return sys::wait_semaphore(&semaphore_, timeout_ms); }

void CSemaphore::post() noexcept {
  (void)::sem_post(&semaphore_);  // fails only at SEM_VALUE_MAX, where a waiter wakes anyhow
}

void CSemaphore::drain() noexcept {
  while (sys::wait_semaphore(&semaphore_, 0)) {
  }
}

}  // namespace Tessaro::Iot::Component
