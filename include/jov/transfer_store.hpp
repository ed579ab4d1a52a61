#pragma once
/// @file
/// @brief JovRTransferStore: the records of resumable transfers, kept in SQLite across runs and
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
  Suspended = 2,   ///< @brief Stopped on request; it can continue.
  Completed = 3,   ///< @brief The whole body moved and was verified.
  Terminated = 4,  ///< @brief Ended for good on request.
  Failed = 5       ///< @brief The last run failed; it can run again.
};

/// @brief The state's name for people: "not started", "running", "suspended", "completed",
/// "terminated" or "failed" ("unknown" for a value outside the enumeration).
/// @param state The state.
/// @return A name with static storage.
std::string_view jovTransferStateName(JovTransferState state);

/// @brief One transfer as the store keeps it.
struct JovTransferRecord {
  std::int64_t id = 0;  ///< @brief Assigned by JovRTransferStore::add; 0 before.
  JovTransferDirection direction = JovTransferDirection::Upload;  ///< @brief Which way.
  std::string userID;               ///< @brief The user who started it.
  std::string objectURI;            ///< @brief "jovcloud://.../objects/ID".
  std::filesystem::path localPath;  ///< @brief The upload's source or the download's destination.
  std::string contentType;          ///< @brief An upload's media type.
  std::int64_t chunkSize = 0;       ///< @brief Bytes per chunk.
  std::int64_t totalBytes = -1;     ///< @brief The body's size; -1 until known.
  /// @brief Bytes the service confirmed (upload) or that were written and synced (download).
  std::int64_t bytesConfirmed = 0;
  std::string session;  ///< @brief An upload's session (upload ID) at the service.
  /// @brief A download's body ETag when it began; an upload's once it completed.
  std::string etag;
  std::int64_t fileSize = -1;       ///< @brief An upload's source size when it began.
  std::int64_t fileModifiedNs = 0;  ///< @brief Its modification time (ns) when it began.
  std::uint64_t fileInode = 0;      ///< @brief Its inode when it began.
  JovTransferState state = JovTransferState::NotStarted;  ///< @brief Where it stands.
  int errorCode = 0;         ///< @brief The last failure's code; 0 for none.
  std::string errorMessage;  ///< @brief The last failure's description.
  /// @brief When add() stored it (kept to the millisecond).
  std::chrono::system_clock::time_point createdAt;
  /// @brief When it was last written (kept to the millisecond).
  std::chrono::system_clock::time_point updatedAt;

  /// @brief Equal when every field is.
  bool operator==(const JovTransferRecord&) const = default;
};

/// @brief The transfer records of a data directory, in an SQLite file.
///
/// Every write is one short transaction in a write-ahead log: a process killed at any moment
/// leaves every record as its last committed write made it. One store may be used from any
/// thread, and several processes may use the same file at once (a writer waits a few seconds
/// for another's write to end before it fails).
///
/// @code
/// auto store = jov::JovRTransferStore::sharedStore();
/// if (store) {
///   for (const auto& record : store.value()->list(userID))
///     std::cout << record.objectURI << ' ' << jov::jovTransferStateName(record.state) << '\n';
/// }
/// @endcode
class JovRTransferStore {
 public:
  /// @name Opening
  /// @{

  /// @brief Opens the store in a file, creating the file (and its missing directories, 0700)
  /// when needed.
  /// @param file The database file.
  /// @return The store; error 103 (codeUndefinedError) whose "description" gives the file and
  /// the reason, when it cannot be opened or was written by a newer schema.
  static Result<std::shared_ptr<JovRTransferStore>> open(const std::filesystem::path& file);

  /// @brief The store at Jov::dataDirectory() / "transfers.db", opened on first use; later
  /// calls give the same object for the same data directory.
  /// @return The store; errors as open() (a failure is not remembered: the next call tries
  /// again).
  static Result<std::shared_ptr<JovRTransferStore>> sharedStore();
  /// @}

  /// @brief Closes the file.
  ~JovRTransferStore();
  /// @brief Not copyable.
  JovRTransferStore(const JovRTransferStore&) = delete;
  /// @brief Not copyable.
  JovRTransferStore& operator=(const JovRTransferStore&) = delete;

  /// @name Writing
  /// @{

  /// @brief Adds a record; its `id` is ignored and assigned, `createdAt` and `updatedAt` set
  /// to now.
  /// @param record The record.
  /// @return The new ID; error 103 when the file cannot be written.
  Result<std::int64_t> add(JovTransferRecord record);

  /// @brief Writes every field of the record with the record's ID (`createdAt` is kept,
  /// `updatedAt` set to now).
  /// @param record The record.
  /// @return Error 103 when there is no such record or the file cannot be written.
  Result<void> update(const JovTransferRecord& record);

  /// @brief Writes the confirmed bytes and the state alone: the write after each chunk.
  /// @param id The record's ID.
  /// @param bytesConfirmed The new JovTransferRecord::bytesConfirmed.
  /// @param state The new state.
  /// @return Error 103 when there is no such record or the file cannot be written.
  Result<void> updateProgress(std::int64_t id, std::int64_t bytesConfirmed, JovTransferState state);

  /// @brief Removes a record; an unknown ID is not an error.
  /// @param id The record's ID.
  /// @return Error 103 when the file cannot be written.
  Result<void> remove(std::int64_t id);
  /// @}

  /// @name Reading
  /// A read that fails (the file became unreadable) finds nothing; the reason is logged.
  /// @{

  /// @brief The record with this ID, if any.
  /// @param id The record's ID.
  std::optional<JovTransferRecord> find(std::int64_t id);

  /// @brief The newest record of this user, direction, object and local file that is neither
  /// completed nor terminated: the transfer a new one for the same file continues.
  /// @param userID The user who started it.
  /// @param direction Which way.
  /// @param objectURI The object's URI.
  /// @param localPath The local file, as recorded.
  std::optional<JovTransferRecord> findUnfinished(const std::string& userID,
                                                  JovTransferDirection direction,
                                                  const std::string& objectURI,
                                                  const std::filesystem::path& localPath);

  /// @brief The records of a user, oldest first.
  /// @param userID The user who started them.
  /// @param uriPrefix When not empty, only records whose object URI begins with it, compared
  /// character for character (a bucket's "jovcloud://.../buckets/B/objects/").
  std::vector<JovTransferRecord> list(const std::string& userID, const std::string& uriPrefix = {});
  /// @}

 private:
  explicit JovRTransferStore(std::unique_ptr<detail::SqliteDatabase> db);
  std::unique_ptr<detail::SqliteDatabase> db_;
};

}  // namespace jov
