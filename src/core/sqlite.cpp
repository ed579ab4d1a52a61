#include "core/sqlite.hpp"

#include <sqlite3.h>

namespace jov::detail {

// --- SqliteStatement ---

SqliteStatement::SqliteStatement(SqliteDatabase& db, sqlite3_stmt* stmt, bool* inUse,
                                 std::unique_lock<std::recursive_mutex> lock)
    : lock_(std::move(lock)), db_(&db), stmt_(stmt), inUse_(inUse) {}

SqliteStatement::SqliteStatement(SqliteStatement&& other) noexcept
    : lock_(std::move(other.lock_)), db_(other.db_), stmt_(other.stmt_), inUse_(other.inUse_) {
  other.stmt_ = nullptr;
}

SqliteStatement::~SqliteStatement() {
  if (!stmt_) return;
  if (!inUse_) {
    sqlite3_finalize(stmt_);
    return;
  }
  reset();
  *inUse_ = false;
}

SqliteStatement& SqliteStatement::bind(int index, std::int64_t value) {
  if (int rc = sqlite3_bind_int64(stmt_, index, value); rc != SQLITE_OK) db_->fail(rc, "bind");
  return *this;
}

SqliteStatement& SqliteStatement::bind(int index, double value) {
  if (int rc = sqlite3_bind_double(stmt_, index, value); rc != SQLITE_OK) db_->fail(rc, "bind");
  return *this;
}

SqliteStatement& SqliteStatement::bind(int index, std::string_view text) {
  // A null data pointer would bind NULL: an empty text stays an empty text.
  const char* data = text.data() ? text.data() : "";
  if (int rc = sqlite3_bind_text64(stmt_, index, data, text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
      rc != SQLITE_OK)
    db_->fail(rc, "bind");
  return *this;
}

SqliteStatement& SqliteStatement::bind(int index, std::span<const std::byte> blob) {
  const int rc =
      blob.empty() ? sqlite3_bind_zeroblob(stmt_, index, 0)
                   : sqlite3_bind_blob64(stmt_, index, blob.data(), blob.size(), SQLITE_TRANSIENT);
  if (rc != SQLITE_OK) db_->fail(rc, "bind");
  return *this;
}

SqliteStatement& SqliteStatement::bind(int index, std::nullptr_t) {
  if (int rc = sqlite3_bind_null(stmt_, index); rc != SQLITE_OK) db_->fail(rc, "bind");
  return *this;
}

bool SqliteStatement::step() {
  const int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  db_->fail(rc, "step");
}

void SqliteStatement::reset() {
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
}

int SqliteStatement::columnCount() const {
  return sqlite3_column_count(stmt_);
}

bool SqliteStatement::columnIsNull(int column) const {
  return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}

std::int64_t SqliteStatement::columnInt64(int column) const {
  return sqlite3_column_int64(stmt_, column);
}

double SqliteStatement::columnDouble(int column) const {
  return sqlite3_column_double(stmt_, column);
}

std::string SqliteStatement::columnText(int column) const {
  // Text first, then its length: the documented order that reads the converted bytes.
  const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
  if (!data) return {};
  return std::string(data, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)));
}

std::vector<std::byte> SqliteStatement::columnBlob(int column) const {
  const auto* data = static_cast<const std::byte*>(sqlite3_column_blob(stmt_, column));
  if (!data) return {};
  return std::vector<std::byte>(
      data, data + static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)));
}

// --- SqliteTransaction ---

SqliteTransaction::SqliteTransaction(SqliteDatabase& db) : lock_(db.mutex_), db_(db) {
  db_.prepare("BEGIN IMMEDIATE").step();
  open_ = true;
}

SqliteTransaction::~SqliteTransaction() {
  // After some failures (a full disk, an I/O error) SQLite has already rolled back.
  if (!open_ || sqlite3_get_autocommit(db_.db_)) return;
  try {
    db_.prepare("ROLLBACK").step();
  } catch (...) {
    // Nothing better to do in a destructor: the connection rolls back when it closes.
  }
}

void SqliteTransaction::commit() {
  db_.prepare("COMMIT").step();
  open_ = false;
}

// --- SqliteDatabase ---

SqliteDatabase::SqliteDatabase(const std::filesystem::path& file, SqliteOptions options)
    : file_(file) {
  // NOMUTEX: the connection is serialized by mutex_, which also covers what SQLite's own lock
  // would not (a statement's bind-step-read sequence, the error message of the last call).
  int flags = SQLITE_OPEN_NOMUTEX;
  if (options.readOnly)
    flags |= SQLITE_OPEN_READONLY;
  else
    flags |= SQLITE_OPEN_READWRITE | (options.create ? SQLITE_OPEN_CREATE : 0);
  const int rc = sqlite3_open_v2(file.c_str(), &db_, flags, nullptr);
  if (rc != SQLITE_OK) {
    std::string message =
        "cannot open " + file.string() + ": " + (db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc));
    sqlite3_close(db_);
    db_ = nullptr;
    throw SqliteError(rc, message);
  }
  sqlite3_busy_timeout(db_, static_cast<int>(options.busyTimeout.count()));
  try {
    // The first statements read the file: a file that is not a database fails here.
    if (!options.readOnly) exec("PRAGMA journal_mode=WAL");
    exec("PRAGMA synchronous=NORMAL; PRAGMA foreign_keys=ON");
  } catch (...) {
    sqlite3_close(db_);
    db_ = nullptr;
    throw;
  }
}

SqliteDatabase::~SqliteDatabase() {
  for (auto& [sql, cached] : cache_) sqlite3_finalize(cached.stmt);
  sqlite3_close(db_);
}

void SqliteDatabase::fail(int code, std::string_view what) {
  std::string message(what);
  message += ": ";
  message += db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(code);
  throw SqliteError(code & 0xff, message);
}

void SqliteDatabase::exec(const std::string& sql) {
  std::lock_guard lock(mutex_);
  char* message = nullptr;
  const int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message);
  if (rc != SQLITE_OK) {
    std::string text = message ? message : sqlite3_errstr(rc);
    sqlite3_free(message);
    throw SqliteError(rc & 0xff, text);
  }
}

SqliteStatement SqliteDatabase::prepare(std::string_view sql) {
  std::unique_lock lock(mutex_);
  auto it = cache_.find(sql);
  if (it != cache_.end() && !it->second.inUse) {
    it->second.inUse = true;
    return SqliteStatement(*this, it->second.stmt, &it->second.inUse, std::move(lock));
  }
  // A statement already in use (a nested use of the same SQL on this thread) gets a fresh one,
  // so the outer use keeps its place and its bindings.
  const bool cache = it == cache_.end() && cache_.size() < kCacheLimit;
  sqlite3_stmt* stmt = nullptr;
  const int rc = sqlite3_prepare_v3(db_, sql.data(), static_cast<int>(sql.size()),
                                    cache ? SQLITE_PREPARE_PERSISTENT : 0, &stmt, nullptr);
  if (rc != SQLITE_OK) fail(rc, "prepare");
  if (!stmt)
    throw SqliteError(SQLITE_MISUSE, "prepare: no statement in \"" + std::string(sql) + "\"");
  bool* inUse = nullptr;
  if (cache) inUse = &cache_.emplace(std::string(sql), Cached{stmt, true}).first->second.inUse;
  return SqliteStatement(*this, stmt, inUse, std::move(lock));
}

SqliteTransaction SqliteDatabase::transaction() {
  return SqliteTransaction(*this);
}

std::int64_t SqliteDatabase::lastInsertRowID() {
  std::lock_guard lock(mutex_);
  return sqlite3_last_insert_rowid(db_);
}

std::int64_t SqliteDatabase::changes() {
  std::lock_guard lock(mutex_);
  return sqlite3_changes64(db_);
}

std::int64_t SqliteDatabase::userVersion() {
  auto s = prepare("PRAGMA user_version");
  return s.step() ? s.columnInt64(0) : 0;
}

void SqliteDatabase::migrate(std::span<const std::string_view> steps) {
  const auto known = static_cast<std::int64_t>(steps.size());
  // The usual case, an up-to-date file, takes no write lock.
  if (userVersion() == known) return;
  auto t = transaction();
  // Read again under the write lock: of two processes opening a new file at once, one builds it.
  const std::int64_t version = userVersion();
  if (version == known) return;
  if (version > known)
    throw SqliteError(SQLITE_ERROR, file_.string() + " has schema version " +
                                        std::to_string(version) + "; this library knows up to " +
                                        std::to_string(known));
  for (auto i = version; i < known; ++i) exec(std::string(steps[static_cast<std::size_t>(i)]));
  exec("PRAGMA user_version = " + std::to_string(known));
  t.commit();
}

}  // namespace jov::detail
