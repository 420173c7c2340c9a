#include "key_chain.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include "descriptor.h"

namespace gateway {
namespace {

constexpr std::string_view title = "quorvane key chain 1\n";
constexpr std::string_view key_label = "key ";
constexpr std::string_view sum_label = "\nsum ";
constexpr const char* file_name = "keychain";
constexpr const char* fresh_name = "keychain.new";
constexpr const char* damaged_name = "keychain.damaged";
// A key chain file is far smaller; more than this is not one.
constexpr std::size_t text_limit = 4096;

// Carries the reason out of the depth of the work to `deploy_key_chain`.
struct Problem {
  std::string text;
};

[[noreturn]] void fail(const std::string& what) { throw Problem{what + ": " + std::strerror(errno)}; }

std::string to_hex(const std::uint8_t* bytes, std::size_t count) {
  constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    text += digits[bytes[i] >> 4U];
    text += digits[bytes[i] & 15U];
  }
  return text;
}

// FNV-1a: it is there to notice damage, not a forger, who would need to be root.
std::string check_sum(std::string_view text) {
  std::uint64_t sum = 0xcbf29ce484222325U;
  for (const char c : text) sum = (sum ^ static_cast<std::uint8_t>(c)) * 0x100000001b3U;
  std::array<std::uint8_t, 8> bytes{};
  for (std::uint8_t& byte : bytes) {
    byte = static_cast<std::uint8_t>(sum >> 56U);
    sum <<= 8U;
  }
  return to_hex(bytes.data(), bytes.size());
}

std::string file_text(const std::string& key_digits) {
  std::string text = std::string(title) + std::string(key_label) + key_digits;
  return text + std::string(sum_label) + check_sum(text) + "\n";
}

int digit_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// One of the two directories, with the file in it.
class Place {
 public:
  // Opens the directory, making it when it is missing. A link or a directory of somebody else's is not trusted.
  Place(const Descriptor& root, std::string path, const char* name)
      : path_(std::move(path)), directory_(open(root, name)) {
    struct stat status {};
    if (::fstat(directory_.get(), &status) != 0) fail(path_);
    if (status.st_uid != ::geteuid()) throw Problem{path_ + ": belongs to another user"};
    if ((status.st_mode & 07777U) != 0700 && ::fchmod(directory_.get(), 0700) != 0) fail(path_);
  }

  enum class State { missing, damaged, whole };

  void read() {
    const Descriptor file(::openat(directory_.get(), file_name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!file.valid()) {
      if (errno != ENOENT) fail(file_path());
      state_ = State::missing;
      return;
    }
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) fail(file_path());
    if (!S_ISREG(status.st_mode)) throw Problem{file_path() + ": not a regular file"};
    if ((status.st_mode & 07777U) != 0600 && ::fchmod(file.get(), 0600) != 0) fail(file_path());
    std::string text(text_limit, '\0');
    const ssize_t count = ::read(file.get(), text.data(), text.size());
    if (count < 0) fail(file_path());
    const auto key = parse_key_chain(std::string_view(text).substr(0, static_cast<std::size_t>(count)));
    ::explicit_bzero(text.data(), text.size());
    state_ = key ? State::whole : State::damaged;
    if (key) key_ = *key;
  }

  // Puts the key chain in place in one step, once it is safe on the disk. A damaged one is moved aside.
  void write(const Key& key) {
    std::string text = format_key_chain(key);
    try {
      write_fresh(text);
    } catch (const Problem&) {
      ::explicit_bzero(text.data(), text.size());
      (void)::unlinkat(directory_.get(), fresh_name, 0);
      throw;
    }
    ::explicit_bzero(text.data(), text.size());
    if (state_ == State::damaged && ::renameat(directory_.get(), file_name, directory_.get(), damaged_name) != 0) {
      fail(file_path());
    }
    if (::renameat(directory_.get(), fresh_name, directory_.get(), file_name) != 0) fail(file_path());
    if (::fsync(directory_.get()) != 0) fail(path_);
  }

  // Waits a while for another call that is at work; a process that is killed lets go by itself.
  void lock() const {
    for (int attempt = 0; ::flock(directory_.get(), LOCK_EX | LOCK_NB) != 0; ++attempt) {
      if (errno != EWOULDBLOCK || attempt == 50) fail(path_);
      ::usleep(100'000);
    }
  }

  [[nodiscard]] State state() const { return state_; }
  [[nodiscard]] const Key& key() const { return key_; }
  [[nodiscard]] std::string file_path() const { return path_ + "/" + file_name; }

 private:
  Descriptor open(const Descriptor& root, const char* name) const {
    if (::mkdirat(root.get(), name, 0700) == 0) {
      if (::fsync(root.get()) != 0) fail(path_);
    } else if (errno != EEXIST) {
      fail(path_);
    }
    Descriptor directory(::openat(root.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory.valid()) fail(path_);
    return directory;
  }

  void write_fresh(std::string_view text) const {
    // What an interrupted call has left is nobody's any more: this one has the lock.
    (void)::unlinkat(directory_.get(), fresh_name, 0);
    const Descriptor file(
        ::openat(directory_.get(), fresh_name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file.valid() || !write_all(file.get(), text) || ::fsync(file.get()) != 0) fail(file_path());
  }

  std::string path_;
  Descriptor directory_;
  State state_ = State::missing;
  Key key_{};
};

Key new_key() {
  Key key{};
  // Up to 256 bytes come whole; before the kernel's generator is ready it waits.
  if (::getrandom(key.data(), key.size(), 0) != static_cast<ssize_t>(key.size())) fail("no random numbers");
  return key;
}

Deployed deploy(const std::string& root) {
  std::error_code ignored;  // told by the opening below
  std::filesystem::create_directories(root, ignored);
  const Descriptor directory(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.valid()) fail(root);
  Place chain(directory, root + "/.security", ".security");
  Place copy(directory, root + "/.sec_bak", ".sec_bak");
  chain.lock();
  chain.read();
  copy.read();
  using State = Place::State;

  if (chain.state() == State::whole) {
    if (copy.state() == State::whole) {
      if (chain.key() == copy.key()) return Deployed::present;
      throw Problem{chain.file_path() + " and " + copy.file_path() + " are different; both are left as they are"};
    }
    copy.write(chain.key());
    return Deployed::copied;
  }
  if (copy.state() == State::whole) {
    chain.write(copy.key());
    return Deployed::restored;
  }
  if (chain.state() == State::damaged) throw Problem{chain.file_path() + " is damaged and there is no whole copy"};
  if (copy.state() == State::damaged) throw Problem{copy.file_path() + " is damaged and the key chain is missing"};

  const Key key = new_key();
  chain.write(key);
  copy.write(key);
  return Deployed::created;
}

}  // namespace

std::string format_key_chain(const Key& key) { return file_text(to_hex(key.data(), key.size())); }

std::optional<Key> parse_key_chain(std::string_view text) {
  const std::size_t start = title.size() + key_label.size();
  if (text.size() < start + 2 * key_size) return std::nullopt;
  const std::string_view digits = text.substr(start, 2 * key_size);
  Key key{};
  for (std::size_t i = 0; i < key_size; ++i) {
    const int high = digit_value(digits[2 * i]);
    const int low = digit_value(digits[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    key[i] = static_cast<std::uint8_t>(high * 16 + low);
  }
  if (file_text(std::string(digits)) != text) return std::nullopt;
  return key;
}

std::optional<Deployed> deploy_key_chain(const std::string& root, std::string& problem) {
  try {
    return deploy(root);
  } catch (const Problem& found) {
    problem = found.text;
    return std::nullopt;
  }
}

}  // namespace gateway
