#pragma once
/// @file
/// @brief Resumable transfers of object bodies: JovResumableTransfer, JovUploader,
/// JovDownloader and the per-bucket JovRTransferManager.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "jov/async.hpp"
#include "jov/cancellation.hpp"
#include "jov/detail/task.hpp"
#include "jov/result.hpp"
#include "jov/transfer_store.hpp"

namespace jov {

class JovBucket;
class JovObject;

/// @brief A body moving in chunks between a local file and an object, that survives a
/// suspension, a lost connection and the end of the process.
///
/// Every chunk the service confirmed (upload) or that reached the disk (download) is recorded
/// in the transfer store (JovRTransferStore) before the next one moves, so a transfer resumes
/// from its last confirmed chunk: in this process, or in a later one through the bucket's
/// JovRTransferManager or a new uploader or downloader of the same object and file. Nothing
/// confirmed is sent twice, and the destination of a download appears only complete and
/// verified.
///
/// @code
/// auto upload = object->uploader("/data/video.mp4");
/// upload->transfer([](std::int64_t done, std::int64_t total) { /* progress bar */ },
///                  [](auto transfer, auto error) { /* done, suspended (809) or failed */ });
/// // from any thread:
/// upload->suspend();   // the run ends with 809; resume() continues it
/// @endcode
///
/// Every member is safe to call from any thread.
class JovResumableTransfer : public std::enable_shared_from_this<JovResumableTransfer> {
 public:
  /// @brief Transfers are held by std::shared_ptr.
  using Ptr = std::shared_ptr<JovResumableTransfer>;
  /// @brief Blocks of a run receive the transfer, then the error.
  using TransferBlock = JovBlock<Ptr>;

  /// @brief Where a transfer stands.
  struct Info {
    std::int64_t id = 0;  ///< @brief The record's ID in the store; 0 before the first run.
    JovTransferDirection direction = JovTransferDirection::Upload;  ///< @brief Which way.
    JovTransferState state = JovTransferState::NotStarted;          ///< @brief Its state.
    std::int64_t bytesDone = 0;       ///< @brief Bytes confirmed so far.
    std::int64_t total = -1;          ///< @brief The body's size; -1 while unknown.
    std::string objectURI;            ///< @brief The object.
    std::filesystem::path localPath;  ///< @brief The local file.
    std::optional<JovError> error;    ///< @brief Why the last run failed, if it did.
  };

  virtual ~JovResumableTransfer();
  JovResumableTransfer(const JovResumableTransfer&) = delete;
  JovResumableTransfer& operator=(const JovResumableTransfer&) = delete;

  /// @brief The size of the chunks new transfers use (default 4 MiB).
  static std::int64_t defaultChunkSize();
  /// @brief Sets the chunk size of transfers made from now on (clamped to 1 KiB .. 64 MiB).
  static void setDefaultChunkSize(std::int64_t bytes);

  /// @name transfer
  /// @{

  /// Runs the transfer from where it stands until the body has moved completely, the transfer
  /// is suspended or terminated, or it fails. An upload opens a session with the service
  /// (POST OBJECT/body/uploads), sends the chunks in order with their range and MD5
  /// (PUT OBJECT/body/uploads/ID), and completes it (POST .../complete): the object's body
  /// changes only then. A download asks for one range at a time (GET OBJECT/body with "Range"
  /// and the body's ETag as "If-Match"), writes to a side file next to the destination, and
  /// renames it into place once its size and MD5 match the body.
  /// `progress` receives the bytes confirmed and the total: posted to the main queue by the
  /// block, delegate and future forms; called on a library thread by the blocking form.
  /// Errors: 801 the transfer completed already; 811 it is running; 808 it was terminated;
  /// 809 it was suspended during this run; 810 terminated during this run; 804 the file does
  /// not exist; 805 it is a directory; 803 it cannot be examined; 806 an upload of an empty
  /// file (use JovObject::uploadBodySynchronousWithURL); 802 the file changed since the
  /// transfer began (it is not sent half old, half new); 814 the destination's folder is not
  /// writable; 815 the side file of a download no longer holds the confirmed bytes; 812 the
  /// body changed on the service during a download, or the bytes do not match it; 813 the
  /// service cannot serve the range; 816 no user is logged in; 501 the object has no ID; 510;
  /// 517; 515; and the errors of every exchange (after which the transfer can be resumed).
  Result<void> transferSynchronous(JovProgressBlock progress = {});
  /// @brief Block form: the block runs on the main queue when the run ends.
  void transfer(JovProgressBlock progress, TransferBlock block);
  /// @brief Delegate form: the delegate receives the transfer, then the error.
  void transfer(JovProgressBlock progress, JovCallback callback);
  /// @brief Future form: ready when the run ends.
  std::future<Result<void>> transferAsync(JovProgressBlock progress = {});
  /// @}

  /// @brief Stops a running transfer at once (its chunk in flight is abandoned; the run ends
  /// with 809) or marks a transfer that is not running as suspended. Errors: 807 suspended
  /// already; 808 terminated; 801 completed.
  Result<void> suspend();
  /// @brief Runs a suspended or failed transfer again from its last confirmed chunk, reporting
  /// to the progress and completion of the last transfer call (none for a transfer found in
  /// the store: use a transfer form then). Errors: 811 running; 808 terminated; 801 completed.
  Result<void> resume();
  /// @brief Ends the transfer for good: a running one stops (its run ends with 810), the
  /// service's upload session is abandoned or the side file of a download removed, and the
  /// record leaves the store. Errors: 808 terminated already; 801 completed.
  Result<void> terminate();

  /// @brief Where the transfer stands now.
  Info info() const;
  /// @brief Its chunk size.
  std::int64_t chunkSize() const;
  /// @brief The object whose body moves.
  const std::shared_ptr<JovObject>& object() const { return object_; }

 protected:
  /// @brief Made by JovUploader and JovDownloader.
  JovResumableTransfer(std::shared_ptr<JovObject> object, JovTransferRecord record);

  /// @brief The chunks of one run: from the record's confirmed bytes to the end.
  virtual detail::Routine<void> run(JovProgressBlock progress) = 0;
  /// @brief What terminate() leaves behind: the upload session, the side file.
  virtual void discard(const JovTransferRecord& record) = 0;

  /// @brief A copy of the record.
  JovTransferRecord record() const;
  /// @brief Changes the record in memory and in the store (errors are logged: the transfer
  /// goes on, and resumes from the last record that reached the store).
  void saveRecord(const std::function<void(JovTransferRecord&)>& change);
  /// @brief Records confirmed bytes (the hot path after each chunk).
  void saveProgress(std::int64_t bytesDone);

 private:
  friend class JovRTransferManager;
  friend class JovObject;
  enum class Stop { None, Suspend, Terminate };
  using Done = std::function<void(Result<void>)>;

  Result<void> startRun(JovProgressBlock progress, Done done);
  void finishRun(Result<void> result);
  // The transfer of a record: the object held already in this process, else a new one.
  static Ptr fromRecord(const JovTransferRecord& record, std::shared_ptr<JovObject> object);

  const std::shared_ptr<JovObject> object_;
  std::shared_ptr<JovRTransferStore> store_;
  mutable std::mutex mutex_;
  JovTransferRecord record_;
  std::optional<JovError> lastError_;
  bool running_ = false;
  Stop stop_ = Stop::None;
  JovCancellation cancel_;
  JovProgressBlock progress_;
  Done done_;
};

/// @brief An upload of a local file as an object's body, in chunks; made by
/// JovObject::uploader().
class JovUploader final : public JovResumableTransfer {
 public:
  /// @brief Made by JovObject::uploader or the transfer manager only.
  JovUploader(std::shared_ptr<JovObject> object, JovTransferRecord record);

 private:
  detail::Routine<void> run(JovProgressBlock progress) override;
  void discard(const JovTransferRecord& record) override;
};

/// @brief A download of an object's body into a local file, in chunks; made by
/// JovObject::downloader().
class JovDownloader final : public JovResumableTransfer {
 public:
  /// @brief Made by JovObject::downloader or the transfer manager only.
  JovDownloader(std::shared_ptr<JovObject> object, JovTransferRecord record);
  /// @brief The side file the bytes go to until the download is complete.
  static std::filesystem::path sideFile(const std::filesystem::path& destination);

 private:
  detail::Routine<void> run(JovProgressBlock progress) override;
  void discard(const JovTransferRecord& record) override;
};

/// @brief The resumable transfers of one bucket that the logged-in user started, as the
/// transfer store keeps them (across processes).
///
/// @code
/// for (auto& t : bucket->transferManager()->transfers().value())
///   if (t->info().state != jov::JovTransferState::Completed) t->transferAsync();
/// @endcode
class JovRTransferManager {
 public:
  /// @brief Made by JovBucket::transferManager().
  explicit JovRTransferManager(std::shared_ptr<JovBucket> bucket);

  /// @brief The bucket.
  const std::shared_ptr<JovBucket>& bucket() const { return bucket_; }
  /// @brief Every transfer of the bucket's objects the logged-in user started and did not
  /// remove, oldest first (completed ones included). Errors: 816 nobody is logged in; 103 the
  /// store cannot be read.
  Result<std::vector<JovResumableTransfer::Ptr>> transfers();
  /// @brief The transfer of a record ID. Errors: 816; 510 no such transfer of this bucket.
  Result<JovResumableTransfer::Ptr> transferWithID(std::int64_t id);
  /// @brief Runs every suspended or failed transfer again (asynchronously); gives how many
  /// started. Errors: 816.
  Result<std::size_t> resumeAll();
  /// @brief Terminates an unfinished transfer and forgets its record; a completed one is only
  /// forgotten. Errors: 816; 510 no such transfer.
  Result<void> remove(std::int64_t id);

 private:
  Result<std::string> userID() const;
  std::string uriPrefix() const;

  std::shared_ptr<JovBucket> bucket_;
};

}  // namespace jov
