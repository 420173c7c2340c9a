// gateway-config: the configuration on the command line. `usage` below tells how.
#include <dbus/dbus.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bus_connection.h"
#include "codes.h"
#include "configuration.h"

namespace {

using gateway::Code;

constexpr const char* usage =
    "usage: gateway-config get KEY\n"
    "       gateway-config set [--protected] [--no-flush] KEY VALUE|-\n"
    "       gateway-config flush\n"
    "       gateway-config reset --yes\n"
    "\n"
    "A value of - is read from standard input, without the end of its last line.\n"
    "Exit status: 0 done, 1 not done, 2 wrong usage, 3 the key has no value.\n";

constexpr const char* name = "iot.dmp.configmanager";
constexpr const char* path = "/iot/dmp/configmanager";
constexpr int timeout_ms = 3'000;
constexpr int long_timeout_ms = 10'000;

enum Status { done = 0, not_done = 1, wrong_usage = 2, no_value = 3 };

int complain(const std::string& text, Status status = not_done) {
  std::fprintf(stderr, "gateway-config: %s\n", text.c_str());
  return status;
}

int complain(Code code) { return complain(gateway::describe(code), code == Code::no_value ? no_value : not_done); }

// The calls are limited one by one; this is for a bus that takes a connection and never says a word.
void limit(int milliseconds) {
  ::signal(SIGALRM, [](int) {
    constexpr std::string_view text = "gateway-config: the bus does not answer\n";
    (void)!::write(STDERR_FILENO, text.data(), text.size());
    ::_exit(not_done);
  });
  ::alarm(static_cast<unsigned>(milliseconds) / 1000 + 1);
}

int time_for(std::string_view member) {
  return member == "reset_config" || member == "flush_config" ? long_timeout_ms : timeout_ms;
}

struct Unref {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, Unref>;

class Client {
 public:
  // Calls the method. Gives the code and, for a method that has one, the value. False, with the reason on standard
  // error, when there was no answer.
  bool call(const char* member, const std::vector<const char*>& texts, const dbus_bool_t* flag, Code& code,
            std::string* value = nullptr) {
    DBusError error = DBUS_ERROR_INIT;
    limit(time_for(member));
    const bool answered = connect(error) && exchange(member, texts, flag, code, value, error);
    if (!answered) complain(std::string("the configuration service does not answer: ") + error.message);
    dbus_error_free(&error);
    return answered;
  }

 private:
  bool connect(DBusError& error) {
    if (connection_) return true;
    connection_ = gateway::open_bus(&error);
    return connection_ && dbus_bus_register(connection_.get(), &error);
  }

  bool exchange(const char* member, const std::vector<const char*>& texts, const dbus_bool_t* flag, Code& code,
                std::string* value, DBusError& error) {
    const Message message(dbus_message_new_method_call(name, path, name, member));
    dbus_message_set_auto_start(message.get(), FALSE);
    for (const char* text : texts) dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    if (flag != nullptr) dbus_message_append_args(message.get(), DBUS_TYPE_BOOLEAN, flag, DBUS_TYPE_INVALID);
    const Message reply(
        dbus_connection_send_with_reply_and_block(connection_.get(), message.get(), time_for(member), &error));
    if (!reply) return false;
    dbus_int32_t number = 0;
    const char* text = "";
    const bool good = value != nullptr
                          ? dbus_message_get_args(reply.get(), &error, DBUS_TYPE_INT32, &number, DBUS_TYPE_STRING,
                                                  &text, DBUS_TYPE_INVALID)
                          : dbus_message_get_args(reply.get(), &error, DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID);
    if (!good) return false;
    code = static_cast<Code>(number);
    if (value != nullptr) *value = text;
    return true;
  }

  gateway::BusConnection connection_;
};

// Reads standard input to its end, at most a little more than a value may have.
bool read_input(std::string& value) {
  // One piece of memory from the start: no copy of a secret is left behind by growing.
  value.reserve(gateway::value_limit + 4096);
  std::array<char, 1024> piece{};
  ssize_t count = 0;
  while (value.size() <= gateway::value_limit + 1 && (count = ::read(STDIN_FILENO, piece.data(), piece.size())) != 0) {
    if (count > 0) value.append(piece.data(), static_cast<std::size_t>(count));
    if (count < 0 && errno != EINTR) return false;
  }
  ::explicit_bzero(piece.data(), piece.size());
  if (value.ends_with('\n')) value.pop_back();
  return true;
}

// The bus carries text only, and ends whoever gives it anything else.
bool is_text(const std::string& bytes) {
  return bytes.find('\0') == std::string::npos && dbus_validate_utf8(bytes.c_str(), nullptr);
}

int get(const std::string& key) {
  Client client;
  Code code{};
  std::string value;
  if (!client.call("get_config", {key.c_str()}, nullptr, code, &value)) return not_done;
  if (code != Code::success) return complain(code);
  const bool written = std::printf("%s\n", value.c_str()) >= 0 && std::fflush(stdout) == 0;
  gateway::wipe(value);
  return written ? done : complain("the value cannot be written");
}

int flush(Client& client) {
  Code code{};
  if (!client.call("flush_config", {}, nullptr, code)) return not_done;
  return code == Code::success ? done : complain(code);
}

int set(const std::string& key, std::string& value, bool is_protected, bool and_flush) {
  if (!is_text(value)) return complain("the value is not UTF-8 text", wrong_usage);
  if (value.size() > gateway::value_limit) return complain(Code::value_too_long);
  Client client;
  Code code{};
  const dbus_bool_t flag = is_protected;
  if (!client.call("set_config", {key.c_str(), value.c_str()}, &flag, code)) return not_done;
  if (code != Code::success) return complain(code);
  return and_flush ? flush(client) : done;
}

int set_by_words(const std::vector<char*>& words) {
  bool is_protected = false;
  bool and_flush = true;
  std::size_t next = 1;
  for (; next < words.size() && words[next][0] == '-'; ++next) {
    const std::string_view word = words[next];
    if (word == "--protected") {
      is_protected = true;
    } else if (word == "--no-flush") {
      and_flush = false;
    } else {
      break;
    }
  }
  if (words.size() != next + 2) return complain(std::string("set takes a key and a value\n") + usage, wrong_usage);
  const std::string key = words[next];
  if (!is_text(key)) return complain("the key is not UTF-8 text", wrong_usage);
  std::string value;
  if (std::strcmp(words[next + 1], "-") == 0) {
    if (!read_input(value)) return complain(std::string("standard input: ") + std::strerror(errno));
  } else {
    value = words[next + 1];
    // Process listings show it no longer; the moment before, and a shell's history, are the caller's to think of.
    if (is_protected) std::memset(words[next + 1], '*', value.size());
  }
  const int status = set(key, value, is_protected, and_flush);
  gateway::wipe(value);
  return status;
}

int reset() {
  Client client;
  Code code{};
  if (!client.call("reset_config", {}, nullptr, code)) return not_done;
  return code == Code::success ? done : complain(code);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<char*> words(argv + 1, argv + argc);
  const std::string_view command = words.empty() ? "" : words[0];
  if (command == "--help" && words.size() == 1) {
    std::fputs(usage, stdout);
    return done;
  }
  if (command == "get" && words.size() == 2) {
    return is_text(words[1]) ? get(words[1]) : complain("the key is not UTF-8 text", wrong_usage);
  }
  if (command == "set") return set_by_words(words);
  if (command == "flush" && words.size() == 1) {
    Client client;
    return flush(client);
  }
  if (command == "reset" && words.size() == 2 && std::string_view(words[1]) == "--yes") return reset();
  std::fputs(usage, stderr);
  return wrong_usage;
}
