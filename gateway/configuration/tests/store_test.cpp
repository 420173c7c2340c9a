#include "store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "temporary_root.h"

namespace gateway {
namespace {

constexpr const char* set_aside = "config.db.damaged-1";

class Stored : public ::testing::Test {
 protected:
  Store& store() {
    if (!store_) {
      store_ = std::make_unique<Store>(root.store(), [this](const std::string& text) { reports.push_back(text); });
    }
    return *store_;
  }
  void close() { store_.reset(); }

  void set(const std::string& key, const std::string& value, bool sealed = false) {
    ASSERT_EQ(store().set(key, {value, sealed}), Code::success);
  }
  // The value; the code's number where there is none.
  std::string get(const std::string& key) {
    Entry entry;
    const Code code = store().get(key, entry);
    return code == Code::success ? entry.bytes : std::to_string(static_cast<int>(code));
  }
  // Values enough for many pages; closed, so that they are in the database alone.
  void fill(int count) {
    for (int i = 0; i < count; ++i) set(name(i), value(i));
    ASSERT_EQ(store().flush(), Code::success);
    close();
  }
  static std::string name(int i) { return "key" + std::to_string(1000 + i); }
  static std::string value(int i) { return std::string(500, static_cast<char>('a' + i % 26)) + std::to_string(i); }
  // How many of `fill` are there; every one that is must be right.
  int right(int count) {
    int found = 0;
    for (int i = 0; i < count; ++i) {
      const std::string seen = get(name(i));
      if (seen == "100100") continue;
      EXPECT_EQ(seen, value(i));
      ++found;
    }
    return found;
  }
  // Writes bytes over the database while it is closed.
  void overwrite(std::size_t place, const std::string& bytes) {
    std::string content = TemporaryRoot::read(root.database());
    ASSERT_LE(place + bytes.size(), content.size());
    TemporaryRoot::write(root.database(), content.replace(place, bytes.size(), bytes));
  }
  [[nodiscard]] std::string path(const std::string& file) const { return root.store() + "/" + file; }

  TemporaryRoot root;
  std::vector<std::string> reports;

 private:
  std::unique_ptr<Store> store_;
};

std::string no_value() { return std::to_string(static_cast<int>(Code::no_value)); }

TEST_F(Stored, a_value_is_seen_at_once_and_after_a_restart) {
  EXPECT_EQ(get("a"), no_value());
  set("a", "1");
  EXPECT_EQ(get("a"), "1");
  set("a", std::string(65536, 'x'));
  set("b", "2");
  close();
  EXPECT_EQ(get("a"), std::string(65536, 'x'));
  EXPECT_EQ(get("b"), "2");
  EXPECT_TRUE(reports.empty());
}

TEST_F(Stored, an_empty_value_is_a_value) {
  set("a", "1");
  set("a", "");
  set("b", "");
  close();
  EXPECT_EQ(get("a"), "");
  EXPECT_EQ(get("b"), "");
  EXPECT_EQ(get("c"), no_value());
}

TEST_F(Stored, what_is_accepted_counts_as_unflushed_until_the_flush) {
  ASSERT_EQ(store().open(), Code::success);
  EXPECT_FALSE(store().unflushed());
  set("a", "1");
  EXPECT_TRUE(store().unflushed());
  EXPECT_EQ(store().flush(), Code::success);
  EXPECT_FALSE(store().unflushed());
  set("a", "");
  EXPECT_TRUE(store().unflushed());
}

TEST_F(Stored, after_a_flush_everything_is_in_the_database_alone) {
  set("a", "value to be found");
  ASSERT_EQ(store().flush(), Code::success);
  EXPECT_EQ(std::filesystem::file_size(root.database() + "-wal"), 0U);
  EXPECT_NE(TemporaryRoot::read(root.database()).find("value to be found"), std::string::npos);
}

TEST_F(Stored, directory_and_files_are_for_the_owner_alone_whatever_they_were) {
  set("a", "1");
  const auto mode = [](const std::string& file) {
    struct stat status {};
    ::stat(file.c_str(), &status);
    return status.st_mode & 07777U;
  };
  close();
  ::chmod(root.store().c_str(), 0777);
  ::chmod(root.database().c_str(), 0666);
  set("a", "2");
  EXPECT_EQ(mode(root.store()), 0700U);
  EXPECT_EQ(mode(root.database()), 0600U);
  EXPECT_EQ(mode(root.database() + "-wal"), 0600U);
}

TEST_F(Stored, a_reset_leaves_nothing_of_any_value_in_any_file) {
  std::mt19937 random(1);
  for (int i = 0; i < 400; ++i) {
    set("key" + std::to_string(random() % 50), "<trace" + std::to_string(i) + ">" + std::string(random() % 9000, '.'));
    if (i % 7 == 0) set("key" + std::to_string(random() % 50), "");
  }
  ASSERT_EQ(store().reset(), Code::success);
  EXPECT_FALSE(root.holds("<trace"));
  EXPECT_FALSE(store().unflushed());
  EXPECT_EQ(get("key1"), no_value());
  close();
  EXPECT_FALSE(root.holds("<trace"));
  EXPECT_EQ(root.files(), std::vector<std::string>{"config.db"});
}

TEST_F(Stored, a_flush_leaves_nothing_of_a_value_in_clear_that_was_emptied_or_became_sealed) {
  // Values of many sizes move about between the pages; now and then one leaves its bytes behind.
  for (unsigned seed = 0; seed < 12; ++seed) {
    std::mt19937 random(seed);
    std::map<std::string, std::string> tags;  // of the values in clear
    for (int i = 0; i < 1500; ++i) {
      const std::string key = "key" + std::to_string(random() % 150);
      const std::string tag = std::string("<").append(std::to_string(100000 + i)).append(">");
      std::string bytes;
      for (auto left = std::vector{1, 2, 5, 20, 60, 300}[random() % 6]; left > 0; --left) bytes += tag;
      if (random() % 5 == 0) {
        set(key, "");
        tags.erase(key);
      } else {
        set(key, bytes);
        tags[key] = tag;
      }
    }
    set(tags.begin()->first, "sealed bytes", true);
    tags.erase(tags.begin());
    ASSERT_EQ(store().flush(), Code::success);
    std::set<std::string> allowed;
    for (const auto& [key, tag] : tags) allowed.insert(tag);
    const std::string content = TemporaryRoot::read(root.database());
    const std::regex any_tag("<[0-9]{6}>");
    for (auto tag = std::sregex_iterator(content.begin(), content.end(), any_tag); tag != std::sregex_iterator();
         ++tag) {
      ASSERT_TRUE(allowed.contains(tag->str())) << tag->str() << " with the seed " << seed;
    }
    close();
    std::filesystem::remove_all(root.store());
  }
}

TEST_F(Stored, another_process_that_has_the_store_is_waited_for_and_then_reported) {
  set("a", "1");
  std::vector<std::string> told;
  Store second(root.store(), [&](const std::string& text) { told.push_back(text); });
  Entry entry;
  EXPECT_EQ(second.get("a", entry), Code::storage_failure);
  EXPECT_EQ(second.condition(), "closed: another process has it");
  EXPECT_EQ(told.size(), 1U);
  close();
  EXPECT_EQ(second.get("a", entry), Code::success);
  EXPECT_EQ(entry.bytes, "1");
  EXPECT_EQ(second.condition(), "open");
}

TEST_F(Stored, a_kill_at_any_moment_leaves_every_accepted_write) {
  std::mt19937 random(7);
  for (int round = 0; round < 12; ++round) {
    int channel[2];
    ASSERT_EQ(::pipe(channel), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      Store own(root.store(), [](const std::string&) {});
      for (int i = 1;; ++i) {
        if (own.set("count", {std::to_string(i), false}) != Code::success) ::_exit(1);
        if (own.set("copy", {std::to_string(i), false}) != Code::success) ::_exit(1);
        if (i % 5 == 0 && own.flush() != Code::success) ::_exit(1);
        if (::write(channel[1], &i, sizeof i) != sizeof i) ::_exit(1);
      }
    }
    ::close(channel[1]);
    int accepted = 0;
    const int last = 1 + static_cast<int>(random() % 200);
    while (accepted < last && ::read(channel[0], &accepted, sizeof accepted) == sizeof accepted) {
    }
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    while (::read(channel[0], &accepted, sizeof accepted) == sizeof accepted) {
    }
    ::close(channel[0]);
    ASSERT_GE(accepted, last);
    const int count = std::stoi(get("count"));
    const int copy = std::stoi(get("copy"));
    EXPECT_GE(copy, accepted);
    EXPECT_TRUE(count == copy || count == copy + 1) << count << " " << copy;
    close();
  }
  EXPECT_TRUE(reports.empty());
}

// Damage

TEST_F(Stored, a_database_whose_header_is_gone_is_set_aside_and_reported) {
  fill(50);
  overwrite(0, std::string(100, '\xee'));
  const std::string damaged = TemporaryRoot::read(root.database());
  EXPECT_EQ(get(name(0)), no_value());
  EXPECT_EQ(TemporaryRoot::read(path(set_aside)), damaged);
  ASSERT_EQ(reports.size(), 1U);
  EXPECT_NE(reports[0].find("config.db was damaged ("), std::string::npos) << reports[0];
  EXPECT_NE(reports[0].find("is now config.db.damaged-1; 0 values were recovered"), std::string::npos) << reports[0];
  EXPECT_EQ(TemporaryRoot::read(path(std::string(set_aside) + ".txt")), reports[0] + "\n");
  set("a", "1");
  EXPECT_EQ(store().flush(), Code::success);
}

TEST_F(Stored, a_database_with_a_damaged_page_is_set_aside_and_what_is_readable_is_taken_over) {
  fill(300);
  const std::size_t size = std::filesystem::file_size(root.database());
  overwrite(size / 2 / 4096 * 4096, std::string(4096, '\xee'));
  const int found = right(300);
  EXPECT_GT(found, 200);
  EXPECT_LT(found, 300);
  EXPECT_EQ(std::filesystem::file_size(path(set_aside)), size);
  ASSERT_EQ(reports.size(), 1U);
  EXPECT_NE(reports[0].find("; " + std::to_string(found) + " values were recovered"), std::string::npos) << reports[0];
  close();
  EXPECT_EQ(right(300), found);
  EXPECT_EQ(reports.size(), 1U);
}

TEST_F(Stored, one_changed_byte_of_a_value_is_noticed_and_costs_that_value_alone) {
  fill(100);
  const std::string content = TemporaryRoot::read(root.database());
  overwrite(content.find(value(30)) + 250, "!");
  EXPECT_EQ(right(100), 99);
  EXPECT_EQ(get(name(30)), no_value());
  ASSERT_EQ(reports.size(), 1U);
  EXPECT_NE(reports[0].find("99 values were recovered"), std::string::npos) << reports[0];
}

TEST_F(Stored, a_database_that_is_cut_off_is_set_aside) {
  fill(100);
  const auto size = std::filesystem::file_size(root.database());
  int number = 0;
  for (const auto kept : {size - 1, size - 4096, size / 2, std::uintmax_t{4096}, std::uintmax_t{50}}) {
    const std::string whole = TemporaryRoot::read(root.database());
    std::filesystem::resize_file(root.database(), kept);
    const int found = right(100);
    EXPECT_LT(found, 100) << kept;
    // It is shorter than it says; its tree is whole but for one end.
    EXPECT_TRUE(kept < size - 4096 || found > 50) << kept << " " << found;
    close();
    EXPECT_EQ(std::filesystem::file_size(path("config.db.damaged-" + std::to_string(++number))), kept);
    TemporaryRoot::write(root.database(), whole);
  }
  EXPECT_EQ(reports.size(), 5U);
}

TEST_F(Stored, an_empty_file_is_no_new_database_but_a_damaged_one) {
  fill(1);
  std::filesystem::resize_file(root.database(), 0);
  EXPECT_EQ(get(name(0)), no_value());
  EXPECT_TRUE(std::filesystem::exists(path(set_aside)));
  ASSERT_EQ(reports.size(), 1U);
  EXPECT_NE(reports[0].find("(it is empty)"), std::string::npos) << reports[0];
}

TEST_F(Stored, a_directory_or_a_link_in_the_place_is_moved_aside_with_what_it_has) {
  std::filesystem::create_directories(root.database());
  TemporaryRoot::write(root.database() + "/inside", "kept");
  set("a", "1");
  close();
  EXPECT_EQ(TemporaryRoot::read(path(set_aside) + "/inside"), "kept");
  std::filesystem::rename(root.database(), path("elsewhere"));
  std::filesystem::create_symlink("elsewhere", root.database());
  EXPECT_EQ(get("a"), no_value());
  EXPECT_TRUE(std::filesystem::is_symlink(path("config.db.damaged-2")));
  EXPECT_EQ(reports.size(), 2U);
}

TEST_F(Stored, random_bytes_anywhere_never_give_a_wrong_value_and_never_empty_the_store_in_silence) {
  fill(60);
  const std::string whole = TemporaryRoot::read(root.database());
  for (unsigned seed = 0; seed < 150; ++seed) {
    std::mt19937 random(seed);
    std::string content = whole;
    const std::size_t length = 1 + random() % 600;
    const std::size_t place = random() % (content.size() - length);
    for (std::size_t i = 0; i < length; ++i) content[place + i] = static_cast<char>(random());
    TemporaryRoot::write(root.database(), content);
    reports.clear();
    const int found = right(60);
    if (found < 60) {
      // A place that says that the database is a newer one is believed.
      const bool newer = store().open() == Code::newer_store;

      ASSERT_EQ(reports.size(), 1U) << seed;
      EXPECT_TRUE(newer || std::filesystem::exists(path(set_aside))) << seed;
    }
    close();
    std::filesystem::remove_all(root.store());
    std::filesystem::create_directories(root.store());
  }
}

TEST_F(Stored, damage_that_comes_while_the_store_is_open_is_found_when_it_is_met) {
  // More than is kept in memory.
  for (int i = 0; i < 2000; ++i) set(name(i), value(i));
  ASSERT_EQ(store().flush(), Code::success);
  const std::string content = TemporaryRoot::read(root.database());
  const int file = ::open(root.database().c_str(), O_WRONLY | O_CLOEXEC);
  const std::string junk(4096, '\xee');
  const auto page = static_cast<off_t>(content.find(value(5)) / 4096 * 4096);
  ASSERT_EQ(::pwrite(file, junk.data(), junk.size(), page), 4096);
  // Its closing must not take the store's locks away, so it stays open.
  EXPECT_EQ(get(name(5)), no_value());
  EXPECT_GT(right(2000), 1900);
  EXPECT_TRUE(std::filesystem::exists(path(set_aside)));
  EXPECT_EQ(reports.size(), 1U);
  ::close(file);
}

TEST_F(Stored, a_flush_fails_once_when_accepted_writes_were_lost) {
  set("a", "1");
  ASSERT_EQ(store().flush(), Code::success);
  set("b", "2");
  std::filesystem::remove_all(root.store());
  EXPECT_EQ(get("a"), no_value());
  EXPECT_EQ(store().persist(), Code::success);
  EXPECT_EQ(store().flush(), Code::storage_failure);
  EXPECT_EQ(store().flush(), Code::success);
  ASSERT_EQ(reports.size(), 1U);
  EXPECT_NE(reports[0].find("removed or exchanged"), std::string::npos);
}

TEST_F(Stored, a_log_whose_database_is_gone_is_kept) {
  set("a", "1");
  const std::string log = TemporaryRoot::read(root.database() + "-wal");
  close();
  std::filesystem::remove(root.database());
  TemporaryRoot::write(root.database() + "-wal", log);
  EXPECT_EQ(get("a"), no_value());
  EXPECT_EQ(TemporaryRoot::read(path(std::string(set_aside) + "-wal")), log);
  EXPECT_EQ(reports.size(), 1U);
}

TEST_F(Stored, an_exchange_that_was_interrupted_is_finished) {
  fill(10);
  // Between the two renamings.
  std::filesystem::rename(root.database(), path("config.db.ready"));
  TemporaryRoot::write(root.database() + "-wal", "an old log");
  EXPECT_EQ(right(10), 10);
  EXPECT_EQ(TemporaryRoot::read(path("config.db.damaged-1-wal")), "an old log");
  close();
  // Before the first one.
  std::filesystem::copy_file(root.database(), path("config.db.ready"));
  TemporaryRoot::write(path("config.db.new"), "half");
  EXPECT_EQ(right(10), 10);
  EXPECT_FALSE(std::filesystem::exists(path("config.db.ready")));
}

TEST_F(Stored, a_reset_also_removes_what_was_set_aside) {
  fill(50);
  overwrite(0, std::string(100, '\xee'));
  ASSERT_EQ(store().open(), Code::success);
  ASSERT_TRUE(root.holds(value(7)));
  ASSERT_EQ(store().reset(), Code::success);
  EXPECT_FALSE(root.holds(value(7)));
  close();
  EXPECT_EQ(root.files(), std::vector<std::string>{"config.db"});
}

TEST_F(Stored, a_database_of_a_newer_version_is_refused_and_left_alone) {
  fill(5);
  sqlite3* handle = nullptr;
  ASSERT_EQ(sqlite3_open(root.database().c_str(), &handle), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(handle, "PRAGMA user_version = 2", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(handle);
  const std::string before = TemporaryRoot::read(root.database());
  Entry entry;
  EXPECT_EQ(store().get(name(0), entry), Code::newer_store);
  EXPECT_EQ(store().set("a", {"1", false}), Code::newer_store);
  EXPECT_EQ(store().flush(), Code::newer_store);
  EXPECT_EQ(store().reset(), Code::newer_store);
  EXPECT_EQ(store().condition(),
            "closed: it was written by a newer version (schema 2, this one knows 1), and is left alone");
  EXPECT_EQ(reports.size(), 1U);
  close();
  EXPECT_EQ(TemporaryRoot::read(root.database()), before);
  EXPECT_EQ(TemporaryRoot::read(root.database() + "-wal"), "");
}

TEST_F(Stored, a_database_that_is_not_a_store_is_set_aside) {
  std::filesystem::create_directories(root.store());
  sqlite3* handle = nullptr;
  ASSERT_EQ(sqlite3_open(root.database().c_str(), &handle), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(handle, "CREATE TABLE t(x); INSERT INTO t VALUES('of others')", nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(handle);
  set("a", "1");
  EXPECT_NE(TemporaryRoot::read(path(set_aside)).find("of others"), std::string::npos);
  EXPECT_EQ(reports.size(), 1U);
}

TEST_F(Stored, a_place_that_cannot_be_a_directory_is_a_storage_failure_until_it_can) {
  TemporaryRoot::write(root.store(), "a file");
  EXPECT_EQ(store().set("a", {"1", false}), Code::storage_failure);
  EXPECT_EQ(get("a"), std::to_string(static_cast<int>(Code::storage_failure)));
  EXPECT_EQ(store().flush(), Code::storage_failure);
  EXPECT_EQ(reports.size(), 1U);
  std::filesystem::remove(root.store());
  set("a", "1");
  EXPECT_EQ(get("a"), "1");
}

}  // namespace
}  // namespace gateway
