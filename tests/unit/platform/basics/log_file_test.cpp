#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <thread>

#include "log_fixture.h"

namespace Tessaro::Iot::Component {
namespace {

using test::exists;
using test::mode_of;
using test::ScopedUmask;
using test::wait_until;

class LogFileTest : public test::LogTest {};

TEST_F(LogFileTest, ALineHasTimeLevelTagPlaceFunctionAndMessage) {
  log_print(1, "green", "quorvaned", "/src/service/main.cpp", "reboot", 12, "code %d of %s", 7, "x");
  ASSERT_EQ(lines().size(), 1U);
  const std::regex shape(
      R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} info quorvaned \[main\.cpp\|12\] reboot: code 7 of x)");
  EXPECT_TRUE(std::regex_match(lines()[0], shape)) << lines()[0];
}

TEST_F(LogFileTest, TheTimeIsLocal) {
  ASSERT_EQ(::setenv("TZ", "TST-11", 1), 0);
  ::tzset();
  log(1, "m");
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ASSERT_NE(::localtime_r(&now, &local), nullptr);
  char hour[16];
  ASSERT_GT(std::strftime(hour, sizeof hour, "%Y-%m-%d %H", &local), 0U);
  ASSERT_EQ(lines().size(), 1U);
  EXPECT_EQ(lines()[0].substr(0, 13), hour);
}

TEST_F(LogFileTest, EachLevelHasItsWord) {
  for (const int32_t level : {0, 1, 2, 3}) log(level, "m");
  ASSERT_EQ(lines().size(), 4U);
  const char* const words[] = {" trace ", " info ", " failure ", " failure "};
  for (size_t index = 0; index < 4; ++index) EXPECT_NE(lines()[index].find(words[index]), std::string::npos);
}

TEST_F(LogFileTest, ControlCharactersForgeNoLine) {
  log(1, "a\n2026-01-01 00:00:00.000 info forged\r\x1B[2J");
  ASSERT_EQ(lines().size(), 1U);
  EXPECT_TRUE(lines()[0].ends_with("a?2026-01-01 00:00:00.000 info forged??[2J")) << lines()[0];
}

TEST_F(LogFileTest, AValueIsNeverAFormat) {
  log(1, "%s%n{}{0}%Y");
  ASSERT_EQ(lines().size(), 1U);
  EXPECT_TRUE(lines()[0].ends_with("%s%n{}{0}%Y")) << lines()[0];
}

TEST_F(LogFileTest, ALongMessageIsCut) {
  log(1, std::string(100'000, 'x'));
  log(1, "next");
  ASSERT_EQ(lines().size(), 2U);
  EXPECT_GT(lines()[0].size(), 4000U);
  EXPECT_LT(lines()[0].size(), 4300U);
}

TEST_F(LogFileTest, MissingTextsAreEmpty) {
  log_print(1, nullptr, nullptr, nullptr, nullptr, 0, "%s", "m");
  ASSERT_EQ(lines().size(), 1U);
  EXPECT_TRUE(lines()[0].ends_with(" info  [|0] : m")) << lines()[0];
}

TEST_F(LogFileTest, WithNoDirectoryTheLineIsDroppedUntilThereIsOne) {
  std::filesystem::remove_all("/quorvane/run");
  log(2, "dropped");
  log_flush();
  EXPECT_FALSE(exists("/quorvane/run"));
  std::filesystem::create_directories("/quorvane/run");
  log(2, "dropped, too");
  EXPECT_FALSE(exists(directory_));
  std::filesystem::create_directories(directory_);
  log(2, "kept");
  ASSERT_EQ(lines().size(), 1U);
  EXPECT_TRUE(lines()[0].ends_with("kept"));
}

TEST_F(LogFileTest, FollowsADirectoryThatWasRemovedAndMadeAnew) {
  log(2, "first");
  std::filesystem::remove_all(directory_);
  log(2, "dropped");
  EXPECT_FALSE(exists(directory_));
  std::filesystem::create_directories(directory_);
  log(2, "second");
  ASSERT_EQ(lines().size(), 1U);
  EXPECT_TRUE(lines()[0].ends_with("second"));
}

TEST_F(LogFileTest, MakesARemovedFileAnew) {
  log(2, "first");
  ASSERT_EQ(::unlink(path().c_str()), 0);
  log(2, "second");
  ASSERT_EQ(lines().size(), 1U);
  EXPECT_TRUE(lines()[0].ends_with("second"));
}

TEST_F(LogFileTest, AppendsToAnExistingFile) {
  test::write_file(path(), "former\n");
  ASSERT_EQ(::chmod(path().c_str(), 0644), 0);
  log(2, "next");
  ASSERT_EQ(lines().size(), 2U);
  EXPECT_EQ(lines()[0], "former");
  EXPECT_EQ(mode_of(path()), 0640U);
}

TEST_F(LogFileTest, FollowsNoPlantedLink) {
  test::write_file("/quorvane/run/target", "");
  ASSERT_EQ(::symlink("/quorvane/run/target", path().c_str()), 0);
  log(2, "dropped");
  EXPECT_EQ(test::read_file("/quorvane/run/target"), "");
}

TEST_F(LogFileTest, ADirectoryOrFifoInItsPlaceOnlyCostsTheLine) {
  std::filesystem::create_directories(path());
  log(2, "dropped");
  std::filesystem::remove(path());
  ASSERT_EQ(::mkfifo(path().c_str(), 0640), 0);
  EXPECT_LT(test::milliseconds_of([] { log(2, "dropped"); }), 2000);
  std::filesystem::remove(path());
  log(2, "kept");
  EXPECT_EQ(lines().size(), 1U);
}

class LogUmask : public LogFileTest, public testing::WithParamInterface<mode_t> {};

TEST_P(LogUmask, EveryFileHasMode0640) {
  const ScopedUmask umask(GetParam());
  const std::string text(1000, 'x');
  for (int count = 0; count < 6000; ++count) log(1, text);
  for (int old = 0; old <= 3; ++old) EXPECT_EQ(mode_of(path(old)), 0640U) << old;
}
INSTANTIATE_TEST_SUITE_P(Umasks, LogUmask, testing::Values(0, 0022, 0077));

TEST_F(LogFileTest, RotatesAt1MiBAndKeepsThreeOldFiles) {
  constexpr int count = 6000;
  const std::string text(1000, 'x');
  for (int index = 0; index < count; ++index) log(1, std::to_string(index) + text);
  log_flush();
  int next = -1;
  for (const int old : {3, 2, 1, 0}) {
    EXPECT_LE(std::filesystem::file_size(path(old)), 1024U * 1024) << old;
    for (const std::string& line : lines(old)) {
      const int number = std::stoi(line.substr(line.find("handler: ") + 9));
      if (next >= 0) {
        ASSERT_EQ(number, next) << "a line is missing or torn";
      }
      next = number + 1;
    }
  }
  EXPECT_EQ(next, count);
  EXPECT_FALSE(exists(path(4)));
}

TEST_F(LogFileTest, AFailedRotationLosesLinesAndNothingElse) {
  const std::string text(1000, 'x');
  // A directory that is not empty cannot be replaced by a file.
  std::filesystem::create_directories(path(1) + "/in_the_way");
  std::filesystem::create_directories(path(2) + "/in_the_way");
  std::filesystem::create_directories(path(3) + "/in_the_way");
  std::filesystem::create_directories(path(4) + "/in_the_way");
  testing::internal::CaptureStderr();
  for (int count = 0; count < 1500; ++count) log(1, text);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_LE(std::filesystem::file_size(path()), 1024U * 1024);
  log(2, "last");
  EXPECT_TRUE(lines().back().ends_with("last"));
}

TEST_F(LogFileTest, ADirectoryThatGoesAwayAtTheRotationDoesNoHarm) {
  const std::string text(4000, 'x');
  for (int round = 0; round < 3; ++round) {
    std::filesystem::create_directories(directory_);
    for (int count = 0; count < 250; ++count) log(1, text);
    std::filesystem::remove_all(directory_);
    for (int count = 0; count < 50; ++count) log(1, count % 2 == 0 ? text : "short");
    EXPECT_FALSE(exists(directory_));
  }
}

TEST_F(LogFileTest, AFullDiskLosesLinesSilently) {
  if (::mount("log", directory_.c_str(), "tmpfs", 0, "size=64k") != 0) GTEST_SKIP() << "needs the right to mount";
  testing::internal::CaptureStderr();
  for (int count = 0; count < 500; ++count) log(2, std::string(1000, 'x'));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(::truncate(path().c_str(), 0), 0);
  log(2, "after");
  EXPECT_TRUE(lines().back().ends_with("after"));
  EXPECT_EQ(::umount2(directory_.c_str(), MNT_DETACH), 0);
}

TEST_F(LogFileTest, LinesOfManyThreadsAreWhole) {
  constexpr size_t threads = 8;
  constexpr size_t count = 300;
  std::vector<std::thread> writers;
  for (size_t index = 0; index < threads; ++index) {
    writers.emplace_back([] {
      for (size_t line = 0; line < count; ++line) log(static_cast<int32_t>(line % 3), std::string(200, 'x'));
    });
  }
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(lines().size(), threads * count);
  for (const std::string& line : lines()) EXPECT_TRUE(line.ends_with("] handler: " + std::string(200, 'x'))) << line;
}

TEST_F(LogFileTest, ItsDescriptorsAreClosedByAnExec) {
  log(2, "m");
  int found = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = std::filesystem::read_symlink(entry.path(), gone);
    if (gone || !target.starts_with(directory_)) continue;
    ++found;
    EXPECT_NE(::fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0) << target;
  }
  EXPECT_GE(found, 1);
}

TEST_F(LogFileTest, LinesBelowTheLowestLevelAreNotKept) {
  log_init("quorvaned", 0, 1, 2);
  log(0, "trace");
  log(1, "info");
  log(2, "failure");
  ASSERT_EQ(lines().size(), 2U);
  EXPECT_TRUE(lines()[0].ends_with("info"));
}

TEST_F(LogFileTest, BeforeTheBindingEveryLineIsInTheFileAtOnce) {
  log(0, "m");
  EXPECT_NE(test::read_file(path()), "");
}

TEST_F(LogFileTest, AFailureIsInTheFileAtOnceAndOtherLinesSoon) {
  log_init("quorvaned", 0, 0, 2);
  log(2, "failure");
  EXPECT_NE(test::read_file(path()), "");
  log(0, "only a trace");
  EXPECT_TRUE(wait_until([this] { return test::read_file(path()).find("only a trace") != std::string::npos; }));
}

TEST_F(LogFileTest, AFlushIsHarmlessWithoutAFile) {
  log_flush();
  EXPECT_FALSE(exists(path()));
}

}  // namespace
}  // namespace Tessaro::Iot::Component
