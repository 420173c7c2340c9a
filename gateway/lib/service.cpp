#include "service.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace gateway {
namespace {

// Where the signal handler tells of a request to stop.
int stop_descriptor = -1;

void request_stop(int) {
  const int error = errno;
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto told = ::write(stop_descriptor, &one, sizeof one);
  // The default action of the alarm ends the process, whatever it is stuck in.
  ::alarm(3);
  errno = error;
}

}  // namespace

bool write_state(const std::string& service, const std::string& text) {
  const std::filesystem::path directory = std::filesystem::path(run_root) / service;
  const std::filesystem::path fresh = directory / "state.new";
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  std::ofstream file(fresh, std::ios::trunc);
  file << text;
  file.close();
  if (!file) return false;
  std::filesystem::rename(fresh, directory / "state", error);
  return !error;
}

StopSignal::StopSignal() {
  ::umask(022);
  descriptor_ = stop_descriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  struct sigaction action {};
  action.sa_handler = request_stop;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGTERM, &action, nullptr);
  ::sigaction(SIGINT, &action, nullptr);
}

StopSignal::~StopSignal() { ::close(descriptor_); }

void StopSignal::take() {
  std::uint64_t count = 0;
  if (::read(descriptor_, &count, sizeof count) == sizeof count) stopped_ = true;
}

bool StopSignal::wait(std::chrono::milliseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  while (!stopped_) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd ready{descriptor_, POLLIN, 0};
    ::poll(&ready, 1, static_cast<int>(std::min<std::int64_t>(left.count(), INT32_MAX)));
    take();
  }
  return stopped_;
}

BusService::BusService(std::string name, std::string path, std::string introspection, StopSignal& stop)
    : name_(std::move(name)), path_(std::move(path)), introspection_(std::move(introspection)), stop_(stop) {}

bool BusService::connect() {
  DBusError error = DBUS_ERROR_INIT;
  connection_ = open_bus(&error);
  static const DBusObjectPathVTable table{nullptr, &BusService::on_message, nullptr, nullptr, nullptr, nullptr};
  // Queued for the name, if need be: after a restart the process before this one may be about to end only now.
  const bool connected = connection_ && dbus_bus_register(connection_.get(), &error) &&
                         dbus_connection_register_object_path(connection_.get(), path_.c_str(), &table, this) &&
                         dbus_bus_request_name(connection_.get(), name_.c_str(), 0, &error) != -1;
  dbus_error_free(&error);
  return connected;
}

void BusService::feed_dog(const std::string& item, std::chrono::seconds until_next) {
  DBusMessage* signal = dbus_message_new_signal("/iot/gateway/watchdog", "iot.gateway.watchdog", "feedDog");
  const char* name = name_.c_str();
  const char* key = item.c_str();
  const auto seconds = static_cast<dbus_int32_t>(std::min<std::int64_t>(until_next.count(), INT32_MAX));
  dbus_message_set_destination(signal, "iot.gateway.watchdog");
  dbus_message_append_args(signal, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &key, DBUS_TYPE_INT32, &seconds,
                           DBUS_TYPE_INVALID);
  dbus_connection_send(connection_.get(), signal, nullptr);
  dbus_message_unref(signal);
}

bool BusService::serve(std::chrono::milliseconds time) {
  // poll passes over a negative descriptor.
  return serve_until(std::chrono::steady_clock::now() + time, -1);
}

bool BusService::serve_until_readable(int descriptor) {
  return serve_until(std::chrono::steady_clock::time_point::max(), descriptor);
}

bool BusService::serve_until(std::chrono::steady_clock::time_point end, int descriptor) {
  bool readable = false;
  int bus = -1;
  dbus_connection_get_unix_fd(connection_.get(), &bus);
  while (!stop_.stopped()) {
    // What is queued is written, what has arrived is read and answered, and only then the end is asked for.
    if (!dbus_connection_read_write(connection_.get(), 0)) return false;
    while (dbus_connection_dispatch(connection_.get()) == DBUS_DISPATCH_DATA_REMAINS) {
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (readable || left.count() <= 0) return true;
    short events = POLLIN;
    if (dbus_connection_has_messages_to_send(connection_.get())) events |= POLLOUT;
    pollfd ready[] = {{bus, events, 0}, {stop_.descriptor_, POLLIN, 0}, {descriptor, POLLIN, 0}};
    readable = ::poll(ready, 3, static_cast<int>(std::min<std::int64_t>(left.count(), INT32_MAX))) > 0 &&
               ready[2].revents != 0;
    stop_.take();
  }
  return false;
}

DBusHandlerResult BusService::on_message(DBusConnection*, DBusMessage* message, void* self) {
  if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  return static_cast<BusService*>(self)->answer(message);
}

namespace {

// The error that the method has for the caller; none when its results are in the reply.
DBusMessage* run(const BusService::Method& method, DBusMessage* call, DBusMessage* reply) {
  try {
    return method(call, reply) ? nullptr : dbus_message_new_error(call, DBUS_ERROR_INVALID_ARGS, "wrong arguments");
  } catch (const std::exception& problem) {
    // libdbus ends the process that sends a text that is not UTF-8.
    const char* text = dbus_validate_utf8(problem.what(), nullptr) ? problem.what() : "it could not be done";
    return dbus_message_new_error(call, DBUS_ERROR_FAILED, text);
  }
}

}  // namespace

DBusHandlerResult BusService::answer(DBusMessage* call) {
  DBusMessage* reply = dbus_message_new_method_return(call);
  if (dbus_message_is_method_call(call, DBUS_INTERFACE_INTROSPECTABLE, "Introspect")) {
    const std::string xml = std::string(DBUS_INTROSPECT_1_0_XML_DOCTYPE_DECL_NODE) + "<node><interface name=\"" +
                            name_ + "\">" + introspection_ + "</interface></node>";
    const char* text = xml.c_str();
    dbus_message_append_args(reply, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  } else {
    const auto found = methods_.find(dbus_message_get_member(call));
    const char* interface = dbus_message_get_interface(call);
    if (found == methods_.end() || (interface != nullptr && name_ != interface)) {
      dbus_message_unref(reply);
      // libdbus then answers with the standard error.
      return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    DBusMessage* const error = run(found->second, call, reply);
    if (error != nullptr) {
      dbus_message_unref(reply);
      reply = error;
    }
  }
  if (!dbus_message_get_no_reply(call)) dbus_connection_send(connection_.get(), reply, nullptr);
  dbus_message_unref(reply);
  return DBUS_HANDLER_RESULT_HANDLED;
}

}  // namespace gateway
