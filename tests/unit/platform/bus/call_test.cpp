#include <string>
#include <thread>

#include "bus_test.h"

namespace test {
namespace {

// `channel_` calls methods of `service_`, a channel of its own.
class CallTest : public BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    channel_ = new_channel();
    service_ = new_channel(other_name, other_path);
    service_->register_method_callback("echo", [](CDBusRequest& request, CDBusResponse& response, bool&) {
      std::string text;
      if (request.get_string(text)) (void)response.set_string(text);
    });
    service_->register_method_callback("mute", [this](CDBusRequest&, CDBusResponse& response, bool& answered_later) {
      kept_ = std::move(response);
      answered_later = true;
      muted_.open();
    });
    ASSERT_TRUE(channel_->start());
    ASSERT_TRUE(service_->start());
  }

  static CDBusRequest request_for(const std::string& member) {
    return CDBusRequest(other_name, other_path, other_name, member);
  }
  int32_t call(const std::string& member, int64_t timeout_ms = 10'000) {
    CDBusRequest request = request_for(member);
    CDBusResponse response;
    return channel_->call(request, response, timeout_ms);
  }
  // Runs `body` on the dispatch thread of `channel_`.
  void on_dispatch_thread(const std::function<void()>& body) {
    Gate done;
    channel_->register_signal_callback("run", [&body, &done](CDBusSignal&) {
      body();
      done.open();
    });
    ASSERT_TRUE(peer().emit(channel_name, channel_path, channel_name, "run"));
    EXPECT_TRUE(done.pass());
  }

  CDBusResponse kept_;
  Gate muted_;
  std::unique_ptr<CDBusChannel> channel_;
  std::unique_ptr<CDBusChannel> service_;
};

TEST_F(CallTest, brings_the_reply) {
  CDBusRequest request = request_for("echo");
  ASSERT_TRUE(request.set_string("hello"));
  CDBusResponse response;
  ASSERT_EQ(channel_->call(request, response, 10'000), 0);
  std::string text;
  EXPECT_TRUE(response.get_string(text));
  EXPECT_EQ(text, "hello");
}

TEST_F(CallTest, can_be_repeated_with_one_request) {
  CDBusRequest request = request_for("echo");
  ASSERT_TRUE(request.set_string("again"));
  for (int round = 0; round < 3; ++round) {
    CDBusResponse response;
    std::string text;
    ASSERT_EQ(channel_->call(request, response, 10'000), 0);
    EXPECT_TRUE(response.get_string(text));
    EXPECT_EQ(text, "again");
    EXPECT_FALSE(request.set_string("more"));
  }
}

TEST_F(CallTest, fails_at_once_for_what_does_not_exist) {
  CDBusResponse response;
  CDBusRequest nobody("iot.test.nobody", "/", "", "ask");
  EXPECT_EQ(channel_->call(nobody, response, 10'000), CDBusChannel::call_unanswerable);
  EXPECT_EQ(call("unheardOf"), CDBusChannel::call_failed);
  CDBusRequest invalid("", "", "", "");
  EXPECT_EQ(channel_->call(invalid, response, 10'000), CDBusChannel::call_failed);
  EXPECT_EQ(response.message(), nullptr);
}

TEST_F(CallTest, fails_when_the_callee_goes_away) {
  std::thread leaver([this] {
    EXPECT_TRUE(muted_.pass());
    service_->stop();
  });
  EXPECT_EQ(call("mute", 20'000), CDBusChannel::call_unanswerable);
  leaver.join();
}

TEST_F(CallTest, times_out_on_time_when_the_callee_is_silent) {
  for (const int64_t limit : {0, 1, 300}) {
    const auto wait_out = [&] { EXPECT_EQ(call("mute", limit), CDBusChannel::call_timed_out); };
    EXPECT_GE(milliseconds_of(wait_out), limit - 1);
    EXPECT_TRUE(in_time(limit + 100, wait_out)) << limit;
  }
  EXPECT_EQ(call("mute", -5), CDBusChannel::call_timed_out);
}

TEST_F(CallTest, times_out_on_time_on_the_dispatch_thread) {
  on_dispatch_thread([this] {
    const auto wait_out = [this] { EXPECT_EQ(call("mute", 300), CDBusChannel::call_timed_out); };
    EXPECT_GE(milliseconds_of(wait_out), 299);
    EXPECT_TRUE(in_time(400, wait_out));
  });
}

TEST_F(CallTest, times_out_on_time_when_the_bus_stands_still) {
  const auto check = [this] {
    EXPECT_TRUE(in_time(400, [this] { EXPECT_EQ(call("echo", 300), CDBusChannel::call_timed_out); }));
  };
  on_dispatch_thread([this] { bus_.freeze(); });
  check();
  bus_.thaw();
  on_dispatch_thread([this, &check] {
    bus_.freeze();
    check();
    bus_.thaw();
  });
  EXPECT_EQ(call("echo"), 0);
}

TEST_F(CallTest, is_not_disturbed_by_the_late_answer_to_an_earlier_one) {
  ASSERT_EQ(call("mute", 0), CDBusChannel::call_timed_out);
  ASSERT_TRUE(muted_.pass());
  ASSERT_TRUE(peer().settle(other_name));
  ASSERT_TRUE(kept_.set_string("too late"));
  ASSERT_TRUE(service_->send(kept_));
  CDBusRequest request = request_for("echo");
  ASSERT_TRUE(request.set_string("in time"));
  CDBusResponse response;
  std::string text;
  ASSERT_EQ(channel_->call(request, response, 10'000), 0);
  EXPECT_TRUE(response.get_string(text));
  EXPECT_EQ(text, "in time");
}

TEST_F(CallTest, takes_no_signal_for_an_answer) {
  ASSERT_TRUE(peer().own("iot.test.raw"));
  std::thread caller([this] {
    CDBusRequest request("iot.test.raw", "/", "", "ask");
    CDBusResponse response;
    std::string text;
    EXPECT_EQ(channel_->call(request, response, 20'000), 0);
    EXPECT_TRUE(response.get_string(text));
    EXPECT_EQ(text, "true");
  });
  CDBusRequest asked(
      peer().receive([](DBusMessage* message) { return dbus_message_has_member(message, "ask") != FALSE; }));
  ASSERT_NE(asked.message(), nullptr);
  CDBusSignal forged("/", "iot.test.raw", "told");
  ASSERT_TRUE(forged.set_string("forged"));
  ASSERT_TRUE(dbus_message_set_destination(forged.message(), dbus_message_get_sender(asked.message())));
  ASSERT_TRUE(dbus_message_set_reply_serial(forged.message(), dbus_message_get_serial(asked.message())));
  ASSERT_TRUE(peer().send(forged.message()));
  CDBusResponse answer(asked);
  ASSERT_TRUE(answer.set_string("true"));
  ASSERT_TRUE(peer().send(answer.message()));
  caller.join();
}

TEST_F(CallTest, is_closed_where_the_channel_is_not_up) {
  auto idle = new_channel("iot.test.idle", "/iot/test/idle");
  CDBusRequest request = request_for("echo");
  CDBusResponse response;
  EXPECT_EQ(idle->call(request, response, 10'000), CDBusChannel::call_closed);
  EXPECT_FALSE(idle->send(request));
  channel_->stop();
  EXPECT_EQ(call("echo"), CDBusChannel::call_closed);
}

TEST_F(CallTest, leaves_other_messages_of_its_dispatch_thread_in_their_order) {
  constexpr int count = 50;
  Notes notes;
  channel_->register_signal_callback("tick", [&notes](CDBusSignal& signal) {
    int32_t number = -1;
    (void)signal.get_int32(number);
    notes.add(std::to_string(number));
  });
  // Everything that the service sends before its answer arrives while the call waits.
  service_->register_method_callback("chatter", [this](CDBusRequest&, CDBusResponse&, bool&) {
    for (int32_t number = 0; number < count; ++number) {
      CDBusSignal tick(channel_path, channel_name, "tick");
      EXPECT_TRUE(tick.set_int32(number));
      EXPECT_TRUE(service_->send(tick));
    }
  });
  on_dispatch_thread([this, &notes] {
    EXPECT_EQ(call("chatter"), 0);
    EXPECT_EQ(call("echo"), 0);
    notes.add("returned");
  });
  ASSERT_TRUE(peer().settle(channel_name));
  std::vector<std::string> expected{"returned"};
  for (int number = 0; number < count; ++number) expected.push_back(std::to_string(number));
  EXPECT_EQ(notes.all(), expected);
}

TEST_F(CallTest, leaves_method_calls_for_later) {
  channel_->register_method_callback(
      "now", [](CDBusRequest&, CDBusResponse& response, bool&) { (void)response.set_string("served"); });
  std::thread asker([this] {
    Peer second(bus_.address());
    EXPECT_EQ(second.call(channel_name, channel_path, channel_name, "now").text(), "served");
  });
  on_dispatch_thread([this] {
    for (int round = 0; round < 20; ++round) EXPECT_EQ(call("echo"), 0);
  });
  asker.join();
}

TEST_F(CallTest, works_from_the_handler_of_another_channel) {
  service_->register_method_callback("relay", [this](CDBusRequest&, CDBusResponse& response, bool&) {
    CDBusRequest who(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetId");
    CDBusResponse id;
    (void)response.set_int32(channel_->call(who, id, 10'000));
  });
  CDBusRequest request = request_for("relay");
  CDBusResponse response;
  int32_t result = -99;
  ASSERT_EQ(channel_->call(request, response, 10'000), 0);
  EXPECT_TRUE(response.get_int32(result));
  EXPECT_EQ(result, 0);
}

TEST_F(CallTest, sent_without_waiting_asks_for_no_answer) {
  Gate arrived;
  service_->register_method_callback("note", [&arrived](CDBusRequest& request, CDBusResponse&, bool&) {
    EXPECT_TRUE(dbus_message_get_no_reply(request.message()));
    arrived.open();
  });
  CDBusRequest request = request_for("note");
  EXPECT_TRUE(channel_->send(request));
  EXPECT_TRUE(arrived.pass());
}

}  // namespace
}  // namespace test
