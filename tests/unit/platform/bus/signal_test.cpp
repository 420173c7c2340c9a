#include <string>

#include "bus_test.h"

namespace test {
namespace {

class SignalTest : public BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    channel_ = new_channel(channel_name, channel_path, {"type='signal',sender='org.freedesktop.DBus'"});
    listen("feedDog");
    listen("NameOwnerChanged");
    ASSERT_TRUE(channel_->start());
  }

  void listen(const std::string& member) {
    channel_->register_signal_callback(member, [this, member](CDBusSignal& signal) {
      std::string text;
      (void)signal.get_string(text);
      notes_.add(member + " " + text);
    });
  }
  std::vector<std::string> settled_notes() {
    EXPECT_TRUE(peer().settle(channel_name));
    return notes_.all();
  }
  // Those notes of "NameOwnerChanged" that concern `name`.
  size_t owner_notes(const std::string& name) {
    size_t count = 0;
    for (const std::string& note : settled_notes()) count += note == "NameOwnerChanged " + name ? 1 : 0;
    return count;
  }
  std::vector<std::string> feeds() {
    std::vector<std::string> found;
    for (const std::string& note : settled_notes()) {
      if (note.rfind("feedDog", 0) == 0) found.push_back(note);
    }
    return found;
  }

  Notes notes_;
  std::unique_ptr<CDBusChannel> channel_;
};

using Strings = std::vector<std::string>;

TEST_F(SignalTest, arrives_when_sent_to_the_channels_name) {
  ASSERT_TRUE(peer().emit(channel_name, channel_path, channel_name, "feedDog", {"a"}));
  EXPECT_EQ(feeds(), Strings{"feedDog a"});
}

TEST_F(SignalTest, arrives_when_sent_to_the_channels_unique_name) {
  ASSERT_TRUE(peer().emit(peer().owner_of(channel_name), channel_path, channel_name, "feedDog", {"a"}));
  EXPECT_EQ(feeds(), Strings{"feedDog a"});
}

TEST_F(SignalTest, arrives_when_broadcast_on_the_channels_interface_from_any_path) {
  ASSERT_TRUE(peer().emit("", channel_path, channel_name, "feedDog", {"a"}));
  ASSERT_TRUE(peer().emit("", "/some/service", channel_name, "feedDog", {"b"}));
  EXPECT_EQ(feeds(), (Strings{"feedDog a", "feedDog b"}));
}

TEST_F(SignalTest, arrives_once_when_several_rules_match) {
  auto wide = new_channel(other_name, other_path, {"type='signal'", "type='signal',member='feedDog'"});
  wide->register_signal_callback("feedDog", [this](CDBusSignal&) { notes_.add("feedDog wide"); });
  ASSERT_TRUE(wide->start());
  ASSERT_TRUE(peer().emit("", other_path, other_name, "feedDog"));
  ASSERT_TRUE(peer().settle(other_name));
  EXPECT_EQ(feeds(), Strings{"feedDog wide"});
}

TEST_F(SignalTest, is_ignored_on_another_interface) {
  ASSERT_TRUE(peer().emit(channel_name, channel_path, "iot.test.foreign", "feedDog", {"a"}));
  ASSERT_TRUE(peer().emit("", channel_path, "iot.test.foreign", "feedDog", {"b"}));
  EXPECT_EQ(feeds(), Strings{});
}

TEST_F(SignalTest, is_ignored_when_it_was_sent_to_somebody_else) {
  auto eavesdropper = new_channel(other_name, other_path, {"eavesdrop='true',type='signal',member='feedDog'"});
  eavesdropper->register_signal_callback("feedDog", [this](CDBusSignal&) { notes_.add("feedDog overheard"); });
  ASSERT_TRUE(eavesdropper->start());
  ASSERT_TRUE(peer().emit(channel_name, channel_path, other_name, "feedDog"));
  ASSERT_TRUE(peer().settle(other_name));
  EXPECT_EQ(feeds(), Strings{});
}

TEST_F(SignalTest, is_ignored_without_a_handler) {
  channel_->register_signal_callback("feedDog", nullptr);
  ASSERT_TRUE(peer().emit(channel_name, channel_path, channel_name, "feedDog", {"a"}));
  ASSERT_TRUE(peer().emit(channel_name, channel_path, channel_name, "unheardOf", {"a"}));
  EXPECT_EQ(feeds(), Strings{});
}

TEST_F(SignalTest, reaches_the_handler_that_was_registered_last) {
  channel_->register_signal_callback("feedDog", [this](CDBusSignal&) { notes_.add("feedDog second"); });
  ASSERT_TRUE(peer().emit(channel_name, channel_path, channel_name, "feedDog", {"a"}));
  EXPECT_EQ(feeds(), Strings{"feedDog second"});
}

TEST_F(SignalTest, goes_on_after_a_handler_that_throws) {
  channel_->register_signal_callback("feedDog", [this](CDBusSignal&) {
    notes_.add("feedDog thrown");
    throw 1;
  });
  ASSERT_TRUE(peer().emit(channel_name, channel_path, channel_name, "feedDog"));
  ASSERT_TRUE(peer().emit(channel_name, channel_path, channel_name, "feedDog"));
  EXPECT_EQ(feeds(), (Strings{"feedDog thrown", "feedDog thrown"}));
}

TEST_F(SignalTest, of_the_driver_tells_of_names_that_come_and_go) {
  {
    Peer service(bus_.address());
    ASSERT_TRUE(service.own("iot.test.service"));
    EXPECT_EQ(owner_notes("iot.test.service"), 1U);
  }
  ASSERT_TRUE(wait_until([this] { return peer().owner_of("iot.test.service").empty(); }));
  EXPECT_EQ(owner_notes("iot.test.service"), 2U);
}

TEST_F(SignalTest, of_the_driver_cannot_be_forged) {
  const Strings arguments{"iot.test.forged", "", ":1.99"};
  for (const char* interface : {channel_name, DBUS_INTERFACE_DBUS}) {
    for (const char* destination : {channel_name, ""}) {
      ASSERT_TRUE(peer().emit(destination, DBUS_PATH_DBUS, interface, "NameOwnerChanged", arguments));
      ASSERT_TRUE(peer().emit(destination, channel_path, interface, "NameOwnerChanged", arguments));
    }
  }
  EXPECT_EQ(owner_notes("iot.test.forged"), 0U);
}

TEST_F(SignalTest, of_the_driver_cannot_be_forged_with_its_name_as_sender) {
  CDBusSignal signal(DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "NameOwnerChanged");
  ASSERT_TRUE(signal.set_string("iot.test.forged"));
  ASSERT_TRUE(dbus_message_set_sender(signal.message(), DBUS_SERVICE_DBUS));
  ASSERT_TRUE(dbus_message_set_destination(signal.message(), channel_name));
  ASSERT_TRUE(peer().send(signal.message()));
  EXPECT_EQ(owner_notes("iot.test.forged"), 0U);
}

TEST_F(SignalTest, that_the_channel_sends_is_heard_by_others) {
  ASSERT_TRUE(peer().call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "AddMatch", {"type='signal'"}).ok());
  CDBusSignal signal(channel_path, channel_name, "stateChanged");
  ASSERT_TRUE(signal.set_string("up"));
  ASSERT_TRUE(channel_->send(signal));
  const auto heard = peer().receive(
      [](DBusMessage* message) { return dbus_message_is_signal(message, channel_name, "stateChanged") != FALSE; });
  ASSERT_NE(heard, nullptr);
  EXPECT_STREQ(dbus_message_get_path(heard.get()), channel_path);
}

TEST_F(SignalTest, can_be_sent_twice_from_one_object) {
  ASSERT_TRUE(peer().call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "AddMatch", {"type='signal'"}).ok());
  CDBusSignal signal(channel_path, channel_name, "tick");
  const auto is_tick = [](DBusMessage* message) { return dbus_message_has_member(message, "tick") != FALSE; };
  ASSERT_TRUE(channel_->send(signal));
  ASSERT_TRUE(channel_->send(signal));
  EXPECT_NE(peer().receive(is_tick), nullptr);
  EXPECT_NE(peer().receive(is_tick), nullptr);
}

}  // namespace
}  // namespace test
