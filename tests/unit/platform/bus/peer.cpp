#include "peer.h"

#include <chrono>

namespace test {

using Tessaro::Iot::Component::CDBusMessageOpr;
using Tessaro::Iot::Component::CDBusRequest;
using Tessaro::Iot::Component::CDBusResponse;
using Tessaro::Iot::Component::CDBusSignal;
using Tessaro::Iot::Component::DBusMessagePtr;

namespace {

constexpr int call_timeout_ms = 20'000;

bool write_all(CDBusMessageOpr& message, const std::vector<std::string>& arguments) {
  for (const std::string& argument : arguments) {
    if (!message.set_string(argument)) return false;
  }
  return true;
}

}  // namespace

std::string Answer::text() {
  std::string value = "(none)";
  (void)reply.get_string(value);
  return value;
}

Peer::Peer(const std::string& address)
    : connection_(Tessaro::Iot::Component::open_private_connection(address, call_timeout_ms)) {}

std::string Peer::unique_name() const { return dbus_bus_get_unique_name(connection_.get()); }

bool Peer::own(const std::string& name) {
  return Tessaro::Iot::Component::request_bus_name(connection_.get(), name, call_timeout_ms) ==
         DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER;
}

std::string Peer::owner_of(const std::string& name) {
  Answer answer = call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetNameOwner", {name});
  return answer.ok() ? answer.text() : std::string();
}

Answer Peer::call(const std::string& destination, const std::string& path, const std::string& interface,
                  const std::string& member, const std::vector<std::string>& arguments) {
  CDBusRequest request(destination, path, interface, member);
  if (!write_all(request, arguments)) return {"not written", CDBusResponse()};
  DBusError error = DBUS_ERROR_INIT;
  DBusMessagePtr reply(
      dbus_connection_send_with_reply_and_block(connection_.get(), request.message(), call_timeout_ms, &error));
  Answer answer{error.name == nullptr ? std::string() : std::string(error.name), CDBusResponse(std::move(reply))};
  dbus_error_free(&error);
  return answer;
}

bool Peer::settle(const std::string& destination) { return call(destination, "/", DBUS_INTERFACE_PEER, "Ping").ok(); }

bool Peer::emit(const std::string& destination, const std::string& path, const std::string& interface,
                const std::string& member, const std::vector<std::string>& arguments) {
  CDBusSignal signal(path, interface, member);
  if (signal.message() == nullptr || !write_all(signal, arguments)) return false;
  if (!destination.empty()) (void)dbus_message_set_destination(signal.message(), destination.c_str());
  return send(signal.message());
}

bool Peer::send(DBusMessage* message) {
  if (dbus_connection_send(connection_.get(), message, nullptr) == FALSE) return false;
  dbus_connection_flush(connection_.get());
  return true;
}

DBusMessagePtr Peer::receive(const std::function<bool(DBusMessage*)>& wanted, int64_t timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (std::chrono::steady_clock::now() < deadline) {
    (void)dbus_connection_read_write(connection_.get(), 20);
    while (dbus_connection_get_dispatch_status(connection_.get()) == DBUS_DISPATCH_DATA_REMAINS) {
      DBusMessagePtr message(dbus_connection_pop_message(connection_.get()));
      if (message && wanted(message.get())) return message;
    }
  }
  return nullptr;
}

}  // namespace test
