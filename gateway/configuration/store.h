// The store of the configuration: one SQLite database, on whose loss or damage somebody depends.
//
// What it promises:
// - A write that was accepted is seen by every later read, also when the process is killed.
// - After `flush` has succeeded, every accepted write survives a loss of power.
// - What survives of the writes after the last flush is those up to some moment: none without all before it.
// - A database that is damaged is never written over and never emptied: it is set aside, what can be read of it is
//   taken over, and it is reported.
// - After `reset` has succeeded, no file of the store has anything of an earlier value.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "codes.h"
#include "database.h"
#include "store_files.h"

namespace gateway {

// What is stored under a key: the value, or its sealed bytes.
struct Entry {
  std::string bytes;
  bool sealed = false;
};

// Every method that gives a code may give `storage_failure` or `newer_store`; the store is then unchanged. It opens the
// database when it is not open yet, and looks at its state as a whole whenever it opens it. Nothing but std::bad_alloc
// is thrown. To be used from one thread, after sodium_init.
class Store {
 public:
  // Told in one line, once for each incident, what a person should know. It never holds a value.
  using Report = std::function<void(const std::string& text)>;

  Store(std::string directory, Report report) : files_(std::move(directory)), report_(std::move(report)) {}

  [[nodiscard]] Code open();
  // `success` or `no_value`.
  [[nodiscard]] Code get(std::string_view key, Entry& entry);
  [[nodiscard]] Code set(std::string_view key, const Entry& entry);
  // Removes everything, also what was set aside; safe on the disk when it has succeeded.
  [[nodiscard]] Code reset();
  // Fails also when accepted writes have been lost since the last flush, by damage or because the files were removed.
  [[nodiscard]] Code flush();
  // The same work, done for nobody: a loss is still told by the next `flush`.
  [[nodiscard]] Code persist();
  // True when there are accepted writes that a loss of power could undo.
  [[nodiscard]] bool unflushed() const { return unflushed_; }
  // "open", "open for reading", or "closed: " and the reason.
  [[nodiscard]] std::string condition() const;

 private:
  enum class Access { read, write };

  template <class Task>
  Code work(Access access, Task task);
  Code fail(const StorageError& error);
  void close();

  void ensure_open(Access access);
  void open_database();
  std::unique_ptr<Database> load(Database::Open how) const;
  int build_fresh(bool from_damaged) const;
  void replace(const std::string& reason, bool readable);

  StoreFiles files_;
  Report report_;
  std::unique_ptr<Database> database_;
  bool reading_only_ = false;
  bool unflushed_ = false;
  bool lost_ = false;    // accepted writes may have been lost, and no flush has told it yet
  bool traces_ = false;  // a value in clear has gone: its bytes may still be in the unused parts of a page
  std::string problem_;  // why a call has failed, until something is written again
};

}  // namespace gateway
