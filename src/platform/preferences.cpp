#include "platform/preferences.hpp"

#include <sqlite3.h>

#include <system_error>

#include "jov/logger.hpp"

namespace jov::detail {

namespace {

// Finalizes a statement on every path out of a call.
struct Statement {
  sqlite3_stmt* stmt = nullptr;
  ~Statement() { sqlite3_finalize(stmt); }
};

}  // namespace

PreferencesStore::PreferencesStore(const std::filesystem::path& file) {
  std::error_code ec;
  std::filesystem::create_directories(file.parent_path(), ec);
  if (sqlite3_open_v2(file.c_str(), &db_,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                      nullptr) != SQLITE_OK) {
    JOV_LOG(0, "Unable to open the preferences store " + file.string() + ": " +
                   (db_ ? sqlite3_errmsg(db_) : "out of memory"));
    sqlite3_close(db_);
    db_ = nullptr;
    return;
  }
  sqlite3_busy_timeout(db_, 5000);
  const char* schema =
      "PRAGMA journal_mode=WAL;"
      "CREATE TABLE IF NOT EXISTS preferences (key TEXT PRIMARY KEY, value TEXT NOT NULL);";
  char* message = nullptr;
  if (sqlite3_exec(db_, schema, nullptr, nullptr, &message) != SQLITE_OK) {
    JOV_LOG(0, std::string("Unable to prepare the preferences store: ") +
                   (message ? message : "unknown error"));
    sqlite3_free(message);
    sqlite3_close(db_);
    db_ = nullptr;
  }
}

PreferencesStore::~PreferencesStore() {
  sqlite3_close(db_);
}

std::optional<nlohmann::json> PreferencesStore::get(const std::string& key) {
  std::lock_guard lock(mutex_);
  if (!db_) return std::nullopt;
  Statement s;
  if (sqlite3_prepare_v2(db_, "SELECT value FROM preferences WHERE key = ?1", -1, &s.stmt,
                         nullptr) != SQLITE_OK)
    return std::nullopt;
  sqlite3_bind_text(s.stmt, 1, key.data(), static_cast<int>(key.size()), SQLITE_TRANSIENT);
  if (sqlite3_step(s.stmt) != SQLITE_ROW) return std::nullopt;
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(s.stmt, 0));
  auto parsed = nlohmann::json::parse(text ? text : "", nullptr, false);
  if (parsed.is_discarded()) return std::nullopt;
  return parsed;
}

bool PreferencesStore::set(const std::string& key, const nlohmann::json& value) {
  std::lock_guard lock(mutex_);
  if (!db_) return false;
  std::string text = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  Statement s;
  if (sqlite3_prepare_v2(db_, "INSERT OR REPLACE INTO preferences (key, value) VALUES (?1, ?2)", -1,
                         &s.stmt, nullptr) != SQLITE_OK)
    return false;
  sqlite3_bind_text(s.stmt, 1, key.data(), static_cast<int>(key.size()), SQLITE_TRANSIENT);
  sqlite3_bind_text(s.stmt, 2, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
  return sqlite3_step(s.stmt) == SQLITE_DONE;
}

bool PreferencesStore::remove(const std::string& key) {
  std::lock_guard lock(mutex_);
  if (!db_) return false;
  Statement s;
  if (sqlite3_prepare_v2(db_, "DELETE FROM preferences WHERE key = ?1", -1, &s.stmt, nullptr) !=
      SQLITE_OK)
    return false;
  sqlite3_bind_text(s.stmt, 1, key.data(), static_cast<int>(key.size()), SQLITE_TRANSIENT);
  return sqlite3_step(s.stmt) == SQLITE_DONE;
}

}  // namespace jov::detail
