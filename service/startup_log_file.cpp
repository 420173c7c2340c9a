// The file behind the start-up log.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "paths.h"
#include "startup_log.h"

namespace Tessaro::Iot::Component {

namespace {

constexpr int64_t size_limit = 262144;  // bytes; a log of exactly this size is still appended to
constexpr mode_t mode_bits = 07777;
constexpr mode_t log_mode = 0640;  // it holds the device secret, whatever the umask

// Not waiting: somebody's pipe in the place of the log must not hold the daemon.
int open_log(int flags) noexcept {
  return ::open(Paths::startup_log, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, log_mode);
}

}  // namespace

int64_t startup_log_size() noexcept {
  const int fd = open_log(O_RDONLY);
  if (fd < 0) return -1;
  const off_t size = ::lseek(fd, 0, SEEK_END);
  (void)::close(fd);
  return size;
}

void append_startup_log(std::string_view line) noexcept {
  // O_APPEND also after emptying it: two writers at the limit must not write over each other.
  const int fd = open_log(O_WRONLY | O_APPEND | O_CREAT);
  if (fd < 0) return;
  struct stat status {};
  if (::fstat(fd, &status) == 0) {
    if ((status.st_mode & mode_bits & ~log_mode) != 0) (void)::fchmod(fd, status.st_mode & log_mode);  // not ours
    if (status.st_size > size_limit) (void)!::ftruncate(fd, 0);  // else it grows on
  }
  (void)!::write(fd, line.data(), line.size());  // a full disk drops the line
  (void)::close(fd);
}

}  // namespace Tessaro::Iot::Component
