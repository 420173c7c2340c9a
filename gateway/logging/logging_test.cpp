#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "log_file.h"
#include "log_line.h"
#include "log_store.h"
#include "module_file.h"
#include "temporary_directory.h"

namespace {

using gateway::LogFile;
using gateway::LogLimits;
using gateway::LogStore;
using gateway::module_file;
using gateway::printable;
namespace fs = std::filesystem;

TEST(PrintableText, keeps_what_is_harmless) {
  EXPECT_EQ(printable("a \\ b {\"key\": 1} äöü 温度 🙂", 100), "a \\ b {\"key\": 1} äöü 温度 🙂");
}

TEST(PrintableText, shows_whatever_could_forge_a_line_or_steer_a_terminal) {
  EXPECT_EQ(printable("a\nb\r\tc", 100), "a\\nb\\r\\tc");
  EXPECT_EQ(printable("\x1b[31m\x7f\x01", 100), "\\x1b[31m\\x7f\\x01");
  EXPECT_EQ(printable("\u0085\u009b\u2028\u2029\u00a0", 100), "\\u0085\\u009b\\u2028\\u2029\u00a0");
  EXPECT_EQ(printable(std::string_view("a\0b", 3), 100), "a\\x00b");
}

TEST(PrintableText, shows_bytes_that_are_no_text) {
  EXPECT_EQ(printable("a\xff\xc3", 100), "a\\xff\\xc3");
  EXPECT_EQ(printable("\xe2\x28\xa1", 100), "\\xe2(\\xa1");
}

TEST(PrintableText, is_cut_between_characters_and_says_so) {
  EXPECT_EQ(printable("abcdef", 6), "abcdef");
  EXPECT_EQ(printable("abcdefg", 6), "abcdef[...]");
  EXPECT_EQ(printable("abcdeä", 6), "abcde[...]");
  EXPECT_EQ(printable("abcde\n", 6), "abcde[...]");
}

TEST(LogLine, has_time_level_tag_and_text) {
  ::setenv("TZ", "UTC-2", 1);
  ::tzset();
  const std::chrono::system_clock::time_point time{std::chrono::milliseconds(1'000'000'007)};
  EXPECT_EQ(gateway::format_line(time, nullptr, 1, "tag", "text"), "1970-01-12 15:46:40.007 info [tag] text\n");
  const std::string module = "some\nmodule";
  EXPECT_EQ(gateway::format_line(time, &module, 0, "t", "x"), "1970-01-12 15:46:40.007 trace some\\nmodule [t] x\n");
  EXPECT_EQ(gateway::format_line(time, nullptr, -7, "t", "x").substr(24, 5), "trace");
  EXPECT_EQ(gateway::format_line(time, nullptr, 2, "t", "x").substr(24, 7), "failure");
  EXPECT_EQ(gateway::format_line(time, nullptr, 99, "t", "x").substr(24, 7), "failure");
}

TEST(LogLine, is_bounded_whatever_it_is_made_of) {
  const std::string much(100'000, '\x01');
  EXPECT_LT(gateway::format_line(std::chrono::system_clock::now(), &much, 1, much, much).size(), 4400U);
}

TEST(ModuleFile, is_named_like_a_module_with_an_ordinary_name) {
  EXPECT_EQ(module_file("quorvaned"), "quorvaned.log");
  EXPECT_EQ(module_file("iot.gateway.my-service_2"), "iot.gateway.my-service_2.log");
}

TEST(ModuleFile, stays_in_its_directory_and_visible) {
  for (const std::string module : {"", ".", "..", "/", "../../etc/passwd", "a/b", ".hidden", "\n", "\x01", "%", "~"}) {
    const std::string name = module_file(module);
    EXPECT_EQ(name.find('/'), std::string::npos) << module;
    EXPECT_NE(name.front(), '.') << module;
    EXPECT_TRUE(name.ends_with(".log")) << module;
    EXPECT_NE(name, gateway::shared_file) << module;
  }
  EXPECT_EQ(module_file(".."), "%2e..log");
  EXPECT_EQ(module_file("a/b"), "a%2fb.log");
}

TEST(ModuleFile, is_another_one_for_another_module) {
  const std::string longest(64, 'x');
  std::vector<std::string> modules = {
      "",      "empty",   "%empty", "a/b",     "a%2fb", "a_2fb",       "a",           "A",
      "a.log", "a.log.1", "others", "%others", longest, longest + "x", longest + "y", std::string(63, 'x') + "/"};
  for (int count = 66; count < 300; ++count) modules.emplace_back(static_cast<std::size_t>(count), 'x');
  for (int count = 20; count < 300; ++count) modules.emplace_back(static_cast<std::size_t>(count), '/');
  std::set<std::string> names;
  for (const std::string& module : modules) {
    const std::string name = module_file(module);
    EXPECT_TRUE(names.insert(name).second) << module;
    EXPECT_LE(name.size(), 110U) << module;
  }
}

class Logs : public testing::Test {
 protected:
  void SetUp() override {
    limits.file_size = 1000;
    limits.old_files = 3;
    limits.modules = 4;
  }

  static std::string content(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static std::size_t lines(const fs::path& path) {
    const std::string text = content(path);
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  }
  [[nodiscard]] fs::path file(const std::string& name) const { return root / "deep" / "logs" / name; }
  [[nodiscard]] LogStore store() const { return {root / "deep" / "logs", limits}; }

  gateway::TemporaryDirectory temporary;
  const fs::path& root = temporary.path();
  LogLimits limits;
};

TEST_F(Logs, are_made_with_their_directory_for_owner_and_group) {
  const mode_t old = ::umask(022);
  LogFile log(file("a.log"), limits);
  EXPECT_TRUE(log.append("one\n"));
  ::umask(old);
  EXPECT_EQ(content(file("a.log")), "one\n");
  EXPECT_EQ(static_cast<unsigned>(fs::status(file("a.log")).permissions()), 0640U);
  EXPECT_EQ(static_cast<unsigned>(fs::status(file("a.log").parent_path()).permissions()), 0755U);
}

TEST_F(Logs, are_rotated_before_they_grow_past_their_size_and_the_oldest_goes) {
  LogFile log(file("a.log"), limits);
  for (int number = 100; number < 160; ++number) {
    EXPECT_TRUE(log.append(std::to_string(number) + std::string(96, '.') + "\n"));  // ten of them fill a file
  }
  EXPECT_EQ(content(file("a.log")).substr(0, 3), "150");
  EXPECT_EQ(content(file("a.log.1")).substr(0, 3), "140");
  EXPECT_EQ(content(file("a.log.3")).substr(0, 3), "120");
  EXPECT_FALSE(fs::exists(file("a.log.4")));
  for (const char* name : {"a.log", "a.log.1", "a.log.2", "a.log.3"}) EXPECT_EQ(fs::file_size(file(name)), 1000U);
}

TEST_F(Logs, go_on_after_a_restart_behind_half_a_line) {
  {
    LogFile log(file("a.log"), limits);
    EXPECT_TRUE(log.append("one\n"));
  }
  std::ofstream(file("a.log"), std::ios::app) << "half";
  LogFile log(file("a.log"), limits);
  EXPECT_TRUE(log.append("two\n"));
  EXPECT_TRUE(log.append("three\n"));
  EXPECT_EQ(content(file("a.log")), "one\nhalf\ntwo\nthree\n");
}

TEST_F(Logs, are_made_anew_when_they_are_moved_away_or_removed) {
  LogFile log(file("a.log"), limits);
  EXPECT_TRUE(log.append("one\n"));
  fs::rename(root / "deep", root / "elsewhere");
  EXPECT_TRUE(log.append("two\n"));
  EXPECT_EQ(content(file("a.log")), "two\n");
  fs::remove_all(root / "deep");
  EXPECT_TRUE(log.append("three\n"));
  EXPECT_EQ(content(file("a.log")), "three\n");
}

TEST_F(Logs, go_to_the_file_that_is_in_their_place_now) {
  LogFile log(file("a.log"), limits);
  EXPECT_TRUE(log.append("one\n"));
  fs::rename(file("a.log"), root / "elsewhere");
  std::ofstream(file("a.log")) << "another\n";
  EXPECT_TRUE(log.append("two\n"));
  EXPECT_EQ(content(file("a.log")), "another\ntwo\n");
}

TEST_F(Logs, do_not_follow_links_and_write_to_nothing_but_files) {
  fs::create_directories(file("x").parent_path());
  fs::create_symlink(root / "target", file("a.log"));
  fs::create_directory(file("b.log"));
  ASSERT_EQ(::mkfifo(file("c.log").c_str(), 0600), 0);
  for (const char* name : {"a.log", "b.log", "c.log"}) {
    LogFile log(file(name), limits);
    EXPECT_FALSE(log.append("one\n")) << name;
  }
  EXPECT_FALSE(fs::exists(root / "target"));
}

TEST_F(Logs, of_modules_beyond_the_limit_share_a_file) {
  LogStore logs = store();
  for (int number = 0; number < 6; ++number) {
    EXPECT_TRUE(logs.write(std::string("m").append(std::to_string(number)), 1, "t", "text"));
  }
  EXPECT_EQ(lines(file("m3.log")), 1U);
  EXPECT_FALSE(fs::exists(file("m4.log")));
  EXPECT_EQ(lines(file(gateway::shared_file)), 2U);
  EXPECT_NE(content(file(gateway::shared_file)).find(" info m5 [t] text\n"), std::string::npos);
}

TEST_F(Logs, of_an_earlier_run_keep_their_places) {
  {
    LogStore logs = store();
    for (const char* module : {"a", "b", "c", "d", "e"}) EXPECT_TRUE(logs.write(module, 1, "t", "text"));
  }
  LogStore logs = store();
  EXPECT_TRUE(logs.write("e", 1, "t", "text"));
  EXPECT_TRUE(logs.write("d", 1, "t", "text"));
  EXPECT_EQ(lines(file("d.log")), 2U);
  EXPECT_EQ(lines(file(gateway::shared_file)), 2U);
}

TEST_F(Logs, that_are_removed_make_room_for_others) {
  LogStore logs = store();
  for (const char* module : {"a", "b", "c", "d"}) EXPECT_TRUE(logs.write(module, 1, "t", "text"));
  fs::remove(file("b.log"));
  EXPECT_TRUE(logs.write("e", 1, "t", "text"));
  EXPECT_EQ(lines(file("e.log")), 1U);
}

TEST_F(Logs, count_what_they_lose_and_tell_it_once_in_front_of_the_next_line) {
  LogStore logs = store();
  EXPECT_TRUE(logs.write("a", 1, "t", "before"));
  fs::rename(root / "deep", root / "elsewhere");
  std::ofstream(root / "deep") << "in the way";
  for (int number = 0; number < 7; ++number) EXPECT_FALSE(logs.write("a", 1, "t", "lost"));
  logs.tell_losses();
  fs::remove(root / "deep");
  fs::rename(root / "elsewhere", root / "deep");
  EXPECT_TRUE(logs.write("a", 1, "t", "after"));
  EXPECT_TRUE(logs.write("a", 1, "t", "later"));
  const std::string text = content(file("a.log"));
  EXPECT_EQ(lines(file("a.log")), 4U);
  EXPECT_LT(text.find("[t] before\n"), text.find(" failure [logging-service] 7 lines were lost\n"));
  EXPECT_LT(text.find("lines were lost\n"), text.find("[t] after\n"));
}

TEST_F(Logs, tell_a_loss_also_when_nothing_more_is_written) {
  std::ofstream(root / "deep") << "in the way";
  LogStore logs = store();
  EXPECT_FALSE(logs.write("a", 1, "t", "lost"));
  fs::remove(root / "deep");
  logs.tell_losses();
  logs.tell_losses();
  EXPECT_EQ(lines(file("a.log")), 1U);
  EXPECT_NE(content(file("a.log")).find("[logging-service] 1 line was lost\n"), std::string::npos);
}

}  // namespace
