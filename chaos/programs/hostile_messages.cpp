// Sends the daemon messages that make no sense, and changed frames, as fast as the bus takes them.
//
// usage: hostile_messages COUNT SEED
//
// One frame in forty is changed anywhere; the connection is then made anew, since the bus closes it or waits for the
// rest of a frame that has become longer. The others are well formed: unknown members, wrong and missing arguments,
// signals that only the bus may send, answers to nothing, now and then a very long text. Nothing is sent that the
// daemon is to obey. Prints how many the bus has taken, over how many connections.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "bus_socket.h"

namespace {

constexpr const char* interfaces[] = {"iot.gateway.quorvaned",           "iot.gateway.watchdog",
                                      "org.freedesktop.DBus.Properties", "org.freedesktop.DBus.Introspectable",
                                      "org.freedesktop.DBus.Peer",       "no.such"};
// Without "reboot" and "start_upgrade"; "set_gateway_triple" never gets a whole identity.
constexpr const char* members[] = {"get_le_status", "set_gateway_triple", "feedDog",      "NameOwnerChanged", "Get",
                                   "GetAll",        "Introspect",         "GetMachineId", "no_such"};

class Maker {
 public:
  explicit Maker(uint32_t seed) : dice_(seed) {}

  size_t below(size_t limit) { return dice_() % limit; }

  std::string next() {
    Chaos::Message message = make();
    for (size_t count = below(5); count > 0; --count) append(message.get());
    if (below(2) == 0) dbus_message_set_no_reply(message.get(), TRUE);
    std::string bytes = Chaos::frame(message);
    changed_ = below(40) == 0;
    if (changed_) change(bytes);
    return bytes;
  }

  [[nodiscard]] bool changed() const { return changed_; }

 private:
  Chaos::Message make() {
    const size_t which = below(2);
    const char* const name = std::array{"iot.gateway.quorvaned", "iot.gateway.watchdog"}[which];
    const char* const own_path = std::array{"/iot/gateway/quorvaned", "/iot/gateway/watchdog"}[which];
    const char* const path = below(8) == 0 ? "/no/such" : own_path;
    const char* const interface = interfaces[below(2) == 0 ? which : below(std::size(interfaces))];
    const char* const member = members[below(std::size(members))];
    switch (below(8)) {
      case 0:
      case 1:
      case 2:
        return Chaos::signal(name, path, interface, member);
      case 3: {  // an answer to something that was never asked
        Chaos::Message message(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN), &dbus_message_unref);
        (void)dbus_message_set_reply_serial(message.get(), 1 + static_cast<uint32_t>(below(1000)));
        (void)dbus_message_set_destination(message.get(), name);
        return message;
      }
      default:
        return Chaos::call(name, path, below(8) == 0 ? nullptr : interface, member);
    }
  }

  void append(DBusMessage* message) {
    const auto number = static_cast<int32_t>(dice_() * 5U);
    const double real = -1.0 / (1.0 + number);
    const dbus_bool_t truth = TRUE;
    const std::string text = make_text();
    const char* const pointer = text.c_str();
    const char* const path = "/a/b";
    switch (below(6)) {
      case 0:
        (void)dbus_message_append_args(message, DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID);
        break;
      case 1:
        (void)dbus_message_append_args(message, DBUS_TYPE_DOUBLE, &real, DBUS_TYPE_BOOLEAN, &truth, DBUS_TYPE_INVALID);
        break;
      case 2:
        (void)dbus_message_append_args(message, DBUS_TYPE_OBJECT_PATH, &path, DBUS_TYPE_INVALID);
        break;
      case 3: {
        const char* const* const texts = &pointer;
        (void)dbus_message_append_args(message, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &texts, 1, DBUS_TYPE_INVALID);
        break;
      }
      default:
        (void)dbus_message_append_args(message, DBUS_TYPE_STRING, &pointer, DBUS_TYPE_INVALID);
    }
  }

  std::string make_text() {
    static const std::vector<std::string> texts = {"",
                                                   "iot.test.named",
                                                   "iot.dmp.configmanage",
                                                   "{",
                                                   "[1,2,{\"a\":null}]",
                                                   std::string(300, '['),
                                                   "\033[2J",
                                                   "a\nb \xc2\x85 %s %n",
                                                   "{\"productkey\":\"only\"}",
                                                   "\xf0\x9f\x98\x80",
                                                   std::string(3000, 'x')};
    static const std::string very_long = [] {
      std::string text;
      while (text.size() < 1'048'576) text += "[0,";
      return text;
    }();
    return below(10'000) == 0 ? very_long : texts[below(texts.size())];
  }

  void change(std::string& bytes) {
    for (size_t count = 1 + below(4); count > 0; --count) bytes[below(bytes.size())] = static_cast<char>(dice_());
    if (below(8) == 0) bytes.resize(below(bytes.size()));
  }

  std::minstd_rand dice_;
  bool changed_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const long count = std::strtol(argv[1], nullptr, 10);
  Maker maker(static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10)));
  long connections = 0;
  std::unique_ptr<Chaos::BusSocket> bus;
  for (long sent = 0; sent < count;) {
    for (int attempt = 0; bus == nullptr || !bus->connected(); ++attempt) {
      if (attempt == 100) return 1;  // the bus has gone
      bus = std::make_unique<Chaos::BusSocket>();
      bus->discard_answers();
      ++connections;
    }
    if (bus->send(maker.next())) ++sent;
    if (maker.changed()) bus.reset();
  }
  (void)std::printf("%ld %ld\n", count, connections);
  return 0;
}
