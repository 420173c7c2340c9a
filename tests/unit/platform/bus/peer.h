// Another program on the bus, as seen by a channel: a plain connection that calls, emits and listens.
#pragma once

#include <dbus/dbus.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/dbus_connection.h"
#include "platform/dbus_message.h"

namespace test {

// What a call brought.
struct Answer {
  std::string error;  // name of the error; empty for a reply
  Tessaro::Iot::Component::CDBusResponse reply;

  [[nodiscard]] bool ok() const { return error.empty() && reply.message() != nullptr; }
  // The next argument, or "(none)".
  std::string text();
};

class Peer {
 public:
  explicit Peer(const std::string& address);

  [[nodiscard]] bool ok() const { return connection_ != nullptr; }
  [[nodiscard]] DBusConnection* connection() const { return connection_.get(); }
  [[nodiscard]] std::string unique_name() const;

  bool own(const std::string& name);
  // Empty: nobody.
  std::string owner_of(const std::string& name);

  // Calls a method with string arguments; an empty `interface` leaves it out.
  Answer call(const std::string& destination, const std::string& path, const std::string& interface,
              const std::string& member, const std::vector<std::string>& arguments = {});
  // Returns true once `destination` has handled all that this peer sent it before.
  bool settle(const std::string& destination);

  // Sends a signal; an empty `destination` broadcasts it.
  bool emit(const std::string& destination, const std::string& path, const std::string& interface,
            const std::string& member, const std::vector<std::string>& arguments = {});
  // Sends what was built by hand.
  bool send(DBusMessage* message);

  // The next message that `wanted` takes; others are dropped. Null after `timeout_ms`.
  Tessaro::Iot::Component::DBusMessagePtr receive(const std::function<bool(DBusMessage*)>& wanted,
                                                  int64_t timeout_ms = 5000);

 private:
  Tessaro::Iot::Component::DBusConnectionPtr connection_;
};

}  // namespace test
