// usage: signal_sender BUS_NAME COUNT RATE SERVICE...
// Sends COUNT keep-alive signals to BUS_NAME, for each SERVICE in turn, RATE per second (0: as fast as they are taken),
// then asks for a ping, whose answer tells that the receiver has handled them all. SIGTERM ends the sending early.
// Prints how many were sent, and the nanoseconds up to the last one's sending and up to the answer.
#include <dbus/dbus.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* address = "unix:path=/tmp/var/run/mbusd/mbusd_socket";
constexpr int ping_timeout_ms = 120'000;
constexpr int keep_alive_s = 100'000;
constexpr long most_waiting_bytes = 256 * 1024;
constexpr std::chrono::milliseconds pace{1};

volatile std::sig_atomic_t ended = 0;

void end_sending(int /*number*/) { ended = 1; }

struct Unref {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, Unref>;

[[noreturn]] void give_up(const char* what) {
  (void)std::fprintf(stderr, "signal_sender: %s\n", what);
  std::exit(1);
}

Message keep_alive(const char* receiver, const char* service) {
  Message message(dbus_message_new_signal("/iot/gateway/watchdog", "iot.gateway.watchdog", "feedDog"));
  const char* item = "main";
  const dbus_int32_t seconds = keep_alive_s;
  if (!message || dbus_message_set_destination(message.get(), receiver) == 0 ||
      dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &service, DBUS_TYPE_STRING, &item, DBUS_TYPE_INT32,
                               &seconds, DBUS_TYPE_INVALID) == 0) {
    give_up("no memory");
  }
  return message;
}

void send(DBusConnection* bus, const Message& pattern) {
  const Message message(dbus_message_copy(pattern.get()));
  if (!message || dbus_connection_send(bus, message.get(), nullptr) == 0) give_up("no memory");
  // Else the queue would only grow in here, and the sender would compete with the bus for memory.
  if (dbus_connection_get_outgoing_size(bus) > most_waiting_bytes) dbus_connection_flush(bus);
}

void ping(DBusConnection* bus, const char* receiver) {
  const Message call(dbus_message_new_method_call(receiver, "/", DBUS_INTERFACE_PEER, "Ping"));
  const Message answer(dbus_connection_send_with_reply_and_block(bus, call.get(), ping_timeout_ms, nullptr));
  if (!answer) give_up("the receiver does not answer");
}

int64_t since(Clock::time_point begin) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - begin).count();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) give_up("usage: signal_sender BUS_NAME COUNT RATE SERVICE...");
  const char* receiver = argv[1];
  const int64_t count = std::atoll(argv[2]);
  const int64_t rate = std::atoll(argv[3]);
  DBusConnection* bus = dbus_connection_open_private(address, nullptr);
  if (bus == nullptr || dbus_bus_register(bus, nullptr) == 0) give_up("no bus");
  std::vector<Message> patterns;
  for (int index = 4; index < argc; ++index) patterns.push_back(keep_alive(receiver, argv[index]));
  ping(bus, receiver);

  (void)std::signal(SIGTERM, end_sending);
  const auto begin = Clock::now();
  int64_t sent = 0;
  while (sent < count && ended == 0) {
    int64_t due = count;
    if (rate > 0) {
      std::this_thread::sleep_until(begin + std::chrono::nanoseconds(sent * 1'000'000'000 / rate) + pace);
      // What a late wake-up has missed is made up for: the load stays what it is called.
      due = std::min(count, since(begin) * rate / 1'000'000'000 + 1);
    }
    for (; sent < due; ++sent) send(bus, patterns[static_cast<size_t>(sent) % patterns.size()]);
    dbus_connection_flush(bus);
  }
  const int64_t sent_ns = since(begin);
  ping(bus, receiver);
  (void)std::printf("%" PRId64 " %" PRId64 " %" PRId64 "\n", sent, sent_ns, since(begin));
  return 0;
}
