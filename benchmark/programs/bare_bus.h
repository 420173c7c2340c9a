// The gateway's bus for programs that use libdbus and nothing else. In C, as libdbus is.
#ifndef QUORVANED_BENCHMARK_BARE_BUS_H
#define QUORVANED_BENCHMARK_BARE_BUS_H

#include <dbus/dbus.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#define BUS_SOCKET "/tmp/var/run/mbusd/mbusd_socket"
#define BUS_ADDRESS "unix:path=" BUS_SOCKET

static inline int64_t now_ns(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

static inline void give_up(const char* what) {
  fprintf(stderr, "%s\n", what);
  exit(1);
}

// A registered connection; the program ends with the bus.
static inline DBusConnection* bus_connect(void) {
  DBusConnection* connection = dbus_connection_open_private(BUS_ADDRESS, NULL);
  if (connection == NULL || !dbus_bus_register(connection, NULL)) give_up("no bus");
  dbus_connection_set_exit_on_disconnect(connection, TRUE);
  return connection;
}

static inline void bus_take_name(DBusConnection* connection, const char* name) {
  const int code = dbus_bus_request_name(connection, name, DBUS_NAME_FLAG_DO_NOT_QUEUE, NULL);
  if (code != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) give_up("the name is taken");
}

#endif
