#include "pid_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

// The pid that the holder of the refused lock has written, -1 when it does not, 0 when the holder has let go meanwhile.
// Between its lock and its write the file still shows nothing or an old number, so the text counts only once it names
// the process that the kernel says holds the lock.
int32_t read_owner(int32_t fd) {
  for (int32_t reread = 0; reread < owner_rereads; ++reread) {
    struct flock lock = whole_file_lock();
    const int32_t pid = read_pid(fd);
    if (::fcntl(fd, F_GETLK, &lock) != 0) return -1;
    if (lock.l_type == F_UNLCK) return 0;
    if (pid >= 1 && lock.l_pid == pid) return pid;
    CThread::sleep(owner_reread_ms);
  }
  return -1;
}

// Takes the lock, or tells who has it: 0 when it was taken, else the owner's pid or -1.
int32_t take_or_read_owner(int32_t fd) {
  while (try_lock_file(fd) != 0) {
    const int32_t owner = read_owner(fd);
    if (owner != 0) return owner;
  }
  return 0;
}

// A descriptor of the file at `path` that a previous image of this process left open to keep the lock over the
// re-execution, or -1. It has to be used again: closing any descriptor of the file, even a new one, drops the lock.
int32_t find_inherited(const std::string& path) {
  struct stat wanted {};
  CDir descriptors;
  std::string name;
  if (::stat(path.c_str(), &wanted) != 0 || !descriptors.open("/proc/self/fd")) return -1;
  while (descriptors.getNextFile(name)) {
    const int32_t fd = Text::leading_number(name);
    struct stat found {};
    if (fd <= STDERR_FILENO || ::fstat(fd, &found) != 0 || (::fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDWR) continue;
    if (found.st_dev == wanted.st_dev && found.st_ino == wanted.st_ino) return fd;
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
  int32_t fd = find_inherited(path);
  // Not close-on-exec: the lock must outlive a re-execution. Children close it before their exec.
  if (fd < 0) fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, pid_file_mode);
  if (fd < 0) return -1;
  UniqueFd owned(fd);
  const int32_t owner = take_or_read_owner(fd);
  if (owner == 0) write_own_pid(owned.release());  // left open on purpose
  return owner;
}

int32_t read_locked_pid(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  if (!fd.valid()) return -1;
  const int32_t owner = take_or_read_owner(fd.get());
  if (owner != 0) return owner;
  (void)fd.release();  // left open on purpose: kept as it always was
  return -1;
}

}  // namespace Tessaro::Iot::Component
