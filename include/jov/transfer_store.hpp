#pragma once
/// @file
/// @brief JovRTransferStore: the records of resumable transfers, kept in SQLite across
/// processes.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "jov/result.hpp"

namespace jov {

namespace detail {
class SqliteDatabase;
}

/// @brief Which way a body moves.
enum class JovTransferDirection {
  Upload = 0,   ///< @brief From a local file to the object's body.
  Download = 1  ///< @brief From the object's body to a local file.
};

/// @brief Where a transfer stands.
enum class JovTransferState {
  NotStarted = 0,  ///< @brief Made, never run.
  Running = 1,     ///< @brief A run is under way (or its process ended during one).
  Suspended = 2,   ///< @brief Stopped by suspend(); resume() continues it.
  Completed = 3,   ///< @brief The whole body moved and was verified.
  Terminated = 4,  ///< @brief Ended for good by terminate().
  Failed = 5       ///< @brief The last run failed; it can run again.
};

/// @brief "not started", "running", "suspended", "completed", "terminated" or "failed".
std::string_view jovTransferStateName(JovTransferState state);

/// @brief One transfer as the store keeps it.
struct JovTransferRecord {
  std::int64_t id = 0;  ///< @brief Assigned by JovRTransferStore::add.
  JovTransferDirection direction = JovTransferDirection::Upload;  ///< @brief Which way.
  std::string userID;               ///< @brief The user who started it.
  std::string objectURI;            ///< @brief "jovcloud://.../objects/ID".
  std::filesystem::path localPath;  ///< @brief The upload's source or the download's destination.
  std::string contentType;          ///< @brief An upload's media type.
  std::int64_t chunkSize = 0;       ///< @brief Bytes per chunk.
  std::int64_t totalBytes = -1;     ///< @brief The body's size; -1 until known.
  /// @brief Bytes the service confirmed (upload) or that reached the disk (download).
  std::int64_t bytesConfirmed = 0;
  std::string session;  ///< @brief An upload's session at the service.
  /// @brief A download's body ETag when it began; an upload's after it completed.
  std::string etag;
  std::int64_t fileSize = -1;       ///< @brief An upload's source size when it began.
  std::int64_t fileModifiedNs = 0;  ///< @brief Its modification time (ns) when it began.
  std::uint64_t fileInode = 0;      ///< @brief Its inode when it began.
  JovTransferState state = JovTransferState::NotStarted;  ///< @brief Where it stands.
  int errorCode = 0;                                ///< @brief The last failure's code; 0 for none.
  std::string errorMessage;                         ///< @brief The last failure's description.
  std::chrono::system_clock::time_point createdAt;  ///< @brief Set by add().
  std::chrono::system_clock::time_point updatedAt;  ///< @brief Set by every write.

  /// @brief Equal when every field is.
  bool operator==(const JovTransferRecord&) const = default;
};

/// @brief The transfer records of a data directory, in an SQLite database (WAL, every write a
/// transaction), usable from several threads and processes at once; a process killed at any
/// moment leaves every committed record intact.
class JovRTransferStore {
 public:
  /// @brief Opens (creating) the store in a file. Errors: 103 with the database's message.
  static Result<std::shared_ptr<JovRTransferStore>> open(const std::filesystem::path& file);
  /// @brief The store at Jov::dataDirectory() / "transfers.db", opened on first use; the same
  /// object while the data directory stays the same. Errors: as open().
  static Result<std::shared_ptr<JovRTransferStore>> sharedStore();

  ~JovRTransferStore();
  JovRTransferStore(const JovRTransferStore&) = delete;
  JovRTransferStore& operator=(const JovRTransferStore&) = delete;

  /// @brief Adds a record; gives its ID (createdAt and updatedAt are set).
  Result<std::int64_t> add(JovTransferRecord record);
  /// @brief Writes every field of the record with this ID. Errors: 103, also for no such ID.
  Result<void> update(const JovTransferRecord& record);
  /// @brief Writes the confirmed bytes and the state alone (the write after each chunk).
  Result<void> updateProgress(std::int64_t id, std::int64_t bytesConfirmed, JovTransferState state);
  /// @brief The record of an ID.
  std::optional<JovTransferRecord> find(std::int64_t id);
  /// @brief The newest record of this user, direction, object and file that is neither
  /// completed nor terminated.
  std::optional<JovTransferRecord> findUnfinished(const std::string& userID,
                                                  JovTransferDirection direction,
                                                  const std::string& objectURI,
                                                  const std::filesystem::path& localPath);
  /// @brief The records of a user, oldest first; only those whose object URI begins with
  /// `uriPrefix` when it is not empty.
  std::vector<JovTransferRecord> list(const std::string& userID, const std::string& uriPrefix = {});
  /// @brief Removes a record (nothing for an unknown ID).
  Result<void> remove(std::int64_t id);

 private:
  explicit JovRTransferStore(std::unique_ptr<detail::SqliteDatabase> db);
  std::unique_ptr<detail::SqliteDatabase> db_;
};

}  // namespace jov
