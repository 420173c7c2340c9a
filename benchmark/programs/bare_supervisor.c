// usage: bare_supervisor COUNT PROGRAM SERVICE DIRECTORY PREFIX
// Starts COUNT services one after the other, each as soon as the one before it has its bus name, PREFIX and its number:
//   PROGRAM SERVICE DIRECTORY/NUMBER PREFIX_NUMBER
// Writes "done" when the last has it. The services end with the bus.
#include <spawn.h>
#include <string.h>

#include "bare_bus.h"

extern char** environ;

struct Series {
  int count;
  int next;
  const char* program;
  const char* service;
  const char* directory;
  const char* prefix;
  char awaited[256];
};

static void start_next(struct Series* series) {
  if (series->next == series->count) {
    puts("done");
    fflush(stdout);
    series->awaited[0] = '\0';
    return;
  }
  char record[4096];
  snprintf(record, sizeof record, "%s/%d", series->directory, series->next);
  snprintf(series->awaited, sizeof series->awaited, "%s%d", series->prefix, series->next);
  char* const arguments[] = {(char*)series->program, (char*)series->service, record, series->awaited, NULL};
  pid_t pid = 0;
  if (posix_spawn(&pid, series->program, NULL, NULL, arguments, environ) != 0) give_up("the service cannot be started");
  ++series->next;
}

static DBusHandlerResult take_change(DBusConnection* connection, DBusMessage* message, void* data) {
  (void)connection;
  struct Series* series = data;
  const char* name = NULL;
  if (!dbus_message_is_signal(message, DBUS_INTERFACE_DBUS, "NameOwnerChanged") ||
      !dbus_message_get_args(message, NULL, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID)) {
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  if (strcmp(name, series->awaited) == 0) start_next(series);
  return DBUS_HANDLER_RESULT_HANDLED;
}

int main(int argc, char** argv) {
  if (argc != 6) give_up("usage: bare_supervisor COUNT PROGRAM SERVICE DIRECTORY PREFIX");
  struct Series series = {
      .count = atoi(argv[1]), .program = argv[2], .service = argv[3], .directory = argv[4], .prefix = argv[5]};
  DBusConnection* connection = bus_connect();
  if (!dbus_connection_add_filter(connection, take_change, &series, NULL)) give_up("no memory");
  DBusError error;
  dbus_error_init(&error);
  dbus_bus_add_match(connection, "type='signal',sender='org.freedesktop.DBus'", &error);
  if (dbus_error_is_set(&error)) give_up(error.message);
  start_next(&series);
  while (dbus_connection_read_write_dispatch(connection, -1)) {
  }
  return 0;
}
