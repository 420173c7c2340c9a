// usage: bare_member CATALOGUE
// The least that a program of these libraries can be: it has read the catalogue, is connected to the bus, and waits.
#include <dbus/dbus.h>

#include <fstream>

#include "catalogue.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  std::ifstream stream(argv[1], std::ios::binary);
  Tessaro::Iot::Component::ServiceTable table;
  if (!Tessaro::Iot::Component::read_catalogue(stream, table)) return 1;
  DBusConnection* bus = dbus_connection_open_private("unix:path=/tmp/var/run/mbusd/mbusd_socket", nullptr);
  if (bus == nullptr || dbus_bus_register(bus, nullptr) == 0) return 1;
  (void)dbus_bus_request_name(bus, "iot.gateway.member", DBUS_NAME_FLAG_DO_NOT_QUEUE, nullptr);
  while (dbus_connection_read_write_dispatch(bus, -1) != 0) {
  }
  return 0;
}
