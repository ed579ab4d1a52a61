// The life of a resumable transfer (runs, suspension, termination, the record kept in the
// store), the transfers of a bucket, and the factories on the object and the bucket.

#include <algorithm>
#include <map>

#include "core/exchange.hpp"
#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/logger.hpp"
#include "jov/object.hpp"
#include "jov/transfer.hpp"
#include "jov/user.hpp"

namespace jov {

namespace {

constexpr std::int64_t kMinChunk = 1024;
constexpr std::int64_t kMaxChunk = std::int64_t{64} << 20;
std::atomic<std::int64_t> defaultChunk{std::int64_t{4} << 20};

// One transfer object per record in a process: two objects running one record would send the
// same chunks twice.
struct Registry {
  std::mutex mutex;
  std::map<std::int64_t, std::weak_ptr<JovResumableTransfer>> transfers;
};
Registry& registry() {
  static Registry r;
  return r;
}

void registerTransfer(std::int64_t id, const std::shared_ptr<JovResumableTransfer>& transfer) {
  std::lock_guard lock(registry().mutex);
  registry().transfers[id] = transfer;
}

std::shared_ptr<JovResumableTransfer> registered(std::int64_t id) {
  std::lock_guard lock(registry().mutex);
  auto it = registry().transfers.find(id);
  return it == registry().transfers.end() ? nullptr : it->second.lock();
}

void unregisterTransfer(std::int64_t id) {
  std::lock_guard lock(registry().mutex);
  registry().transfers.erase(id);
}

// A completion that settles a promise: only the first run it is handed to settles it.
std::function<void(Result<void>)> settle(std::shared_ptr<std::promise<Result<void>>> promise) {
  auto settled = std::make_shared<std::atomic<bool>>(false);
  return [promise, settled](Result<void> r) {
    if (!settled->exchange(true)) promise->set_value(std::move(r));
  };
}

JovError withCode(int code) {
  return JovError::errorWithCode(code);
}

// The refusal of a transfer that already ended, or nothing while it may still move.
std::optional<JovError> endedError(JovTransferState state) {
  if (state == JovTransferState::Completed)
    return withCode(JovError::codeTransferAlreadyCompleted());
  if (state == JovTransferState::Terminated)
    return withCode(JovError::codeTransferAlreadyTerminated());
  return std::nullopt;
}

std::string currentUserID() {
  auto user = JovUser::currentUser();
  return user ? user->userID() : std::string();
}

// The transfer of a record: the one this process holds already, else a new one made here.
template <class Make>
JovResumableTransfer::Ptr existingOr(const std::optional<JovTransferRecord>& record, Make make) {
  if (record) {
    if (auto held = registered(record->id)) return held;
  }
  auto made = make();
  if (record) registerTransfer(record->id, made);
  return made;
}

}  // namespace

JovResumableTransfer::JovResumableTransfer(std::shared_ptr<JovObject> object,
                                           JovTransferRecord record)
    : object_(std::move(object)), record_(std::move(record)) {
  if (record_.chunkSize <= 0) record_.chunkSize = defaultChunk.load();
  if (auto store = JovRTransferStore::sharedStore()) store_ = store.value();
}

JovResumableTransfer::~JovResumableTransfer() = default;

std::int64_t JovResumableTransfer::defaultChunkSize() {
  return defaultChunk.load();
}

void JovResumableTransfer::setDefaultChunkSize(std::int64_t bytes) {
  defaultChunk = std::clamp(bytes, kMinChunk, kMaxChunk);
}

std::int64_t JovResumableTransfer::chunkSize() const {
  std::lock_guard lock(mutex_);
  return record_.chunkSize;
}

JovTransferRecord JovResumableTransfer::record() const {
  std::lock_guard lock(mutex_);
  return record_;
}

JovResumableTransfer::Info JovResumableTransfer::info() const {
  std::lock_guard lock(mutex_);
  Info info;
  info.id = record_.id;
  info.direction = record_.direction;
  info.state = record_.state;
  info.bytesDone = record_.bytesConfirmed;
  info.total = record_.totalBytes;
  info.objectURI = record_.objectURI;
  info.localPath = record_.localPath;
  info.error = lastError_;
  return info;
}

void JovResumableTransfer::saveRecord(const std::function<void(JovTransferRecord&)>& change) {
  JovTransferRecord copy;
  {
    std::lock_guard lock(mutex_);
    change(record_);
    copy = record_;
  }
  if (!store_ || copy.id == 0) return;
  if (auto saved = store_->update(copy); !saved)
    JOV_LOG(JovLogWarning, "Unable to record the transfer " + std::to_string(copy.id) + ": " +
                               saved.error().describe());
}

void JovResumableTransfer::saveProgress(std::int64_t bytesDone) {
  std::int64_t id;
  {
    std::lock_guard lock(mutex_);
    record_.bytesConfirmed = bytesDone;
    id = record_.id;
  }
  if (!store_ || id == 0) return;
  if (auto saved = store_->updateProgress(id, bytesDone, JovTransferState::Running); !saved)
    JOV_LOG(JovLogWarning, "Unable to record the progress of transfer " + std::to_string(id) +
                               ": " + saved.error().describe());
}

Result<void> JovResumableTransfer::startRun(JovProgressBlock progress, Done done) {
  if (!store_) {
    auto opened = JovRTransferStore::sharedStore();
    if (!opened) return opened.error();
    store_ = opened.value();
  }
  const std::string user = currentUserID();
  if (user.empty()) return withCode(JovError::codeUnableToOperateTransferManager());
  JovTransferRecord copy;
  {
    std::lock_guard lock(mutex_);
    if (auto ended = endedError(record_.state)) return *ended;
    if (running_) return withCode(JovError::codeTransferAlreadyStarted());
    if (!record_.userID.empty() && record_.userID != user)
      return withCode(JovError::codeUnableToOperateTransferManager());
    record_.userID = user;
    record_.state = JovTransferState::Running;
    running_ = true;
    stop_ = Stop::None;
    lastError_.reset();
    cancel_ = JovCancellation();
    progress_ = progress;
    done_ = std::move(done);
    copy = record_;
  }
  if (copy.id == 0) {
    auto added = store_->add(copy);
    if (!added) {
      std::lock_guard lock(mutex_);
      running_ = false;
      record_.state = JovTransferState::NotStarted;
      return added.error();
    }
    {
      std::lock_guard lock(mutex_);
      record_.id = added.value();
    }
    registerTransfer(added.value(), shared_from_this());
  } else {
    saveRecord([](JovTransferRecord&) {});
  }
  JovCancellation cancel;
  {
    std::lock_guard lock(mutex_);
    cancel = cancel_;
  }
  detail::start(
      run(std::move(progress)), cancel.state(),
      [self = shared_from_this()](Result<void> result) { self->finishRun(std::move(result)); });
  return {};
}

void JovResumableTransfer::finishRun(Result<void> result) {
  Stop stop;
  Done done;
  {
    std::lock_guard lock(mutex_);
    stop = stop_;
    running_ = false;
    // Kept: resume() reports to the same completion.
    done = done_;
  }
  if (stop == Stop::Suspend) {
    result = withCode(JovError::codeTransferWasSuspended());
    saveRecord([](JovTransferRecord& r) { r.state = JovTransferState::Suspended; });
  } else if (stop == Stop::Terminate) {
    result = withCode(JovError::codeTransferWasTerminated());
    const JovTransferRecord gone = record();
    discard(gone);
    if (store_ && gone.id != 0) (void)store_->remove(gone.id);
    unregisterTransfer(gone.id);
  } else if (result) {
    saveRecord([](JovTransferRecord& r) {
      r.state = JovTransferState::Completed;
      r.errorCode = 0;
      r.errorMessage.clear();
    });
  } else {
    const JovError error = result.error();
    {
      std::lock_guard lock(mutex_);
      lastError_ = error;
    }
    saveRecord([&error](JovTransferRecord& r) {
      r.state = JovTransferState::Failed;
      r.errorCode = error.code();
      r.errorMessage = error.describe();
    });
  }
  if (done) done(std::move(result));
}

Result<void> JovResumableTransfer::transferSynchronous(JovProgressBlock progress) {
  // A transfer lasts; it runs on the engine so that suspend() and terminate() from another
  // thread stop the chunk in flight rather than the next one.
  auto promise = std::make_shared<std::promise<Result<void>>>();
  auto future = promise->get_future();
  auto started = startRun(std::move(progress), settle(promise));
  if (!started) return started;
  return future.get();
}

void JovResumableTransfer::transfer(JovProgressBlock progress, TransferBlock block) {
  auto self = shared_from_this();
  Done done = [self, block](Result<void> result) {
    if (!block) return;
    JovMainQueue::post(
        [self, block, result = std::move(result)] { block(self, result.errorIfAny()); });
  };
  if (auto started = startRun(detail::progressOnMainQueue(std::move(progress)), done); !started)
    done(std::move(started));
}

void JovResumableTransfer::transfer(JovProgressBlock progress, JovCallback callback) {
  auto self = shared_from_this();
  Done done = [self, callback](Result<void> result) {
    if (!callback.hasSelector()) return;
    JovMainQueue::post([self, callback, result = std::move(result)] {
      JovUtilities::callMethod(callback, self, result.errorIfAny());
    });
  };
  if (auto started = startRun(detail::progressOnMainQueue(std::move(progress)), done); !started)
    done(std::move(started));
}

std::future<Result<void>> JovResumableTransfer::transferAsync(JovProgressBlock progress) {
  auto promise = std::make_shared<std::promise<Result<void>>>();
  auto future = promise->get_future();
  Done done = settle(promise);
  if (auto started = startRun(detail::progressOnMainQueue(std::move(progress)), done); !started)
    done(std::move(started));
  return future;
}

Result<void> JovResumableTransfer::suspend() {
  std::optional<JovCancellation> cancel;
  {
    std::lock_guard lock(mutex_);
    if (auto ended = endedError(record_.state)) return *ended;
    if (record_.state == JovTransferState::Suspended)
      return withCode(JovError::codeTransferAlreadySuspended());
    if (running_) {
      if (stop_ != Stop::None) return withCode(JovError::codeTransferAlreadySuspended());
      stop_ = Stop::Suspend;
      cancel = cancel_;
    }
  }
  if (cancel) {
    // finishRun records the state once the chunk in flight is abandoned.
    cancel->cancel();
    return {};
  }
  saveRecord([](JovTransferRecord& r) { r.state = JovTransferState::Suspended; });
  return {};
}

Result<void> JovResumableTransfer::resume() {
  JovProgressBlock progress;
  Done done;
  {
    std::lock_guard lock(mutex_);
    if (running_) return withCode(JovError::codeTransferAlreadyStarted());
    progress = progress_;
    done = done_;
  }
  return startRun(std::move(progress), std::move(done));
}

Result<void> JovResumableTransfer::terminate() {
  std::optional<JovCancellation> cancel;
  {
    std::lock_guard lock(mutex_);
    if (auto ended = endedError(record_.state)) return *ended;
    record_.state = JovTransferState::Terminated;
    if (running_) {
      stop_ = Stop::Terminate;
      cancel = cancel_;
    }
  }
  if (cancel) {
    cancel->cancel();
    return {};
  }
  const JovTransferRecord gone = record();
  discard(gone);
  if (store_ && gone.id != 0) {
    if (auto removed = store_->remove(gone.id); !removed) return removed.error();
  }
  unregisterTransfer(gone.id);
  return {};
}

JovResumableTransfer::Ptr JovResumableTransfer::fromRecord(const JovTransferRecord& record,
                                                           std::shared_ptr<JovObject> object) {
  return existingOr(record, [&]() -> Ptr {
    if (record.direction == JovTransferDirection::Upload)
      return std::make_shared<JovUploader>(std::move(object), record);
    return std::make_shared<JovDownloader>(std::move(object), record);
  });
}

// ---------------------------------------------------------------- factories

std::shared_ptr<JovUploader> JovObject::uploader(const std::filesystem::path& file,
                                                 const std::string& contentType) {
  const auto path = std::filesystem::absolute(file).lexically_normal();
  const std::string uri = objectURI().value_or("");
  std::optional<JovTransferRecord> unfinished;
  if (auto store = JovRTransferStore::sharedStore(); store && !uri.empty())
    unfinished =
        store.value()->findUnfinished(currentUserID(), JovTransferDirection::Upload, uri, path);
  if (unfinished)
    return std::static_pointer_cast<JovUploader>(
        JovResumableTransfer::fromRecord(*unfinished, self()));
  JovTransferRecord record;
  record.direction = JovTransferDirection::Upload;
  record.objectURI = uri;
  record.localPath = path;
  record.contentType = decideBodyContentType(contentType, path);
  return std::make_shared<JovUploader>(self(), std::move(record));
}

std::shared_ptr<JovDownloader> JovObject::downloader(const std::filesystem::path& file) {
  const auto path = std::filesystem::absolute(file).lexically_normal();
  const std::string uri = objectURI().value_or("");
  std::optional<JovTransferRecord> unfinished;
  if (auto store = JovRTransferStore::sharedStore(); store && !uri.empty())
    unfinished =
        store.value()->findUnfinished(currentUserID(), JovTransferDirection::Download, uri, path);
  if (unfinished)
    return std::static_pointer_cast<JovDownloader>(
        JovResumableTransfer::fromRecord(*unfinished, self()));
  JovTransferRecord record;
  record.direction = JovTransferDirection::Download;
  record.objectURI = uri;
  record.localPath = path;
  return std::make_shared<JovDownloader>(self(), std::move(record));
}

std::shared_ptr<JovRTransferManager> JovBucket::transferManager() {
  return std::make_shared<JovRTransferManager>(shared_from_this());
}

// ---------------------------------------------------------------- manager

JovRTransferManager::JovRTransferManager(std::shared_ptr<JovBucket> bucket)
    : bucket_(std::move(bucket)) {}

Result<std::string> JovRTransferManager::userID() const {
  std::string user = currentUserID();
  if (user.empty()) return withCode(JovError::codeUnableToOperateTransferManager());
  return user;
}

std::string JovRTransferManager::uriPrefix() const {
  auto path = bucket_ ? bucket_->bucketPath() : std::nullopt;
  return path ? "jovcloud:/" + *path + "/objects/" : std::string();
}

Result<std::vector<JovResumableTransfer::Ptr>> JovRTransferManager::transfers() {
  auto user = userID();
  if (!user) return user.error();
  auto store = JovRTransferStore::sharedStore();
  if (!store) return store.error();
  std::vector<JovResumableTransfer::Ptr> found;
  for (const JovTransferRecord& record : store.value()->list(user.value(), uriPrefix())) {
    auto object = JovObject::objectWithURI(record.objectURI);
    if (!object) continue;
    found.push_back(JovResumableTransfer::fromRecord(record, std::move(object)));
  }
  return found;
}

Result<JovResumableTransfer::Ptr> JovRTransferManager::transferWithID(std::int64_t id) {
  auto user = userID();
  if (!user) return user.error();
  auto store = JovRTransferStore::sharedStore();
  if (!store) return store.error();
  auto record = store.value()->find(id);
  if (!record || record->userID != user.value() || !record->objectURI.starts_with(uriPrefix()))
    return withCode(JovError::codeObjectNotFound());
  auto object = JovObject::objectWithURI(record->objectURI);
  if (!object) return withCode(JovError::codeObjectNotFound());
  return JovResumableTransfer::fromRecord(*record, std::move(object));
}

Result<std::size_t> JovRTransferManager::resumeAll() {
  auto all = transfers();
  if (!all) return all.error();
  std::size_t started = 0;
  for (auto& transfer : all.value()) {
    auto state = transfer->info().state;
    if (state != JovTransferState::Suspended && state != JovTransferState::Failed &&
        state != JovTransferState::NotStarted && state != JovTransferState::Running)
      continue;
    // A record left "running" belongs to a process that ended mid-transfer.
    if (transfer->transferAsync().wait_for(std::chrono::seconds(0)) != std::future_status::ready)
      ++started;
  }
  return started;
}

Result<void> JovRTransferManager::remove(std::int64_t id) {
  auto transfer = transferWithID(id);
  if (!transfer) return transfer.error();
  if (transfer.value()->info().state != JovTransferState::Completed) {
    auto ended = transfer.value()->terminate();
    if (!ended && ended.error().code() != JovError::codeTransferAlreadyTerminated()) return ended;
    return {};
  }
  auto store = JovRTransferStore::sharedStore();
  if (!store) return store.error();
  unregisterTransfer(id);
  return store.value()->remove(id);
}

}  // namespace jov
