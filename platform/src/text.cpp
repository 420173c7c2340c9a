#include "platform/text.h"

#include <charconv>
#include <cstdint>
#include <cstring>

namespace Tessaro::Iot::Component::Text {

namespace {

// The lowest and the highest second byte that may follow a lead byte: narrower than 80..BF where a wider one would let
// overlong forms, surrogates or values above 10FFFF through.
struct SecondByte {
  uint8_t low;
  uint8_t high;
};

constexpr SecondByte second_byte_of(uint8_t lead) noexcept {
  switch (lead) {
    case 0xE0:
      return {0xA0, 0xBF};
    case 0xED:
      return {0x80, 0x9F};
    case 0xF0:
      return {0x90, 0xBF};
    case 0xF4:
      return {0x80, 0x8F};
    default:
      return {0x80, 0xBF};
  }
}

constexpr size_t length_of(uint8_t lead) noexcept {
  if (lead >= 0x01 && lead <= 0x7F) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return 2;
  if (lead >= 0xE0 && lead <= 0xEF) return 3;
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  return 0;
}

// The length of the character that `text` begins with; 0 when the bus would refuse it.
size_t character_length(std::string_view text) noexcept {
  const auto byte = [text](size_t index) { return static_cast<uint8_t>(text[index]); };
  const size_t length = length_of(byte(0));
  if (length < 2) return length;
  if (length > text.size()) return 0;
  const SecondByte second = second_byte_of(byte(0));
  if (byte(1) < second.low || byte(1) > second.high) return 0;
  for (size_t index = 2; index < length; ++index) {
    if ((byte(index) & 0xC0U) != 0x80U) return 0;
  }
  return length;
}

constexpr bool is_control(char character) noexcept {
  const auto byte = static_cast<uint8_t>(character);
  return byte < 0x20 || byte == 0x7F;
}

// How many bytes at the beginning of `text` are ASCII without NUL, counted in steps of a word: reports and bodies of
// messages are nearly nothing else.
size_t plain_length(std::string_view text) noexcept {
  constexpr uint64_t ones = 0x0101010101010101;
  constexpr uint64_t high_bits = 0x8080808080808080;
  size_t length = 0;
  for (; length + sizeof(uint64_t) <= text.size(); length += sizeof(uint64_t)) {
    uint64_t word = 0;
    std::memcpy(&word, text.data() + length, sizeof word);
    // The subtraction borrows into the high bit of a byte that is 0.
    if (((word | (word - ones)) & high_bits) != 0) break;
  }
  return length;
}

}  // namespace

bool is_bus_text(const std::string& text) {
  std::string_view rest = text;
  while (!rest.empty()) {
    rest.remove_prefix(plain_length(rest));
    if (rest.empty()) return true;
    const size_t length = character_length(rest);
    if (length == 0) return false;
    rest.remove_prefix(length);
  }
  return true;
}

std::string to_bus_text(const std::string& text) {
  if (is_bus_text(text)) return text;
  std::string result;
  result.reserve(text.size());
  std::string_view rest = text;
  while (!rest.empty()) {
    const size_t length = character_length(rest);
    result += length == 0 ? std::string_view("?") : rest.substr(0, length);
    rest.remove_prefix(length == 0 ? 1 : length);
  }
  return result;
}

void hide_control_characters(char* text, size_t length) noexcept {
  for (size_t index = 0; index < length; ++index) {
    if (is_control(text[index])) {
      text[index] = '?';
      continue;
    }
    // U+0080 to U+009F: terminals obey these as well. A lone byte of that range is part of some other character.
    const bool pair = static_cast<uint8_t>(text[index]) == 0xC2 && index + 1 < length;
    if (pair && static_cast<uint8_t>(text[index + 1]) >= 0x80 && static_cast<uint8_t>(text[index + 1]) <= 0x9F) {
      text[index] = '?';
      text[++index] = '?';
    }
  }
}

int32_t leading_number(std::string_view text) noexcept {
  int32_t number = 0;
  (void)std::from_chars(text.data(), text.data() + text.size(), number);  // it stays 0 when there is none
  return number;
}

}  // namespace Tessaro::Iot::Component::Text
