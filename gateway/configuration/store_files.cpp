#include "store_files.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

#include "database.h"

namespace gateway {
namespace {

constexpr std::string_view aside = "config.db.damaged-";
// What belongs to a database, itself first: without it the rest means nothing, so it is the first to go.
constexpr std::array<const char*, 4> endings = {"", "-wal", "-journal", "-shm"};

[[noreturn]] void fail(const std::string& path) {
  const int error = errno;
  throw StorageError{error == ENOSPC ? SQLITE_FULL : SQLITE_IOERR, path + ": " + std::strerror(error)};
}

bool exists(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0) return true;
  if (errno != ENOENT) fail(path);
  return false;
}

void rename(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) fail(from);
}

void remove(const std::string& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) fail(path);
}

void sync_directory(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) fail(path);
  const bool done = ::fsync(descriptor) == 0;
  const int error = errno;
  ::close(descriptor);
  errno = error;
  if (!done) fail(path);
}

}  // namespace

bool StoreFiles::has_log() const {
  struct stat status {};
  return ::stat((database() + "-wal").c_str(), &status) == 0 && status.st_size > 0;
}

void StoreFiles::acquire() {
  release();
  make_directory();
  lock_ = ::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (lock_ < 0) fail(directory_);
  // The process before this one may be about to end only now.
  for (int attempt = 0; ::flock(lock_, LOCK_EX | LOCK_NB) != 0; ++attempt) {
    if (errno != EWOULDBLOCK) fail(directory_);
    if (attempt == 40) throw StorageError{SQLITE_BUSY, "another process has it"};
    ::usleep(50'000);
  }
}

void StoreFiles::release() {
  if (lock_ >= 0) ::close(lock_);
  lock_ = -1;
}

void StoreFiles::make_directory() const {
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(directory_).parent_path(), error);
  if (::mkdir(directory_.c_str(), 0700) == 0) {
    sync_directory(std::filesystem::path(directory_).parent_path());
    return;
  }
  if (errno != EEXIST) fail(directory_);
  struct stat status {};
  if (::stat(directory_.c_str(), &status) != 0) fail(directory_);
  if ((status.st_mode & 07777U) != 0700 && ::chmod(directory_.c_str(), 0700) != 0) fail(directory_);
}

StoreFiles::Found StoreFiles::look(std::string& why) const {
  const bool ready = exists(database() + ".ready");
  if (!exists(database())) {
    if (ready) {
      (void)set_aside();  // the old log, when the exchange was interrupted before it was moved
      put_ready_in_place();
      return Found::database;
    }
    if (!exists(database() + "-wal")) return Found::nothing;
    why = "it is gone, and its log is there";
    return Found::unusable;
  }
  if (ready) remove(database() + ".ready");
  struct stat status {};
  if (::lstat(database().c_str(), &status) != 0) fail(database());
  if (!S_ISREG(status.st_mode)) {
    why = "it is not a regular file";
    return Found::unusable;
  }
  // A database gets its name when it is complete, so an empty one has lost what it had.
  if (status.st_size == 0) {
    why = "it is empty";
    return Found::unusable;
  }
  if ((status.st_mode & 07777U) != 0600 && ::chmod(database().c_str(), 0600) != 0) fail(database());
  return Found::database;
}

void StoreFiles::clear_fresh() const {
  for (const char* ending : endings) remove(fresh() + ending);
}

void StoreFiles::fresh_is_ready() const {
  rename(fresh(), database() + ".ready");
  sync();
}

std::string StoreFiles::set_aside() const {
  const auto taken = [&](const std::string& name) {
    for (const char* ending : endings) {
      if (exists(directory_ + "/" + name + ending)) return true;
    }
    return exists(directory_ + "/" + name + ".txt");
  };
  std::string name;
  for (int number = 1; name.empty() || taken(name); ++number) name = std::string(aside) + std::to_string(number);
  for (const char* ending : endings) {
    if (exists(database() + ending)) rename(database() + ending, directory_ + "/" + name + ending);
  }
  sync();
  return name;
}

void StoreFiles::put_ready_in_place() const {
  rename(database() + ".ready", database());
  sync();
}

void StoreFiles::note(const std::string& name, const std::string& text) const {
  std::ofstream(directory_ + "/" + name + ".txt") << text << "\n";
}

void StoreFiles::remove_set_aside() const {
  std::error_code error;
  bool removed = false;
  for (std::filesystem::directory_iterator entry(directory_, error), end; !error && entry != end;
       entry.increment(error)) {
    const bool ours = entry->path().filename().string().starts_with(aside);
    if (!ours || entry->is_directory()) continue;
    remove(entry->path());
    removed = true;
  }
  if (removed) sync();
}

void StoreFiles::sync() const { sync_directory(directory_); }

}  // namespace gateway
