// A method call that waits for its answer.
#pragma once

#include <condition_variable>
#include <mutex>
#include <utility>

#include "dbus_deadline.h"
#include "platform/dbus_message.h"

namespace Tessaro::Iot::Component {

// Belongs to the thread that waits; others settle it, once.
class DBusCall {
 public:
  enum class State { waiting, answered, closed };

  DBusCall() = default;
  DBusCall(const DBusCall&) = delete;
  DBusCall& operator=(const DBusCall&) = delete;

  void answer(DBusMessagePtr message) noexcept { settle(State::answered, std::move(message)); }
  // Ends the wait without an answer, unless one has come.
  void close() noexcept { settle(State::closed, nullptr); }

  [[nodiscard]] State state() const noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    return state_;
  }
  [[nodiscard]] bool settled() const noexcept { return state() != State::waiting; }

  void wait(const DBusDeadline& deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    (void)settled_.wait_until(lock, deadline.end(),  // the state tells what ended it
                              [this] { return state_ != State::waiting; });
  }

  // A method return or an error; null when there was no answer.
  [[nodiscard]] DBusMessagePtr take_answer() noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::move(answer_);
  }

 private:
  void settle(State state, DBusMessagePtr message) noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != State::waiting) return;
    state_ = state;
    answer_ = std::move(message);
    settled_.notify_all();
  }

  mutable std::mutex mutex_;  // guards the two below
  State state_ = State::waiting;
  DBusMessagePtr answer_;
  std::condition_variable settled_;
};

}  // namespace Tessaro::Iot::Component
