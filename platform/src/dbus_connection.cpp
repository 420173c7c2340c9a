#include "platform/dbus_connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#include "dbus_deadline.h"
#include "platform/text.h"
#include "platform/unique_fd.h"

namespace Tessaro::Iot::Component {

namespace {

constexpr int retry_interval_ms = 20;
constexpr size_t longest_auth_line = 512;

void prepare_library() {
  static std::once_flag prepared;
  std::call_once(prepared, [] {
    (void)dbus_threads_init_default();  // fails for want of memory only, which every later call notices
    // libdbus writes with MSG_NOSIGNAL; an ignored SIGPIPE would only be inherited by every child.
    dbus_connection_set_change_sigpipe(FALSE);
  });
}

struct AddressEntriesFree {
  void operator()(DBusAddressEntry** entries) const noexcept { dbus_address_entries_free(entries); }
};

// The socket path of an address that names exactly one; else empty.
std::string socket_path(const std::string& address) {
  DBusAddressEntry** parsed = nullptr;
  int count = 0;
  if (!Text::is_bus_text(address) || dbus_parse_address(address.c_str(), &parsed, &count, nullptr) == FALSE) return {};
  const std::unique_ptr<DBusAddressEntry*, AddressEntriesFree> entries(parsed);
  if (count != 1 || std::strcmp(dbus_address_entry_get_method(parsed[0]), "unix") != 0) return {};
  const char* path = dbus_address_entry_get_value(parsed[0], "path");
  return path == nullptr ? std::string() : std::string(path);
}

bool wait_for(int fd, short events, const DBusDeadline& deadline) noexcept {
  pollfd entry{fd, events, 0};
  for (;;) {
    const int ready = ::poll(&entry, 1, deadline.remaining_ms());
    if (ready >= 0) return ready > 0;
    if (errno != EINTR) return false;
  }
}

// Connects without ever blocking in connect(2): a full backlog is tried again until the deadline.
UniqueFd connect_within(const std::string& path, const DBusDeadline& deadline) noexcept {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) return {};
  path.copy(address.sun_path, path.size());

  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.valid()) return {};
  while (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    if (errno != EAGAIN && errno != EINTR) return {};
    if (deadline.remaining_ms() == 0) return {};
    (void)::poll(nullptr, 0, std::min(retry_interval_ms, deadline.remaining_ms()));  // only a pause
  }
  return fd;
}

// The opening of an EXTERNAL authentication: a NUL byte, and the user id as hexadecimal digits of its decimal ones.
std::string auth_opening() {
  constexpr std::string_view hex_digits = "0123456789abcdef";
  std::string opening(1, '\0');
  opening += "AUTH EXTERNAL ";
  for (const char digit : std::to_string(::geteuid())) {
    const auto byte = static_cast<unsigned char>(digit);
    opening += hex_digits[byte >> 4U];
    opening += hex_digits[byte & 0xFU];
  }
  return opening + "\r\n";
}

// True unless the bus may be somebody's trap: an ordinary user cannot make sure that the socket's directory is his own.
bool is_trusted_peer(DBusConnection* connection) noexcept {
  int fd = -1;
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (::geteuid() == 0) return true;
  if (dbus_connection_get_unix_fd(connection, &fd) == FALSE) return false;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  return peer.uid == 0 || peer.uid == ::geteuid();
}

// True when a bus at `path` accepts and answers right now. libdbus connects with a blocking connect(2), which would
// hang for ever on a stopped bus with a full backlog, and so may only be let loose on a bus that has just answered.
bool bus_answers(const std::string& path, const DBusDeadline& deadline) {
  const UniqueFd fd = connect_within(path, deadline);
  if (!fd.valid()) return false;
  const std::string opening = auth_opening();
  const ssize_t sent = ::send(fd.get(), opening.data(), opening.size(), MSG_NOSIGNAL);
  if (sent < 0 || static_cast<size_t>(sent) != opening.size()) return false;  // the empty buffer takes it in one piece

  std::string answer;
  while (answer.find('\n') == std::string::npos && answer.size() < longest_auth_line) {
    char chunk[longest_auth_line];
    if (!wait_for(fd.get(), POLLIN, deadline)) return false;
    const ssize_t received = ::recv(fd.get(), chunk, sizeof(chunk), 0);
    if (received <= 0) return false;
    answer.append(chunk, static_cast<size_t>(received));
  }
  return answer.find('\n') != std::string::npos;  // a refusal too: libdbus knows other ways to authenticate
}

bool authenticate(DBusConnection* connection, const DBusDeadline& deadline) noexcept {
  while (dbus_connection_get_is_authenticated(connection) == FALSE) {
    const int remaining_ms = deadline.remaining_ms();
    if (remaining_ms == 0 || dbus_connection_read_write(connection, remaining_ms) == FALSE) return false;
  }
  return true;
}

DBusMessagePtr driver_call(const char* member) noexcept {
  return DBusMessagePtr(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, member));
}

// The driver's answer, or null for an error, a time-out or a lost connection.
DBusMessagePtr ask_driver(DBusConnection* connection, const DBusMessagePtr& call,
                          const DBusDeadline& deadline) noexcept {
  const int remaining_ms = deadline.remaining_ms();
  if (!call || remaining_ms == 0) return nullptr;
  return DBusMessagePtr(dbus_connection_send_with_reply_and_block(connection, call.get(), remaining_ms, nullptr));
}

bool say_hello(DBusConnection* connection, const DBusDeadline& deadline) {
  CDBusResponse answer(ask_driver(connection, driver_call("Hello"), deadline));
  std::string unique_name;
  return answer.get_string(unique_name) && dbus_bus_set_unique_name(connection, unique_name.c_str()) != FALSE;
}

}  // namespace

DBusConnection* open_private_connection(const std::string& address, int64_t timeout_ms) {
  prepare_library();
  const DBusDeadline deadline(timeout_ms);
  const std::string path = socket_path(address);
  if (path.empty() || !bus_answers(path, deadline)) return nullptr;
  DBusConnectionPtr connection(dbus_connection_open_private(address.c_str(), nullptr));
  if (!connection) return nullptr;
  dbus_connection_set_exit_on_disconnect(connection.get(), FALSE);
  if (!is_trusted_peer(connection.get())) return nullptr;
  if (!authenticate(connection.get(), deadline) || !say_hello(connection.get(), deadline)) return nullptr;
  return connection.release();
}

int32_t request_bus_name(DBusConnection* connection, const std::string& name, int64_t timeout_ms) {
  if (name.find('\0') != std::string::npos || dbus_validate_bus_name(name.c_str(), nullptr) == FALSE) return -1;
  const DBusMessagePtr call = driver_call("RequestName");
  const char* text = name.c_str();
  const dbus_uint32_t flags = DBUS_NAME_FLAG_DO_NOT_QUEUE;
  const bool written = call && dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_UINT32, &flags,
                                                        DBUS_TYPE_INVALID) != FALSE;
  if (!written) return -1;
  const DBusMessagePtr answer = ask_driver(connection, call, DBusDeadline(timeout_ms));
  dbus_uint32_t code = 0;
  const bool read =
      answer && dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_UINT32, &code, DBUS_TYPE_INVALID) != FALSE;
  return read ? static_cast<int32_t>(code) : -1;
}

bool add_bus_match(DBusConnection* connection, const std::string& rule, int64_t timeout_ms) {
  CDBusRequest call(driver_call("AddMatch"));
  if (!call.set_string(rule)) return false;
  return ask_driver(connection, call.take(), DBusDeadline(timeout_ms)) != nullptr;
}

}  // namespace Tessaro::Iot::Component
