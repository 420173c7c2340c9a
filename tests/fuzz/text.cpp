// The helpers for text from outside, held against libdbus and the C library.
#include "platform/text.h"

#include <dbus/dbus.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "fuzz.h"

using namespace Tessaro::Iot;
using namespace Tessaro::Iot::Component;

namespace {

bool bus_accepts(const std::string& text) {
  return text.find('\0') == std::string::npos && dbus_validate_utf8(text.c_str(), nullptr) != FALSE;
}

// As leading_number is to read it: no blanks, no "+", 0 for what does not fit.
int32_t number_by_the_library(const std::string& text) {
  const size_t digits = text.size() > 1 && text[0] == '-' ? 1 : 0;
  if (text.empty() || std::strchr("0123456789", text[digits]) == nullptr || text[digits] == '\0') return 0;
  errno = 0;
  const long number = std::strtol(text.c_str(), nullptr, 10);
  return errno != 0 || number > INT_MAX || number < INT_MIN ? 0 : static_cast<int32_t>(number);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(Fuzz::as_text(data, size));
  const bool accepted = bus_accepts(text);
  Fuzz::require(Text::is_bus_text(text) == accepted, "what the bus accepts is known");
  const std::string sent = Text::to_bus_text(text);
  Fuzz::require(bus_accepts(sent) && sent.size() == text.size(), "every byte that the bus would refuse is replaced");
  Fuzz::require(!accepted || sent == text, "text that the bus accepts stays as it is");

  std::string hidden = text;
  Text::hide_control_characters(hidden.data(), hidden.size());
  Fuzz::require(Fuzz::is_plain(hidden), "no control character is left");
  Fuzz::require(!Fuzz::is_plain(text) || hidden == text, "text without control characters stays as it is");

  Fuzz::require(Text::leading_number(text) == number_by_the_library(text), "the number is the one that it begins with");
  const std::string_view base = Text::base_name(text);
  Fuzz::require(base.find('/') == std::string_view::npos && text.ends_with(base), "a base name has no slash");
  return 0;
}
