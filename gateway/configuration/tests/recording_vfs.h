// A file system for SQLite that works on the real one and remembers each step, so that it can be told what a loss of
// power at any moment may leave on a disk: everything that was synced, and of the rest any sectors, in any order.
#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace gateway {

// The content of files, by their paths.
using Image = std::map<std::string, std::string>;

// While it lives, databases that are opened use it. One at a time.
class RecordingVfs {
 public:
  RecordingVfs();
  ~RecordingVfs();
  RecordingVfs(const RecordingVfs&) = delete;
  RecordingVfs& operator=(const RecordingVfs&) = delete;

  // How many steps there have been.
  [[nodiscard]] std::size_t steps() const;

  // What may be left of `before` when the power is lost after that many steps.
  [[nodiscard]] Image after_power_loss(Image before, std::size_t steps, std::mt19937& random) const;

 private:
  sqlite3_vfs vfs_{};
};

}  // namespace gateway
