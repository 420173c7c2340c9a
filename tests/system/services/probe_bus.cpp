#include "probe_bus.h"

#include <dbus/dbus.h>

namespace probe {
namespace {

constexpr const char* ADDRESS = "unix:path=/tmp/var/run/mbusd/mbusd_socket";
constexpr const char* WATCHDOG = "iot.gateway.watchdog";
constexpr const char* WATCHDOG_PATH = "/iot/gateway/watchdog";

DBusHandlerResult on_message(DBusConnection* /*connection*/, DBusMessage* message, void* bus) {
  const bool call = dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL;
  return call && static_cast<Bus*>(bus)->answer(message) ? DBUS_HANDLER_RESULT_HANDLED
                                                         : DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

}  // namespace

Bus::~Bus() { drop(); }

void Bus::drop() {
  if (_connection != nullptr) {
    dbus_connection_close(_connection);
    dbus_connection_unref(_connection);
    _connection = nullptr;
  }
}

bool Bus::connect() {
  DBusError error = DBUS_ERROR_INIT;
  _connection = dbus_connection_open_private(ADDRESS, &error);
  dbus_error_free(&error);
  if (_connection == nullptr) {
    return false;
  }
  // A service outlives its bus here: the tests watch what the daemon does with it then.
  dbus_connection_set_exit_on_disconnect(_connection, FALSE);
  const bool registered = dbus_bus_register(_connection, &error) != FALSE;
  dbus_error_free(&error);
  dbus_connection_set_exit_on_disconnect(_connection, FALSE);
  if (!registered) {
    drop();
  } else if (_handler) {
    dbus_connection_add_filter(_connection, on_message, this, nullptr);
  }
  return registered;
}

bool Bus::answer(DBusMessage* call) {
  DBusMessage* reply = nullptr;
  if (!_handler(call, reply)) {
    return false;
  }
  if (reply != nullptr) {
    dbus_connection_send(_connection, reply, nullptr);
    dbus_message_unref(reply);
  }
  return true;
}

bool Bus::own(const std::string& name) {
  DBusError error = DBUS_ERROR_INIT;
  const int result = dbus_bus_request_name(_connection, name.c_str(), DBUS_NAME_FLAG_REPLACE_EXISTING, &error);
  dbus_error_free(&error);
  return result == DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER;
}

void Bus::feed(const std::string& name, const std::string& key, std::int32_t seconds, bool broadcast) {
  DBusMessage* signal = dbus_message_new_signal(WATCHDOG_PATH, WATCHDOG, "feedDog");
  if (signal == nullptr) {
    return;
  }
  const char* name_text = name.c_str();
  const char* key_text = key.c_str();
  if (!broadcast) {
    dbus_message_set_destination(signal, WATCHDOG);
  }
  if (dbus_message_append_args(signal, DBUS_TYPE_STRING, &name_text, DBUS_TYPE_STRING, &key_text, DBUS_TYPE_INT32,
                               &seconds, DBUS_TYPE_INVALID) != FALSE) {
    dbus_connection_send(_connection, signal, nullptr);
    dbus_connection_flush(_connection);
  }
  dbus_message_unref(signal);
}

bool Bus::serve() {
  const bool open = dbus_connection_read_write(_connection, 0) != FALSE;
  while (dbus_connection_dispatch(_connection) == DBUS_DISPATCH_DATA_REMAINS) {
  }
  if (!open) {
    drop();
  }
  return open;
}

int Bus::descriptor() const {
  int number = -1;
  if (_connection == nullptr || dbus_connection_get_unix_fd(_connection, &number) == FALSE) {
    return -1;
  }
  return number;
}

}  // namespace probe
