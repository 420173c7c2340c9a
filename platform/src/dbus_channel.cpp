// Threads of a channel: its dispatch thread alone reads, dispatches and handles. Other threads only send, and wait for
// an answer on a condition variable of their own. libdbus never waits inside a call made here: all waiting is in one
// poll of the dispatch thread, so nobody can hold up anybody else's message.
#include "platform/dbus_channel.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <utility>

#include "dbus_call.h"
#include "dbus_endpoint.h"
#include "dbus_link.h"
#include "dbus_object.h"
#include "platform/thread.h"

namespace Tessaro::Iot::Component {

namespace {

constexpr int64_t setup_timeout_ms = 1900;  // a whole attempt takes no more than 2 s
constexpr int64_t farewell_timeout_ms = 500;
constexpr int64_t reconnect_interval_ms = 500;
constexpr int wait_for_ever = -1;

constexpr int64_t max_waiting_signals = int64_t{1024} * 1024;
// Calls and replies are only dropped when the bus takes nothing at all any more.
constexpr int64_t max_waiting_calls = 16 * max_waiting_signals;

std::string thread_name(const std::string& bus_name) {
  return bus_name.empty() ? "bus-client" : "bus-" + bus_name.substr(bus_name.rfind('.') + 1);
}

// The message of `operation` as it can be sent; a copy of one that was sent before, which libdbus has locked.
DBusMessagePtr sendable(const CDBusMessageOpr& operation) noexcept {
  DBusMessage* message = operation.message();
  if (message == nullptr) return nullptr;
  const bool fresh = dbus_message_get_serial(message) == 0;
  return DBusMessagePtr(fresh ? dbus_message_ref(message) : dbus_message_copy(message));
}

}  // namespace

class CDBusChannel::Impl {
 public:
  Impl(std::string address, std::string name, std::string path, std::vector<std::string> match_rules);
  ~Impl() { stop(); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  CDBusMembers& members() noexcept { return object_.members(); }
  void set_error_handler(ErrorHandler handler);
  bool start();
  void stop();
  int32_t call(const CDBusRequest& request, CDBusResponse& response, int64_t timeout_ms);
  bool send(const CDBusMessageOpr& operation);

 private:
  using LinkPtr = std::shared_ptr<DBusLink>;
  class DispatchThread;
  class CallScope;

  bool on_dispatch_thread() const noexcept { return dispatching == this; }
  bool stopping() const noexcept { return stopping_.load(); }
  LinkPtr link() const;
  void drop_link(DBusLink& dropped);
  bool connect();
  void halt();

  // On the dispatch thread only.
  void run() noexcept;
  void serve(DBusLink& link);
  LinkPtr replacement();
  bool stopped_within(const DBusDeadline& deadline);
  void say_farewell(DBusLink& link) noexcept;
  static void pump(DBusLink& link, const DBusCall& call, const DBusDeadline& deadline) noexcept;
  void wait_dispatching(DBusLink& link, const DBusCall& call, const DBusDeadline& deadline);
  void handle(DBusLink& link, DBusMessagePtr message) noexcept;
  void answer(DBusLink& link, DBusMessagePtr call);

  static thread_local const Impl* dispatching;  // the channel whose dispatch thread this is

  const DBusEndpoint endpoint_;
  const std::shared_ptr<DBusWake> wake_ = std::make_shared<DBusWake>();
  CDBusObject object_;

  std::mutex life_;  // one start or stop at a time; never taken on the dispatch thread
  std::atomic<bool> stopping_{false};

  mutable std::mutex mutex_;  // guards the two below; never held while anything waits or a handler runs
  LinkPtr link_;              // null while there is no connection
  std::shared_ptr<const ErrorHandler> error_handler_;

  std::unique_ptr<DispatchThread> thread_;
};

thread_local const CDBusChannel::Impl* CDBusChannel::Impl::dispatching = nullptr;

class CDBusChannel::Impl::DispatchThread final : public CThread {
 public:
  explicit DispatchThread(Impl& channel)
      : CThread(thread_name(channel.endpoint_.name), CThread::policy_normal, 0, 0), channel_(channel) {}
  ~DispatchThread() override { (void)stopThread(); }

 protected:
  int32_t threadProc() override {
    channel_.run();
    return 0;
  }

 private:
  Impl& channel_;
};

// Takes a call out of its link again.
class CDBusChannel::Impl::CallScope {
 public:
  CallScope(DBusLink& link, const DBusCall& call) noexcept : link_(link), call_(call) {}
  ~CallScope() { link_.forget(call_); }
  CallScope(const CallScope&) = delete;
  CallScope& operator=(const CallScope&) = delete;

 private:
  DBusLink& link_;
  const DBusCall& call_;
};

CDBusChannel::Impl::Impl(std::string address, std::string name, std::string path, std::vector<std::string> match_rules)
    : endpoint_{std::move(address), std::move(name), std::move(path), std::move(match_rules)},
      object_(endpoint_.name, endpoint_.path),
      thread_(std::make_unique<DispatchThread>(*this)) {}

void CDBusChannel::Impl::set_error_handler(ErrorHandler handler) {
  std::shared_ptr<const ErrorHandler> entry;
  if (handler) entry = std::make_shared<const ErrorHandler>(std::move(handler));
  const std::lock_guard<std::mutex> lock(mutex_);
  error_handler_.swap(entry);
}

CDBusChannel::Impl::LinkPtr CDBusChannel::Impl::link() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return link_;
}

// Lets no more calls in and ends those that wait.
void CDBusChannel::Impl::drop_link(DBusLink& dropped) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (link_.get() == &dropped) link_.reset();  // else a handler has put another in its place already
  }
  dropped.end_calls();
}

bool CDBusChannel::Impl::start() {
  if (on_dispatch_thread()) return !stopping() && (link() || connect());
  const std::lock_guard<std::mutex> lock(life_);
  if (!stopping() && link()) return true;
  halt();  // the thread may have ended by itself, or be connecting again
  stopping_.store(false);
  if (!wake_->valid() || !connect()) return false;
  if (thread_->createThread()) return true;
  const LinkPtr unserved = link();
  drop_link(*unserved);
  unserved->close();
  return false;
}

void CDBusChannel::Impl::stop() {
  if (on_dispatch_thread()) {
    halt();
  } else {
    const std::lock_guard<std::mutex> lock(life_);
    halt();
  }
}

// Ends what waits, then the thread; on the thread itself only the former, it then ends when its handler has returned.
void CDBusChannel::Impl::halt() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_.store(true);
    if (link_) link_->end_calls();
  }
  wake_->post();
  if (!on_dispatch_thread()) (void)thread_->stopThread();
}

bool CDBusChannel::Impl::connect() {
  LinkPtr fresh;
  if (DBusConnectionPtr connection = endpoint_.connect(DBusDeadline(setup_timeout_ms))) {
    fresh = DBusLink::create(std::move(connection), wake_);
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!fresh || stopping()) return false;
  link_ = std::move(fresh);
  return true;
}

void CDBusChannel::Impl::run() noexcept {
  dispatching = this;
  LinkPtr current = link();
  while (current) {
    serve(*current);
    drop_link(*current);
    if (!current->lost()) say_farewell(*current);
    current->close();
    current = replacement();
  }
  dispatching = nullptr;
}

// Until the channel is stopped, or the connection is lost and all that came before is handled.
void CDBusChannel::Impl::serve(DBusLink& link) {
  while (!stopping()) {
    if (!link.has_data()) {
      if (link.lost()) return;
      link.exchange(wait_for_ever);
    }
    while (!stopping() && link.has_data()) {
      // One at a time: libdbus answers pings by itself, and a ping's answer tells that what came before was handled.
      link.dispatch_one();
      while (!stopping()) {
        DBusMessagePtr message = link.next();
        if (!message) break;
        handle(link, std::move(message));
      }
    }
  }
}

// What takes the place of a closed connection; null when the channel was stopped, or that is left to others.
CDBusChannel::Impl::LinkPtr CDBusChannel::Impl::replacement() {
  std::shared_ptr<const ErrorHandler> handler;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (link_ || stopping()) return link_;  // a handler may have started the channel again
    handler = error_handler_;
  }
  if (handler) {
    try {
      (*handler)(ECONNRESET);
    } catch (...) {  // there is nobody to tell; the loss itself is over
    }
    return link();  // the handler may have started the channel again
  }
  while (!stopped_within(DBusDeadline(reconnect_interval_ms))) {
    if (connect()) return link();
  }
  return nullptr;
}

bool CDBusChannel::Impl::stopped_within(const DBusDeadline& deadline) {
  while (!stopping() && deadline.remaining_ms() > 0) {
    wake_->wait(deadline.remaining_ms());
  }
  return stopping();
}

// Gives the name back and waits for the answer: the bus answers in order, so it has then taken all that was sent
// before. Merely closing the socket would lose replies that the bus has not read yet.
void CDBusChannel::Impl::say_farewell(DBusLink& link) noexcept {
  const DBusDeadline deadline(farewell_timeout_ms);
  try {
    CDBusRequest request(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS,
                         endpoint_.name.empty() ? "GetId" : "ReleaseName");
    if (!endpoint_.name.empty()) (void)request.set_string(endpoint_.name);  // without it an error is the answer
    DBusCall call;
    const CallScope scope(link, call);
    if (request.message() == nullptr || !link.post_last(request.message(), call)) return;
    while (!call.settled() && !link.lost() && deadline.remaining_ms() > 0) {
      pump(link, call, deadline);
      link.discard_inbox();
    }
  } catch (...) {  // out of memory: nothing more can be said
  }
}

void CDBusChannel::Impl::pump(DBusLink& link, const DBusCall& call, const DBusDeadline& deadline) noexcept {
  if (!link.has_data()) link.exchange(deadline.remaining_ms());
  while (!call.settled() && link.has_data()) link.dispatch_one();
}

// What else arrives meanwhile stays in the inbox for the loop that runs the calling handler.
void CDBusChannel::Impl::wait_dispatching(DBusLink& link, const DBusCall& call, const DBusDeadline& deadline) {
  while (!call.settled() && deadline.remaining_ms() > 0) {
    pump(link, call, deadline);
    if (link.lost() && !link.has_data()) drop_link(link);
  }
}

int32_t CDBusChannel::Impl::call(const CDBusRequest& request, CDBusResponse& response, int64_t timeout_ms) {
  const DBusDeadline deadline(timeout_ms);
  const DBusMessagePtr message = sendable(request);
  if (!message || dbus_message_get_type(message.get()) != DBUS_MESSAGE_TYPE_METHOD_CALL) return call_failed;
  const LinkPtr current = stopping() ? nullptr : link();
  if (!current) return call_closed;
  DBusCall call;
  const CallScope scope(*current, call);
  if (current->waiting_bytes() > max_waiting_calls || !current->post(message.get(), call)) return call_failed;

  if (on_dispatch_thread()) {
    wait_dispatching(*current, call, deadline);
  } else {
    call.wait(deadline);
  }
  switch (call.state()) {
    case DBusCall::State::waiting:
      return call_timed_out;
    case DBusCall::State::closed:
      return call_closed;
    case DBusCall::State::answered:
      break;
  }
  DBusMessagePtr reply = call.take_answer();
  if (!reply) return call_failed;
  if (dbus_message_has_sender(reply.get(), DBUS_SERVICE_DBUS) != FALSE &&
      dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_ERROR) {
    return call_unanswerable;
  }
  if (dbus_message_get_type(reply.get()) != DBUS_MESSAGE_TYPE_METHOD_RETURN) return call_failed;
  response = CDBusResponse(std::move(reply));
  return 0;
}

bool CDBusChannel::Impl::send(const CDBusMessageOpr& operation) {
  const DBusMessagePtr message = sendable(operation);
  const LinkPtr current = stopping() ? nullptr : link();
  if (!message || !current || current->waiting_bytes() > max_waiting_signals) return false;
  if (dbus_connection_get_is_connected(current->connection()) == FALSE) return false;
  if (dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_METHOD_CALL) {
    dbus_message_set_no_reply(message.get(), TRUE);
  }
  return dbus_connection_send(current->connection(), message.get(), nullptr) != FALSE;
}

void CDBusChannel::Impl::handle(DBusLink& link, DBusMessagePtr message) noexcept {
  try {
    if (dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_METHOD_CALL) {
      answer(link, std::move(message));
    } else {
      object_.deliver(std::move(message), dbus_bus_get_unique_name(link.connection()));
    }
  } catch (...) {  // a signal handler that threw, or no memory: this message ends here, the channel goes on
  }
}

void CDBusChannel::Impl::answer(DBusLink& link, DBusMessagePtr call) {
  const CDBusResponse response = object_.respond(call.get());
  if (response.message() == nullptr || link.waiting_bytes() > max_waiting_calls) return;
  (void)dbus_connection_send(link.connection(), response.message(), nullptr);  // no memory: the caller's time-out
}

CDBusChannel::CDBusChannel(std::string address, std::string name, std::string path,
                           std::vector<std::string> match_rules)
    : impl_(std::make_unique<Impl>(std::move(address), std::move(name), std::move(path), std::move(match_rules))) {}

CDBusChannel::~CDBusChannel() = default;

void CDBusChannel::register_method_callback(const std::string& member, MethodHandler handler,
                                            CDBusMemberArguments arguments) {
  impl_->members().set_method(member, {std::move(handler), std::move(arguments)});
}

void CDBusChannel::register_signal_callback(const std::string& member, SignalHandler handler,
                                            CDBusMemberArguments arguments) {
  impl_->members().set_signal(member, {std::move(handler), std::move(arguments)});
}

void CDBusChannel::register_error_callback(ErrorHandler handler) { impl_->set_error_handler(std::move(handler)); }

bool CDBusChannel::start() { return impl_->start(); }

void CDBusChannel::stop() { impl_->stop(); }

int32_t CDBusChannel::call(CDBusRequest& request, CDBusResponse& response, int64_t timeout_ms) {
  return impl_->call(request, response, timeout_ms);
}

bool CDBusChannel::send(CDBusMessageOpr& message) { return impl_->send(message); }

}  // namespace Tessaro::Iot::Component
