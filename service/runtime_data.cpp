#include "runtime_data.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "paths.h"
#include "platform/dir.h"

namespace Tessaro::Iot::Component {

namespace {

constexpr std::array<std::string_view, 9> kept_names = {".",       "..",       "config-manager", "startup", "logger",
                                                        "console", ".sec_bak", ".security",      ".sst"};

}  // namespace

void clean_runtime_data() {
  CDir directory;
  if (!directory.open(Paths::run_root)) return;
  // Listed first: removing while reading may skip entries.
  std::vector<std::string> doomed;
  std::string name;
  while (directory.getNextFile(name)) {
    if (std::find(kept_names.begin(), kept_names.end(), name) == kept_names.end()) doomed.push_back(name);
  }
  directory.close();
  for (const std::string& entry : doomed) (void)CDir::rmdirs(std::string(Paths::run_root) + "/" + entry);
}

}  // namespace Tessaro::Iot::Component
