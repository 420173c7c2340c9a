#include "platform/dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "platform/file.h"
#include "temp_dir.h"

namespace Tessaro::Iot::Component {
namespace {

using test::exists;
using test::mode_of;
using test::ScopedUmask;
using test::TempDir;
using test::write_file;

TEST(Dir, ListsEveryNameOnce) {
  const TempDir temp;
  for (const char* name : {"a", "b", ".hidden"}) write_file(temp / name, "");
  CDir dir;
  ASSERT_TRUE(dir.open(temp.path()));
  std::multiset<std::string> names;
  std::string name;
  while (dir.getNextFile(name)) names.insert(name);
  EXPECT_EQ(names, (std::multiset<std::string>{".", "..", ".hidden", "a", "b"}));
  EXPECT_FALSE(dir.getNextFile(name));
}

TEST(Dir, DoesNotOpenWhatIsNoDirectory) {
  const TempDir temp;
  write_file(temp / "file", "");
  CDir dir;
  std::string name = "kept";
  EXPECT_FALSE(dir.getNextFile(name));
  EXPECT_FALSE(dir.open(temp / "file"));
  EXPECT_FALSE(dir.open(temp / "missing"));
  EXPECT_FALSE(dir.getNextFile(name));
  EXPECT_EQ(name, "kept");
}

TEST(Dir, ListsNothingAfterClose) {
  const TempDir temp;
  CDir dir;
  ASSERT_TRUE(dir.open(temp.path()));
  dir.close();
  dir.close();
  std::string name;
  EXPECT_FALSE(dir.getNextFile(name));
}

TEST(Dir, AFailedOpenForgetsTheFormerDirectory) {
  const TempDir temp;
  CDir dir;
  ASSERT_TRUE(dir.open(temp.path()));
  EXPECT_FALSE(dir.open(temp / "missing"));
  std::string name;
  EXPECT_FALSE(dir.getNextFile(name));
}

TEST(Dir, TellsDirectoriesApart) {
  const TempDir temp;
  write_file(temp / "file", "");
  ASSERT_EQ(::symlink(temp.path().c_str(), (temp / "to_dir").c_str()), 0);
  ASSERT_EQ(::symlink((temp / "file").c_str(), (temp / "to_file").c_str()), 0);
  ASSERT_EQ(::symlink((temp / "missing").c_str(), (temp / "to_nothing").c_str()), 0);
  EXPECT_TRUE(CDir::isDir(temp.path()));
  EXPECT_TRUE(CDir::isDir(temp / "to_dir"));
  EXPECT_FALSE(CDir::isDir(temp / "file"));
  EXPECT_FALSE(CDir::isDir(temp / "to_file"));
  EXPECT_FALSE(CDir::isDir(temp / "to_nothing"));
  EXPECT_FALSE(CDir::isDir(temp / "missing"));
  EXPECT_FALSE(CDir::isDir(""));
}

class DirMode : public testing::TestWithParam<mode_t> {};

TEST_P(DirMode, EveryMadeDirectoryHasTheModeWhateverTheUmask) {
  const TempDir temp;
  const ScopedUmask umask(GetParam());
  ASSERT_TRUE(CDir::mkdirs(temp / "a/b//c/", 0755));
  for (const char* name : {"a", "a/b", "a/b/c"}) EXPECT_EQ(mode_of(temp / name), 0755U) << name;
  ASSERT_TRUE(CDir::make_trusted(temp.path(), temp / "t/u", 0755));
  for (const char* name : {"t", "t/u"}) EXPECT_EQ(mode_of(temp / name), 0755U) << name;
}
INSTANTIATE_TEST_SUITE_P(Umasks, DirMode, testing::Values(0, 0022, 0077, 0277));

TEST(Dir, MkdirsLeavesExistingDirectoriesAsTheyAre) {
  const TempDir temp;
  ASSERT_EQ(::mkdir((temp / "a").c_str(), 0700), 0);
  EXPECT_TRUE(CDir::mkdirs(temp / "a/b", 0755));
  EXPECT_TRUE(CDir::mkdirs(temp / "a/b", 0711));
  EXPECT_EQ(mode_of(temp / "a"), 0700U);
  EXPECT_EQ(mode_of(temp / "a/b"), 0755U);
}

TEST(Dir, MkdirsFailsWhereAFileIsInTheWay) {
  const TempDir temp;
  write_file(temp / "file", "");
  EXPECT_FALSE(CDir::mkdirs(temp / "file", 0755));
  EXPECT_FALSE(CDir::mkdirs(temp / "file/below", 0755));
  EXPECT_FALSE(CDir::mkdirs("", 0755));
}

TEST(Dir, MkdirsGoesThroughLinksToDirectories) {
  const TempDir temp;
  ASSERT_EQ(::mkdir((temp / "real").c_str(), 0755), 0);
  ASSERT_EQ(::symlink("real", (temp / "link").c_str()), 0);
  EXPECT_TRUE(CDir::mkdirs(temp / "link/below", 0755));
  EXPECT_TRUE(CDir::isDir(temp / "real/below"));
}

TEST(Dir, RmdirsRemovesEverythingBelow) {
  const TempDir temp;
  ASSERT_TRUE(CDir::mkdirs(temp / "a/b/c", 0755));
  ASSERT_TRUE(CDir::mkdirs(temp / "a/d", 0755));
  for (const char* name : {"a/1", "a/b/2", "a/b/c/3", "a/d/.4"}) write_file(temp / name, "x");
  EXPECT_TRUE(CDir::rmdirs(temp / "a"));
  EXPECT_FALSE(exists(temp / "a"));
  EXPECT_TRUE(exists(temp.path()));
}

TEST(Dir, RmdirsRemovesLinksAndNeverEntersThem) {
  const TempDir temp;
  ASSERT_TRUE(CDir::mkdirs(temp / "precious", 0755));
  write_file(temp / "precious/file", "x");
  ASSERT_TRUE(CDir::mkdirs(temp / "a/b", 0755));
  ASSERT_EQ(::symlink((temp / "precious").c_str(), (temp / "a/b/link").c_str()), 0);
  ASSERT_EQ(::symlink((temp / "precious").c_str(), (temp / "top").c_str()), 0);
  EXPECT_TRUE(CDir::rmdirs(temp / "a"));
  EXPECT_TRUE(CDir::rmdirs(temp / "top/"));
  EXPECT_FALSE(exists(temp / "a"));
  EXPECT_FALSE(exists(temp / "top"));
  EXPECT_TRUE(CFile::isFile(temp / "precious/file"));
}

TEST(Dir, RmdirsRemovesOneFileAndDoesNotMindNothing) {
  const TempDir temp;
  write_file(temp / "file", "x");
  EXPECT_TRUE(CDir::rmdirs(temp / "file"));
  EXPECT_FALSE(exists(temp / "file"));
  EXPECT_TRUE(CDir::rmdirs(temp / "file"));
  EXPECT_TRUE(CDir::rmdirs(temp / "not/there"));
  EXPECT_FALSE(CDir::rmdirs(""));
}

TEST(Dir, RmdirsRemovesATreeDeeperThanAPathOrTheDescriptorsReach) {
  const TempDir temp;
  constexpr int depth = 5000;
  ASSERT_TRUE(CDir::mkdirs(temp / "deep", 0755));
  const std::string before = std::filesystem::current_path();
  ASSERT_EQ(::chdir((temp / "deep").c_str()), 0);
  for (int level = 0; level < depth; ++level) {
    ASSERT_EQ(::mkdir("d", 0755), 0);
    write_file("f", "");
    ASSERT_EQ(::chdir("d"), 0);
  }
  ASSERT_EQ(::chdir(before.c_str()), 0);
  EXPECT_TRUE(CDir::rmdirs(temp / "deep"));
  EXPECT_FALSE(exists(temp / "deep"));
}

TEST(Dir, RmdirsRemovesADirectoryOfManyEntries) {
  const TempDir temp;
  constexpr int count = 5000;
  ASSERT_TRUE(CDir::mkdirs(temp / "wide", 0755));
  for (int index = 0; index < count; ++index) write_file(temp / ("wide/" + std::to_string(index)), "");
  EXPECT_TRUE(CDir::rmdirs(temp / "wide"));
  EXPECT_FALSE(exists(temp / "wide"));
}

}  // namespace
}  // namespace Tessaro::Iot::Component
