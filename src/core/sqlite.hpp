#pragma once
// A small access layer over the SQLite C API: a database with a cache of prepared statements,
// statements with typed binds and columns, and transactions that roll back unless committed.
// Errors throw SqliteError; the stores built on it turn that into their own results.

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace jov::detail {

class SqliteError : public std::runtime_error {
 public:
  SqliteError(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

class SqliteStatement {
 public:
  explicit SqliteStatement(sqlite3_stmt* stmt) : stmt_(stmt) {}
  SqliteStatement(const SqliteStatement&) = delete;
  SqliteStatement& operator=(const SqliteStatement&) = delete;
  ~SqliteStatement();

  // Binds by 1-based index.
  SqliteStatement& bind(int index, std::int64_t value);
  SqliteStatement& bind(int index, double value);
  SqliteStatement& bind(int index, std::string_view text);
  SqliteStatement& bindNull(int index);
  SqliteStatement& bind(int index, const char* text) { return bind(index, std::string_view(text)); }
  template <class T>
  SqliteStatement& bind(int index, const std::optional<T>& value) {
    return value ? bind(index, *value) : bindNull(index);
  }

  /// Runs one step: true when a row is ready to be read.
  bool step();
  /// Clears binds and rewinds, so the statement can run again.
  void reset();

  std::int64_t integer(int column) const;
  double real(int column) const;
  std::string text(int column) const;
  bool isNull(int column) const;

 private:
  sqlite3_stmt* stmt_;
};

class SqliteDatabase {
 public:
  /// Opens (creating) the file with WAL journaling and synchronous=NORMAL: a process killed at
  /// any moment loses no committed transaction. Throws SqliteError.
  explicit SqliteDatabase(const std::filesystem::path& file);
  SqliteDatabase(const SqliteDatabase&) = delete;
  SqliteDatabase& operator=(const SqliteDatabase&) = delete;
  ~SqliteDatabase();

  /// Runs SQL text of one or more statements.
  void exec(const std::string& sql);
  /// A cached statement for this SQL text, reset and ready to bind. Use it under lock().
  SqliteStatement& prepare(const std::string& sql);
  std::int64_t lastInsertRowID() const;
  int changes() const;
  /// The lock every user of the database holds around a statement or a transaction.
  std::recursive_mutex& mutex() { return mutex_; }

 private:
  sqlite3* db_ = nullptr;
  std::recursive_mutex mutex_;
  std::map<std::string, std::unique_ptr<SqliteStatement>, std::less<>> cache_;
};

/// BEGIN IMMEDIATE on construction; rolls back in the destructor unless commit() ran. Holds the
/// database's lock for its whole life.
class SqliteTransaction {
 public:
  explicit SqliteTransaction(SqliteDatabase& db);
  SqliteTransaction(const SqliteTransaction&) = delete;
  SqliteTransaction& operator=(const SqliteTransaction&) = delete;
  ~SqliteTransaction();
  void commit();

 private:
  SqliteDatabase& db_;
  std::lock_guard<std::recursive_mutex> lock_;
  bool done_ = false;
};

}  // namespace jov::detail
