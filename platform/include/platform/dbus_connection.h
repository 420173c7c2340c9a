// Private bus connections whose set-up cannot hang.
#pragma once

#include <dbus/dbus.h>

#include <cstdint>
#include <memory>
#include <string>

#include "platform/dbus_message.h"
#include "platform/function.h"

namespace Tessaro::Iot::Component {

struct DBusConnectionClose {
  void operator()(DBusConnection* connection) const noexcept {
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
  }
};
// A private connection with one owner.
using DBusConnectionPtr = std::unique_ptr<DBusConnection, DBusConnectionClose>;

// Opens a private connection to `address` (one "unix:path=..." address), authenticates and says Hello, in at most
// `timeout_ms` milliseconds altogether. A bus that is stopped, that does not accept or does not answer costs no more
// than that.
// A bus that another ordinary user runs is refused, unless the caller is root.
// Returns the connection, with exit_on_disconnect off, or null.
// Ownership: the caller closes (dbus_connection_close) and unrefs it.
// Context: any thread; not a signal handler.
[[nodiscard]] DBusConnection* open_private_connection(const std::string& address, int64_t timeout_ms);

// Requests `name` on `connection`, without queueing and without replacing an owner, in at most `timeout_ms`.
// Returns the reply code of the bus (DBUS_REQUEST_NAME_REPLY_...), or -1 when there was none.
// Context: the connection's only thread.
[[nodiscard]] int32_t request_bus_name(DBusConnection* connection, const std::string& name, int64_t timeout_ms);

// Adds a match rule to `connection` in at most `timeout_ms` milliseconds. Returns true when the bus took it.
// Context: the connection's only thread.
[[nodiscard]] bool add_bus_match(DBusConnection* connection, const std::string& rule, int64_t timeout_ms);

}  // namespace Tessaro::Iot::Component
