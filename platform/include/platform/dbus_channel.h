// A channel of the message bus: one private connection under a well-known name, at one object path, with one dispatch
// thread of its own.
//
// The interface of a channel's methods and signals is its well-known name. Beside its members a channel answers the
// standard interfaces org.freedesktop.DBus.Peer and org.freedesktop.DBus.Introspectable, at its path and its parents.
//
// Rules of the threads:
// - Handlers run on the dispatch thread, one at a time, with no lock of the channel or of libdbus held. They may call
//   every operation of this or of another channel.
// - All other operations may be called from any thread, `start` and `stop` one at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/dbus_message.h"
#include "platform/function.h"

namespace Tessaro::Iot::Component {

// One argument of a member, for introspection: its name and its D-Bus type signature.
struct CDBusArgument {
  std::string name;
  std::string type;
};

// The arguments of a member, for introspection; `out` is empty for signals.
struct CDBusMemberArguments {
  std::vector<CDBusArgument> in;
  std::vector<CDBusArgument> out;
};

class CDBusChannel {
 public:
  // Answers a method call. The response is sent when the handler returns, unless it has set the flag to true: then it
  // will be answered later, by other means.
  using MethodHandler = TFunction3<void, CDBusRequest&, CDBusResponse&, bool&>;
  using SignalHandler = TFunction1<void, CDBusSignal&>;
  // Told once per lost connection, with a positive errno-like number.
  using ErrorHandler = TFunction1<void, int32_t>;

  // Results of `call` when there was no reply, of which no code of a service has the value; else it gives 0.
  // call_failed: not sent, or answered with an error
  // call_timed_out: no reply in time
  // call_closed: the channel was stopped, or the bus went away
  // call_unanswerable: refused by the bus, or the service left before it answered
  static constexpr int32_t call_failed = INT32_MIN;
  static constexpr int32_t call_timed_out = INT32_MIN + 1;
  static constexpr int32_t call_closed = INT32_MIN + 2;
  static constexpr int32_t call_unanswerable = INT32_MIN + 3;

  // `address` of the bus, well-known `name` to take (empty: a client that takes none and serves nothing), object
  // `path`, and `match_rules` to add beside the channel's own (which lets broadcasts on its interface in).
  // Nothing is connected here.
  CDBusChannel(std::string address, std::string name, std::string path, std::vector<std::string> match_rules);
  // Stops. No handler of the channel may destroy it.
  ~CDBusChannel();
  CDBusChannel(const CDBusChannel&) = delete;
  CDBusChannel& operator=(const CDBusChannel&) = delete;

  // Registers, replaces, or with an empty handler takes away, the handler of a member. A method without a handler is
  // answered with UnknownMethod at once, a signal without one is ignored. A handler that runs at this moment goes on.
  // `arguments` only feeds introspection.
  void register_method_callback(const std::string& member, MethodHandler handler, CDBusMemberArguments arguments = {});
  // Signals reach their handler when they are sent to the channel's name, or broadcast on its interface.
  // "NameOwnerChanged" is the bus driver's own and is taken from org.freedesktop.DBus only.
  void register_signal_callback(const std::string& member, SignalHandler handler, CDBusMemberArguments arguments = {});
  // With an error handler a lost connection is reported and left to it, or to others, to start the channel again (the
  // handler itself may); without one the channel connects again by itself until it is stopped.
  void register_error_callback(ErrorHandler handler);

  // Connects (within 2 s), takes the name, adds the match rules and starts the dispatch thread.
  // Returns true when the channel is up, also when it was already; false when any of that failed: nothing is left then.
  [[nodiscard]] bool start();

  // Ends every waiting call at once, waits for a handler that runs (its reply is sent), sends what is queued and gives
  // the name back (waiting for the bus at most 500 ms), ends the dispatch thread and closes the connection. Afterwards
  // no handler runs and every call fails at once.
  // Called by a handler of this channel it closes everything when that handler has returned.
  // Harmless without start, and twice.
  void stop();

  // Sends `request` and waits for the reply, at most `timeout_ms` milliseconds; `stop` ends the wait. On the dispatch
  // thread of this channel other messages wait meanwhile and are handled afterwards in their order.
  // Returns 0 with the reply in `response`, or one of the results above.
  [[nodiscard]] int32_t call(CDBusRequest& request, CDBusResponse& response, int64_t timeout_ms);

  // Queues a message that expects no reply (a method call is marked so). Returns false when the channel is not up, or
  // more than 1 MiB waits to be sent.
  bool send(CDBusMessageOpr& message);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Tessaro::Iot::Component
