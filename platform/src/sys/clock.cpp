#include "platform/sys/clock.h"

#include <cerrno>
#include <ctime>

#include "platform/signal_window.h"

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define __SANITIZE_THREAD__ 1
extern "C" void __tsan_acquire(void* address);
#endif
#endif

namespace Tessaro::Iot::Component::sys {

namespace {

constexpr int64_t ms_per_second = 1000;
constexpr int64_t ns_per_ms = 1'000'000;

timespec deadline_after(int64_t timeout_ms) noexcept {
  timespec now{};
  (void)::clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail with this clock
  const int64_t ns = now.tv_nsec + (timeout_ms % ms_per_second) * ns_per_ms;
  // A nanosecond field of a whole second or more would make the wait fail instead of waiting.
  now.tv_sec += static_cast<time_t>(timeout_ms / ms_per_second + ns / (ms_per_second * ns_per_ms));
  now.tv_nsec = static_cast<long>(ns % (ms_per_second * ns_per_ms));
  return now;
}

int64_t monotonic_ns() noexcept {
  timespec now{};
  (void)::clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail with this clock
  return static_cast<int64_t>(now.tv_sec) * ms_per_second * ns_per_ms + now.tv_nsec;
}

// The thread sanitizer does not know sem_clockwait; without this every hand-over through a semaphore looks like a race.
void note_taken([[maybe_unused]] sem_t* semaphore) noexcept {
#if defined(__SANITIZE_THREAD__)
  __tsan_acquire(semaphore);
#endif
}

}  // namespace

int64_t monotonic_ms() noexcept { return monotonic_ns() / ns_per_ms; }

bool wait_semaphore(sem_t* semaphore, int64_t timeout_ms) noexcept {
  if (timeout_ms <= 0) return ::sem_trywait(semaphore) == 0;
  const timespec deadline = deadline_after(timeout_ms);
  // sem_timedwait would follow the wall clock.
  while (::sem_clockwait(semaphore, CLOCK_MONOTONIC, &deadline) != 0) {
    if (errno != EINTR) return false;
  }
  note_taken(semaphore);
  return true;
}

void pause_for(int64_t duration_ms) noexcept {
  const int64_t begin = monotonic_ns();
  // Only whole milliseconds that have passed are taken off, so that signals do not make the pause shorter.
  for (int64_t left = duration_ms; left > 0; left = duration_ms - (monotonic_ns() - begin) / ns_per_ms) {
    (void)SignalWindow::poll(nullptr, 0, left);  // interrupted or not: the clock decides
  }
}

}  // namespace Tessaro::Iot::Component::sys
