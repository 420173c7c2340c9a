#include "database.h"

namespace gateway {

Database::Database(const std::string& path, Open how) {
  sqlite3* handle = nullptr;
  int result = SQLITE_OK;
  if (how == Open::unchanging) {
    const std::string uri = "file:" + path + "?immutable=1";
    result = sqlite3_open_v2(uri.c_str(), &handle, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
  } else {
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW | (how == Open::create ? SQLITE_OPEN_CREATE : 0);
    result = sqlite3_open_v2(path.c_str(), &handle, flags, nullptr);
  }
  handle_.reset(handle);
  if (handle == nullptr) throw StorageError{result, sqlite3_errstr(result)};
  check(result);
  // The second of these has SQLite read a file that is shorter than its header says. First of all: others read.
  if (how == Open::damaged) run("PRAGMA query_only=ON; PRAGMA writable_schema=ON");
  // Far above what is stored: a damaged size asks for no more memory than this.
  sqlite3_limit(handle, SQLITE_LIMIT_LENGTH, 1 << 20);
  // Alone: no shared-memory file that a crash could leave behind, and nobody else who keeps the log from being emptied.
  // secure_delete: what is removed is overwritten. temp_store: no value in a temporary file. The cache is small, and
  // what it holds is not trusted to be well formed.
  run("PRAGMA locking_mode=EXCLUSIVE; PRAGMA secure_delete=ON; PRAGMA temp_store=MEMORY; PRAGMA cache_size=-256;"
      "PRAGMA cell_size_check=ON; PRAGMA trusted_schema=OFF;");
}

void Database::run(const char* statements) {
  check(sqlite3_exec(handle_.get(), statements, nullptr, nullptr, nullptr));
}

std::string Database::text(const char* statement) {
  Statement query(*this, statement);
  return query.step() ? std::string(query.bytes(0)) : std::string();
}

void Database::write_when_closed(bool write) {
  check(sqlite3_db_config(handle_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, write ? 0 : 1, nullptr));
}

void Database::checkpoint() {
  check(sqlite3_wal_checkpoint_v2(handle_.get(), "main", SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr));
}

bool Database::moved() const {
  int moved = 0;
  return sqlite3_file_control(handle_.get(), "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK && moved != 0;
}

bool Database::refuses_writing() const { return sqlite3_db_readonly(handle_.get(), "main") == 1; }

void Database::check(int result) const {
  if (result != SQLITE_OK) fail();
}

void Database::fail() const {
  // Extended codes carry the primary one in their lowest byte.
  throw StorageError{sqlite3_errcode(handle_.get()) & 0xff, sqlite3_errmsg(handle_.get())};
}

Statement::Statement(const Database& database, const char* sql) : database_(database) {
  sqlite3_stmt* handle = nullptr;
  database_.check(sqlite3_prepare_v2(database_.handle_.get(), sql, -1, &handle, nullptr));
  handle_.reset(handle);
}

Statement& Statement::bind_text(int place, std::string_view text) {
  database_.check(sqlite3_bind_text(handle_.get(), place, text.data(), static_cast<int>(text.size()), SQLITE_STATIC));
  return *this;
}

Statement& Statement::bind_bytes(int place, std::string_view bytes) {
  // Without an address it would be NULL instead of no bytes.
  const char* const data = bytes.empty() ? "" : bytes.data();
  database_.check(sqlite3_bind_blob(handle_.get(), place, data, static_cast<int>(bytes.size()), SQLITE_STATIC));
  return *this;
}

Statement& Statement::bind(int place, std::int64_t number) {
  database_.check(sqlite3_bind_int64(handle_.get(), place, number));
  return *this;
}

bool Statement::step() {
  const int result = sqlite3_step(handle_.get());
  if (result == SQLITE_ROW) return true;
  if (result != SQLITE_DONE) database_.fail();
  return false;
}

std::string_view Statement::bytes(int column) const {
  const auto* const data = static_cast<const char*>(sqlite3_column_blob(handle_.get(), column));
  return data == nullptr
             ? std::string_view()
             : std::string_view(data, static_cast<std::size_t>(sqlite3_column_bytes(handle_.get(), column)));
}

}  // namespace gateway
