// The launcher's side of the progress pipe.
#pragma once

#include <cstdint>

namespace Tessaro::Iot::Quorvaned {

// Silence after which the launcher leaves, in milliseconds.
constexpr int32_t relay_silence_ms = 30000;

// Copies what arrives on `pipe_fd` to `output_fd` at once, each line behind "quorvaned: ", until the pipe is closed, an
// error occurs or `silence_ms` milliseconds pass without a byte; then writes "quorvaned: start up completed". Text that
// ends without a newline gets none: the last line follows on the same line.
// Context: launcher process.
void relay_progress(int32_t pipe_fd, int32_t output_fd, int32_t silence_ms) noexcept;

}  // namespace Tessaro::Iot::Quorvaned
