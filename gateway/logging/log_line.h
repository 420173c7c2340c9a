// How a line of the log looks. Pure functions.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace gateway {

inline constexpr std::size_t longest_text = 4096;
inline constexpr std::size_t longest_word = 64;

// The text with every control character, line separator and byte that is not UTF-8 written out ("\n", "\x1b",
// "\u2028"), so that it stays within its line whatever reads it. At most `limit` bytes; what is cut off in the end is
// marked "[...]", which comes on top.
[[nodiscard]] std::string printable(std::string_view text, std::size_t limit);

// One line with its end: local time with milliseconds, level word (0 and below trace, 1 info, above failure), the
// module where `module` is not null, tag, text.
[[nodiscard]] std::string format_line(std::chrono::system_clock::time_point time, const std::string* module,
                                      std::int32_t level, std::string_view tag, std::string_view text);

}  // namespace gateway
