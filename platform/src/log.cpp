#include "platform/log.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "log_file.h"
#include "log_worker.h"
#include "platform/text.h"

namespace Tessaro::Iot::Component {

namespace {

constexpr size_t longest_message = 4096;

struct Log {
  LogFile file{"/quorvane/run/logger", "quorvaned.log"};
  LogWorker worker{[this] { file.flush(); }};
  std::mutex binding;
  std::atomic<int32_t> lowest_level{log_level_trace};
  std::atomic<int32_t> flush_level{log_level_trace};
};

// Never destroyed: other threads may log while the process ends.
Log& log() {
  static Log* const instance = new Log();
  return *instance;
}

const char* level_word(int32_t level) noexcept {
  if (level <= log_level_trace) return "trace";
  return level == log_level_info ? "info" : "failure";
}

const char* or_empty(const char* text) noexcept { return text != nullptr ? text : ""; }

void print(int32_t level, const char* tag, const char* file, const char* function, int32_t line, char* message) {
  Text::hide_control_characters(message, std::strlen(message));
  const std::string_view base = Text::base_name(file);
  std::string text = level_word(level);
  text.append(" ").append(tag).append(" [").append(base).append("|").append(std::to_string(line)).append("] ");
  text.append(function).append(": ").append(message);
  log().file.write(text, level >= log().flush_level);
  log().worker.take(level, tag, message);
}

}  // namespace

void log_init(const char* module, int32_t to_service, int32_t lowest_level, int32_t flush_level) {
  try {
    const std::lock_guard lock(log().binding);
    const bool helped = log().worker.bind(or_empty(module), to_service == 1);
    log().lowest_level = lowest_level;
    // With nobody to flush the other lines soon, all of them are flushed at once.
    log().flush_level = helped ? flush_level : log_level_trace;
  } catch (...) {
    // No memory: the library stays bound as it was.
  }
}

void log_print(int32_t level, const char* /*color*/, const char* tag, const char* file, const char* function,
               int32_t line, const char* format, ...) {
  va_list values;
  va_start(values, format);
  std::array<char, longest_message> message;
  const int length = std::vsnprintf(message.data(), message.size(), or_empty(format), values);
  va_end(values);
  if (length < 0) return;
  try {
    if (level < log().lowest_level) return;
    print(level, or_empty(tag), or_empty(file), or_empty(function), line, message.data());
  } catch (...) {
    // The log is no reason for the caller to fail.
  }
}

void log_flush() noexcept {
  try {
    log().file.flush();
  } catch (...) {
    // There was no memory for a log in the first place.
  }
}

}  // namespace Tessaro::Iot::Component
