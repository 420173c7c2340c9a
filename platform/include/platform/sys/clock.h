// The seam for time: every clock reading and every timed wait of the program ends in one of these functions. A test
// links its own definitions and so owns the time.
#pragma once

#include <semaphore.h>

#include <cstdint>

namespace Tessaro::Iot::Component::sys {

// Milliseconds since system start-up on the monotonic clock, which no change of the wall clock moves.
// Context: any, including signal handlers.
[[nodiscard]] int64_t monotonic_ms() noexcept;

// Takes one count of `semaphore`, waiting for it at most `timeout_ms` milliseconds (0 or less: does not wait).
// Returns true when a count was taken, false when the time ran out.
// Context: any thread.
[[nodiscard]] bool wait_semaphore(sem_t* semaphore, int64_t timeout_ms) noexcept;

// Lets `duration_ms` milliseconds pass on the calling thread, in full, with the thread's signal window open.
// Context: any thread; signal handlers on the main thread.
void pause_for(int64_t duration_ms) noexcept;

}  // namespace Tessaro::Iot::Component::sys
