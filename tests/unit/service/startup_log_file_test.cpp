// The file behind the start-up log, at its real place.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "paths.h"
#include "startup_log.h"

namespace Tessaro::Iot::Component {
namespace {

namespace fs = std::filesystem;

class StartupLogFile : public testing::Test {
 protected:
  StartupLogFile() {
    fs::remove_all("/quorvane/run");
    fs::create_directories("/quorvane/run/startup");
  }
  ~StartupLogFile() override { fs::remove_all("/quorvane/run"); }
  static std::string content() {
    std::ostringstream text;
    text << std::ifstream(Paths::startup_log).rdbuf();
    return text.str();
  }
};

TEST_F(StartupLogFile, IsCreatedAndAppendedTo) {
  EXPECT_EQ(startup_log_size(), -1);
  append_startup_log("one\n");
  append_startup_log("two\n");
  EXPECT_EQ(content(), "one\ntwo\n");
  EXPECT_EQ(startup_log_size(), 8);
}

TEST_F(StartupLogFile, OfExactlyTheLimitIsAppendedTo) {
  std::ofstream(Paths::startup_log) << std::string(262144, 'x');
  append_startup_log("line\n");
  EXPECT_EQ(startup_log_size(), 262144 + 5);
}

TEST_F(StartupLogFile, BeyondTheLimitRestartsWithTheNextLine) {
  std::ofstream(Paths::startup_log) << std::string(262145, 'x');
  append_startup_log("line\n");
  EXPECT_EQ(content(), "line\n");
}

TEST_F(StartupLogFile, HoldsSecretsAndIsNotForEverybody) {
  for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{077}}) {
    fs::remove(Paths::startup_log);
    const mode_t before = ::umask(mask);
    append_startup_log("x\n");
    (void)::umask(before);
    struct stat status {};
    ASSERT_EQ(::stat(Paths::startup_log, &status), 0);
    EXPECT_EQ(status.st_mode & 0777 & ~0640U, 0U) << mask;
  }
}

TEST_F(StartupLogFile, ThatSomebodyMadeForEverybodyIsNarrowed) {
  std::ofstream(Paths::startup_log) << "x\n";
  fs::permissions(Paths::startup_log, fs::perms{0666});
  append_startup_log("secret\n");
  EXPECT_EQ(fs::status(Paths::startup_log).permissions(), fs::perms{0640});
}

TEST_F(StartupLogFile, InWhosePlaceIsAPipeDoesNotHoldTheWriter) {
  ASSERT_EQ(::mkfifo(Paths::startup_log, 0600), 0);
  append_startup_log("x\n");
  EXPECT_LE(startup_log_size(), 0);
}

TEST_F(StartupLogFile, WithoutItsDirectoryDropsTheLine) {
  fs::remove_all("/quorvane/run");
  append_startup_log("x\n");
  EXPECT_FALSE(fs::exists("/quorvane/run"));
}

TEST_F(StartupLogFile, IsNotWrittenThroughALink) {
  std::ofstream("/quorvane/run/other") << "";
  fs::create_symlink("/quorvane/run/other", Paths::startup_log);
  append_startup_log("x\n");
  EXPECT_EQ(fs::file_size("/quorvane/run/other"), 0U);
}

TEST_F(StartupLogFile, LinesOfManyThreadsStayWholeAtTheLimitToo) {
  constexpr int32_t threads = 8;
  constexpr int32_t lines = 2000;  // passes the limit several times
  const std::string body(120, 'a');
  std::vector<std::thread> writers;
  for (int32_t writer = 0; writer < threads; ++writer) {
    writers.emplace_back([&, writer] {
      for (int32_t line = 0; line < lines; ++line) {
        std::string text("<");
        text += static_cast<char>('0' + writer);
        append_startup_log(text + body + ">\n");
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  std::istringstream text(content());
  int32_t seen = 0;
  for (std::string line; std::getline(text, line); ++seen) {
    ASSERT_EQ(line.size(), body.size() + 3) << line;
    ASSERT_TRUE(line.front() == '<' && line.back() == '>') << line;
  }
  EXPECT_GT(seen, 0);
  EXPECT_LE(startup_log_size(), 262144 + 124);
}

TEST_F(StartupLogFile, IsNeverMoreThanOneLineBeyondTheLimit) {
  const std::string line(1022, 'x');
  std::vector<pid_t> writers;
  for (int32_t writer = 0; writer < 5; ++writer) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      int64_t largest = 0;
      for (int32_t number = 0; number < 20000; ++number) {
        append_startup_log(line);
        largest = std::max(largest, startup_log_size());
      }
      ::_exit(largest <= 262144 + 1022 ? 0 : 1);
    }
    writers.push_back(pid);
  }
  for (const pid_t pid : writers) {
    int status = -1;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
  }
}

TEST_F(StartupLogFile, TakesALineAsAWholeOrNotAtAll) {
  // The limit takes a part of the second line, as a disk that becomes full would.
  const pid_t pid = ::fork();
  if (pid == 0) {
    const struct rlimit limit = {10, RLIM_INFINITY};
    (void)::signal(SIGXFSZ, SIG_IGN);
    (void)::setrlimit(RLIMIT_FSIZE, &limit);
    append_startup_log("one\n");
    append_startup_log("a longer one\n");
    append_startup_log("three\n");
    ::_exit(0);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_EQ(content(), "one\nthree\n");
}

TEST_F(StartupLogFile, ThatSomebodyKeepsLockedTakesTheLineAllTheSame) {
  append_startup_log("one\n");
  const int holder = ::open(Paths::startup_log, O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(holder, LOCK_EX), 0);
  append_startup_log("two\n");
  EXPECT_EQ(content(), "one\ntwo\n");
  (void)::close(holder);
}

TEST_F(StartupLogFile, ThatSomebodyKeepsLockedIsWaitedForOnce) {
  append_startup_log("one\n");
  const int holder = ::open(Paths::startup_log, O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(holder, LOCK_EX), 0);
  append_startup_log("two\n");
  constexpr int lines = 1000;
  const auto begin = std::chrono::steady_clock::now();
  for (int line = 0; line < lines; ++line) append_startup_log("more\n");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(100) * lines / 4);
  (void)::close(holder);
  append_startup_log("last\n");  // a lock that can be had is waited for again
  const int other = ::open(Paths::startup_log, O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(other, LOCK_EX), 0);
  const auto wait = std::chrono::steady_clock::now();
  append_startup_log("after\n");
  EXPECT_GE(std::chrono::steady_clock::now() - wait, std::chrono::milliseconds(100));
  (void)::close(other);
}

}  // namespace
}  // namespace Tessaro::Iot::Component
