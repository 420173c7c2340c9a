// A connection to the gateway's bus that nobody else in the process uses, closed at the end of its life.
#pragma once

#include <dbus/dbus.h>

#include <memory>

namespace gateway {

struct CloseBusConnection {
  void operator()(DBusConnection* connection) const;
};
using BusConnection = std::unique_ptr<DBusConnection, CloseBusConnection>;

// Connects to the gateway's bus, and does not greet it yet. Null, with `error` set unless that is null, when there is
// none. The end of the bus is not the end of the process.
[[nodiscard]] BusConnection open_bus(DBusError* error);

}  // namespace gateway
