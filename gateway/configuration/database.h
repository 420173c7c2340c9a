// One SQLite database, with errors as exceptions; the store catches them all.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace gateway {

// What went wrong: SQLite's primary result code, and a line for a person. It never holds a value.
struct StorageError {
  int code;
  std::string text;
};

class Database {
 public:
  enum class Open {
    create,      // for reading and writing; made when it is missing
    existing,    // for reading and writing
    unchanging,  // for reading, on a file system on which nothing can be written; a log is not looked at
    damaged,     // for reading as much as possible
  };

  // Opens the file, and takes it for itself at the first access.
  Database(const std::string& path, Open how);

  // Runs statements that give no rows that matter.
  void run(const char* statements);
  void run(const std::string& statements) { run(statements.c_str()); }
  // The first column of the statement's first row; empty when there is none.
  std::string text(const char* statement);
  // With false, closing leaves the file and its log as they are; with true, as at first, it puts them together.
  void write_when_closed(bool write);
  // Moves what is in the log into the database, safe on the disk, and empties the log.
  void checkpoint();
  // True when the file is no longer at its place.
  [[nodiscard]] bool moved() const;
  // True when SQLite would write nothing into it.
  [[nodiscard]] bool refuses_writing() const;

 private:
  friend class Statement;
  [[noreturn]] void fail() const;
  void check(int result) const;

  struct Close {
    void operator()(sqlite3* handle) const { sqlite3_close_v2(handle); }
  };
  std::unique_ptr<sqlite3, Close> handle_;
};

// A prepared statement. Texts that are bound must outlive it; its columns are valid until the next step.
class Statement {
 public:
  Statement(const Database& database, const char* sql);

  Statement& bind_text(int place, std::string_view text);
  Statement& bind_bytes(int place, std::string_view bytes);
  Statement& bind(int place, std::int64_t number);
  // True when there is a row, false at the end.
  bool step();
  void reset() { sqlite3_reset(handle_.get()); }
  [[nodiscard]] std::string_view bytes(int column) const;
  [[nodiscard]] std::int64_t number(int column) const { return sqlite3_column_int64(handle_.get(), column); }

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* handle) const { sqlite3_finalize(handle); }
  };
  const Database& database_;
  std::unique_ptr<sqlite3_stmt, Finalize> handle_;
};

}  // namespace gateway
