// Writes lines to the start-up log as fast as it takes them, and looks at its size after each.
//
// usage: log_writers LINES SEED
//
// The message of a line is "line NUMBER LENGTH" and that many "x". Prints by how many bytes the log was at most beyond
// its limit.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "startup_log.h"

using namespace Tessaro::Iot::Component;

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  constexpr int64_t limit = 262144;
  constexpr size_t longest = 900;  // a line is cut at 1022 bytes
  const int64_t lines = std::strtol(argv[1], nullptr, 10);
  std::minstd_rand dice(static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10)));
  const std::string filling(longest, 'x');
  int64_t largest = 0;
  for (int64_t number = 0; number < lines; ++number) {
    // Short ones, as the daemon's are, and long ones, which go further beyond the limit.
    const auto length = static_cast<int>(dice() % (dice() % 2 == 0 ? longest : 60));
    STARTUP_LOG("line %ld %d %.*s", static_cast<long>(number), length, length, filling.c_str());
    largest = std::max(largest, startup_log_size());
  }
  (void)std::printf("%ld\n", static_cast<long>(std::max<int64_t>(0, largest - limit)));
  return 0;
}
