#include "start_up.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include "start_up_probe.h"

namespace Tessaro::Iot::Quorvaned {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::IsEmpty;
using testing::Not;

const std::vector<std::string> teardown_lines = {"stop monitor service", "stop business service",
                                                 "close quorvaned dbus channel", "close watchdog dbus channel",
                                                 "stop dbus daemon"};

class Startup : public StartupTest {};

TEST_F(Startup, MakesItsTwoChannels) {
  make("[]");
  EXPECT_EQ(watchdog().address, "unix:path=/tmp/var/run/mbusd/mbusd_socket");
  EXPECT_EQ(watchdog().path, "/iot/gateway/watchdog");
  EXPECT_THAT(watchdog().match_rules, ElementsAre("type='signal',sender='org.freedesktop.DBus'"));
  EXPECT_EQ(quorvaned().address, watchdog().address);
  EXPECT_EQ(quorvaned().path, "/iot/gateway/quorvaned");
  EXPECT_THAT(quorvaned().match_rules, IsEmpty());
}

TEST_F(Startup, BringsTheStackUpInItsOrder) {
  make(R"([{"exec": "a"}])");
  end_by_upgrade_after_ms(1);
  world.at_ms(world.now_ms, [] {});
  EXPECT_EQ(probe().run(), 0);
  std::vector<std::string> lines = world.lines;
  lines.resize(10);
  EXPECT_THAT(lines,
              ElementsAre("running dbus daemon", "run dbus-daemon pid " + std::to_string(world.forks[0].pid),
                          "success to startup dbus daemon", "watchdog success to connect dbus daemon",
                          "quorvaned success to connect dbus daemon", "running a service",
                          "run a pid " + std::to_string(world.forks[1].pid), "success to startup business service",
                          "begin to monitor business service", "quorvaned startup success"));
}

TEST_F(Startup, TearsDownInReverseOrder) {
  make(R"([{"exec": "a"}])");
  end_by_upgrade_after_ms(10);
  (void)probe().run();
  const std::string bus = std::to_string(world.forks[0].pid);
  const std::string service = std::to_string(world.forks[1].pid);
  const std::vector<std::string> end(world.lines.end() - 7, world.lines.end());
  EXPECT_THAT(end, ElementsAre("stop monitor service", "stop business service", "kill -15 a(" + service + ")",
                               "close quorvaned dbus channel", "close watchdog dbus channel", "stop dbus daemon",
                               "stop dbus-daemon, kill -15 " + bus));
  EXPECT_THAT(world.thread_events, Contains("stop sevice_manager_thread"));
  EXPECT_EQ(quorvaned().stops, 1);
  EXPECT_EQ(watchdog().stops, 1);
}

TEST_F(Startup, RegistersAndEmptiesItsHandlersInOrder) {
  make("[]");
  end_by_upgrade_after_ms(10);
  (void)probe().run();
  EXPECT_THAT(watchdog().registrations, ElementsAre("error set", "feedDog set", "NameOwnerChanged set", "error empty",
                                                    "feedDog empty", "NameOwnerChanged empty"));
  EXPECT_THAT(quorvaned().registrations,
              ElementsAre("get_le_status set", "set_gateway_triple set", "reboot set", "start_upgrade set",
                          "get_le_status empty", "set_gateway_triple empty"));
  EXPECT_TRUE(quorvaned().methods["reboot"] && quorvaned().methods["start_upgrade"]);
}

TEST_F(Startup, ConnectsAgainEveryHalfSecond) {
  make("[]");
  int32_t refusals = 3;
  world.bus_accepts = [&](const std::string&) { return refusals-- <= 0; };
  const int64_t start = world.now_ms;
  int64_t connected_ms = 0;
  world.at_ms(start + 5000, [&] { connected_ms = start; });
  end_by_upgrade_after_ms(6000);
  (void)probe().run();
  EXPECT_EQ(watchdog().starts, 4);
  EXPECT_EQ(quorvaned().starts, 1);
  EXPECT_THAT(world.lines, Contains("quorvaned startup success"));
}

TEST_F(Startup, GivesUpAfterThirtyOneAttemptsAndBeginsANewCycle) {
  make(R"([{"exec": "a"}])");
  world.bus_accepts = [](const std::string&) { return false; };
  const int64_t start = world.now_ms;
  end_by_upgrade_after_ms(31 * 500 + 1000 + 10);
  (void)probe().run();
  EXPECT_EQ(watchdog().starts, 32);  // 31 in the first cycle, one in the second before it was ended
  EXPECT_EQ(quorvaned().starts, 0);
  std::vector<std::string> expected = {"success to startup dbus daemon", "watchdog fail to connect dbus daemon"};
  expected.insert(expected.end(), teardown_lines.begin(), teardown_lines.end());
  std::vector<std::string> lines;
  for (const std::string& line : sequence()) {
    if (line.rfind("stop dbus-daemon,", 0) != 0) lines.push_back(line);
  }
  lines.resize(expected.size());
  EXPECT_EQ(lines, expected);
  EXPECT_EQ(world.forks.at(1).at_ms - start, 31 * 500 + 1000);  // the next cycle's bus daemon
}

TEST_F(Startup, SharesTheAttemptsBetweenTheChannels) {
  make("[]");
  int32_t attempts = 0;
  world.bus_accepts = [&](const std::string&) { return ++attempts == 31; };  // the watchdog's last one succeeds
  end_by_upgrade_after_ms(30 * 500 + 500);
  (void)probe().run();
  EXPECT_EQ(watchdog().starts, 31);
  EXPECT_EQ(quorvaned().starts, 0);
  EXPECT_THAT(world.lines, Contains("watchdog success to connect dbus daemon"));
  EXPECT_THAT(world.lines, Contains("quorvaned fail to connect dbus daemon"));
  EXPECT_THAT(world.lines, Not(Contains("success to startup business service")));
}

// The first attempt comes as soon as the bus listens, and without one after a tenth of a second all the same.
TEST_F(Startup, WaitsForTheBusBeforeTheFirstAttempt) {
  for (const int64_t listens_after_ms : {0, 5, 40, 10'000}) {
    SCOPED_TRACE(listens_after_ms);
    world.reset();
    world.bus_listens_after_ms = listens_after_ms;
    make("[]");
    std::vector<int64_t> attempts;
    const int64_t begin = world.now_ms;
    world.bus_accepts = [&](const std::string&) {
      attempts.push_back(world.now_ms - begin);
      return true;
    };
    end_by_upgrade_after_ms(30'000);
    (void)probe().run();
    ASSERT_FALSE(attempts.empty());
    EXPECT_EQ(attempts.front(), std::min<int64_t>(listens_after_ms, 100));
  }
}

TEST_F(Startup, StalePostsUseUpNoAttempts) {
  make("[]");
  for (int32_t post = 0; post < 40; ++post) probe().post();
  int32_t refusals = 1;
  world.bus_accepts = [&](const std::string&) { return refusals-- <= 0; };
  end_by_upgrade_after_ms(600);
  (void)probe().run();
  EXPECT_EQ(watchdog().starts, 2);
  EXPECT_THAT(world.lines, Contains("quorvaned startup success"));
}

TEST_F(Startup, WritesItsSuccessLinesUnconditionally) {
  make(R"([{"exec": "a"}])");
  world.fork_fails = true;
  end_by_upgrade_after_ms(1000);
  (void)probe().run();
  EXPECT_THAT(world.lines, Contains("success to startup dbus daemon"));
  EXPECT_THAT(world.lines, Contains("success to startup business service"));
}

TEST_F(Startup, TearsDownWhenTheMonitorCannotBeStarted) {
  make("[]");
  world.thread_creation_fails = true;
  end_by_upgrade_after_ms(500);
  (void)probe().run();
  EXPECT_THAT(world.lines, Contains("fail to monitor business service"));
  EXPECT_THAT(world.lines, Not(Contains("quorvaned startup success")));
  EXPECT_THAT(world.lines, Contains("stop dbus daemon"));
}

TEST_F(Startup, BeginsANewCycleOneSecondAfterALostBus) {
  make("[]");
  world.after_s(10, [this] { watchdog().error(104); });
  end_by_upgrade_after_ms(11'000 + 500);
  const int64_t start = world.now_ms;
  (void)probe().run();
  EXPECT_THAT(world.lines, Contains("dbus error callback, error:104"));
  ASSERT_EQ(world.forks.size(), 2U);
  EXPECT_EQ(world.forks[1].at_ms - start, 11'000);
  EXPECT_EQ(world.count_lines("quorvaned startup success"), 2U);
}

TEST_F(Startup, NoticesAClearedFlagWithoutAPostWithinASecond) {
  make("[]");
  const int64_t start = world.now_ms;
  world.at_ms(start + 2300, [this] { probe().clear_running(); });
  end_by_upgrade_after_ms(10'000);
  (void)probe().run();
  ASSERT_GE(world.forks.size(), 2U);
  EXPECT_EQ(world.forks[1].at_ms - start, 3000 + 1000);
}

TEST_F(Startup, StopsTheRemoteTerminalOnlyForARestartThatWasAskedFor) {
  make(R"([{"exec": "fota"}, {"exec": "RemoteTerminalDaemon"}, {"exec": "a"}])");
  world.after_s(1, [this] { watchdog().error(1); });
  world.after_s(10, [this] { (void)quorvaned().call("reboot"); });
  end_by_upgrade_after_ms(20'000);
  (void)probe().run();
  std::vector<std::string> kills;
  for (const std::string& line : world.lines) {
    if (line.rfind("kill ", 0) == 0) kills.push_back(line.substr(0, line.find('(')));
  }
  EXPECT_THAT(kills, ElementsAre("kill -15 a",                                   // the lost bus
                                 "kill -15 a", "kill -15 RemoteTerminalDaemon",  // the reboot
                                 "kill -15 a"));                                 // the upgrade
}

TEST_F(Startup, KeepsTheRemoteTerminalInAnUpgradeWhateverIsAskedMeanwhile) {
  make("[]");
  probe().set_running();
  end_by_upgrade_after_ms(10);
  (void)probe().run();
  (void)quorvaned().call("reboot");
  EXPECT_EQ(probe().keep_remote_debug(), 1U);
}

TEST_F(Startup, RunsNoFurtherCycleAfterAnUpgradeRequest) {
  make("[]");
  end_by_upgrade_after_ms(10);
  (void)probe().run();
  EXPECT_EQ(probe().run(), 0);  // not even when the body is entered again
  EXPECT_EQ(world.count_lines("quorvaned startup success"), 1U);
  EXPECT_FALSE(startup->is_running());
}

TEST_F(Startup, BringsNothingUpWhenAnExitWasRequestedBetweenTwoCycles) {
  make("[]");
  world.after_s(1, [this] { watchdog().error(1); });
  world.at_ms(world.now_ms + 1500, [this] { (void)quorvaned().call("start_upgrade"); });  // in the restart wait
  (void)probe().run();
  EXPECT_EQ(world.count_lines("quorvaned startup success"), 1U);
  EXPECT_EQ(world.forks.size(), 1U);
}

// --- the ends of the process (each in a process of its own)

using StartupDeathTest = Startup;

TEST_F(StartupDeathTest, ForcedExitStopsTheBusThenTheServicesAfterFiveSeconds) {
  make(R"([{"exec": "fota"}, {"exec": "RemoteTerminalDaemon"}, {"exec": "a"}, {"exec": "b"}])");
  EXPECT_EXIT(
      {
        probe().set_running();
        probe().manager().run_dbus_daemon();
        probe().manager().run_services();
        const int64_t before = world.now_ms;
        world.at_ms(before + 4999, [] { (void)std::fprintf(stderr, "4999 ms\n"); });
        world.at_ms(before + 5001, [] { (void)std::fprintf(stderr, "5001 ms\n"); });
        startup->stop(0);
      },
      ExitedWithCode(0),
      "4999 ms\nquorvaned exit \\(force\\)\nstop dbus-daemon, kill -15 [0-9]+\nkill -9 b\\([0-9]+\\)\n"
      "kill -9 a\\([0-9]+\\)\n$");
}

TEST_F(StartupDeathTest, SecondStopInTheFiveSecondsDoesNotProlongThem) {
  make("[]");
  EXPECT_EXIT(
      {
        const int64_t before = world.now_ms;
        world.at_ms(before + 3000, [this] { startup->stop(1); });
        world.at_ms(before + 4999, [] { (void)std::fprintf(stderr, "4999 ms\n"); });
        world.at_ms(before + 5001, [] { (void)std::fprintf(stderr, "5001 ms\n"); });
        startup->stop(0);
      },
      ExitedWithCode(0), "4999 ms\nquorvaned exit \\(force\\)\n$");
}

TEST_F(StartupDeathTest, ForcedExitWaitsForItsStopScript) {
  make(R"([{"exec": "startSC.sh"}])");
  EXPECT_EXIT(
      {
        probe().set_running();
        probe().manager().run_services();
        world.on_fork = [this](int32_t pid) {
          world.at_ms(world.now_ms + 300, [this, pid] {
            (void)std::fprintf(stderr, "script done\n");
            world.end_child(pid);
          });
        };
        startup->stop(0);
      },
      ExitedWithCode(0), "run stopSC.sh pid [0-9]+\nscript done\n$");
}

TEST_F(StartupDeathTest, StopDuringAnUpgradeEndsAtOnceAndStopsNothing) {
  make(R"([{"exec": "a"}])");
  EXPECT_EXIT(
      {
        end_by_upgrade_after_ms(10);
        (void)probe().run();
        (void)std::fprintf(stderr, "upgrading\n");
        startup->stop(0);
      },
      ExitedWithCode(0), "upgrading\n$");
}

TEST_F(StartupDeathTest, ExitRequestedInATeardownEndsNormallyThreeSecondsLater) {
  make("[]");
  EXPECT_EXIT(
      {
        // Begun before the stop, the teardown goes on; the forced exit would come later.
        world.after_s(1, [this] { watchdog().error(1); });
        world.at_ms(world.now_ms + 1500, [this] {
          world.at_ms(world.now_ms + 2999, [] { (void)std::fprintf(stderr, "2999 ms\n"); });
          world.at_ms(world.now_ms + 4600, [] { (void)std::fprintf(stderr, "4600 ms\n"); });
          startup->cancelThread();
          probe().request_exit();
        });
        (void)probe().run();
      },
      ExitedWithCode(0), "2999 ms\nquorvaned exit \\(normal\\)\n$");
}

TEST_F(StartupDeathTest, UpgradeWithoutAnExecutableEndsWithStatusZero) {
  make("[]");
  EXPECT_EXIT(startup->finish_upgrade(), ExitedWithCode(0), "finsh upgrade quorvane!\n$");
}

TEST_F(Startup, StartFailsWithoutACatalogue) {
  directory.remove();
  startup = create({});
  EXPECT_FALSE(startup->start());
  EXPECT_THAT(world.lines, ElementsAre("initialize the running environment", "can not load service.json",
                                       "fail to init service environment"));
  EXPECT_THAT(world.thread_events, Not(Contains("create start_up_thread")));
}

TEST_F(Startup, StartFailsWithoutItsThread) {
  directory.write("[]");
  startup = create({});
  world.on_fork = [this](int32_t pid) { world.end_child(pid); };  // the key-chain tool
  world.thread_creation_fails = true;
  EXPECT_FALSE(startup->start());
}

TEST_F(Startup, StartBeginsTheControllerThread) {
  directory.write("[]");
  startup = create({});
  world.on_fork = [this](int32_t pid) { world.end_child(pid); };  // the key-chain tool
  EXPECT_TRUE(startup->start());
  EXPECT_THAT(world.thread_events, Contains("create start_up_thread"));
}

}  // namespace
}  // namespace Tessaro::Iot::Quorvaned
