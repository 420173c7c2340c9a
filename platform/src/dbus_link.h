// What one connection of a channel is made of: the connection, the descriptors that its thread waits on, and the
// messages that wait to be handled.
#pragma once

#include <dbus/dbus.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "dbus_call.h"
#include "platform/dbus_connection.h"
#include "platform/dbus_message.h"
#include "platform/unique_fd.h"

namespace Tessaro::Iot::Component {

// Ends a wait of the dispatch thread.
class DBusWake {
 public:
  DBusWake() noexcept : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

  [[nodiscard]] int fd() const noexcept { return fd_.get(); }
  [[nodiscard]] bool valid() const noexcept { return fd_.valid(); }
  // Context: any thread.
  void post() noexcept { (void)::eventfd_write(fd_.get(), 1); }  // refused when full only: then it wakes anyway
  // Waits until it is posted, or not that long when a signal handler runs.
  void wait(int timeout_ms) noexcept {
    pollfd entry{fd_.get(), POLLIN, 0};
    (void)::poll(&entry, 1, timeout_ms);  // whatever ended it, the caller looks at its conditions again
    drain();
  }
  void drain() noexcept {
    eventfd_t count = 0;
    (void)::eventfd_read(fd_.get(), &count);  // empty: there was nothing to drain
  }

 private:
  UniqueFd fd_;
};

// One thread, the channel's, reads and dispatches; others may send meanwhile, and keep the object, but not the
// connection's socket, alive while they do.
class DBusLink {
 public:
  // Takes the connection over. Returns null when descriptors or memory ran out.
  [[nodiscard]] static std::shared_ptr<DBusLink> create(DBusConnectionPtr connection, std::shared_ptr<DBusWake> wake) {
    auto link = std::make_shared<DBusLink>(std::move(connection), std::move(wake));
    return link->attach() ? link : nullptr;
  }

  DBusLink(DBusConnectionPtr connection, std::shared_ptr<DBusWake> wake) noexcept
      : wake_(std::move(wake)), connection_(std::move(connection)) {}

  [[nodiscard]] DBusConnection* connection() const noexcept { return connection_.get(); }
  // Bytes that wait to be sent. Context: any thread.
  [[nodiscard]] int64_t waiting_bytes() const noexcept { return dbus_connection_get_outgoing_size(connection_.get()); }

  // Sends `message`; its answer, or the end of the link, settles `call`, which must be forgotten before it ends.
  // Returns false when memory ran out.
  [[nodiscard]] bool post(DBusMessage* message, DBusCall& call) {
    const std::lock_guard<std::mutex> lock(calls_mutex_);
    if (!ended_) return post_locked(message, call);
    call.close();
    return true;
  }
  void forget(const DBusCall& call) noexcept {
    const std::lock_guard<std::mutex> lock(calls_mutex_);
    std::erase_if(calls_, [&call](const auto& entry) { return entry.second == &call; });
  }
  // Settles every call, and those to come at once.
  void end_calls() noexcept {
    const std::lock_guard<std::mutex> lock(calls_mutex_);
    ended_ = true;
    for (const auto& [serial, call] : calls_) call->close();
  }

  // All below is for the dispatch thread alone.

  // As `post`, after the end of the calls.
  [[nodiscard]] bool post_last(DBusMessage* message, DBusCall& call) {
    const std::lock_guard<std::mutex> lock(calls_mutex_);
    return post_locked(message, call);
  }

  // True once the bus has gone; what it sent before may still wait to be dispatched.
  [[nodiscard]] bool lost() const noexcept { return lost_; }
  [[nodiscard]] bool has_data() const noexcept {
    return dbus_connection_get_dispatch_status(connection_.get()) == DBUS_DISPATCH_DATA_REMAINS;
  }

  // Waits until there is something to read, room for what has to be written, or a wake; then reads and writes what can
  // be had without waiting.
  void exchange(int timeout_ms) noexcept {
    const bool to_write = dbus_connection_has_messages_to_send(connection_.get()) != FALSE;
    pollfd entries[] = {{socket_.get(), static_cast<short>(to_write ? POLLIN | POLLOUT : POLLIN), 0},
                        {wake_->fd(), POLLIN, 0}};
    (void)::poll(entries, 2, timeout_ms);  // interrupted or not: what follows never waits
    if (entries[1].revents != 0) wake_->drain();
    // libdbus calls for a wake with every message that it reads; who reads here looks at them before it waits again.
    reading = true;
    if (dbus_connection_read_write(connection_.get(), 0) == FALSE) lost_ = true;
    reading = false;
  }

  // Dispatches one message: an answer goes to its call, another message into the inbox.
  void dispatch_one() noexcept { (void)dbus_connection_dispatch(connection_.get()); }

  // The next message to be handled; null when none waits.
  [[nodiscard]] DBusMessagePtr next() noexcept {
    if (inbox_.empty()) return nullptr;
    DBusMessagePtr message = std::move(inbox_.front());
    inbox_.pop_front();
    return message;
  }
  void discard_inbox() noexcept { inbox_.clear(); }

  // Closes the socket, whoever still holds the object.
  void close() noexcept {
    lost_ = true;
    discard_inbox();
    dbus_connection_close(connection_.get());
    socket_.reset();
  }

 private:
  static inline thread_local bool reading = false;

  static void wake_up(void* wake) noexcept {
    if (!reading) (*static_cast<std::shared_ptr<DBusWake>*>(wake))->post();
  }
  static void free_wake(void* wake) noexcept { delete static_cast<std::shared_ptr<DBusWake>*>(wake); }

  static DBusHandlerResult collect(DBusConnection* /*connection*/, DBusMessage* message, void* self) noexcept {
    return static_cast<DBusLink*>(self)->collect(message);
  }

  // Handlers do not run in here: libdbus cannot dispatch within a dispatch, and they may wait for replies.
  DBusHandlerResult collect(DBusMessage* message) noexcept {
    if (dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected") != FALSE) {
      lost_ = true;
      return DBUS_HANDLER_RESULT_HANDLED;
    }
    DBusMessagePtr kept(dbus_message_ref(message));
    const int type = dbus_message_get_type(message);
    if (type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR) {
      settle(std::move(kept));
    } else {
      try {
        inbox_.push_back(std::move(kept));
      } catch (...) {
        return DBUS_HANDLER_RESULT_NEED_MEMORY;  // libdbus offers it again
      }
    }
    return DBUS_HANDLER_RESULT_HANDLED;
  }

  void settle(DBusMessagePtr answer) noexcept {
    const std::lock_guard<std::mutex> lock(calls_mutex_);
    const auto entry = calls_.find(dbus_message_get_reply_serial(answer.get()));
    if (entry != calls_.end()) entry->second->answer(std::move(answer));  // else it comes too late
  }

  // The lock is kept over the sending: the answer may be here before the serial is known.
  bool post_locked(DBusMessage* message, DBusCall& call) {
    dbus_uint32_t serial = 0;
    if (dbus_connection_send(connection_.get(), message, &serial) == FALSE) return false;
    calls_[serial] = &call;
    return true;
  }

  bool attach() {
    int fd = -1;
    if (dbus_connection_get_unix_fd(connection_.get(), &fd) == FALSE) return false;
    // A duplicate: libdbus closes its own on whatever thread notices the loss, and the number may then be a stranger's.
    socket_ = UniqueFd(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (!socket_.valid()) return false;
    dbus_connection_set_wakeup_main_function(connection_.get(), &DBusLink::wake_up,
                                             new std::shared_ptr<DBusWake>(wake_), &DBusLink::free_wake);
    return dbus_connection_add_filter(connection_.get(), &DBusLink::collect, this, nullptr) != FALSE;
  }

  std::shared_ptr<DBusWake> wake_;
  UniqueFd socket_;
  bool lost_ = false;
  std::deque<DBusMessagePtr> inbox_;

  // Guards the two below. libdbus is called with it held, and takes it in `collect` with no lock of its own held.
  std::mutex calls_mutex_;
  std::unordered_map<dbus_uint32_t, DBusCall*> calls_;
  bool ended_ = false;

  DBusConnectionPtr connection_;  // last: closed before what its callbacks use
};

}  // namespace Tessaro::Iot::Component
