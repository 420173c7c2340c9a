#include "process_scan.h"

#include <string_view>

#include "install_root.h"
#include "platform/dir.h"
#include "platform/file.h"
#include "platform/sys/process.h"
#include "platform/text.h"

namespace Tessaro::Iot::Component {

namespace {

bool is_number(std::string_view name) noexcept {
  return !name.empty() && name.find_first_not_of("0123456789") == std::string_view::npos;
}

// What the processes of a scan are held against.
struct Wanted {
  explicit Wanted(const std::string& program) : name(Text::base_name(program)) {
    if (root.back() != '/') root += '/';  // "/opt/gateway2" is not below "/opt/gateway"
  }
  std::string name;
  std::string root = get_install_root();
  std::string mount_namespace = get_mount_namespace();
};

// True when the process whose directory is `entry` runs the wanted program of this installation.
bool is_wanted(const std::string& entry, const Wanted& wanted) {
  std::string executable = CFile::link_target(entry + "/exe");
  if (!executable.starts_with(wanted.root)) return false;
  // The kernel marks the link of a deleted or replaced executable with a word after a blank.
  const size_t blank = executable.rfind(' ');
  if (blank != std::string::npos) executable.resize(blank);
  if (Text::base_name(executable) != wanted.name) return false;
  const std::string mount_namespace = CFile::link_target(entry + "/ns/mnt");
  return mount_namespace.empty() || mount_namespace == wanted.mount_namespace;
}

}  // namespace

bool find_processes_by_name(const std::string& name, std::vector<int32_t>& pids) {
  const Wanted wanted(name);
  CDir processes;
  if (!processes.open("/proc/")) return false;
  std::string number;
  while (processes.getNextFile(number)) {
    if (!is_number(number)) continue;
    const std::string entry = "/proc/" + number;
    if (!is_wanted(entry, wanted) || !CDir::isDir(entry)) continue;  // nearly all would pass the second
    std::string stat_line;
    if (!CFile::read(entry + "/stat", stat_line)) continue;
    if (stat_line.substr(0, stat_line.find('\n')).find(' ') == std::string::npos) continue;
    pids.push_back(Text::leading_number(stat_line));
  }
  return true;
}

UniqueFd open_program(int32_t pid, const std::string& name) {
  UniqueFd process(sys::open_process(pid));
  // Looked at only now: the handle keeps meaning this process, whatever becomes of the number.
  if (process.valid() && !is_wanted("/proc/" + std::to_string(pid), Wanted(name))) process.reset();
  return process;
}

}  // namespace Tessaro::Iot::Component
