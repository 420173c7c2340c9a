// Settles what happens in its own time: never a fixed sleep.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <thread>

namespace test {

// Returns true as soon as `predicate` holds, false when it does not within `limit`.
template <class Predicate>
bool wait_until(Predicate predicate, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// Milliseconds that `action` takes.
template <class Action>
int64_t milliseconds_of(Action action) {
  const auto begin = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin).count();
}

// The least of several attempts at it: what a busy machine adds at times is not in it, what the action itself waits is.
template <class Action>
int64_t least_milliseconds_of(Action action) {
  constexpr int attempts = 5;
  int64_t least = milliseconds_of(action);
  for (int attempt = 1; attempt < attempts; ++attempt) least = std::min(least, milliseconds_of(action));
  return least;
}

}  // namespace test
