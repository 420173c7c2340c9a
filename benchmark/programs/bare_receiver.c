// usage: bare_receiver BUS_NAME
// Takes signals and counts them: the least that a receiver can do.
#include "bare_bus.h"

static DBusHandlerResult count_signal(DBusConnection* connection, DBusMessage* message, void* counter) {
  (void)connection;
  if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_SIGNAL) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  ++*(volatile uint64_t*)counter;
  return DBUS_HANDLER_RESULT_HANDLED;
}

int main(int argc, char** argv) {
  if (argc != 2) give_up("usage: bare_receiver BUS_NAME");
  uint64_t counter = 0;
  DBusConnection* connection = bus_connect();
  if (!dbus_connection_add_filter(connection, count_signal, &counter, NULL)) give_up("no memory");
  bus_take_name(connection, argv[1]);
  while (dbus_connection_read_write_dispatch(connection, -1)) {
  }
  return 0;
}
