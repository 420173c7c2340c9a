#include "platform/dbus_message.h"

#include <utility>

#include "platform/text.h"

namespace Tessaro::Iot::Component {

namespace {

// A longer argument would cost the sender its connection: the bus cuts off whoever exceeds its message size.
constexpr size_t max_string_length = size_t{16} * 1024 * 1024;

// libdbus ends the process over a name that is not valid, so every name is looked at before it is handed over.
using Validator = dbus_bool_t (*)(const char*, DBusError*);

bool is_valid(Validator validate, const std::string& name) noexcept {
  return name.find('\0') == std::string::npos && validate(name.c_str(), nullptr) != FALSE;
}

DBusMessagePtr new_call(const std::string& destination, const std::string& path, const std::string& interface,
                        const std::string& member) noexcept {
  const bool valid = is_valid(&dbus_validate_bus_name, destination) && is_valid(&dbus_validate_path, path) &&
                     (interface.empty() || is_valid(&dbus_validate_interface, interface)) &&
                     is_valid(&dbus_validate_member, member);
  if (!valid) return nullptr;
  return DBusMessagePtr(dbus_message_new_method_call(destination.c_str(), path.c_str(),
                                                     interface.empty() ? nullptr : interface.c_str(), member.c_str()));
}

DBusMessagePtr new_signal(const std::string& path, const std::string& interface, const std::string& member) noexcept {
  const bool valid = is_valid(&dbus_validate_path, path) && is_valid(&dbus_validate_interface, interface) &&
                     is_valid(&dbus_validate_member, member);
  if (!valid) return nullptr;
  return DBusMessagePtr(dbus_message_new_signal(path.c_str(), interface.c_str(), member.c_str()));
}

DBusMessagePtr new_answer(DBusMessage* call) noexcept {
  if (call == nullptr) return nullptr;
  // A call that was never sent has no serial to answer to; the answer can be written and read, but not sent.
  if (dbus_message_get_serial(call) == 0) return DBusMessagePtr(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
  return DBusMessagePtr(dbus_message_new_method_return(call));
}

}  // namespace

CDBusMessageOpr::CDBusMessageOpr(DBusMessagePtr message) noexcept : message_(std::move(message)) {}

CDBusMessageOpr::CDBusMessageOpr(CDBusMessageOpr&& other) noexcept
    : message_(std::move(other.message_)), reader_(other.reader_), reading_(std::exchange(other.reading_, false)) {}

CDBusMessageOpr& CDBusMessageOpr::operator=(CDBusMessageOpr&& other) noexcept {
  if (this != &other) {
    message_ = std::move(other.message_);
    reader_ = other.reader_;
    reading_ = std::exchange(other.reading_, false);
  }
  return *this;
}

bool CDBusMessageOpr::get_string(std::string& value) {
  const char* text = nullptr;
  if (!take_next(DBUS_TYPE_STRING, &text)) return false;
  value = text;
  return true;
}

bool CDBusMessageOpr::get_int32(int32_t& value) { return take_next(DBUS_TYPE_INT32, &value); }

bool CDBusMessageOpr::set_string(const std::string& value) {
  if (value.size() > max_string_length || !Text::is_bus_text(value)) return false;
  const char* text = value.c_str();
  return append(DBUS_TYPE_STRING, &text);
}

bool CDBusMessageOpr::set_int32(int32_t value) { return append(DBUS_TYPE_INT32, &value); }

bool CDBusMessageOpr::set_bool(bool value) {
  const dbus_bool_t word = value ? TRUE : FALSE;
  return append(DBUS_TYPE_BOOLEAN, &word);
}

DBusMessagePtr CDBusMessageOpr::take() noexcept {
  reading_ = false;
  return std::move(message_);
}

bool CDBusMessageOpr::take_next(int32_t type, void* value) noexcept {
  if (!message_) return false;
  if (!reading_) {
    (void)dbus_message_iter_init(message_.get(), &reader_);  // without arguments it stands at the end
    reading_ = true;
  }
  if (dbus_message_iter_get_arg_type(&reader_) != type) return false;
  dbus_message_iter_get_basic(&reader_, value);
  (void)dbus_message_iter_next(&reader_);  // at the end the next argument has no type
  return true;
}

bool CDBusMessageOpr::append(int32_t type, const void* value) noexcept {
  // A message with a serial has been sent, or was received: libdbus ends the process over a write to it.
  if (!message_ || dbus_message_get_serial(message_.get()) != 0) return false;
  DBusMessageIter writer;
  dbus_message_iter_init_append(message_.get(), &writer);
  if (dbus_message_iter_append_basic(&writer, type, value) == FALSE) return false;
  reading_ = false;  // the body may have moved
  return true;
}

CDBusRequest::CDBusRequest(const std::string& destination, const std::string& path, const std::string& interface,
                           const std::string& member)
    : CDBusMessageOpr(new_call(destination, path, interface, member)) {}

CDBusResponse::CDBusResponse() noexcept : CDBusMessageOpr(nullptr) {}

CDBusResponse::CDBusResponse(const CDBusRequest& request) : CDBusMessageOpr(new_answer(request.message())) {}

CDBusSignal::CDBusSignal(const std::string& path, const std::string& interface, const std::string& member)
    : CDBusMessageOpr(new_signal(path, interface, member)) {}

}  // namespace Tessaro::Iot::Component
