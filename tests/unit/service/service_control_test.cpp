#include "service_control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

#include "fake_world.h"
#include "install_root.h"
#include "paths.h"
#include "platform/config_agent.h"
#include "platform/dbus_channel.h"

namespace Tessaro::Iot::Component {
namespace {

using Fakes::Signal;
using Fakes::World;
using testing::ElementsAre;
using testing::IsEmpty;

class ServiceControl : public testing::Test {
 protected:
  ServiceControl() { world.reset(); }

  const CSpawnPlan& last_plan() const { return world.forks.back().plan; }
  int32_t start(const std::string& exec, std::list<std::string> args = {}) {
    record.exec = exec;
    record.args = std::move(args);
    control.start_service(&record);
    return record.pid;
  }
  std::string run_line(const std::string& name) const {
    return "run " + name + " pid " + std::to_string(world.forks.back().pid);
  }

  World& world = World::get();
  CDBusChannel channel{"unix:path=/nowhere", "iot.test", "/iot/test", {}};
  CConfigAgent agent{&channel, "iot.test"};
  CServiceControl control{&channel, &agent};
  ServiceRecord record;
};

TEST_F(ServiceControl, StartsTheProgramByItsPathWithItsBaseNameFirst) {
  const int32_t pid = start("bin/svc", {"-a", "b"});
  EXPECT_GT(pid, 1);
  EXPECT_EQ(last_plan().program, "./bin/svc");
  EXPECT_THAT(last_plan().arguments, ElementsAre("svc", "-a", "b"));
  EXPECT_TRUE(last_plan().discard_output);
  EXPECT_EQ(last_plan().working_directory, "");
  EXPECT_THAT(world.lines, ElementsAre("run svc pid " + std::to_string(pid)));
}

TEST_F(ServiceControl, RecordsTheStart) {
  record.keepalive["item"] = 5;
  record.status = 1;
  world.now_ms = 1'234'999;
  start("svc");
  EXPECT_EQ(record.status, 0);
  EXPECT_EQ(record.start_time, 1234U);
  EXPECT_TRUE(record.keepalive.empty());
}

TEST_F(ServiceControl, LetsTwoServicesOutliveTheDaemonByTheirBaseName) {
  for (const char* exec : {"fota", "RemoteTerminalDaemon", "x/fota", "x/y/RemoteTerminalDaemon"}) {
    start(exec);
    EXPECT_EQ(last_plan().parent_death_signal, 0) << exec;
  }
  for (const char* exec : {"svc", "fota/x", "Fota", "fota2"}) {
    start(exec);
    EXPECT_EQ(last_plan().parent_death_signal, SIGKILL) << exec;
  }
}

TEST_F(ServiceControl, CutsLongArguments) {
  start("svc", {std::string(300, 'x'), std::string(255, 'y'), std::string("a\0b", 3)});
  EXPECT_THAT(last_plan().arguments, ElementsAre("svc", std::string(255, 'x'), std::string(255, 'y'), "a"));
}

TEST_F(ServiceControl, FailedForkLeavesAStartedRecordWithoutPid) {
  world.fork_fails = true;
  record.pid = 55;
  EXPECT_EQ(start("svc"), 0);
  EXPECT_EQ(record.status, 0);
  EXPECT_THAT(world.lines, IsEmpty());
}

TEST_F(ServiceControl, StopsWithTheTerminateSignalAndTheFullName) {
  const int32_t pid = start("bin/svc");
  record.keepalive["item"] = 5;
  control.stop_service(&record, false);
  EXPECT_THAT(world.signals, ElementsAre(Signal{pid, SIGTERM}));
  EXPECT_EQ(world.lines.back(), "kill -15 bin/svc(" + std::to_string(pid) + ")");
  EXPECT_EQ(record.status, -1);
  EXPECT_EQ(record.pid, 0);
  EXPECT_TRUE(record.keepalive.empty());
}

TEST_F(ServiceControl, StopsWithTheKillSignalWhenForced) {
  const int32_t pid = start("svc");
  control.stop_service(&record, true);
  EXPECT_THAT(world.signals, ElementsAre(Signal{pid, SIGKILL}));
  EXPECT_EQ(world.lines.back(), "kill -9 svc(" + std::to_string(pid) + ")");
}

TEST_F(ServiceControl, StopOfAPidBelowTwoSignalsAndLogsNothing) {
  for (const int32_t pid : {0, 1, -1}) {
    record.exec = "svc";
    record.pid = pid;
    record.status = 0;
    control.stop_service(&record, true);
    EXPECT_EQ(record.pid, 0);
    EXPECT_EQ(record.status, -1);
  }
  EXPECT_THAT(world.signals, IsEmpty());
  EXPECT_THAT(world.lines, IsEmpty());
}

TEST_F(ServiceControl, KillReturnsAPidBelowTwoUnchanged) {
  for (const int32_t pid : {-7, 0, 1}) {
    record.pid = pid;
    EXPECT_EQ(control.kill_service(&record, false), pid);
  }
}

TEST_F(ServiceControl, NeverSignalsANumberThatHasPassedToAStranger) {
  const int32_t pid = start("svc");
  world.end_child(pid);
  world.serve([](int32_t) {});  // reaped while nobody cleared the record
  ASSERT_THAT(world.reaped, ElementsAre(pid));
  control.stop_service(&record, false);
  EXPECT_THAT(world.signals, IsEmpty());
  EXPECT_EQ(world.lines.back(), "kill -15 svc(" + std::to_string(pid) + ")");  // the line stays
}

TEST_F(ServiceControl, NeverSignalsAnotherChildThatWasGivenTheSameNumber) {
  const int32_t pid = start("svc");
  world.end_child(pid);
  world.serve([](int32_t) {});
  ServiceRecord other;
  other.exec = "other";
  world.next_pid = pid;  // the kernel comes round to the same number
  control.start_service(&other);
  ASSERT_EQ(other.pid, pid);
  control.stop_service(&record, true);
  EXPECT_THAT(world.signals, IsEmpty());
  control.stop_service(&other, true);
  EXPECT_THAT(world.signals, ElementsAre(Signal{pid, SIGKILL}));
  world.next_pid = pid + 1000;
}

TEST_F(ServiceControl, StoresThePidBeforeADeathCanBeNoticed) {
  world.on_fork = [this](int32_t pid) { world.end_child(pid); };  // dead before fork has even returned
  start("missing");
  const int32_t pid = world.forks.back().pid;
  EXPECT_EQ(record.pid, pid);
  int32_t told = 0;
  world.serve([&](int32_t ended) {
    told = ended;
    EXPECT_EQ(record.pid, ended);
    EXPECT_THAT(world.reaped, IsEmpty());  // told first, reaped afterwards
  });
  EXPECT_EQ(told, pid);
  EXPECT_THAT(world.reaped, ElementsAre(pid));
}

// --- the bus daemon

class BusDaemonControl : public ServiceControl {
 protected:
  int32_t start_bus() { return start("dbus-daemon", {"--nofork", "--config-file=./mbusd.conf", "--print-address"}); }
  void stop_bus(bool force) {
    ServiceRecord stopped;
    stopped.exec = "dbus-daemon";
    control.stop_service(&stopped, force);
  }
  ~BusDaemonControl() override { std::filesystem::remove_all("/tmp/var/run/mbusd"); }
};

TEST_F(BusDaemonControl, FirstStartMakesTheDirectoryAndKillsNobody) {
  std::filesystem::remove_all("/tmp/var/run/mbusd");
  const int32_t pid = start_bus();
  EXPECT_THAT(world.lines, ElementsAre("run dbus-daemon pid " + std::to_string(pid)));
  EXPECT_EQ(last_plan().program, "./dbus-daemon");
  EXPECT_THAT(last_plan().arguments,
              ElementsAre("dbus-daemon", "--nofork", "--config-file=./mbusd.conf", "--print-address"));
  EXPECT_EQ(last_plan().parent_death_signal, SIGKILL);
}

TEST_F(BusDaemonControl, DirectoryIsClosedToOthersUntilTheBusAnswers) {
  const auto mode_of = [](const char* path) { return std::filesystem::status(path).permissions(); };
  for (const auto& [before, meanwhile] : {std::pair(0755, 0700), std::pair(0711, 0711)}) {
    SCOPED_TRACE(before);
    std::filesystem::remove_all("/tmp/var/run/mbusd");
    std::filesystem::create_directories("/tmp/var/run/mbusd");
    std::filesystem::permissions("/tmp/var/run/mbusd", std::filesystem::perms(before));
    for (int cycle = 0; cycle < 2; ++cycle) (void)start_bus();  // the first one never answered
    EXPECT_EQ(mode_of("/tmp/var/run/mbusd"), std::filesystem::perms(meanwhile));
    control.open_bus_directory();
    EXPECT_EQ(mode_of("/tmp/var/run/mbusd"), std::filesystem::perms(before));
    EXPECT_EQ(mode_of("/tmp/var/run/mbusd/mbusd_socket"), std::filesystem::perms{0600});
  }
}

TEST_F(BusDaemonControl, SecondStartEndsTheRecordedOneFirst) {
  const int32_t first = start_bus();
  const int32_t second = start_bus();
  EXPECT_THAT(world.signals, ElementsAre(Signal{first, SIGTERM}));
  EXPECT_THAT(world.lines, ElementsAre("run dbus-daemon pid " + std::to_string(first),
                                       "start dbus-daemon, kill -15 " + std::to_string(first),
                                       "run dbus-daemon pid " + std::to_string(second)));
}

TEST_F(BusDaemonControl, StartRemovesWhatAnEarlierRunLeft) {
  std::filesystem::create_directories("/tmp/var/run/mbusd");
  std::ofstream("/tmp/var/run/mbusd/mbusd.pid") << "1";
  std::ofstream("/tmp/var/run/mbusd/mbusd_socket") << "";
  world.on_fork = [](int32_t) {
    EXPECT_FALSE(std::filesystem::exists("/tmp/var/run/mbusd/mbusd.pid"));
    EXPECT_FALSE(std::filesystem::exists("/tmp/var/run/mbusd/mbusd_socket"));
  };
  start_bus();
}

TEST_F(BusDaemonControl, StopsOnceAndAlwaysByTheTerminateSignal) {
  const int32_t pid = start_bus();
  stop_bus(true);
  EXPECT_EQ(world.lines.back(), "stop dbus-daemon, kill -15 " + std::to_string(pid));
  const size_t lines = world.lines.size();
  stop_bus(true);
  EXPECT_EQ(world.lines.size(), lines);
  EXPECT_THAT(world.signals, ElementsAre(Signal{pid, SIGTERM}));
}

TEST_F(BusDaemonControl, StopAfterAFailedForkDoesNothing) {
  world.fork_fails = true;
  start_bus();
  stop_bus(false);
  EXPECT_THAT(world.signals, IsEmpty());
  EXPECT_THAT(world.lines, IsEmpty());
}

TEST_F(BusDaemonControl, NeverSignalsADeadBusDaemonsNumber) {
  const int32_t pid = start_bus();
  world.end_child(pid);
  world.serve([](int32_t) {});
  stop_bus(false);
  EXPECT_THAT(world.signals, IsEmpty());
  EXPECT_EQ(world.lines.back(), "stop dbus-daemon, kill -15 " + std::to_string(pid));  // the line stays
}

// --- the web server and the scene service

class WebServerControl : public ServiceControl {
 protected:
  ~WebServerControl() override { (void)::unsetenv("LD_LIBRARY_PATH"); }
  const std::string library_path = get_install_root() + "/lib";
};

TEST_F(WebServerControl, RunsInItsDirectoryWithTheInstallationsLibraries) {
  ASSERT_EQ(::unsetenv("LD_LIBRARY_PATH"), 0);
  const int32_t pid = start("nginx", {"-p", "/x/web"});
  EXPECT_EQ(last_plan().program, "../../openresty/nginx/sbin/nginx");
  EXPECT_THAT(last_plan().arguments, ElementsAre("nginx", "-p", "./"));
  EXPECT_EQ(last_plan().working_directory, "/x/web");
  EXPECT_EQ(last_plan().environment_entry, "LD_LIBRARY_PATH=" + library_path);
  EXPECT_EQ(last_plan().parent_death_signal, SIGTERM);
  EXPECT_THAT(world.printed,
              ElementsAre("1 start_ngnix_service: cwd:/x/web", "1 start_ngnix_service: old_ld_lib_path:null",
                          "1 start_ngnix_service: nginx_lib_path:" + library_path,
                          "1 start_ngnix_service: new_ld_lib_path:LD_LIBRARY_PATH=" + library_path));
  EXPECT_THAT(world.lines, ElementsAre("run nginx pid " + std::to_string(pid)));
}

TEST_F(WebServerControl, AppendsToTheLibraryPathThatIsSet) {
  ASSERT_EQ(::setenv("LD_LIBRARY_PATH", "/a:/b", 1), 0);
  start("nginx");
  EXPECT_EQ(last_plan().environment_entry, "LD_LIBRARY_PATH=/a:/b:" + library_path);
  ASSERT_EQ(::setenv("LD_LIBRARY_PATH", "", 1), 0);
  start("nginx");
  EXPECT_EQ(last_plan().environment_entry, "LD_LIBRARY_PATH=:" + library_path);
}

TEST_F(WebServerControl, WithOneArgumentHasNoDirectory) {
  start("nginx", {"-t"});
  EXPECT_THAT(last_plan().arguments, ElementsAre("nginx", "-t"));
  EXPECT_EQ(last_plan().working_directory, "");
  EXPECT_EQ(world.printed.front(), "1 start_ngnix_service: old_ld_lib_path:null");
}

TEST_F(WebServerControl, ReplacesTheSecondArgumentOnly) {
  start("nginx", {"-p", "/x/web", "-s", "stop"});
  EXPECT_THAT(last_plan().arguments, ElementsAre("nginx", "-p", "./", "-s", "stop"));
}

TEST_F(WebServerControl, IsStoppedLikeAnyOther) {
  const int32_t pid = start("nginx");
  control.stop_service(&record, false);
  EXPECT_THAT(world.signals, ElementsAre(Signal{pid, SIGTERM}));
}

TEST_F(ServiceControl, IsSpecialByTheWholeNameOnly) {
  start("bin/nginx", {"-p", "/x"});
  EXPECT_EQ(last_plan().program, "./bin/nginx");
  EXPECT_THAT(last_plan().arguments, ElementsAre("nginx", "-p", "/x"));
  start("bin/scene");
  EXPECT_THAT(last_plan().arguments, ElementsAre("scene"));
  for (const char* exec : {"bin/startSC.sh", "bin/dbus-daemon"}) {
    world.signals.clear();
    const int32_t pid = start(exec);
    control.stop_service(&record, true);
    EXPECT_THAT(world.signals, ElementsAre(Signal{pid, SIGKILL})) << exec;
  }
}

TEST_F(ServiceControl, GivesTheSceneServiceItsLevel) {
  const auto level_for = [this](const std::string& value) {
    world.config["gw_ha_service_switch"] = value;
    start("scene", {"-x"});
    EXPECT_EQ(last_plan().program, "./scene");
    EXPECT_EQ(last_plan().arguments.size(), 3U);
    return last_plan().arguments.back();
  };
  EXPECT_EQ(level_for("on"), "-level=1");
  for (const char* value : {"ON", "off", "", "on "}) EXPECT_EQ(level_for(value), "-level=0") << value;
  world.config_answers = false;
  EXPECT_EQ(level_for("on"), "-level=0");
}

TEST_F(ServiceControl, WaitsThreeSecondsForTheSceneServicesSwitch) {
  world.config_answers = false;
  const int64_t before = world.now_ms;
  start("scene");
  EXPECT_EQ(world.now_ms - before, 3000);
  EXPECT_THAT(last_plan().arguments, ElementsAre("scene", "-level=0"));
}

TEST_F(ServiceControl, StartsAndStopsTheSceneServiceLikeAnyOther) {
  const int32_t pid = start("scene", {"-x", std::string(300, 'y')});
  EXPECT_THAT(last_plan().arguments, ElementsAre("scene", "-x", std::string(255, 'y'), "-level=0"));
  EXPECT_EQ(last_plan().parent_death_signal, SIGKILL);
  EXPECT_TRUE(last_plan().discard_output);
  EXPECT_EQ(last_plan().working_directory, "");
  EXPECT_THAT(world.lines, ElementsAre("run scene pid " + std::to_string(pid)));
  control.stop_service(&record, true);
  EXPECT_THAT(world.signals, ElementsAre(Signal{pid, SIGKILL}));
}

TEST_F(ServiceControl, StopsTheScriptedSceneServiceByItsStopScript) {
  start("startSC.sh");
  EXPECT_EQ(last_plan().program, "./startSC.sh");
  for (const bool force : {false, true}) {
    control.stop_service(&record, force);
    EXPECT_EQ(last_plan().program, "./stopSC.sh");
    EXPECT_THAT(last_plan().arguments, ElementsAre("stopSC.sh"));
    EXPECT_EQ(world.lines.back(), run_line("stopSC.sh"));
  }
  EXPECT_THAT(world.signals, IsEmpty());
  EXPECT_EQ(record.pid, 0);
  EXPECT_EQ(record.status, -1);
}

TEST_F(ServiceControl, WaitsForAStopScriptAtMostASecond) {
  start("startSC.sh");
  control.stop_service(&record, true);
  const int64_t before = world.now_ms;
  control.wait_for_stop_script(1000);
  EXPECT_EQ(world.now_ms, before + 1000);  // it hangs
  const int32_t script = world.forks.back().pid;
  world.at_ms(world.now_ms + 200, [&] { world.end_child(script); });
  const int64_t again = world.now_ms;
  control.wait_for_stop_script(1000);
  EXPECT_LT(world.now_ms, again + 250);
  world.serve([](int32_t) {});
}

}  // namespace
}  // namespace Tessaro::Iot::Component
