// The start-up log: the daemon's record of its own sequence and of every process that it starts and stops.
#pragma once

#include <cstdint>
#include <string_view>

namespace Tessaro::Iot::Component {

// Appends one finished line to the start-up log, which restarts empty once it has grown past 262144 bytes. The file is
// created with mode 0640 at most; a missing directory or any failure drops the line.
// One line is one write, so lines of several threads and processes never mix. Writers take turns, so that the file is
// never more than one line beyond its limit; somebody who keeps it locked delays a line by a part of a second.
// Context: any, including signal handlers and forked children.
void append_startup_log(std::string_view line) noexcept;

// Size of the start-up log in bytes, or -1 when it cannot be opened for reading.
// Context: any, including signal handlers.
[[nodiscard]] int64_t startup_log_size() noexcept;

// Writes one start-up log line: time, pid, `file` (a base name), `line`, then the formatted message. The whole line
// keeps at most 1022 characters; control characters of the message are replaced.
// Context: any thread; a signal handler only where it interrupted a wait of the main thread.
void write_startup_log(const char* file, int32_t line, const char* format, ...) noexcept
    __attribute__((format(printf, 3, 4)));

// The same with a plain message and without any function that may lock or allocate: the local time comes from the zone
// that the last ordinary line saw.
// Context: signal handlers, wherever they interrupted.
void write_startup_log_in_handler(const char* file, int32_t line, std::string_view message) noexcept;

// Learns the zone for write_startup_log_in_handler. Every ordinary line does it too.
// Context: main thread, before the handlers are installed.
void learn_time_zone() noexcept;

}  // namespace Tessaro::Iot::Component

// A macro, because the line that is logged is the line of the call.
#define STARTUP_LOG(...) ::Tessaro::Iot::Component::write_startup_log(__FILE_NAME__, __LINE__, __VA_ARGS__)
