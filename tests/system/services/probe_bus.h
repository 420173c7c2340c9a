// The probe's side of the gateway's bus: a private connection, a name, keep-alives.
#pragma once

#include <cstdint>
#include <string>

struct DBusConnection;

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

    /// Handles what has arrived, without waiting. False once the bus is gone.
    bool serve();

    [[nodiscard]] bool connected() const { return _connection != nullptr; }

    /// The descriptor to wait on, or -1.
    [[nodiscard]] int descriptor() const;

private:
    void drop();

    DBusConnection* _connection = nullptr;
};

}  // namespace probe
