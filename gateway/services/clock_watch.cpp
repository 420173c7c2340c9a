// clock-watch: notices when the wall clock is stepped, and how far.
//
// A plain service: no bus name, no keep-alive. It is supervised by its process alone. Its findings are in
// /quorvane/run/clock-watch/state.
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "service.h"

namespace {

// The wall clock's lead over the clock that is never stepped.
std::chrono::milliseconds lead() {
  using std::chrono::milliseconds;
  const auto wall = std::chrono::system_clock::now().time_since_epoch();
  const auto steady = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<milliseconds>(wall) - std::chrono::duration_cast<milliseconds>(steady);
}

}  // namespace

int main() {
  using namespace std::chrono_literals;
  gateway::StopSignal stop;
  auto before = lead();
  std::uint64_t steps = 0;
  auto last = 0ms;
  do {
    const auto now = lead();
    if (std::chrono::abs(now - before) > 500ms) {
      ++steps;
      last = now - before;
    }
    before = now;
    gateway::write_state("clock-watch",
                         "steps " + std::to_string(steps) + "\nlast_ms " + std::to_string(last.count()) + "\n");
  } while (!stop.wait(2s));
  return EXIT_SUCCESS;
}
