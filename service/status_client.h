// The status command.
#pragma once

#include <cstdint>

namespace Tessaro::Iot::Quorvaned {

constexpr int32_t status_running = 0;
constexpr int32_t status_not_running = 100;
constexpr int32_t status_starting_up = 101;

// Asks the running daemon for its status over the bus and prints it on standard output.
// Returns one of the results above, which becomes the exit status.
// Context: main thread of a command.
[[nodiscard]] int32_t status_command();

}  // namespace Tessaro::Iot::Quorvaned
