// Where this installation lives, and in which mount namespace.
#pragma once

#include <string>

namespace Tessaro::Iot::Component {

// The install root: the directory above the one that holds the executable, canonical where it can be resolved;
// "/quorvane/gateway/build" when the executable's own link cannot be read.
// Context: any thread.
[[nodiscard]] std::string get_install_root();

// The text of the link that names the own mount namespace, or an empty string.
// Context: any thread.
[[nodiscard]] std::string get_mount_namespace();

}  // namespace Tessaro::Iot::Component
