// The pid file: the decimal pid of its owner, who holds a write lock on the whole file for life. A file whose lock can
// be taken belongs to nobody, whatever it contains.
#pragma once

#include <cstdint>
#include <string>

namespace Tessaro::Iot::Component {

// Takes a write lock on the whole file without waiting. Returns 0, or -1 when it was refused.
// Context: any thread.
[[nodiscard]] int32_t try_lock_file(int32_t fd) noexcept;

// Takes the pid file at `path`, creating it with mode 0644, and writes the own pid.
// Returns 0 when this process owns it now; the owner's pid (1 or more) when another live process holds it; -1 when it
// cannot be opened, or is held by a process that does not write its pid within about 200 ms. A file that somebody holds
// with a read lock is removed and made anew.
// Ownership: the descriptor stays open for the life of the process, over a re-execution too.
// Context: main thread.
[[nodiscard]] int32_t lock_pid_file(const std::string& path);

// The pid of the process that holds the file at `path`, or -1 when there is none, or when it does not write its pid
// within about 200 ms. It creates and writes nothing.
// Ownership: when nobody holds the file, the lock is taken and kept until the process ends.
// Context: main thread of a command.
[[nodiscard]] int32_t read_locked_pid(const std::string& path);

}  // namespace Tessaro::Iot::Component
