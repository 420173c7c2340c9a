// device-registry: the list of the devices that are joined to the gateway.
//
// A service with a bus name and a keep-alive. It takes the name iot.gateway.devices; the supervisor waits for that
// name before it starts the next service. It can be told to fail: `crash` ends it as a fault would, `fall_silent`
// leaves it alive but feeding no more.
//
// usage: device-registry [--limit COUNT]
#include <chrono>
#include <cstdlib>
#include <set>
#include <string>
#include <string_view>

#include "service.h"

namespace {

constexpr const char* introspection = R"(
  <method name="add"><arg name="device" type="s" direction="in"/><arg name="added" type="b" direction="out"/></method>
  <method name="remove"><arg name="device" type="s" direction="in"/><arg name="removed" type="b" direction="out"/></method>
  <method name="list"><arg name="devices" type="as" direction="out"/></method>
  <method name="crash"/>
  <method name="fall_silent"/>)";

bool read_device(DBusMessage* call, std::string& device) {
  const char* text = nullptr;
  if (!dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID)) return false;
  device = text;
  return !device.empty();
}

void write_bool(DBusMessage* reply, bool value) {
  const dbus_bool_t result = value;
  dbus_message_append_args(reply, DBUS_TYPE_BOOLEAN, &result, DBUS_TYPE_INVALID);
}

void write_list(DBusMessage* reply, const std::set<std::string>& devices) {
  DBusMessageIter results;
  DBusMessageIter array;
  dbus_message_iter_init_append(reply, &results);
  dbus_message_iter_open_container(&results, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING_AS_STRING, &array);
  for (const std::string& device : devices) {
    const char* text = device.c_str();
    dbus_message_iter_append_basic(&array, DBUS_TYPE_STRING, &text);
  }
  dbus_message_iter_close_container(&results, &array);
}

}  // namespace

int main(int argc, char** argv) {
  using namespace std::chrono_literals;
  std::size_t limit = 64;
  if (argc == 3 && std::string_view(argv[1]) == "--limit") limit = std::strtoul(argv[2], nullptr, 10);

  gateway::StopSignal stop;
  gateway::BusService service("iot.gateway.devices", "/iot/gateway/devices", introspection, stop);
  std::set<std::string> devices;

  service.method("add", [&](DBusMessage* call, DBusMessage* reply) {
    std::string device;
    if (!read_device(call, device)) return false;
    write_bool(reply, devices.size() < limit && devices.insert(device).second);
    return true;
  });
  service.method("remove", [&](DBusMessage* call, DBusMessage* reply) {
    std::string device;
    if (!read_device(call, device)) return false;
    write_bool(reply, devices.erase(device) == 1);
    return true;
  });
  service.method("list", [&](DBusMessage*, DBusMessage* reply) {
    write_list(reply, devices);
    return true;
  });

  service.method("crash", [](DBusMessage*, DBusMessage*) -> bool { std::abort(); });
  bool silent = false;
  service.method("fall_silent", [&](DBusMessage*, DBusMessage*) { return silent = true; });

  if (!service.connect()) return EXIT_FAILURE;
  // Fed well before the deadline: one late turn is no reason to be cycled.
  do {
    if (!silent) service.feed_dog("registry", 15s);
  } while (service.serve(5s));
  return stop.stopped() ? EXIT_SUCCESS : EXIT_FAILURE;
}
