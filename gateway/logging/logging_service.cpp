// logging-service: keeps the lines that the gateway's programs send it, in a file for each module.
//
// It takes the name iot.gateway.logger. A line is in its file before the call is answered, so what was answered
// outlives the service, however it ends. The files are in /quorvane/run/logger/services.
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "log_store.h"
#include "service.h"

namespace {

constexpr const char* introspection = R"(
  <method name="log">
    <arg name="module" type="s" direction="in"/><arg name="level" type="i" direction="in"/>
    <arg name="tag" type="s" direction="in"/><arg name="text" type="s" direction="in"/>
  </method>)";

// An answer is a promise: when the line could not be written the caller gets an error.
bool write_line(gateway::LogStore& store, DBusMessage* call) {
  const char* module = nullptr;
  dbus_int32_t level = 0;
  const char* tag = nullptr;
  const char* text = nullptr;
  if (!dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &module, DBUS_TYPE_INT32, &level, DBUS_TYPE_STRING, &tag,
                             DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID)) {
    return false;
  }
  if (!store.write(module, level, tag, text)) throw std::runtime_error("the line could not be written");
  return true;
}

}  // namespace

int main() {
  using namespace std::chrono_literals;
  gateway::StopSignal stop;
  gateway::LogStore store(std::string(gateway::run_root) + "/logger/services", gateway::LogLimits{});
  gateway::BusService service("iot.gateway.logger", "/iot/gateway/logger", introspection, stop);
  service.method("log", [&](DBusMessage* call, DBusMessage*) { return write_line(store, call); });
  if (!service.connect()) return EXIT_FAILURE;
  do {
    service.feed_dog("writer", 15s);
    store.tell_losses();
  } while (service.serve(5s));
  return stop.stopped() ? EXIT_SUCCESS : EXIT_FAILURE;
}
