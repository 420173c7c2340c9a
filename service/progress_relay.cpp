#include "progress_relay.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace Tessaro::Iot::Quorvaned {

namespace {

constexpr std::string_view prefix = "quorvaned: ";
constexpr std::string_view completed = "quorvaned: start up completed\n";

void write_all(int32_t fd, std::string_view text) noexcept {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // nobody reads any more; the daemon goes on without
    text.remove_prefix(static_cast<size_t>(written));
  }
}

void relay_chunk(std::string_view chunk, bool& at_line_start, int32_t output_fd) noexcept {
  while (!chunk.empty()) {
    if (at_line_start) write_all(output_fd, prefix);
    const size_t newline = chunk.find('\n');
    at_line_start = newline != std::string_view::npos;
    const size_t length = at_line_start ? newline + 1 : chunk.size();
    write_all(output_fd, chunk.substr(0, length));
    chunk.remove_prefix(length);
  }
}

}  // namespace

void relay_progress(int32_t pipe_fd, int32_t output_fd, int32_t silence_ms) noexcept {
  bool at_line_start = true;
  for (;;) {
    pollfd event{pipe_fd, POLLIN, 0};
    // Silence ends the relay just as the daemon's end of the pipe does, and is reported as completed all the same:
    // meant so, the terminal is not to be held by a slow start.
    if (::poll(&event, 1, silence_ms) < 1) break;
    char buffer[4096];
    const ssize_t count = ::read(pipe_fd, buffer, sizeof buffer);
    if (count < 1) break;
    relay_chunk({buffer, static_cast<size_t>(count)}, at_line_start, output_fd);
  }
  write_all(output_fd, completed);
}

}  // namespace Tessaro::Iot::Quorvaned
