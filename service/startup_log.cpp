#include "startup_log.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "platform/text.h"

namespace Tessaro::Iot::Component {

namespace {

constexpr size_t line_buffer_size = 1024;
constexpr size_t line_limit = 1023;  // as for snprintf: at most one character less is kept

std::atomic<long> zone_offset_s{0};

// A line under construction. Nothing in here allocates or locks.
class LineBuilder {
 public:
  void add(std::string_view text) noexcept {
    const size_t count = std::min(text.size(), room());
    std::copy_n(text.begin(), count, buffer_ + length_);
    length_ += count;
  }

  void add_number(int64_t value, size_t width = 1) noexcept {
    char digits[24];
    size_t count = 0;
    uint64_t rest = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    for (; rest != 0 || count < width; rest /= 10) digits[sizeof digits - ++count] = static_cast<char>('0' + rest % 10);
    if (value < 0) add("-");
    add({digits + sizeof digits - count, count});
  }

  void add_formatted(const char* format, va_list arguments) noexcept {
    const int32_t wanted = std::vsnprintf(buffer_ + length_, room() + 1, format, arguments);
    if (wanted > 0) length_ += std::min(static_cast<size_t>(wanted), room());
  }

  // From here on it is the message, which comes from outside in part.
  void begin_message() noexcept { message_start_ = length_; }

  // Ends the line and gives it out. A line that is too long loses its newline.
  std::string_view finish() noexcept {
    Text::hide_control_characters(buffer_ + message_start_, length_ - message_start_);
    add("\n");
    return {buffer_, length_};
  }

 private:
  [[nodiscard]] size_t room() const noexcept { return line_limit - 1 - length_; }

  char buffer_[line_buffer_size] = {};
  size_t length_ = 0;
  size_t message_start_ = 0;
};

// Broken-down time without localtime_r, which takes a lock: the civil calendar from the count of days since 1970.
tm break_down(time_t seconds, long offset_s) noexcept {
  constexpr int64_t day_s = 86400;
  constexpr int64_t days_to_1970 = 719468;  // from 0000-03-01, so that the leap day ends a year
  constexpr int64_t era_days = 146097;      // 400 years
  const int64_t local = static_cast<int64_t>(seconds) + offset_s;
  const int64_t days = local / day_s + days_to_1970;
  const int64_t second = local % day_s;
  const int64_t era = days / era_days;
  const int64_t day_of_era = days % era_days;
  const int64_t year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
  const int64_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const int64_t month_index = (5 * day_of_year + 2) / 153;
  tm result{};
  result.tm_mday = static_cast<int>(day_of_year - (153 * month_index + 2) / 5 + 1);
  result.tm_mon = static_cast<int>(month_index < 10 ? month_index + 2 : month_index - 10);
  result.tm_year = static_cast<int>(year_of_era + era * 400 + (result.tm_mon <= 1 ? 1 : 0) - 1900);
  result.tm_hour = static_cast<int>(second / 3600);
  result.tm_min = static_cast<int>(second % 3600 / 60);
  result.tm_sec = static_cast<int>(second % 60);
  return result;
}

void add_prefix(LineBuilder& builder, const tm& time, long microseconds, const char* file, int32_t line) noexcept {
  builder.add_number(time.tm_year + 1900, 4);
  builder.add("-");
  builder.add_number(time.tm_mon + 1, 2);
  builder.add("-");
  builder.add_number(time.tm_mday, 2);
  builder.add(" ");
  builder.add_number(time.tm_hour, 2);
  builder.add(":");
  builder.add_number(time.tm_min, 2);
  builder.add(":");
  builder.add_number(time.tm_sec, 2);
  builder.add(".");
  builder.add_number(microseconds, 6);
  builder.add(" [pid=");
  builder.add_number(::getpid());
  builder.add("] [");
  builder.add(Text::base_name(file));
  builder.add("|");
  builder.add_number(line);
  builder.add("] ");
  builder.begin_message();
}

tm local_time(time_t seconds) noexcept {
  tm result{};
  (void)::localtime_r(&seconds, &result);  // fails only beyond the year's range
  zone_offset_s.store(result.tm_gmtoff, std::memory_order_relaxed);
  return result;
}

}  // namespace

void write_startup_log(const char* file, int32_t line, const char* format, ...) noexcept {
  timeval now{};
  (void)::gettimeofday(&now, nullptr);  // cannot fail with these arguments
  LineBuilder builder;
  add_prefix(builder, local_time(now.tv_sec), now.tv_usec, file, line);
  va_list arguments;
  va_start(arguments, format);
  builder.add_formatted(format, arguments);
  va_end(arguments);
  append_startup_log(builder.finish());
}

void write_startup_log_in_handler(const char* file, int32_t line, std::string_view message) noexcept {
  timeval now{};
  (void)::gettimeofday(&now, nullptr);  // cannot fail with these arguments
  LineBuilder builder;
  const long offset_s = zone_offset_s.load(std::memory_order_relaxed);
  add_prefix(builder, break_down(now.tv_sec, offset_s), now.tv_usec, file, line);
  builder.add(message);
  append_startup_log(builder.finish());
}

void learn_time_zone() noexcept { (void)local_time(::time(nullptr)); }

}  // namespace Tessaro::Iot::Component
