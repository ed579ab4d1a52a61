// The transfer records in SQLite. Every write is one short transaction; readers see the last
// committed state (WAL), and a second process using the same file waits for the lock.

#include "jov/transfer_store.hpp"

#include <sys/stat.h>

#include <map>
#include <mutex>

#include "core/sqlite.hpp"
#include "jov/application.hpp"

namespace jov {

namespace {

using detail::SqliteDatabase;
using detail::SqliteError;
using detail::SqliteStatement;
using detail::SqliteTransaction;

constexpr int kSchemaVersion = 1;

constexpr const char* kColumns =
    "id, direction, user_id, object_uri, local_path, content_type, chunk_size, total_bytes, "
    "bytes_confirmed, session, etag, file_size, file_modified_ns, file_inode, state, "
    "error_code, error_message, created_at, updated_at";

JovError storeError(const std::string& what) {
  return JovError::errorWithCode(JovError::codeUndefinedError(),
                                 {{"details", "transfer store: " + what}});
}

std::int64_t millisNow() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::chrono::system_clock::time_point fromMillis(std::int64_t millis) {
  return std::chrono::system_clock::time_point(std::chrono::milliseconds(millis));
}

// Resets a cached statement when its use ends, so it holds no read snapshot meanwhile.
struct Use {
  SqliteStatement& s;
  ~Use() { s.reset(); }
};

JovTransferRecord readRow(const SqliteStatement& s) {
  JovTransferRecord r;
  r.id = s.integer(0);
  r.direction = static_cast<JovTransferDirection>(s.integer(1));
  r.userID = s.text(2);
  r.objectURI = s.text(3);
  r.localPath = s.text(4);
  r.contentType = s.text(5);
  r.chunkSize = s.integer(6);
  r.totalBytes = s.integer(7);
  r.bytesConfirmed = s.integer(8);
  r.session = s.text(9);
  r.etag = s.text(10);
  r.fileSize = s.integer(11);
  r.fileModifiedNs = s.integer(12);
  r.fileInode = static_cast<std::uint64_t>(s.integer(13));
  r.state = static_cast<JovTransferState>(s.integer(14));
  r.errorCode = static_cast<int>(s.integer(15));
  r.errorMessage = s.text(16);
  r.createdAt = fromMillis(s.integer(17));
  r.updatedAt = fromMillis(s.integer(18));
  return r;
}

// Binds every field but the ID and the creation time, from index 1.
void bindFields(SqliteStatement& s, const JovTransferRecord& r, std::int64_t updatedAt) {
  s.bind(1, static_cast<std::int64_t>(r.direction))
      .bind(2, r.userID)
      .bind(3, r.objectURI)
      .bind(4, r.localPath.string())
      .bind(5, r.contentType)
      .bind(6, r.chunkSize)
      .bind(7, r.totalBytes)
      .bind(8, r.bytesConfirmed)
      .bind(9, r.session)
      .bind(10, r.etag)
      .bind(11, r.fileSize)
      .bind(12, r.fileModifiedNs)
      .bind(13, static_cast<std::int64_t>(r.fileInode))
      .bind(14, static_cast<std::int64_t>(r.state))
      .bind(15, static_cast<std::int64_t>(r.errorCode))
      .bind(16, r.errorMessage)
      .bind(17, updatedAt);
}

}  // namespace

std::string_view jovTransferStateName(JovTransferState state) {
  switch (state) {
    case JovTransferState::NotStarted:
      return "not started";
    case JovTransferState::Running:
      return "running";
    case JovTransferState::Suspended:
      return "suspended";
    case JovTransferState::Completed:
      return "completed";
    case JovTransferState::Terminated:
      return "terminated";
    case JovTransferState::Failed:
      return "failed";
  }
  return "unknown";
}

JovRTransferStore::JovRTransferStore(std::unique_ptr<SqliteDatabase> db) : db_(std::move(db)) {}

JovRTransferStore::~JovRTransferStore() = default;

Result<std::shared_ptr<JovRTransferStore>> JovRTransferStore::open(
    const std::filesystem::path& file) {
  try {
    std::error_code ec;
    if (!file.parent_path().empty() && !std::filesystem::exists(file.parent_path(), ec)) {
      std::filesystem::create_directories(file.parent_path(), ec);
      if (!ec) ::chmod(file.parent_path().c_str(), 0700);
    }
    auto db = std::make_unique<SqliteDatabase>(file);
    {
      SqliteTransaction transaction(*db);
      auto& version = db->prepare("PRAGMA user_version");
      Use use{version};
      const std::int64_t current = version.step() ? version.integer(0) : 0;
      if (current > kSchemaVersion)
        return storeError(file.string() + " was written by a newer version of the library");
      if (current < 1) {
        db->exec(
            "CREATE TABLE IF NOT EXISTS transfers ("
            " id INTEGER PRIMARY KEY AUTOINCREMENT, direction INTEGER NOT NULL,"
            " user_id TEXT NOT NULL, object_uri TEXT NOT NULL, local_path TEXT NOT NULL,"
            " content_type TEXT NOT NULL, chunk_size INTEGER NOT NULL,"
            " total_bytes INTEGER NOT NULL, bytes_confirmed INTEGER NOT NULL,"
            " session TEXT NOT NULL, etag TEXT NOT NULL, file_size INTEGER NOT NULL,"
            " file_modified_ns INTEGER NOT NULL, file_inode INTEGER NOT NULL,"
            " state INTEGER NOT NULL, error_code INTEGER NOT NULL, error_message TEXT NOT NULL,"
            " created_at INTEGER NOT NULL, updated_at INTEGER NOT NULL);"
            "CREATE INDEX IF NOT EXISTS transfers_by_user ON transfers(user_id, id);"
            "PRAGMA user_version = 1;");
      }
      transaction.commit();
    }
    return std::shared_ptr<JovRTransferStore>(new JovRTransferStore(std::move(db)));
  } catch (const SqliteError& e) {
    return storeError(e.what());
  } catch (const std::exception& e) {
    return storeError(e.what());
  }
}

Result<std::shared_ptr<JovRTransferStore>> JovRTransferStore::sharedStore() {
  static std::mutex mutex;
  static std::map<std::filesystem::path, std::weak_ptr<JovRTransferStore>> opened;
  static std::shared_ptr<JovRTransferStore> current;
  const auto file = Jov::dataDirectory() / "transfers.db";
  std::lock_guard lock(mutex);
  if (auto it = opened.find(file); it != opened.end()) {
    if (auto store = it->second.lock()) return store;
  }
  auto store = open(file);
  if (!store) return store;
  opened[file] = store.value();
  // The store of the current data directory stays open for the life of the process.
  current = store.value();
  return store;
}

Result<std::int64_t> JovRTransferStore::add(JovTransferRecord record) {
  try {
    SqliteTransaction transaction(*db_);
    auto& s = db_->prepare(
        "INSERT INTO transfers (direction, user_id, object_uri, local_path, content_type,"
        " chunk_size, total_bytes, bytes_confirmed, session, etag, file_size, file_modified_ns,"
        " file_inode, state, error_code, error_message, updated_at, created_at)"
        " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15, ?16, ?17,"
        " ?17)");
    Use use{s};
    bindFields(s, record, millisNow());
    s.step();
    const std::int64_t id = db_->lastInsertRowID();
    transaction.commit();
    return id;
  } catch (const SqliteError& e) {
    return storeError(e.what());
  }
}

Result<void> JovRTransferStore::update(const JovTransferRecord& record) {
  try {
    SqliteTransaction transaction(*db_);
    auto& s = db_->prepare(
        "UPDATE transfers SET direction = ?1, user_id = ?2, object_uri = ?3, local_path = ?4,"
        " content_type = ?5, chunk_size = ?6, total_bytes = ?7, bytes_confirmed = ?8,"
        " session = ?9, etag = ?10, file_size = ?11, file_modified_ns = ?12, file_inode = ?13,"
        " state = ?14, error_code = ?15, error_message = ?16, updated_at = ?17 WHERE id = ?18");
    Use use{s};
    bindFields(s, record, millisNow());
    s.bind(18, record.id);
    s.step();
    if (db_->changes() != 1) return storeError("no transfer " + std::to_string(record.id));
    transaction.commit();
    return {};
  } catch (const SqliteError& e) {
    return storeError(e.what());
  }
}

Result<void> JovRTransferStore::updateProgress(std::int64_t id, std::int64_t bytesConfirmed,
                                               JovTransferState state) {
  try {
    SqliteTransaction transaction(*db_);
    auto& s = db_->prepare(
        "UPDATE transfers SET bytes_confirmed = ?1, state = ?2, updated_at = ?3 WHERE id = ?4");
    Use use{s};
    s.bind(1, bytesConfirmed)
        .bind(2, static_cast<std::int64_t>(state))
        .bind(3, millisNow())
        .bind(4, id);
    s.step();
    if (db_->changes() != 1) return storeError("no transfer " + std::to_string(id));
    transaction.commit();
    return {};
  } catch (const SqliteError& e) {
    return storeError(e.what());
  }
}

std::optional<JovTransferRecord> JovRTransferStore::find(std::int64_t id) {
  try {
    std::lock_guard lock(db_->mutex());
    auto& s = db_->prepare(std::string("SELECT ") + kColumns + " FROM transfers WHERE id = ?1");
    Use use{s};
    s.bind(1, id);
    if (!s.step()) return std::nullopt;
    return readRow(s);
  } catch (const SqliteError&) {
    return std::nullopt;
  }
}

std::optional<JovTransferRecord> JovRTransferStore::findUnfinished(
    const std::string& userID, JovTransferDirection direction, const std::string& objectURI,
    const std::filesystem::path& localPath) {
  try {
    std::lock_guard lock(db_->mutex());
    auto& s = db_->prepare(std::string("SELECT ") + kColumns +
                           " FROM transfers WHERE user_id = ?1 AND direction = ?2 AND"
                           " object_uri = ?3 AND local_path = ?4 AND state NOT IN (?5, ?6)"
                           " ORDER BY id DESC LIMIT 1");
    Use use{s};
    s.bind(1, userID)
        .bind(2, static_cast<std::int64_t>(direction))
        .bind(3, objectURI)
        .bind(4, localPath.string())
        .bind(5, static_cast<std::int64_t>(JovTransferState::Completed))
        .bind(6, static_cast<std::int64_t>(JovTransferState::Terminated));
    if (!s.step()) return std::nullopt;
    return readRow(s);
  } catch (const SqliteError&) {
    return std::nullopt;
  }
}

std::vector<JovTransferRecord> JovRTransferStore::list(const std::string& userID,
                                                       const std::string& uriPrefix) {
  std::vector<JovTransferRecord> records;
  try {
    std::lock_guard lock(db_->mutex());
    // A prefix compared by substr: "%" and "_" in a URI are not patterns.
    auto& s = db_->prepare(std::string("SELECT ") + kColumns +
                           " FROM transfers WHERE user_id = ?1 AND"
                           " substr(object_uri, 1, length(?2)) = ?2 ORDER BY id");
    Use use{s};
    s.bind(1, userID).bind(2, uriPrefix);
    while (s.step()) records.push_back(readRow(s));
  } catch (const SqliteError&) {
    records.clear();
  }
  return records;
}

Result<void> JovRTransferStore::remove(std::int64_t id) {
  try {
    SqliteTransaction transaction(*db_);
    auto& s = db_->prepare("DELETE FROM transfers WHERE id = ?1");
    Use use{s};
    s.bind(1, id);
    s.step();
    transaction.commit();
    return {};
  } catch (const SqliteError& e) {
    return storeError(e.what());
  }
}

}  // namespace jov
