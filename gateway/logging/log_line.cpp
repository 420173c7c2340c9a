#include "log_line.h"

#include <array>
#include <cstdio>

#include "local_time.h"

namespace gateway {
namespace {

constexpr const char* cut_mark = "[...]";

// The length of the UTF-8 character that the text begins with; 0 when it begins with none.
std::size_t character_length(std::string_view text) {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned first = byte(0);
  std::size_t length = 0;
  if (first < 0x80) {
    length = 1;
  } else if (first >= 0xc2 && first < 0xe0) {
    length = 2;
  } else if (first >= 0xe0 && first < 0xf0) {
    length = 3;
  } else if (first >= 0xf0 && first < 0xf5) {
    length = 4;
  }
  if (length > text.size()) return 0;
  for (std::size_t at = 1; at < length; ++at) {
    if ((byte(at) & 0xc0U) != 0x80) return 0;
  }
  return length;
}

std::string byte_escape(unsigned char byte) {
  switch (byte) {
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      break;
  }
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), "\\x%02x", byte);
  return text.data();
}

// The character as it is written: itself, unless a terminal or a reader of lines would act on it.
std::string shown(std::string_view character) {
  const auto last = static_cast<unsigned char>(character.back());
  if (character.size() == 1) return last < 0x20 || last == 0x7f ? byte_escape(last) : std::string(character);
  std::array<char, 8> text{};
  if (character.size() == 2 && character[0] == '\xc2' && last < 0xa0) {
    std::snprintf(text.data(), text.size(), "\\u00%02x", last);
    return text.data();
  }
  if (character == "\u2028") return "\\u2028";
  if (character == "\u2029") return "\\u2029";
  return std::string(character);
}

const char* level_word(std::int32_t level) {
  if (level <= 0) return "trace";
  return level == 1 ? "info" : "failure";
}

}  // namespace

std::string printable(std::string_view text, std::size_t limit) {
  std::string result;
  while (!text.empty()) {
    const std::size_t length = character_length(text);
    const std::string next =
        length == 0 ? byte_escape(static_cast<unsigned char>(text[0])) : shown(text.substr(0, length));
    if (result.size() + next.size() > limit) return result + cut_mark;
    result += next;
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return result;
}

std::string format_line(std::chrono::system_clock::time_point time, const std::string* module, std::int32_t level,
                        std::string_view tag, std::string_view text) {
  std::string line = local_time_ms(time) + " " + level_word(level) + " ";
  if (module != nullptr) line += printable(*module, longest_word) + " ";
  return line + "[" + printable(tag, longest_word) + "] " + printable(text, longest_text) + "\n";
}

}  // namespace gateway
