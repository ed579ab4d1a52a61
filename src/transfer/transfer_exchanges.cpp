// The chunks of resumable transfers: an upload through the service's upload sessions, a
// download by ranges into a side file.
//
// Upload: POST OBJECT/body/uploads {"contentType", "size"} opens a session; each chunk is a
// PUT OBJECT/body/uploads/ID with "Content-Range: bytes A-B/SIZE" and "Content-MD5", which the
// service checks and makes durable before it answers {"received": B+1}; POST .../complete
// makes the session's bytes the body, at once. GET .../ID tells how far a session got (after a
// crash the service, not the record, is the truth); DELETE .../ID abandons it.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "core/digest.hpp"
#include "core/exchange.hpp"
#include "data/body_errors.hpp"
#include "jov/bucket.hpp"
#include "jov/encoding.hpp"
#include "jov/logger.hpp"
#include "jov/object.hpp"
#include "jov/transfer.hpp"
#include "users/user_internal.hpp"

namespace jov {

namespace {

using detail::args;
using detail::Exchange;
using detail::kBodyErrors;
using detail::onCode;
using detail::onStatus;
using detail::send;

// A range asked with the ETag of the body as it was when the download began: 412 when the
// body changed since, 416 when the range lies beyond it.
constexpr detail::ErrorRule kRangeErrors[] = {
    onCode("OBJECT_NOT_FOUND", JovError::codeObjectNotFound()),
    onCode("OBJECT_BODY_NOT_FOUND", JovError::codeObjectBodyNotExistInCloud()),
    onCode("USER_NOT_FOUND", JovError::codeBucketParentNotExistInCloud()),
    onCode("GROUP_NOT_FOUND", JovError::codeBucketParentNotExistInCloud()),
    onStatus(412, JovError::codeObjectBodyIntegrityNotAssured()),
    onStatus(416, JovError::codeObjectBodyRangeNotSatisfiable()),
};

constexpr Exchange kOpenSession{
    JovMethodPost,
    "{+}/objects/{}/body/uploads",
    {.contentType = "application/vnd.jov.ObjectBodyUploadRequest+json", .errors = kBodyErrors}};
constexpr Exchange kSessionState{
    JovMethodGet, "{+}/objects/{}/body/uploads/{}", {.errors = kBodyErrors}};
constexpr Exchange kSendChunk{
    JovMethodPut, "{+}/objects/{}/body/uploads/{}", {.errors = kBodyErrors}};
constexpr Exchange kComplete{
    JovMethodPost, "{+}/objects/{}/body/uploads/{}/complete", {.errors = kBodyErrors}};
constexpr Exchange kAbandon{JovMethodDelete, "{+}/objects/{}/body/uploads/{}"};
constexpr Exchange kGetRange{JovMethodGet, "{+}/objects/{}/body", {.errors = kRangeErrors}};

JovError withCode(int code) {
  return JovError::errorWithCode(code);
}

std::string serverCodeOf(const JovError& error) {
  return error.jovErrorSummary().value_or("");
}

// A file descriptor closed on every path out.
struct Fd {
  int fd = -1;
  Fd() = default;
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }
  void reset(int to = -1) {
    if (fd >= 0) ::close(fd);
    fd = to;
  }
};

// What identifies the content of a file without reading it.
struct Identity {
  std::int64_t size = -1;
  std::int64_t modifiedNs = 0;
  std::uint64_t inode = 0;
  bool operator==(const Identity&) const = default;
};

// 0 and the identity, or the code of why the file cannot be sent.
int examine(const std::filesystem::path& file, Identity& identity) {
  struct stat st {};
  if (::stat(file.c_str(), &st) != 0)
    return errno == ENOENT || errno == ENOTDIR ? JovError::codeFileNotExist()
                                               : JovError::codeCannotGetFileAttribute();
  if (S_ISDIR(st.st_mode)) return JovError::codeFilePathIsDirectory();
  if (!S_ISREG(st.st_mode) || ::access(file.c_str(), R_OK) != 0)
    return JovError::codeCannotGetFileAttribute();
  identity.size = st.st_size;
  identity.modifiedNs = std::int64_t{st.st_mtim.tv_sec} * 1'000'000'000 + st.st_mtim.tv_nsec;
  identity.inode = st.st_ino;
  return 0;
}

bool readFully(int fd, std::string& into, std::int64_t offset) {
  std::size_t done = 0;
  while (done < into.size()) {
    ssize_t n = ::pread(fd, into.data() + done, into.size() - done,
                        static_cast<off_t>(offset + static_cast<std::int64_t>(done)));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

bool writeFully(int fd, const std::string& bytes, std::int64_t offset) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::pwrite(fd, bytes.data() + done, bytes.size() - done,
                         static_cast<off_t>(offset + static_cast<std::int64_t>(done)));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// "bytes A-B/TOTAL": A and TOTAL; nothing for anything else.
std::optional<std::pair<std::int64_t, std::int64_t>> contentRange(const std::string& text) {
  constexpr std::string_view prefix = "bytes ";
  if (!text.starts_with(prefix)) return std::nullopt;
  const char* p = text.data() + prefix.size();
  const char* end = text.data() + text.size();
  std::int64_t first = 0, last = 0, total = 0;
  auto r = std::from_chars(p, end, first);
  if (r.ec != std::errc() || r.ptr == end || *r.ptr != '-') return std::nullopt;
  r = std::from_chars(r.ptr + 1, end, last);
  if (r.ec != std::errc() || r.ptr == end || *r.ptr != '/') return std::nullopt;
  r = std::from_chars(r.ptr + 1, end, total);
  if (r.ec != std::errc() || r.ptr != end || last < first || total <= last) return std::nullopt;
  return std::make_pair(first, total);
}

bool isMD5(const std::string& tag) {
  return tag.size() == 32 && tag.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// The object's place at the service: bucket path and ID.
std::optional<std::pair<std::string, std::string>> placeOf(const JovObject& object) {
  auto path = object.bucket() ? object.bucket()->bucketPath() : std::nullopt;
  auto id = object.uuid();
  if (!path || !id) return std::nullopt;
  return std::make_pair(*path, *id);
}

detail::Routine<void> abandonSession(std::string bucketPath, std::string id, std::string session) {
  auto answer = co_await send(kAbandon, args(bucketPath, id, session));
  if (!answer)
    JOV_LOG(JovLogInfo,
            "The upload session " + session + " was not abandoned: " + answer.error().describe());
  co_return {};
}

// One upload run's state. Kept as the routine's only local: GCC 12 mishandles locals of nested
// scopes in a coroutine that returns early after a real suspension.
struct UploadRun {
  JovTransferRecord record;
  std::pair<std::string, std::string> place;
  Identity identity, now;
  std::int64_t received = 0;
  std::int64_t length = 0;
  Fd file;
  std::string chunk;
  nlohmann::json request;
  std::optional<std::int64_t> confirmed;
};

// One download run's state (the same reason).
struct DownloadRun {
  JovTransferRecord record;
  std::pair<std::string, std::string> place;
  std::filesystem::path side;
  Fd file;
  std::int64_t done = 0;
  std::int64_t last = 0;
  std::optional<std::pair<std::int64_t, std::int64_t>> range;
  std::optional<std::string> contentType;
  std::optional<std::string> digest;
};

}  // namespace

// ---------------------------------------------------------------- upload

JovUploader::JovUploader(std::shared_ptr<JovObject> object, JovTransferRecord record)
    : JovResumableTransfer(std::move(object), std::move(record)) {}

void JovUploader::discard(const JovTransferRecord& record) {
  auto place = placeOf(*object());
  if (record.session.empty() || !place) return;
  // Nobody waits for it: the service forgets an abandoned session anyway after a day.
  detail::start(abandonSession(place->first, place->second, record.session), nullptr,
                [](Result<void>) {});
}

detail::Routine<void> JovUploader::run(JovProgressBlock progress) {
  // Each chunk is recorded in SQLite, and the file is read or written.
  co_await detail::mayBlock();
  UploadRun x;
  x.record = record();
  auto place = placeOf(*object());
  JOV_CO_REQUIRE(place, JovError::codeInvalidObjects());
  x.place = *place;
  if (int code = examine(x.record.localPath, x.identity); code != 0) co_return withCode(code);
  JOV_CO_REQUIRE(x.identity.size > 0, JovError::codeFileSizeIsZeroByte());
  if (x.record.fileSize < 0) {
    // The file as it is now is what this transfer sends, to the end.
    saveRecord([&x](JovTransferRecord& r) {
      r.fileSize = x.identity.size;
      r.fileModifiedNs = x.identity.modifiedNs;
      r.fileInode = x.identity.inode;
      r.totalBytes = x.identity.size;
    });
    x.record = record();
  }
  JOV_CO_REQUIRE(
      (Identity{x.record.fileSize, x.record.fileModifiedNs, x.record.fileInode}) == x.identity,
      JovError::codeFileModifiedDuringTransfer());

  // The session: the service says how far it got; an expired one starts over.
  if (!x.record.session.empty()) {
    auto state =
        co_await send(kSessionState, args(x.place.first, x.place.second, x.record.session));
    if (state) {
      x.confirmed = jsonInt64(state->json, "received");
      if (!x.confirmed || *x.confirmed < 0 || *x.confirmed > x.identity.size)
        co_return detail::unreadableAnswer();
      x.received = *x.confirmed;
    } else if (serverCodeOf(state.error()) == "UPLOAD_NOT_FOUND") {
      x.record.session.clear();
    } else {
      co_return state.error();
    }
  }
  if (x.record.session.empty()) {
    x.request = {{"contentType", x.record.contentType}, {"size", x.identity.size}};
    auto opened =
        co_await send(kOpenSession, args(x.place.first, x.place.second).json(std::move(x.request)));
    if (!opened) co_return opened.error();
    auto session = jsonString(opened->json, "uploadID");
    if (!session || session->empty()) co_return detail::unreadableAnswer();
    x.record.session = *session;
    x.received = 0;
    saveRecord([&x](JovTransferRecord& r) {
      r.session = x.record.session;
      r.bytesConfirmed = 0;
    });
  }
  saveProgress(x.received);
  if (progress) progress(x.received, x.identity.size);

  x.file.reset(::open(x.record.localPath.c_str(), O_RDONLY | O_CLOEXEC));
  JOV_CO_REQUIRE(x.file.fd >= 0, JovError::codeFileNotExist());
  while (x.received < x.identity.size) {
    // A file that changed is not sent half old, half new.
    if (examine(x.record.localPath, x.now) != 0 || !(x.now == x.identity))
      co_return withCode(JovError::codeFileModifiedDuringTransfer());
    x.length = std::min(x.record.chunkSize, x.identity.size - x.received);
    x.chunk.resize(static_cast<std::size_t>(x.length));
    if (!readFully(x.file.fd, x.chunk, x.received))
      co_return withCode(JovError::codeFileModifiedDuringTransfer());
    auto sent = co_await send(
        kSendChunk, args(x.place.first, x.place.second, x.record.session)
                        .raw(x.chunk)
                        .contentType("application/octet-stream")
                        .header("Content-Range", "bytes " + std::to_string(x.received) + "-" +
                                                     std::to_string(x.received + x.length - 1) +
                                                     "/" + std::to_string(x.identity.size))
                        .header("Content-MD5", base64(detail::md5Raw(x.chunk))));
    if (!sent && serverCodeOf(sent.error()) == "UPLOAD_OFFSET_MISMATCH") {
      // Another run got further (or a chunk's answer was lost): continue from the service's count.
      auto state =
          co_await send(kSessionState, args(x.place.first, x.place.second, x.record.session));
      if (!state) co_return state.error();
      x.confirmed = jsonInt64(state->json, "received");
      if (!x.confirmed || *x.confirmed < 0 || *x.confirmed > x.identity.size)
        co_return detail::unreadableAnswer();
      x.received = *x.confirmed;
      saveProgress(x.received);
      continue;
    }
    if (!sent) co_return sent.error();
    x.confirmed = jsonInt64(sent->json, "received");
    if (!x.confirmed || *x.confirmed != x.received + x.length) co_return detail::unreadableAnswer();
    x.received = *x.confirmed;
    saveProgress(x.received);
    if (progress) progress(x.received, x.identity.size);
  }
  if (examine(x.record.localPath, x.now) != 0 || !(x.now == x.identity))
    co_return withCode(JovError::codeFileModifiedDuringTransfer());
  auto completed = co_await send(kComplete, args(x.place.first, x.place.second, x.record.session));
  if (!completed) co_return completed.error();
  x.confirmed = jsonInt64(completed->json, "modifiedAt");
  saveRecord([&completed](JovTransferRecord& r) {
    r.etag = completed->etag;
    r.bytesConfirmed = r.totalBytes;
  });
  {
    std::lock_guard lock(object()->mutex_);
    if (x.confirmed) object()->modified_ = detail::fromMillis(static_cast<double>(*x.confirmed));
    object()->bodyContentType_ = x.record.contentType;
  }
  co_return {};
}

// ---------------------------------------------------------------- download

JovDownloader::JovDownloader(std::shared_ptr<JovObject> object, JovTransferRecord record)
    : JovResumableTransfer(std::move(object), std::move(record)) {}

std::filesystem::path JovDownloader::sideFile(const std::filesystem::path& destination) {
  std::filesystem::path side = destination;
  side += ".jovdownload";
  return side;
}

void JovDownloader::discard(const JovTransferRecord& record) {
  std::error_code ec;
  std::filesystem::remove(sideFile(record.localPath), ec);
}

detail::Routine<void> JovDownloader::run(JovProgressBlock progress) {
  // Each chunk is recorded in SQLite, and the file is read or written.
  co_await detail::mayBlock();
  DownloadRun x;
  x.record = record();
  auto place = placeOf(*object());
  JOV_CO_REQUIRE(place, JovError::codeInvalidObjects());
  x.place = *place;
  x.side = sideFile(x.record.localPath);
  {
    std::filesystem::path folder = x.record.localPath.parent_path();
    std::error_code ec;
    if (folder.empty()) folder = ".";
    if (!std::filesystem::is_directory(folder, ec) || ::access(folder.c_str(), W_OK) != 0 ||
        std::filesystem::is_directory(x.record.localPath, ec))
      co_return withCode(JovError::codeFilePathIsNotWritable());
  }
  x.file.reset(::open(x.side.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  JOV_CO_REQUIRE(x.file.fd >= 0, JovError::codeFilePathIsNotWritable());
  x.done = x.record.bytesConfirmed;
  if (x.done > 0) {
    // The side file must still hold every byte the record says reached the disk.
    struct stat st {};
    if (::fstat(x.file.fd, &st) != 0 || st.st_size < x.done)
      co_return withCode(JovError::codeFileRangeNotValid());
  }
  if (::ftruncate(x.file.fd, static_cast<off_t>(x.done)) != 0)
    co_return withCode(JovError::codeFilePathIsNotWritable());

  while (x.record.totalBytes < 0 || x.done < x.record.totalBytes) {
    x.last = x.done + x.record.chunkSize - 1;
    if (x.record.totalBytes > 0) x.last = std::min(x.last, x.record.totalBytes - 1);
    auto answer = co_await send(
        kGetRange,
        args(x.place.first, x.place.second)
            .header("Range", "bytes=" + std::to_string(x.done) + "-" + std::to_string(x.last))
            .etag(x.record.etag)
            .bytesAnswer(static_cast<std::size_t>(x.record.chunkSize)));
    if (!answer && x.done == 0 &&
        answer.error().code() == JovError::codeObjectBodyRangeNotSatisfiable()) {
      // Nothing to ask a range of: the body is empty.
      x.record.totalBytes = 0;
      break;
    }
    if (!answer) co_return answer.error();
    x.range = contentRange(jovHeaderValue(answer->headers, "Content-Range").value_or(""));
    if (answer->status == 200 && x.done == 0) {
      // The whole body at once: the service ignored the range of a small body.
      x.range = std::make_pair(std::int64_t{0}, static_cast<std::int64_t>(answer->body.size()));
    }
    if (!x.range || x.range->first != x.done ||
        (x.record.totalBytes >= 0 && x.range->second != x.record.totalBytes) ||
        x.done + static_cast<std::int64_t>(answer->body.size()) > x.range->second ||
        answer->body.empty())
      co_return detail::unreadableAnswer();
    if (x.record.etag.empty()) {
      x.record.etag = answer->etag;
      x.record.totalBytes = x.range->second;
      saveRecord([&x](JovTransferRecord& r) {
        r.etag = x.record.etag;
        r.totalBytes = x.record.totalBytes;
      });
    }
    x.contentType = jovHeaderValue(answer->headers, "Content-Type");
    if (!writeFully(x.file.fd, answer->body, x.done) || ::fdatasync(x.file.fd) != 0)
      co_return withCode(JovError::codeFilePathIsNotWritable());
    x.done += static_cast<std::int64_t>(answer->body.size());
    saveProgress(x.done);
    if (progress) progress(x.done, x.record.totalBytes);
  }
  x.file.reset();
  // The bytes must be the body's: its size, and its MD5 when the ETag is one.
  x.digest = isMD5(x.record.etag) ? detail::md5OfFile(x.side) : std::nullopt;
  if (x.done != x.record.totalBytes ||
      (isMD5(x.record.etag) && (!x.digest || lower(*x.digest) != lower(x.record.etag)))) {
    // Starting over is the only way to a good copy.
    saveRecord([](JovTransferRecord& r) {
      r.bytesConfirmed = 0;
      r.etag.clear();
      r.totalBytes = -1;
    });
    co_return withCode(JovError::codeObjectBodyIntegrityNotAssured());
  }
  {
    std::error_code ec;
    std::filesystem::rename(x.side, x.record.localPath, ec);
    if (ec) co_return withCode(JovError::codeFilePathIsNotWritable());
  }
  {
    std::lock_guard lock(object()->mutex_);
    if (x.contentType) object()->bodyContentType_ = *x.contentType;
  }
  co_return {};
}

}  // namespace jov
