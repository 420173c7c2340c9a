// The logging library: a rotated file, and the logging service once log_init has bound it.
#pragma once

#include <cstdint>

namespace Tessaro::Iot::Component {

constexpr int32_t log_level_trace = 0;
constexpr int32_t log_level_info = 1;
constexpr int32_t log_level_failure = 2;

// Binds the library to the logging service, or binds it anew after that service has come back.
// `module` is the name under which lines are sent; `to_service` 1 sends each line to the service as well;
// `lowest_level` is the lowest level kept; each line of `flush_level` or above is flushed to the file at once, the
// others soon after by another thread. Before the first call every line is kept and flushed at once, and goes to the
// file only.
// Context: any thread. Never waits for the bus, never fails.
void log_init(const char* module, int32_t to_service, int32_t lowest_level, int32_t flush_level);

// Appends one line to the log file: local time with milliseconds, level word, tag, source base name and line, function,
// message. `color` is accepted for the call's fixed shape and not written. Control characters of the message are
// replaced. A line that cannot be written or sent is dropped, one of more than 4 KiB is cut.
// Context: any thread; no signal handler. Never waits for the bus, never fails.
void log_print(int32_t level, const char* color, const char* tag, const char* file, const char* function, int32_t line,
               const char* format, ...) __attribute__((format(printf, 7, 8)));

// Flushes what is still buffered to the file; for the end of a process that ends through _exit.
// Context: any thread; a signal handler only where it cannot have interrupted log_print or log_init.
void log_flush() noexcept;

}  // namespace Tessaro::Iot::Component
