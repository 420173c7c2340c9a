#include "status_client.h"

#include <cstdio>
#include <string>

#include "bus_client.h"
#include "platform/dbus_message.h"

namespace Tessaro::Iot::Quorvaned {

namespace {

using namespace Component;

constexpr const char* client_name = "iot.gateway.quorvanedtools";
constexpr int32_t reply_timeout_ms = 10000;

constexpr const char* not_running = "Quorvane is \033[0;31mnot running\033[0m";
constexpr const char* starting_up = "Quorvane is \033[0;31mstarting up\033[0m";
constexpr const char* rule = "----------------------------------------------------------";
constexpr const char* title = "                 Quorvane Service Status             ";

// Fills `status` with the daemon's answer. Returns false when there was none.
bool ask(DBusConnection* connection, std::string& status) {
  DBusMessagePtr call(dbus_message_new_method_call("iot.gateway.quorvaned", "/iot/gateway/quorvaned",
                                                   "iot.gateway.quorvaned", "get_le_status"));
  if (call == nullptr) return false;
  DBusError error;
  dbus_error_init(&error);
  DBusMessagePtr reply(dbus_connection_send_with_reply_and_block(connection, call.get(), reply_timeout_ms, &error));
  if (bus_error_set(error) != 0 || reply == nullptr) return false;
  const char* text = nullptr;
  (void)dbus_message_get_args(reply.get(), &error, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);  // the error tells
  if (bus_error_set(error) != 0 || text == nullptr) return false;
  status = text;
  return true;
}

}  // namespace

int32_t status_command() {
  (void)std::puts("");
  std::string message = not_running;
  int32_t result = status_not_running;
  DBusConnection* const connection = open_bus_connection(client_name);
  if (connection != nullptr) {
    std::string status;
    const bool answered = ask(connection, status);
    close_bus_connection(connection, client_name);
    if (answered && status.empty()) {
      message = starting_up;
      result = status_starting_up;
    } else if (answered) {
      (void)std::printf("%s\n%s\n%s\n\n", rule, title, rule);
      message = status;
      result = status_running;
    }
  }
  (void)std::puts(message.c_str());
  return result;
}

}  // namespace Tessaro::Iot::Quorvaned
