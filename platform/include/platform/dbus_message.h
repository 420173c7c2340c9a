// Messages of the bus: arguments are read and written in order.
#pragma once

#include <dbus/dbus.h>

#include <cstdint>
#include <memory>
#include <string>

namespace Tessaro::Iot::Component {

struct DBusMessageUnref {
  void operator()(DBusMessage* message) const noexcept { dbus_message_unref(message); }
};
using DBusMessagePtr = std::unique_ptr<DBusMessage, DBusMessageUnref>;

// Reads and writes the arguments of one message. An object belongs to one thread at a time; it shares the ownership of
// its message. A message that could not be allocated behaves as one without arguments that refuses every write.
class CDBusMessageOpr {
 public:
  // Takes `message` over; null is allowed.
  explicit CDBusMessageOpr(DBusMessagePtr message) noexcept;
  CDBusMessageOpr(CDBusMessageOpr&& other) noexcept;
  CDBusMessageOpr& operator=(CDBusMessageOpr&& other) noexcept;
  ~CDBusMessageOpr() = default;

  // Takes the next argument. Returns true when there is one of that type; one of another type is not consumed, so
  // that it can still be taken as what it is. On false the value is left as it was.
  bool get_string(std::string& value);
  bool get_int32(int32_t& value);

  // Appends an argument; reading begins anew after it. Returns false, appending nothing, for a string that is not valid
  // UTF-8, holds a NUL or exceeds 16 MiB, for a message that was sent or received, and when memory ran out.
  bool set_string(const std::string& value);
  bool set_int32(int32_t value);
  bool set_bool(bool value);

  // The message itself, null when there is none. Ownership stays here.
  [[nodiscard]] DBusMessage* message() const noexcept { return message_.get(); }
  // Gives the message up.
  [[nodiscard]] DBusMessagePtr take() noexcept;

 private:
  bool take_next(int32_t type, void* value) noexcept;
  bool append(int32_t type, const void* value) noexcept;

  DBusMessagePtr message_;
  DBusMessageIter reader_{};
  bool reading_ = false;
};

// A method call, received or to be sent.
class CDBusRequest : public CDBusMessageOpr {
 public:
  using CDBusMessageOpr::CDBusMessageOpr;
  // A call to be sent. Any name that the bus would refuse leaves the request without a message.
  CDBusRequest(const std::string& destination, const std::string& path, const std::string& interface,
               const std::string& member);
};

// The answer to a method call.
class CDBusResponse : public CDBusMessageOpr {
 public:
  // Without a message, to be filled by a call.
  CDBusResponse() noexcept;
  using CDBusMessageOpr::CDBusMessageOpr;
  // An empty answer to `request`.
  explicit CDBusResponse(const CDBusRequest& request);
};

// A signal, received or to be sent.
class CDBusSignal : public CDBusMessageOpr {
 public:
  using CDBusMessageOpr::CDBusMessageOpr;
  // A signal to be sent. Any name that the bus would refuse leaves the signal without a message.
  CDBusSignal(const std::string& path, const std::string& interface, const std::string& member);
};

}  // namespace Tessaro::Iot::Component
