// usage: caller PAIRS PAUSE_US BUS_NAME BUS_NAME
// Calls get_le_status of both in turn (A B, B A, A B, ...), and prints for each pair the nanoseconds of both round
// trips and the lengths of both answers. With one BUS_NAME: prints its answer.
#include <dbus/dbus.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

namespace {

constexpr const char* address = "unix:path=/tmp/var/run/mbusd/mbusd_socket";
constexpr int timeout_ms = 30'000;
constexpr int warm_up = 20;

struct Unref {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, Unref>;

[[noreturn]] void give_up(const char* what) {
  (void)std::fprintf(stderr, "caller: %s\n", what);
  std::exit(1);
}

struct Round {
  long long ns = 0;
  size_t length = 0;
};

Round call(DBusConnection* bus, const char* name, bool print) {
  const auto begin = std::chrono::steady_clock::now();
  const Message request(
      dbus_message_new_method_call(name, "/iot/gateway/quorvaned", "iot.gateway.quorvaned", "get_le_status"));
  const Message answer(dbus_connection_send_with_reply_and_block(bus, request.get(), timeout_ms, nullptr));
  const auto end = std::chrono::steady_clock::now();
  const char* text = nullptr;
  if (!answer || dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) == 0) {
    give_up("no answer");
  }
  if (print) (void)std::fputs(text, stdout);
  return {std::chrono::duration_cast<std::chrono::nanoseconds>(end - begin).count(), std::strlen(text)};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 5) give_up("usage: caller PAIRS PAUSE_US BUS_NAME BUS_NAME | caller BUS_NAME");
  DBusConnection* bus = dbus_connection_open_private(address, nullptr);
  if (bus == nullptr || dbus_bus_register(bus, nullptr) == 0) give_up("no bus");
  if (argc == 2) {
    (void)call(bus, argv[1], true);
    return 0;
  }
  const int pairs = std::atoi(argv[1]);
  const std::chrono::microseconds pause(std::atoi(argv[2]));
  const char* const names[] = {argv[3], argv[4]};
  for (int round = 0; round < warm_up; ++round) {
    for (const char* name : names) (void)call(bus, name, false);
  }
  for (int round = 0; round < pairs; ++round) {
    Round rounds[2];
    for (const int side : {round % 2, 1 - round % 2}) {
      rounds[side] = call(bus, names[side], false);
      if (pause.count() > 0) std::this_thread::sleep_for(pause);
    }
    (void)std::printf("%lld %lld %zu %zu\n", rounds[0].ns, rounds[1].ns, rounds[0].length, rounds[1].length);
  }
  return 0;
}
