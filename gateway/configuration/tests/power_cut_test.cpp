// What the store has after a loss of power, for many moments and many ways in which a disk may lose what was not
// synced. The files of a new store, and of an exchange, are put in place by renaming; that is not played through here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "recording_vfs.h"
#include "store.h"
#include "temporary_root.h"

namespace gateway {
namespace {

constexpr int keys = 9;
using Values = std::map<std::string, std::string>;

// A moment in the life of the store, by the steps that were done before it.
struct Moment {
  std::size_t steps;
  std::size_t accepted;  // writes
  std::size_t flushed;
};

class PowerCut : public ::testing::Test {
 protected:
  PowerCut() { store.push_back({}); }

  [[nodiscard]] Store make(const std::string& directory) {
    return {directory, [](const std::string&) {}};
  }
  [[nodiscard]] static std::string key(std::uint_fast32_t number) { return "key" + std::to_string(number % keys); }

  // One write or flush; the writes are numbered, and `store` has the values after each of them.
  void act(Store& real, std::mt19937& random) {
    Values next = store.back();
    const auto choice = random() % 40;
    if (choice < 8) {
      ASSERT_EQ(real.flush(), Code::success);
      flushed = store.size() - 1;
      return;
    }
    if (choice == 8) {
      ASSERT_EQ(real.reset(), Code::success);
      next.clear();
    } else if (choice < 12) {
      const std::string name = key(random());
      ASSERT_EQ(real.set(name, {}), Code::success);
      next[name].clear();
    } else {
      const std::string name = key(random());
      next[name] = std::to_string(store.size()) + std::string(random() % 3 == 0 ? random() % 20000 : 10, '.');
      ASSERT_EQ(real.set(name, {next[name], random() % 4 == 0}), Code::success);
    }
    store.push_back(next);
    if (choice == 8) flushed = store.size() - 1;
  }

  static Values read(Store& real) {
    Values values;
    for (unsigned number = 0; number < keys; ++number) {
      Entry entry;
      const Code code = real.get(key(number), entry);
      if (code == Code::success) values[key(number)] = entry.bytes;
      EXPECT_TRUE(code == Code::success || code == Code::no_value) << static_cast<int>(code);
    }
    return values;
  }

  std::vector<Values> store;  // after each write
  std::size_t flushed = 0;
};

TEST_F(PowerCut, whatever_the_disk_loses_the_store_is_whole_and_has_every_write_up_to_one_after_the_last_flush) {
  TemporaryRoot root;
  ASSERT_EQ(make(root.store()).open(), Code::success);
  Image before;
  before[root.database()] = TemporaryRoot::read(root.database());

  std::mt19937 random(3);
  const RecordingVfs disk;
  std::vector<Moment> moments;
  {
    Store real = make(root.store());
    for (int i = 0; i < 150; ++i) {
      act(real, random);
      moments.push_back({disk.steps(), store.size() - 1, flushed});
    }
  }
  const std::size_t last = disk.steps();

  int lost = 0;
  const TemporaryRoot after;
  for (int round = 0; round < 500; ++round) {
    const std::size_t steps = random() % (last + 1);
    // In the middle of an action the next one may count already.
    std::size_t known = 0;
    while (known + 1 < moments.size() && moments[known + 1].steps <= steps) ++known;
    const bool early = moments[0].steps > steps;
    const std::size_t oldest = early ? 0 : moments[known].flushed;
    const std::size_t newest = early ? moments[0].accepted : moments[std::min(known + 1, moments.size() - 1)].accepted;

    std::filesystem::remove_all(after.store());
    std::filesystem::create_directories(after.store());
    for (const auto& [path, content] : disk.after_power_loss(before, steps, random)) {
      TemporaryRoot::write(after.store() + "/" + std::filesystem::path(path).filename().string(), content);
    }
    std::vector<std::string> reports;
    Store again(after.store(), [&](const std::string& text) { reports.push_back(text); });
    const Values seen = read(again);
    ASSERT_TRUE(reports.empty()) << reports[0] << " after " << steps << " steps";
    std::size_t found = newest;
    while (found > oldest && store[found] != seen) --found;
    ASSERT_EQ(store[found], seen) << "after " << steps << " of " << last << " steps, writes " << oldest << " to "
                                  << newest;
    if (found < newest) ++lost;
  }
  // Otherwise nothing would have been shown.
  EXPECT_GT(lost, 100);
}

}  // namespace
}  // namespace gateway
