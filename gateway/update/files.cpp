#include "files.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace gateway::update {
namespace {

bool is_plain_name(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && !name.ends_with(".fota-new") && !name.ends_with(".fota-old") &&
         std::none_of(name.begin(), name.end(),
                      [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\177'; });
}

}  // namespace

std::string error_text(const std::string& what) { return what + ": " + std::strerror(errno); }

bool is_plain_path(std::string_view path) {
  for (;;) {
    const auto slash = path.find('/');
    if (!is_plain_name(path.substr(0, slash))) return false;
    if (slash == std::string_view::npos) return true;
    path.remove_prefix(slash + 1);
  }
}

std::pair<std::string, std::string> split_path(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return {"", path};
  return {path.substr(0, slash), path.substr(slash + 1)};
}

Descriptor open_directory(const std::string& path) {
  return Descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

Descriptor open_below(int directory, std::string_view path) {
  Descriptor current(::fcntl(directory, F_DUPFD_CLOEXEC, 0));
  while (current.valid() && !path.empty()) {
    const auto slash = std::min(path.find('/'), path.size());
    const std::string name(path.substr(0, slash));
    current = Descriptor(::openat(current.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    path.remove_prefix(std::min(slash + 1, path.size()));
  }
  return current;
}

Descriptor open_file_below(int directory, const std::string& path) {
  const auto [parent_path, name] = split_path(path);
  const Descriptor parent = open_below(directory, parent_path);
  if (!parent.valid()) return Descriptor();
  // Not blocking: a pipe would wait for its other end.
  Descriptor file(::openat(parent.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (!file.valid() || ::fstat(file.get(), &status) != 0) return Descriptor();
  if (S_ISREG(status.st_mode)) return file;
  errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
  return Descriptor();
}

std::optional<Sum> copy_and_sum(int from, int to) {
  std::vector<unsigned char> block(std::size_t{256} * 1024);
  crypto_hash_sha256_state state;
  crypto_hash_sha256_init(&state);
  for (;;) {
    const ssize_t count = ::read(from, block.data(), block.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    const auto size = static_cast<std::size_t>(count);
    crypto_hash_sha256_update(&state, block.data(), size);
    if (to >= 0 && !write_all(to, {reinterpret_cast<const char*>(block.data()), size})) return std::nullopt;
  }
  Sum sum{};
  crypto_hash_sha256_final(&state, sum.data());
  return sum;
}

std::optional<std::string> read_file(int file, std::size_t limit) {
  std::string text;
  char block[4096];
  for (;;) {
    const ssize_t count = ::read(file, block, sizeof block);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) return text;
    text.append(block, static_cast<std::size_t>(count));
    if (text.size() > limit) {
      errno = EFBIG;
      return std::nullopt;
    }
  }
}

bool replace_file(const std::string& path, std::string_view text, mode_t mode) {
  const auto [parent_path, name] = split_path(path);
  const Descriptor parent = open_directory(parent_path);
  if (!parent.valid()) return false;
  const std::string fresh = name + ".new";
  (void)::unlinkat(parent.get(), fresh.c_str(), 0);  // what an interrupted call has left
  const Descriptor file(
      ::openat(parent.get(), fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
  if (file.valid() && write_all(file.get(), text) && ::fsync(file.get()) == 0 &&
      ::renameat(parent.get(), fresh.c_str(), parent.get(), name.c_str()) == 0) {
    return ::fsync(parent.get()) == 0;
  }
  const int error = errno;
  (void)::unlinkat(parent.get(), fresh.c_str(), 0);
  errno = error;
  return false;
}

}  // namespace gateway::update
