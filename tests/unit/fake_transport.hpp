// A fake transport for unit tests: it records every request and plays scripted answers.
// Routes (on) answer every matching request; otherwise queued answers (push) are used in order;
// with neither, the request gets a transport error, so an unscripted request fails loudly instead
// of hanging. A handler may block (on a future the test controls) to hold an exchange in flight.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
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
#include "jov/credential_store.hpp"
#include "jov/transport.hpp"
#include "jov/user.hpp"

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
  /// The body parsed as JSON (null when empty or not JSON).
  nlohmann::json json() const {
    auto parsed = nlohmann::json::parse(body, nullptr, false);
    return parsed.is_discarded() ? nlohmann::json(nullptr) : parsed;
  }
  /// The URL after "BASE/apps/APPID" (or after the base URL for requests without the app).
  std::string path() const {
    std::string base = jov::Jov::baseURL();
    std::string rest = url.rfind(base, 0) == 0 ? url.substr(base.size()) : url;
    std::string app = "/apps/" + jov::Jov::appID();
    return rest.rfind(app, 0) == 0 ? rest.substr(app.size()) : rest;
  }
};

/// One scripted answer.
struct Answer {
  int status = 200;
  jov::JovHeaders headers;
  std::string body;
  std::optional<std::string> transportError;  ///< set: no status arrives, the exchange fails

  static Answer json(int status, const nlohmann::json& body, jov::JovHeaders headers = {}) {
    headers.push_back({"Content-Type", "application/json"});
    return {status, std::move(headers), body.dump(), std::nullopt};
  }
  static Answer text(int status, std::string body) { return {status, {}, std::move(body), {}}; }
  static Answer error(std::string message = "connection refused") {
    return {0, {}, "", std::move(message)};
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
  /// Answers every request with this method whose path() equals `path`; the latest route wins.
  void on(const std::string& method, const std::string& path, Answer answer) {
    on(method, path, [answer](const Recorded&) { return answer; });
  }
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
  std::size_t count() const { return requests().size(); }
  /// How many requests with this method and path arrived.
  std::size_t count(const std::string& method, const std::string& path) const {
    auto all = requests();
    return std::count_if(all.begin(), all.end(),
                         [&](const Recorded& r) { return r.method == method && r.path() == path; });
  }
  /// The last request; throws when none arrived.
  Recorded last() const {
    auto all = requests();
    if (all.empty()) throw std::logic_error("no request was sent");
    return all.back();
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
      if ((responseError_ = a.transportError)) return;
      responseCode_ = a.status;
      responseHeaders_ = a.headers;
      if (downloadFile_ && a.status >= 200 && a.status <= 299)
        std::ofstream(*downloadFile_, std::ios::binary) << a.body;
      else
        responseData_ = a.body;
      reportReceived(static_cast<std::int64_t>(a.body.size()),
                     static_cast<std::int64_t>(a.body.size()));
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
    return queued ? *queued : Answer::error("no scripted answer for " + r.method + " " + r.url);
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
    std::string name = (std::filesystem::temp_directory_path() / "jov-unit-XXXXXX").string();
    if (!::mkdtemp(name.data())) throw std::runtime_error("mkdtemp failed");
    dataDirectory = name;
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

/// A fixture for user tests: a TestApp, credentials kept in memory, nobody logged in around it.
class UserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    jov::JovKeyChainWrapper::useMemoryStore();
    jov::JovUser::logOut();
  }
  void TearDown() override { jov::JovUser::logOut(); }

  TestApp app;
  FakeTransport& fake = *app.fake;
};

/// A user made from a credential dictionary: u1 with token t0 valid until 2100, plus `extra`.
inline jov::JovUser::Ptr credentialUser(const nlohmann::json& extra = nlohmann::json::object()) {
  nlohmann::json dict = {
      {"userID", "u1"}, {"accessToken", "t0"}, {"accesstokenExpiresAt", 4102444800000LL}};
  dict.update(extra);
  return jov::JovUser::userWithCredentialDictionary(dict);
}

/// The error code of a result, or -1 for success.
template <class R>
int codeOf(const R& result) {
  return result.ok() ? -1 : result.error().code();
}

/// The message of the std::invalid_argument the call raises, or "no exception".
inline std::string thrownMessage(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "no exception";
}

/// An operation run blocking; its error, or nothing on success.
using Operation = std::function<std::optional<jov::JovError>()>;

/// One exchange as the service expects it: the operation, the answer it gets, and the request it
/// must have sent ("METHOD /path?query" under the application, media types, body: JSON compared
/// as JSON when it starts with "{" or "[", else as text).
struct RequestRow {
  Operation op;
  Answer answer;
  std::string request, contentType, accept, body;
};

/// Runs each row alone against the fake and checks the one request it sent.
inline void checkRequests(FakeTransport& fake, const std::vector<RequestRow>& rows) {
  for (const RequestRow& row : rows) {
    SCOPED_TRACE(row.request);
    fake.reset();
    fake.push(row.answer);
    auto error = row.op();
    ASSERT_FALSE(error.has_value()) << error->describe();
    ASSERT_EQ(fake.count(), 1u);
    const auto sent = fake.last();
    EXPECT_EQ(sent.method + " " + sent.path(), row.request);
    EXPECT_EQ(sent.header("Content-type"), row.contentType);
    EXPECT_EQ(sent.header("accept").value_or(""), row.accept);
    if (row.body.starts_with("{") || row.body.starts_with("["))
      EXPECT_EQ(sent.json(), nlohmann::json::parse(row.body));
    else
      EXPECT_EQ(sent.body, row.body);
  }
}

/// One answer of the service and the error code an operation must turn it into.
struct AnswerRow {
  Operation op;
  Answer answer;
  int code;
};

/// Runs each row alone against the fake: the operation fails with the row's code, and an answer
/// with a status keeps it as "http_status".
inline void checkAnswers(FakeTransport& fake, const std::vector<AnswerRow>& rows) {
  for (const AnswerRow& row : rows) {
    SCOPED_TRACE(std::to_string(row.answer.status) + " " + row.answer.body);
    fake.reset();
    fake.push(row.answer);
    auto error = row.op();
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code(), row.code);
    if (row.answer.status >= 400) {
      EXPECT_EQ(error->jovHttpStatus(), row.answer.status);
    }
  }
}

/// Sets (or, for nullptr, unsets) environment variables until it goes.
struct ScopedEnv {
  ScopedEnv(std::initializer_list<std::pair<const char*, const char*>> vars) {
    for (const auto& [name, value] : vars) {
      const char* old = std::getenv(name);
      saved.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
      set(name, value);
    }
  }
  ~ScopedEnv() {
    for (const auto& [name, value] : saved) set(name, value ? value->c_str() : nullptr);
  }
  static void set(const char* name, const char* value) {
    value ? ::setenv(name, value, 1) : ::unsetenv(name);
  }
  std::vector<std::pair<const char*, std::optional<std::string>>> saved;
};

}  // namespace jovtest
