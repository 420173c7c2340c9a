#include "platform/semaphore.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <limits>
#include <thread>

#include "platform/sys/clock.h"
#include "platform/thread.h"
#include "platform/time.h"
#include "wait_until.h"

namespace {

std::atomic<int> monotonic_waits{0};
std::atomic<int> other_waits{0};

template <class Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

// These stand in front of the C library's own, to see which clock the program waits on: the wall clock of the machine
// cannot be stepped for a test.
extern "C" int sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* deadline) {
  ++(clock == CLOCK_MONOTONIC ? monotonic_waits : other_waits);
  return next<int (*)(sem_t*, clockid_t, const timespec*)>("sem_clockwait")(semaphore, clock, deadline);
}

extern "C" int sem_timedwait(sem_t* semaphore, const timespec* deadline) {
  ++other_waits;
  return next<int (*)(sem_t*, const timespec*)>("sem_timedwait")(semaphore, deadline);
}

namespace Tessaro::Iot::Component {
namespace {

using test::least_milliseconds_of;
using test::milliseconds_of;

TEST(Semaphore, CountsWhatIsPosted) {
  CSemaphore semaphore(2);
  semaphore.post();
  EXPECT_TRUE(semaphore.pend(0));
  EXPECT_TRUE(semaphore.pend(0));
  EXPECT_TRUE(semaphore.pend(1000));
  EXPECT_FALSE(semaphore.pend(0));
}

TEST(Semaphore, WithoutTimeDoesNotWait) {
  CSemaphore semaphore;
  EXPECT_LT(least_milliseconds_of([&] {
              EXPECT_FALSE(semaphore.pend(0));
              EXPECT_FALSE(semaphore.pend(-1));
              EXPECT_FALSE(semaphore.pend(std::numeric_limits<int64_t>::min()));
            }),
            100);
}

TEST(Semaphore, WaitsForItsTime) {
  CSemaphore semaphore;
  for (const int64_t timeout_ms : {1, 150, 1001}) {
    const int64_t least = least_milliseconds_of([&] { EXPECT_FALSE(semaphore.pend(timeout_ms)); });
    EXPECT_GE(least, timeout_ms);
    EXPECT_LT(least, timeout_ms + 200);
  }
}

TEST(Semaphore, APostEndsTheWaitAtOnce) {
  CSemaphore semaphore;
  std::thread poster([&semaphore] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    semaphore.post();
  });
  EXPECT_LT(milliseconds_of([&] { EXPECT_TRUE(semaphore.pend(std::numeric_limits<int64_t>::max())); }), 5000);
  poster.join();
}

TEST(Semaphore, DrainTakesEveryCount) {
  CSemaphore semaphore(40);
  semaphore.drain();
  EXPECT_FALSE(semaphore.pend(0));
  semaphore.drain();
  semaphore.post();
  EXPECT_TRUE(semaphore.pend(0));
}

TEST(Semaphore, EveryPostWakesOneOfManyWaiters) {
  constexpr int threads = 8;
  constexpr int rounds = 500;
  CSemaphore semaphore;
  std::atomic<int> taken{0};
  std::vector<std::thread> waiters;
  for (int index = 0; index < threads; ++index) {
    waiters.emplace_back([&] {
      for (int round = 0; round < rounds; ++round) taken += semaphore.pend(10'000) ? 1 : 0;
    });
  }
  for (int post = 0; post < threads * rounds; ++post) semaphore.post();
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(taken, threads * rounds);
  EXPECT_FALSE(semaphore.pend(0));
}

CSemaphore* posted_by_handler = nullptr;

TEST(Semaphore, CanBePostedByASignalHandler) {
  CSemaphore semaphore;
  posted_by_handler = &semaphore;
  struct sigaction action {};
  action.sa_handler = [](int) { posted_by_handler->post(); };
  struct sigaction before {};
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);
  const pthread_t waiter = ::pthread_self();
  std::thread sender([waiter] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    (void)::pthread_kill(waiter, SIGUSR1);
  });
  EXPECT_LT(milliseconds_of([&] { EXPECT_TRUE(semaphore.pend(10'000)); }), 5000);
  sender.join();
  ASSERT_EQ(::sigaction(SIGUSR1, &before, nullptr), 0);
}

TEST(Semaphore, ASignalDoesNotCutTheWaitShort) {
  CSemaphore semaphore;
  struct sigaction action {};
  action.sa_handler = [](int) {};
  struct sigaction before {};
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);
  const pthread_t waiter = ::pthread_self();
  std::thread sender([waiter] {
    for (int count = 0; count < 5; ++count) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      (void)::pthread_kill(waiter, SIGUSR1);
    }
  });
  EXPECT_GE(milliseconds_of([&] { EXPECT_FALSE(semaphore.pend(300)); }), 300);
  sender.join();
  ASSERT_EQ(::sigaction(SIGUSR1, &before, nullptr), 0);
}

TEST(Semaphore, WaitsOnTheMonotonicClockOnly) {
  CSemaphore semaphore;
  const int before = monotonic_waits;
  EXPECT_FALSE(semaphore.pend(10));
  EXPECT_GT(monotonic_waits, before);
  EXPECT_EQ(other_waits, 0);
}

TEST(Time, FollowsTheMonotonicClock) {
  timespec now{};
  ASSERT_EQ(::clock_gettime(CLOCK_MONOTONIC, &now), 0);
  const int64_t now_ms = static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
  EXPECT_GE(CTime::getSystemStartupMilliSecond(), now_ms);
  EXPECT_LT(CTime::getSystemStartupMilliSecond(), now_ms + 5000);
}

TEST(Time, APauseTakesItsFullTime) {
  const int64_t begin = CTime::getSystemStartupMilliSecond();
  sys::pause_for(120);
  EXPECT_GE(CTime::getSystemStartupMilliSecond() - begin, 120);
  EXPECT_LT(least_milliseconds_of([] { sys::pause_for(0); }), 100);
  EXPECT_LT(least_milliseconds_of([] { sys::pause_for(-5); }), 100);
}

}  // namespace
}  // namespace Tessaro::Iot::Component
