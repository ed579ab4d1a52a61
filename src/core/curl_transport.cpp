// The libcurl transport.
//
// Easy handles are pooled per factory: a finished handle goes back to the pool with its live
// connections, so the next request to the same host reuses one instead of opening another.
// DNS answers and TLS sessions are shared between all handles of the factory.

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <vector>

#include "core/atomic_file.hpp"
#include "jov/application.hpp"
#include "jov/logger.hpp"
#include "jov/transport.hpp"

namespace jov {

namespace {

using Clock = std::chrono::steady_clock;

void globalInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

class CurlPool {
 public:
  CurlPool() {
    globalInit();
    share_ = curl_share_init();
    curl_share_setopt(share_, CURLSHOPT_LOCKFUNC, &CurlPool::lock);
    curl_share_setopt(share_, CURLSHOPT_UNLOCKFUNC, &CurlPool::unlock);
    curl_share_setopt(share_, CURLSHOPT_USERDATA, this);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  }
  ~CurlPool() {
    for (CURL* h : idle_) curl_easy_cleanup(h);
    curl_share_cleanup(share_);
  }
  CurlPool(const CurlPool&) = delete;
  CurlPool& operator=(const CurlPool&) = delete;

  CURL* acquire() {
    {
      std::lock_guard guard(mutex_);
      if (!idle_.empty()) {
        CURL* h = idle_.back();  // the most recently used keeps the warmest connection
        idle_.pop_back();
        return h;
      }
    }
    return curl_easy_init();
  }

  void release(CURL* handle) {
    curl_easy_reset(handle);  // keeps the connection cache
    std::lock_guard guard(mutex_);
    if (idle_.size() < kMaxIdle) {
      idle_.push_back(handle);
      return;
    }
    curl_easy_cleanup(handle);
  }

  CURLSH* share() const { return share_; }

 private:
  static constexpr std::size_t kMaxIdle = 16;

  static void lock(CURL*, curl_lock_data data, curl_lock_access, void* self) {
    static_cast<CurlPool*>(self)->locks_[index(data)].lock();
  }
  static void unlock(CURL*, curl_lock_data data, void* self) {
    static_cast<CurlPool*>(self)->locks_[index(data)].unlock();
  }
  static std::size_t index(curl_lock_data data) {
    auto i = static_cast<std::size_t>(data);
    return i < kLocks ? i : 0;
  }

  static constexpr std::size_t kLocks = CURL_LOCK_DATA_LAST;
  std::array<std::mutex, kLocks> locks_;
  std::mutex mutex_;
  std::vector<CURL*> idle_;
  CURLSH* share_ = nullptr;
};

class CurlRequest final : public JovURLRequest {
 public:
  CurlRequest(std::shared_ptr<CurlPool> pool, std::string url)
      : JovURLRequest(std::move(url)), pool_(std::move(pool)) {}

  void sendRequest() override;

 private:
  static size_t onHeader(char* data, size_t size, size_t count, void* self);
  static size_t onWrite(char* data, size_t size, size_t count, void* self);
  static size_t onRead(char* data, size_t size, size_t count, void* self);
  static int onProgress(void* self, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal,
                        curl_off_t ulnow);

  std::shared_ptr<CurlPool> pool_;
  CURL* handle_ = nullptr;
  std::FILE* uploadFile_ = nullptr;
  detail::AtomicFileWriter download_;
  bool toFile_ = false;  // the current response body goes to the download file
  bool fileFailed_ = false;
  std::int64_t received_ = 0;
  std::int64_t expected_ = -1;
  curl_off_t lastDown_ = 0, lastUp_ = 0;
  Clock::time_point lastActivity_;
  std::chrono::milliseconds idleLimit_{0};
  bool idleExpired_ = false;
};

size_t CurlRequest::onHeader(char* data, size_t size, size_t count, void* self) {
  auto* r = static_cast<CurlRequest*>(self);
  size_t n = size * count;
  std::string line(data, n);
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
  if (line.rfind("HTTP/", 0) == 0) {
    // A new response begins (after 100 Continue, for instance): forget the previous one's.
    r->responseHeaders_.clear();
    r->responseData_.clear();
    r->received_ = 0;
    return n;
  }
  auto colon = line.find(':');
  if (colon != std::string::npos) {
    std::string value = line.substr(colon + 1);
    auto first = value.find_first_not_of(" \t");
    value = first == std::string::npos ? std::string() : value.substr(first);
    r->responseHeaders_.emplace_back(line.substr(0, colon), std::move(value));
  }
  return n;
}

size_t CurlRequest::onWrite(char* data, size_t size, size_t count, void* self) {
  auto* r = static_cast<CurlRequest*>(self);
  size_t n = size * count;
  if (r->received_ == 0) {
    long status = 0;
    curl_easy_getinfo(r->handle_, CURLINFO_RESPONSE_CODE, &status);
    curl_off_t length = -1;
    curl_easy_getinfo(r->handle_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    r->expected_ = length;
    r->toFile_ = r->downloadFile_ && status >= 200 && status <= 299;
    if (r->toFile_ && !r->download_.isOpen() && !r->download_.open(*r->downloadFile_)) {
      r->fileFailed_ = true;
      return 0;  // aborts the transfer
    }
    // One allocation for bodies of a known size, so a large body is not copied as it grows.
    if (!r->toFile_ && length > 0 && length < (std::int64_t{1} << 31))
      r->responseData_.reserve(static_cast<size_t>(length));
  }
  if (r->toFile_) {
    if (!r->download_.write(data, n)) {
      r->fileFailed_ = true;
      return 0;
    }
  } else {
    r->responseData_.append(data, n);
  }
  r->received_ += static_cast<std::int64_t>(n);
  r->reportReceived(r->received_, r->expected_);
  return n;
}

size_t CurlRequest::onRead(char* data, size_t size, size_t count, void* self) {
  auto* r = static_cast<CurlRequest*>(self);
  size_t n = std::fread(data, 1, size * count, r->uploadFile_);
  if (n == 0 && std::ferror(r->uploadFile_)) return CURL_READFUNC_ABORT;
  return n;
}

int CurlRequest::onProgress(void* self, curl_off_t, curl_off_t dlnow, curl_off_t,
                            curl_off_t ulnow) {
  auto* r = static_cast<CurlRequest*>(self);
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

void CurlRequest::sendRequest() {
  responseCode_ = 0;
  responseHeaders_.clear();
  responseError_.reset();
  responseData_.clear();
  received_ = 0;
  expected_ = -1;
  idleExpired_ = fileFailed_ = toFile_ = false;

  handle_ = pool_->acquire();
  if (handle_ == nullptr) {
    responseError_ = "unable to create an HTTP handle";
    return;
  }
  char errorBuffer[CURL_ERROR_SIZE] = {0};
  curl_easy_setopt(handle_, CURLOPT_ERRORBUFFER, errorBuffer);
  curl_easy_setopt(handle_, CURLOPT_SHARE, pool_->share());
  curl_easy_setopt(handle_, CURLOPT_URL, url_.c_str());
  curl_easy_setopt(handle_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle_, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  // No Accept-Encoding: the API's bodies are small JSON, and a server compressing each answer
  // on the fly spends more time than the bytes saved (brotli about 500 us, gzip about 25 us a
  // request on loopback).
  curl_easy_setopt(handle_, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(handle_, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(handle_, CURLOPT_SSL_VERIFYHOST, 2L);
  auto caFile = Jov::caFile();
  if (!caFile.empty()) curl_easy_setopt(handle_, CURLOPT_CAINFO, caFile.c_str());
  curl_easy_setopt(handle_, CURLOPT_CONNECTTIMEOUT_MS,
                   static_cast<long>(Jov::connectTimeout().count()));
  idleLimit_ = Jov::idleTimeout();

  // Method and body.
  if (method_ == "HEAD") {
    curl_easy_setopt(handle_, CURLOPT_NOBODY, 1L);
  } else if (method_ != "GET" || !body_.empty() || bodyFile_) {
    // A body would otherwise turn the request into a POST (or, from a file, a PUT).
    curl_easy_setopt(handle_, CURLOPT_CUSTOMREQUEST, method_.c_str());
  }
  if (bodyFile_) {
    uploadFile_ = std::fopen(bodyFile_->c_str(), "rb");
    if (uploadFile_ == nullptr) {
      responseError_ = "cannot read " + bodyFile_->string();
      pool_->release(handle_);
      handle_ = nullptr;
      return;
    }
    std::error_code ec;
    auto size = std::filesystem::file_size(*bodyFile_, ec);
    curl_easy_setopt(handle_, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(handle_, CURLOPT_READFUNCTION, &CurlRequest::onRead);
    curl_easy_setopt(handle_, CURLOPT_READDATA, this);
    if (!ec) curl_easy_setopt(handle_, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(size));
  } else if (!body_.empty()) {
    curl_easy_setopt(handle_, CURLOPT_POSTFIELDS, body_.data());
    curl_easy_setopt(handle_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body_.size()));
  }

  // Headers, spelled as given. "Expect:" keeps curl from waiting for 100 Continue.
  curl_slist* list = nullptr;
  for (const auto& [field, value] : headers_) {
    std::string line = value.empty() ? field + ";" : field + ": " + value;
    list = curl_slist_append(list, line.c_str());
  }
  list = curl_slist_append(list, "Expect:");
  curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, list);

  curl_easy_setopt(handle_, CURLOPT_HEADERFUNCTION, &CurlRequest::onHeader);
  curl_easy_setopt(handle_, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(handle_, CURLOPT_WRITEFUNCTION, &CurlRequest::onWrite);
  curl_easy_setopt(handle_, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(handle_, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(handle_, CURLOPT_XFERINFOFUNCTION, &CurlRequest::onProgress);
  curl_easy_setopt(handle_, CURLOPT_XFERINFODATA, this);
  lastActivity_ = Clock::now();
  lastDown_ = lastUp_ = 0;

  CURLcode code = curl_easy_perform(handle_);
  long status = 0;
  curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &status);

  if (code != CURLE_OK) {
    if (idleExpired_) {
      responseError_ = "no data for " + std::to_string(idleLimit_.count()) + " ms";
    } else if (fileFailed_) {
      responseError_ = "cannot write the download: " + download_.error();
    } else {
      responseError_ = std::string(curl_easy_strerror(code)) +
                       (errorBuffer[0] ? std::string(": ") + errorBuffer : std::string());
    }
    download_.discard();
  } else {
    responseCode_ = static_cast<int>(status);
    if (toFile_ || (downloadFile_ && status >= 200 && status <= 299)) {
      // An empty 2xx body still produces the (empty) file.
      if (!download_.isOpen() && !download_.open(*downloadFile_)) {
        responseError_ = "cannot write the download: " + download_.error();
      } else if (!download_.commit()) {
        responseError_ = "cannot write the download: " + download_.error();
      }
    }
  }

  curl_slist_free_all(list);
  if (uploadFile_) {
    std::fclose(uploadFile_);
    uploadFile_ = nullptr;
  }
  curl_easy_setopt(handle_, CURLOPT_ERRORBUFFER, nullptr);
  pool_->release(handle_);
  handle_ = nullptr;
}

class CurlRequestFactory final : public JovURLRequestFactory {
 public:
  std::unique_ptr<JovURLRequest> requestWithURL(const std::string& url) override {
    return std::make_unique<CurlRequest>(pool_, url);
  }

 private:
  std::shared_ptr<CurlPool> pool_ = std::make_shared<CurlPool>();
};

}  // namespace

std::shared_ptr<JovURLRequestFactory> makeCurlRequestFactory() {
  return std::make_shared<CurlRequestFactory>();
}

}  // namespace jov
