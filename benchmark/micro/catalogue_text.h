// A catalogue of any size.
#pragma once

#include <string>

namespace Micro {

// The text of a catalogue of so many supervised services, each with a bus name of its own and an argument.
[[nodiscard]] inline std::string catalogue_text(int services) {
  std::string text = "[";
  for (int number = 0; number < services; ++number) {
    const std::string digits = std::to_string(number);
    if (number > 0) text += ",\n";
    text += R"({"exec": "service-)" + digits +
            R"(", "args": ["--verbose"], "monitor": 1, "dbus_name": "iot.gateway.s)" + digits + R"("})";
  }
  return text + "]\n";
}

}  // namespace Micro
