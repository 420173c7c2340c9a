// The descriptors of this process.
#pragma once

#include <set>
#include <string>

#include <dirent.h>
#include <sys/stat.h>

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

inline bool is_socket(int fd) {
  struct stat status {};
  return ::fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode);
}

}  // namespace test
