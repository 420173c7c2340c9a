#include "log_file.h"

#include <fcntl.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace Tessaro::Iot::Component {

namespace {

constexpr size_t size_limit = size_t{1024} * 1024;
constexpr size_t old_files = 3;
constexpr mode_t file_mode = 0640;

}  // namespace

LogFile::LogFile(std::string directory, std::string name)
    : directory_(std::move(directory)), name_(std::move(name)), path_(directory_ + "/" + name_) {}

void LogFile::write(std::string_view text, bool flush) noexcept {
  try {
    const std::lock_guard lock(mutex_);
    if (!ready()) return;
    logger_->log(spdlog::level::info, spdlog::string_view_t(text.data(), text.size()));
    if (flush) logger_->flush();
    // After a failed rotation the sink has no file, and would write to none: it must not be used again.
    if (failed_) close();
  } catch (...) {
    // The log is no reason for the caller to fail.
  }
}

void LogFile::flush() noexcept {
  try {
    const std::lock_guard lock(mutex_);
    if (logger_ == nullptr) return;
    logger_->flush();
    if (failed_) close();
  } catch (...) {
    // As above.
  }
}

bool LogFile::ready() {
  struct stat status {};
  const bool there = ::stat(path_.c_str(), &status) == 0;
  if (logger_ != nullptr && there && status.st_dev == device_ && status.st_ino == inode_) return true;
  close();
  return open();
}

bool LogFile::open() {
  opened_directory_ = UniqueFd(::open(directory_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!opened_directory_.valid()) return false;
  // Through the descriptor the directory exists as long as we hold it, so the sink, which creates a missing one, never
  // creates it, not even when it is removed at this moment.
  const std::string path = "/proc/self/fd/" + std::to_string(opened_directory_.get()) + "/" + name_;
  spdlog::file_event_handlers handlers;
  handlers.before_open = [this](const spdlog::filename_t& name) { before_open(name); };
  handlers.after_open = [this](const spdlog::filename_t&, std::FILE* file) { after_open(file); };
  try {
    failed_ = false;
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_st>(path, size_limit, old_files,
                                                                       /*rotate_on_open=*/false, handlers);
    sink->set_pattern("%Y-%m-%d %H:%M:%S.%e %v");
    logger_ = std::make_shared<spdlog::logger>(name_, std::move(sink));
    logger_->set_error_handler([this](const std::string&) { failed_ = true; });
  } catch (...) {
    close();
  }
  return logger_ != nullptr;
}

void LogFile::close() noexcept {
  logger_.reset();
  opened_directory_.reset();
}

// Makes the file before the sink does: that would leave its mode to the umask, and follow a link.
void LogFile::before_open(const std::string& path) const {
  const UniqueFd file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, file_mode));
  struct stat status {};
  if (!file.valid() || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    throw spdlog::spdlog_ex("no log file");
  }
  (void)::fchmod(file.get(), file_mode);  // the umask only ever takes permissions away
}

void LogFile::after_open(std::FILE* file) {
  const int fd = ::fileno(file);
  (void)::fcntl(fd, F_SETFD, FD_CLOEXEC);  // cannot fail for an open descriptor
  struct stat status {};
  (void)::fstat(fd, &status);  // as above
  device_ = status.st_dev;
  inode_ = status.st_ino;
}

}  // namespace Tessaro::Iot::Component
