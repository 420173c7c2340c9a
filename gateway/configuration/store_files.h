// The store's files, and the steps in which they are put in place. Whenever the work is interrupted, by a kill or by
// the power, the next start finds a whole database under its name or ready beside it.
#pragma once

#include <string>

namespace gateway {

// Failures are thrown as StorageError.
class StoreFiles {
 public:
  explicit StoreFiles(std::string directory) : directory_(std::move(directory)) {}
  ~StoreFiles() { release(); }
  StoreFiles(const StoreFiles&) = delete;
  StoreFiles& operator=(const StoreFiles&) = delete;

  [[nodiscard]] std::string database() const { return directory_ + "/config.db"; }
  // Where a new database is built.
  [[nodiscard]] std::string fresh() const { return directory_ + "/config.db.new"; }
  // True when there is a log in which writes may be that the database does not have yet.
  [[nodiscard]] bool has_log() const;

  // Makes the directory, mode 0700, safe on the disk, and locks it: another process that has it is waited for two
  // seconds at most.
  void acquire();
  void release();

  enum class Found { nothing, database, unusable };
  // What is at the database's place, after finishing an exchange that was interrupted, and setting its mode to 0600.
  // `unusable`: not even worth opening; `why` tells the reason.
  Found look(std::string& why) const;

  // Removes what an interrupted building has left.
  void clear_fresh() const;
  // The new database is complete and safe on the disk: from now on it takes the place of the old one, even when the
  // exchange is interrupted before that is moved away.
  void fresh_is_ready() const;
  // Moves what is at the database's place aside, with its log. Gives the base name that it now has.
  std::string set_aside() const;
  void put_ready_in_place() const;
  // Leaves a note beside what was set aside, for a person. Its failure does not matter: the same is reported as well.
  void note(const std::string& name, const std::string& text) const;

  // Removes the files that were set aside and their notes.
  void remove_set_aside() const;

 private:
  void make_directory() const;
  void sync() const;

  std::string directory_;
  int lock_ = -1;
};

}  // namespace gateway
