// The synchronisation of the gateway identity.
#include <algorithm>
#include <filesystem>
#include <fstream>

#include "start_up_probe.h"

namespace Tessaro::Iot::Quorvaned {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class Identity : public StartupTest {
 protected:
  // The configuration service appears while the controller is up. Returns the calls that it got.
  std::vector<std::string> appear(const ServiceArguments& arguments) {
    make("[]", arguments);
    world.after_s(10, [this] {
      at_appearance_ = world.lines.size();
      (void)watchdog().name_owner_changed("iot.dmp.configmanager", "", ":1.9");
      lines_ = {world.lines.begin() + static_cast<ptrdiff_t>(at_appearance_), world.lines.end()};
      calls_ = world.config_calls;
    });
    end_by_upgrade_after_ms(30'000);
    (void)probe().run();
    return calls_;
  }
  // Of the nine values pk, dn, ds, h, p, v, ch, cp, tt.
  void expect_all_written() {
    for (const auto& [key, value] : std::map<std::string, std::string>{{"gw_system_productkey", "pk"},
                                                                       {"gw_system_devicename", "dn"},
                                                                       {"gw_system_devicesecret", "ds"},
                                                                       {"gw_system_as_host", "h"},
                                                                       {"gw_system_as_port", "p"},
                                                                       {"gw_system_ver_ca", "v"},
                                                                       {"gw_remoteaccess_cloud_host", "ch"},
                                                                       {"gw_remoteaccess_cloud_port", "cp"},
                                                                       {"gw_remoteaccess_tls_type", "tt"}}) {
      EXPECT_EQ(world.config[key], value) << key;
    }
    EXPECT_TRUE(nothing_pending());
  }
  // The configuration service appears twice; `triple` arrives over the bus while the identity pk, dn, ds is written.
  void apply_while_another_arrives(const std::string& triple) {
    make("[]", {"pk", "dn", "ds"});
    world.on_config_call = [this, triple](const std::string& call) {
      if (call == "set gw_system_devicename=dn") (void)quorvaned().call("set_gateway_triple", {triple});
      return true;
    };
    const auto appear = [this] { (void)watchdog().name_owner_changed("iot.dmp.configmanager", "", ":1.9"); };
    world.after_s(10, appear);
    world.after_s(20, appear);
    end_by_upgrade_after_ms(30'000);
    (void)probe().run();
  }
  auto count_calls(const std::string& call) {
    return std::count(world.config_calls.begin(), world.config_calls.end(), call);
  }
  bool nothing_pending() { return probe().pending_identity() == std::array<std::string, 3>{}; }
  ~Identity() override { std::filesystem::remove_all("/quorvane/run"); }

  size_t at_appearance_ = 0;
  std::vector<std::string> lines_;
  std::vector<std::string> calls_;
};

TEST_F(Identity, WithoutPendingValuesPublishesTheSwitchOnly) {
  EXPECT_THAT(appear({}), ElementsAre("set gw_ha_service_switch=off"));
  EXPECT_THAT(lines_, ElementsAre("set config gw_ha_service_switch=off"));
}

TEST_F(Identity, OfAnUnprovisionedGatewayIsWrittenWithoutReset) {
  EXPECT_THAT(appear({"pk", "dn", "ds"}),
              ElementsAre("get gw_system_productkey", "get gw_system_devicename", "set gw_system_productkey=pk",
                          "set gw_system_devicename=dn", "set gw_system_devicesecret=ds protected", "flush",
                          "set gw_ha_service_switch=off"));
  EXPECT_THAT(lines_, ElementsAre("check current gw_system_productkey= gw_system_devicename=",
                                  "set config gw_system_productkey=pk gw_system_devicename=dn",
                                  "set config gw_ha_service_switch=off"));
  EXPECT_TRUE(nothing_pending());
}

TEST_F(Identity, ThatIsUnchangedIsNotWrittenEvenWithAnotherSecret) {
  world.reset();
  world.config = {{"gw_system_productkey", "pk"}, {"gw_system_devicename", "dn"}};
  EXPECT_THAT(appear({"pk", "dn", "another"}),
              ElementsAre("get gw_system_productkey", "get gw_system_devicename", "set gw_ha_service_switch=off"));
  EXPECT_TRUE(nothing_pending());
}

TEST_F(Identity, ThatHasChangedResetsAndCleansBeforeItIsWritten) {
  for (const char* name : {"config-manager", "startup", "logger", "console", ".sec_bak", ".security", ".sst", "svc",
                           ".hidden", "startup2"}) {
    std::filesystem::create_directories(std::filesystem::path("/quorvane/run") / name / "deep");
  }
  std::ofstream("/quorvane/run/file") << "x";
  std::filesystem::create_directory_symlink("/quorvane/run/config-manager", "/quorvane/run/link");
  world.config = {{"gw_system_productkey", "old"}, {"gw_system_devicename", "dn"}};
  EXPECT_THAT(appear({"pk", "dn", "ds"}),
              ElementsAre("get gw_system_productkey", "get gw_system_devicename", "reset",
                          "set gw_system_productkey=pk", "set gw_system_devicename=dn",
                          "set gw_system_devicesecret=ds protected", "flush", "set gw_ha_service_switch=off"));
  EXPECT_THAT(lines_,
              ElementsAre("check current gw_system_productkey=old gw_system_devicename=dn", "reset config-manager",
                          "clean business runtime data", "set config gw_system_productkey=pk gw_system_devicename=dn",
                          "set config gw_ha_service_switch=off"));
  std::vector<std::string> left;
  for (const auto& entry : std::filesystem::directory_iterator("/quorvane/run"))
    left.push_back(entry.path().filename());
  EXPECT_THAT(left, testing::UnorderedElementsAre("config-manager", "startup", "logger", "console", ".sec_bak",
                                                  ".security", ".sst"));
  EXPECT_TRUE(std::filesystem::exists("/quorvane/run/config-manager/deep"));
}

TEST_F(Identity, WithHalfACurrentOneIsWrittenWithoutReset) {
  world.config = {{"gw_system_productkey", "old"}};
  EXPECT_THAT(appear({"pk", "dn", "ds"}), Not(Contains("reset")));
}

TEST_F(Identity, ThatCannotBeReadStaysPendingAndRestartsTheStack) {
  world.config_answers = false;
  EXPECT_THAT(appear({"pk", "dn", "ds", "h", "p", "v"}), IsEmpty());
  EXPECT_THAT(lines_, ElementsAre("get current gw_system_productkey fail", "set config gw_ha_service_switch=off"));
  EXPECT_EQ(probe().pending_identity(), (std::array<std::string, 3>{"pk", "dn", "ds"}));
  EXPECT_GE(world.count_lines("quorvaned startup success"), 2U);
}

TEST_F(Identity, OfWhichTheDeviceNameCannotBeReadStaysPendingInTheSameWords) {
  world.on_config_call = [](const std::string& call) { return call != "get gw_system_devicename"; };
  EXPECT_THAT(appear({"pk", "dn", "ds", "h", "p", "v"}),
              ElementsAre("get gw_system_productkey", "get gw_system_devicename", "set gw_ha_service_switch=off"));
  EXPECT_THAT(lines_, ElementsAre("get current gw_system_productkey fail", "set config gw_ha_service_switch=off"));
  EXPECT_EQ(probe().pending_identity(), (std::array<std::string, 3>{"pk", "dn", "ds"}));
  EXPECT_GE(world.count_lines("quorvaned startup success"), 2U);
}

TEST_F(Identity, WaitsForEachAnswerItsTime) {
  world.config = {{"gw_system_productkey", "old"}, {"gw_system_devicename", "dn"}};
  make("[]", {"pk", "dn", "ds"});
  world.on_config_call = [this](const std::string& call) {
    world.config_answers = call != "get gw_system_devicename";  // the last one that is answered
    return true;
  };
  int64_t taken_ms = 0;
  world.after_s(10, [this, &taken_ms] {
    const int64_t before = world.now_ms;
    (void)watchdog().name_owner_changed("iot.dmp.configmanager", "", ":1.9");
    taken_ms = world.now_ms - before;
  });
  end_by_upgrade_after_ms(60'000);
  (void)probe().run();
  EXPECT_EQ(taken_ms, 10'000 + 3 * 3'000 + 10'000 + 3'000);  // reset, three values, flush, switch
}

TEST_F(Identity, IsHandedOverBeforeTheNextServiceIsStarted) {
  make(R"([{"exec": "config-manager", "dbus_name": "iot.dmp.configmanager"}, {"exec": "next"}])", {"pk", "dn", "ds"});
  world.after_s(2, [this] { (void)watchdog().name_owner_changed("iot.dmp.configmanager", "", ":1.9"); });
  world.on_config_call = [this](const std::string&) {
    EXPECT_EQ(world.count_lines("running config-manager service"), 1U);
    EXPECT_EQ(world.count_lines("running next service"), 0U);
    EXPECT_FALSE(Component::ServiceManagerProbe(probe().manager()).record(0).ready.pend(0));
    return true;
  };
  end_by_upgrade_after_ms(20'000);
  (void)probe().run();
  EXPECT_EQ(world.config_calls.size(), 7U);
  EXPECT_EQ(world.count_lines("running next service"), 1U);
}

TEST_F(Identity, EndpointsAreWrittenInGroupsOfThree) {
  EXPECT_THAT(appear({"", "", "", "h", "p", "v", "ch", "cp", "tt"}),
              ElementsAre("set gw_system_as_host=h", "set gw_system_as_port=p", "set gw_system_ver_ca=v",
                          "set gw_remoteaccess_cloud_host=ch", "set gw_remoteaccess_cloud_port=cp",
                          "set gw_remoteaccess_tls_type=tt", "set gw_ha_service_switch=off"));
  EXPECT_THAT(
      lines_,
      ElementsAre("set config gw_system_as_host=h gw_system_as_port=p gw_system_ver_ca=v",
                  "set config gw_remoteaccess_cloud_host=ch gw_remoteaccess_cloud_port=cp gw_remoteaccess_tls_type=tt",
                  "set config gw_ha_service_switch=off"));
}

TEST_F(Identity, IncompleteGroupsAreNotWritten) {
  EXPECT_THAT(appear({"pk", "", "ds", "h", "p", "", "", "cp", "tt"}), ElementsAre("set gw_ha_service_switch=off"));
}

TEST_F(Identity, IsAppliedOnce) {
  make("[]", {"pk", "dn", "ds", "h", "p", "v", "ch", "cp", "tt"});
  world.after_s(10, [this] {
    (void)watchdog().name_owner_changed("iot.dmp.configmanager", "", ":1.9");
    world.config_calls.clear();
    (void)watchdog().name_owner_changed("iot.dmp.configmanager", ":1.9", "");
  });
  end_by_upgrade_after_ms(30'000);
  (void)probe().run();
  EXPECT_THAT(world.config_calls, ElementsAre("set gw_ha_service_switch=off"));
}

// A teardown begins at the n-th call to the configuration service, whichever that is: in the next cycle all is written.
TEST_F(Identity, ThatATeardownCutsShortIsAppliedInTheNextCycle) {
  for (size_t cut = 1; cut <= 14; ++cut) {
    SCOPED_TRACE(cut);
    world.reset();
    world.config = {{"gw_system_productkey", "old"}, {"gw_system_devicename", "dn"}};
    make("[]", {"pk", "dn", "ds", "h", "p", "v", "ch", "cp", "tt"});
    world.on_config_call = [this, cut](const std::string&) {
      if (world.config_calls.size() != cut) return true;
      probe().clear_running();
      return false;  // lost, whatever it was
    };
    const auto appear = [this] { (void)watchdog().name_owner_changed("iot.dmp.configmanager", "", ":1.9"); };
    world.after_s(10, appear);
    world.after_s(20, appear);
    end_by_upgrade_after_ms(30'000);
    (void)probe().run();
    expect_all_written();
  }
}

// The service leaves at the n-th call, and that call and all later ones fail; it comes back.
TEST_F(Identity, WhoseServiceLeavesInTheMiddleIsAppliedWhenItComesBack) {
  for (size_t left = 1; left <= 14; ++left) {
    SCOPED_TRACE(left);
    world.reset();
    world.config = {{"gw_system_productkey", "old"}, {"gw_system_devicename", "dn"}};
    make("[]", {"pk", "dn", "ds", "h", "p", "v", "ch", "cp", "tt"});
    bool here = true;
    world.on_config_call = [this, left, &here](const std::string&) {
      if (world.config_calls.size() == left) here = false;
      return here;
    };
    world.after_s(10, [this] { (void)watchdog().name_owner_changed("iot.dmp.configmanager", "", ":1.9"); });
    world.after_s(20, [this, &here] {
      here = true;
      (void)watchdog().name_owner_changed("iot.dmp.configmanager", "", ":1.10");
    });
    end_by_upgrade_after_ms(30'000);
    (void)probe().run();
    expect_all_written();
    constexpr size_t last_of_the_identity = 7;  // what is lost after it is an endpoint's
    if (left > last_of_the_identity) {
      EXPECT_EQ(count_calls("reset"), 1);
    }
  }
}

TEST_F(Identity, IsWrittenToTheEndWhenTheEndOfTheProcessBeginsMeanwhile) {
  world.config = {{"gw_system_productkey", "old"}, {"gw_system_devicename", "dn"}};
  make("[]", {"pk", "dn", "ds", "h", "p", "v", "ch", "cp", "tt"});
  world.on_config_call = [this](const std::string& call) {
    if (call == "reset") probe().clear_running();
    return true;
  };
  world.after_s(10, [this] { (void)watchdog().name_owner_changed("iot.dmp.configmanager", "", ":1.9"); });
  end_by_upgrade_after_ms(30'000);
  (void)probe().run();
  expect_all_written();
  EXPECT_EQ(count_calls("reset"), 1);
}

TEST_F(Identity, ThatWasWrittenWhileAnotherOneArrivedIsComparedWithThatOne) {
  apply_while_another_arrives(R"({"productkey":"pk","devicename":"dn","devicesecret":"ds2"})");
  EXPECT_EQ(count_calls("set gw_system_productkey=pk"), 1);
  EXPECT_TRUE(nothing_pending());
}

// What the service answers to a write, and whether it does, changes nothing: the values are given away once.
TEST_F(Identity, ThatTheServiceRefusesOrSitsOutIsNotKept) {
  for (const int32_t result :
       {7, -3, -4, Component::CDBusChannel::call_timed_out, Component::CDBusChannel::call_failed}) {
    SCOPED_TRACE(result);
    world.reset();
    world.config_write_result = result;
    EXPECT_THAT(appear({"pk", "dn", "ds", "h", "p", "v"}), Contains("flush"));
    EXPECT_TRUE(nothing_pending());
    EXPECT_EQ(world.count_lines("quorvaned startup success"), 1U);
  }
}

TEST_F(Identity, ThatArrivesWhileOneIsWrittenIsAppliedToo) {
  apply_while_another_arrives(R"({"productkey":"pk2","devicename":"dn2","devicesecret":"ds2"})");
  EXPECT_EQ(world.config["gw_system_productkey"], "pk2");
  EXPECT_EQ(world.config["gw_system_devicesecret"], "ds2");
  EXPECT_TRUE(nothing_pending());
}

TEST_F(Identity, IsSynchronisedWhenTheServiceLeavesToo) {
  make("[]", {"pk", "dn", "ds"});
  world.after_s(10, [this] { (void)watchdog().name_owner_changed("iot.dmp.configmanager", ":1.9", ""); });
  end_by_upgrade_after_ms(20'000);
  (void)probe().run();
  EXPECT_THAT(world.config_calls, Contains("set gw_system_productkey=pk"));
}

}  // namespace
}  // namespace Tessaro::Iot::Quorvaned
