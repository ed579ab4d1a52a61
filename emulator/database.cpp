#include "database.hpp"

#include "schema.hpp"

namespace jovemu {

namespace {

[[noreturn]] void fail(sqlite3* db, const std::string& what) {
  throw DatabaseError(what + ": " + (db ? sqlite3_errmsg(db) : "out of memory"));
}

}  // namespace

Statement::~Statement() {
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
}

Statement& Statement::bind(int index, std::string_view text) {
  if (sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()),
                        SQLITE_TRANSIENT) != SQLITE_OK) {
    fail(sqlite3_db_handle(stmt_), "bind");
  }
  return *this;
}

Statement& Statement::bind(int index, const std::optional<std::string>& text) {
  return text ? bind(index, std::string_view(*text)) : bindNull(index);
}

Statement& Statement::bind(int index, std::int64_t value) {
  if (sqlite3_bind_int64(stmt_, index, value) != SQLITE_OK) {
    fail(sqlite3_db_handle(stmt_), "bind");
  }
  return *this;
}

Statement& Statement::bindNull(int index) {
  if (sqlite3_bind_null(stmt_, index) != SQLITE_OK) fail(sqlite3_db_handle(stmt_), "bind");
  return *this;
}

bool Statement::step() {
  int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  fail(sqlite3_db_handle(stmt_), "step");
}

void Statement::run() {
  while (step()) {
  }
}

std::optional<std::string> Statement::text(int column) const {
  if (sqlite3_column_type(stmt_, column) == SQLITE_NULL) return std::nullopt;
  const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
  return std::string(data, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)));
}

std::string Statement::textOr(int column, std::string fallback) const {
  auto value = text(column);
  return value ? *value : std::move(fallback);
}

std::int64_t Statement::integer(int column) const {
  return sqlite3_column_int64(stmt_, column);
}

bool Statement::isNull(int column) const {
  return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}

Connection::Connection(const std::string& path) {
  // The connection is used by one thread at a time (under the database lock) but by many
  // threads over its life, so SQLite's own serialisation is not needed.
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
    std::string message = "cannot open " + path + ": " + (db_ ? sqlite3_errmsg(db_) : "no memory");
    sqlite3_close(db_);
    db_ = nullptr;
    throw DatabaseError(message);
  }
  sqlite3_busy_timeout(db_, 5000);
}

Connection::~Connection() {
  for (auto& [sql, stmt] : cache_) sqlite3_finalize(stmt);
  sqlite3_close(db_);
}

Statement Connection::prepare(const std::string& sql) {
  auto it = cache_.find(sql);
  if (it == cache_.end()) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v3(db_, sql.c_str(), static_cast<int>(sql.size()),
                           SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK) {
      fail(db_, "prepare");
    }
    it = cache_.emplace(sql, stmt).first;
  }
  return Statement(it->second);
}

void Connection::exec(const char* sql) {
  char* error = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &error) != SQLITE_OK) {
    std::string message = error ? error : "unknown error";
    sqlite3_free(error);
    throw DatabaseError(std::string("exec: ") + message);
  }
}

Database::Database(const std::string& path) : conn_(path) {
  std::lock_guard lock(mutex_);
  // WAL keeps readers and the writer apart; FULL syncs every commit, so an answered write is
  // on disk even if the machine goes down right after.
  conn_.exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA foreign_keys=ON;");
  conn_.exec("BEGIN IMMEDIATE");
  try {
    createSchema(conn_);
    conn_.exec("COMMIT");
  } catch (...) {
    rollback();
    throw;
  }
}

void Database::rollback() noexcept {
  try {
    conn_.exec("ROLLBACK");
  } catch (const DatabaseError&) {
    // SQLite already rolled back (e.g. after a full disk); nothing is left to undo.
  }
}

}  // namespace jovemu
