// The seam for processes: the only place that forks, signals and reaps. A test links its own definitions and plays the
// kernel.
#pragma once

#include <cstdint>

namespace Tessaro::Iot::Component {
struct CSpawnPlan;
}

namespace Tessaro::Iot::Component::sys {

// Forks and lets the child carry out `plan`. Returns when the child runs its program or has ended: what the kernel
// takes to open the program, the caller waits for.
// Returns the child's pid (1 or more), or -1 when the fork failed.
// Context: main thread (the parent-death signal belongs to the thread that forks).
[[nodiscard]] int32_t fork_child(const CSpawnPlan& plan);

// kill(2). Returns 0, or -1 when the signal could not be sent.
// Context: any, including signal handlers.
int32_t send_signal(int32_t pid, int32_t signal_number) noexcept;

// Looks for a child that has ended, without reaping it: its pid stays taken until `reap_child`.
// Returns true and fills `pid` and `raw_status` (the status word of wait(2)) when there is one.
// Context: main thread.
[[nodiscard]] bool peek_ended_child(int32_t& pid, int32_t& raw_status) noexcept;

// The same for the one child `pid`.
[[nodiscard]] bool peek_ended_child(int32_t pid) noexcept;

// Reaps the ended child `pid`; from here on the kernel may give its number to a stranger.
// Context: main thread.
void reap_child(int32_t pid) noexcept;

// Opens a handle (pidfd) on a process that need not be a child. Returns the descriptor, or -1.
// Ownership: the caller closes it.
// Context: any thread.
[[nodiscard]] int32_t open_process(int32_t pid) noexcept;

// Sends a signal through a handle: it reaches the process that the handle was opened on, or nobody.
// Returns 0 or -1. Context: any, including signal handlers.
int32_t signal_open_process(int32_t process_fd, int32_t signal_number) noexcept;

}  // namespace Tessaro::Iot::Component::sys
