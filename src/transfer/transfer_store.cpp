// The transfer records in SQLite. Every write is one short IMMEDIATE transaction; readers see the
// last committed state (WAL), and another process writing the same file is waited for.

#include "jov/transfer_store.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <concepts>
#include <map>
#include <mutex>
#include <system_error>
#include <type_traits>

#include "core/sqlite.hpp"
#include "jov/application.hpp"
#include "jov/logger.hpp"

namespace jov {

namespace {

namespace fs = std::filesystem;
using detail::SqliteDatabase;
using detail::SqliteError;
using detail::SqliteStatement;

// Schema steps by version (PRAGMA user_version); a new version appends a step, never edits one.
// AUTOINCREMENT: an ID is never given twice, so a transfer still holding the ID of a removed
// record cannot write over a newer one.
constexpr std::array<std::string_view, 1> kSchema = {
    "CREATE TABLE transfers ("
    " id INTEGER PRIMARY KEY AUTOINCREMENT, direction INTEGER NOT NULL,"
    " user_id TEXT NOT NULL, object_uri TEXT NOT NULL, local_path TEXT NOT NULL,"
    " content_type TEXT NOT NULL, chunk_size INTEGER NOT NULL,"
    " total_bytes INTEGER NOT NULL, bytes_confirmed INTEGER NOT NULL,"
    " session TEXT NOT NULL, etag TEXT NOT NULL, file_size INTEGER NOT NULL,"
    " file_modified_ns INTEGER NOT NULL, file_inode INTEGER NOT NULL,"
    " state INTEGER NOT NULL, error_code INTEGER NOT NULL, error_message TEXT NOT NULL,"
    " created_at INTEGER NOT NULL, updated_at INTEGER NOT NULL);"
    "CREATE INDEX transfers_by_user ON transfers (user_id, id);",
};

// --- the record's columns, as a table ---

void bindValue(SqliteStatement& s, int i, const std::string& v) {
  s.bind(i, v);
}
void bindValue(SqliteStatement& s, int i, const fs::path& v) {
  s.bind(i, v.native());
}
template <class T>
requires std::integral<T> || std::is_enum_v<T>
void bindValue(SqliteStatement& s, int i, T v) {
  s.bind(i, static_cast<std::int64_t>(v));
}

void readValue(const SqliteStatement& s, int i, std::string& v) {
  v = s.columnText(i);
}
void readValue(const SqliteStatement& s, int i, fs::path& v) {
  v = s.columnText(i);
}
template <class T>
requires std::integral<T> || std::is_enum_v<T>
void readValue(const SqliteStatement& s, int i, T& v) {
  v = static_cast<T>(s.columnInt64(i));
}

struct Column {
  const char* name;
  void (*bind)(SqliteStatement&, int, const JovTransferRecord&);
  void (*read)(const SqliteStatement&, int, JovTransferRecord&);
};

template <auto Member>
constexpr Column column(const char* name) {
  return {
      name,
      [](SqliteStatement& s, int i, const JovTransferRecord& r) { bindValue(s, i, r.*Member); },
      [](const SqliteStatement& s, int i, JovTransferRecord& r) { readValue(s, i, r.*Member); }};
}

// Every field a caller writes; id, created_at and updated_at belong to the store.
constexpr std::array kColumns = {
    column<&JovTransferRecord::direction>("direction"),
    column<&JovTransferRecord::userID>("user_id"),
    column<&JovTransferRecord::objectURI>("object_uri"),
    column<&JovTransferRecord::localPath>("local_path"),
    column<&JovTransferRecord::contentType>("content_type"),
    column<&JovTransferRecord::chunkSize>("chunk_size"),
    column<&JovTransferRecord::totalBytes>("total_bytes"),
    column<&JovTransferRecord::bytesConfirmed>("bytes_confirmed"),
    column<&JovTransferRecord::session>("session"),
    column<&JovTransferRecord::etag>("etag"),
    column<&JovTransferRecord::fileSize>("file_size"),
    column<&JovTransferRecord::fileModifiedNs>("file_modified_ns"),
    column<&JovTransferRecord::fileInode>("file_inode"),
    column<&JovTransferRecord::state>("state"),
    column<&JovTransferRecord::errorCode>("error_code"),
    column<&JovTransferRecord::errorMessage>("error_message"),
};
constexpr int kFieldCount = static_cast<int>(kColumns.size());

// The statements, made once from the table. Parameters ?1..?N are the columns in order.
struct Sql {
  std::string select, insert, update;
  Sql() {
    std::string names, values, assignments;
    for (int i = 0; i < kFieldCount; ++i) {
      const std::string n = kColumns[static_cast<std::size_t>(i)].name;
      const std::string p = "?" + std::to_string(i + 1);
      const char* comma = i ? ", " : "";
      names += comma + n;
      values += comma + p;
      assignments += comma + n + " = " + p;
    }
    const std::string now = "?" + std::to_string(kFieldCount + 1);
    select = "SELECT id, created_at, updated_at, " + names + " FROM transfers ";
    insert = "INSERT INTO transfers (" + names + ", created_at, updated_at) VALUES (" + values +
             ", " + now + ", " + now + ")";
    update = "UPDATE transfers SET " + assignments + ", updated_at = " + now + " WHERE id = ?" +
             std::to_string(kFieldCount + 2);
  }
};

const Sql& sql() {
  static const Sql statements;
  return statements;
}

void bindFields(SqliteStatement& s, const JovTransferRecord& r, std::int64_t now) {
  for (int i = 0; i < kFieldCount; ++i) kColumns[static_cast<std::size_t>(i)].bind(s, i + 1, r);
  s.bind(kFieldCount + 1, now);
}

std::chrono::system_clock::time_point fromMillis(std::int64_t millis) {
  return std::chrono::system_clock::time_point(std::chrono::milliseconds(millis));
}

std::int64_t nowMillis() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// Reads a row of sql().select.
JovTransferRecord readRecord(const SqliteStatement& s) {
  JovTransferRecord r;
  r.id = s.columnInt64(0);
  r.createdAt = fromMillis(s.columnInt64(1));
  r.updatedAt = fromMillis(s.columnInt64(2));
  for (int i = 0; i < kFieldCount; ++i) kColumns[static_cast<std::size_t>(i)].read(s, i + 3, r);
  return r;
}

JovError storeError(const fs::path& file, const std::string& reason) {
  return JovError(JovError::codeUndefinedError(),
                  {{"description", "transfer store " + file.string() + ": " + reason}});
}

std::string errnoText(int error) {
  return std::system_category().message(error);
}

// Creates the missing directories of a path, each 0700: the records name the user's files and
// objects. Gives the reason of a failure.
std::optional<std::string> makePrivateDirectories(const fs::path& dir) {
  std::error_code ec;
  if (dir.empty() || fs::is_directory(dir, ec)) return std::nullopt;
  if (auto failed = makePrivateDirectories(dir.parent_path())) return failed;
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST)
    return "cannot create the directory " + dir.string() + ": " + errnoText(errno);
  return std::nullopt;
}

// Makes a missing store file 0600 before SQLite does: its journal files take the file's mode.
std::optional<std::string> makePrivateFile(const fs::path& file) {
  const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return "cannot open: " + errnoText(errno);
  ::close(fd);
  return std::nullopt;
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

Result<std::shared_ptr<JovRTransferStore>> JovRTransferStore::open(const fs::path& file) {
  try {
    if (auto failed = makePrivateDirectories(file.parent_path())) return storeError(file, *failed);
    if (auto failed = makePrivateFile(file)) return storeError(file, *failed);
    auto db = std::make_unique<SqliteDatabase>(file);
    db->migrate(kSchema);
    return std::shared_ptr<JovRTransferStore>(new JovRTransferStore(std::move(db)));
  } catch (const std::exception& e) {
    // SqliteError, and whatever else a broken file system or memory shortage throws.
    return storeError(file, e.what());
  }
}

Result<std::shared_ptr<JovRTransferStore>> JovRTransferStore::sharedStore() {
  // Kept for the life of the process: every caller of a data directory shares one connection.
  static std::mutex mutex;
  static auto* opened = new std::map<fs::path, std::shared_ptr<JovRTransferStore>>();
  const fs::path file = (Jov::dataDirectory() / "transfers.db").lexically_normal();
  std::lock_guard lock(mutex);
  if (auto it = opened->find(file); it != opened->end()) return it->second;
  auto store = open(file);
  if (store) opened->emplace(file, store.value());
  return store;
}

Result<std::int64_t> JovRTransferStore::add(JovTransferRecord record) {
  try {
    auto t = db_->transaction();
    auto s = db_->prepare(sql().insert);
    bindFields(s, record, nowMillis());
    s.step();
    const std::int64_t id = db_->lastInsertRowID();
    t.commit();
    return id;
  } catch (const SqliteError& e) {
    return storeError(db_->file(), e.what());
  }
}

Result<void> JovRTransferStore::update(const JovTransferRecord& record) {
  try {
    auto t = db_->transaction();
    auto s = db_->prepare(sql().update);
    bindFields(s, record, nowMillis());
    s.bind(kFieldCount + 2, record.id);
    s.step();
    if (db_->changes() == 0)
      return storeError(db_->file(), "no transfer " + std::to_string(record.id));
    t.commit();
    return {};
  } catch (const SqliteError& e) {
    return storeError(db_->file(), e.what());
  }
}

Result<void> JovRTransferStore::updateProgress(std::int64_t id, std::int64_t bytesConfirmed,
                                               JovTransferState state) {
  try {
    auto t = db_->transaction();
    auto s = db_->prepare(
        "UPDATE transfers SET bytes_confirmed = ?1, state = ?2, updated_at = ?3 WHERE id = ?4");
    s.bind(1, bytesConfirmed)
        .bind(2, static_cast<std::int64_t>(state))
        .bind(3, nowMillis())
        .bind(4, id);
    s.step();
    if (db_->changes() == 0) return storeError(db_->file(), "no transfer " + std::to_string(id));
    t.commit();
    return {};
  } catch (const SqliteError& e) {
    return storeError(db_->file(), e.what());
  }
}

Result<void> JovRTransferStore::remove(std::int64_t id) {
  try {
    auto t = db_->transaction();
    auto s = db_->prepare("DELETE FROM transfers WHERE id = ?1");
    s.bind(1, id);
    s.step();
    t.commit();
    return {};
  } catch (const SqliteError& e) {
    return storeError(db_->file(), e.what());
  }
}

std::optional<JovTransferRecord> JovRTransferStore::find(std::int64_t id) {
  try {
    auto s = db_->prepare(sql().select + "WHERE id = ?1");
    s.bind(1, id);
    if (!s.step()) return std::nullopt;
    return readRecord(s);
  } catch (const SqliteError& e) {
    JOV_LOG(JovLogWarning, "Unable to read transfer " + std::to_string(id) + ": " + e.what());
    return std::nullopt;
  }
}

std::optional<JovTransferRecord> JovRTransferStore::findUnfinished(const std::string& userID,
                                                                   JovTransferDirection direction,
                                                                   const std::string& objectURI,
                                                                   const fs::path& localPath) {
  try {
    auto s = db_->prepare(sql().select +
                          "WHERE user_id = ?1 AND direction = ?2 AND object_uri = ?3 AND"
                          " local_path = ?4 AND state NOT IN (?5, ?6) ORDER BY id DESC LIMIT 1");
    s.bind(1, userID)
        .bind(2, static_cast<std::int64_t>(direction))
        .bind(3, objectURI)
        .bind(4, localPath.native())
        .bind(5, static_cast<std::int64_t>(JovTransferState::Completed))
        .bind(6, static_cast<std::int64_t>(JovTransferState::Terminated));
    if (!s.step()) return std::nullopt;
    return readRecord(s);
  } catch (const SqliteError& e) {
    JOV_LOG(JovLogWarning, std::string("Unable to read the transfers: ") + e.what());
    return std::nullopt;
  }
}

std::vector<JovTransferRecord> JovRTransferStore::list(const std::string& userID,
                                                       const std::string& uriPrefix) {
  std::vector<JovTransferRecord> records;
  try {
    // substr, not LIKE: "%" and "_" in a URI are characters, and LIKE ignores ASCII case.
    auto s = db_->prepare(sql().select +
                          "WHERE user_id = ?1 AND substr(object_uri, 1, length(?2)) = ?2"
                          " ORDER BY id");
    s.bind(1, userID).bind(2, uriPrefix);
    while (s.step()) records.push_back(readRecord(s));
  } catch (const SqliteError& e) {
    JOV_LOG(JovLogWarning, std::string("Unable to read the transfers: ") + e.what());
    records.clear();
  }
  return records;
}

}  // namespace jov
