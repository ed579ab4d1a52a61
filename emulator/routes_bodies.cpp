// Object bodies: PUT/GET/DELETE OBJECT/body (GET with "Range" and "If-Match"), public links
// (POST OBJECT/body/publish, served at /public/bodies/TOKEN without the application's keys
// until they expire), and chunked uploads through sessions (POST OBJECT/body/uploads, PUT of
// each range with its MD5, GET of the state, POST .../complete, DELETE).
//
// Bytes never sit in memory whole: a body streams from the request into a file beside the
// others and is renamed into place, and an answer streams from its file. The rows change in
// short transactions; files are written outside them.
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <map>
#include <memory>
#include <mutex>

#include "api_error.hpp"
#include "body_store.hpp"
#include "bucket_access.hpp"
#include "crypto.hpp"

namespace jovemu {

namespace {

constexpr const char* kPublicationRequest = "application/vnd.jov.ObjectBodyPublicationRequest+json";
constexpr const char* kUploadRequest = "application/vnd.jov.ObjectBodyUploadRequest+json";
constexpr std::int64_t kUploadLifetimeMs = 24 * 60 * 60 * 1000;

ApiError objectNotFound() {
  return ApiError(404, "OBJECT_NOT_FOUND", "The object was not found");
}
ApiError bodyNotFound() {
  return ApiError(404, "OBJECT_BODY_NOT_FOUND", "The object has no body");
}
ApiError uploadNotFound() {
  return ApiError(404, "UPLOAD_NOT_FOUND", "The upload session was not found or has expired");
}
ApiError bodyTooLarge() {
  return ApiError(413, "REQUEST_ENTITY_TOO_LARGE", "The body is larger than the service accepts");
}

BodyFiles& files(const Service& service) {
  if (!service.bodies) throw ApiError(503, "SERVICE_UNAVAILABLE", "Bodies are not stored");
  return *service.bodies;
}

// The object a body route names, with its bucket and the caller.
struct Target {
  BucketContext context;
  BucketRow bucket;
  ObjectRow object;
};

enum class Need { Read, Write };

Target resolve(const Service& service, const Call& call, Connection& conn, const std::string& appID,
               const BucketAddress& address, Need need) {
  const std::string& id = call.param(address.next);
  auto context = openBucketContext(service, call, conn, appID, address);
  auto bucket = findBucket(conn, appID, context.scope, address.name);
  if (!bucket) throw objectNotFound();
  auto object = findObject(conn, *bucket, id);
  if (!object) throw objectNotFound();
  const auto& who = context.requester;
  const bool allowed = need == Need::Read
                           ? isAllowed(conn, bucket->key, kBucketTarget, kReadObjects, who) ||
                                 isAllowed(conn, bucket->key, id, kReadObject, who)
                           : isAllowed(conn, bucket->key, id, kWriteObject, who);
  requireAllowed(allowed, who, need == Need::Read ? "read this body" : "change this body");
  return {std::move(context), std::move(*bucket), std::move(*object)};
}

// A body changes the object's modified time, as any change of the object does.
std::int64_t touch(Connection& conn, const BucketRow& bucket, ObjectRow object) {
  object.modified = std::max(Service::now(), object.modified);
  std::optional<std::string> type;
  if (auto it = object.doc.find("_dataType"); it != object.doc.end() && it->is_string())
    type = it->get<std::string>();
  storeObject(conn, bucket, object, type);
  return object.modified;
}

std::string bareTag(std::string tag) {
  std::erase(tag, '"');
  if (tag.starts_with("W/")) tag.erase(0, 2);
  while (!tag.empty() && tag.front() == ' ') tag.erase(0, 1);
  while (!tag.empty() && tag.back() == ' ') tag.pop_back();
  return tag;
}

// A file descriptor closed on every path out; shared by an answer that streams from it.
struct File {
  int fd = -1;
  explicit File(int f) : fd(f) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() {
    if (fd >= 0) ::close(fd);
  }
};

std::string hex(const unsigned char* digest, unsigned int length) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < length; ++i) {
    out += kHex[digest[i] >> 4];
    out += kHex[digest[i] & 15];
  }
  return out;
}

class Md5 {
 public:
  Md5() : context_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
    EVP_DigestInit_ex(context_.get(), EVP_md5(), nullptr);
  }
  void add(const char* data, std::size_t length) { EVP_DigestUpdate(context_.get(), data, length); }
  std::string raw() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context_.get(), digest, &length);
    return std::string(reinterpret_cast<const char*>(digest), length);
  }
  std::string hexDigest() {
    std::string bytes = raw();
    return hex(reinterpret_cast<const unsigned char*>(bytes.data()),
               static_cast<unsigned int>(bytes.size()));
  }

 private:
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context_;
};

bool writeAll(int fd, const char* data, std::size_t length) {
  while (length > 0) {
    ssize_t n = ::write(fd, data, length);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    length -= static_cast<std::size_t>(n);
  }
  return true;
}

// Streams the request body to `fd`, counting and digesting it. Throws 413 past the limit and
// 400 for a body cut short or a disk that refuses it.
struct Received {
  std::uint64_t bytes = 0;
  Md5 md5;
};
void receiveInto(Call& call, int fd, Received& into) {
  BodyReader* reader = call.bodyReader();
  if (!reader) throw invalidInput("The body could not be read");
  bool written = true;
  const bool whole = reader->read([&](const char* data, std::size_t length) {
    into.md5.add(data, length);
    into.bytes += length;
    written = writeAll(fd, data, length);
    return written;
  });
  if (reader->tooLarge()) throw bodyTooLarge();
  if (!written) throw ApiError(507, "INSUFFICIENT_STORAGE", "The body could not be stored");
  if (!whole) throw invalidInput("The body ended before its announced length");
  if (::fsync(fd) != 0) throw ApiError(507, "INSUFFICIENT_STORAGE", "The body could not be stored");
}

std::string base64(const std::string& bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                reinterpret_cast<const unsigned char*>(bytes.data()),
                                static_cast<int>(bytes.size()));
  out.resize(static_cast<std::size_t>(n));
  return out;
}

std::string mediaTypeOf(const Call& call) {
  std::string type = call.header("Content-Type").value_or("");
  while (!type.empty() && type.back() == ' ') type.pop_back();
  return type.empty() ? "application/octet-stream" : type;
}

std::string etagHeader(const std::string& md5) {
  return "\"" + md5 + "\"";
}

// "bytes=A-B", "bytes=A-" or "bytes=-N" against a body of `size` bytes: the first and last
// byte; nothing when there is no single range to serve (the whole body goes then); throws 416
// when the range lies outside the body.
std::optional<std::pair<std::uint64_t, std::uint64_t>> rangeOf(const Call& call,
                                                               std::uint64_t size) {
  auto header = call.header("Range");
  if (!header || !header->starts_with("bytes=") || header->find(',') != std::string::npos)
    return std::nullopt;
  const std::string spec = header->substr(6);
  const auto dash = spec.find('-');
  if (dash == std::string::npos) return std::nullopt;
  auto number = [](std::string_view text) -> std::optional<std::uint64_t> {
    std::uint64_t value = 0;
    if (text.empty()) return std::nullopt;
    auto r = std::from_chars(text.data(), text.data() + text.size(), value);
    if (r.ec != std::errc() || r.ptr != text.data() + text.size()) return std::nullopt;
    return value;
  };
  auto first = number(std::string_view(spec).substr(0, dash));
  auto last = number(std::string_view(spec).substr(dash + 1));
  auto outside = [size] {
    return ApiError(416, "RANGE_NOT_SATISFIABLE", "The range lies outside the body",
                    {{"size", size}});
  };
  std::uint64_t from = 0, to = 0;
  if (first) {
    if (last && *last < *first) return std::nullopt;  // not a range: the whole body
    if (*first >= size) throw outside();
    from = *first;
    to = last ? std::min(*last, size - 1) : size - 1;
  } else if (last) {  // the last N bytes
    if (*last == 0 || size == 0) throw outside();
    from = *last >= size ? 0 : size - *last;
    to = size - 1;
  } else {
    return std::nullopt;
  }
  return std::make_pair(from, to);
}

// Answers with the body's bytes (a range of them), streamed from its file.
void sendBody(Call& call, const BodyFiles& store, const BodyRow& body) {
  auto file = std::make_shared<File>(::open(store.path(body.file).c_str(), O_RDONLY | O_CLOEXEC));
  if (file->fd < 0) throw bodyNotFound();
  const auto size = static_cast<std::uint64_t>(body.size);
  std::optional<std::pair<std::uint64_t, std::uint64_t>> range;
  try {
    range = rangeOf(call, size);
  } catch (const ApiError&) {
    call.setHeader("Content-Range", "bytes */" + std::to_string(size));
    const_cast<httplib::Request&>(call.request()).ranges.clear();
    throw;
  }
  const std::uint64_t from = range ? range->first : 0;
  const std::uint64_t length = range ? range->second - range->first + 1 : size;
  // The range is served here, clamped to the body; cpp-httplib would serve the raw header's
  // range again over this answer (and past the end of a short body), so it is told of none.
  // (The request object is the server's own, not a constant.)
  const_cast<httplib::Request&>(call.request()).ranges.clear();
  auto& res = call.response();
  res.status = range ? 206 : 200;
  call.setHeader("ETag", etagHeader(body.md5));
  call.setHeader("Accept-Ranges", "bytes");
  if (range) {
    call.setHeader("Content-Range", "bytes " + std::to_string(range->first) + "-" +
                                        std::to_string(range->second) + "/" + std::to_string(size));
  }
  if (length == 0) {
    res.set_content("", body.contentType);
    return;
  }
  res.set_content_provider(
      static_cast<std::size_t>(length), body.contentType,
      [file, from, length](std::size_t offset, std::size_t want, httplib::DataSink& sink) {
        char buffer[256 * 1024];
        const std::size_t n =
            std::min({want, sizeof buffer, static_cast<std::size_t>(length - offset)});
        ssize_t got;
        do {
          got = ::pread(file->fd, buffer, n, static_cast<off_t>(from + offset));
        } while (got < 0 && errno == EINTR);
        if (got <= 0) return false;
        return sink.write(buffer, static_cast<std::size_t>(got));
      });
}

// Streams a new body into a file of its own, then makes it the object's body.
void putBody(Service& service, Call& call, const std::string& appID, const BucketAddress& address) {
  auto& store = files(service);
  const std::string contentType = mediaTypeOf(call);
  // Refused before a byte is stored.
  service.db.transaction(
      [&](Connection& conn) { resolve(service, call, conn, appID, address, Need::Write); });
  const std::string name = store.newName();
  Received received;
  {
    File file(::open(store.path(name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (file.fd < 0) throw ApiError(507, "INSUFFICIENT_STORAGE", "The body could not be stored");
    try {
      receiveInto(call, file.fd, received);
    } catch (...) {
      store.remove(name);
      throw;
    }
  }
  BodyRow body{name, contentType, received.md5.hexDigest(),
               static_cast<std::int64_t>(received.bytes)};
  std::optional<std::string> replaced;
  std::int64_t modified = 0;
  try {
    service.db.transaction([&](Connection& conn) {
      auto target = resolve(service, call, conn, appID, address, Need::Write);
      replaced = storeBody(conn, target.bucket.key, target.object.id, body);
      modified = touch(conn, target.bucket, target.object);
    });
  } catch (...) {
    store.remove(name);
    throw;
  }
  if (replaced) store.remove(*replaced);
  call.setHeader("ETag", etagHeader(body.md5));
  call.reply(200, {{"modifiedAt", modified}, {"etag", body.md5}, {"size", body.size}});
}

void getBody(Service& service, Call& call, const std::string& appID, const BucketAddress& address) {
  auto& store = files(service);
  auto body = service.db.transaction([&](Connection& conn) {
    auto target = resolve(service, call, conn, appID, address, Need::Read);
    auto found = findBody(conn, target.bucket.key, target.object.id);
    if (!found) throw bodyNotFound();
    return *found;
  });
  if (auto tag = call.header("If-Match"); tag && bareTag(*tag) != "*" && bareTag(*tag) != body.md5)
    throw ApiError(412, "PRECONDITION_FAILED", "The body has changed since that version");
  sendBody(call, store, body);
}

void removeBody(Service& service, Call& call, const std::string& appID,
                const BucketAddress& address) {
  auto& store = files(service);
  auto file = service.db.transaction([&](Connection& conn) {
    auto target = resolve(service, call, conn, appID, address, Need::Write);
    auto gone = deleteBody(conn, target.bucket.key, target.object.id);
    if (!gone) throw bodyNotFound();
    touch(conn, target.bucket, target.object);
    return *gone;
  });
  store.remove(file);
  call.replyNoContent();
}

void publishBody(Service& service, Call& call, const std::string& appID,
                 const BucketAddress& address) {
  if (call.hasBody()) call.requireMediaType({kPublicationRequest, "application/json"});
  auto request = call.jsonObject();
  const std::int64_t now = Service::now();
  std::optional<std::int64_t> expiresAt;
  if (auto at = request.find("expiresAt"); at != request.end() && !at->is_null()) {
    if (!at->is_number_integer() || at->get<std::int64_t>() <= now)
      throw invalidInput("expiresAt - must be a time in the future");
    expiresAt = at->get<std::int64_t>();
  }
  if (auto in = request.find("expiresIn"); in != request.end() && !in->is_null()) {
    if (!in->is_number_integer() || in->get<std::int64_t>() <= 0)
      throw invalidInput("expiresIn - must be more than 0 seconds");
    expiresAt = now + in->get<std::int64_t>() * 1000;
  }
  const std::string token = randomHex(20);
  service.db.transaction([&](Connection& conn) {
    auto target = resolve(service, call, conn, appID, address, Need::Write);
    if (!findBody(conn, target.bucket.key, target.object.id)) throw bodyNotFound();
    insertPublication(conn, token, target.bucket.key, target.object.id, expiresAt);
  });
  nlohmann::json answer = {{"url", service.publicBaseURL() + "/public/bodies/" + token}};
  if (expiresAt) answer["expiresAt"] = *expiresAt;
  call.reply(200, answer);
}

void getPublished(Service& service, Call& call) {
  auto& store = files(service);
  const std::string& token = call.param(0);
  auto body = service.db.transaction([&](Connection& conn) {
    auto publication = findPublication(conn, token);
    if (!publication) throw bodyNotFound();
    if (publication->expiresAt && *publication->expiresAt <= Service::now())
      throw ApiError(403, "PUBLIC_URL_EXPIRED", "The link has expired");
    auto found = findBody(conn, publication->bucketKey, publication->objectID);
    if (!found) throw bodyNotFound();
    return *found;
  });
  sendBody(call, store, body);
}

// ---------------------------------------------------------------- chunked uploads

// One chunk at a time per session: two would write the same part file.
std::mutex& sessionLock(const std::string& id) {
  static std::mutex guard;
  static std::map<std::string, std::weak_ptr<std::mutex>> locks;
  static thread_local std::shared_ptr<std::mutex> held;
  std::lock_guard lock(guard);
  auto& slot = locks[id];
  held = slot.lock();
  if (!held) {
    held = std::make_shared<std::mutex>();
    slot = held;
  }
  return *held;
}

std::optional<std::string> ownerOf(const BucketContext& context) {
  if (!context.requester.user) return std::nullopt;
  return context.requester.user->userID;
}

// The session a path names, for its object and the user who opened it; 404 otherwise.
UploadRow sessionOf(Connection& conn, const Target& target, const std::string& id) {
  auto upload = findUpload(conn, id);
  if (!upload || upload->bucketKey != target.bucket.key || upload->objectID != target.object.id ||
      upload->owner != ownerOf(target.context) || upload->expiresAt <= Service::now())
    throw uploadNotFound();
  return *upload;
}

nlohmann::json sessionJSON(const UploadRow& u) {
  return {{"uploadID", u.id},
          {"size", u.size},
          {"received", u.received},
          {"contentType", u.contentType},
          {"expiresAt", u.expiresAt}};
}

void openUpload(Service& service, Call& call, const std::string& appID,
                const BucketAddress& address, std::uint64_t limit) {
  auto& store = files(service);
  call.requireMediaType({kUploadRequest, "application/json"});
  auto request = call.jsonObject();
  auto size = request.find("size");
  if (size == request.end() || !size->is_number_integer() || size->get<std::int64_t>() < 0)
    throw invalidInput("size - must be the body's size in bytes");
  if (size->get<std::uint64_t>() > limit) throw bodyTooLarge();
  UploadRow upload;
  upload.id = randomHex(16);
  upload.contentType = optionalString(request, "contentType").value_or("application/octet-stream");
  upload.size = size->get<std::int64_t>();
  upload.partFile = store.newName();
  upload.expiresAt = Service::now() + kUploadLifetimeMs;
  {
    File part(
        ::open(store.path(upload.partFile).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (part.fd < 0) throw ApiError(507, "INSUFFICIENT_STORAGE", "The body could not be stored");
  }
  std::vector<std::string> expired;
  try {
    service.db.transaction([&](Connection& conn) {
      auto target = resolve(service, call, conn, appID, address, Need::Write);
      upload.bucketKey = target.bucket.key;
      upload.objectID = target.object.id;
      upload.owner = ownerOf(target.context);
      expired = expireUploads(conn, Service::now());
      insertUpload(conn, upload);
    });
  } catch (...) {
    store.remove(upload.partFile);
    throw;
  }
  store.remove(expired);
  call.reply(201, sessionJSON(upload));
}

// "bytes A-B/N".
struct ContentRange {
  std::int64_t first = 0, last = 0, total = 0;
};
ContentRange contentRangeOf(const Call& call) {
  auto header = call.header("Content-Range").value_or("");
  ContentRange r;
  const char* p = header.c_str();
  const char* end = p + header.size();
  auto bad = [] { return invalidInput("Content-Range - must be bytes FIRST-LAST/SIZE"); };
  if (!header.starts_with("bytes ")) throw bad();
  p += 6;
  auto a = std::from_chars(p, end, r.first);
  if (a.ec != std::errc() || a.ptr == end || *a.ptr != '-') throw bad();
  auto b = std::from_chars(a.ptr + 1, end, r.last);
  if (b.ec != std::errc() || b.ptr == end || *b.ptr != '/') throw bad();
  auto c = std::from_chars(b.ptr + 1, end, r.total);
  if (c.ec != std::errc() || c.ptr != end || r.first < 0 || r.last < r.first || r.total <= r.last)
    throw bad();
  return r;
}

void putChunk(Service& service, Call& call, const std::string& appID,
              const BucketAddress& address) {
  auto& store = files(service);
  const std::string& id = call.param(address.next + 1);
  const auto range = contentRangeOf(call);
  std::lock_guard serial(sessionLock(id));
  auto upload = service.db.transaction([&](Connection& conn) {
    auto target = resolve(service, call, conn, appID, address, Need::Write);
    return sessionOf(conn, target, id);
  });
  if (range.total != upload.size)
    throw invalidInput("Content-Range - the size is not the session's");
  if (range.first != upload.received) {
    throw ApiError(409, "UPLOAD_OFFSET_MISMATCH", "The chunk does not start where the session is",
                   {{"received", upload.received}});
  }
  File part(::open(store.path(upload.partFile).c_str(), O_WRONLY | O_CLOEXEC));
  if (part.fd < 0) throw uploadNotFound();
  // Whatever a cut chunk left past the confirmed bytes goes first.
  auto rewind = [&] { (void)::ftruncate(part.fd, static_cast<off_t>(upload.received)); };
  rewind();
  if (::lseek(part.fd, static_cast<off_t>(upload.received), SEEK_SET) < 0) throw uploadNotFound();
  Received received;
  try {
    receiveInto(call, part.fd, received);
    if (received.bytes != static_cast<std::uint64_t>(range.last - range.first + 1))
      throw invalidInput("The chunk's length is not the one its Content-Range gives");
    if (auto digest = call.header("Content-MD5"); digest && *digest != base64(received.md5.raw()))
      throw ApiError(400, "CHUNK_DIGEST_MISMATCH", "The chunk's bytes do not match its MD5");
    service.db.transaction([&](Connection& conn) {
      auto now = findUpload(conn, id);
      if (!now || now->received != upload.received) throw uploadNotFound();
      setUploadReceived(conn, id, range.last + 1);
    });
  } catch (...) {
    rewind();
    throw;
  }
  call.reply(200, {{"received", range.last + 1}});
}

void uploadState(Service& service, Call& call, const std::string& appID,
                 const BucketAddress& address) {
  const std::string& id = call.param(address.next + 1);
  auto upload = service.db.transaction([&](Connection& conn) {
    auto target = resolve(service, call, conn, appID, address, Need::Write);
    return sessionOf(conn, target, id);
  });
  call.reply(200, sessionJSON(upload));
}

void completeUpload(Service& service, Call& call, const std::string& appID,
                    const BucketAddress& address) {
  auto& store = files(service);
  const std::string& id = call.param(address.next + 1);
  std::lock_guard serial(sessionLock(id));
  auto upload = service.db.transaction([&](Connection& conn) {
    auto target = resolve(service, call, conn, appID, address, Need::Write);
    return sessionOf(conn, target, id);
  });
  if (upload.received != upload.size) {
    throw ApiError(409, "UPLOAD_INCOMPLETE", "The session has not received the whole body",
                   {{"received", upload.received}});
  }
  // The digest of the whole body, read back from the disk it was confirmed on.
  Md5 md5;
  {
    File part(::open(store.path(upload.partFile).c_str(), O_RDONLY | O_CLOEXEC));
    if (part.fd < 0) throw uploadNotFound();
    std::vector<char> buffer(1 << 20);
    std::int64_t total = 0;
    ssize_t n;
    while ((n = ::read(part.fd, buffer.data(), buffer.size())) > 0) {
      md5.add(buffer.data(), static_cast<std::size_t>(n));
      total += n;
    }
    if (n < 0 || total != upload.size)
      throw ApiError(500, "INTERNAL_SERVER_ERROR", "The session's bytes could not be read back");
  }
  BodyRow body{upload.partFile, upload.contentType, md5.hexDigest(), upload.size};
  std::optional<std::string> replaced;
  std::int64_t modified = 0;
  service.db.transaction([&](Connection& conn) {
    auto target = resolve(service, call, conn, appID, address, Need::Write);
    sessionOf(conn, target, id);
    deleteUpload(conn, id);
    replaced = storeBody(conn, target.bucket.key, target.object.id, body);
    modified = touch(conn, target.bucket, target.object);
  });
  if (replaced) store.remove(*replaced);
  call.setHeader("ETag", etagHeader(body.md5));
  call.reply(200, {{"modifiedAt", modified}, {"size", body.size}, {"etag", body.md5}});
}

void abandonUpload(Service& service, Call& call, const std::string& appID,
                   const BucketAddress& address) {
  auto& store = files(service);
  const std::string& id = call.param(address.next + 1);
  std::lock_guard serial(sessionLock(id));
  auto upload = service.db.transaction([&](Connection& conn) {
    auto target = resolve(service, call, conn, appID, address, Need::Write);
    auto found = sessionOf(conn, target, id);
    deleteUpload(conn, id);
    return found;
  });
  store.remove(upload.partFile);
  call.replyNoContent();
}

// "/.../objects/ID/body" and "/.../objects/ID/body/uploads/UPLOAD" take their body as a stream.
bool streamsBody(const httplib::Request& req) {
  if (req.method != "PUT") return false;
  auto segments = pathSegments(req.path);
  const auto n = segments.size();
  if (n >= 3 && segments[n - 1] == "body" && segments[n - 3] == "objects") return true;
  return n >= 5 && segments[n - 2] == "uploads" && segments[n - 3] == "body" &&
         segments[n - 5] == "objects";
}

}  // namespace

void addBodyRoutes(Router& router, Service& service) {
  const std::uint64_t maxBodySize = service.settings.maxBodySize;
  router.setStreamingRule(streamsBody);
  auto route = [&router, &service](const char* method, const char* suffix, auto handler) {
    addBucketRoute(
        router, service, method, suffix,
        [&service, handler](Call& call, const std::string& app, const BucketAddress& address) {
          requireObjectID(call.param(address.next));
          handler(service, call, app, address);
        });
  };
  route("PUT", "/objects/{}/body", putBody);
  route("GET", "/objects/{}/body", getBody);
  route("DELETE", "/objects/{}/body", removeBody);
  route("POST", "/objects/{}/body/publish", publishBody);
  route("POST", "/objects/{}/body/uploads",
        [maxBodySize](Service& s, Call& c, const std::string& app, const BucketAddress& a) {
          openUpload(s, c, app, a, maxBodySize);
        });
  route("PUT", "/objects/{}/body/uploads/{}", putChunk);
  route("GET", "/objects/{}/body/uploads/{}", uploadState);
  route("DELETE", "/objects/{}/body/uploads/{}", abandonUpload);
  route("POST", "/objects/{}/body/uploads/{}/complete", completeUpload);
  router.add("GET", "/public/bodies/{}", [&service](Call& call) { getPublished(service, call); });
}

}  // namespace jovemu
