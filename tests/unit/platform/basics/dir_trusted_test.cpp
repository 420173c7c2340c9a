#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/dir.h"
#include "platform/file.h"
#include "temp_dir.h"

// Directories on a path that any local user may have prepared.

namespace Tessaro::Iot::Component {
namespace {

using test::mode_of;
using test::TempDir;
using test::write_file;

constexpr uid_t stranger = 65534;

class TrustedDir : public testing::Test {
 protected:
  // What lies beside `name` under a name that was made from it.
  [[nodiscard]] std::string moved_aside(const std::string& name) const {
    std::string found;
    for (const auto& entry : std::filesystem::directory_iterator(base_.path())) {
      const std::string entry_name = entry.path().filename();
      if (entry_name.starts_with(name + ".untrusted-")) found = entry.path();
    }
    return found;
  }

  bool make(const std::string& name) { return CDir::make_trusted(base_.path(), base_ / name, 0755); }

  static uid_t owner_of(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_uid : static_cast<uid_t>(-1);
  }

  TempDir base_;
};

TEST_F(TrustedDir, MakesWhatIsMissing) {
  EXPECT_TRUE(make("var/run/mbusd"));
  for (const char* name : {"var", "var/run", "var/run/mbusd"}) EXPECT_EQ(mode_of(base_ / name), 0755U) << name;
}

TEST_F(TrustedDir, LeavesTrustedDirectoriesAsTheyAre) {
  ASSERT_TRUE(CDir::mkdirs(base_ / "var/run", 0711));
  write_file(base_ / "var/run/file", "kept");
  EXPECT_TRUE(make("var/run/mbusd"));
  EXPECT_TRUE(make("var/run/mbusd"));
  EXPECT_EQ(mode_of(base_ / "var/run"), 0711U);
  EXPECT_EQ(test::read_file(base_ / "var/run/file"), "kept");
  EXPECT_EQ(moved_aside("var"), "");
}

TEST_F(TrustedDir, MovesAPlantedLinkAside) {
  const TempDir elsewhere;
  ASSERT_EQ(::symlink(elsewhere.path().c_str(), (base_ / "var").c_str()), 0);
  if (::lchown((base_ / "var").c_str(), stranger, stranger) != 0) GTEST_SKIP() << "needs root";
  EXPECT_TRUE(make("var/run"));
  EXPECT_FALSE(CDir::isDir(elsewhere / "run"));
  EXPECT_EQ(CFile::link_target(base_ / "var"), "");
  EXPECT_EQ(CFile::link_target(moved_aside("var")), elsewhere.path());
}

TEST_F(TrustedDir, FollowsALinkOfTheOwnUser) {
  const TempDir elsewhere;
  ASSERT_EQ(::symlink(elsewhere.path().c_str(), (base_ / "var").c_str()), 0);
  EXPECT_TRUE(make("var/run"));
  EXPECT_TRUE(CDir::isDir(elsewhere / "run"));
  EXPECT_EQ(moved_aside("var"), "");
}

TEST_F(TrustedDir, MovesALinkToAnUntrustedDirectoryAside) {
  const TempDir elsewhere;
  ASSERT_EQ(::chmod(elsewhere.path().c_str(), 0777), 0);
  ASSERT_EQ(::symlink(elsewhere.path().c_str(), (base_ / "var").c_str()), 0);
  EXPECT_TRUE(make("var/run"));
  EXPECT_FALSE(CDir::isDir(elsewhere / "run"));
  EXPECT_EQ(CFile::link_target(moved_aside("var")), elsewhere.path());
}

TEST_F(TrustedDir, MakesAMissingBase) {
  EXPECT_TRUE(CDir::make_trusted(base_ / "missing", base_ / "missing/var/run", 0755));
  EXPECT_TRUE(CDir::isDir(base_ / "missing/var/run"));
}

TEST_F(TrustedDir, MovesADanglingLinkAside) {
  ASSERT_EQ(::symlink("nowhere", (base_ / "var").c_str()), 0);
  EXPECT_TRUE(make("var/run"));
  EXPECT_EQ(CFile::link_target(moved_aside("var")), "nowhere");
}

TEST_F(TrustedDir, MovesAFileInTheWayAside) {
  write_file(base_ / "var", "precious");
  EXPECT_TRUE(make("var/run"));
  EXPECT_EQ(test::read_file(moved_aside("var")), "precious");
}

TEST_F(TrustedDir, MovesAFifoInTheWayAside) {
  ASSERT_EQ(::mkfifo((base_ / "var").c_str(), 0666), 0);
  EXPECT_TRUE(make("var/run"));
  EXPECT_NE(moved_aside("var"), "");
}

TEST_F(TrustedDir, MovesADirectoryThatOthersMayWriteAside) {
  ASSERT_TRUE(CDir::mkdirs(base_ / "var/run", 0755));
  ASSERT_EQ(::chmod((base_ / "var").c_str(), 0777), 0);
  EXPECT_TRUE(make("var/run"));
  EXPECT_EQ(mode_of(base_ / "var"), 0755U);
  EXPECT_TRUE(CDir::isDir(moved_aside("var") + "/run"));
}

TEST_F(TrustedDir, AcceptsADirectoryThatOthersMayWriteWithTheStickyBit) {
  ASSERT_EQ(::mkdir((base_ / "var").c_str(), 0755), 0);
  ASSERT_EQ(::chmod((base_ / "var").c_str(), 01777), 0);
  EXPECT_TRUE(make("var/run"));
  EXPECT_EQ(mode_of(base_ / "var"), 01777U);
  EXPECT_EQ(moved_aside("var"), "");
}

TEST_F(TrustedDir, MovesADirectoryOfAStrangerAside) {
  ASSERT_TRUE(CDir::mkdirs(base_ / "var/run", 0755));
  if (::chown((base_ / "var").c_str(), stranger, stranger) != 0) GTEST_SKIP() << "needs root";
  EXPECT_TRUE(make("var/run"));
  EXPECT_EQ(owner_of(base_ / "var"), ::geteuid());
  EXPECT_EQ(owner_of(moved_aside("var")), stranger);
}

TEST_F(TrustedDir, MovesADirectoryOfAStrangerAsideAlsoWithTheStickyBit) {
  ASSERT_EQ(::mkdir((base_ / "var").c_str(), 0755), 0);
  if (::chown((base_ / "var").c_str(), stranger, stranger) != 0) GTEST_SKIP() << "needs root";
  ASSERT_EQ(::chmod((base_ / "var").c_str(), 01755), 0);
  EXPECT_TRUE(make("var"));
  EXPECT_EQ(owner_of(base_ / "var"), ::geteuid());
}

TEST_F(TrustedDir, MovesADirectoryThatAForeignGroupMayWriteAside) {
  ASSERT_EQ(::mkdir((base_ / "var").c_str(), 0755), 0);
  if (::chown((base_ / "var").c_str(), static_cast<uid_t>(-1), stranger) != 0) GTEST_SKIP() << "needs root";
  ASSERT_EQ(::chmod((base_ / "var").c_str(), 0775), 0);
  EXPECT_TRUE(make("var"));
  EXPECT_EQ(mode_of(base_ / "var"), 0755U);
}

TEST_F(TrustedDir, MovesTheLastComponentAsideAsWell) {
  ASSERT_TRUE(CDir::mkdirs(base_ / "var", 0755));
  ASSERT_EQ(::symlink("/etc", (base_ / "var/run").c_str()), 0);
  if (::lchown((base_ / "var/run").c_str(), stranger, stranger) != 0) GTEST_SKIP() << "needs root";
  EXPECT_TRUE(make("var/run"));
  EXPECT_EQ(CFile::link_target(base_ / "var/run"), "");
  EXPECT_TRUE(CDir::isDir(base_ / "var/run"));
}

TEST_F(TrustedDir, RefusesAPathThatIsNotBelowTheBase) {
  EXPECT_FALSE(CDir::make_trusted(base_ / "a", base_ / "ab", 0755));
  EXPECT_FALSE(CDir::make_trusted(base_.path(), "/tmp", 0755));
  EXPECT_FALSE(make("a/../../b"));
}

TEST_F(TrustedDir, RefusesToMakeWhatItWouldNotTrust) {
  EXPECT_FALSE(CDir::make_trusted(base_.path(), base_ / "a", 0777));
  EXPECT_FALSE(CDir::isDir(base_ / "a"));
}

TEST_F(TrustedDir, TakesTheBaseItselfAsItIs) {
  EXPECT_TRUE(CDir::make_trusted(base_.path(), base_.path(), 0755));
  EXPECT_TRUE(CDir::make_trusted("/", base_ / "a", 0755));
}

}  // namespace
}  // namespace Tessaro::Iot::Component
