#include "log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

namespace gateway {
namespace {

constexpr mode_t file_mode = 0640;

}  // namespace

LogFile::LogFile(std::filesystem::path path, const LogLimits& limits) : path_(std::move(path)), limits_(limits) {}

LogFile::~LogFile() { close(); }

bool LogFile::append(std::string_view lines) {
  std::size_t size = 0;
  if (!ready(size)) return false;
  if (size > 0 && size + lines.size() > limits_.file_size && (!rotate() || !open(size))) return false;
  std::string mended;
  if (torn_) lines = mended.append("\n").append(lines);
  const ssize_t written = ::write(descriptor_, lines.data(), lines.size());
  if (written == static_cast<ssize_t>(lines.size())) {
    torn_ = false;
    return true;
  }
  // The disk is full: a piece of a line is worse than none.
  if (written > 0 && ::ftruncate(descriptor_, static_cast<off_t>(size)) != 0) torn_ = true;
  return false;
}

// Opens the file unless it is open and still in its place. Tells its size.
bool LogFile::ready(std::size_t& size) {
  struct stat status {};
  if (descriptor_ >= 0 && ::lstat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_) {
    size = static_cast<std::size_t>(status.st_size);
    return true;
  }
  return open(size);
}

bool LogFile::open(std::size_t& size) {
  close();
  constexpr int flags = O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  descriptor_ = ::open(path_.c_str(), flags, file_mode);
  if (descriptor_ < 0 && errno == ENOENT) {
    std::error_code ignored;  // the next attempt tells
    std::filesystem::create_directories(path_.parent_path(), ignored);
    descriptor_ = ::open(path_.c_str(), flags, file_mode);
  }
  struct stat status {};
  if (descriptor_ < 0 || ::fstat(descriptor_, &status) != 0 || !S_ISREG(status.st_mode)) {
    close();
    return false;
  }
  (void)::fchmod(descriptor_, file_mode);  // another owner's file: it is written all the same
  device_ = status.st_dev;
  inode_ = status.st_ino;
  size = static_cast<std::size_t>(status.st_size);
  // A process that was killed while it wrote may have left half a line.
  char last = '\n';
  torn_ = size > 0 && ::pread(descriptor_, &last, 1, status.st_size - 1) == 1 && last != '\n';
  return true;
}

// Moves the file and the old ones on by one; the oldest goes. The file is then to be opened.
bool LogFile::rotate() {
  const auto old = [this](int number) { return path_.string() + "." + std::to_string(number); };
  for (int number = limits_.old_files; number > 1; --number) {
    (void)std::rename(old(number - 1).c_str(), old(number).c_str());  // there may be none yet
  }
  return std::rename(path_.c_str(), old(1).c_str()) == 0;
}

void LogFile::close() {
  if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
}

}  // namespace gateway
