// The end of the process.
#pragma once

#include <cstdint>

namespace Tessaro::Iot::Component {

// Ends the process with `status`, once: the first caller owns the end, a later one waits for it for ever. Buffers are
// flushed; destructors do not run, since other threads are still alive and would use what they destroy.
// Context: any thread; a signal handler only where it interrupted a wait of the main thread.
[[noreturn]] void end_process(int32_t status) noexcept;

// Waits for the end of the process, which another thread owns.
// Context: any thread.
[[noreturn]] void wait_for_the_end() noexcept;

}  // namespace Tessaro::Iot::Component
