// Feeds keep-alives of one service as fast as the bus takes them, until SIGTERM.
//
// usage: keep_alive_flood NAME
//
// Fifty items of the bus name NAME, with deadlines of ten minutes. Prints how many were sent.
#include <csignal>
#include <cstdio>

#include "bus_socket.h"

namespace {

volatile std::sig_atomic_t ended = 0;

std::string feed(const char* name, int32_t item) {
  const Chaos::Message message =
      Chaos::signal("iot.gateway.watchdog", "/iot/gateway/watchdog", "iot.gateway.watchdog", "feedDog");
  const std::string text = "item" + std::to_string(item);
  const char* const item_name = text.c_str();
  const int32_t seconds = 600;
  (void)dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &item_name, DBUS_TYPE_INT32,
                                 &seconds, DBUS_TYPE_INVALID);
  return Chaos::frame(message);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  (void)std::signal(SIGTERM, [](int) { ended = 1; });
  constexpr int32_t items = 50;
  std::string all;
  for (int32_t item = 0; item < items; ++item) all += feed(argv[1], item);
  Chaos::BusSocket bus;
  bus.discard_answers();
  int64_t sent = 0;
  while (ended == 0 && bus.send(all)) sent += items;
  (void)std::printf("%ld\n", static_cast<long>(sent));
  return ended != 0 ? 0 : 1;
}
