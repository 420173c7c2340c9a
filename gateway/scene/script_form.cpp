#include "script_form.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace gateway {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Together less than the second that the supervisor waits for stopSC.sh when it ends itself.
constexpr std::chrono::milliseconds time_to_end{600};
constexpr std::chrono::milliseconds time_to_die{200};

constexpr const char* script_option = "-script=";

std::string link_target(const fs::path& link) {
  std::error_code error;
  return fs::read_symlink(link, error).string();
}

std::string content(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The number of the process whose directory it is; 0 for another directory.
std::int32_t number_of(const fs::path& process) {
  const std::string name = process.filename().string();
  std::int32_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  return error == std::errc() && end == name.data() + name.size() ? number : 0;
}

// Called by their numbers: the header of Debian 12 declares them for C alone.
int open_process(std::int32_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)); }
void signal_process(int process, int number) { (void)::syscall(SYS_pidfd_send_signal, process, number, nullptr, 0); }

// When a process was started, in the order of the starts: the kernel tells it in hundredths of a second, and within one
// of them numbers are given in ascending order.
using Start = std::pair<std::uint64_t, std::int32_t>;

Start start_of(const fs::path& process) {
  const std::string stat = content(process / "stat");
  // The program's name, in parentheses, may hold anything.
  std::istringstream fields(stat.substr(std::min(stat.size(), stat.rfind(')') + 1)));
  constexpr int position = 20;  // counted behind the name
  std::string field;
  for (int at = 0; at < position; ++at) fields >> field;
  return {std::strtoull(field.c_str(), nullptr, 10), number_of(process)};
}

std::vector<std::string> arguments_of(const fs::path& process) {
  std::vector<std::string> words;
  std::istringstream text(content(process / "cmdline"));
  for (std::string word; std::getline(text, word, '\0');) words.push_back(word);
  return words;
}

// What the processes are held against: this program, its directory, its view of the file system, its start.
struct Self {
  fs::path directory = "/proc/self";
  std::string program = link_target(directory / "exe");
  std::string bin = fs::path(program).parent_path().string();
  std::string mounts = link_target(directory / "ns/mnt");
  Start start = start_of("/proc/" + std::to_string(::getpid()));
};

bool is_program(const fs::path& process, const Self& self) {
  const std::string program = link_target(process / "exe");
  // It may have been replaced while it runs.
  if (program != self.program && program != self.program + " (deleted)") return false;
  const auto words = arguments_of(process);
  return std::any_of(words.begin(), words.end(),
                     [](const std::string& word) { return word.starts_with(script_option); });
}

bool is_script(const fs::path& process, const Self& self) {
  const auto words = arguments_of(process);
  return words.size() >= 2 && words[0] == "/bin/sh" && fs::path(words[1]).filename() == "startSC.sh" &&
         link_target(process / "cwd") == self.bin;
}

bool is_meant(const fs::path& process, const Self& self) {
  if (!is_script(process, self) && !is_program(process, self)) return false;
  return link_target(process / "ns/mnt") == self.mounts && start_of(process) < self.start;
}

// Handles on all that are to be stopped. A handle goes on meaning the process that was looked at, whatever becomes of
// its number.
std::vector<int> find_processes() {
  const Self self;
  std::vector<int> found;
  std::error_code error;
  for (fs::directory_iterator at("/proc", error), end; !error && at != end; at.increment(error)) {
    const std::int32_t pid = number_of(at->path());
    const int process = pid > 0 ? open_process(pid) : -1;
    if (process < 0) continue;
    if (is_meant(at->path(), self)) {
      found.push_back(process);
    } else {
      ::close(process);
    }
  }
  return found;
}

// Signals all, and leaves those that have not ended when the time has passed.
void signal_and_wait(std::vector<int>& processes, int signal_number, std::chrono::milliseconds time) {
  const auto end = Clock::now() + time;
  for (const int process : processes) signal_process(process, signal_number);
  std::erase_if(processes, [end](int process) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    pollfd ended{process, POLLIN, 0};
    if (::poll(&ended, 1, std::max(0, static_cast<int>(left.count()))) <= 0) return false;
    ::close(process);
    return true;
  });
}

}  // namespace

bool end_with_script(std::int32_t script) {
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  // Asked only now: it may have ended before.
  return ::getppid() == script;
}

bool stop_script_form() {
  std::vector<int> processes = find_processes();
  signal_and_wait(processes, SIGTERM, time_to_end);
  signal_and_wait(processes, SIGKILL, time_to_die);
  return processes.empty();
}

}  // namespace gateway
