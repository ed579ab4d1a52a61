#include "core/sqlite.hpp"

#include <sqlite3.h>

namespace jov::detail {

namespace {

[[noreturn]] void fail(sqlite3* db, int code, const std::string& what) {
  throw SqliteError(code, what + ": " + (db ? sqlite3_errmsg(db) : sqlite3_errstr(code)));
}

}  // namespace

SqliteStatement::~SqliteStatement() {
  sqlite3_finalize(stmt_);
}

SqliteStatement& SqliteStatement::bind(int index, std::int64_t value) {
  if (int rc = sqlite3_bind_int64(stmt_, index, value); rc != SQLITE_OK)
    fail(sqlite3_db_handle(stmt_), rc, "bind");
  return *this;
}

SqliteStatement& SqliteStatement::bind(int index, double value) {
  if (int rc = sqlite3_bind_double(stmt_, index, value); rc != SQLITE_OK)
    fail(sqlite3_db_handle(stmt_), rc, "bind");
  return *this;
}

SqliteStatement& SqliteStatement::bind(int index, std::string_view text) {
  if (int rc = sqlite3_bind_text64(stmt_, index, text.data(), text.size(), SQLITE_TRANSIENT,
                                   SQLITE_UTF8);
      rc != SQLITE_OK)
    fail(sqlite3_db_handle(stmt_), rc, "bind");
  return *this;
}

SqliteStatement& SqliteStatement::bindNull(int index) {
  if (int rc = sqlite3_bind_null(stmt_, index); rc != SQLITE_OK)
    fail(sqlite3_db_handle(stmt_), rc, "bind");
  return *this;
}

bool SqliteStatement::step() {
  const int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  fail(sqlite3_db_handle(stmt_), rc, "step");
}

void SqliteStatement::reset() {
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
}

std::int64_t SqliteStatement::integer(int column) const {
  return sqlite3_column_int64(stmt_, column);
}

double SqliteStatement::real(int column) const {
  return sqlite3_column_double(stmt_, column);
}

std::string SqliteStatement::text(int column) const {
  const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
  return data ? std::string(data, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)))
              : std::string();
}

bool SqliteStatement::isNull(int column) const {
  return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}

SqliteDatabase::SqliteDatabase(const std::filesystem::path& file) {
  const int rc =
      sqlite3_open_v2(file.c_str(), &db_,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    std::string message =
        "cannot open " + file.string() + ": " + (db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc));
    sqlite3_close(db_);
    db_ = nullptr;
    throw SqliteError(rc, message);
  }
  sqlite3_busy_timeout(db_, 5000);
  try {
    exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON;");
  } catch (...) {
    sqlite3_close(db_);
    db_ = nullptr;
    throw;
  }
}

SqliteDatabase::~SqliteDatabase() {
  cache_.clear();
  sqlite3_close(db_);
}

void SqliteDatabase::exec(const std::string& sql) {
  std::lock_guard lock(mutex_);
  char* message = nullptr;
  const int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message);
  if (rc != SQLITE_OK) {
    std::string text = message ? message : sqlite3_errstr(rc);
    sqlite3_free(message);
    throw SqliteError(rc, text);
  }
}

SqliteStatement& SqliteDatabase::prepare(const std::string& sql) {
  std::lock_guard lock(mutex_);
  if (auto it = cache_.find(sql); it != cache_.end()) {
    it->second->reset();
    return *it->second;
  }
  sqlite3_stmt* stmt = nullptr;
  const int rc = sqlite3_prepare_v3(db_, sql.c_str(), static_cast<int>(sql.size()),
                                    SQLITE_PREPARE_PERSISTENT, &stmt, nullptr);
  if (rc != SQLITE_OK) fail(db_, rc, "prepare");
  auto& slot = cache_[sql];
  slot = std::make_unique<SqliteStatement>(stmt);
  return *slot;
}

std::int64_t SqliteDatabase::lastInsertRowID() const {
  return sqlite3_last_insert_rowid(db_);
}

int SqliteDatabase::changes() const {
  return sqlite3_changes(db_);
}

SqliteTransaction::SqliteTransaction(SqliteDatabase& db) : db_(db), lock_(db.mutex()) {
  db_.exec("BEGIN IMMEDIATE");
}

SqliteTransaction::~SqliteTransaction() {
  if (done_) return;
  try {
    db_.exec("ROLLBACK");
  } catch (const SqliteError&) {
    // Nothing more to undo: SQLite rolled back on its own.
  }
}

void SqliteTransaction::commit() {
  db_.exec("COMMIT");
  done_ = true;
}

}  // namespace jov::detail
