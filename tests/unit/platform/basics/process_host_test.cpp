#include "platform/process_host.h"

#include <sys/resource.h>

#include <fstream>

#include "platform/signal_window.h"
#include "platform/sys/process.h"
#include "process_fixture.h"
#include "wait_until.h"

namespace Tessaro::Iot::Component {
namespace {

using test::milliseconds_of;

class ProcessHost : public test::ProcessTest {
 protected:
  // Starts a child of the test's own, a stranger to the host, that gets the number `pid`. Returns whether it did.
  static bool fork_stranger_as(int32_t pid) {
    std::ofstream("/proc/sys/kernel/ns_last_pid") << pid - 1 << std::flush;
    const pid_t stranger = ::fork();
    if (stranger == 0) {
      (void)::pause();
      ::_exit(0);
    }
    if (stranger == pid) return true;
    end_stranger(stranger);
    return false;
  }

  static void end_stranger(int32_t pid) {
    (void)::kill(pid, SIGKILL);
    (void)::waitpid(pid, nullptr, 0);
  }
};

TEST_F(ProcessHost, ADeathIsHandedOverWithItsRawStatus) {
  EXPECT_EQ(run(shell("exit 0")), 0);
  EXPECT_EQ(run(shell("exit 7")), 7 << 8);
  EXPECT_EQ(run(shell("kill -TERM $$")), SIGTERM);
  EXPECT_EQ(run(shell("kill -KILL $$")), SIGKILL);
}

TEST_F(ProcessHost, ACoreDumpIsToldInTheRawStatus) {
  const int32_t status = run(shell("ulimit -c 0; kill -SEGV $$"));
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGSEGV);
}

TEST_F(ProcessHost, AStoppedChildHasNotEnded) {
  const ProcessRef child = host_.spawn(plan_of("/bin/sleep", {"60"}), nullptr);
  ASSERT_EQ(host_.signal(child, SIGSTOP), 0);
  host_.serve(100, [](int32_t, int32_t) { FAIL() << "nothing has ended"; });
  EXPECT_EQ(host_.signal(child, SIGCONT), 0);
  host_.serve(100, [](int32_t, int32_t) { FAIL() << "nothing has ended"; });
  EXPECT_EQ(host_.signal(child, SIGKILL), 0);
  EXPECT_TRUE(serve_until([&] { return deaths_.size() == 1; }));
}

TEST_F(ProcessHost, TheStartIsToldBeforeTheDeath) {
  constexpr int rounds = 300;
  int32_t stored = 0;
  int deaths = 0;
  for (int round = 0; round < rounds; ++round) {
    (void)host_.spawn(plan_of("/nonexistent"), [&](ProcessRef child) { stored = child.pid; });
    while (stored != 0) {
      host_.serve(20, [&](int32_t pid, int32_t) {
        EXPECT_EQ(pid, stored);
        stored = 0;
        ++deaths;
      });
    }
  }
  EXPECT_EQ(deaths, rounds);
}

// Ends the process with 0 when a fork that the system refuses is told as it should be.
[[noreturn]] void start_without_permission() {
  const rlimit none{0, 0};
  (void)::setrlimit(RLIMIT_NPROC, &none);
  (void)!::setuid(65534);  // the limit does not hold for root; refused for others, whom it holds already
  CProcessHost host;
  ProcessRef told{7, 7};
  CSpawnPlan plan;
  plan.program = "/bin/true";
  const ProcessRef child = host.spawn(plan, [&](ProcessRef process) { told = process; });
  ::_exit(child == ProcessRef{} && told == child && !host.is_current(child) ? 0 : 1);
}

TEST(ProcessHostDeathTest, AFailedForkIsToldAsPid0) {
  EXPECT_EXIT(start_without_permission(), testing::ExitedWithCode(0), "");
}

TEST_F(ProcessHost, AnEndedChildIsCurrentUntilItIsReaped) {
  const ProcessRef child = host_.spawn(shell("exit 0"), nullptr);
  ASSERT_TRUE(test::wait_until([&] { return !is_alive(child.pid); }));
  EXPECT_TRUE(host_.is_current(child));
  EXPECT_EQ(host_.signal(child, SIGTERM), 0);
  bool current_in_handler = false;
  host_.serve(0, [&](int32_t, int32_t) { current_in_handler = host_.is_current(child); });
  EXPECT_TRUE(current_in_handler);
  EXPECT_FALSE(host_.is_current(child));
  EXPECT_EQ(host_.signal(child, SIGTERM), -1);
}

TEST_F(ProcessHost, AStrangerWithTheNumberOfAReapedChildIsNeverSignalled) {
  const ProcessRef child = host_.spawn(shell("exit 0"), nullptr);
  ASSERT_TRUE(serve_until([&] { return deaths_.size() == 1; }));
  if (!fork_stranger_as(child.pid)) GTEST_SKIP() << "numbers cannot be chosen here";
  EXPECT_EQ(host_.signal(child, SIGKILL), -1);
  EXPECT_FALSE(host_.is_current(child));
  EXPECT_TRUE(is_alive(child.pid));
  end_stranger(child.pid);
}

TEST_F(ProcessHost, AnotherChildWithTheNumberOfAReapedOneIsAnother) {
  const ProcessRef first = host_.spawn(shell("exit 0"), nullptr);
  ASSERT_TRUE(serve_until([&] { return deaths_.size() == 1; }));
  std::ofstream("/proc/sys/kernel/ns_last_pid") << first.pid - 1 << std::flush;
  const ProcessRef second = host_.spawn(plan_of("/bin/sleep", {"60"}), nullptr);
  EXPECT_NE(first.serial, second.serial);
  EXPECT_EQ(host_.signal(first, SIGKILL), -1);
  EXPECT_TRUE(is_alive(second.pid));
  EXPECT_EQ(host_.signal(second, SIGKILL), 0);
  EXPECT_TRUE(serve_until([&] { return deaths_.size() == 2; }));
  if (first.pid != second.pid) GTEST_SKIP() << "numbers cannot be chosen here";
}

TEST_F(ProcessHost, NoReferenceNamesAProcessByItsNumberAlone) {
  EXPECT_EQ(host_.signal(ProcessRef{}, 0), -1);
  EXPECT_EQ(host_.signal(ProcessRef{::getpid(), 0}, 0), -1);
  EXPECT_EQ(host_.signal(ProcessRef{-1, 1}, SIGTERM), -1);
  EXPECT_FALSE(host_.is_current(ProcessRef{::getpid(), 0}));
}

TEST_F(ProcessHost, AnAdoptedProcessIsSignalledUntilItIsForgotten) {
  const pid_t stranger = ::fork();
  if (stranger == 0) {
    (void)::pause();
    ::_exit(0);
  }
  const ProcessRef adopted = host_.adopt(stranger, UniqueFd(sys::open_process(stranger)));
  EXPECT_EQ(adopted.pid, stranger);
  EXPECT_TRUE(host_.is_current(adopted));
  EXPECT_EQ(host_.signal(adopted, 0), 0);
  host_.forget(adopted);
  host_.forget(adopted);
  EXPECT_FALSE(host_.is_current(adopted));
  EXPECT_EQ(host_.signal(adopted, SIGKILL), -1);
  EXPECT_TRUE(is_alive(stranger));
  end_stranger(stranger);
}

TEST_F(ProcessHost, AStrangerWithTheNumberOfAnAdoptedProcessIsNeverSignalled) {
  const pid_t first = ::fork();
  if (first == 0) ::_exit(0);
  const ProcessRef adopted = host_.adopt(first, UniqueFd(sys::open_process(first)));
  end_stranger(first);
  EXPECT_FALSE(host_.is_current(adopted));
  EXPECT_EQ(host_.signal(adopted, SIGKILL), -1);
  if (!fork_stranger_as(first)) GTEST_SKIP() << "numbers cannot be chosen here";
  EXPECT_EQ(host_.signal(adopted, SIGKILL), -1);
  EXPECT_TRUE(is_alive(first));
  end_stranger(first);
}

TEST_F(ProcessHost, WhatDoesNotExistCannotBeAdopted) {
  const pid_t gone = ::fork();
  if (gone == 0) ::_exit(0);
  end_stranger(gone);
  const ProcessRef adopted = host_.adopt(gone, UniqueFd(sys::open_process(gone)));
  EXPECT_EQ(adopted, (ProcessRef{gone, 0}));
  EXPECT_EQ(host_.signal(adopted, 0), -1);
}

TEST_F(ProcessHost, ForgettingAChildChangesNothing) {
  const ProcessRef child = host_.spawn(plan_of("/bin/sleep", {"60"}), nullptr);
  host_.forget(child);
  EXPECT_TRUE(host_.is_current(child));
  EXPECT_EQ(host_.signal(child, SIGKILL), 0);
  EXPECT_TRUE(serve_until([&] { return deaths_.size() == 1; }));
}

TEST_F(ProcessHost, DeathsAreSeenAlsoWhenTheStarterIgnoredThem) {
  ASSERT_NE(::signal(SIGCHLD, SIG_IGN), SIG_ERR);
  ASSERT_TRUE(host_.bind_to_this_thread());
  EXPECT_EQ(run(shell("exit 3")), 3 << 8);
}

TEST_F(ProcessHost, ADeathEndsTheWaitOfTheLoop) {
  (void)host_.spawn(shell("sleep 0.1"), nullptr);
  EXPECT_LT(milliseconds_of([&] { host_.serve(20'000, [](int32_t, int32_t) {}); }), 10'000);
  EXPECT_TRUE(serve_until([&] { return deaths_.size() == 1; }));
}

TEST_F(ProcessHost, ADeathBeforeTheLoopIsNotLost) {
  const ProcessRef child = host_.spawn(shell("exit 0"), nullptr);
  ASSERT_TRUE(test::wait_until([&] { return !is_alive(child.pid); }));
  int deaths = 0;
  host_.serve(0, [&](int32_t, int32_t) { ++deaths; });
  EXPECT_EQ(deaths, 1);
}

TEST_F(ProcessHost, TheLoopWaitsForItsTimeWhenNothingHappens) {
  EXPECT_GE(milliseconds_of([&] { host_.serve(60, [](int32_t, int32_t) {}); }), 60);
}

TEST_F(ProcessHost, RunToEndLeavesOtherDeathsToTheLoop) {
  const ProcessRef other = host_.spawn(shell("exit 5"), nullptr);
  ASSERT_TRUE(test::wait_until([&] { return !is_alive(other.pid); }));
  host_.run_to_end(shell("sleep 0.05; echo done > '" + (temp_ / "result") + "'"));
  EXPECT_EQ(test::read_file(temp_ / "result"), "done\n");
  ASSERT_TRUE(serve_until([&] { return deaths_.size() == 1; }));
  EXPECT_EQ(deaths_[0].pid, other.pid);
  EXPECT_EQ(deaths_[0].raw_status, 5 << 8);
}

TEST_F(ProcessHost, AnEndIsWaitedForWithoutReaping) {
  const ProcessRef child = host_.spawn(shell("sleep 0.1"), nullptr);
  EXPECT_LT(milliseconds_of([&] { host_.wait_until_ended(child, 20'000); }), 10'000);
  EXPECT_FALSE(is_alive(child.pid));
  EXPECT_TRUE(host_.is_current(child));
  EXPECT_TRUE(serve_until([&] { return deaths_.size() == 1; }));
}

TEST_F(ProcessHost, AnEndIsWaitedForNoLongerThanAsked) {
  const ProcessRef child = host_.spawn(plan_of("/bin/sleep", {"60"}), nullptr);
  EXPECT_GE(milliseconds_of([&] { host_.wait_until_ended(child, 100); }), 95);
  EXPECT_EQ(host_.signal(child, SIGKILL), 0);
  EXPECT_TRUE(serve_until([&] { return deaths_.size() == 1; }));
}

TEST_F(ProcessHost, OnlyTheEndOfAChildIsWaitedFor) {
  const ProcessRef reaped = host_.spawn(shell("exit 0"), nullptr);
  ASSERT_TRUE(serve_until([&] { return deaths_.size() == 1; }));
  const ProcessRef adopted = host_.adopt(::getpid(), UniqueFd(sys::open_process(::getpid())));
  EXPECT_LT(milliseconds_of([&] {
              host_.wait_until_ended(reaped, 20'000);
              host_.wait_until_ended(ProcessRef{}, 20'000);
              host_.wait_until_ended(adopted, 20'000);
            }),
            10'000);
}

TEST_F(ProcessHost, RunToEndDoesNotWaitForWhatTheProgramLeavesBehind) {
  EXPECT_LT(milliseconds_of([&] { host_.run_to_end(shell("sleep 30 & echo $! > '" + (temp_ / "pid") + "'")); }),
            10'000);
  (void)::kill(std::stoi(test::read_file(temp_ / "pid")), SIGKILL);
}

}  // namespace
}  // namespace Tessaro::Iot::Component
