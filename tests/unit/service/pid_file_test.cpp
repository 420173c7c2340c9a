#include "pid_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

namespace Tessaro::Iot::Component {
namespace {

class PidFile : public testing::Test {
 protected:
  PidFile() {
    char name[] = "/tmp/pidfileXXXXXX";
    directory = ::mkdtemp(name);
    path = directory / "quorvaned.pid";
  }
  ~PidFile() override { std::filesystem::remove_all(directory); }

  std::string content() const {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }
  // Runs `body` in a process of its own and returns what it returned (0 to 255).
  static int32_t in_child(const std::function<int32_t()>& body) {
    const pid_t pid = ::fork();
    if (pid == 0) ::_exit(body());
    int32_t status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  int32_t open_descriptors_of_file() const {
    int32_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code ignored;
      if (std::filesystem::read_symlink(entry.path(), ignored) == path) ++count;
    }
    return count;
  }

  std::filesystem::path directory;
  std::filesystem::path path;
};

TEST_F(PidFile, IsTakenWithTheOwnPidAndItsMode) {
  EXPECT_EQ(in_child([&] {
              (void)::umask(0);
              return lock_pid_file(path) == 0 && content() == std::to_string(::getpid()) ? 7 : 1;
            }),
            7);
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0644});
}

TEST_F(PidFile, HasItsModeUnderAStrictUmask) {
  EXPECT_EQ(in_child([&] {
              (void)::umask(077);
              return lock_pid_file(path) == 0 ? 7 : 1;
            }),
            7);
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0644});
}

TEST_F(PidFile, HeldByAnotherNamesItAndStaysUnchanged) {
  EXPECT_EQ(in_child([&] {
              if (lock_pid_file(path) != 0) return 1;
              const int32_t owner = ::getpid();  // which must not read the file itself: closing it drops the lock
              if (in_child([&] { return lock_pid_file(path) == owner ? 7 : 1; }) != 7) return 2;
              if (in_child([&] { return read_locked_pid(path) == owner ? 7 : 1; }) != 7) return 3;
              return in_child([&] { return content() == std::to_string(owner) ? 7 : 4; });
            }),
            7);
}

TEST_F(PidFile, WithAFreeLockBelongsToNobodyWhateverItSays) {
  std::ofstream(path) << "4711";
  EXPECT_EQ(in_child([&] { return read_locked_pid(path) == -1 ? 7 : 1; }), 7);
  EXPECT_EQ(content(), "4711");  // reading writes nothing
  EXPECT_EQ(in_child([&] { return lock_pid_file(path) == 0 ? 7 : 1; }), 7);
  EXPECT_NE(content(), "4711");
}

TEST_F(PidFile, ReadWithAFreeLockIsLockedFromThenOn) {
  std::ofstream(path) << "4711";
  EXPECT_EQ(in_child([&] {
              if (read_locked_pid(path) != -1) return 1;
              return in_child([&] { return try_lock_file(::open(path.c_str(), O_RDWR)) == -1 ? 7 : 2; });
            }),
            7);
  EXPECT_EQ(in_child([&] { return try_lock_file(::open(path.c_str(), O_RDWR)) == 0 ? 7 : 1; }), 7);
}

TEST_F(PidFile, ThatIsMissingIsNotCreatedByReading) {
  EXPECT_EQ(read_locked_pid(path), -1);
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(PidFile, ThatCannotBeOpenedGivesMinusOne) {
  EXPECT_EQ(lock_pid_file(directory / "missing" / "quorvaned.pid"), -1);
  EXPECT_EQ(lock_pid_file(directory), -1);
}

TEST_F(PidFile, IsNotFollowedThroughALink) {
  std::ofstream(directory / "other") << "x";
  std::filesystem::create_symlink(directory / "other", path);
  EXPECT_EQ(lock_pid_file(path), -1);
}

TEST_F(PidFile, HeldWithoutAPidInItGivesMinusOne) {
  EXPECT_EQ(in_child([&] {
              const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
              if (try_lock_file(fd) != 0) return 1;
              return in_child([&] { return lock_pid_file(path) == -1 && read_locked_pid(path) == -1 ? 7 : 2; });
            }),
            7);
}

TEST_F(PidFile, ThatIsLetGoWhileItIsReadIsTaken) {
  int go[2];
  ASSERT_EQ(::pipe2(go, O_CLOEXEC), 0);
  const pid_t holder = ::fork();
  if (holder == 0) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
    const bool held = try_lock_file(fd) == 0;  // and never writes its pid
    (void)!::write(go[1], held ? "y" : "n", 1);
    (void)::usleep(40'000);
    ::_exit(0);
  }
  char held = 0;
  ASSERT_EQ(::read(go[0], &held, 1), 1);
  ASSERT_EQ(held, 'y');
  EXPECT_EQ(in_child([&] { return lock_pid_file(path) == 0 ? 7 : 1; }), 7);
  EXPECT_EQ(::waitpid(holder, nullptr, 0), holder);
  (void)::close(go[0]);
  (void)::close(go[1]);
}

TEST_F(PidFile, TakenAgainByTheSameProcessUsesTheSameDescriptor) {
  EXPECT_EQ(in_child([&] {
              for (int32_t round = 0; round < 5; ++round) {
                if (lock_pid_file(path) != 0 || open_descriptors_of_file() != 1) return 1;
                // Never free for a moment: nobody else could have taken it.
                if (in_child([&] { return read_locked_pid(path) >= 1 ? 7 : 1; }) != 7) return 2;
              }
              return 7;
            }),
            7);
}

TEST_F(PidFile, DescriptorSurvivesAnExec) {
  EXPECT_EQ(in_child([&] {
              if (lock_pid_file(path) != 0) return 1;
              for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
                std::error_code ignored;
                if (std::filesystem::read_symlink(entry.path(), ignored) != path) continue;
                return (::fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC) == 0 ? 7 : 2;
              }
              return 3;
            }),
            7);
}

// What the kernel does, and why the descriptor is used again: closing any other one drops the lock.
TEST_F(PidFile, LockIsDroppedByClosingAnyDescriptorOfTheFile) {
  EXPECT_EQ(in_child([&] {
              if (lock_pid_file(path) != 0) return 1;
              (void)::close(::open(path.c_str(), O_RDONLY));
              return in_child([&] { return read_locked_pid(path) == -1 ? 7 : 2; });
            }),
            7);
}

// Anybody may read the file, and so may hold it with a read lock.
TEST_F(PidFile, ThatAReaderKeepsLockedIsReplacedAndTaken) {
  std::ofstream(path) << "1";
  const int reader = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct flock lock {};
  lock.l_type = F_RDLCK;
  ASSERT_EQ(::fcntl(reader, F_SETLK, &lock), 0);
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const pid_t owner = ::fork();
  if (owner == 0) {
    const char taken = lock_pid_file(path) == 0 ? 'y' : 'n';
    (void)!::write(ends[1], &taken, 1);
    (void)::pause();
  }
  char taken = 0;
  ASSERT_EQ(::read(ends[0], &taken, 1), 1);
  EXPECT_EQ(taken, 'y');
  EXPECT_EQ(content(), std::to_string(owner));
  EXPECT_EQ(in_child([&] { return lock_pid_file(path) == owner ? 7 : 1; }), 7);
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0644});
  (void)::kill(owner, SIGKILL);
  (void)::waitpid(owner, nullptr, 0);
  for (const int fd : {reader, ends[0], ends[1]}) (void)::close(fd);
}

TEST_F(PidFile, ThatAReaderKeepsLockedHasNoOwner) {
  std::ofstream(path) << "1";
  const int reader = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct flock lock {};
  lock.l_type = F_RDLCK;
  ASSERT_EQ(::fcntl(reader, F_SETLK, &lock), 0);
  EXPECT_EQ(in_child([&] { return read_locked_pid(path) == -1 ? 7 : 1; }), 7);
  (void)::close(reader);
}

}  // namespace
}  // namespace Tessaro::Iot::Component
