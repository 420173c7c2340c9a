// usage: bare_answerer BUS_NAME FILE
// Answers every call of get_le_status with the content of the file.
#include <string.h>

#include "bare_bus.h"

static char* content_of(const char* path) {
  FILE* file = fopen(path, "rb");
  if (file == NULL) give_up("the file cannot be read");
  const size_t limit = (size_t)16 * 1024 * 1024;
  char* text = calloc(1, limit + 1);
  if (text == NULL) give_up("no memory");
  if (fread(text, 1, limit, file) == limit) give_up("the file is too large");
  fclose(file);
  return text;
}

static DBusHandlerResult answer(DBusConnection* connection, DBusMessage* message, void* text) {
  if (!dbus_message_is_method_call(message, "iot.gateway.quorvaned", "get_le_status")) {
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  DBusMessage* reply = dbus_message_new_method_return(message);
  if (reply == NULL || !dbus_message_append_args(reply, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID)) {
    return DBUS_HANDLER_RESULT_NEED_MEMORY;
  }
  dbus_connection_send(connection, reply, NULL);
  dbus_message_unref(reply);
  return DBUS_HANDLER_RESULT_HANDLED;
}

int main(int argc, char** argv) {
  if (argc != 3) give_up("usage: bare_answerer BUS_NAME FILE");
  char* text = content_of(argv[2]);
  DBusConnection* connection = bus_connect();
  if (!dbus_connection_add_filter(connection, answer, text, NULL)) give_up("no memory");
  bus_take_name(connection, argv[1]);
  while (dbus_connection_read_write_dispatch(connection, -1)) {
  }
  return 0;
}
