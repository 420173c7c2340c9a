#include "platform/signal_window.h"

#include <ctime>

namespace Tessaro::Iot::Component::SignalWindow {

namespace {

// Plain thread-locals of a statically linked library: reading them in a signal handler allocates nothing.
thread_local sigset_t window_mask;
thread_local volatile sig_atomic_t has_window = 0;
thread_local volatile sig_atomic_t is_inside = 0;

}  // namespace

void open_on_this_thread(const sigset_t& mask_inside) noexcept {
  window_mask = mask_inside;
  has_window = 1;
}

int32_t poll(pollfd* fds, nfds_t count, int64_t timeout_ms) noexcept {
  constexpr int64_t ms_per_second = 1000;
  constexpr int64_t ns_per_ms = 1'000'000;
  timespec timeout{};
  timeout.tv_sec = static_cast<time_t>(timeout_ms / ms_per_second);
  timeout.tv_nsec = static_cast<long>(timeout_ms % ms_per_second * ns_per_ms);
  const timespec* limit = timeout_ms < 0 ? nullptr : &timeout;
  if (has_window == 0) return ::ppoll(fds, count, limit, nullptr);

  // A handler that waits itself (the forced exit) opens the window again: keep what was there before.
  const sig_atomic_t before = is_inside;
  is_inside = 1;
  const int32_t result = ::ppoll(fds, count, limit, &window_mask);
  is_inside = before;
  return result;
}

bool inside() noexcept { return is_inside != 0; }

}  // namespace Tessaro::Iot::Component::SignalWindow
