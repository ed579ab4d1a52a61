#pragma once
// A small access layer over the SQLite C API, for the library's own files (preferences,
// transfer records): a database with a cache of prepared statements, statements with typed
// binds and columns, transactions that roll back unless committed, and numbered schema steps.
//
// Threads: one SqliteDatabase may be shared by any number of threads. Every use of the
// connection holds the database's (recursive) lock: a SqliteStatement holds it from prepare()
// until it is destroyed, a SqliteTransaction from BEGIN until it ends, and exec() for its call.
// So keep statements short-lived, and never let one outlive its database.
//
// Processes: WAL journaling and a busy timeout let several processes share one file; a writer
// waits up to the timeout for another's transaction to end. synchronous=NORMAL keeps every
// committed transaction through a crash of the process (not through a power cut).
//
// Errors throw SqliteError; the stores built on the layer turn it into their own results.

#include <chrono>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace jov::detail {

// A failure reported by SQLite: its result code (SQLITE_BUSY, SQLITE_CANTOPEN...) and message.
class SqliteError : public std::runtime_error {
 public:
  SqliteError(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
  // The primary result code.
  int code() const noexcept { return code_; }

 private:
  int code_;
};

struct SqliteOptions {
  bool create = true;     // create the file when missing
  bool readOnly = false;  // open without writing (no journal mode change either)
  // How long a writer waits for another connection's transaction before SQLITE_BUSY.
  std::chrono::milliseconds busyTimeout{5000};
};

class SqliteDatabase;

// One use of a prepared statement. Move-only; holds the database's lock for its whole life.
// On destruction a cached statement is reset and its bindings cleared (so it keeps no read
// snapshot open and the next use starts clean); an uncached one is finalized.
class SqliteStatement {
 public:
  SqliteStatement(SqliteStatement&& other) noexcept;
  SqliteStatement(const SqliteStatement&) = delete;
  SqliteStatement& operator=(const SqliteStatement&) = delete;
  SqliteStatement& operator=(SqliteStatement&&) = delete;
  ~SqliteStatement();

  // Binds by 1-based parameter index ("?1" is 1). Text and blobs are copied.
  SqliteStatement& bind(int index, std::int64_t value);
  template <std::integral T>
  SqliteStatement& bind(int index, T value) {
    // Unsigned 64-bit values keep their bits: read them back with a cast.
    return bind(index, static_cast<std::int64_t>(value));
  }
  SqliteStatement& bind(int index, double value);
  SqliteStatement& bind(int index, std::string_view text);
  SqliteStatement& bind(int index, const char* text) { return bind(index, std::string_view(text)); }
  SqliteStatement& bind(int index, const std::string& text) {
    return bind(index, std::string_view(text));
  }
  SqliteStatement& bind(int index, std::span<const std::byte> blob);
  SqliteStatement& bind(int index, std::nullptr_t);
  template <class T>
  SqliteStatement& bind(int index, const std::optional<T>& value) {
    return value ? bind(index, *value) : bind(index, nullptr);
  }

  // Runs to the next row: true when a row is ready for the column getters, false when done.
  bool step();
  // Rewinds and clears the bindings, so the statement can run again.
  void reset();

  // Columns of the current row, 0-based. A NULL reads as 0, 0.0, "" or no bytes.
  int columnCount() const;
  bool columnIsNull(int column) const;
  std::int64_t columnInt64(int column) const;
  double columnDouble(int column) const;
  std::string columnText(int column) const;
  std::vector<std::byte> columnBlob(int column) const;

 private:
  friend class SqliteDatabase;
  SqliteStatement(SqliteDatabase& db, sqlite3_stmt* stmt, bool* inUse,
                  std::unique_lock<std::recursive_mutex> lock);

  std::unique_lock<std::recursive_mutex> lock_;  // released last, after the reset
  SqliteDatabase* db_;
  sqlite3_stmt* stmt_;
  bool* inUse_;  // the cache entry's flag; null for a statement prepared for this use alone
};

// BEGIN IMMEDIATE when made (so a writer waits for the file's write lock up front, not halfway
// through); commit() ends it; destroyed without commit() it rolls back. Holds the database's
// lock for its whole life: statements prepared meanwhile on the same thread join it.
class SqliteTransaction {
 public:
  SqliteTransaction(const SqliteTransaction&) = delete;
  SqliteTransaction& operator=(const SqliteTransaction&) = delete;
  ~SqliteTransaction();
  void commit();

 private:
  friend class SqliteDatabase;
  explicit SqliteTransaction(SqliteDatabase& db);

  std::unique_lock<std::recursive_mutex> lock_;
  SqliteDatabase& db_;
  bool open_ = false;
};

class SqliteDatabase {
 public:
  // Opens the file (":memory:" for a private in-memory database) in WAL mode with
  // synchronous=NORMAL and the busy timeout. Throws SqliteError.
  explicit SqliteDatabase(const std::filesystem::path& file, SqliteOptions options = {});
  SqliteDatabase(const SqliteDatabase&) = delete;
  SqliteDatabase& operator=(const SqliteDatabase&) = delete;
  ~SqliteDatabase();

  // Runs SQL text of one or more statements, without parameters.
  void exec(const std::string& sql);
  // The statement of this SQL text (one statement), from the cache when it was prepared before
  // and is not in use; ready to bind.
  SqliteStatement prepare(std::string_view sql);
  // Starts a write transaction (BEGIN IMMEDIATE).
  SqliteTransaction transaction();

  // The row ID of the last INSERT and the rows changed by the last statement on this
  // connection: read them while the statement or its transaction still holds the lock.
  std::int64_t lastInsertRowID();
  std::int64_t changes();

  // PRAGMA user_version: the schema version the file was brought to.
  std::int64_t userVersion();
  // Brings the schema from its user_version to steps.size(): runs each missing step (SQL text
  // of one or more statements) and records the version, all in one transaction, so a process
  // killed meanwhile leaves the old schema whole. Throws SqliteError when the file was made by a
  // newer schema than the steps know.
  void migrate(std::span<const std::string_view> steps);

  // The lock every use of the connection holds; take it to keep several statements together.
  std::unique_lock<std::recursive_mutex> lock() { return std::unique_lock(mutex_); }

  const std::filesystem::path& file() const { return file_; }

 private:
  friend class SqliteStatement;
  friend class SqliteTransaction;

  // Statements kept prepared; past this many SQL texts, new ones are prepared for one use.
  static constexpr std::size_t kCacheLimit = 64;

  struct Cached {
    sqlite3_stmt* stmt = nullptr;
    bool inUse = false;
  };

  [[noreturn]] void fail(int code, std::string_view what);

  std::filesystem::path file_;
  std::recursive_mutex mutex_;
  sqlite3* db_ = nullptr;
  std::map<std::string, Cached, std::less<>> cache_;
};

}  // namespace jov::detail
