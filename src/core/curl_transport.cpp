// The libcurl transport.
//
// Blocking exchanges run curl_easy_perform on the caller's thread with an easy handle from a
// pool; asynchronous ones are added to the I/O loop's multi handle, which shares its
// connections between every exchange in flight. Handles keep their options between requests:
// only what differs from one request to the next is set again. DNS answers and TLS sessions are
// shared by every handle.
//
// libcurl sends a request again on a new connection when a reused one was closed by the server
// after it read the request but before it answered. That is harmless for a GET and wrong for a
// POST, which the service may have acted on: a request that is not idempotent is allowed one
// attempt (the pre-request callback runs once per attempt and refuses the second), so that the
// caller gets 201 and decides. Opening a fresh connection for every POST would avoid the replay
// too, but costs a TCP and TLS handshake each time; refusing the rare replay costs nothing.

#include <curl/curl.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "core/atomic_file.hpp"
#include "core/io_loop.hpp"
#include "jov/application.hpp"
#include "jov/detail/task.hpp"
#include "jov/transport.hpp"

namespace jov {

namespace {

using Clock = std::chrono::steady_clock;

class CurlRequest;

// What a pooled handle remembers: the request it serves now, and the settings it was last
// given, so that unchanged ones are not set again.
struct HandleContext {
  CURL* easy = nullptr;
  CurlRequest* request = nullptr;
  std::string caFile;
  long connectTimeoutMs = -1;
  long idleSeconds = -1;
  bool progress = false;
  // The header list the handle was last given, and the headers it was built from: a request
  // with the same headers as the one before (the common case) reuses it.
  JovHeaders headers;
  bool expectLine = false;  // the list ends with "Expect:"
  curl_slist* headerList = nullptr;
  // The URL the handle was last given, parsed (null when libcurl was left to parse it).
  CURLU* url = nullptr;
  std::string urlText;
  char errorBuffer[CURL_ERROR_SIZE] = {0};
};

void destroy(HandleContext* context) {
  curl_easy_cleanup(context->easy);
  curl_slist_free_all(context->headerList);
  curl_url_cleanup(context->url);
  delete context;
}

class Share {
 public:
  Share() {
    detail::curlGlobalInit();
    share_ = curl_share_init();
    curl_share_setopt(share_, CURLSHOPT_LOCKFUNC, &Share::lock);
    curl_share_setopt(share_, CURLSHOPT_UNLOCKFUNC, &Share::unlock);
    curl_share_setopt(share_, CURLSHOPT_USERDATA, this);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  }
  Share(const Share&) = delete;
  Share& operator=(const Share&) = delete;
  CURLSH* get() const { return share_; }

 private:
  static void lock(CURL*, curl_lock_data data, curl_lock_access, void* self) {
    static_cast<Share*>(self)->locks_[index(data)].lock();
  }
  static void unlock(CURL*, curl_lock_data data, void* self) {
    static_cast<Share*>(self)->locks_[index(data)].unlock();
  }
  static std::size_t index(curl_lock_data data) {
    auto i = static_cast<std::size_t>(data);
    return i < static_cast<std::size_t>(CURL_LOCK_DATA_LAST) ? i : 0;
  }
  std::array<std::mutex, CURL_LOCK_DATA_LAST> locks_;
  CURLSH* share_ = nullptr;
};

// Idle handles, most recently used last: that one holds the warmest connection.
class HandlePool {
 public:
  HandlePool(CURLSH* share, std::size_t maxIdle) : share_(share), maxIdle_(maxIdle) {}

  HandleContext* acquire();
  void release(HandleContext* context) {
    context->request = nullptr;
    std::lock_guard guard(mutex_);
    if (idle_.size() < maxIdle_) {
      idle_.push_back(context);
      return;
    }
    destroy(context);
  }

 private:
  CURLSH* share_;
  std::size_t maxIdle_;
  std::mutex mutex_;
  std::vector<HandleContext*> idle_;
};

class CurlRequest final : public JovURLRequest, public detail::LoopTransfer {
 public:
  CurlRequest(HandlePool& syncPool, HandlePool& asyncPool, std::string url)
      : JovURLRequest(std::move(url)), syncPool_(syncPool), asyncPool_(asyncPool) {
    // A downloaded body is a copy of the service's: written through the page cache, as curl -o
    // writes, and renamed into place only whole. Waiting for a gigabyte to reach the disk would
    // halve the download's speed to guard against a system crash the service's copy survives.
    download_.setDurable(false);
  }

  void sendRequest() override {
    if (prepare(syncPool_)) complete(curl_easy_perform(context_->easy));
  }

  void sendRequestAsync(std::function<void()> done) override {
    if (!prepare(asyncPool_)) {
      detail::submitToWorker(std::move(done));
      return;
    }
    done_ = std::move(done);
    // The loop holds the request until it is done.
    self_ = std::static_pointer_cast<CurlRequest>(shared_from_this());
    loopEasy_ = context_->easy;
    detail::IoLoop::instance().add(this);
  }

  void cancelRequest() override {
    // Sent to the loop, which ignores a transfer that already finished.
    if (auto self = weak_from_this().lock())
      detail::IoLoop::instance().cancel(std::static_pointer_cast<CurlRequest>(self));
  }

  // The handle this request was added to the loop with (the loop asks even after it ended).
  CURL* easyHandle() override { return loopEasy_; }
  void transferDone(CURLcode code) override {
    if (code == CURLE_ABORTED_BY_CALLBACK && !idleExpired_ && !fileFailed_ && !replayRefused_)
      cancelled_ = true;
    complete(code);
    auto done = std::move(done_);
    auto keep = std::move(self_);
    if (done) done();
  }

  static size_t onHeader(char* data, size_t size, size_t count, void* ctx);
  static size_t onWrite(char* data, size_t size, size_t count, void* ctx);
  static size_t onRead(char* data, size_t size, size_t count, void* ctx);
  static int onProgress(void* ctx, curl_off_t, curl_off_t dlnow, curl_off_t, curl_off_t ulnow);
  static int onPrereq(void* ctx, char*, char*, int, int);
  static int onSeek(void* ctx, curl_off_t offset, int origin);

 private:
  bool prepare(HandlePool& pool);
  void complete(CURLcode code);
  bool headersEnded();
  bool keep(const char* data, size_t n);

  HandlePool& syncPool_;
  HandlePool& asyncPool_;
  HandlePool* pool_ = nullptr;
  HandleContext* context_ = nullptr;
  CURL* loopEasy_ = nullptr;
  std::function<void()> done_;
  std::shared_ptr<CurlRequest> self_;
  std::FILE* uploadFile_ = nullptr;
  detail::AtomicFileWriter download_;
  bool toFile_ = false;  // the current response body goes to the download file
  bool fileFailed_ = false;
  bool cancelled_ = false;
  bool started_ = false;         // the first byte of the current response body arrived
  bool sendOnce_ = false;        // not idempotent: one attempt only
  bool replayRefused_ = false;   // libcurl was about to send it a second time
  int attempts_ = 0;             // pre-request callbacks of this exchange
  std::int64_t announced_ = -1;  // Content-Length of the current response, when given
  std::int64_t received_ = 0;
  std::int64_t expected_ = -1;
  curl_off_t lastDown_ = 0, lastUp_ = 0;
  Clock::time_point lastActivity_;
  std::chrono::milliseconds idleLimit_{0};
  bool idleExpired_ = false;
};

HandleContext* HandlePool::acquire() {
  {
    std::lock_guard guard(mutex_);
    if (!idle_.empty()) {
      HandleContext* context = idle_.back();
      idle_.pop_back();
      return context;
    }
  }
  CURL* easy = curl_easy_init();
  if (easy == nullptr) return nullptr;
  auto* context = new HandleContext();
  context->easy = easy;
  // What never changes from one request to the next is set once, here.
  curl_easy_setopt(easy, CURLOPT_SHARE, share_);
  curl_easy_setopt(easy, CURLOPT_PRIVATE, context);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, context->errorBuffer);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  // Request paths go out exactly as formed: "/groups/." must not become "/groups/".
  curl_easy_setopt(easy, CURLOPT_PATH_AS_IS, 1L);
  // No Accept-Encoding: the API's bodies are small JSON, and a server compressing each answer
  // on the fly spends more time than the bytes saved.
  curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &CurlRequest::onHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, context);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &CurlRequest::onWrite);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, context);
  curl_easy_setopt(easy, CURLOPT_READFUNCTION, &CurlRequest::onRead);
  curl_easy_setopt(easy, CURLOPT_READDATA, context);
  curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &CurlRequest::onProgress);
  curl_easy_setopt(easy, CURLOPT_XFERINFODATA, context);
  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 1L);
  curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, &CurlRequest::onPrereq);
  curl_easy_setopt(easy, CURLOPT_PREREQDATA, context);
  curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, &CurlRequest::onSeek);
  curl_easy_setopt(easy, CURLOPT_SEEKDATA, context);
  return context;
}

// libcurl parses a URL given as a string on every transfer and prints it back whole; one given
// already parsed costs it a third of that, and the same one again (a poll, a refresh) nothing.
// The string is set as well: it is the URL libcurl reports. A URL this parse refuses is left to
// libcurl, whose transfer then fails with its own message.
void setURL(HandleContext& c, const std::string& url) {
  curl_easy_setopt(c.easy, CURLOPT_URL, url.c_str());
  if (c.url != nullptr && c.urlText == url) return;
  // A handle in use is cleared first: a URL set on one that holds a URL is read relative to it.
  if (c.url == nullptr)
    c.url = curl_url();
  else
    curl_url_set(c.url, CURLUPART_URL, nullptr, 0);
  // The flags libcurl parses a string URL with; "/groups/." stays as it is.
  const unsigned flags = CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME | CURLU_PATH_AS_IS;
  if (c.url != nullptr && curl_url_set(c.url, CURLUPART_URL, url.c_str(), flags) == CURLUE_OK) {
    c.urlText = url;
    curl_easy_setopt(c.easy, CURLOPT_CURLU, c.url);
    return;
  }
  curl_url_cleanup(c.url);
  c.url = nullptr;
  curl_easy_setopt(c.easy, CURLOPT_CURLU, nullptr);
}

CurlRequest* requestOf(void* ctx) {
  return static_cast<HandleContext*>(ctx)->request;
}

size_t CurlRequest::onHeader(char* data, size_t size, size_t count, void* ctx) {
  CurlRequest* r = requestOf(ctx);
  const size_t n = size * count;
  size_t length = n;
  while (length > 0 && (data[length - 1] == '\r' || data[length - 1] == '\n')) --length;
  if (length >= 5 && std::memcmp(data, "HTTP/", 5) == 0) {
    // A new response begins (after 100 Continue, for instance): forget the previous one's.
    r->responseHeaders_.clear();
    r->responseData_.clear();
    r->received_ = 0;
    r->started_ = false;
    r->announced_ = -1;
    return n;
  }
  if (length == 0) return r->headersEnded() ? n : 0;
  const void* colon = std::memchr(data, ':', length);
  if (colon == nullptr) return n;
  const size_t nameLength = static_cast<size_t>(static_cast<const char*>(colon) - data);
  if (nameLength == 14 && strncasecmp(data, "Content-Length", 14) == 0) {
    char* end = nullptr;
    std::string value(static_cast<const char*>(colon) + 1, length - nameLength - 1);
    long long announced = std::strtoll(value.c_str(), &end, 10);
    if (end != value.c_str() && announced >= 0) r->announced_ = announced;
  }
  if (!r->keepsHeader(data, nameLength)) return n;
  size_t valueStart = nameLength + 1;
  while (valueStart < length && (data[valueStart] == ' ' || data[valueStart] == '\t')) ++valueStart;
  r->responseHeaders_.emplace_back(std::string(data, nameLength),
                                   std::string(data + valueStart, length - valueStart));
  return n;
}

size_t CurlRequest::onWrite(char* data, size_t size, size_t count, void* ctx) {
  CurlRequest* r = requestOf(ctx);
  const size_t n = size * count;
  if (!r->started_) {
    r->started_ = true;
    CURL* easy = r->context_->easy;
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    curl_off_t length = -1;
    curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    r->expected_ = length;
    r->toFile_ = r->downloadFile_ && status >= 200 && status <= 299;
    if (r->toFile_ && !r->download_.isOpen() && !r->download_.open(*r->downloadFile_)) {
      r->fileFailed_ = true;
      r->localFailure_ = true;
      return 0;  // aborts the transfer
    }
    // One allocation for bodies of a known size, so a large body is not copied as it grows.
    if (!r->toFile_ && length > 0 && length < (std::int64_t{1} << 31) &&
        (r->maxResponseSize_ == 0 || static_cast<size_t>(length) <= r->maxResponseSize_))
      r->responseData_.reserve(static_cast<size_t>(length));
  }
  if (r->toFile_) {
    if (!r->download_.write(data, n)) {
      r->fileFailed_ = true;
      r->localFailure_ = true;
      return 0;
    }
  } else if (!r->keep(data, n)) {
    return 0;
  }
  r->received_ += static_cast<std::int64_t>(n);
  if (r->onReceived_) r->reportReceived(r->received_, r->expected_);
  return n;
}

size_t CurlRequest::onRead(char* data, size_t size, size_t count, void* ctx) {
  CurlRequest* r = requestOf(ctx);
  size_t n = std::fread(data, 1, size * count, r->uploadFile_);
  if (n == 0 && std::ferror(r->uploadFile_)) return CURL_READFUNC_ABORT;
  return n;
}

int CurlRequest::onProgress(void* ctx, curl_off_t, curl_off_t dlnow, curl_off_t, curl_off_t ulnow) {
  CurlRequest* r = requestOf(ctx);
  auto now = Clock::now();
  if (ulnow != r->lastUp_) r->reportSent(ulnow);
  if (dlnow != r->lastDown_ || ulnow != r->lastUp_) {
    r->lastDown_ = dlnow;
    r->lastUp_ = ulnow;
    r->lastActivity_ = now;
    return 0;
  }
  if (r->idleLimit_.count() > 0 && now - r->lastActivity_ >= r->idleLimit_) {
    r->idleExpired_ = true;
    return 1;  // aborts the transfer
  }
  return 0;
}

int CurlRequest::onPrereq(void* ctx, char*, char*, int, int) {
  CurlRequest* r = requestOf(ctx);
  if (++r->attempts_ > 1 && r->sendOnce_) {
    r->replayRefused_ = true;
    return CURL_PREREQFUNC_ABORT;
  }
  return CURL_PREREQFUNC_OK;
}

// Rewinds a body file for a request libcurl sends again (only idempotent ones get that far).
int CurlRequest::onSeek(void* ctx, curl_off_t offset, int origin) {
  CurlRequest* r = requestOf(ctx);
  if (r->uploadFile_ == nullptr) return CURL_SEEKFUNC_CANTSEEK;
  return fseeko(r->uploadFile_, static_cast<off_t>(offset), origin) == 0 ? CURL_SEEKFUNC_OK
                                                                         : CURL_SEEKFUNC_FAIL;
}

// The end of a response's headers: a body kept in memory that announces more than the limit is
// refused before a byte of it is read.
bool CurlRequest::headersEnded() {
  if (maxResponseSize_ == 0 || method_ == "HEAD" || announced_ < 0) return true;
  long status = 0;
  curl_easy_getinfo(context_->easy, CURLINFO_RESPONSE_CODE, &status);
  if (status < 200) return true;  // an interim answer (100 Continue); the real one follows
  if (downloadFile_ && status <= 299) return true;
  if (static_cast<std::uint64_t>(announced_) <= maxResponseSize_) return true;
  responseTooLarge_ = true;
  return false;
}

// Appends a piece of an in-memory body. Growth is by half the size, with a fresh buffer each
// time (libstdc++'s reserve would double it): while a buffer of c bytes is copied into one of
// 1.5c, at most 2.5 times the body is allocated.
bool CurlRequest::keep(const char* data, size_t n) {
  const size_t size = responseData_.size();
  if (maxResponseSize_ != 0 && size + n > maxResponseSize_) {
    responseTooLarge_ = true;
    return false;
  }
  if (size + n > responseData_.capacity()) {
    size_t wanted = std::max(size + n, std::max<size_t>(size + size / 2, 16384));
    if (maxResponseSize_ != 0) wanted = std::min(wanted, maxResponseSize_);
    std::string grown;
    grown.reserve(wanted);
    grown.append(responseData_);
    responseData_.swap(grown);
  }
  responseData_.append(data, n);
  return true;
}

bool CurlRequest::prepare(HandlePool& pool) {
  responseCode_ = 0;
  responseHeaders_.clear();
  responseError_.reset();
  responseData_.clear();
  received_ = 0;
  expected_ = -1;
  idleExpired_ = fileFailed_ = toFile_ = cancelled_ = started_ = false;
  responseTooLarge_ = localFailure_ = replayRefused_ = false;
  attempts_ = 0;
  announced_ = -1;
  sendOnce_ = !isIdempotent();

  context_ = pool.acquire();
  if (context_ == nullptr) {
    responseError_ = "unable to create an HTTP handle";
    return false;
  }
  pool_ = &pool;
  context_->request = this;
  context_->errorBuffer[0] = '\0';
  CURL* easy = context_->easy;

  if (bodyFile_) {
    uploadFile_ = std::fopen(bodyFile_->c_str(), "rb");
    if (uploadFile_ == nullptr) {
      responseError_ = "cannot read " + bodyFile_->string();
      localFailure_ = true;
      pool_->release(context_);
      context_ = nullptr;
      return false;
    }
  }

  // Settings of the application, set again only when they changed.
  const std::string caFile = Jov::caFile();
  if (caFile != context_->caFile) {
    curl_easy_setopt(easy, CURLOPT_CAINFO, caFile.empty() ? nullptr : caFile.c_str());
    context_->caFile = caFile;
  }
  const long connectMs = static_cast<long>(Jov::connectTimeout().count());
  if (connectMs != context_->connectTimeoutMs) {
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, connectMs);
    context_->connectTimeoutMs = connectMs;
  }
  // The idle limit: whole seconds are libcurl's own low-speed check (no byte for that long);
  // a limit below a second needs the progress callback, which costs a call per tick.
  idleLimit_ = Jov::idleTimeout();
  const bool subSecond = idleLimit_.count() > 0 && idleLimit_.count() % 1000 != 0;
  const long idleSeconds = subSecond ? 0 : static_cast<long>(idleLimit_.count() / 1000);
  if (idleSeconds != context_->idleSeconds) {
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, idleSeconds > 0 ? 1L : 0L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, idleSeconds);
    context_->idleSeconds = idleSeconds;
  }
  const bool progress = subSecond || onSent_ || onReceived_;
  if (progress != context_->progress) {
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, progress ? 0L : 1L);
    context_->progress = progress;
  }

  setURL(*context_, url_);

  // Method and body. HTTPGET resets what a previous request left (upload, no-body, POST).
  curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  const char* custom = method_.c_str();
  if (method_ == "HEAD") {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    custom = nullptr;
  } else if (bodyFile_) {
    std::error_code ec;
    auto size = std::filesystem::file_size(*bodyFile_, ec);
    curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(easy, CURLOPT_INFILESIZE_LARGE,
                     ec ? static_cast<curl_off_t>(-1) : static_cast<curl_off_t>(size));
    if (method_ == "PUT") custom = nullptr;
  } else if (!body_.empty()) {
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body_.size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body_.data());
    if (method_ == "POST") custom = nullptr;
  } else if (method_ == "GET") {
    custom = nullptr;
  } else if (method_ == "POST" || method_ == "PUT" || method_ == "PATCH") {
    // An empty body still goes out as one, with its length.
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(0));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, "");
    if (method_ == "POST") custom = nullptr;
  }
  // A GET with a body stays a GET: the custom method keeps libcurl from turning it into a POST.
  curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, custom);

  // Headers, spelled as given. "Expect:" keeps curl from waiting for 100 Continue.
  // Only a request with a body could wait for 100 Continue.
  const bool withBody = bodyFile_ || !body_.empty();
  if (context_->headerList == nullptr || context_->headers != headers_ ||
      context_->expectLine != withBody) {
    curl_slist* list = nullptr;
    std::string line;
    for (const auto& [field, value] : headers_) {
      line.assign(field).append(value.empty() ? ";" : ": ").append(value);
      list = curl_slist_append(list, line.c_str());
    }
    if (withBody) list = curl_slist_append(list, "Expect:");
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, list);
    curl_slist_free_all(context_->headerList);
    context_->headerList = list;
    context_->headers = headers_;
    context_->expectLine = withBody;
  }

  lastActivity_ = Clock::now();
  lastDown_ = lastUp_ = 0;
  return true;
}

void CurlRequest::complete(CURLcode code) {
  CURL* easy = context_->easy;
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);

  if (code != CURLE_OK && responseTooLarge_) {
    // Not a failure of the connection: the answer came, larger than the caller accepts.
    responseCode_ = static_cast<int>(status);
    download_.discard();
  } else if (code != CURLE_OK) {
    if (cancelled_) {
      responseError_ = "cancelled";
    } else if (idleExpired_ || code == CURLE_OPERATION_TIMEDOUT) {
      responseError_ = "no data for " + std::to_string(idleLimit_.count()) + " ms";
    } else if (fileFailed_) {
      responseError_ = "cannot write the download: " + download_.error();
    } else if (replayRefused_) {
      responseError_ =
          "the connection closed before an answer came, and a " + method_ + " is not sent twice";
    } else {
      responseError_ =
          std::string(curl_easy_strerror(code)) +
          (context_->errorBuffer[0] ? std::string(": ") + context_->errorBuffer : std::string());
    }
    download_.discard();
  } else {
    responseCode_ = static_cast<int>(status);
    if (toFile_ || (downloadFile_ && status >= 200 && status <= 299)) {
      // An empty 2xx body still produces the (empty) file.
      if (!download_.isOpen() && !download_.open(*downloadFile_)) {
        responseError_ = "cannot write the download: " + download_.error();
        localFailure_ = true;
      } else if (!download_.commit()) {
        responseError_ = "cannot write the download: " + download_.error();
        localFailure_ = true;
      }
    }
  }

  if (uploadFile_) {
    std::fclose(uploadFile_);
    uploadFile_ = nullptr;
  }
  pool_->release(context_);
  context_ = nullptr;
}

class CurlRequestFactory final : public JovURLRequestFactory {
 public:
  std::unique_ptr<JovURLRequest> requestWithURL(const std::string& url) override {
    return std::make_unique<CurlRequest>(syncPool_, asyncPool_, url);
  }

 private:
  // One set of handles for the process, never destroyed: a request in flight may return its
  // handle after the application replaced the factory, or while the process exits.
  static Share& share() {
    static auto* s = new Share();
    return *s;
  }
  static HandlePool& pool(bool async) {
    static auto* syncPool = new HandlePool(share().get(), 64);
    static auto* asyncPool = new HandlePool(share().get(), 256);
    return async ? *asyncPool : *syncPool;
  }
  HandlePool& syncPool_ = pool(false);
  HandlePool& asyncPool_ = pool(true);
};

}  // namespace

std::shared_ptr<JovURLRequestFactory> makeCurlRequestFactory() {
  return std::make_shared<CurlRequestFactory>();
}

}  // namespace jov
