#include "platform/file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "temp_dir.h"

namespace Tessaro::Iot::Component {
namespace {

using test::TempDir;
using test::write_file;

TEST(File, OnlyARegularFileIsAFile) {
  const TempDir temp;
  write_file(temp / "file", "");
  ASSERT_EQ(::symlink("file", (temp / "link").c_str()), 0);
  ASSERT_EQ(::mkfifo((temp / "fifo").c_str(), 0600), 0);
  EXPECT_TRUE(CFile::isFile(temp / "file"));
  EXPECT_FALSE(CFile::isFile(temp / "link"));
  EXPECT_FALSE(CFile::isFile(temp / "fifo"));
  EXPECT_FALSE(CFile::isFile(temp.path()));
  EXPECT_FALSE(CFile::isFile(temp / "missing"));
}

TEST(File, RemovesTheNameAndNotWhatItLeadsTo) {
  const TempDir temp;
  write_file(temp / "file", "x");
  ASSERT_EQ(::symlink("file", (temp / "link").c_str()), 0);
  EXPECT_TRUE(CFile::remove(temp / "link"));
  EXPECT_TRUE(CFile::isFile(temp / "file"));
  EXPECT_TRUE(CFile::remove(temp / "file"));
  EXPECT_FALSE(CFile::remove(temp / "file"));
  EXPECT_FALSE(CFile::remove(temp.path()));
}

TEST(File, ReadsTheWholeFile) {
  const TempDir temp;
  std::string content(100'000, 'x');
  content[5] = '\0';
  content += "\xFF\n";
  write_file(temp / "file", content);
  std::string read = "former";
  EXPECT_TRUE(CFile::read(temp / "file", read));
  EXPECT_EQ(read, content);
  write_file(temp / "file", "");
  EXPECT_TRUE(CFile::read(temp / "file", read));
  EXPECT_EQ(read, "");
}

TEST(File, ReadsAFileOfProcThatTellsNoSize) {
  std::string read;
  EXPECT_TRUE(CFile::read("/proc/self/stat", read));
  EXPECT_TRUE(read.starts_with(std::to_string(::getpid()) + " "));
}

TEST(File, DoesNotReadWhatIsNoFile) {
  const TempDir temp;
  std::string read = "former";
  EXPECT_FALSE(CFile::read(temp / "missing", read));
  EXPECT_EQ(read, "");
  EXPECT_FALSE(CFile::read(temp.path(), read));
}

TEST(File, TellsWhereALinkLeads) {
  const TempDir temp;
  const std::string long_target(2000, 'y');
  ASSERT_EQ(::symlink("somewhere", (temp / "link").c_str()), 0);
  ASSERT_EQ(::symlink(long_target.c_str(), (temp / "long").c_str()), 0);
  write_file(temp / "file", "x");
  EXPECT_EQ(CFile::link_target(temp / "link"), "somewhere");
  EXPECT_EQ(CFile::link_target(temp / "long"), std::string(1023, 'y'));
  EXPECT_EQ(CFile::link_target(temp / "file"), "");
  EXPECT_EQ(CFile::link_target(temp / "missing"), "");
}

}  // namespace
}  // namespace Tessaro::Iot::Component
