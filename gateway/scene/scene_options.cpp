#include "scene_options.h"

#include <charconv>
#include <string_view>
#include <system_error>

namespace gateway {
namespace {

// The number, or 0 for what is none or a negative one.
std::int32_t number_of(std::string_view text) {
  std::int32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && number > 0 ? number : 0;
}

}  // namespace

SceneOptions read_scene_options(int argc, const char* const* argv) {
  constexpr std::string_view scenes = "--scenes=";
  constexpr std::string_view level = "-level=";
  constexpr std::string_view script = "-script=";
  SceneOptions options;
  for (int at = 1; at < argc; ++at) {
    const std::string_view word = argv[at];
    if (word.starts_with(scenes)) {
      options.scenes = word.substr(scenes.size());
    } else if (word.starts_with(level)) {
      options.level = number_of(word.substr(level.size())) == 1 ? 1 : 0;
    } else if (word.starts_with(script)) {
      options.script = number_of(word.substr(script.size()));
    } else if (word == "-stop") {
      options.stop = true;
    }
  }
  return options;
}

}  // namespace gateway
