#include "service_manager.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <limits>

#include "fake_world.h"
#include "service_manager_probe.h"

namespace Tessaro::Iot::Component {
namespace {

using Fakes::Signal;
using Fakes::World;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class ServiceManager : public testing::Test {
 protected:
  ServiceManager() { world.reset(); }
  ~ServiceManager() override { ServiceManagerProbe(manager).free_records(); }

  void load(const std::string& catalogue) {
    directory.write(catalogue);
    ASSERT_EQ(manager.load_services(), 1);
  }
  ServiceRecord& record(size_t index) { return ServiceManagerProbe(manager).record(index); }
  int32_t pid_of(size_t index) { return record(index).pid; }

  // The monitor works while the clock runs on for so long.
  void monitor_for_s(int64_t seconds) {
    running = true;
    world.after_s(seconds, [this] { running = false; });
    (void)ServiceManagerProbe(manager).run_monitor();
    running = true;
  }
  // A child dies and the main loop tells of it.
  void process_exit(int32_t pid) {
    world.end_child(pid);
    world.serve([this](int32_t ended) { manager.process_exit(ended); });
  }
  std::vector<int64_t> fork_seconds(const std::string& program) const {
    std::vector<int64_t> seconds;
    for (const auto& fork : world.forks) {
      if (fork.plan.program == "./" + program) seconds.push_back(fork.at_ms / 1000);
    }
    return seconds;
  }

  World& world = World::get();
  CatalogueDirectory directory;
  CDBusChannel channel{"unix:path=/nowhere", "iot.test", "/iot/test", {}};
  CConfigAgent agent{&channel, "iot.test"};
  bool running = true;
  CServiceManager manager{&channel, -1, [this] { return running; }, &agent};
};

// --- the catalogue

TEST_F(ServiceManager, ReadsTheCatalogueOnce) {
  load(R"([{"exec": "a"}])");
  directory.remove();
  EXPECT_EQ(manager.load_services(), 1);
  EXPECT_EQ(ServiceManagerProbe(manager).record_count(), 1U);
}

TEST_F(ServiceManager, ReadsAnEmptyCatalogueAgain) {
  load("[]");
  directory.write(R"([{"exec": "a"}])");
  EXPECT_EQ(manager.load_services(), 1);
  EXPECT_EQ(ServiceManagerProbe(manager).record_count(), 1U);
}

TEST_F(ServiceManager, SaysThatACatalogueCannotBeLoaded) {
  EXPECT_EQ(manager.load_services(), 0);
  directory.write("{}");
  EXPECT_EQ(manager.load_services(), 0);
  EXPECT_THAT(world.lines, ElementsAre("can not load service.json", "can not load service.json"));
}

// --- the start order

TEST_F(ServiceManager, StartsServicesInCatalogueOrder) {
  load(R"([{"exec": "a"}, {"exec": "bin/b"}, {"exec": "c"}])");
  manager.run_services();
  EXPECT_THAT(world.lines, ElementsAre("running a service", "run a pid " + std::to_string(pid_of(0)),
                                       "running bin/b service", "run b pid " + std::to_string(pid_of(1)),
                                       "running c service", "run c pid " + std::to_string(pid_of(2))));
}

TEST_F(ServiceManager, WaitsTheDelayInStepsOfATenth) {
  load(R"([{"exec": "a", "delay": 0.25}, {"exec": "b", "delay": 2}, {"exec": "c", "delay": 0.09},
           {"exec": "d", "delay": -3}, {"exec": "e"}])");
  const int64_t start = world.now_ms;
  manager.run_services();
  const auto at = [&](size_t index) { return world.forks.at(index).at_ms - start; };
  EXPECT_EQ(at(1), 200);
  EXPECT_EQ(at(2), 2200);
  EXPECT_EQ(at(3), 2200);
  EXPECT_EQ(at(4), 2200);
}

TEST_F(ServiceManager, EndsAHugeDelayWhenTheCycleEnds) {
  load(R"([{"exec": "a", "delay": 1e300}, {"exec": "b"}])");
  world.after_s(100, [this] { running = false; });
  manager.run_services();
  EXPECT_EQ(world.forks.size(), 1U);
  EXPECT_LE(world.now_ms, 1'100'100);
}

TEST_F(ServiceManager, WaitsForTheBusNameAndNotForTheDelay) {
  load(R"([{"exec": "a", "dbus_name": "iot.a", "delay": 60}, {"exec": "b"}])");
  const int64_t start = world.now_ms;
  world.at_ms(start + 730, [this] { manager.service_online("iot.a"); });
  manager.run_services();
  EXPECT_EQ(world.forks.at(1).at_ms - start, 730);
}

TEST_F(ServiceManager, LeavesAServiceRunningWhoseNameNeverComes) {
  load(R"([{"exec": "a", "dbus_name": "iot.a"}, {"exec": "b"}])");
  const int64_t start = world.now_ms;
  world.at_ms(start + 10, [this] { manager.service_online("iot.other"); });
  manager.run_services();
  EXPECT_EQ(world.forks.at(1).at_ms - start, 5000);
  EXPECT_THAT(world.signals, IsEmpty());
}

TEST_F(ServiceManager, CountsANameThatComesTooLateForTheNextStart) {
  load(R"([{"exec": "a", "dbus_name": "iot.a"}])");
  manager.service_online("iot.a");
  const int64_t start = world.now_ms;
  manager.run_services();
  EXPECT_EQ(world.now_ms, start);
}

TEST_F(ServiceManager, TakesTheFirstOfTwoServicesWithOneName) {
  load(R"([{"exec": "a", "dbus_name": "iot.a"}, {"exec": "b", "dbus_name": "iot.a"}])");
  manager.feed_dog("iot.a", "main", 5);
  EXPECT_EQ(record(0).keepalive.count("main"), 1U);
  EXPECT_TRUE(record(1).keepalive.empty());
  manager.service_online("iot.a");
  manager.service_online("iot.a");
  const int64_t start = world.now_ms;
  manager.run_services();
  EXPECT_EQ(world.forks.at(1).at_ms, start);
  EXPECT_EQ(world.now_ms - start, 5000);  // of the second one nobody was told
}

TEST_F(ServiceManager, StartsNothingMoreWhenTheCycleEnds) {
  load(R"([{"exec": "a", "dbus_name": "iot.a"}, {"exec": "b"}])");
  const int64_t start = world.now_ms;
  world.at_ms(start + 250, [this] { running = false; });
  manager.run_services();
  EXPECT_EQ(world.forks.size(), 1U);
  EXPECT_EQ(world.now_ms - start, 300);  // the wait of 100 ms that it falls into
}

TEST_F(ServiceManager, RunsWithoutAPredicate) {
  directory.write(R"([{"exec": "a"}])");
  CServiceManager alone(&channel, -1, {}, &agent);
  ASSERT_EQ(alone.load_services(), 1);
  alone.run_services();
  EXPECT_EQ(world.forks.size(), 1U);
  ServiceManagerProbe(alone).free_records();
}

// --- progress

TEST_F(ServiceManager, SendsProgressToTheLauncherUntilTheMonitorStarts) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  CServiceManager started(
      &channel, ends[1], [] { return true; }, &agent);
  started.print_progress("running a service");
  char text[64] = {};
  EXPECT_EQ(::read(ends[0], text, sizeof text), 18);
  EXPECT_STREQ(text, "running a service\n");
  EXPECT_TRUE(started.start_monitor());
  EXPECT_EQ(::read(ends[0], text, sizeof text), 0);  // closed
  EXPECT_EQ(ServiceManagerProbe(started).progress_fd(), -1);
  started.print_progress("later");
  EXPECT_TRUE(started.start_monitor());  // in the next cycle there is nothing to close
  EXPECT_THAT(world.lines, ElementsAre("running a service", "later"));
  EXPECT_THAT(world.thread_events, ElementsAre("create sevice_manager_thread", "create sevice_manager_thread"));
  (void)::close(ends[0]);
}

TEST_F(ServiceManager, ReportsAMonitorThatCannotBeStarted) {
  world.thread_creation_fails = true;
  EXPECT_FALSE(manager.start_monitor());
}

// --- deaths and restarts

TEST_F(ServiceManager, MarksADeadServiceAbnormal) {
  load(R"([{"exec": "a", "monitor": 1}, {"exec": "b", "monitor": 1}])");
  manager.run_services();
  const int32_t pid = pid_of(1);
  world.lines.clear();
  process_exit(pid);
  EXPECT_THAT(world.lines,
              ElementsAre("process_exit, pid:" + std::to_string(pid), "process_exit, service(b) is abnormal"));
  EXPECT_EQ(record(1).status, 1);
  EXPECT_EQ(record(1).pid, 0);
  EXPECT_EQ(record(0).status, 0);
}

TEST_F(ServiceManager, LogsAndIgnoresAnUnknownPid) {
  load(R"([{"exec": "a"}])");
  manager.run_services();
  world.lines.clear();
  process_exit(99999);
  EXPECT_THAT(world.lines, ElementsAre("process_exit, pid:99999"));
  EXPECT_EQ(record(0).status, 0);
}

TEST_F(ServiceManager, NoticesEveryDeathOfAThousandMissingPrograms) {
  load(R"([{"exec": "missing", "monitor": 1}])");
  world.on_fork = [this](int32_t pid) { world.end_child(pid); };
  for (int32_t start = 0; start < 1000; ++start) {
    manager.run_services();
    world.serve([this](int32_t ended) { manager.process_exit(ended); });
    ASSERT_EQ(record(0).pid, 0);
    ASSERT_EQ(record(0).status, 1);
  }
  EXPECT_EQ(world.count_lines("process_exit, service(missing) is abnormal"), 1000U);
}

TEST_F(ServiceManager, IgnoresTheEndOfTheSceneScript) {
  load(R"([{"exec": "startSC.sh", "monitor": 1}])");
  manager.run_services();
  const int32_t pid = pid_of(0);
  process_exit(pid);
  EXPECT_EQ(record(0).status, 0);
  EXPECT_EQ(record(0).pid, pid);
}

TEST_F(ServiceManager, TakesTheEndOfAnotherProgramOfThatNameForAnAccident) {
  load(R"([{"exec": "bin/startSC.sh", "monitor": 1}])");
  manager.run_services();
  process_exit(pid_of(0));
  EXPECT_EQ(record(0).status, 1);
}

TEST_F(ServiceManager, MarksTheRemoteTerminalAbnormalWhenNoOtherRuns) {
  load(R"([{"exec": "RemoteTerminalDaemon", "monitor": 1}])");
  manager.run_services();
  process_exit(pid_of(0));
  EXPECT_EQ(world.lines.back(), "process_exit, service(RemoteTerminalDaemon) is abnormal");
  EXPECT_EQ(record(0).status, 1);
}

TEST_F(ServiceManager, MatchesNobodyWhileTheControllerIsNotRunning) {
  load(R"([{"exec": "a", "monitor": 1}])");
  manager.run_services();
  running = false;
  process_exit(pid_of(0));
  EXPECT_EQ(record(0).status, 0);
  EXPECT_NE(record(0).pid, 0);
}

TEST_F(ServiceManager, DoesNotTakeALeftOverNumberForANewChild) {
  load(R"([{"exec": "a", "monitor": 1}, {"exec": "b", "monitor": 1}])");
  manager.run_services();
  running = false;
  process_exit(pid_of(0));  // nobody is told: the number stays in the record
  running = true;
  world.next_pid = pid_of(0);
  process_exit(pid_of(1));
  monitor_for_s(35);  // b is started again and gets a's old number
  ASSERT_EQ(pid_of(1), pid_of(0));
  process_exit(pid_of(1));
  EXPECT_EQ(record(0).status, 0);
  EXPECT_EQ(record(1).status, 1);
}

TEST_F(ServiceManager, RestartsADeadServiceOnlyAfterTheGrace) {
  load(R"([{"exec": "a", "monitor": 1}])");
  manager.run_services();  // second 1000
  world.after_s(10, [this] { process_exit(pid_of(0)); });
  monitor_for_s(40);
  EXPECT_THAT(fork_seconds("a"), ElementsAre(1000, 1031));  // the first second beyond 1030
  EXPECT_EQ(world.count_lines("threadProc, service(a) status(1) is abnormal"), 1U);
  EXPECT_EQ(record(0).status, 0);
  EXPECT_THAT(world.signals, IsEmpty());  // there was nothing left to signal
}

TEST_F(ServiceManager, RestartsAtOnceWhenTheGraceIsOver) {
  load(R"([{"exec": "a", "monitor": 1}])");
  manager.run_services();
  world.after_s(100, [this] { process_exit(pid_of(0)); });
  monitor_for_s(103);
  EXPECT_THAT(fork_seconds("a"), ElementsAre(1000, 1100));
}

TEST_F(ServiceManager, RestartsAFailingServiceForEverWithoutBackOff) {
  load(R"([{"exec": "a", "monitor": 1}])");
  world.on_fork = [this](int32_t pid) { world.at_ms(world.now_ms + 1, [this, pid] { process_exit(pid); }); };
  manager.run_services();
  monitor_for_s(200);
  EXPECT_THAT(fork_seconds("a"), ElementsAre(1000, 1031, 1062, 1093, 1124, 1155, 1186));
}

TEST_F(ServiceManager, NeverRestartsAnUnmonitoredService) {
  load(R"([{"exec": "a", "monitor": 0}])");
  manager.run_services();
  process_exit(pid_of(0));
  monitor_for_s(100);
  EXPECT_THAT(fork_seconds("a"), ElementsAre(1000));
  EXPECT_EQ(record(0).status, 1);
}

TEST_F(ServiceManager, DoesNotRestartAfterAFailedFork) {
  load(R"([{"exec": "a", "monitor": 1}])");
  world.fork_fails = true;
  manager.run_services();
  world.fork_fails = false;
  monitor_for_s(100);
  EXPECT_THAT(fork_seconds("a"), IsEmpty());
}

TEST_F(ServiceManager, StartsWhatIsStopped) {
  load(R"([{"exec": "a", "monitor": 1}])");
  monitor_for_s(2);
  EXPECT_THAT(fork_seconds("a"), ElementsAre(1001));
  EXPECT_EQ(world.count_lines("threadProc, service(a) status(-1) is abnormal"), 1U);
}

TEST_F(ServiceManager, RestartsSeveralInTableOrder) {
  load(R"([{"exec": "a", "monitor": 1}, {"exec": "b", "monitor": 1}])");
  manager.run_services();
  process_exit(pid_of(1));
  process_exit(pid_of(0));
  world.lines.clear();
  monitor_for_s(32);
  EXPECT_EQ(world.lines.at(0), "threadProc, service(a) status(1) is abnormal");
  EXPECT_EQ(world.lines.at(2), "threadProc, service(b) status(1) is abnormal");
}

TEST_F(ServiceManager, MonitorEndsWhenTheControllerDoes) {
  load(R"([{"exec": "a", "monitor": 1}])");
  running = false;
  EXPECT_EQ(ServiceManagerProbe(manager).run_monitor(), 0);
}

// --- keep-alives

class KeepAlive : public ServiceManager {
 protected:
  KeepAlive() {
    load(R"([{"exec": "x"}, {"exec": "a", "dbus_name": "iot.a", "monitor": 1}])");
    manager.service_online("iot.a");
    manager.run_services();
  }
  std::map<std::string, int32_t>& table() { return record(1).keepalive; }
  static constexpr const char* timeout_line = "2 check_keepalive: check_keepalive, services:a keepalive timeout";
};

TEST_F(KeepAlive, DeadlineIsTheCurrentSecondPlusTheSeconds) {
  world.now_ms = 100'999;
  manager.feed_dog("iot.a", "main", 5);
  EXPECT_EQ(table().at("main"), 105);
  EXPECT_TRUE(manager.check_keepalive(105, &record(1)));
  EXPECT_FALSE(manager.check_keepalive(106, &record(1)));
  EXPECT_THAT(world.printed, ElementsAre(timeout_line));
}

TEST_F(KeepAlive, SilentServiceIsStoppedAndStartedOnceTheDeadlineHasPassed) {
  const int32_t pid = pid_of(1);
  world.after_s(40, [this] { manager.feed_dog("iot.a", "main", 5); });  // due at 1045
  monitor_for_s(60);
  EXPECT_THAT(fork_seconds("a"), ElementsAre(1000, 1046));
  EXPECT_THAT(world.signals, ElementsAre(Signal{pid, SIGTERM}));
  EXPECT_EQ(world.count_lines("threadProc, service(a) status(0) is abnormal"), 1U);
  EXPECT_THAT(world.printed, ElementsAre(timeout_line));
  EXPECT_TRUE(table().empty());  // the restarted service is not watched until it feeds again
}

TEST_F(KeepAlive, SilenceWithinTheGraceIsNoReasonToRestart) {
  manager.feed_dog("iot.a", "main", 5);
  monitor_for_s(30);
  EXPECT_THAT(fork_seconds("a"), ElementsAre(1000));
}

TEST_F(KeepAlive, TakesNoMoreThan16384ItemsOfAService) {
  for (int item = 0; item < 20'000; ++item) manager.feed_dog("iot.a", "item " + std::to_string(item), 500);
  EXPECT_EQ(table().size(), 16384U);
  EXPECT_EQ(table().count("item 16384"), 0U);
  world.now_ms += 10'000;
  manager.feed_dog("iot.a", "item 0", 500);  // those that are there are fed as ever
  EXPECT_EQ(table().at("item 0"), table().at("item 1") + 10);
}

TEST_F(KeepAlive, TakesNoItemOfMoreThan1024Bytes) {
  manager.feed_dog("iot.a", std::string(1024, 'x'), 5);
  manager.feed_dog("iot.a", std::string(1025, 'x'), 5);
  EXPECT_EQ(table().size(), 1U);
}

TEST_F(KeepAlive, IsToldOnceASecondHoweverManyItemsAreLate) {
  manager.feed_dog("iot.a", "a", 5);
  manager.feed_dog("iot.a", "b", 5);
  monitor_for_s(10);  // seconds 1006 to 1009, within the grace
  EXPECT_THAT(world.printed, ElementsAre(timeout_line, timeout_line, timeout_line, timeout_line));
}

TEST_F(KeepAlive, FeedingInTimeKeepsTheServiceRunning) {
  for (int64_t second = 0; second < 100; second += 5) {
    world.after_s(second, [this] { manager.feed_dog("iot.a", "main", 5); });
  }
  monitor_for_s(100);
  EXPECT_THAT(fork_seconds("a"), ElementsAre(1000));
}

TEST_F(KeepAlive, OneSilentItemOfSeveralIsEnough) {
  manager.feed_dog("iot.a", "b", 1000);
  manager.feed_dog("iot.a", "a", 40);
  monitor_for_s(50);
  EXPECT_THAT(fork_seconds("a"), ElementsAre(1000, 1041));
}

TEST_F(KeepAlive, SecondsBelowOneEndTheWatchOfTheItem) {
  for (const int32_t seconds : {0, -1, std::numeric_limits<int32_t>::min()}) {
    manager.feed_dog("iot.a", "main", 5);
    manager.feed_dog("iot.a", "main", seconds);
    EXPECT_EQ(table().at("main"), 0);
    EXPECT_TRUE(manager.check_keepalive(std::numeric_limits<int32_t>::max(), &record(1)));
  }
}

TEST_F(KeepAlive, HugeSecondsSaturate) {
  manager.feed_dog("iot.a", "main", std::numeric_limits<int32_t>::max());
  EXPECT_EQ(table().at("main"), std::numeric_limits<int32_t>::max());
}

TEST_F(KeepAlive, UnknownOrEmptyNameChangesNothing) {
  manager.feed_dog("iot.other", "main", 5);
  manager.feed_dog("", "", 5);  // would match the service without a name
  EXPECT_TRUE(table().empty());
  EXPECT_TRUE(record(0).keepalive.empty());
}

TEST_F(KeepAlive, IsTakenWhileTheControllerIsNotRunning) {
  running = false;
  manager.feed_dog("iot.a", "main", 5);
  EXPECT_EQ(table().count("main"), 1U);
}

TEST_F(KeepAlive, IsNotAskedOfAServiceThatIsDead) {
  manager.feed_dog("iot.a", "main", 1);
  process_exit(pid_of(1));
  monitor_for_s(32);
  EXPECT_THAT(world.printed, Not(Contains(timeout_line)));
  EXPECT_EQ(world.count_lines("threadProc, service(a) status(1) is abnormal"), 1U);
}

// --- the stop

class StopServices : public ServiceManager {
 protected:
  StopServices() {
    load(R"([{"exec": "a"}, {"exec": "fota"}, {"exec": "RemoteTerminalDaemon"}, {"exec": "x/fota"}, {"exec": "b"}])");
    manager.run_services();
    world.lines.clear();
  }
  std::string kill_line(int32_t number, size_t index, const std::string& name) {
    return "kill -" + std::to_string(number) + " " + name + "(" + std::to_string(world.forks.at(index).pid) + ")";
  }
};

TEST_F(StopServices, StopsInReverseOrderAndSparesTwo) {
  manager.stop_services(0, 1);
  EXPECT_THAT(world.lines, ElementsAre(kill_line(15, 4, "b"), kill_line(15, 3, "x/fota"), kill_line(15, 0, "a")));
  EXPECT_EQ(record(1).status, 0);
  EXPECT_EQ(record(2).status, 0);
}

TEST_F(StopServices, StopsTheRemoteTerminalWhenNotAskedToKeepIt) {
  manager.stop_services(0, 0);
  EXPECT_THAT(world.lines, ElementsAre(kill_line(15, 4, "b"), kill_line(15, 3, "x/fota"),
                                       kill_line(15, 2, "RemoteTerminalDaemon"), kill_line(15, 0, "a")));
}

TEST_F(StopServices, KillsWhenForcedAlsoWhileNotRunning) {
  running = false;
  manager.stop_services(1, 1);
  EXPECT_THAT(world.lines, ElementsAre(kill_line(9, 4, "b"), kill_line(9, 3, "x/fota"), kill_line(9, 0, "a")));
}

// --- status and high availability

TEST_F(ServiceManager, ListsSupervisedServicesOnly) {
  load(R"([{"exec": "a"}, {"exec": "b", "monitor": 1}, {"exec": "c"}])");
  std::string report = "before ";
  manager.get_status(report);
  EXPECT_EQ(report, "before [  \033[0;31m-\033[0m  ]  Service b is \033[0;31minactive\033[0m\n");
}

TEST_F(ServiceManager, ReportsNothingWhileNotRunning) {
  load(R"([{"exec": "b", "monitor": 1}])");
  running = false;
  std::string report;
  manager.get_status(report);
  EXPECT_EQ(report, "");
}

class HighAvailability : public ServiceManager {
 protected:
  void deployed() { load(R"([{"exec": "high-availability"}])"); }
};

TEST_F(HighAvailability, IsOffWithoutItsService) {
  load(R"([{"exec": "bin/high-availability"}])");
  world.config["gw_ha_switch"] = "0";
  EXPECT_FALSE(manager.is_ha_service_switch_on());
  EXPECT_THAT(world.config_calls, IsEmpty());
}

TEST_F(HighAvailability, IsOnForAnEmptyDeploySetting) {
  deployed();
  world.config["gw_high_availability_deploy"] = "";
  EXPECT_TRUE(manager.is_ha_service_switch_on());
  EXPECT_THAT(world.config_calls, ElementsAre("get gw_high_availability_deploy"));
}

TEST_F(HighAvailability, FollowsTheSwitchOtherwise) {
  deployed();
  world.config["gw_high_availability_deploy"] = "yes";
  world.config["gw_ha_switch"] = "0";
  EXPECT_TRUE(manager.is_ha_service_switch_on());
  for (const char* value : {"1", "", "00", "on"}) {
    world.config["gw_ha_switch"] = value;
    EXPECT_FALSE(manager.is_ha_service_switch_on()) << value;
  }
}

TEST_F(HighAvailability, FollowsTheSwitchWhereTheDeploySettingHasNoValue) {
  deployed();
  world.config["gw_ha_switch"] = "0";
  EXPECT_TRUE(manager.is_ha_service_switch_on());
  EXPECT_THAT(world.config_calls, ElementsAre("get gw_high_availability_deploy", "get gw_ha_switch"));
  world.config["gw_ha_switch"] = "1";
  EXPECT_FALSE(manager.is_ha_service_switch_on());
}

TEST_F(HighAvailability, IsOffWhenNothingCanBeRead) {
  deployed();
  EXPECT_FALSE(manager.is_ha_service_switch_on());  // neither key has a value: that is no successful read here
  world.config_answers = false;
  const int64_t before = world.now_ms;
  EXPECT_FALSE(manager.is_ha_service_switch_on());
  EXPECT_EQ(world.now_ms - before, 6000);  // 3 s for each key
}

}  // namespace
}  // namespace Tessaro::Iot::Component
