// config-manager: the configuration service. It keeps named values for the supervisor and for every service.
//
// Values are in /quorvane/run/config-manager/config.db, protected ones sealed under the gateway's key chain.
#include <sodium.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <string>

#include "configuration.h"
#include "reports.h"
#include "service.h"

namespace {

using gateway::Code;

constexpr const char* name = "iot.dmp.configmanager";
constexpr const char* path = "/iot/dmp/configmanager";
constexpr const char* introspection = R"(
  <method name="get_config">
    <arg name="key" type="s" direction="in"/>
    <arg name="code" type="i" direction="out"/><arg name="value" type="s" direction="out"/>
  </method>
  <method name="set_config">
    <arg name="key" type="s" direction="in"/><arg name="value" type="s" direction="in"/>
    <arg name="protected" type="b" direction="in"/><arg name="code" type="i" direction="out"/>
  </method>
  <method name="reset_config"><arg name="code" type="i" direction="out"/></method>
  <method name="flush_config"><arg name="code" type="i" direction="out"/></method>)";

// Everybody who may use the bus may call; what goes wrong with one call must not end the service.
template <class Task>
Code guarded(Task task) {
  try {
    return task();
  } catch (const std::exception&) {
    return Code::storage_failure;
  }
}

void write_code(DBusMessage* reply, Code code) {
  const auto number = static_cast<dbus_int32_t>(code);
  dbus_message_append_args(reply, DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID);
}

bool get_config(gateway::Configuration& configuration, DBusMessage* call, DBusMessage* reply) {
  const char* key = nullptr;
  if (!dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &key, DBUS_TYPE_INVALID)) return false;
  std::string value;
  write_code(reply, guarded([&] { return configuration.get(key, value); }));
  const char* text = value.c_str();
  dbus_message_append_args(reply, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  gateway::wipe(value);
  return true;
}

bool set_config(gateway::Configuration& configuration, DBusMessage* call, DBusMessage* reply) {
  const char* key = nullptr;
  const char* value = nullptr;
  dbus_bool_t is_protected = FALSE;
  if (!dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &key, DBUS_TYPE_STRING, &value, DBUS_TYPE_BOOLEAN,
                             &is_protected, DBUS_TYPE_INVALID)) {
    return false;
  }
  write_code(reply, guarded([&] { return configuration.set(key, value, is_protected != FALSE); }));
  return true;
}

void add_methods(gateway::BusService& service, gateway::Configuration& configuration) {
  service.method("get_config",
                 [&](DBusMessage* call, DBusMessage* reply) { return get_config(configuration, call, reply); });
  service.method("set_config",
                 [&](DBusMessage* call, DBusMessage* reply) { return set_config(configuration, call, reply); });
  service.method("reset_config", [&](DBusMessage*, DBusMessage* reply) {
    write_code(reply, guarded([&] { return configuration.store().reset(); }));
    return true;
  });
  service.method("flush_config", [&](DBusMessage*, DBusMessage* reply) {
    write_code(reply, guarded([&] { return configuration.store().flush(); }));
    return true;
  });
}

// What stands in memory must not get to the disk when the service crashes. The kernel takes a limit of one byte as a
// wish for no core at all; a limit of zero it does not apply to a program that collects cores.
void forbid_cores() {
  const rlimit none{1, 1};
  ::setrlimit(RLIMIT_CORE, &none);
}

}  // namespace

int main() {
  using namespace std::chrono_literals;
  gateway::StopSignal stop;
  // Nothing that it writes is for others.
  ::umask(077);
  forbid_cores();
  if (sodium_init() < 0) return EXIT_FAILURE;

  gateway::Reports reports;
  gateway::Configuration configuration(gateway::run_root, [&](const std::string& text) { reports.add(text); });
  gateway::Store& store = configuration.store();
  gateway::BusService service(name, path, introspection, stop);
  add_methods(service, configuration);
  // Before there is a name under which it is asked; a failure is told to whoever asks.
  (void)guarded([&] { return store.open(); });
  if (!service.connect()) return EXIT_FAILURE;
  do {
    service.feed_dog("store", 30s);
    // Not everybody flushes: what is written is not left unflushed for more than one turn.
    (void)guarded([&] { return store.unflushed() ? store.persist() : store.open(); });
    (void)guarded([&] {
      reports.publish(store.condition());
      return Code::success;
    });
  } while (service.serve(5s));
  return stop.stopped() ? EXIT_SUCCESS : EXIT_FAILURE;
}
