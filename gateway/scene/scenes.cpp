#include "scenes.h"

#include <dbus/dbus.h>
#include <json/json.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string_view>

namespace gateway {
namespace {

constexpr std::string_view last_key = "scene ";
constexpr std::string_view value_key = "set ";

bool is_printable(const std::string& text) {
  const auto is_control = [](char byte) { return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f; };
  // Whole, so that no text goes to the bus which libdbus would end the process for.
  return std::none_of(text.begin(), text.end(), is_control) && dbus_validate_utf8(text.c_str(), nullptr) != FALSE;
}

bool read_text(const Json::Value& object, const char* key, std::string& text) {
  if (!object.isObject() || !object[key].isString()) return false;
  text = object[key].asString();
  return is_printable(text);
}

bool read_actions(const Json::Value& list, std::vector<SceneAction>& actions) {
  if (!list.isArray()) return false;
  for (const Json::Value& element : list) {
    SceneAction action;
    if (!read_text(element, "target", action.target) || !read_text(element, "value", action.value)) return false;
    if (action.target.empty() || action.target.find('=') != std::string::npos) return false;
    actions.push_back(std::move(action));
  }
  return true;
}

// Adds the scene. False, and why, when it is none.
bool read_scene(const Json::Value& element, Scenes& scenes, std::string& problem) {
  std::string name;
  if (!read_text(element, "name", name) || name.empty()) {
    problem = "a scene has no name";
    return false;
  }
  std::vector<SceneAction> actions;
  if (!read_actions(element["actions"], actions)) {
    problem = "the actions of " + name + " are wrong";
    return false;
  }
  if (!scenes.try_emplace(name, std::move(actions)).second) {
    problem = "there are two of " + name;
    return false;
  }
  return true;
}

}  // namespace

bool parse_scenes(const std::string& text, Scenes& scenes, std::string& problem) {
  scenes.clear();
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value list;
  try {
    // It throws where values are nested too deep.
    if (!reader->parse(text.data(), text.data() + text.size(), &list, nullptr) || !list.isArray()) {
      problem = "there is no JSON array";
      return false;
    }
  } catch (const Json::Exception&) {
    problem = "there is no JSON array";
    return false;
  }
  const bool good = std::all_of(list.begin(), list.end(),
                                [&](const Json::Value& element) { return read_scene(element, scenes, problem); });
  if (!good) scenes.clear();
  return good;
}

void SceneState::run(const std::string& name, const std::vector<SceneAction>& actions) {
  for (const SceneAction& action : actions) values[action.target] = action.value;
  last = name;
}

std::string format_state(const SceneState& state, int level, const std::string& problem) {
  std::string text = "level " + std::to_string(level) + "\n";
  if (!problem.empty()) text.append("problem ").append(problem).append("\n");
  if (!state.last.empty()) text.append(last_key).append(state.last).append("\n");
  for (const auto& [target, value] : state.values) {
    text.append(value_key).append(target).append("=").append(value).append("\n");
  }
  return text;
}

SceneState parse_state(const std::string& text) {
  SceneState state;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!is_printable(line)) continue;
    const auto equals = line.find('=');
    if (line.starts_with(last_key)) {
      state.last = line.substr(last_key.size());
    } else if (line.starts_with(value_key) && equals != std::string::npos && equals > value_key.size()) {
      state.values[line.substr(value_key.size(), equals - value_key.size())] = line.substr(equals + 1);
    }
  }
  return state;
}

}  // namespace gateway
