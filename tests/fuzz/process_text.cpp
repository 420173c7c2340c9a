// What the daemon reads of other processes: a pid file that somebody else holds, and /proc. "@" stands for the pid of
// the holder; the beginning of the input is also the name of this process, which the kernel shows in its stat line.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <vector>

#include "fake_world.h"
#include "fuzz.h"
#include "pid_file.h"
#include "platform/file.h"
#include "platform/text.h"
#include "process_scan.h"

using namespace Tessaro::Iot;
using namespace Tessaro::Iot::Component;

namespace {

constexpr size_t name_size = 16;
constexpr size_t longest_pid_text = 15;

// A file and another process that has a lock of that type on it, F_WRLCK or F_RDLCK.
class HeldFile {
 public:
  explicit HeldFile(int16_t type) {
    const int file = ::mkstemp(path_.data());
    (void)::close(file);
    int ready[2] = {-1, -1};
    Fuzz::require(file >= 0 && ::pipe(ready) == 0, "there is a file and a pipe");
    holder_ = ::fork();
    if (holder_ == 0) hold(ready[1], type);
    char byte = 0;
    Fuzz::require(::read(ready[0], &byte, 1) == 1, "the holder has the lock");
    (void)::close(ready[0]);
    (void)::close(ready[1]);
  }

  [[nodiscard]] int32_t holder() const { return holder_; }
  [[nodiscard]] const std::string& path() const { return path_; }

  void write(const std::string& text) const {
    const int file = ::open(path_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    Fuzz::require(::write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "it is written");
    (void)::close(file);
  }

 private:
  [[noreturn]] void hold(int ready, int16_t type) const {
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int file = ::open(path_.c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = type;
    if (::fcntl(file, F_SETLK, &lock) == 0) (void)!::write(ready, "x", 1);
    for (;;) (void)::pause();
  }

  std::string path_ = "/tmp/held-pid-file-XXXXXX";
  pid_t holder_ = -1;
};

std::string with_holder(std::string_view text, int32_t holder) {
  std::string result;
  for (const char character : text) result += character == '@' ? std::to_string(holder) : std::string(1, character);
  return result;
}

void check_pid_file(std::string_view input) {
  static const HeldFile file(F_WRLCK);
  const std::string text = with_holder(input, file.holder());
  file.write(text);
  const bool names_holder = Text::leading_number(text.substr(0, longest_pid_text)) == file.holder();
  const int32_t expected = names_holder ? file.holder() : -1;
  Fuzz::require(read_locked_pid(file.path()) == expected, "only the holder of the lock counts");
  Fuzz::require(lock_pid_file(file.path()) == expected, "a held file is not taken");
  Fuzz::require(names_holder || read_locked_pid(file.path() + "/none") == -1, "a file that is not there is nobody's");
}

// Whoever only reads it does not own it. Once, since it is ours afterwards.
void check_file_that_is_read() {
  static const HeldFile file(F_RDLCK);
  static const bool is_free = read_locked_pid(file.path()) == -1 && lock_pid_file(file.path()) == 0;
  Fuzz::require(is_free, "a file that somebody reads is nobody's, and is taken");
}

// Taken over whatever it held.
void check_own_pid_file(std::string_view input) {
  static const std::string path = "/tmp/own-pid-file-" + std::to_string(::getpid());
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  (void)!::write(file, input.data(), input.size());
  (void)::close(file);
  Fuzz::require(lock_pid_file(path) == 0, "a file that nobody holds is taken");
  std::string content;
  Fuzz::require(CFile::read(path, content) && content == std::to_string(::getpid()), "it then has the own pid alone");
  // Once: it keeps the lock, and the descriptor.
  static const int32_t owner = read_locked_pid(path);
  Fuzz::require(owner == -1 && lock_pid_file("/") == -1, "what nobody holds, or is no file, has no owner");
}

void check_scan(std::string_view input) {
  static const std::string program(Text::base_name(CFile::link_target("/proc/self/exe")));
  char name[name_size] = {};
  std::copy_n(input.begin(), std::min(input.size(), name_size - 1), name);
  (void)::prctl(PR_SET_NAME, name);
  std::vector<int32_t> pids;
  Fuzz::require(find_processes_by_name("any/" + program, pids), "/proc can be read");
  Fuzz::require(std::count(pids.begin(), pids.end(), ::getpid()) == 1, "a process is found whatever its name is");
  pids.clear();
  (void)find_processes_by_name(std::string(input), pids);
  Fuzz::require(!open_program(::getpid(), std::string(input)).valid(), "there are no handles in the fakes");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Fuzz::silence_stderr();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int initialized = LLVMFuzzerInitialize(nullptr, nullptr);
  (void)initialized;
  Fakes::World::get().reset();  // its clock moves where the daemon would wait
  const std::string_view input = Fuzz::as_text(data, std::min<size_t>(size, 4096));
  check_pid_file(input);
  check_file_that_is_read();
  check_own_pid_file(input);
  check_scan(input);
  return 0;
}
