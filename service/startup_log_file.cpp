// The file behind the start-up log.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <ctime>

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

// Whether the last wait for the lock was not in vain.
std::atomic<bool> is_worth_waiting{true};

// One writer at a time, or two that look at the size together both write beyond the limit, or empty the file one after
// the other. Waited for in steps and not for ever: the holder may have been stopped, or be what a fault has interrupted
// on this very thread; one that has been waited for in vain is not waited for again. Without the lock a line is still
// one write.
void lock_log(int fd) noexcept {
  constexpr int32_t quick_attempts = 50;   // a line takes some microseconds
  constexpr int32_t slow_attempts = 1000;  // at least 0.1 s: on a busy machine the holder waits for its turn
  constexpr timespec pause{0, 100'000};
  const int32_t attempts = is_worth_waiting ? quick_attempts + slow_attempts : 1;
  for (int32_t attempt = 1; ::flock(fd, LOCK_EX | LOCK_NB) != 0; ++attempt) {
    if (attempt >= attempts) {
      is_worth_waiting = false;
      return;
    }
    if (attempt > quick_attempts) (void)::nanosleep(&pause, nullptr);
  }
  is_worth_waiting = true;
}

// What a full disk takes of a line only in part is taken back, since the next line would go on where that ends: but
// nothing that somebody without the lock has added since.
void write_whole(int fd, std::string_view line) noexcept {
  const ssize_t written = ::write(fd, line.data(), line.size());
  if (written <= 0 || static_cast<size_t>(written) == line.size()) return;
  const off_t end = ::lseek(fd, 0, SEEK_CUR);
  struct stat status {};
  if (::fstat(fd, &status) == 0 && status.st_size == end) (void)!::ftruncate(fd, end - written);
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
  lock_log(fd);
  struct stat status {};
  if (::fstat(fd, &status) == 0) {
    if ((status.st_mode & mode_bits & ~log_mode) != 0) (void)::fchmod(fd, status.st_mode & log_mode);  // not ours
    if (status.st_size > size_limit) (void)!::ftruncate(fd, 0);  // else it grows on
    write_whole(fd, line);
  }
  (void)::close(fd);  // unlocked by that, or by a child that begins meanwhile: it closes all before its exec
}

}  // namespace Tessaro::Iot::Component
