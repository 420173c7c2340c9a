#include "reports.h"

#include <dbus/dbus.h>

#include <chrono>

#include "bus_connection.h"
#include "local_time.h"
#include "service.h"

namespace gateway {
namespace {

constexpr std::size_t lines_kept = 20;
constexpr int attempts_limit = 60;
constexpr const char* logger = "iot.gateway.logger";
constexpr dbus_int32_t level_failure = 2;

void keep(std::deque<std::string>& lines, const std::string& line) {
  lines.push_back(line);
  if (lines.size() > lines_kept) lines.pop_front();
}

void send(DBusConnection* connection, const std::string& line) {
  DBusMessage* call = dbus_message_new_method_call(logger, "/iot/gateway/logger", logger, "log");
  const char* module = "config-manager";
  const char* tag = "store";
  const char* text = line.c_str();
  dbus_message_set_no_reply(call, TRUE);
  dbus_message_append_args(call, DBUS_TYPE_STRING, &module, DBUS_TYPE_INT32, &level_failure, DBUS_TYPE_STRING, &tag,
                           DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  dbus_connection_send(connection, call, nullptr);
  dbus_message_unref(call);
}

}  // namespace

void Reports::add(const std::string& text) {
  keep(lines_, local_time(std::chrono::system_clock::now()) + " " + text);
  keep(unsent_, text);
  attempts_ = 0;
}

void Reports::publish(const std::string& condition) {
  std::string text = "store " + condition + "\n";
  for (const std::string& line : lines_) text += line + "\n";
  if (text != written_ && write_state("config-manager", text)) written_ = text;
  if (!unsent_.empty() && (send_all() || ++attempts_ == attempts_limit)) unsent_.clear();
}

// Over a connection of its own, as there is something to tell so rarely.
bool Reports::send_all() {
  const BusConnection connection = open_bus(nullptr);
  if (!connection || !dbus_bus_register(connection.get(), nullptr)) return false;
  if (!dbus_bus_name_has_owner(connection.get(), logger, nullptr)) return false;
  for (const std::string& line : unsent_) send(connection.get(), line);
  dbus_connection_flush(connection.get());
  return true;
}

}  // namespace gateway
