#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "bus_test.h"

namespace test {
namespace {

// `channel_` waits for `service_`, which never answers, when it is stopped.
class StopTest : public BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    channel_ = new_channel();
    service_ = new_channel(other_name, other_path);
    service_->register_method_callback("mute", [this](CDBusRequest&, CDBusResponse&, bool& answered_later) {
      answered_later = true;
      muted_.open();
    });
    ASSERT_TRUE(channel_->start());
    ASSERT_TRUE(service_->start());
  }

  static int32_t wait_in_vain(CDBusChannel& channel, int64_t timeout_ms = 60'000) {
    CDBusRequest request(other_name, other_path, other_name, "mute");
    CDBusResponse response;
    return channel.call(request, response, timeout_ms);
  }
  // Runs `body` on the dispatch thread of `channel_` and does not wait for it.
  void run_on_dispatch_thread(std::function<void()> body) {
    channel_->register_signal_callback("run", [body = std::move(body)](CDBusSignal&) { body(); });
    ASSERT_TRUE(peer().emit(channel_name, channel_path, channel_name, "run"));
  }

  Gate muted_;
  std::unique_ptr<CDBusChannel> channel_;
  std::unique_ptr<CDBusChannel> service_;
};

TEST_F(StopTest, ends_the_waiting_calls_of_other_threads_at_once) {
  std::vector<std::thread> callers;
  std::atomic<int> ended{0};
  for (int caller = 0; caller < 4; ++caller) {
    callers.emplace_back([this, &ended] {
      EXPECT_EQ(wait_in_vain(*channel_), CDBusChannel::call_closed);
      ++ended;
    });
  }
  ASSERT_TRUE(muted_.pass());
  EXPECT_LT(milliseconds_of([this] { channel_->stop(); }), promptly_ms);
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(ended.load(), 4);
  EXPECT_EQ(wait_in_vain(*channel_), CDBusChannel::call_closed);
}

TEST_F(StopTest, ends_the_waiting_call_of_a_handler_at_once) {
  Gate ended;
  run_on_dispatch_thread([this, &ended] {
    EXPECT_EQ(wait_in_vain(*channel_), CDBusChannel::call_closed);
    EXPECT_EQ(wait_in_vain(*channel_), CDBusChannel::call_closed);
    ended.open();
  });
  ASSERT_TRUE(muted_.pass());
  EXPECT_LT(milliseconds_of([this] { channel_->stop(); }), promptly_ms);
  EXPECT_TRUE(ended.is_open());
}

TEST_F(StopTest, ends_a_handler_of_another_channel_that_waits_on_this_one) {
  auto carrier = new_channel("iot.test.carrier", "/iot/test/carrier");
  ASSERT_TRUE(carrier->start());
  Gate ended;
  run_on_dispatch_thread([&carrier, &ended] {
    EXPECT_EQ(wait_in_vain(*carrier), CDBusChannel::call_closed);
    ended.open();
  });
  ASSERT_TRUE(muted_.pass());
  carrier->stop();
  channel_->stop();
  EXPECT_TRUE(ended.is_open());
}

TEST_F(StopTest, waits_for_a_handler_that_runs) {
  Gate running;
  Gate leave;
  std::atomic<bool> left{false};
  run_on_dispatch_thread([&] {
    running.open();
    EXPECT_TRUE(leave.pass());
    left = true;
  });
  ASSERT_TRUE(running.pass());
  std::thread stopper([this, &left] {
    channel_->stop();
    EXPECT_TRUE(left.load());
  });
  // Calls fail from the moment that the stop has begun, handler or not.
  EXPECT_TRUE(wait_until([this] { return wait_in_vain(*channel_, 0) == CDBusChannel::call_closed; }));
  leave.open();
  stopper.join();
}

TEST_F(StopTest, is_allowed_in_a_handler) {
  for (int cycle = 0; cycle < 20; ++cycle) {
    Gate stopped;
    run_on_dispatch_thread([this, &stopped] {
      channel_->stop();
      channel_->stop();
      EXPECT_FALSE(channel_->start());
      EXPECT_EQ(wait_in_vain(*channel_), CDBusChannel::call_closed);
      stopped.open();
    });
    ASSERT_TRUE(stopped.pass());
    ASSERT_TRUE(channel_->start());
    ASSERT_TRUE(peer().settle(channel_name));
  }
  Gate stopped;
  run_on_dispatch_thread([this, &stopped] {
    channel_->stop();
    stopped.open();
  });
  ASSERT_TRUE(stopped.pass());
  channel_.reset();
}

TEST_F(StopTest, in_a_method_handler_still_answers_it) {
  channel_->register_method_callback("leave", [this](CDBusRequest&, CDBusResponse& response, bool&) {
    channel_->stop();
    (void)response.set_string("gone");
  });
  EXPECT_EQ(peer().call(channel_name, channel_path, channel_name, "leave").text(), "gone");
}

TEST_F(StopTest, lets_no_handler_run_afterwards) {
  std::atomic<int> ran{0};
  channel_->register_signal_callback("tick", [&ran](CDBusSignal&) { ++ran; });
  std::atomic<bool> enough{false};
  std::thread sender([this, &enough] {
    Peer ticker(bus_.address());
    while (!enough) {
      for (int tick = 0; tick < 100; ++tick) (void)ticker.emit("", channel_path, channel_name, "tick");
    }
  });
  for (int cycle = 0; cycle < 20; ++cycle) {
    const int before = ran;
    ASSERT_TRUE(wait_until([&ran, before] { return ran > before; }));
    channel_->stop();
    const int at_stop = ran;
    std::this_thread::yield();
    EXPECT_EQ(ran, at_stop);
    ASSERT_TRUE(channel_->start());
  }
  enough = true;
  sender.join();
  channel_->stop();
}

TEST_F(StopTest, sends_what_is_queued) {
  constexpr int count = 500;
  std::atomic<int> heard{0};
  service_->register_signal_callback("tick", [&heard](CDBusSignal&) { ++heard; });
  for (int tick = 0; tick < count; ++tick) {
    CDBusSignal signal(other_path, other_name, "tick");
    ASSERT_TRUE(signal.set_string(std::string(1000, 'x')));
    ASSERT_TRUE(channel_->send(signal));
  }
  channel_->stop();
  ASSERT_TRUE(peer().settle(other_name));
  EXPECT_EQ(heard, count);
}

TEST_F(StopTest, does_not_wait_long_for_a_bus_that_stands_still) {
  bus_.freeze();
  CDBusSignal signal(channel_path, channel_name, "tick");
  ASSERT_TRUE(channel_->send(signal));
  EXPECT_LT(milliseconds_of([this] { channel_->stop(); }), promptly_ms);
  EXPECT_LT(milliseconds_of([this] { service_->stop(); }), promptly_ms);
  bus_.thaw();
}

// A handler tells another thread to stop the channel; its caller is answered all the same, also while the bus has a lot
// to tell to the channel.
TEST_F(StopTest, never_loses_the_answer_that_it_follows) {
  auto leaving = new_channel("iot.test.leaving", "/iot/test/leaving");
  Gate* asked = nullptr;
  leaving->register_method_callback("reboot", [&asked](CDBusRequest&, CDBusResponse& response, bool&) {
    (void)response.set_string("Success");
    asked->open();
  });
  leaving->register_signal_callback("tick", [](CDBusSignal&) {});
  std::atomic<bool> enough{false};
  std::thread sender([this, &enough] {
    Peer ticker(bus_.address());
    while (!enough) (void)ticker.emit("", "/iot/test/leaving", "iot.test.leaving", "tick");
  });
  for (int cycle = 0; cycle < 200; ++cycle) {
    Gate gate;
    asked = &gate;
    ASSERT_TRUE(leaving->start()) << cycle;
    std::thread stopper([&gate, &leaving] {
      EXPECT_TRUE(gate.pass());
      leaving->stop();
    });
    EXPECT_EQ(peer().call("iot.test.leaving", "/iot/test/leaving", "", "reboot").text(), "Success") << cycle;
    stopper.join();
  }
  enough = true;
  sender.join();
}

}  // namespace
}  // namespace test
