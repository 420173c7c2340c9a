// The place where the terminal is reached, and who may.
#pragma once

#include <string>

#include "descriptor.h"

namespace gateway {

struct Lock {
  Descriptor file;     // valid: this process has the lock, until the descriptor goes or the process ends
  bool taken = false;  // another process has it
};

// Takes the lock on the file, making it and its directory. Children do not inherit it.
[[nodiscard]] Lock take_lock(const std::string& path);

// Listens at the path, in the place of whatever socket was there; for the own user only. To be called by the owner of
// the lock. Not valid when it cannot be done. Non-blocking.
[[nodiscard]] Descriptor listen_at(const std::string& path);

// Takes the next connection, which is not valid when there is none, or when it comes from another user than the own one
// and root. Non-blocking.
[[nodiscard]] Descriptor accept_friend(const Descriptor& listener);

}  // namespace gateway
