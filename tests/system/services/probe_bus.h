// The probe's side of the gateway's bus: a private connection, a name, keep-alives.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

struct DBusConnection;
struct DBusMessage;

namespace probe {

class Bus {
 public:
  Bus() = default;
  ~Bus();
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;

  /// Connects to the gateway's bus. False when it is not there (yet).
  bool connect();

  /// Asks for a well-known name; true when this connection owns it now.
  bool own(const std::string& name);

  /// Sends "feedDog" to the watchdog's own name, or to everybody who listens for it.
  void feed(const std::string& name, const std::string& key, std::int32_t seconds, bool broadcast);

  /// What answers method calls: it gives the reply, or nothing to leave the caller without one. False from
  /// it leaves the call to libdbus, which answers with an error.
  using Handler = std::function<bool(DBusMessage* call, DBusMessage*& reply)>;

  /// Sets the handler, before connect().
  void answer_with(Handler handler) { _handler = std::move(handler); }

  /// Handles what has arrived, without waiting. False once the bus is gone.
  bool serve();

  /// Gives one method call to the handler and sends its reply; true when it was taken.
  bool answer(DBusMessage* call);

  [[nodiscard]] bool connected() const { return _connection != nullptr; }

  /// The descriptor to wait on, or -1.
  [[nodiscard]] int descriptor() const;

 private:
  void drop();

  DBusConnection* _connection = nullptr;
  Handler _handler;
};

}  // namespace probe
