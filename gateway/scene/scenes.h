// The scenes: named lists of what is to be set to which value.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace gateway {

struct SceneAction {
  std::string target;
  std::string value;
};

using Scenes = std::map<std::string, std::vector<SceneAction>>;

// Reads the JSON text: an array of {"name": ..., "actions": [{"target": ..., "value": ...}, ...]}. Names, targets and
// values are printable UTF-8; names and targets are not empty, targets hold no '=', names are unique.
// False, and why in `problem`, when it is anything else; `scenes` is then empty.
[[nodiscard]] bool parse_scenes(const std::string& text, Scenes& scenes, std::string& problem);

// What the scenes have done so far.
struct SceneState {
  std::string last;  // the scene that was run last, or empty
  std::map<std::string, std::string> values;

  // Does what the scene says.
  void run(const std::string& name, const std::vector<SceneAction>& actions);
};

// The state as text, one fact a line, with the level and, where there is one, the problem with the scenes.
[[nodiscard]] std::string format_state(const SceneState& state, int level, const std::string& problem);

// Reads that text back. Lines that it does not know are passed over, so an empty text gives an empty state.
[[nodiscard]] SceneState parse_state(const std::string& text);

}  // namespace gateway
