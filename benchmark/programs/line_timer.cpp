// usage: line_timer PAIRS BATCH THREADS SIZE BARE_LOG free|in-turn
// Writes start-up log lines, BATCH at a time on each of THREADS threads at once, through the daemon's log and by a bare
// open, fstat, write and close of as many bytes to BARE_LOG ("in-turn": which is locked too), A B, B A, A B and so on.
// Each time both logs begin with a SIZE in bytes. Prints for each pair the nanoseconds that both took for one line.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "paths.h"
#include "startup_log.h"

namespace {

using namespace Tessaro::Iot::Component;

constexpr int warm_up = 2;
constexpr int shown_pid = 4194303;

// The daemon's most usual line, its thread and number in it so that each is told from all others.
void write_ours(int thread, int number, const std::string& /*bare_log*/, const std::string& /*bare_line*/) {
  STARTUP_LOG("run thread-%d-line-%06d pid %d", thread, number, shown_pid);
}

template <bool in_turn>
void write_bare(int /*thread*/, int /*number*/, const std::string& bare_log, const std::string& bare_line) {
  const int file = ::open(bare_log.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
  struct stat status {};
  if (in_turn && ::flock(file, LOCK_EX) != 0) std::exit(1);
  if (file < 0 || ::fstat(file, &status) != 0) std::exit(1);
  if (::write(file, bare_line.data(), bare_line.size()) != static_cast<ssize_t>(bare_line.size())) std::exit(1);
  (void)::close(file);
}

using Writer = void (*)(int, int, const std::string&, const std::string&);

struct Load {
  int batch = 0;
  int threads = 0;
  off_t size = 0;
  std::string bare_log;
  std::string bare_line;
};

// Nanoseconds of wall-clock time for one line of one thread.
double time_lines(Writer write, const Load& load) {
  std::atomic<int> waiting{load.threads};
  std::vector<std::thread> others;
  const auto work = [&](int thread) {
    for (--waiting; waiting > 0;) std::this_thread::yield();  // all begin together
    for (int number = 0; number < load.batch; ++number) write(thread, number, load.bare_log, load.bare_line);
  };
  others.reserve(static_cast<size_t>(load.threads));
  for (int thread = 1; thread < load.threads; ++thread) others.emplace_back(work, thread);
  while (waiting > 1) std::this_thread::yield();
  const auto begin = std::chrono::steady_clock::now();
  work(0);
  for (std::thread& other : others) other.join();
  const auto end = std::chrono::steady_clock::now();
  return static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(end - begin).count()) / load.batch;
}

// Not there yet: it is begun by the first line.
void set_sizes(const std::string& bare_log, off_t size) {
  (void)!::truncate(Paths::startup_log, size);
  (void)!::truncate(bare_log.c_str(), size);
}

// As long as a line of the daemon.
std::string line_like_ours(const std::string& bare_log) {
  set_sizes(bare_log, 0);
  write_ours(0, 0, {}, {});
  const int64_t size = startup_log_size();
  if (size < 1) {
    (void)std::fputs("line_timer: the daemon's log cannot be written here\n", stderr);
    std::exit(1);
  }
  return std::string(static_cast<size_t>(size) - 1, 'x') + "\n";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) {
    (void)std::fputs("usage: line_timer PAIRS BATCH THREADS SIZE BARE_LOG free|in-turn\n", stderr);
    return 2;
  }
  const int pairs = std::stoi(argv[1]);
  const Load load{std::stoi(argv[2]), std::stoi(argv[3]), std::stol(argv[4]), argv[5], line_like_ours(argv[5])};
  const Writer bare = argv[6] == std::string("in-turn") ? write_bare<true> : write_bare<false>;
  for (int round = -warm_up; round < pairs; ++round) {
    std::array<double, 2> ns{};
    set_sizes(load.bare_log, load.size);
    for (const int side : {std::abs(round) % 2, 1 - std::abs(round) % 2}) {
      ns.at(static_cast<size_t>(side)) = time_lines(side == 0 ? write_ours : bare, load);
    }
    if (round >= 0) (void)std::printf("%.0f %.0f\n", ns[0], ns[1]);
  }
  return 0;
}
