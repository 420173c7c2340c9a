// A configuration service made of arguments: what the daemon asks it, and what it is told.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "probe_bus.h"

namespace probe {

struct ConfigOptions {
  std::map<std::string, std::string> values;
  std::optional<int> code;
  bool silent = false;

  /// Takes a "KEY=VALUE".
  void add(std::string_view setting);

  [[nodiscard]] bool wanted() const { return !values.empty() || code || silent; }
};

/// The handler that answers get_config, set_config, reset_config and flush_config and records each of them.
Bus::Handler config_service(ConfigOptions options);

}  // namespace probe
