// The arguments of the scene program.
#pragma once

#include <cstdint>
#include <string>

namespace gateway {

struct SceneOptions {
  std::string scenes = "../config/scenes.json";  // the working directory is the installation's bin
  std::int32_t level = 0;                        // 1: high availability is on, a partner gets a copy of the state
  std::int32_t script = 0;                       // the process of the script that has started this one, or 0
  bool stop = false;                             // do nothing but stop what scripts have started
};

// Of `argc` and `argv` as main gets them. What it does not know is ignored; the last of several counts.
[[nodiscard]] SceneOptions read_scene_options(int argc, const char* const* argv);

}  // namespace gateway
