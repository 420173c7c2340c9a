// The modes of the executable: the daemon, and its own command-line tool.
#pragma once

#include <cstdint>

namespace Tessaro::Iot::Quorvaned {

// The whole program. `argv` is as main's; the device secret in it is overwritten. Returns the exit status; a daemon
// that came up never returns.
// Context: main thread, once.
[[nodiscard]] int32_t quorvaned_main(int32_t argc, char** argv);

}  // namespace Tessaro::Iot::Quorvaned
