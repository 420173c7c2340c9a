// usage: start_timer ROUNDS SERVICES DESCRIPTORS direct|asked IDLE_PROGRAM PROGRAM
// With SERVICES idle services started and a limit of DESCRIPTORS open files, starts PROGRAM through the daemon's
// process host, by a bare fork and exec and by a bare vfork and exec, in turn (A B C, C B A, A B C, ...). PROGRAM
// writes the moment of its first instructions to its standard input. Prints for each round the nanoseconds up to there.
//   direct   on the thread that forks
//   asked    on another one, which has to ask for it, as the daemon's controller and monitor do
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>

#include "platform/process_host.h"

namespace {

using namespace Tessaro::Iot::Component;

constexpr int warm_up = 5;
constexpr int64_t serve_wait_ms = 1000;

[[noreturn]] void give_up(const char* what) {
  (void)std::fprintf(stderr, "start_timer: %s\n", what);
  std::exit(1);
}

int64_t ns_of(const timespec& time) { return static_cast<int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec; }

int64_t now_ns() {
  timespec now{};
  (void)::clock_gettime(CLOCK_MONOTONIC, &now);
  return ns_of(now);
}

// The plan of an ordinary service.
CSpawnPlan plan_of(const char* program) {
  CSpawnPlan plan;
  plan.program = program;
  plan.add_argument("service");
  plan.parent_death_signal = SIGKILL;
  return plan;
}

void start_ours(const char* program) {
  if (CProcessHost::instance().spawn(plan_of(program), nullptr).pid < 1) give_up("no process");
}

void start_bare(const char* program) {
  char* const arguments[] = {const_cast<char*>("service"), nullptr};
  const pid_t pid = ::fork();
  if (pid < 0) give_up("no process");
  if (pid > 0) return;
  (void)::execv(program, arguments);
  ::_exit(1);
}

// The child has this process's memory until it executes, as the process host's has.
void start_borrowing(const char* program) {
  char* const arguments[] = {const_cast<char*>("service"), nullptr};
  const pid_t pid = ::vfork();
  if (pid == 0) {
    (void)::execv(program, arguments);
    ::_exit(1);
  }
  if (pid < 0) give_up("no process");
}

constexpr std::array starters{start_ours, start_bare, start_borrowing};

class Measurement {
 public:
  Measurement(int rounds, const char* program) : rounds_(rounds), program_(program) {
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0 || ::dup2(ends[1], STDIN_FILENO) != STDIN_FILENO) give_up("no pipe");
    (void)::close(ends[1]);
    moments_ = ends[0];
  }

  // Serves children until `done`; a death is counted.
  void serve_until(const std::atomic<bool>& done) {
    while (!done) serve(serve_wait_ms);
  }

  // Measures, prints and sets `done`. `serving` is true when this thread has to look for the deaths itself.
  void run(bool serving, std::atomic<bool>& done) {
    for (int round = -warm_up; round < rounds_; ++round) {
      std::array<long long, starters.size()> ns{};
      for (size_t turn = 0; turn < ns.size(); ++turn) {
        const size_t side = round % 2 == 0 ? turn : ns.size() - 1 - turn;
        ns.at(side) = time_one(starters.at(side), serving);
      }
      if (round >= 0) (void)std::printf("%lld %lld %lld\n", ns[0], ns[1], ns[2]);
    }
    done = true;
    if (!serving) (void)::kill(::getpid(), SIGCHLD);  // wakes the other thread
  }

 private:
  void serve(int64_t timeout_ms) {
    CProcessHost::instance().serve(timeout_ms, [this](int32_t /*pid*/, int32_t /*status*/) { ++deaths_; });
  }

  int64_t time_one(void (*start)(const char*), bool serving) {
    const int deaths_before = deaths_;
    const int64_t begin = now_ns();
    start(program_);
    timespec first{};
    if (::read(moments_, &first, sizeof first) != sizeof first) give_up("the program said nothing");
    // The next one begins when all is quiet again.
    while (deaths_ == deaths_before) {
      if (serving)
        serve(1);
      else
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return ns_of(first) - begin;
  }

  int rounds_;
  const char* program_;
  int moments_ = -1;
  std::atomic<int> deaths_{0};
};

void limit_descriptors(const char* text) {
  rlimit limit{};
  (void)::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::strtoul(text, nullptr, 10);
  if (limit.rlim_cur > limit.rlim_max) limit.rlim_max = limit.rlim_cur;
  if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) give_up("the limit of open files cannot be set");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) give_up("usage: start_timer ROUNDS SERVICES DESCRIPTORS direct|asked IDLE_PROGRAM PROGRAM");
  limit_descriptors(argv[3]);
  if (!CProcessHost::instance().bind_to_this_thread()) give_up("no host");
  for (int number = std::stoi(argv[2]); number > 0; --number) start_ours(argv[5]);
  Measurement measurement(std::stoi(argv[1]), argv[6]);
  std::atomic<bool> done{false};
  if (std::strcmp(argv[4], "direct") == 0) {
    measurement.run(true, done);
  } else {
    std::thread asking([&] { measurement.run(false, done); });
    measurement.serve_until(done);
    asking.join();
  }
  return 0;
}
