// A fake transport for unit tests: it records every request (method, URL, headers, body) and
// plays scripted answers (status, headers, body, or a transport error).
//
//   auto fake = jovtest::FakeTransport::install();       // Jov::setRequestFactory(fake)
//   fake->push(jovtest::Answer::json(200, {{"id", "u1"}}));
//   fake->on("GET", "/users/u1", jovtest::Answer::json(404, {{"errorCode", "USER_NOT_FOUND"}}));
//   ... run the operation ...
//   EXPECT_EQ(fake->last().path(), "/users/u1");
//
// Routes (on) answer every matching request; otherwise queued answers (push) are used in order;
// with neither, the request gets a transport error, so a request nobody scripted fails loudly
// in the test's assertions instead of hanging. A handler may also compute the answer, and may
// block (on a future the test controls) to hold an exchange in flight.
#pragma once

#include <stdlib.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "jov/application.hpp"
#include "jov/transport.hpp"

namespace jovtest {

/// One request as the transport received it.
struct Recorded {
  std::string method;
  std::string url;
  jov::JovHeaders headers;
  std::string body;

  /// The first value of a header (case-insensitive), if sent.
  std::optional<std::string> header(const std::string& name) const {
    return jov::jovHeaderValue(headers, name);
  }
  /// How many times a header was sent.
  std::size_t headerCount(const std::string& name) const {
    std::size_t n = 0;
    for (const auto& [field, value] : headers)
      if (field.size() == name.size() &&
          std::equal(field.begin(), field.end(), name.begin(),
                     [](char a, char b) { return std::tolower(a) == std::tolower(b); }))
        ++n;
    return n;
  }
  /// The body parsed as JSON (null when empty or not JSON).
  nlohmann::json json() const {
    if (body.empty()) return nullptr;
    auto parsed = nlohmann::json::parse(body, nullptr, false);
    return parsed.is_discarded() ? nlohmann::json(nullptr) : parsed;
  }
  /// The URL after "BASE/apps/APPID" (or after the base URL for requests without the app).
  std::string path() const {
    std::string base = jov::Jov::baseURL();
    std::string rest = url.rfind(base, 0) == 0 ? url.substr(base.size()) : url;
    std::string app = "/apps/" + jov::Jov::appID();
    if (rest.rfind(app, 0) == 0) rest = rest.substr(app.size());
    return rest;
  }
};

/// One scripted answer.
struct Answer {
  int status = 200;
  jov::JovHeaders headers;
  std::string body;
  std::optional<std::string> transportError;  ///< set: no status arrives, the exchange fails

  static Answer json(int status, const nlohmann::json& body, jov::JovHeaders headers = {}) {
    Answer a;
    a.status = status;
    a.body = body.dump();
    a.headers = std::move(headers);
    a.headers.push_back({"Content-Type", "application/json"});
    return a;
  }
  static Answer text(int status, std::string body) {
    Answer a;
    a.status = status;
    a.body = std::move(body);
    return a;
  }
  static Answer error(std::string message = "connection refused") {
    Answer a;
    a.status = 0;
    a.transportError = std::move(message);
    return a;
  }
  /// A service error body: {"errorCode": code, "message": message}.
  static Answer serviceError(int status, const std::string& code, const std::string& message = "") {
    return json(status, {{"errorCode", code}, {"message", message}});
  }
};

class FakeTransport : public jov::JovURLRequestFactory,
                      public std::enable_shared_from_this<FakeTransport> {
 public:
  using Handler = std::function<Answer(const Recorded&)>;

  /// A fake installed as Jov's transport factory.
  static std::shared_ptr<FakeTransport> install() {
    auto fake = std::make_shared<FakeTransport>();
    jov::Jov::setRequestFactory(fake);
    return fake;
  }

  /// Queues an answer for the next request no route matches.
  void push(Answer answer) {
    std::lock_guard lock(mutex_);
    queue_.push_back(std::move(answer));
  }
  /// Answers every request with this method whose path() equals `path`.
  void on(const std::string& method, const std::string& path, Answer answer) {
    on(method, path, [answer](const Recorded&) { return answer; });
  }
  /// Answers every request with this method and path through the handler.
  void on(const std::string& method, const std::string& path, Handler handler) {
    std::lock_guard lock(mutex_);
    routes_.push_back({method, path, std::move(handler)});
  }
  /// Removes routes and queued answers, and forgets the recorded requests.
  void reset() {
    std::lock_guard lock(mutex_);
    routes_.clear();
    queue_.clear();
    requests_.clear();
  }

  /// The requests received so far, in order.
  std::vector<Recorded> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }
  /// How many requests arrived.
  std::size_t count() const {
    std::lock_guard lock(mutex_);
    return requests_.size();
  }
  /// How many requests with this method and path arrived.
  std::size_t count(const std::string& method, const std::string& path) const {
    std::size_t n = 0;
    for (const auto& r : requests())
      if (r.method == method && r.path() == path) ++n;
    return n;
  }
  /// The last request; fails (throws) when none arrived.
  Recorded last() const {
    std::lock_guard lock(mutex_);
    if (requests_.empty()) throw std::logic_error("no request was sent");
    return requests_.back();
  }
  /// Waits until at least `n` requests arrived, at most `limit`; false on timeout.
  bool waitForRequests(std::size_t n, std::chrono::milliseconds limit) const {
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, limit, [&] { return requests_.size() >= n; });
  }

  std::unique_ptr<jov::JovURLRequest> requestWithURL(const std::string& url) override {
    return std::make_unique<Request>(url, shared_from_this());
  }

 private:
  struct Route {
    std::string method, path;
    Handler handler;
  };

  class Request : public jov::JovURLRequest {
   public:
    Request(std::string url, std::shared_ptr<FakeTransport> owner)
        : JovURLRequest(std::move(url)), owner_(std::move(owner)) {}

    void sendRequest() override {
      Recorded r{method_, url_, headers_, body_};
      if (bodyFile_) {
        std::ifstream in(*bodyFile_, std::ios::binary);
        r.body.assign(std::istreambuf_iterator<char>(in), {});
      }
      reportSent(static_cast<std::int64_t>(r.body.size()));
      Answer a = owner_->answer(r);
      if (a.transportError) {
        responseError_ = a.transportError;
        return;
      }
      responseCode_ = a.status;
      responseHeaders_ = a.headers;
      if (downloadFile_ && a.status >= 200 && a.status <= 299) {
        std::ofstream(*downloadFile_, std::ios::binary) << a.body;
      } else {
        responseData_ = a.body;
      }
      const auto size = static_cast<std::int64_t>(a.body.size());
      reportReceived(size, size);
    }

   private:
    std::shared_ptr<FakeTransport> owner_;
  };

  Answer answer(const Recorded& r) {
    Handler handler;
    std::optional<Answer> queued;
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(r);
      for (const auto& route : routes_)
        if (route.method == r.method && route.path == r.path()) handler = route.handler;
      if (!handler && !queue_.empty()) {
        queued = std::move(queue_.front());
        queue_.pop_front();
      }
    }
    arrived_.notify_all();
    // Outside the lock: a handler may block to hold this exchange in flight.
    if (handler) return handler(r);
    if (queued) return *queued;
    return Answer::error("no scripted answer for " + r.method + " " + r.url);
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::vector<Route> routes_;
  std::deque<Answer> queue_;
  std::vector<Recorded> requests_;
};

/// A begun application with its own temporary data directory and a fake transport; the
/// directory is removed and the real transport restored when it goes.
class TestApp {
 public:
  static constexpr const char* kBaseURL = "https://api.example.test/api";

  explicit TestApp(const std::string& appID = "app1", const std::string& appKey = "key1") {
    std::string pattern = (std::filesystem::temp_directory_path() / "jov-unit-XXXXXX").string();
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (!::mkdtemp(name.data())) throw std::runtime_error("mkdtemp failed");
    dataDirectory = name.data();
    jov::Jov::setDataDirectory(dataDirectory);
    jov::Jov::beginWithID(appID, appKey, std::string(kBaseURL));
    fake = FakeTransport::install();
  }
  ~TestApp() {
    jov::Jov::setRequestFactory(nullptr);
    std::error_code ec;
    std::filesystem::remove_all(dataDirectory, ec);
  }
  TestApp(const TestApp&) = delete;
  TestApp& operator=(const TestApp&) = delete;

  std::filesystem::path dataDirectory;
  std::shared_ptr<FakeTransport> fake;
};

}  // namespace jovtest
