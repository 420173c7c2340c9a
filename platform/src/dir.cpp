#include "platform/dir.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/unique_fd.h"

namespace Tessaro::Iot::Component {

namespace {

constexpr int open_directory_flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int hold_directory_flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t permission_bits = 07777;

struct StreamCloser {
  void operator()(DIR* stream) const noexcept { (void)::closedir(stream); }  // nothing can be done about a failure
};
using Stream = std::unique_ptr<DIR, StreamCloser>;

std::vector<std::string> split(std::string_view path) {
  std::vector<std::string> components;
  size_t begin = 0;
  while (begin < path.size()) {
    const size_t end = std::min(path.find('/', begin), path.size());
    const std::string_view component = path.substr(begin, end - begin);
    if (!component.empty() && component != ".") components.emplace_back(component);
    begin = end + 1;
  }
  return components;
}

// Returns 0, also when the bits could not be set exactly: the umask only ever takes some away.
int make_directory(int parent, const char* name, mode_t mode) noexcept {
  if (::mkdirat(parent, name, mode) != 0) return -1;
  (void)!::fchmodat(parent, name, mode & permission_bits, AT_SYMLINK_NOFOLLOW);  // see above
  return 0;
}

bool is_trusted(int directory) noexcept {
  struct stat status {};
  if (::fstat(directory, &status) != 0 || !S_ISDIR(status.st_mode)) return false;
  if (status.st_uid != 0 && status.st_uid != ::geteuid()) return false;
  if ((status.st_mode & S_ISVTX) != 0) return true;
  if ((status.st_mode & S_IWOTH) != 0) return false;
  const bool own_group = status.st_gid == 0 || status.st_gid == ::getegid();
  return (status.st_mode & S_IWGRP) == 0 || own_group;
}

// Opens the entry `name` of `parent` to hold it; a link is followed only when it was not planted by a stranger.
UniqueFd hold(int parent, const std::string& name) {
  struct stat status {};
  if (::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return UniqueFd();
  const bool own_link = S_ISLNK(status.st_mode) && (status.st_uid == 0 || status.st_uid == ::geteuid());
  UniqueFd entry(::openat(parent, name.c_str(), own_link ? hold_directory_flags & ~O_NOFOLLOW : hold_directory_flags));
  if (!entry.valid() && own_link) errno = ENOTDIR;  // it leads nowhere: in the way like a file
  return entry;
}

// The new name cannot be foreseen, so nothing can wait under it.
bool move_aside(int parent, const std::string& name) {
  uint64_t random = 0;
  if (::getentropy(&random, sizeof random) != 0) return false;
  char suffix[32];
  (void)std::snprintf(suffix, sizeof suffix, ".untrusted-%016llx", static_cast<unsigned long long>(random));  // fits
  return ::renameat(parent, name.c_str(), parent, (name + suffix).c_str()) == 0 || errno == ENOENT;
}

// Returns a descriptor of the trusted directory `name` of `parent`, invalid when it could not be had. What was looked
// at stays open and is what is used, so nothing can be put in its place between.
UniqueFd enter_trusted(int parent, const std::string& name, mode_t mode) {
  // Whoever may write to a sticky parent may plant the name again and again; he shall not keep us here.
  constexpr int attempts = 16;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    UniqueFd directory = hold(parent, name);
    if (directory.valid() && is_trusted(directory.get())) return directory;
    if (!directory.valid() && errno == ENOENT) {
      if (make_directory(parent, name.c_str(), mode) != 0 && errno != EEXIST) return UniqueFd();
    } else if (!move_aside(parent, name)) {
      return UniqueFd();
    }
  }
  return UniqueFd();
}

// Removes a tree with two descriptors and no recursion, however deep somebody has made it.
class TreeRemover {
 public:
  // Removes the entry `name` of the directory `parent`; true when it is gone.
  bool remove(int parent, const std::string& name) {
    if (::unlinkat(parent, name.c_str(), 0) == 0 || errno == ENOENT) return true;
    if (!is_directory_error(errno)) return false;
    if (!descend(parent, name)) return remove_empty(parent, name);
    while (levels_.size() > 1 || !levels_.back().names.empty()) {
      if (!step()) return false;
    }
    return remove_empty(parent, name) && complete_;
  }

 private:
  struct Level {
    std::string name;
    dev_t device = 0;
    ino_t inode = 0;
    std::vector<std::string> names;  // read to the end before the first is removed: a listing may skip otherwise
  };

  // unlink of a directory: EISDIR on Linux, EPERM in POSIX.
  static bool is_directory_error(int error) noexcept { return error == EISDIR || error == EPERM; }

  static bool remove_empty(int parent, const std::string& name) noexcept {
    return ::unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT;
  }

  bool descend(int parent, const std::string& name) {
    UniqueFd directory(::openat(parent, name.c_str(), open_directory_flags));
    struct stat status {};
    if (!directory.valid() || ::fstat(directory.get(), &status) != 0) return false;
    Level level{name, status.st_dev, status.st_ino, {}};
    if (!list(directory.get(), level.names)) return false;
    levels_.push_back(std::move(level));
    current_ = std::move(directory);
    return true;
  }

  static bool list(int directory, std::vector<std::string>& names) {
    UniqueFd copy(::fcntl(directory, F_DUPFD_CLOEXEC, 0));
    const Stream stream(copy.valid() ? ::fdopendir(copy.get()) : nullptr);
    if (stream == nullptr) return false;
    // The stream closes it from now on.
    (void)copy.release();
    while (const dirent* entry = ::readdir(stream.get())) {
      const std::string_view name = entry->d_name;
      if (name != "." && name != "..") names.emplace_back(name);
    }
    return true;
  }

  // Removes one entry of the current directory, or enters it, or leaves the directory when none is left.
  bool step() {
    Level& level = levels_.back();
    if (level.names.empty()) return ascend();
    const std::string name = std::move(level.names.back());
    level.names.pop_back();
    if (::unlinkat(current_.get(), name.c_str(), 0) == 0 || errno == ENOENT) return true;
    if (is_directory_error(errno) && descend(current_.get(), name)) return true;
    if (!remove_empty(current_.get(), name)) complete_ = false;
    return true;
  }

  // ".." is taken only when it is the directory that we came from: somebody may have moved the one that we are in.
  bool ascend() {
    const std::string name = std::move(levels_.back().name);
    levels_.pop_back();
    UniqueFd parent(::openat(current_.get(), "..", open_directory_flags));
    struct stat status {};
    if (!parent.valid() || ::fstat(parent.get(), &status) != 0) return false;
    if (status.st_dev != levels_.back().device || status.st_ino != levels_.back().inode) return false;
    current_ = std::move(parent);
    if (!remove_empty(current_.get(), name)) complete_ = false;
    return true;
  }

  std::vector<Level> levels_;
  UniqueFd current_;
  bool complete_ = true;
};

}  // namespace

CDir::CDir() noexcept = default;
CDir::~CDir() = default;

bool CDir::open(const std::string& path) {
  dir_.reset(::opendir(path.c_str()));
  return dir_ != nullptr;
}

bool CDir::getNextFile(std::string& name) {
  if (dir_ == nullptr) return false;
  const dirent* entry = ::readdir(dir_.get());
  if (entry == nullptr) return false;
  name = entry->d_name;
  return true;
}

void CDir::close() noexcept { dir_.reset(); }

bool CDir::isDir(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool CDir::mkdirs(const std::string& path, mode_t mode) {
  if (path.empty()) return false;
  std::string built = path.front() == '/' ? "/" : "";
  for (const std::string& component : split(path)) {
    built += component;
    if (make_directory(AT_FDCWD, built.c_str(), mode) != 0 && !isDir(built)) return false;
    built += '/';
  }
  return isDir(path);
}

bool CDir::make_trusted(const std::string& trusted_base, const std::string& path, mode_t mode) {
  if (!path.starts_with(trusted_base)) return false;
  const std::string below = path.substr(trusted_base.size());
  if (!trusted_base.ends_with('/') && !below.empty() && below.front() != '/') return false;
  // What was just made would be moved aside as untrusted.
  if ((mode & S_IWOTH) != 0 && (mode & S_ISVTX) == 0) return false;
  (void)mkdirs(trusted_base, mode);  // failed: it cannot be opened either
  UniqueFd directory(::open(trusted_base.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  for (const std::string& component : split(below)) {
    if (!directory.valid() || component == "..") return false;
    directory = enter_trusted(directory.get(), component, mode);
  }
  return directory.valid();
}

bool CDir::rmdirs(const std::string& path) {
  std::string name = path;
  while (name.size() > 1 && name.back() == '/') name.pop_back();  // "link/" would be what the link leads to
  return !name.empty() && TreeRemover().remove(AT_FDCWD, name);
}

}  // namespace Tessaro::Iot::Component
