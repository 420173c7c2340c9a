// The descriptors of this process.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <set>
#include <string>

namespace test {

inline std::set<int> open_descriptors() {
  std::set<int> found;
  DIR* const dir = ::opendir("/proc/self/fd");
  if (dir == nullptr) return found;
  const int own = ::dirfd(dir);
  for (const dirent* entry = ::readdir(dir); entry != nullptr; entry = ::readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    const int fd = std::stoi(entry->d_name);
    if (fd != own) found.insert(fd);
  }
  (void)::closedir(dir);
  return found;
}

// Asked by name: other threads own the descriptor.
inline bool is_socket(int fd) {
  char target[8] = "";
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  return ::readlink(link.c_str(), target, sizeof(target) - 1) > 0 && std::string(target) == "socket:";
}

}  // namespace test
