#include "bus_connection.h"

namespace gateway {
namespace {

constexpr const char* bus_address = "unix:path=/tmp/var/run/mbusd/mbusd_socket";

}  // namespace

void CloseBusConnection::operator()(DBusConnection* connection) const {
  dbus_connection_close(connection);
  dbus_connection_unref(connection);
}

BusConnection open_bus(DBusError* error) {
  // A private connection: a shared one of libdbus ends the process when the bus goes away.
  BusConnection connection(dbus_connection_open_private(bus_address, error));
  if (connection) dbus_connection_set_exit_on_disconnect(connection.get(), FALSE);
  return connection;
}

}  // namespace gateway
