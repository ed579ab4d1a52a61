// SQLite access for the emulator: one connection, guarded by a mutex, with one transaction per
// request. Statements are prepared once and cached on the connection.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>

namespace jovemu {

/// @brief A cached prepared statement, reset and unbound when the handle goes out of scope.
class Statement {
 public:
  explicit Statement(sqlite3_stmt* stmt) : stmt_(stmt) {}
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement();

  /// @brief Binds by 1-based position; an empty optional binds NULL.
  Statement& bind(int index, std::string_view text);
  Statement& bind(int index, const std::string& text) {
    return bind(index, std::string_view(text));
  }
  Statement& bind(int index, const char* text) { return bind(index, std::string_view(text)); }
  Statement& bind(int index, const std::optional<std::string>& text);
  Statement& bind(int index, std::int64_t value);
  Statement& bind(int index, int value) { return bind(index, static_cast<std::int64_t>(value)); }
  Statement& bind(int index, bool value) { return bind(index, static_cast<std::int64_t>(value)); }
  Statement& bindNull(int index);

  /// @brief Steps once: true when a row is available.
  bool step();
  /// @brief Steps to completion, for statements that return no rows.
  void run();

  std::optional<std::string> text(int column) const;
  std::string textOr(int column, std::string fallback = {}) const;
  std::int64_t integer(int column) const;
  bool isNull(int column) const;

 private:
  sqlite3_stmt* stmt_;
};

/// @brief An open SQLite connection; used only by the thread holding the database lock.
class Connection {
 public:
  explicit Connection(const std::string& path);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  /// @brief A cached prepared statement for this SQL text.
  Statement prepare(const std::string& sql);
  /// @brief Runs one or more statements without parameters.
  void exec(const char* sql);
  /// @brief Number of rows changed by the last statement.
  int changes() const { return sqlite3_changes(db_); }
  /// @brief The SQLite handle, for statements built at run time and for registering functions.
  sqlite3* handle() const { return db_; }
  /// @brief Asks for the database's commit observer to be called once this transaction commits
  /// (nothing happens when it rolls back).
  void notifyOnCommit() { notify_ = true; }

 private:
  friend class Database;
  bool notify_ = false;
  sqlite3* db_ = nullptr;
  std::unordered_map<std::string, sqlite3_stmt*> cache_;
};

/// @brief The emulator's store: runs each unit of work in its own transaction, one at a time.
class Database {
 public:
  /// @brief Opens (and creates when needed) the store; ":memory:" keeps nothing.
  explicit Database(const std::string& path);

  /// @brief Runs fn(Connection&) in a write transaction; an exception rolls everything back.
  template <typename Fn>
  auto transaction(Fn&& fn) -> decltype(fn(std::declval<Connection&>())) {
    std::unique_lock lock(mutex_);
    conn_.exec("BEGIN IMMEDIATE");
    conn_.notify_ = false;
    try {
      if constexpr (std::is_void_v<decltype(fn(conn_))>) {
        fn(conn_);
        conn_.exec("COMMIT");
        committed(lock);
      } else {
        auto result = fn(conn_);
        conn_.exec("COMMIT");
        committed(lock);
        return result;
      }
    } catch (...) {
      if (lock.owns_lock()) rollback();
      throw;
    }
  }

  /// @brief Called, outside the lock, after each commit of a transaction that asked for it
  /// (Connection::notifyOnCommit). Set it before the store is shared between threads.
  void setCommitObserver(std::function<void()> observer) { observer_ = std::move(observer); }

 private:
  void rollback() noexcept;
  void committed(std::unique_lock<std::mutex>& lock) {
    const bool notify = std::exchange(conn_.notify_, false);
    lock.unlock();
    if (notify && observer_) observer_();
  }

  std::function<void()> observer_;

  std::mutex mutex_;
  Connection conn_;
};

/// @brief Thrown when SQLite reports an unexpected failure.
class DatabaseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace jovemu
