#include "pid_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "platform/dir.h"
#include "platform/text.h"
#include "platform/thread.h"
#include "platform/unique_fd.h"

namespace Tessaro::Iot::Component {

namespace {

constexpr mode_t pid_file_mode = 0644;
constexpr size_t longest_pid_text = 15;
constexpr int32_t owner_rereads = 50;
constexpr int64_t owner_reread_ms = 4;
constexpr int32_t held_by_a_reader = -2;
constexpr int32_t replacements = 5;

struct flock whole_file_lock() noexcept {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return lock;
}

int32_t read_pid(int32_t fd) noexcept {
  char text[longest_pid_text + 1] = {};
  return ::pread(fd, text, longest_pid_text, 0) > 0 ? Text::leading_number(text) : -1;
}

// The pid that the holder of the refused lock has written, -1 when it does not, 0 when the holder has let go meanwhile;
// `held_by_a_reader` when the file has no owner: anybody may read the file, and so hold a read lock on it for ever, but
// those who own it take write locks only.
// Between its lock and its write the file still shows nothing or an old number, so the text counts only once it names
// the process that the kernel says holds the lock.
int32_t read_owner(int32_t fd) {
  for (int32_t reread = 0; reread < owner_rereads; ++reread) {
    struct flock lock = whole_file_lock();
    const int32_t pid = read_pid(fd);
    if (::fcntl(fd, F_GETLK, &lock) != 0) return -1;
    if (lock.l_type == F_UNLCK) return 0;
    if (lock.l_type == F_RDLCK) return held_by_a_reader;
    if (pid >= 1 && lock.l_pid == pid) return pid;
    CThread::sleep(owner_reread_ms);
  }
  return -1;
}

// Takes the lock, or tells who has it: 0 when it was taken, else the owner's pid, -1 or `held_by_a_reader`.
int32_t take_or_read_owner(int32_t fd) {
  while (try_lock_file(fd) != 0) {
    const int32_t owner = read_owner(fd);
    if (owner != 0) return owner;
  }
  return 0;
}

bool is_file_at(int32_t fd, const std::string& path) {
  struct stat opened {};
  struct stat found {};
  return ::fstat(fd, &opened) == 0 && ::lstat(path.c_str(), &found) == 0 && opened.st_dev == found.st_dev &&
         opened.st_ino == found.st_ino;
}

// A descriptor of the file at `path` that a previous image of this process left open to keep the lock over the
// re-execution, or -1. It has to be used again: closing any descriptor of the file, even a new one, drops the lock.
int32_t find_inherited(const std::string& path) {
  CDir descriptors;
  std::string name;
  if (!descriptors.open("/proc/self/fd")) return -1;
  while (descriptors.getNextFile(name)) {
    const int32_t fd = Text::leading_number(name);
    if (fd > STDERR_FILENO && (::fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDWR && is_file_at(fd, path)) return fd;
  }
  return -1;
}

void write_own_pid(int32_t fd) {
  const std::string text = std::to_string(::getpid());
  (void)::fchmod(fd, pid_file_mode);  // the umask does not decide who may read it
  (void)!::ftruncate(fd, 0);          // a full disk leaves the file empty, the lock still counts
  (void)!::pwrite(fd, text.data(), text.size(), 0);
}

}  // namespace

int32_t try_lock_file(int32_t fd) noexcept {
  const struct flock lock = whole_file_lock();
  return ::fcntl(fd, F_SETLK, &lock) == 0 ? 0 : -1;
}

int32_t lock_pid_file(const std::string& path) {
  for (int32_t replaced = 0;; ++replaced) {
    int32_t fd = find_inherited(path);
    // Not close-on-exec: the lock must outlive a re-execution. Children close it before their exec.
    if (fd < 0) fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, pid_file_mode);
    if (fd < 0) return -1;
    UniqueFd owned(fd);
    const int32_t owner = take_or_read_owner(fd);
    if (owner == held_by_a_reader && replaced < replacements) {
      if (is_file_at(fd, path)) (void)::unlink(path.c_str());  // else somebody else has just put a new one there
      continue;
    }
    if (owner != 0) return std::max(owner, -1);
    if (!is_file_at(fd, path) && replaced < replacements) continue;  // replaced while it was taken
    write_own_pid(owned.release());                                  // left open on purpose
    return 0;
  }
}

int32_t read_locked_pid(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  if (!fd.valid()) return -1;
  const int32_t owner = take_or_read_owner(fd.get());
  if (owner != 0) return std::max(owner, -1);
  (void)fd.release();  // left open on purpose: kept as it always was
  return -1;
}

}  // namespace Tessaro::Iot::Component
