#include "install_root.h"

#include <climits>
#include <cstdlib>

#include "platform/file.h"

namespace Tessaro::Iot::Component {

std::string get_install_root() {
  const std::string executable = CFile::link_target("/proc/self/exe");
  if (executable.empty()) return "/quorvane/gateway/build";
  const std::string root = executable.substr(0, executable.rfind('/')) + "/../";
  char canonical[PATH_MAX];
  return ::realpath(root.c_str(), canonical) != nullptr ? canonical : root;
}

std::string get_mount_namespace() { return CFile::link_target("/proc/self/ns/mnt"); }

}  // namespace Tessaro::Iot::Component
