#include "process_scan.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "install_root.h"
#include "platform/sys/process.h"

namespace Tessaro::Iot::Component {
namespace {

using testing::Contains;
using testing::IsEmpty;
using testing::Not;

// A copy of a sleeping program that runs until the end of the test.
class Running {
 public:
  explicit Running(const std::filesystem::path& program, bool own_mount_namespace = false) : program_(program) {
    std::filesystem::copy_file("/bin/sleep", program, std::filesystem::copy_options::overwrite_existing);
    int started[2];
    EXPECT_EQ(::pipe2(started, O_CLOEXEC), 0);
    pid_ = ::fork();
    if (pid_ == 0) {
      if (own_mount_namespace && ::unshare(CLONE_NEWNS) != 0) ::_exit(1);
      (void)::execl(program.c_str(), "sleep", "1000", nullptr);
      ::_exit(1);
    }
    (void)::close(started[1]);
    char byte = 0;
    EXPECT_EQ(::read(started[0], &byte, 1), 0);  // closed by the exec
    (void)::close(started[0]);
  }
  ~Running() {
    (void)::kill(pid_, SIGKILL);
    (void)::waitpid(pid_, nullptr, 0);
    std::filesystem::remove(program_);
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;
  int32_t pid() const { return pid_; }

 private:
  std::filesystem::path program_;
  pid_t pid_ = 0;
};

class ProcessScan : public testing::Test {
 protected:
  static std::vector<int32_t> find(const std::string& name) {
    std::vector<int32_t> pids;
    EXPECT_TRUE(find_processes_by_name(name, pids));
    return pids;
  }
  void SetUp() override { std::filesystem::create_directories(inside.parent_path()); }
  void TearDown() override { std::filesystem::remove_all(inside.parent_path()); }

  // A directory for each test: they run side by side, and a program that runs cannot be written.
  const std::filesystem::path inside = std::filesystem::path(get_install_root()) /
                                       testing::UnitTest::GetInstance()->current_test_info()->name() / "probe-inside";
};

TEST_F(ProcessScan, FindsAProgramOfThisInstallationByNameOrPath) {
  const Running program(inside);
  EXPECT_THAT(find("probe-inside"), Contains(program.pid()));
  EXPECT_THAT(find("some/where/probe-inside"), Contains(program.pid()));
  EXPECT_THAT(find("probe-insid"), IsEmpty());
  EXPECT_THAT(find("probe-inside/"), IsEmpty());
}

TEST_F(ProcessScan, FindsTheCallerItself) { EXPECT_THAT(find("unit_service_system"), Contains(::getpid())); }

TEST_F(ProcessScan, AppendsToTheList) {
  std::vector<int32_t> pids = {-5};
  EXPECT_TRUE(find_processes_by_name("unit_service_system", pids));
  EXPECT_EQ(pids.front(), -5);
  EXPECT_GE(pids.size(), 2U);
}

TEST_F(ProcessScan, NeverFindsAProgramOutsideTheInstallRoot) {
  const Running program("/tmp/probe-outside");
  EXPECT_THAT(find("probe-outside"), IsEmpty());
}

TEST_F(ProcessScan, NeverFindsAProgramOfARootThatOnlyBeginsAlike) {
  const std::filesystem::path sibling = get_install_root() + "2";
  std::filesystem::create_directories(sibling);
  {
    const Running program(sibling / "probe-sibling");
    EXPECT_THAT(find("probe-sibling"), IsEmpty());
  }
  std::filesystem::remove_all(sibling);
}

TEST_F(ProcessScan, OpensOnlyTheProgramThatWasLookedFor) {
  const Running program(inside);
  const UniqueFd right = open_program(program.pid(), "probe-inside");
  ASSERT_TRUE(right.valid());
  EXPECT_EQ(sys::signal_open_process(right.get(), 0), 0);
  EXPECT_FALSE(open_program(program.pid(), "other").valid());
  EXPECT_FALSE(open_program(::getppid(), "probe-inside").valid());
}

TEST_F(ProcessScan, FindsAProgramThatWasReplacedOnDisk) {
  const Running program(inside);
  std::filesystem::remove(inside);
  EXPECT_THAT(std::filesystem::read_symlink("/proc/" + std::to_string(program.pid()) + "/exe").string(),
              testing::EndsWith(" (deleted)"));  // the kernel's mark
  EXPECT_THAT(find("probe-inside"), Contains(program.pid()));
}

// The mark is cut off with the last blank, and so is a part of the name that looks like it.
TEST_F(ProcessScan, TakesANameUpToItsLastBlank) {
  const Running program(inside.parent_path() / "probe-inside more");
  EXPECT_THAT(find("probe-inside"), Contains(program.pid()));
  EXPECT_THAT(find("probe-inside more"), IsEmpty());
}

TEST_F(ProcessScan, PassesOverAProcessOfAnotherMountNamespace) {
  const Running program(inside, true);
  EXPECT_THAT(find("probe-inside"), Not(Contains(program.pid())));
}

TEST(InstallRoot, IsTheDirectoryAboveTheExecutables) {
  const auto executable = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_EQ(get_install_root(), executable.parent_path().parent_path().string());
}

TEST(MountNamespace, IsTheTextOfTheLink) {
  EXPECT_THAT(get_mount_namespace(), testing::MatchesRegex("mnt:\\[[0-9]+\\]"));
}

}  // namespace
}  // namespace Tessaro::Iot::Component
