#include "platform/thread.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>

#include "platform/function.h"
#include "wait_until.h"

namespace Tessaro::Iot::Component {
namespace {

using test::milliseconds_of;
using test::wait_until;

class Worker final : public CThread {
 public:
  explicit Worker(TFunction1<void, Worker&> body, int32_t policy = policy_normal, uint32_t stack_size = 0,
                  const std::string& name = "worker")
      : CThread(name, policy, 10, stack_size), body_(std::move(body)) {}
  ~Worker() override { (void)stopThread(); }

  std::atomic<int> started{0};
  std::atomic<int> ended{0};

 private:
  int32_t threadProc() override {
    ++started;
    body_(*this);
    ++ended;
    return 0;
  }

  const TFunction1<void, Worker&> body_;
};

void until_cancelled(Worker& worker) {
  while (worker.looping()) CThread::sleep(60'000);
}

TEST(Thread, RunsItsBodyOnce) {
  Worker worker([](Worker&) {});
  EXPECT_EQ(worker.name(), "worker");
  EXPECT_TRUE(worker.createThread());
  EXPECT_TRUE(wait_until([&] { return worker.ended == 1; }));
  EXPECT_TRUE(worker.stopThread());
  EXPECT_EQ(worker.started, 1);
}

TEST(Thread, IsNotCreatedWhileItsBodyRuns) {
  Worker worker(until_cancelled);
  EXPECT_TRUE(worker.createThread());
  EXPECT_FALSE(worker.createThread());
  EXPECT_TRUE(worker.stopThread());
  EXPECT_EQ(worker.started, 1);
}

TEST(Thread, StopEndsTheSleepAndWaitsForTheBody) {
  Worker worker(until_cancelled);
  ASSERT_TRUE(worker.createThread());
  ASSERT_TRUE(wait_until([&] { return worker.started == 1; }));
  EXPECT_LT(milliseconds_of([&] { EXPECT_TRUE(worker.stopThread()); }), 5000);
  EXPECT_EQ(worker.ended, 1);
  EXPECT_FALSE(worker.looping());
}

TEST(Thread, CanBeCreatedAgainAfterAStop) {
  Worker worker(until_cancelled);
  for (int cycle = 1; cycle <= 20; ++cycle) {
    ASSERT_TRUE(worker.createThread());
    EXPECT_TRUE(worker.looping());
    ASSERT_TRUE(wait_until([&] { return worker.started == cycle; }));
    EXPECT_EQ(worker.ended, cycle - 1) << "a former stop was still felt";
    EXPECT_TRUE(worker.stopThread());
    EXPECT_EQ(worker.ended, cycle);
  }
}

TEST(Thread, CanBeCreatedAgainAfterTheBodyReturned) {
  Worker worker([](Worker&) {});
  for (int cycle = 1; cycle <= 20; ++cycle) {
    ASSERT_TRUE(wait_until([&] { return worker.createThread(); }));
    ASSERT_TRUE(wait_until([&] { return worker.ended == cycle; }));
  }
}

TEST(Thread, AStopOfAThreadThatNeverRanReturnsAtOnce) {
  Worker worker(until_cancelled);
  EXPECT_LT(test::least_milliseconds_of([&] {
              EXPECT_TRUE(worker.stopThread());
              EXPECT_TRUE(worker.stopThread());
            }),
            100);
  EXPECT_TRUE(worker.createThread());
  EXPECT_TRUE(worker.stopThread());
  EXPECT_TRUE(worker.stopThread());
}

TEST(Thread, CancelIsHarmlessBeforeTheThreadExistsAndForgottenByCreate) {
  Worker worker(until_cancelled);
  worker.cancelThread();
  worker.cancelThread();
  EXPECT_FALSE(worker.looping());
  ASSERT_TRUE(worker.createThread());
  ASSERT_TRUE(wait_until([&] { return worker.started == 1; }));
  EXPECT_TRUE(worker.looping());
  EXPECT_TRUE(worker.stopThread());
}

TEST(Thread, CancelEndsTheSleepWithoutWaitingForTheBody) {
  std::atomic<bool> go_on{false};
  Worker worker([&](Worker& self) {
    until_cancelled(self);
    while (!go_on) ::usleep(1000);
  });
  ASSERT_TRUE(worker.createThread());
  ASSERT_TRUE(wait_until([&] { return worker.started == 1; }));
  EXPECT_LT(milliseconds_of([&] { worker.cancelThread(); }), 5000);
  EXPECT_FALSE(worker.looping());
  EXPECT_EQ(worker.ended, 0);
  EXPECT_FALSE(worker.createThread()) << "the body still runs";
  go_on = true;
  EXPECT_TRUE(wait_until([&] { return worker.ended == 1; }));
}

TEST(Thread, AStopByTheThreadItselfOnlyCancels) {
  Worker worker([](Worker& self) { EXPECT_TRUE(self.stopThread()); });
  ASSERT_TRUE(worker.createThread());
  EXPECT_TRUE(wait_until([&] { return worker.ended == 1; }));
  EXPECT_FALSE(worker.looping());
  EXPECT_TRUE(wait_until([&] { return worker.createThread(); }));
}

CThread* cancelled_by_handler = nullptr;

TEST(Thread, CanBeCancelledByASignalHandler) {
  Worker worker(until_cancelled);
  cancelled_by_handler = &worker;
  struct sigaction action {};
  action.sa_handler = [](int) { cancelled_by_handler->cancelThread(); };
  struct sigaction before {};
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);
  ASSERT_TRUE(worker.createThread());
  ASSERT_TRUE(wait_until([&] { return worker.started == 1; }));
  ASSERT_EQ(::pthread_kill(::pthread_self(), SIGUSR1), 0);
  EXPECT_TRUE(wait_until([&] { return worker.ended == 1; }));
  ASSERT_EQ(::sigaction(SIGUSR1, &before, nullptr), 0);
}

TEST(Thread, SleepTakesItsTimeWhereverItIsCalled) {
  EXPECT_GE(milliseconds_of([] { CThread::sleep(60); }), 60);
  std::atomic<int64_t> taken{0};
  Worker worker([&](Worker&) { taken = milliseconds_of([] { CThread::sleep(60); }); });
  ASSERT_TRUE(worker.createThread());
  ASSERT_TRUE(wait_until([&] { return worker.ended == 1; }));
  EXPECT_GE(taken, 60);
}

TEST(Thread, IsStoppedByItsDestructor) {
  std::atomic<bool> ended{false};
  {
    Worker worker([&](Worker& self) {
      until_cancelled(self);
      ended = true;
    });
    ASSERT_TRUE(worker.createThread());
  }
  EXPECT_TRUE(ended);
}

TEST(Thread, ShowsTheFirstFifteenBytesOfItsName) {
  std::array<char, 16> shown{};
  Worker worker([&](Worker&) { (void)::pthread_getname_np(::pthread_self(), shown.data(), shown.size()); },
                CThread::policy_normal, 0, "sevice_manager_thread");
  ASSERT_TRUE(worker.createThread());
  EXPECT_TRUE(worker.stopThread());
  EXPECT_STREQ(shown.data(), "sevice_manager_");
}

class StackSize : public testing::TestWithParam<uint32_t> {};

TEST_P(StackSize, AnySizeGivesAThread) {
  size_t size = 0;
  Worker worker(
      [&](Worker&) {
        pthread_attr_t attributes;
        (void)::pthread_getattr_np(::pthread_self(), &attributes);
        (void)::pthread_attr_getstacksize(&attributes, &size);
        (void)::pthread_attr_destroy(&attributes);
      },
      CThread::policy_normal, GetParam());
  ASSERT_TRUE(worker.createThread());
  EXPECT_TRUE(worker.stopThread());
  EXPECT_GE(size, GetParam());
}
INSTANTIATE_TEST_SUITE_P(Sizes, StackSize, testing::Values(0U, 1U, 256U * 1024, 1024U * 1024));

TEST(Thread, GivesFaultHandlersAStackOfTheirOwn) {
  stack_t stack{};
  Worker worker([&](Worker&) { (void)::sigaltstack(nullptr, &stack); });
  ASSERT_TRUE(worker.createThread());
  EXPECT_TRUE(worker.stopThread());
  EXPECT_EQ(stack.ss_flags & SS_DISABLE, 0);
}

// The policy that a thread with policy_fifo finds itself with; the reset flag included.
int policy_of_fifo_thread() {
  int policy = -1;
  Worker worker([&](Worker&) { policy = ::sched_getscheduler(0); }, CThread::policy_fifo);
  if (!worker.createThread()) return -1;
  (void)worker.stopThread();  // always true
  return policy;
}

TEST(Thread, RunsInRealTimeWherePermittedAndNotInItsChildren) {
  sched_param parameters{};
  parameters.sched_priority = 10;
  if (::sched_setscheduler(0, SCHED_FIFO, &parameters) != 0) GTEST_SKIP() << "needs the right to real time";
  parameters.sched_priority = 0;
  ASSERT_EQ(::sched_setscheduler(0, SCHED_OTHER, &parameters), 0);
  EXPECT_EQ(policy_of_fifo_thread(), SCHED_FIFO | SCHED_RESET_ON_FORK);
}

// Ends the process with 0 when the thread runs with the normal policy.
[[noreturn]] void run_fifo_without_permission() {
  const rlimit none{0, 0};
  (void)::setrlimit(RLIMIT_RTPRIO, &none);
  (void)!::setuid(65534);  // refused without root, and then there is nothing to give up
  ::_exit(policy_of_fifo_thread() == SCHED_OTHER ? 0 : 1);
}

TEST(ThreadDeathTest, RunsNormallyWhereRealTimeIsNotPermitted) {
  EXPECT_EXIT(run_fifo_without_permission(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace Tessaro::Iot::Component
