#include "store.h"

#include <sodium.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <string>

namespace gateway {
namespace {

// "QVCF": tells a store of configuration from any other database.
constexpr int application_id = 0x51564346;
constexpr int schema_version = 1;
constexpr const char* schema =
    "CREATE TABLE config(key TEXT PRIMARY KEY, value BLOB NOT NULL, sealed INTEGER NOT NULL, sum BLOB NOT NULL)"
    " STRICT, WITHOUT ROWID";
constexpr const char* insert_sql =
    "INSERT INTO config(key, value, sealed, sum) VALUES(?1, ?2, ?3, ?4)"
    " ON CONFLICT(key) DO UPDATE SET value = excluded.value, sealed = excluded.sealed, sum = excluded.sum";
constexpr const char* read_all_sql = "SELECT key, value, sealed, sum FROM config ORDER BY key";

struct NewerStore {
  std::string text;
};

using Sum = std::array<unsigned char, 16>;

std::string_view view(const Sum& sum) { return {reinterpret_cast<const char*>(sum.data()), sum.size()}; }

// SQLite notices damage of its own structures only; this notices that of a value.
Sum sum_of(std::string_view key, std::string_view bytes, bool sealed) {
  Sum sum{};
  crypto_generichash_state state;
  const std::array<std::uint64_t, 2> head{key.size(), sealed ? 1U : 0U};
  crypto_generichash_init(&state, nullptr, 0, sum.size());
  crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(head.data()), sizeof head);
  crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(key.data()), key.size());
  crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  crypto_generichash_final(&state, sum.data(), sum.size());
  return sum;
}

// The row of `read_all_sql` is as it was written.
bool is_whole(const Statement& row) {
  return view(sum_of(row.bytes(0), row.bytes(1), row.number(2) != 0)) == row.bytes(3);
}

void write_row(Statement& insert, std::string_view key, std::string_view bytes, bool sealed) {
  const Sum sum = sum_of(key, bytes, sealed);
  insert.bind_text(1, key).bind_bytes(2, bytes).bind(3, sealed ? 1 : 0).bind_bytes(4, view(sum));
  (void)insert.step();
  insert.reset();
}

bool is_damage(const StorageError& error) {
  return error.code == SQLITE_CORRUPT || error.code == SQLITE_NOTADB || error.code == SQLITE_TOOBIG;
}

// What damage looks like before it is known that the tables are there. Others, as a full disk, must not pass for it.
bool may_be_damage(const StorageError& error) { return is_damage(error) || error.code == SQLITE_ERROR; }

// Copies the rows that are whole until one cannot be read.
void copy_rows(const Database& from, const std::string& order, const Database& to) {
  try {
    Statement rows(from, (read_all_sql + order).c_str());
    Statement insert(to, insert_sql);
    while (rows.step()) {
      if (is_whole(rows)) write_row(insert, rows.bytes(0), rows.bytes(1), rows.number(2) != 0);
    }
  } catch (const StorageError& error) {
    if (!may_be_damage(error)) throw;
  }
}

// Copies what can be read of a damaged database, which is not written to.
void salvage(const std::string& path, const Database& to) {
  try {
    Database from(path, Database::Open::damaged);
    from.write_when_closed(false);
    // From both ends: what is damaged may be in the middle.
    copy_rows(from, "", to);
    copy_rows(from, " DESC", to);
  } catch (const StorageError& error) {
    if (!may_be_damage(error)) throw;
  }
}

}  // namespace

Code Store::open() {
  return work(Access::read, [](Database&) { return Code::success; });
}

Code Store::get(std::string_view key, Entry& entry) {
  return work(Access::read, [&](Database& database) {
    Statement row(database, "SELECT key, value, sealed, sum FROM config WHERE key = ?1");
    row.bind_text(1, key);
    if (!row.step()) return Code::no_value;
    if (!is_whole(row)) throw StorageError{SQLITE_CORRUPT, "a value is damaged"};
    entry = {std::string(row.bytes(1)), row.number(2) != 0};
    return Code::success;
  });
}

Code Store::set(std::string_view key, const Entry& entry) {
  return work(Access::write, [&](Database& database) {
    if ((entry.sealed || entry.bytes.empty()) && !traces_) {
      Statement clear(database, "SELECT 1 FROM config WHERE key = ?1 AND sealed = 0");
      traces_ = clear.bind_text(1, key).step();
    }
    Statement insert(database, insert_sql);
    write_row(insert, key, entry.bytes, entry.sealed);
    unflushed_ = true;
    return Code::success;
  });
}

Code Store::reset() {
  const Code code = work(Access::write, [&](Database& database) {
    unflushed_ = traces_ = true;
    database.run("DELETE FROM config");
    return Code::success;
  });
  if (code != Code::success) return code;
  // What was lost before is to be gone now.
  lost_ = false;
  const Code flushed = flush();
  if (flushed != Code::success) return flushed;
  return work(Access::read, [&](Database&) {
    files_.remove_set_aside();
    return Code::success;
  });
}

Code Store::flush() {
  const Code code = persist();
  if (!lost_) return code;
  lost_ = false;
  return Code::storage_failure;
}

Code Store::persist() {
  return work(Access::read, [&](Database& database) {
    if (traces_) {
      try {
        // A page that values have moved out of keeps their bytes; one that is written anew does not.
        database.run("VACUUM");
        traces_ = false;
      } catch (const StorageError& error) {
        // It takes room for a second database. Durability does not wait for that.
        if (error.code != SQLITE_FULL) throw;
      }
    }
    if (!reading_only_) database.checkpoint();
    unflushed_ = false;
    problem_.clear();
    return Code::success;
  });
}

std::string Store::condition() const {
  if (!database_) return "closed: " + problem_;
  return reading_only_ ? "open for reading" : "open";
}

// Does the task on the open database. After damage it is done once more, on what has taken the database's place.
template <class Task>
Code Store::work(Access access, Task task) {
  for (bool again = false;; again = true) {
    try {
      ensure_open(access);
      const Code code = task(*database_);
      if (access == Access::write) problem_.clear();
      return code;
    } catch (const NewerStore& newer) {
      (void)fail({SQLITE_ERROR, newer.text});
      return Code::newer_store;
    } catch (const StorageError& error) {
      if (!is_damage(error) || again) return fail(error);
      // Opening looks at the database as a whole, and replaces it if need be.
      lost_ = lost_ || unflushed_;
      close();
    } catch (const std::exception& error) {
      return fail({SQLITE_ERROR, error.what()});
    }
  }
}

Code Store::fail(const StorageError& error) {
  // Once: callers try again and again.
  if (problem_ != error.text) report_(files_.database() + ": " + error.text);
  problem_ = error.text;
  return Code::storage_failure;
}

void Store::close() {
  if (!database_) return;
  // Nothing is to be written on the way out to what may be damaged, or no longer there.
  try {
    database_->write_when_closed(false);
  } catch (const StorageError&) {
    // The log is then put into the database, which the next opening would do as well.
  }
  database_.reset();
}

void Store::ensure_open(Access access) {
  if (database_ && database_->moved()) {
    report_(files_.database() + ": it was removed or exchanged while it was in use");
    lost_ = lost_ || unflushed_;
    close();
  }
  // It may have become writable.
  if (access == Access::write && reading_only_) close();
  if (!database_) open_database();
  if (access == Access::write && reading_only_) throw StorageError{SQLITE_READONLY, "the file system is read-only"};
}

void Store::open_database() {
  files_.acquire();
  std::string reason;
  const auto found = files_.look(reason);
  // A log that is left tells of an end without a flush.
  const bool log = files_.has_log();
  reading_only_ =
      found == StoreFiles::Found::database && ::access(files_.database().c_str(), W_OK) != 0 && errno == EROFS;
  if (reading_only_ && log) {
    throw StorageError{SQLITE_READONLY, "the file system is read-only, and the log has writes to be taken over first"};
  }
  if (found == StoreFiles::Found::nothing) {
    (void)build_fresh(false);
    files_.put_ready_in_place();
  } else if (found == StoreFiles::Found::unusable) {
    replace(reason, false);
  }
  try {
    database_ = load(reading_only_ ? Database::Open::unchanging : Database::Open::existing);
  } catch (const StorageError& error) {
    if (!is_damage(error) || reading_only_) throw;
    replace(error.text, true);
    database_ = load(Database::Open::existing);
  }
  unflushed_ = traces_ = log;
}

// Opens the database and looks at all of it.
std::unique_ptr<Database> Store::load(Database::Open how) const {
  auto database = std::make_unique<Database>(files_.database(), how);
  // What turns out to be damaged or newer is left as it is.
  database->write_when_closed(false);
  try {
    if (std::stoll(database->text("PRAGMA application_id")) != application_id) {
      throw StorageError{SQLITE_NOTADB, "it is not a store of configuration"};
    }
    const auto version = std::stoll(database->text("PRAGMA user_version"));
    if (version > schema_version) {
      throw NewerStore{"it was written by a newer version (schema " + std::to_string(version) + ", this one knows " +
                       std::to_string(schema_version) + "), and is left alone"};
    }
    if (version < schema_version) throw StorageError{SQLITE_CORRUPT, "it has no version"};
    if (how != Database::Open::unchanging) {
      if (database->refuses_writing()) throw StorageError{SQLITE_CORRUPT, "its header does not allow writing"};
      // In this mode a commit is added to the log without waiting for the disk, which spares flash memory, and `flush`
      // waits for all at once. A loss of power cuts the log somewhere: its check sums run through from commit to
      // commit, so what is left is every write up to a moment. FULL would only make each single write wait.
      if (database->text("PRAGMA journal_mode=WAL") != "wal") throw StorageError{SQLITE_IOERR, "it cannot have a log"};
      database->run("PRAGMA synchronous=NORMAL");
    }
    const std::string state = database->text("PRAGMA integrity_check(1)");
    // Its first line may be no more than a title.
    if (state != "ok") throw StorageError{SQLITE_CORRUPT, state.substr(state.rfind('\n') + 1)};
    for (Statement rows(*database, read_all_sql); rows.step();) {
      if (!is_whole(rows)) throw StorageError{SQLITE_CORRUPT, "a value is damaged"};
    }
  } catch (const StorageError& error) {
    // A table or column that is not there.
    if (error.code == SQLITE_ERROR) throw StorageError{SQLITE_CORRUPT, error.text};
    throw;
  }
  database->write_when_closed(true);
  return database;
}

// Builds a database beside the place, with what can be read of the damaged one in the place, and makes it ready to take
// over. Gives the number of values in it.
int Store::build_fresh(bool from_damaged) const {
  files_.clear_fresh();
  int values = 0;
  {
    Database fresh(files_.fresh(), Database::Open::create);
    fresh.run("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA application_id=" +
              std::to_string(application_id) + "; PRAGMA user_version=" + std::to_string(schema_version));
    fresh.run(schema);
    if (from_damaged) {
      fresh.run("BEGIN");
      salvage(files_.database(), fresh);
      fresh.run("COMMIT");
      values = std::stoi(fresh.text("SELECT count(*) FROM config"));
    }
    fresh.checkpoint();
  }
  files_.fresh_is_ready();
  return values;
}

// What is damaged makes way for a new database, with whatever can be read of it if it is `readable` at all.
void Store::replace(const std::string& reason, bool readable) {
  const int recovered = build_fresh(readable);
  const std::string name = files_.set_aside();
  files_.put_ready_in_place();
  lost_ = lost_ || unflushed_;
  const std::string text = files_.database() + " was damaged (" + reason + ") and is now " + name + "; " +
                           std::to_string(recovered) + " values were recovered";
  files_.note(name, text);
  report_(text);
}

}  // namespace gateway
