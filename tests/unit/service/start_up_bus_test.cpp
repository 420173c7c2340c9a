// The handlers of the bus.
#include "start_up.h"
#include "start_up_probe.h"

namespace Tessaro::Iot::Quorvaned {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// The controller is up; the test plays the bus at one moment, then the controller is ended.
class BusHandlers : public StartupTest {
 protected:
  void while_up(const std::function<void()>& test, const std::string& catalogue = R"([{"exec": "a", "monitor": 1}])") {
    make(catalogue);
    world.after_s(10, [this, test] {
      at_test_ = world.lines.size();
      test();
    });
    end_by_upgrade_after_ms(20'000);
    (void)probe().run();
  }
  std::string reply(const std::string& member, const std::vector<std::string>& arguments = {}) {
    Component::CDBusResponse response = quorvaned().call(member, arguments);
    std::string text;
    EXPECT_TRUE(response.get_string(text)) << member;
    return text;
  }
  size_t cycles() const { return world.count_lines("quorvaned startup success"); }

  size_t at_test_ = 0;
};

TEST_F(BusHandlers, StatusIsTheReportAsOneString) {
  while_up([this] {
    EXPECT_EQ(reply("get_le_status"), "[  \033[32m+\033[0m  ]  Service a is \033[32mactive\033[0m, pid is " +
                                          std::to_string(world.forks.at(1).pid) + "\n");
  });
}

TEST_F(BusHandlers, StatusOfNamesThatAreNoTextIsStillAnswered) {
  while_up([this] { EXPECT_THAT(reply("get_le_status"), HasSubstr("Service a?b is")); },
           "[{\"exec\": \"a\xff"
           "b\", \"monitor\": 1}]");
}

TEST_F(BusHandlers, RebootAnswersNothingAndRestartsTheStack) {
  while_up([this] {
    Component::CDBusResponse response = quorvaned().call("reboot");
    std::string text;
    EXPECT_FALSE(response.get_string(text));
    EXPECT_EQ(probe().keep_remote_debug(), 0U);
  });
  EXPECT_EQ(cycles(), 2U);
  EXPECT_THAT(world.printed,
              Contains("1 reboot_member_handler: reboot_member_handler, result:{\"code\":0,\"message\":\"Success\"}"));
}

TEST_F(BusHandlers, TripleWithoutArgumentIsRefused) {
  while_up([this] { EXPECT_EQ(reply("set_gateway_triple"), R"({"code":1,"message":"invaild dbus parameter"})"); });
  EXPECT_EQ(cycles(), 1U);
  EXPECT_THAT(world.printed, Contains("2 gateway_tripe_change_member_handler: gateway_tripe_change_member_handler, "
                                      "get dbus parameter fail"));
  EXPECT_EQ(world.printed.at(1),
            "1 gateway_tripe_change_member_handler: gateway_tripe_change_member_handler, "
            "result:{\"code\":1,\"message\":\"invaild dbus parameter\"}");
}

TEST_F(BusHandlers, TripleThatIsNoJsonIsRefused) {
  while_up([this] {
    for (const char* text : {"", "no json", "{", "\xc3\xa9"}) {
      EXPECT_EQ(reply("set_gateway_triple", {text}), R"({"code":2,"message":"dbus parameter format error"})") << text;
    }
    EXPECT_EQ(reply("set_gateway_triple", {std::string(100000, '[')}),
              R"({"code":2,"message":"dbus parameter format error"})");
  });
  EXPECT_EQ(cycles(), 1U);
  EXPECT_THAT(world.printed, Contains("2 gateway_tripe_change_member_handler: gateway_tripe_change_member_handler, "
                                      "json to string fail"));
}

// Parsing takes many times the memory of the text, and the bus carries texts of any size.
TEST_F(BusHandlers, TripleOfMoreThanAMebibyteIsRefused) {
  const auto of_size = [](size_t size) {
    const std::string triple = R"({"productkey":"a","devicename":"b","devicesecret":"c"})";
    return triple + std::string(size - triple.size(), ' ');
  };
  while_up([&] {
    EXPECT_EQ(reply("set_gateway_triple", {of_size(size_t{1024} * 1024 + 1)}),
              R"({"code":2,"message":"dbus parameter format error"})");
    EXPECT_EQ(reply("set_gateway_triple", {of_size(size_t{1024} * 1024)}), R"({"code":0,"message":"Success"})");
  });
}

TEST_F(BusHandlers, IncompleteTripleIsRefused) {
  while_up([this] {
    for (const char* text : {"{}", "[]", "1", "null", R"({"productkey":"a","devicename":"b"})",
                             R"({"productkey":"a","devicename":"","devicesecret":"c"})",
                             R"({"productkey":1,"devicename":2,"devicesecret":3})",
                             R"({"productkey":["a"],"devicename":{"b":1},"devicesecret":"c"})"}) {
      EXPECT_EQ(reply("set_gateway_triple", {text}), R"({"code":2,"message":"dbus parameter format error"})") << text;
    }
    EXPECT_EQ(probe().pending_identity(), (std::array<std::string, 3>{}));
  });
  EXPECT_EQ(cycles(), 1U);
  EXPECT_THAT(
      world.printed,
      Contains("2 gateway_tripe_change_member_handler: gateway_tripe_change_member_handler, get pk/dn/ds fail"));
}

TEST_F(BusHandlers, IdentityOfTextThatTheBusDoesNotCarryIsRefused) {
  while_up([this] {
    for (const char* text : {R"({"productkey":"a","devicename":"b\u0000","devicesecret":"c"})",
                             R"({"productkey":"a","devicename":"b","devicesecret":"\udc00"})"}) {
      EXPECT_EQ(reply("set_gateway_triple", {text}), R"({"code":2,"message":"dbus parameter format error"})") << text;
    }
  });
  EXPECT_EQ(cycles(), 1U);
}

TEST_F(BusHandlers, CompleteTripleIsStoredAndRestartsTheStack) {
  while_up([this] {
    EXPECT_EQ(reply("set_gateway_triple", {R"({"productkey":"pk","devicename":"dn","devicesecret":"topsecret"})"}),
              R"({"code":0,"message":"Success"})");
    EXPECT_EQ(probe().pending_identity(), (std::array<std::string, 3>{"pk", "dn", "topsecret"}));
    EXPECT_EQ(probe().keep_remote_debug(), 0U);
  });
  EXPECT_EQ(cycles(), 2U);
  EXPECT_THAT(world.printed,
              ElementsAre("1 gateway_tripe_change_member_handler: gateway_tripe_change_member_handler, pk:pk dn:dn",
                          "1 gateway_tripe_change_member_handler: gateway_tripe_change_member_handler, "
                          "result:{\"code\":0,\"message\":\"Success\"}"));
  for (const std::string& line : world.printed) EXPECT_THAT(line, Not(HasSubstr("topsecret")));
}

TEST_F(BusHandlers, MethodsOfTheStatusAreGoneAfterTheTeardown) {
  while_up([] {});
  EXPECT_EQ(quorvaned().call("get_le_status").message(), nullptr);
  EXPECT_EQ(quorvaned().call("set_gateway_triple").message(), nullptr);
  EXPECT_NE(quorvaned().call("reboot").message(), nullptr);
}

// --- signals

class WatchdogSignals : public BusHandlers {
 protected:
  std::map<std::string, int32_t>& keepalive() {
    return Component::ServiceManagerProbe(probe().manager()).record(0).keepalive;
  }
  Component::CDBusSignal feed() { return {"/iot/gateway/watchdog", "iot.gateway.watchdog", "feedDog"}; }
  void while_up(const std::function<void()>& test) {
    BusHandlers::while_up(test, R"([{"exec": "a", "dbus_name": "iot.a", "monitor": 1}, {"exec": "b"}])");
  }
  int32_t second() const { return static_cast<int32_t>(world.now_s()); }
};

TEST_F(WatchdogSignals, FeedDogSetsTheItemsDeadline) {
  while_up([this] {
    ASSERT_TRUE(watchdog().feed_dog("iot.a", "main", 7));
    EXPECT_EQ(keepalive().at("main"), second() + 7);
  });
}

TEST_F(WatchdogSignals, FeedDogWithoutSecondsMeansAMinute) {
  while_up([this] {
    Component::CDBusSignal signal = feed();
    (void)signal.set_string("iot.a");
    (void)signal.set_string("main");
    ASSERT_TRUE(watchdog().signal("feedDog", std::move(signal)));
    EXPECT_EQ(keepalive().at("main"), second() + 60);
  });
}

TEST_F(WatchdogSignals, FeedDogWithWrongTypesKeepsTheDefaults) {
  while_up([this] {
    Component::CDBusSignal signal = feed();
    (void)signal.set_string("iot.a");
    (void)signal.set_int32(5);  // taken as what it is: the seconds of an item without a name
    ASSERT_TRUE(watchdog().signal("feedDog", std::move(signal)));
    EXPECT_EQ(keepalive().at(""), second() + 5);
  });
}

TEST_F(WatchdogSignals, FeedDogWithoutArgumentsMatchesNoService) {
  while_up([this] {
    ASSERT_TRUE(watchdog().signal("feedDog", feed()));
    EXPECT_TRUE(keepalive().empty());
    EXPECT_TRUE(Component::ServiceManagerProbe(probe().manager()).record(1).keepalive.empty());
  });
}

TEST_F(WatchdogSignals, FeedDogWithZeroEndsTheWatch) {
  while_up([this] {
    ASSERT_TRUE(watchdog().feed_dog("iot.a", "main", 7));
    ASSERT_TRUE(watchdog().feed_dog("iot.a", "main", 0));
    EXPECT_EQ(keepalive().at("main"), 0);
  });
}

TEST_F(WatchdogSignals, NameOwnerChangedIsTracedWhateverTheOwnersAre) {
  while_up([this] {
    ASSERT_TRUE(watchdog().name_owner_changed("iot.x", ":1.5", ""));
    EXPECT_EQ(world.printed.back(),
              "0 name_owner_changed_signal_hander: NameOwnerChanged, name:iot.x, old_owner::1.5, new_owner:");
  });
}

TEST_F(WatchdogSignals, LoggingServiceIsBoundWhenItComesAndWhenItGoes) {
  while_up([this] {
    world.printed.clear();
    ASSERT_TRUE(watchdog().name_owner_changed("iot.gateway.logger", "", ":1.7"));
    ASSERT_TRUE(watchdog().name_owner_changed("iot.gateway.logger", ":1.7", ""));
    EXPECT_EQ(world.printed.at(0), "log_init quorvaned 1 0 2");
    EXPECT_EQ(world.printed.at(2), "log_init quorvaned 1 0 2");
  });
}

TEST_F(WatchdogSignals, LostBusIsLoggedAndEndsTheCycle) {
  while_up([this] { watchdog().error(104); });
  EXPECT_EQ(world.lines.at(at_test_), "dbus error callback, error:104");
  EXPECT_EQ(world.lines.at(at_test_ + 1), "stop monitor service");
  EXPECT_EQ(cycles(), 2U);
}

}  // namespace
}  // namespace Tessaro::Iot::Quorvaned
