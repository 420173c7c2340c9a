#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <string>
#include <thread>

#include "bus_test.h"
#include "descriptors.h"

namespace test {
namespace {

class LossTest : public BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    channel_ = new_channel(channel_name, channel_path, {"type='signal',sender='org.freedesktop.DBus'"});
    channel_->register_method_callback("echo", [](CDBusRequest&, CDBusResponse&, bool&) {});
    channel_->register_signal_callback("feedDog", [this](CDBusSignal&) { notes_.add("fed"); });
  }

  void report_losses() {
    channel_->register_error_callback([this](int32_t error) {
      notes_.add("lost " + std::to_string(error));
      lost_.open();
    });
  }
  // Cuts the channel off the bus; everybody else stays connected.
  static void cut_off(const std::set<int>& before_start) {
    for (const int fd : open_descriptors()) {
      if (before_start.count(fd) == 0 && is_socket(fd)) (void)::shutdown(fd, SHUT_RDWR);
    }
  }
  void restart_bus() {
    ASSERT_TRUE(bus_.start());
    peer_ = std::make_unique<Peer>(bus_.address());
    ASSERT_TRUE(peer_->ok());
  }
  bool echoes() { return peer().call(channel_name, channel_path, "", "echo").ok(); }
  bool comes_back() {
    return wait_until([this] { return echoes(); }, std::chrono::seconds(20));
  }

  static constexpr const char* told = "lost 104";  // ECONNRESET

  Notes notes_;
  Gate lost_;
  std::unique_ptr<CDBusChannel> channel_;
};

TEST_F(LossTest, is_told_once_to_the_error_handler) {
  report_losses();
  ASSERT_EQ(ECONNRESET, 104);
  ASSERT_TRUE(channel_->start());
  bus_.kill();
  ASSERT_TRUE(lost_.pass());
  CDBusSignal signal(channel_path, channel_name, "tick");
  EXPECT_FALSE(channel_->send(signal));
  channel_->stop();
  EXPECT_EQ(notes_.all(), std::vector<std::string>{told});
}

TEST_F(LossTest, leaves_a_new_start_to_others_when_there_is_an_error_handler) {
  report_losses();
  ASSERT_TRUE(channel_->start());
  for (int cycle = 1; cycle <= 3; ++cycle) {
    bus_.kill();
    ASSERT_TRUE(wait_until([this, cycle] { return notes_.size() == static_cast<size_t>(cycle); }));
    EXPECT_FALSE(channel_->start());
    ASSERT_NO_FATAL_FAILURE(restart_bus());
    EXPECT_TRUE(channel_->start());
    EXPECT_TRUE(echoes());
  }
}

TEST_F(LossTest, may_be_answered_with_a_start_by_the_error_handler) {
  Gate again;
  channel_->register_error_callback([this, &again](int32_t) {
    EXPECT_TRUE(channel_->start());
    EXPECT_TRUE(channel_->start());
    again.open();
  });
  const std::set<int> before = open_descriptors();
  ASSERT_TRUE(channel_->start());
  cut_off(before);
  ASSERT_TRUE(again.pass());
  EXPECT_TRUE(comes_back());
}

TEST_F(LossTest, may_be_answered_with_a_stop_by_the_error_handler) {
  channel_->register_error_callback([this](int32_t) {
    channel_->stop();
    EXPECT_FALSE(channel_->start());
    lost_.open();
  });
  ASSERT_TRUE(channel_->start());
  bus_.kill();
  ASSERT_TRUE(lost_.pass());
  ASSERT_NO_FATAL_FAILURE(restart_bus());
  EXPECT_TRUE(channel_->start());
  EXPECT_TRUE(echoes());
}

TEST_F(LossTest, survives_an_error_handler_that_throws) {
  channel_->register_error_callback([this](int32_t) {
    lost_.open();
    throw 1;
  });
  ASSERT_TRUE(channel_->start());
  bus_.kill();
  ASSERT_TRUE(lost_.pass());
  channel_->stop();
}

TEST_F(LossTest, is_mended_without_an_error_handler) {
  ASSERT_TRUE(channel_->start());
  for (int cycle = 0; cycle < 3; ++cycle) {
    bus_.kill();
    ASSERT_NO_FATAL_FAILURE(restart_bus());
    EXPECT_TRUE(comes_back());
  }
  // The match rules are back as well.
  ASSERT_TRUE(peer().emit("", "/any", channel_name, "feedDog"));
  ASSERT_TRUE(peer().settle(channel_name));
  EXPECT_EQ(notes_.size(), 1U);
}

TEST_F(LossTest, of_this_channel_alone_is_mended_too) {
  const std::set<int> before = open_descriptors();
  ASSERT_TRUE(channel_->start());
  const std::string owner = peer().owner_of(channel_name);
  cut_off(before);
  ASSERT_TRUE(wait_until([this, &owner] {
    const std::string now = peer().owner_of(channel_name);
    return !now.empty() && now != owner;
  }));
  EXPECT_TRUE(comes_back());
}

TEST_F(LossTest, that_is_being_mended_does_not_hold_up_a_stop_or_a_start) {
  ASSERT_TRUE(channel_->start());
  bus_.kill();
  ASSERT_TRUE(wait_until([this] { return !channel_->start(); }));  // until the loss is noticed it is still up
  ASSERT_NO_FATAL_FAILURE(restart_bus());
  EXPECT_TRUE(channel_->start());
  bus_.kill();
  CDBusSignal signal(channel_path, channel_name, "tick");
  ASSERT_TRUE(wait_until([this, &signal] { return !channel_->send(signal); }));
  EXPECT_LT(milliseconds_of([this] { channel_->stop(); }), promptly_ms);
}

TEST_F(LossTest, ends_the_calls_that_wait) {
  report_losses();
  auto service = new_channel(other_name, other_path);
  Gate muted;
  service->register_method_callback("mute", [&muted](CDBusRequest&, CDBusResponse&, bool& answered_later) {
    answered_later = true;
    muted.open();
  });
  ASSERT_TRUE(channel_->start());
  ASSERT_TRUE(service->start());
  const auto call = [this] {
    CDBusRequest request(other_name, other_path, other_name, "mute");
    CDBusResponse response;
    EXPECT_EQ(channel_->call(request, response, 60'000), CDBusChannel::call_closed);
    EXPECT_EQ(channel_->call(request, response, 60'000), CDBusChannel::call_closed);
    notes_.add("ended");
  };
  channel_->register_signal_callback("run", [&call](CDBusSignal&) { call(); });
  ASSERT_TRUE(peer().emit(channel_name, channel_path, channel_name, "run"));
  std::thread caller(call);
  ASSERT_TRUE(muted.pass());
  bus_.kill();
  caller.join();
  ASSERT_TRUE(lost_.pass());
  channel_->stop();
  service->stop();
  const std::vector<std::string> notes = notes_.all();
  EXPECT_EQ(std::count(notes.begin(), notes.end(), "ended"), 2);
  EXPECT_EQ(std::count(notes.begin(), notes.end(), told), 1);
}

TEST_F(LossTest, still_handles_what_came_before_it) {
  report_losses();
  ASSERT_TRUE(channel_->start());
  Gate holding;
  Gate leave;
  channel_->register_signal_callback("hold", [&](CDBusSignal&) {
    holding.open();
    EXPECT_TRUE(leave.pass());
  });
  ASSERT_TRUE(peer().emit(channel_name, channel_path, channel_name, "hold"));
  ASSERT_TRUE(holding.pass());
  for (int feed = 0; feed < 10; ++feed) ASSERT_TRUE(peer().emit("", "/any", channel_name, "feedDog"));
  ASSERT_TRUE(peer().settle(DBUS_SERVICE_DBUS));  // the bus has passed them on
  bus_.kill();
  leave.open();
  ASSERT_TRUE(lost_.pass());
  std::vector<std::string> expected(10, "fed");
  expected.push_back(told);
  EXPECT_EQ(notes_.all(), expected);
}

}  // namespace
}  // namespace test
