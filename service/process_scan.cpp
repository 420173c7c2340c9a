#include "process_scan.h"

#include <string_view>

#include "install_root.h"
#include "platform/dir.h"
#include "platform/file.h"
#include "platform/text.h"

namespace Tessaro::Iot::Component {

namespace {

bool is_number(std::string_view name) noexcept {
  return !name.empty() && name.find_first_not_of("0123456789") == std::string_view::npos;
}

// True when the process at `entry` runs the program `name` of the installation at `root`.
bool runs_program(const std::string& entry, std::string_view name, const std::string& root) {
  std::string executable = CFile::link_target(entry + "/exe");
  if (executable.empty() || executable.compare(0, root.size(), root) != 0) return false;
  // The kernel marks the link of a deleted or replaced executable with a word after a blank.
  const size_t blank = executable.rfind(' ');
  if (blank != std::string::npos) executable.resize(blank);
  return Text::base_name(executable) == name;
}

bool is_elsewhere(const std::string& entry, const std::string& mount_namespace) {
  const std::string other = CFile::link_target(entry + "/ns/mnt");
  return !other.empty() && other != mount_namespace;
}

}  // namespace

bool find_processes_by_name(const std::string& name, std::vector<int32_t>& pids) {
  const std::string_view wanted = Text::base_name(name);
  const std::string root = get_install_root();
  const std::string mount_namespace = get_mount_namespace();
  CDir processes;
  if (!processes.open("/proc/")) return false;
  std::string number;
  while (processes.getNextFile(number)) {
    if (!is_number(number)) continue;
    const std::string entry = "/proc/" + number;
    if (!CDir::isDir(entry) || !runs_program(entry, wanted, root) || is_elsewhere(entry, mount_namespace)) continue;
    std::string stat_line;
    if (!CFile::read(entry + "/stat", stat_line)) continue;
    const size_t blank = stat_line.substr(0, stat_line.find('\n')).find(' ');
    if (blank != std::string::npos) pids.push_back(Text::leading_number(stat_line));
  }
  return true;
}

}  // namespace Tessaro::Iot::Component
