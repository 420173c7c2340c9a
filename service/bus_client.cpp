#include "bus_client.h"

#include "paths.h"
#include "platform/dbus_connection.h"

namespace Tessaro::Iot::Component {

namespace {
constexpr int64_t open_timeout_ms = 2000;
constexpr int64_t name_timeout_ms = 2000;

void drop(DBusConnection* connection) {
  dbus_connection_close(connection);
  dbus_connection_unref(connection);
}
}  // namespace

DBusConnection* open_bus_connection(const std::string& name) {
  DBusConnection* const connection = open_private_connection(Paths::bus_address, open_timeout_ms);
  if (connection == nullptr) return nullptr;
  if (request_bus_name(connection, name, name_timeout_ms) != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
    drop(connection);
    return nullptr;
  }
  return connection;
}

void close_bus_connection(DBusConnection* connection, const std::string& name) {
  // The bus takes the name back with the connection in any case; asking first, without waiting for a reply that a
  // stopped bus would never give, only makes it prompt.
  DBusMessagePtr release(
      dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "ReleaseName"));
  const char* text = name.c_str();
  if (release != nullptr && dbus_message_append_args(release.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) != 0) {
    dbus_message_set_no_reply(release.get(), TRUE);
    (void)dbus_connection_send(connection, release.get(), nullptr);  // written at once, or lost with the connection
  }
  drop(connection);
}

int32_t bus_error_set(DBusError& error) {
  if (dbus_error_is_set(&error) == 0) return 0;
  dbus_error_free(&error);
  return -1;
}

}  // namespace Tessaro::Iot::Component
