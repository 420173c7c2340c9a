// A method call under way.
#pragma once

#include <dbus/dbus.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>

#include "dbus_deadline.h"
#include "platform/dbus_message.h"

namespace Tessaro::Iot::Component {

class DBusCall {
 public:
  enum class State { waiting, answered, closed };

  DBusCall() : shared_(std::make_shared<Shared>()) {}
  ~DBusCall() {
    if (pending_ && state() != State::answered) dbus_pending_call_cancel(pending_.get());
  }
  DBusCall(const DBusCall&) = delete;
  DBusCall& operator=(const DBusCall&) = delete;

  // Sends `message`; libdbus itself sets no time limit. Returns false when memory ran out.
  [[nodiscard]] bool send(DBusConnection* connection, DBusMessage* message) {
    auto notified = std::make_unique<SharedPtr>(shared_);
    DBusPendingCall* pending = nullptr;
    if (dbus_connection_send_with_reply(connection, message, &pending, DBUS_TIMEOUT_INFINITE) == FALSE) return false;
    if (pending == nullptr) {
      close();  // the connection is gone
      return true;
    }
    pending_.reset(pending);
    if (dbus_pending_call_set_notify(pending, &DBusCall::notify, notified.get(), &DBusCall::free_notified) == FALSE) {
      return false;
    }
    (void)notified.release();  // libdbus frees it
    // The answer may have come before there was anybody to notify.
    if (dbus_pending_call_get_completed(pending) != FALSE) shared_->settle(State::answered);
    return true;
  }

  // Ends the wait without an answer, unless one has come. Context: any thread.
  void close() noexcept { shared_->settle(State::closed); }

  [[nodiscard]] State state() const noexcept {
    const std::lock_guard<std::mutex> lock(shared_->mutex);
    return shared_->state;
  }
  [[nodiscard]] bool settled() const noexcept { return state() != State::waiting; }

  void wait(const DBusDeadline& deadline) const {
    std::unique_lock<std::mutex> lock(shared_->mutex);
    (void)shared_->settled.wait_until(lock, deadline.end(),  // the state tells what ended it
                                      [this] { return shared_->state != State::waiting; });
  }

  // The answer of a call that was answered.
  [[nodiscard]] DBusMessagePtr take_answer() noexcept {
    return DBusMessagePtr(dbus_pending_call_steal_reply(pending_.get()));
  }

 private:
  // Outlives the call for as long as libdbus may still notify.
  struct Shared {
    std::mutex mutex;
    std::condition_variable settled;
    State state = State::waiting;  // left once

    void settle(State final_state) noexcept {
      const std::lock_guard<std::mutex> lock(mutex);
      if (state == State::waiting) state = final_state;
      settled.notify_all();
    }
  };
  using SharedPtr = std::shared_ptr<Shared>;

  struct PendingUnref {
    void operator()(DBusPendingCall* pending) const noexcept { dbus_pending_call_unref(pending); }
  };

  static void notify(DBusPendingCall* /*pending*/, void* shared) noexcept {
    (*static_cast<SharedPtr*>(shared))->settle(State::answered);
  }
  static void free_notified(void* shared) noexcept { delete static_cast<SharedPtr*>(shared); }

  SharedPtr shared_;
  std::unique_ptr<DBusPendingCall, PendingUnref> pending_;
};

}  // namespace Tessaro::Iot::Component
