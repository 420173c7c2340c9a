// A point of the monotonic clock by which something has to be done.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace Tessaro::Iot::Component {

class DBusDeadline {
 public:
  using Clock = std::chrono::steady_clock;

  explicit DBusDeadline(int64_t timeout_ms) noexcept
      : end_(Clock::now() + std::chrono::milliseconds(std::clamp(timeout_ms, int64_t{0}, longest_ms))) {}

  [[nodiscard]] Clock::time_point end() const noexcept { return end_; }

  // Whole milliseconds that are left, rounded up; 0 once it has passed.
  [[nodiscard]] int remaining_ms() const noexcept {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now());
    return static_cast<int>(std::max(left.count(), decltype(left.count()){0}));
  }

 private:
  static constexpr int64_t longest_ms = int64_t{20} * 24 * 60 * 60 * 1000;  // fits an int, which poll takes

  Clock::time_point end_;
};

}  // namespace Tessaro::Iot::Component
