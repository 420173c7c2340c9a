#include <atomic>
#include <set>
#include <thread>

#include "platform/process_host.h"
#include "platform/signal_window.h"
#include "process_fixture.h"
#include "wait_until.h"

// Starts from other threads, bursts, and signals while the main thread waits.

namespace Tessaro::Iot::Component {
namespace {

using test::milliseconds_of;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t burst = 2000;  // a fork copies the sanitizer's own memory map, too
#else
constexpr size_t burst = 10'000;
#endif

class ProcessHostThreads : public test::ProcessTest {};

// To be called on a thread of its own, since a window stays with its thread for good.
void open_window_for_sigusr1() {
  sigset_t signals;
  sigset_t before;
  (void)::sigemptyset(&signals);
  (void)::sigaddset(&signals, SIGUSR1);
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &signals, &before), 0);
  SignalWindow::open_on_this_thread(before);
}

TEST_F(ProcessHostThreads, ManyThreadsStartWhileTheMainThreadServes) {
  constexpr int threads = 8;
  constexpr int rounds = 25;
  std::set<int32_t> current;  // only the main thread touches these, whoever asks
  int early_deaths = 0;
  std::atomic<int> started{0};
  std::vector<std::thread> starters;
  for (int index = 0; index < threads; ++index) {
    starters.emplace_back([&] {
      for (int round = 0; round < rounds; ++round) {
        ProcessRef told;
        const ProcessRef child = host_.spawn(plan_of("/nonexistent"), [&](ProcessRef process) {
          told = process;
          current.insert(process.pid);
        });
        EXPECT_GT(child.pid, 0);
        EXPECT_EQ(child, told);
        ++started;
      }
    });
  }
  size_t deaths = 0;
  EXPECT_TRUE(test::wait_until(
      [&] {
        host_.serve(20, [&](int32_t pid, int32_t) {
          if (current.erase(pid) == 0) ++early_deaths;
          ++deaths;
        });
        return deaths == size_t{threads} * rounds;
      },
      std::chrono::seconds(60)));
  for (std::thread& starter : starters) starter.join();
  EXPECT_EQ(early_deaths, 0);
  EXPECT_EQ(started, threads * rounds);
}

TEST_F(ProcessHostThreads, AStartIsServedAtOnceWhileAllChildrenLive) {
  std::atomic<int64_t> taken{-1};
  std::thread starter([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    taken = milliseconds_of([&] { (void)host_.spawn(shell("exit 0"), nullptr); });
  });
  host_.serve(10'000, [](int32_t, int32_t) {});
  EXPECT_TRUE(serve_until([&] { return taken >= 0; }));
  starter.join();
  EXPECT_LT(taken, 5000);
  EXPECT_TRUE(serve_until([&] { return deaths_.size() == 1; }));
}

TEST_F(ProcessHostThreads, StepsRunOnTheMainThreadOneAfterTheOther) {
  constexpr int many = 100;
  int steps = 0;
  int elsewhere = 0;
  std::atomic<int> steps_at_return{0};
  std::thread starter([&, host_thread = std::this_thread::get_id()] {
    host_.run_steps([&] {
      if (std::this_thread::get_id() != host_thread) ++elsewhere;
      (void)host_.spawn(plan_of("/nonexistent"), nullptr);
      return ++steps < many;
    });
    steps_at_return = steps;
  });
  EXPECT_TRUE(serve_until([&] { return deaths_.size() == many; }));
  EXPECT_TRUE(serve_until([&] { return steps_at_return > 0; }));
  starter.join();
  EXPECT_EQ(steps_at_return, many);
  EXPECT_EQ(elsewhere, 0);
}

// They go on until both have been seen.
TEST_F(ProcessHostThreads, DeathsAndSignalsAreSeenBetweenSteps) {
  static std::atomic<bool> handled{false};
  handled = false;
  ASSERT_NE(::signal(SIGUSR1, [](int) { handled = true; }), SIG_ERR);
  std::thread main_thread([&] {
    CProcessHost host;
    open_window_for_sigusr1();
    ASSERT_TRUE(host.bind_to_this_thread());
    bool died = false;
    std::atomic<bool> done{false};
    std::thread starter([&, main = ::pthread_self()] {
      (void)host.spawn(plan_of("/nonexistent"), nullptr);
      (void)::pthread_kill(main, SIGUSR1);
      host.run_steps([&] { return !(died && handled); });
      done = true;
    });
    EXPECT_TRUE(test::wait_until(
        [&] {
          host.serve(20, [&](int32_t, int32_t) { died = true; });
          return done.load();
        },
        std::chrono::seconds(60)));
    starter.join();
  });
  main_thread.join();
  ASSERT_NE(::signal(SIGUSR1, SIG_DFL), SIG_ERR);
}

TEST_F(ProcessHostThreads, AChildOutlivesTheThreadThatAskedForIt) {
  CSpawnPlan plan = plan_of("/bin/sleep", {"60"});
  plan.parent_death_signal = SIGKILL;
  ProcessRef child;
  std::atomic<bool> ended{false};
  std::thread starter([&] {
    child = host_.spawn(plan, nullptr);
    ended = true;
  });
  ASSERT_TRUE(serve_until([&] { return ended.load(); }));
  starter.join();
  host_.serve(200, [](int32_t, int32_t) { FAIL() << "the child went with the thread"; });
  EXPECT_TRUE(is_alive(child.pid));
  EXPECT_EQ(host_.signal(child, SIGKILL), 0);
  EXPECT_TRUE(serve_until([&] { return deaths_.size() == 1; }));
}

TEST_F(ProcessHostThreads, AChildGoesWithTheDaemonByItsPlan) {
  // The daemon is played by a process of its own, which is killed.
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const pid_t daemon = ::fork();
  if (daemon == 0) {
    CProcessHost host;
    CSpawnPlan plan = plan_of("/bin/sleep", {"60"});
    int32_t pids[2] = {0, 0};
    pids[0] = host.spawn(plan, nullptr).pid;
    plan.parent_death_signal = SIGTERM;
    pids[1] = host.spawn(plan, nullptr).pid;
    (void)!::write(ends[1], pids, sizeof pids);
    (void)::pause();
    ::_exit(0);
  }
  int32_t pids[2] = {0, 0};
  ASSERT_EQ(::read(ends[0], pids, sizeof pids), static_cast<ssize_t>(sizeof pids));
  ASSERT_EQ(::kill(daemon, SIGKILL), 0);
  EXPECT_TRUE(test::wait_until([&] { return !is_alive(pids[1]); }, std::chrono::seconds(1)));
  EXPECT_TRUE(is_alive(pids[0]));
  (void)::kill(pids[0], SIGKILL);
  (void)::waitpid(daemon, nullptr, 0);
  (void)::close(ends[0]);
  (void)::close(ends[1]);
}

TEST_F(ProcessHostThreads, NoDeathOfABurstIsLost) {
  std::set<int32_t> living;
  size_t deaths = 0;
  const auto on_ended = [&](int32_t pid, int32_t) {
    EXPECT_EQ(living.erase(pid), 1U);
    ++deaths;
  };
  constexpr size_t at_once = 1000;
  const CSpawnPlan plan = plan_of("/nonexistent");
  while (deaths < burst) {
    for (size_t count = 0; count < at_once; ++count) {
      ASSERT_GT(host_.spawn(plan, [&](ProcessRef child) { living.insert(child.pid); }).pid, 0);
    }
    ASSERT_TRUE(test::wait_until(
        [&] {
          host_.serve(20, on_ended);
          return living.empty();
        },
        std::chrono::seconds(60)));
  }
  EXPECT_EQ(deaths, burst);
}

TEST_F(ProcessHostThreads, SignalsThatRaceWithDeathsLoseNone) {
  constexpr int rounds = 200;
  std::atomic<bool> done{false};
  std::mutex mutex;
  ProcessRef target;
  std::thread sender([&] {
    while (!done) {
      ProcessRef now;
      {
        const std::lock_guard lock(mutex);
        now = target;
      }
      (void)host_.signal(now, SIGUSR1);  // whether it is still there is the question
      (void)host_.is_current(now);
    }
  });
  for (int round = 0; round < rounds; ++round) {
    (void)host_.spawn(plan_of("/nonexistent"), [&](ProcessRef child) {
      const std::lock_guard lock(mutex);
      target = child;
    });
    const size_t before = deaths_.size();
    ASSERT_TRUE(serve_until([&] { return deaths_.size() > before; }));
  }
  done = true;
  sender.join();
  EXPECT_EQ(deaths_.size(), size_t{rounds});
}

std::atomic<int> handled{0};
std::atomic<int> handled_inside{0};

TEST_F(ProcessHostThreads, RunToEndAndServeWaitWithTheSignalWindowOpen) {
  struct sigaction action {};
  action.sa_handler = [](int) {
    ++handled;
    if (SignalWindow::inside()) ++handled_inside;
  };
  ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
  std::thread main_thread([] {
    CProcessHost host;
    open_window_for_sigusr1();
    ASSERT_TRUE(host.bind_to_this_thread());
    std::thread sender([thread = ::pthread_self()] {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      (void)::pthread_kill(thread, SIGUSR1);
    });
    host.run_to_end(shell("sleep 0.5"));
    EXPECT_EQ(handled, 1);
    ASSERT_EQ(::pthread_kill(::pthread_self(), SIGUSR1), 0);
    EXPECT_EQ(handled, 1) << "the window is closed again";
    host.serve(1000, [](int32_t, int32_t) {});
    EXPECT_EQ(handled, 2);
    sender.join();
  });
  main_thread.join();
  EXPECT_EQ(handled_inside, 2);
  ASSERT_NE(::signal(SIGUSR1, SIG_DFL), SIG_ERR);
}

}  // namespace
}  // namespace Tessaro::Iot::Component
