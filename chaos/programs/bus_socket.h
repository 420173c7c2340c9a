// A connection to the gateway's bus that takes any bytes, and frames to send over it.
#pragma once

#include <dbus/dbus.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

namespace Chaos {

using Message = std::unique_ptr<DBusMessage, decltype(&dbus_message_unref)>;

inline Message call(const char* name, const char* path, const char* interface, const char* member) {
  return {dbus_message_new_method_call(name, path, interface, member), &dbus_message_unref};
}

inline Message signal(const char* name, const char* path, const char* interface, const char* member) {
  Message message(dbus_message_new_signal(path, interface, member), &dbus_message_unref);
  (void)dbus_message_set_destination(message.get(), name);
  return message;
}

// The bytes of a message, with a serial of its own.
inline std::string frame(const Message& message) {
  static uint32_t serial = 1;
  char* bytes = nullptr;
  int length = 0;
  dbus_message_set_serial(message.get(), ++serial);
  if (dbus_message_marshal(message.get(), &bytes, &length) == FALSE) return {};
  std::string result(bytes, static_cast<size_t>(length));
  dbus_free(bytes);
  return result;
}

class BusSocket {
 public:
  // Connects, and takes a name; not connected when the bus is not there.
  BusSocket() {
    sockaddr_un address{AF_UNIX, "/tmp/var/run/mbusd/mbusd_socket"};
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      close();
      return;
    }
    const std::string user = std::to_string(::getuid());
    std::string greeting("\0AUTH EXTERNAL ", 15);
    for (const char digit : user) (greeting += '3') += digit;  // in hexadecimal digits
    const Message hello = call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "Hello");
    // Answered before the first frame is sent: the bus is free to read no further.
    char answer[512];
    if (!send(greeting + "\r\n") || ::recv(fd_, answer, sizeof answer, 0) < 2 || std::strncmp(answer, "OK", 2) != 0 ||
        !send("BEGIN\r\n" + frame(hello)) || ::recv(fd_, answer, sizeof answer, 0) <= 0) {
      close();
    }
  }
  ~BusSocket() { close(); }
  BusSocket(const BusSocket&) = delete;
  BusSocket& operator=(const BusSocket&) = delete;

  [[nodiscard]] bool connected() const { return fd_ >= 0; }

  // Sends all of it, throwing away what arrives meanwhile. Returns false, and is not connected any more, when the bus
  // has closed the connection.
  bool send(const std::string& bytes) {
    size_t sent = 0;
    while (connected() && sent < bytes.size()) {
      pollfd entry{fd_, POLLIN | POLLOUT, 0};
      (void)::poll(&entry, 1, -1);
      // What arrives before the connection stands is read by who waits for it.
      if ((entry.revents & POLLIN) != 0 && discarding_ && !discard()) break;
      if ((entry.revents & (POLLERR | POLLHUP)) != 0) {
        close();
        break;
      }
      if ((entry.revents & POLLOUT) == 0) continue;
      const ssize_t count = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (count > 0) sent += static_cast<size_t>(count);
    }
    return connected();
  }

  // From now on what arrives is thrown away.
  void discard_answers() { discarding_ = true; }

 private:
  bool discard() {
    char bytes[16384];
    const ssize_t count = ::recv(fd_, bytes, sizeof bytes, MSG_DONTWAIT);
    if (count <= 0) close();
    return count > 0;
  }

  void close() {
    if (fd_ >= 0) (void)::close(fd_);
    fd_ = -1;
  }

  int fd_ = -1;
  bool discarding_ = false;
};

}  // namespace Chaos
