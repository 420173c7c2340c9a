#include "update.h"

#include <gtest/gtest.h>
#include <sodium.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

#include "journal.h"
#include "manifest.h"
#include "temporary_directory.h"

namespace {

namespace fs = std::filesystem;
using namespace gateway::update;

std::string hex_sum(const std::string& text) {
  Sum sum{};
  crypto_hash_sha256(sum.data(), reinterpret_cast<const unsigned char*>(text.data()), text.size());
  char digits[2 * sizeof sum + 1];
  return sodium_bin2hex(digits, sizeof digits, sum.data(), sum.size());
}

std::string line_for(const std::string& path, const std::string& text) { return hex_sum(text) + "  " + path + "\n"; }

// An installation and an update to it, in a directory of their own.
class Update : public testing::Test {
 protected:
  void SetUp() override {
    put(root() / "bin/tool", "old tool");
    put(root() / "config/settings", "old settings");
    put(root() / "config/untouched", "untouched");
    add("bin/tool", "new tool");
    add("config/settings", "new settings");
    add("lib/deep/er/data", "new data");
    fs::permissions(update() / "bin/tool", fs::perms(06777));
    fs::permissions(update() / "config/settings", fs::perms(0640));
    before = installed();
  }

  [[nodiscard]] fs::path root() const { return top / "root"; }
  [[nodiscard]] fs::path update() const { return top / "update"; }

  static void put(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
  }
  static std::string content(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  void add(const std::string& path, const std::string& text) {
    put(update() / path, text);
    list(line_for(path, text));
  }
  void list(const std::string& lines) { std::ofstream(update() / sums_name, std::ios::app) << lines; }

  // Everything below the install root; a directory has no content.
  [[nodiscard]] std::map<std::string, std::string> installed() const {
    std::map<std::string, std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(root())) {
      found[entry.path().string()] = entry.is_regular_file() ? content(entry.path()) : "";
    }
    return found;
  }
  [[nodiscard]] std::map<std::string, std::string> updated() const {
    auto wanted = before;
    wanted[(root() / "bin/tool").string()] = "new tool";
    wanted[(root() / "config/settings").string()] = "new settings";
    for (const char* directory : {"lib", "lib/deep", "lib/deep/er"}) wanted[(root() / directory).string()] = "";
    wanted[(root() / "lib/deep/er/data").string()] = "new data";
    return wanted;
  }

  void prepare() {
    const auto entries = verify(update().string(), problem);
    ASSERT_TRUE(entries) << problem;
    const auto made = make_plan(root().string(), *entries, problem);
    ASSERT_TRUE(made) << problem;
    plan = *made;
    ASSERT_TRUE(stage(update().string(), *entries, plan, problem)) << problem;
  }
  // The reason why the update is refused; empty when it is not.
  std::string refusal() {
    problem.clear();
    const auto entries = verify(update().string(), problem);
    const auto made = entries ? make_plan(root().string(), *entries, problem) : std::nullopt;
    EXPECT_EQ(made.has_value(), problem.empty());
    if (made && stage(update().string(), *entries, *made, problem)) return "";
    EXPECT_EQ(installed(), before);
    return problem;
  }

  gateway::TemporaryDirectory temporary;
  const fs::path& top = temporary.path();
  std::map<std::string, std::string> before;
  Plan plan;
  std::string problem;
};

TEST_F(Update, replaces_and_adds_files_and_leaves_nothing_else_behind) {
  prepare();
  ASSERT_TRUE(gateway::update::swap(plan, problem)) << problem;
  forget_old(plan);
  EXPECT_EQ(installed(), updated());
}

TEST_F(Update, changes_no_place_before_the_swap) {
  prepare();
  for (const auto& [path, text] : before) {
    EXPECT_EQ(fs::is_regular_file(path) ? content(path) : "", text);
  }
  EXPECT_EQ(content(root() / "bin/tool.fota-new"), "new tool");
  unstage(plan);
  EXPECT_EQ(installed(), before);
}

TEST_F(Update, keeps_the_modes_but_no_rights_of_others_to_write_or_to_become_the_owner) {
  const mode_t old = ::umask(0);
  prepare();
  ::umask(old);
  ASSERT_TRUE(gateway::update::swap(plan, problem));
  EXPECT_EQ(fs::status(root() / "bin/tool").permissions(), fs::perms(0755));
  EXPECT_EQ(fs::status(root() / "config/settings").permissions(), fs::perms(0640));
  EXPECT_EQ(fs::status(root() / "lib/deep").permissions(), fs::perms(0755));
}

TEST_F(Update, is_undone_wholly) {
  prepare();
  ASSERT_TRUE(gateway::update::swap(plan, problem));
  EXPECT_TRUE(undo(plan, problem)) << problem;
  EXPECT_EQ(installed(), before);
  EXPECT_TRUE(undo(plan, problem)) << problem;
  EXPECT_EQ(installed(), before);
}

TEST_F(Update, is_undone_from_wherever_it_was_interrupted) {
  // The steps of a swap: the old files are kept, and then the new ones come in.
  const auto keep = [this](const char* path) {
    fs::create_hard_link(root() / path, root() / (std::string(path) + ".fota-old"));
  };
  const auto place = [this](const char* path) {
    fs::rename(root() / (std::string(path) + ".fota-new"), root() / path);
  };
  for (int steps = 0; steps <= 5; ++steps) {
    prepare();
    int left = steps;
    for (const char* path : {"bin/tool", "config/settings"}) {
      if (left-- > 0) keep(path);
    }
    for (const char* path : {"bin/tool", "config/settings", "lib/deep/er/data"}) {
      if (left-- > 0) place(path);
    }
    EXPECT_TRUE(undo(plan, problem)) << problem;
    EXPECT_EQ(installed(), before) << steps;
  }
}

TEST_F(Update, is_undone_where_an_undoing_was_interrupted) {
  prepare();
  ASSERT_TRUE(gateway::update::swap(plan, problem));
  fs::rename(root() / "bin/tool.fota-old", root() / "bin/tool");
  fs::remove_all(root() / "lib");
  EXPECT_TRUE(undo(plan, problem)) << problem;
  EXPECT_EQ(installed(), before);
}

TEST_F(Update, stops_in_the_middle_when_a_new_file_has_gone_and_is_undone) {
  prepare();
  fs::remove(root() / "config/settings.fota-new");
  EXPECT_FALSE(gateway::update::swap(plan, problem));
  EXPECT_EQ(problem, "config/settings: No such file or directory");
  EXPECT_TRUE(undo(plan, problem)) << problem;
  EXPECT_EQ(installed(), before);
}

TEST_F(Update, says_what_cannot_be_put_back_and_puts_back_the_rest) {
  prepare();
  ASSERT_TRUE(gateway::update::swap(plan, problem));
  fs::remove(root() / "bin/tool");
  fs::create_directory(root() / "bin/tool");
  EXPECT_FALSE(undo(plan, problem));
  EXPECT_EQ(problem, "bin/tool: Is a directory");
  EXPECT_EQ(content(root() / "config/settings"), "old settings");
}

TEST_F(Update, is_not_disturbed_by_what_a_forgotten_one_has_left) {
  put(root() / "bin/tool.fota-old", "ancient tool");
  put(root() / "bin/tool.fota-new", "half a to");
  prepare();
  EXPECT_TRUE(undo(plan, problem));
  EXPECT_EQ(installed(), before);
}

TEST_F(Update, does_not_remove_a_new_directory_that_somebody_else_uses) {
  prepare();
  ASSERT_TRUE(gateway::update::swap(plan, problem));
  put(root() / "lib/deep/mine", "mine");
  EXPECT_TRUE(undo(plan, problem)) << problem;
  EXPECT_EQ(content(root() / "lib/deep/mine"), "mine");
  EXPECT_FALSE(fs::exists(root() / "lib/deep/er"));
}

TEST_F(Update, is_refused_when_a_sum_is_wrong) {
  put(update() / "config/settings", "other settings");
  EXPECT_EQ(refusal(), "config/settings: the sum is wrong");
}

TEST_F(Update, is_refused_when_a_file_changes_after_it_was_verified) {
  const auto entries = verify(update().string(), problem);
  const auto made = make_plan(root().string(), *entries, problem);
  put(update() / "config/settings", "other settings");
  EXPECT_FALSE(stage(update().string(), *entries, *made, problem));
  EXPECT_EQ(problem, "config/settings: it has changed meanwhile");
  EXPECT_EQ(installed(), before);
}

TEST_F(Update, is_refused_when_a_file_is_missing_or_none_or_not_listed) {
  put(update() / "bin/more", "more");
  EXPECT_EQ(refusal(), "bin/more: it is not listed");
  fs::remove(update() / "bin/more");
  fs::remove(update() / "bin/tool");
  EXPECT_EQ(refusal(), "bin/tool: No such file or directory");
  fs::create_directory(update() / "bin/tool");
  EXPECT_EQ(refusal(), "bin/tool: Is a directory");
  fs::remove(update() / "bin/tool");
  ASSERT_EQ(::mkfifo((update() / "bin/tool").c_str(), 0644), 0);
  EXPECT_EQ(refusal(), "bin/tool: Invalid argument");
}

TEST_F(Update, is_refused_when_there_is_a_link_in_it) {
  fs::rename(update() / "bin/tool", update() / "tool");
  fs::create_symlink("../tool", update() / "bin/tool");
  EXPECT_EQ(refusal(), "bin/tool: Too many levels of symbolic links");
  fs::remove(update() / "bin/tool");
  fs::rename(update() / "tool", update() / "bin/tool");
  EXPECT_EQ(refusal(), "");
}

TEST_F(Update, is_refused_when_there_is_a_link_on_the_way) {
  fs::rename(update() / "bin", top / "elsewhere");
  fs::create_directory_symlink(top / "elsewhere", update() / "bin");
  EXPECT_EQ(refusal(), "bin/tool: Not a directory");
}

TEST_F(Update, is_refused_when_the_list_is_missing_or_a_link) {
  fs::rename(update() / sums_name, top / "list");
  EXPECT_EQ(refusal(), "SHA256SUMS: No such file or directory");
  fs::create_symlink(top / "list", update() / sums_name);
  EXPECT_EQ(refusal(), "SHA256SUMS: Too many levels of symbolic links");
}

TEST_F(Update, is_refused_when_a_place_is_taken_by_something_else) {
  fs::remove(root() / "config/settings");
  fs::create_directory(root() / "config/settings");
  before = installed();
  EXPECT_EQ(refusal(), "the place of config/settings: Is a directory");
  fs::remove(root() / "config/settings");
  fs::create_symlink("untouched", root() / "config/settings");
  before = installed();
  EXPECT_EQ(refusal(), "the place of config/settings: Too many levels of symbolic links");
  EXPECT_EQ(content(root() / "config/untouched"), "untouched");
}

TEST_F(Update, follows_no_link_in_the_installation) {
  fs::create_directory(top / "outside");
  fs::create_directory_symlink(top / "outside", root() / "lib");
  before = installed();
  EXPECT_EQ(refusal(), "the place of lib/deep/er/data: Not a directory");
  EXPECT_TRUE(fs::is_empty(top / "outside"));
}

class SumsList : public testing::TestWithParam<const char*> {};

TEST_P(SumsList, is_refused_for_its_path) {
  std::string problem;
  EXPECT_FALSE(parse_sums(line_for("bin/fine", "") + line_for(GetParam(), ""), problem));
  EXPECT_EQ(problem.find("SHA256SUMS, line 2: the path "), 0U) << problem;
}

INSTANTIATE_TEST_SUITE_P(Paths, SumsList,
                         testing::Values("/etc/passwd", "../x", "bin/../../x", "bin/..", "bin//x", "bin/./x", "bin/",
                                         ".", "..", "././x", "bin/tool.fota-old", "bin.fota-new/x", "bin/\x1b[31m"));

TEST(SumsListText, is_read_as_sha256sum_writes_it) {
  std::string problem;
  const auto entries =
      parse_sums(line_for("./bin/a", "a") + hex_sum("b") + " *bin/b\n" + line_for("with blank .x", "c"), problem);
  ASSERT_TRUE(entries) << problem;
  ASSERT_EQ(entries->size(), 3U);
  EXPECT_EQ((*entries)[0].path, "bin/a");
  EXPECT_EQ((*entries)[1].path, "bin/b");
  EXPECT_EQ((*entries)[2].path, "with blank .x");
}

TEST(SumsListText, is_refused_when_it_is_not_well_formed) {
  std::string problem;
  const std::string line = line_for("bin/a", "a");
  for (const std::string& text :
       {std::string(), std::string("\n"), line + "\n", line.substr(1), line.substr(0, 66) + "\n", "\\" + line,
        line.substr(0, line.size() - 1), "g" + line.substr(1), line + line}) {
    EXPECT_FALSE(parse_sums(text, problem)) << text;
  }
  EXPECT_EQ(problem, "SHA256SUMS, line 2: bin/a comes twice");
}

class UpdateJournal : public Update {
 protected:
  [[nodiscard]] Journal journal() const { return Journal((top / "journal").string()); }
  Journal::State read() { return journal().read(found); }

  Plan wanted{"/some/where", {"lib", "lib/deep"}, {{"bin/tool", true}, {"lib/deep/with blank", false}}};
  Journal::Content found{};
};

TEST_F(UpdateJournal, is_read_back_at_every_phase) {
  EXPECT_EQ(read(), Journal::State::missing);
  ASSERT_TRUE(journal().begin(wanted, problem)) << problem;
  ASSERT_EQ(read(), Journal::State::whole);
  EXPECT_EQ(found.phase, Phase::staged);
  for (const Phase phase : {Phase::swapping, Phase::swapped, Phase::swapping, Phase::done, Phase::staged}) {
    ASSERT_TRUE(journal().reach(phase, problem)) << problem;
    ASSERT_EQ(read(), Journal::State::whole);
    EXPECT_EQ(found.phase, phase);
  }
  EXPECT_EQ(found.plan.root, wanted.root);
  EXPECT_EQ(found.plan.directories, wanted.directories);
  ASSERT_EQ(found.plan.changes.size(), 2U);
  EXPECT_EQ(found.plan.changes[0].path, "bin/tool");
  EXPECT_TRUE(found.plan.changes[0].replaces);
  EXPECT_EQ(found.plan.changes[1].path, "lib/deep/with blank");
  EXPECT_FALSE(found.plan.changes[1].replaces);
  journal().end();
  EXPECT_EQ(read(), Journal::State::missing);
}

TEST_F(UpdateJournal, is_damaged_wherever_it_was_cut_off) {
  ASSERT_TRUE(journal().begin(wanted, problem));
  const std::string whole = content(top / "journal");
  for (std::size_t size = 0; size < whole.size(); ++size) {
    put(top / "journal", whole.substr(0, size));
    EXPECT_EQ(read(), Journal::State::damaged) << size;
  }
  put(top / "journal", whole + "more\n");
  EXPECT_EQ(read(), Journal::State::damaged);
  journal().set_aside();
  EXPECT_EQ(read(), Journal::State::missing);
}

TEST_F(UpdateJournal, never_leads_out_of_the_installation) {
  ASSERT_TRUE(journal().begin(wanted, problem));
  std::string text = content(top / "journal");
  text.replace(text.find("bin/tool"), 8, "../../up");
  put(top / "journal", text);
  EXPECT_EQ(read(), Journal::State::damaged);
}

TEST_F(UpdateJournal, is_not_there_when_it_cannot_be_written) {
  const Journal nowhere((top / "missing/journal").string());
  EXPECT_FALSE(nowhere.begin(wanted, problem));
  EXPECT_EQ(problem, (top / "missing/journal").string() + ": No such file or directory");
  EXPECT_FALSE(nowhere.reach(Phase::swapped, problem));
}

}  // namespace
