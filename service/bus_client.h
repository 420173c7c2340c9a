// The private bus connection of the command-line client.
#pragma once

#include <dbus/dbus.h>

#include <cstdint>
#include <string>

namespace Tessaro::Iot::Component {

// Opens a private connection to the gateway's bus and takes `name` on it. A bus that does not answer costs at most a
// few seconds.
// Returns the connection, or null when there is no bus or the name is taken.
// Ownership: the caller ends it with close_bus_connection.
// Context: main thread of a command.
[[nodiscard]] DBusConnection* open_bus_connection(const std::string& name);

// Releases `name`, closes and unrefs the connection.
void close_bus_connection(DBusConnection* connection, const std::string& name);

// Returns 0 when no error is set; -1 when one is set, after freeing it.
int32_t bus_error_set(DBusError& error);

}  // namespace Tessaro::Iot::Component
