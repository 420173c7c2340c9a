// Directories.
#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <memory>
#include <string>

namespace Tessaro::Iot::Component {

class CDir {
 public:
  CDir() noexcept;
  ~CDir();
  CDir(const CDir&) = delete;
  CDir& operator=(const CDir&) = delete;

  // Opens `path` for listing. Returns true when it can be read as a directory.
  // Context: any thread, one object per thread.
  [[nodiscard]] bool open(const std::string& path);

  // Fills `name` with the next entry's name ("." and ".." included) in the order of the file system.
  // Returns false at the end, or when no directory is open.
  [[nodiscard]] bool getNextFile(std::string& name);

  void close() noexcept;

  // True when `path` is a directory or a link to one.
  // Context: any thread.
  [[nodiscard]] static bool isDir(const std::string& path);

  // Creates `path` and its missing parents, each with exactly the permission bits `mode`, whatever the umask; existing
  // directories are left as they are. Returns true when `path` is a directory afterwards.
  // Context: any thread.
  static bool mkdirs(const std::string& path, mode_t mode);

  // As mkdirs, for a path that any local user may have prepared. A component below `trusted_base` is trusted when it is
  // a directory, or a link of this user or root to one, that is owned by this user or root and that others may not
  // write without the sticky bit. Any other is renamed aside and made anew.
  // Returns true when `path` is a trusted directory afterwards.
  // Context: any thread.
  static bool make_trusted(const std::string& trusted_base, const std::string& path, mode_t mode);

  // Removes `path` and all that is below it. Symbolic links are removed, never entered.
  // Returns true when nothing is left.
  // Context: any thread.
  static bool rmdirs(const std::string& path);

 private:
  struct Closer {
    void operator()(DIR* dir) const noexcept { (void)::closedir(dir); }
  };
  std::unique_ptr<DIR, Closer> dir_;
};

}  // namespace Tessaro::Iot::Component
