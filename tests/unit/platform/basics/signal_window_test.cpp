#include "platform/signal_window.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "platform/thread.h"
#include "wait_until.h"

namespace Tessaro::Iot::Component {
namespace {

using test::milliseconds_of;
using test::wait_until;

std::atomic<int> handled{0};
std::atomic<int> handled_inside{0};
std::atomic<int> nested_result{0};

// Each test plays the main thread on a thread of its own: a window stays with its thread for good.
class Window : public testing::Test {
 protected:
  void SetUp() override {
    handled = 0;
    handled_inside = 0;
    set_handler([](int) {
      ++handled;
      if (SignalWindow::inside()) ++handled_inside;
    });
    sigset_t signals;
    (void)::sigemptyset(&signals);
    (void)::sigaddset(&signals, SIGUSR1);
    (void)::sigaddset(&signals, SIGUSR2);
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &signals, &before_), 0);
  }

  void TearDown() override {
    (void)::signal(SIGUSR1, SIG_DFL);
    (void)::signal(SIGUSR2, SIG_DFL);
    (void)::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }

  static void set_handler(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
    ASSERT_EQ(::sigaction(SIGUSR2, &action, nullptr), 0);
  }

  // Runs `body` on a thread with a window, beside which `beside` runs with that thread's handle.
  template <class Body, class Beside>
  void with_window(Body body, Beside beside) {
    std::atomic<bool> ended{false};
    std::thread thread([&] {
      sigset_t open;
      (void)::sigemptyset(&open);
      SignalWindow::open_on_this_thread(open);
      body();
      ended = true;
    });
    beside(thread.native_handle());
    EXPECT_TRUE(wait_until([&] { return ended.load(); }));
    thread.join();
  }

  sigset_t before_{};
};

TEST_F(Window, HandlersRunOnlyInTheWindow) {
  std::atomic<bool> sent{false};
  with_window(
      [&] {
        EXPECT_TRUE(wait_until([&] { return sent.load(); }));
        EXPECT_EQ(handled, 0) << "outside the window";
        errno = 0;
        EXPECT_EQ(SignalWindow::poll(nullptr, 0, 10'000), -1);
        EXPECT_EQ(errno, EINTR);
        EXPECT_EQ(handled, 1);
        EXPECT_EQ(handled_inside, 1);
        EXPECT_FALSE(SignalWindow::inside());
      },
      [&](pthread_t thread) {
        ASSERT_EQ(::pthread_kill(thread, SIGUSR1), 0);
        sent = true;
      });
}

TEST_F(Window, AThreadWithoutOneJustPolls) {
  ASSERT_EQ(::pthread_kill(::pthread_self(), SIGUSR1), 0);
  EXPECT_GE(milliseconds_of([] { EXPECT_EQ(SignalWindow::poll(nullptr, 0, 50), 0); }), 50);
  EXPECT_EQ(handled, 0);
  EXPECT_FALSE(SignalWindow::inside());
  // Taken, not left behind for the next test.
  sigset_t signals;
  (void)::sigemptyset(&signals);
  (void)::sigaddset(&signals, SIGUSR1);
  const timespec none{};
  EXPECT_EQ(::sigtimedwait(&signals, nullptr, &none), SIGUSR1);
}

TEST_F(Window, TellsWhichDescriptorIsReady) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  with_window(
      [&] {
        pollfd event{ends[0], POLLIN, 0};
        EXPECT_EQ(SignalWindow::poll(&event, 1, -1), 1);
        EXPECT_EQ(event.revents, POLLIN);
      },
      [&](pthread_t) { ASSERT_EQ(::write(ends[1], "x", 1), 1); });
  (void)::close(ends[0]);
  (void)::close(ends[1]);
}

TEST_F(Window, AHandlerThatWaitsOpensItAgain) {
  set_handler([](int number) {
    ++handled;
    if (number != SIGUSR1) return;
    const int before = errno;
    nested_result = SignalWindow::poll(nullptr, 0, 10'000);
    errno = before;
    if (SignalWindow::inside()) ++handled_inside;
  });
  with_window([] { EXPECT_EQ(SignalWindow::poll(nullptr, 0, 10'000), -1); },
              [](pthread_t thread) {
                ASSERT_EQ(::pthread_kill(thread, SIGUSR1), 0);
                ASSERT_TRUE(wait_until([] { return handled == 1; }));
                ASSERT_EQ(::pthread_kill(thread, SIGUSR2), 0);
              });
  EXPECT_EQ(handled, 2);
  EXPECT_EQ(nested_result, -1);
  EXPECT_EQ(handled_inside, 1) << "the outer wait is still one";
}

TEST_F(Window, IsOpenWhileTheThreadSleepsWhichItDoesInFull) {
  with_window([] { EXPECT_GE(milliseconds_of([] { CThread::sleep(200); }), 200); },
              [](pthread_t thread) {
                for (int count = 1; count <= 5; ++count) {
                  ASSERT_EQ(::pthread_kill(thread, SIGUSR1), 0);
                  if (!wait_until([count] { return handled >= count; }, std::chrono::milliseconds(100))) return;
                }
              });
  EXPECT_GE(handled, 1);
  EXPECT_EQ(handled, handled_inside);
}

}  // namespace
}  // namespace Tessaro::Iot::Component
