// hold-name: holds a bus name, and feeds the keep-alives, for a service that is written in shell.
//
// The service starts it with a pipe as standard input and writes a line "ITEM SECONDS" for each keep-alive. Nothing is
// fed by itself: a service that is stuck writes no lines, and its keep-alive runs out as it should.
//
// It ends when the service has gone, when it is told to stop, and when the bus goes away. The service has gone when
// standard input ends or when the parent dies: a subshell of a killed service may hold the pipe open for a while.
//
// usage: hold-name BUS_NAME
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <system_error>

#include "service.h"

namespace {

// The item is all that comes before the last space. What is no such line is ignored.
void feed(gateway::BusService& service, std::string_view line) {
  const auto space = line.rfind(' ');
  if (space == std::string_view::npos) return;
  const std::string item(line.substr(0, space));
  const std::string_view number = line.substr(space + 1);
  std::int32_t seconds = 0;
  const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), seconds);
  if (error != std::errc() || end != number.data() + number.size()) return;
  // libdbus ends the process that sends a text that is not UTF-8.
  if (dbus_validate_utf8(item.c_str(), nullptr)) service.feed_dog(item, std::chrono::seconds(seconds));
}

// Feeds for each whole line, and leaves the rest. False when standard input has ended.
bool take_lines(gateway::BusService& service, std::string& pending) {
  char buffer[1024];
  const auto count = ::read(STDIN_FILENO, buffer, sizeof buffer);
  if (count < 0) return errno == EINTR || errno == EAGAIN;
  pending.append(buffer, static_cast<std::size_t>(count));
  std::size_t begin = 0;
  for (auto end = pending.find('\n'); end != std::string::npos; end = pending.find('\n', begin)) {
    feed(service, std::string_view(pending).substr(begin, end - begin));
    begin = end + 1;
  }
  pending.erase(0, begin);
  return count > 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || !dbus_validate_bus_name(argv[1], nullptr)) return EXIT_FAILURE;
  gateway::StopSignal stop;
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  // The object is the root, which any name can have: a bus name may have characters that an object path may not.
  gateway::BusService service(argv[1], "/", "", stop);
  if (!service.connect()) return EXIT_FAILURE;
  std::string pending;
  while (service.serve_until_readable(STDIN_FILENO)) {
    if (!take_lines(service, pending)) return EXIT_SUCCESS;
  }
  return stop.stopped() ? EXIT_SUCCESS : EXIT_FAILURE;
}
