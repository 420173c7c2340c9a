// usage: named_service [STARTED_NS RECORD] BUS_NAME
// Takes a bus name and writes into RECORD, in nanoseconds of the monotonic clock: when it was started (as it was told),
// when it asked for the name, when it had the answer.
#include "bare_bus.h"

static void record(const char* path, const char* started_ns, int64_t asked_ns, int64_t owned_ns) {
  FILE* file = fopen(path, "w");
  if (file == NULL) give_up("the record cannot be written");
  fprintf(file, "%s %lld %lld\n", started_ns, (long long)asked_ns, (long long)owned_ns);
  fclose(file);
}

int main(int argc, char** argv) {
  if (argc != 2 && argc != 4) give_up("usage: named_service [STARTED_NS RECORD] BUS_NAME");
  DBusConnection* connection = bus_connect();
  const int64_t asked_ns = now_ns();
  bus_take_name(connection, argv[argc - 1]);
  const int64_t owned_ns = now_ns();
  if (argc == 4) record(argv[2], argv[1], asked_ns, owned_ns);
  while (dbus_connection_read_write_dispatch(connection, -1)) {
  }
  return 0;
}
