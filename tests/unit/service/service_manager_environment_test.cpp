// The preparation of the running environment. The run-time tree and the pid file are real.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "fake_world.h"
#include "paths.h"
#include "pid_file.h"
#include "service_manager_probe.h"

namespace Tessaro::Iot::Component {
namespace {

using Fakes::Signal;
using Fakes::World;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// Another process that holds the pid file, and lets go when it is told to.
class Holder {
 public:
  explicit Holder(const std::string& content = "") {
    std::filesystem::create_directories("/quorvane/run/startup");
    int ready[2];
    EXPECT_EQ(::pipe2(ready, O_CLOEXEC), 0);
    pid_ = ::fork();
    if (pid_ == 0) {
      const int fd = ::open(Paths::pid_file, O_RDWR | O_CREAT, 0644);
      const std::string text = content.empty() ? std::to_string(::getpid()) : content;
      const bool held = try_lock_file(fd) == 0 && ::ftruncate(fd, 0) == 0 &&
                        ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
      (void)!::write(ready[1], held ? "y" : "n", 1);
      for (;;) (void)::pause();
    }
    char answer = 0;
    EXPECT_EQ(::read(ready[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y');
    (void)::close(ready[0]);
    (void)::close(ready[1]);
  }
  ~Holder() { let_go(); }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;
  void let_go() {
    if (pid_ < 1) return;
    (void)::kill(pid_, SIGKILL);
    (void)::waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }
  int32_t pid() const { return pid_; }

 private:
  pid_t pid_ = 0;
};

class Environment : public testing::Test {
 protected:
  Environment() {
    world.reset();
    directory.write("[]");
    std::filesystem::remove_all("/quorvane/run");
    world.on_fork = [this](int32_t pid) { world.end_child(pid); };  // the key-chain tool ends at once
  }
  ~Environment() override {
    // Closing what lock_pid_file leaves open lets the next test begin anew.
    for (int fd = 3; fd < 64; ++fd) {
      struct stat status {};
      struct stat wanted {};
      if (::stat(Paths::pid_file, &wanted) == 0 && ::fstat(fd, &status) == 0 && status.st_ino == wanted.st_ino) {
        (void)::close(fd);
      }
    }
    std::filesystem::remove_all("/quorvane/run");
  }
  std::vector<std::string> check_lines() const {
    std::vector<std::string> lines;
    for (const std::string& line : world.lines) {
      if (line.find("old quorvaned") != std::string::npos) lines.push_back(line);
    }
    return lines;
  }

  World& world = World::get();
  CatalogueDirectory directory;
  CDBusChannel channel{"unix:path=/nowhere", "iot.test", "/iot/test", {}};
  CServiceManager manager{&channel, -1, {}, nullptr};
};

TEST_F(Environment, IsPreparedInItsOrder) {
  EXPECT_EQ(manager.init_environment(), 1);
  EXPECT_THAT(world.lines,
              ElementsAre("initialize the running environment",
                          "quorvaned pid:" + std::to_string(::getpid()) + ", ppid:" + std::to_string(::getppid()),
                          "mkdirs /quorvane/run", "mkdirs /quorvane/run/console", "mkdirs /quorvane/run/logger",
                          "mkdirs /quorvane/run/startup", "check old quorvaned, count:0 old_pid:0",
                          "init key-chain, cmd:./deploy_sst >/quorvane/run/startup/deploy_sst.log 2>&1"));
  EXPECT_THAT(world.signals, IsEmpty());
  for (const char* path : {"/quorvane/run", "/quorvane/run/console", "/quorvane/run/logger", "/quorvane/run/startup"}) {
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0755}) << path;
  }
}

TEST_F(Environment, LeavesExistingDirectoriesAsTheyAre) {
  std::filesystem::create_directories("/quorvane/run/console");
  std::filesystem::permissions("/quorvane/run/console", std::filesystem::perms{0700});
  EXPECT_EQ(manager.init_environment(), 1);
  EXPECT_EQ(std::filesystem::status("/quorvane/run/console").permissions(), std::filesystem::perms{0700});
  EXPECT_EQ(world.count_lines("mkdirs /quorvane/run/console"), 0U);
  EXPECT_EQ(world.count_lines("mkdirs /quorvane/run/logger"), 1U);
}

TEST_F(Environment, TouchesNothingWithoutACatalogue) {
  directory.remove();
  EXPECT_EQ(manager.init_environment(), 0);
  EXPECT_THAT(world.lines, ElementsAre("initialize the running environment", "can not load service.json"));
  EXPECT_FALSE(std::filesystem::exists("/quorvane/run"));
  EXPECT_THAT(world.forks, IsEmpty());
}

TEST_F(Environment, RunsTheKeyChainToolThroughTheShell) {
  EXPECT_EQ(manager.init_environment(), 1);
  ASSERT_EQ(world.forks.size(), 1U);
  EXPECT_EQ(world.forks[0].plan.program, "/bin/sh");
  EXPECT_THAT(world.forks[0].plan.arguments,
              ElementsAre("sh", "-c", "./deploy_sst >/quorvane/run/startup/deploy_sst.log 2>&1"));
  EXPECT_EQ(world.forks[0].plan.parent_death_signal, SIGKILL);
  EXPECT_FALSE(world.forks[0].plan.discard_output);
  EXPECT_THAT(world.reaped, ElementsAre(world.forks[0].pid));
}

TEST_F(Environment, GoesOnWithoutAKeyChainToolThatCannotBeForked) {
  world.fork_fails = true;
  EXPECT_EQ(manager.init_environment(), 1);
  EXPECT_THAT(world.lines.back(), HasSubstr("init key-chain"));
}

TEST_F(Environment, StopsAnOldInstanceAndWaitsForIt) {
  Holder old;
  const std::string pid = std::to_string(old.pid());
  world.at_ms(world.now_ms + 2500, [&] { old.let_go(); });
  EXPECT_EQ(manager.init_environment(), 1);
  EXPECT_THAT(world.signals, ElementsAre(Signal{std::stoi(pid), SIGUSR1}));
  EXPECT_THAT(check_lines(),
              ElementsAre("check old quorvaned, count:0 old_pid:" + pid, "stop old quorvaned, kill -10 " + pid,
                          "check old quorvaned, count:1 old_pid:" + pid, "check old quorvaned, count:2 old_pid:" + pid,
                          "check old quorvaned, count:3 old_pid:0"));
}

TEST_F(Environment, GoesOnWithoutThePidFileAfterTenRechecks) {
  Holder old;
  const int64_t before = world.now_ms;
  EXPECT_EQ(manager.init_environment(), 1);
  EXPECT_EQ(world.now_ms - before, 10'000);
  EXPECT_EQ(check_lines().size(), 12U);  // counts 0 to 10, and one stop
  EXPECT_EQ(check_lines().back(), "check old quorvaned, count:10 old_pid:" + std::to_string(old.pid()));
  EXPECT_THAT(world.signals, ElementsAre(Signal{old.pid(), SIGUSR1}));
}

TEST_F(Environment, PidFileThatCannotBeOpenedCostsTenRechecksAndNoSignal) {
  std::filesystem::create_directories(Paths::pid_file);  // a directory in its place
  const int64_t before = world.now_ms;
  EXPECT_EQ(manager.init_environment(), 1);
  EXPECT_EQ(world.now_ms - before, 10'000);
  EXPECT_THAT(world.signals, IsEmpty());
  EXPECT_EQ(check_lines().size(), 11U);
  EXPECT_EQ(check_lines().front(), "check old quorvaned, count:0 old_pid:-1");
}

TEST_F(Environment, NeverSignalsANumberThatIsNotTheHolders) {
  Holder old("12345");  // an old number, not overwritten yet
  EXPECT_EQ(manager.init_environment(), 1);
  EXPECT_THAT(world.signals, IsEmpty());
  EXPECT_EQ(check_lines().front(), "check old quorvaned, count:0 old_pid:-1");
}

}  // namespace
}  // namespace Tessaro::Iot::Component
