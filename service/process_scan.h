// The scan of /proc for the running programs of this installation.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/unique_fd.h"

namespace Tessaro::Iot::Component {

// Appends the pid of every process whose executable lies below the install root, has the base name of `name` and shares
// the own mount namespace. A program that was replaced on disk while it runs is still found; a script is not (its
// executable is the interpreter). The caller's own process is found like any other.
// Returns true when /proc could be read, also without a match.
// Context: any thread.
[[nodiscard]] bool find_processes_by_name(const std::string& name, std::vector<int32_t>& pids);

// Opens a handle on the process `pid` if it runs the program `name` as above. What was found by its name may have ended
// since, and its number may mean a stranger: a signal through the handle reaches the program that was looked for, or
// nobody.
// Returns the handle, invalid when the process is not, or no longer, that program.
// Context: any thread.
[[nodiscard]] UniqueFd open_program(int32_t pid, const std::string& name);

}  // namespace Tessaro::Iot::Component
