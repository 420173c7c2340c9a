// One connection and its shell.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <optional>
#include <string>

#include "descriptor.h"
#include "relay.h"

namespace gateway {

// The shell runs on a terminal of its own, in a session of its own. When the object goes, the terminal hangs up, which
// ends the shell and what runs in its foreground; what was detached from the terminal on purpose lives on.
class Session {
 public:
  // Takes the connection, a non-blocking socket. Nothing when no shell could be started. `path` becomes the shell's
  // PATH. To be called with one thread.
  static std::optional<Session> start(Descriptor connection, const std::string& path);

  Session(Session&&) noexcept = default;
  Session& operator=(Session&&) noexcept = default;
  ~Session() = default;

  // What to wait for: at the connection, and at the terminal.
  [[nodiscard]] pollfd connection_wish() const;
  [[nodiscard]] pollfd terminal_wish() const;

  // Moves what can be moved; to be given what poll has found. False: the session has ended, by its client or its shell.
  [[nodiscard]] bool serve(const pollfd& connection, const pollfd& terminal);

 private:
  Session(Descriptor connection, Descriptor terminal)
      : connection_(std::move(connection)), terminal_(std::move(terminal)) {}

  Descriptor connection_;
  Descriptor terminal_;  // the master's side
  Relay input_;
  Relay output_;
  bool end_told_ = false;  // that there is no more input, to the shell
};

}  // namespace gateway
