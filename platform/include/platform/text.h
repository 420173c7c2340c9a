// Text that comes from outside.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Tessaro::Iot::Component::Text {

// The part of `path` after its last "/", or all of it.
// Context: any, including signal handlers.
[[nodiscard]] constexpr std::string_view base_name(std::string_view path) noexcept {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// True for text that the bus accepts: valid UTF-8 without NUL.
// Context: any thread.
[[nodiscard]] bool is_bus_text(const std::string& text);

// `text` with every byte that the bus would refuse replaced by "?".
// Context: any thread.
[[nodiscard]] std::string to_bus_text(const std::string& text);

// The decimal number that `text` begins with, 0 when it begins with none or with one that does not fit.
// Context: any, including signal handlers.
[[nodiscard]] int32_t leading_number(std::string_view text) noexcept;

// Replaces the control characters of the first `length` bytes at `text` by "?", so that a value cannot forge a line of
// its own in a log.
// Context: any, including signal handlers.
void hide_control_characters(char* text, size_t length) noexcept;

}  // namespace Tessaro::Iot::Component::Text
