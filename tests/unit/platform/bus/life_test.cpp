#include <filesystem>
#include <fstream>
#include <string>

#include "bus_test.h"
#include "descriptors.h"

namespace test {
namespace {

class LifeTest : public BusTest {
 protected:
  static void add_echo(CDBusChannel& channel) {
    channel.register_method_callback("echo", [](CDBusRequest&, CDBusResponse&, bool&) {});
  }
  bool echoes(const std::string& name = channel_name) { return peer().call(name, channel_path, "", "echo").ok(); }
};

bool thread_exists(const std::string& name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string found;
    std::ifstream file(task.path() / "comm");
    if (std::getline(file, found) && found == name) return true;
  }
  return false;
}

TEST_F(LifeTest, begins_with_start_and_ends_with_stop) {
  auto channel = new_channel();
  add_echo(*channel);
  EXPECT_FALSE(echoes());
  ASSERT_TRUE(channel->start());
  EXPECT_TRUE(echoes());
  EXPECT_TRUE(thread_exists("bus-channel"));
  channel->stop();
  EXPECT_EQ(peer().owner_of(channel_name), "");
  EXPECT_FALSE(thread_exists("bus-channel"));
}

TEST_F(LifeTest, ends_with_the_object) {
  {
    auto channel = new_channel();
    ASSERT_TRUE(channel->start());
  }
  EXPECT_EQ(peer().owner_of(channel_name), "");
}

TEST_F(LifeTest, takes_a_second_start_for_done) {
  auto channel = new_channel();
  ASSERT_TRUE(channel->start());
  const std::string owner = peer().owner_of(channel_name);
  EXPECT_TRUE(channel->start());
  EXPECT_EQ(peer().owner_of(channel_name), owner);
}

TEST_F(LifeTest, does_not_mind_a_stop_too_many) {
  auto channel = new_channel();
  channel->stop();
  channel->stop();
  ASSERT_TRUE(channel->start());
  channel->stop();
  channel->stop();
  EXPECT_TRUE(channel->start());
}

TEST_F(LifeTest, keeps_its_handlers_from_start_to_start) {
  auto channel = new_channel();
  add_echo(*channel);
  for (int cycle = 0; cycle < 3; ++cycle) {
    ASSERT_TRUE(channel->start());
    EXPECT_TRUE(echoes());
    channel->stop();
  }
}

TEST_F(LifeTest, does_not_begin_where_its_name_is_taken) {
  ASSERT_TRUE(peer().own(channel_name));
  auto channel = new_channel();
  EXPECT_FALSE(channel->start());
  EXPECT_EQ(peer().owner_of(channel_name), peer().unique_name());
  peer_.reset();
  peer_ = std::make_unique<Peer>(bus_.address());
  ASSERT_TRUE(wait_until([this] { return peer().owner_of(channel_name).empty(); }));
  EXPECT_TRUE(channel->start());
}

TEST_F(LifeTest, does_not_begin_with_names_or_rules_that_the_bus_refuses) {
  const std::set<int> before = open_descriptors();
  for (const char* bad : {"nodot", "iot..a", "iot.\xff", ":1.5", "iot.with-dash", "org.freedesktop.DBus"}) {
    EXPECT_FALSE(new_channel(bad)->start()) << bad;
  }
  for (const char* bad : {"", "iot", "/iot/", "/\xff"}) EXPECT_FALSE(new_channel(channel_name, bad)->start()) << bad;
  for (const char* bad : {"nonsense", "type='\xff'"}) {
    EXPECT_FALSE(new_channel(channel_name, channel_path, {bad})->start()) << bad;
  }
  EXPECT_FALSE(CDBusChannel("unix:path=/nonexistent", channel_name, channel_path, {}).start());
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(peer().owner_of(channel_name), "");
}

TEST_F(LifeTest, can_begin_after_it_could_not) {
  bus_.kill();
  auto channel = new_channel();
  add_echo(*channel);
  for (int attempt = 0; attempt < 5; ++attempt) EXPECT_FALSE(channel->start());
  ASSERT_TRUE(bus_.start());
  peer_ = std::make_unique<Peer>(bus_.address());
  EXPECT_TRUE(channel->start());
  EXPECT_TRUE(echoes());
}

TEST_F(LifeTest, leaks_no_descriptor_over_200_cycles) {
  auto channel = new_channel();
  add_echo(*channel);
  const std::set<int> before = open_descriptors();
  for (int cycle = 0; cycle < 200; ++cycle) {
    ASSERT_TRUE(channel->start()) << cycle;
    if (cycle % 20 == 0) {
      EXPECT_TRUE(echoes()) << cycle;
    }
    channel->stop();
  }
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(LifeTest, does_not_begin_on_a_stopped_bus_and_says_so_in_time) {
  auto channel = new_channel();
  bus_.freeze();
  EXPECT_TRUE(in_time(2500, [&channel] { EXPECT_FALSE(channel->start()); }));
  bus_.thaw();
  EXPECT_TRUE(wait_until([&channel] { return channel->start(); }, std::chrono::seconds(20)));
}

TEST_F(LifeTest, without_a_name_begins_as_a_client) {
  auto client = new_channel("", "");
  ASSERT_TRUE(client->start());
  CDBusRequest request(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetId");
  CDBusResponse response;
  EXPECT_EQ(client->call(request, response, 10'000), 0);
  EXPECT_TRUE(thread_exists("bus-client"));
}

}  // namespace
}  // namespace test
