// JovRequest against a scripted transport: what it sends and how it reads each kind of answer.
#include "jov/request.hpp"

#include <gtest/gtest.h>

#include <deque>

#include "core/session.hpp"
#include "jov/application.hpp"
#include "jov/logger.hpp"

using namespace jov;
using nlohmann::json;

namespace {

struct Sent {
  std::string method, url, body;
  JovHeaders headers;
  std::optional<std::filesystem::path> downloadFile;
};

struct Answer {
  Answer(int s = 200, std::string b = {}, JovHeaders h = {}, std::optional<std::string> e = {})
      : status(s), body(std::move(b)), headers(std::move(h)), transportError(std::move(e)) {}
  int status;
  std::string body;
  JovHeaders headers;
  std::optional<std::string> transportError;
};

class ScriptedFactory : public JovURLRequestFactory {
 public:
  std::deque<Answer> answers;
  std::vector<Sent> sent;

  class Request : public JovURLRequest {
   public:
    Request(ScriptedFactory& f, std::string url) : JovURLRequest(std::move(url)), f_(f) {}
    void sendRequest() override {
      f_.sent.push_back({method_, url_, body_, headers_, downloadFile_});
      Answer a = f_.answers.empty() ? Answer{} : f_.answers.front();
      if (!f_.answers.empty()) f_.answers.pop_front();
      responseError_ = a.transportError;
      if (a.transportError) return;
      responseCode_ = a.status;
      responseHeaders_ = a.headers;
      responseData_ = a.body;
    }

   private:
    ScriptedFactory& f_;
  };

  std::unique_ptr<JovURLRequest> requestWithURL(const std::string& url) override {
    return std::make_unique<Request>(*this, url);
  }
};

class FakeSession : public detail::SessionHooks {
 public:
  std::string token = "tok";
  std::optional<JovError> reloginError, refreshError;
  int relogins = 0, refreshes = 0, logOuts = 0;
  detail::Task<std::optional<JovError>> reloginIfPasswordChanged() override {
    ++relogins;
    co_return reloginError;
  }
  detail::Task<std::optional<JovError>> refreshTokenIfNeeded() override {
    ++refreshes;
    co_return refreshError;
  }
  bool mayRelogin() override { return true; }
  bool mayRefreshToken() override { return true; }
  std::string accessToken() override { return token; }
  void logOut() override { ++logOuts; }
};

class RequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Jov::beginWithID("app1", "key1", std::string("http://example.test/api"));
    factory = std::make_shared<ScriptedFactory>();
    Jov::setRequestFactory(factory);
    detail::setSessionHooks(nullptr);
  }
  void TearDown() override {
    detail::setSessionHooks(nullptr);
    Jov::setLogLevel(0);
    JovLogger::setSink(nullptr);
  }
  JovResponse run(JovRequest& r, Answer a = {}) {
    factory->answers.push_back(std::move(a));
    return r.makeSynchronousRequest();
  }
  std::shared_ptr<ScriptedFactory> factory;
};

std::vector<std::string> names(const JovHeaders& h) {
  std::vector<std::string> out;
  for (auto& [n, v] : h) out.push_back(n);
  return out;
}

}  // namespace

TEST_F(RequestTest, JoinsBaseURLApplicationAndPathWithOneSlash) {
  EXPECT_EQ(JovRequest("/users/u1").requestPath, "http://example.test/api/apps/app1/users/u1");
  EXPECT_EQ(JovRequest("/status", false).requestPath, "http://example.test/api/status");
  Jov::beginWithID("app1", "key1", std::string("http://example.test/api/"));
  EXPECT_EQ(JovRequest("/status", false).requestPath, "http://example.test/api/status");
  EXPECT_EQ(JovRequest("/users").requestPath, "http://example.test/api/apps/app1/users")
      << "a base URL ending in a slash still gives one slash before the application segment";
  EXPECT_EQ(JovRequest::withURL("https://x/y?z").requestPath, "https://x/y?z");
  EXPECT_TRUE(JovRequest("/oauth2/token").authenticating);
  EXPECT_FALSE(JovRequest("/oauth2/token/").authenticating);
}

TEST_F(RequestTest, SendsTheHeaderSetSpelledAsGivenAndAddsRatherThanReplaces) {
  auto session = std::make_shared<FakeSession>();
  detail::setSessionHooks(session);
  JovRequest r("/things");
  r.requestMethod = JovMethodPost;
  r.postData = json{{"a", 1}};
  r.content = "application/vnd.jov.X+json";
  r.accept = "application/vnd.jov.Y+json";
  r.customHeaders = {{"X-Custom", "1"}, {"X-Custom", "2"}, {"Authorization", "Bearer other"}};
  ASSERT_TRUE(run(r).ok());
  const Sent& s = factory->sent.at(0);
  EXPECT_EQ(s.method, "POST");
  EXPECT_EQ(names(s.headers),
            (std::vector<std::string>{"User-Agent", "Authorization", "X-Jov-AppID", "X-Jov-AppKey",
                                      "X-Jov-SDK", "accept", "Content-type", "X-Custom", "X-Custom",
                                      "Authorization"}));
  EXPECT_EQ(jovHeaderValue(s.headers, "User-Agent"), "ios/1.1");
  EXPECT_EQ(jovHeaderValue(s.headers, "authorization"), "Bearer tok");
  EXPECT_EQ(jovHeaderValue(s.headers, "X-Jov-AppID"), "app1");
  EXPECT_EQ(jovHeaderValue(s.headers, "X-Jov-AppKey"), "key1");
  EXPECT_EQ(jovHeaderValue(s.headers, "X-Jov-SDK"), Jov::sdkClientInfo());
  EXPECT_EQ(Jov::sdkClientInfo().rfind("sn=is;sv=2.7.8;pv=", 0), 0u);
  EXPECT_EQ(jovHeaderValue(s.headers, "Content-type"), "application/vnd.jov.X+json");
  EXPECT_EQ(json::parse(s.body), (json{{"a", 1}}));
  EXPECT_EQ(session->refreshes, 1);

  // Anonymous requests carry no token and do not refresh; the default content type is JSON.
  JovRequest anon("/x");
  anon.anonymous = true;
  ASSERT_TRUE(run(anon).ok());
  EXPECT_FALSE(jovHeaderValue(factory->sent.at(1).headers, "Authorization"));
  EXPECT_EQ(jovHeaderValue(factory->sent.at(1).headers, "Content-type"), "application/json");
  EXPECT_FALSE(jovHeaderValue(factory->sent.at(1).headers, "accept"));
  EXPECT_EQ(session->refreshes, 1);

  // An ETag passed in becomes If-Match.
  JovRequest put("/x");
  put.requestMethod = JovMethodPut;
  factory->answers.push_back({});
  ASSERT_TRUE(put.makeSynchronousRequest("v7").ok());
  EXPECT_EQ(jovHeaderValue(factory->sent.at(2).headers, "If-Match"), "v7");
}

TEST_F(RequestTest, ChoosesMethodAndBodyByTheTable) {
  const std::pair<int, const char*> table[] = {{0, "GET"},   {1, "PUT"},    {2, "POST"},
                                               {3, "GET"},   {4, "DELETE"}, {5, "HEAD"},
                                               {6, "PATCH"}, {7, "GET"},    {-1, "GET"}};
  for (auto [number, method] : table) EXPECT_STREQ(JovRequest::methodString(number), method);

  auto bodyOf = [&](int method, std::optional<std::string> text, std::optional<json> data,
                    std::optional<std::string> file = std::nullopt) {
    JovRequest r("/b");
    r.requestMethod = method;
    r.plainText = text;
    r.postData = data;
    r.fileData = file;
    EXPECT_TRUE(run(r).ok());
    return factory->sent.back();
  };
  json data{{"k", "v"}};
  EXPECT_EQ(bodyOf(JovMethodPut, "new name", data).body, "new name");
  EXPECT_EQ(json::parse(bodyOf(JovMethodPost, "ignored", data).body), data)
      << "plain text is sent only with PUT";
  EXPECT_EQ(bodyOf(JovMethodDelete, std::nullopt, data).body, "");
  EXPECT_EQ(bodyOf(JovMethodDefault, std::nullopt, data).body, "");
  EXPECT_EQ(json::parse(bodyOf(JovMethodGet, std::nullopt, data).body), data)
      << "method 3 is GET yet still carries postData";
  Sent raw = bodyOf(JovMethodPut, "text", data, std::string("\x01\x02\x03", 3));
  EXPECT_EQ(raw.body, std::string("\x01\x02\x03", 3));
  EXPECT_EQ(jovHeaderValue(raw.headers, "Content-Length"), "3");
  Sent empty = bodyOf(JovMethodPut, std::nullopt, data, std::string());
  EXPECT_EQ(empty.body, "");
  EXPECT_EQ(jovHeaderValue(empty.headers, "Content-Length"), "0");
}

TEST_F(RequestTest, ReadsSuccessBodiesAndETags) {
  JovRequest r("/x");
  auto ok = run(r, {200, R"({"a":[1,2]})", {{"ETag", "\"3\""}}});
  EXPECT_TRUE(ok.ok());
  EXPECT_EQ(ok.status, 200);
  EXPECT_EQ(ok.etag, "3");
  EXPECT_EQ(ok.json, (json{{"a", {1, 2}}}));

  // A success body that is not JSON gives no value and no error; an ETag sent in is kept when
  // the answer has none.
  factory->answers.push_back({204, "not json {", {}});
  auto text = r.makeSynchronousRequest("kept");
  EXPECT_TRUE(text.ok());
  EXPECT_TRUE(text.json.is_null());
  EXPECT_EQ(text.etag, "kept");
  EXPECT_EQ(text.status, 204);
}

TEST_F(RequestTest, MapsEveryFailureRow) {
  struct Row {
    int status;
    std::string body;
    int code;
    json info;
  };
  const Row rows[] = {
      {404,
       R"({"errorCode":"USER_NOT_FOUND","message":"m"})",
       0,
       {{"server_code", "USER_NOT_FOUND"}, {"server_message", "m"}, {"http_status", 404}}},
      {400, "", 0, {{"server_message", "Unable to parse server response"}, {"http_status", 400}}},
      {500,
       "<html>",
       0,
       {{"server_message", "Unable to parse server response"}, {"http_status", 500}}},
      {401,
       R"({"errorCode":"invalid_grant","error_description":"d"})",
       302,
       {{"server_code", "invalid_grant"}, {"server_message", "d"}, {"http_status", 401}}},
      {404,
       R"({"errorCode":"APP_NOT_FOUND","message":"no app"})",
       102,
       {{"server_code", "APP_NOT_FOUND"}, {"server_message", "no app"}, {"http_status", 404}}},
      {401,
       R"({"errorCode":"UNAUTHORIZED"})",
       203,
       {{"server_code", "UNAUTHORIZED"}, {"server_message", ""}, {"http_status", 401}}},
      {409, R"([1,2])", 0, {{"server_message", ""}, {"http_status", 409}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.body);
    JovRequest r("/x");
    auto res = run(r, {row.status, row.body, {}});
    ASSERT_FALSE(res.ok());
    EXPECT_EQ(res.status, row.status);
    EXPECT_EQ(res.error->code(), row.code);
    EXPECT_EQ(res.error->domain(), "JovSDK");
    json expected = row.info;
    if (auto d = JovError::getDescription(row.code)) expected["description"] = *d;
    EXPECT_EQ(res.error->userInfo(), expected);
    auto parsed = json::parse(row.body, nullptr, false);
    EXPECT_EQ(res.json, parsed.is_discarded() ? json() : parsed) << "the JSON is handed back";
  }

  // No answer at all: 201 saying what failed and for which URL, and no status.
  JovRequest r("/x");
  auto down = run(r, {0, "", {}, std::string("refused")});
  EXPECT_EQ(down.error->code(), 201);
  EXPECT_EQ(down.error->userInfo(), (json{{"description", "Unable to connect to the internet"},
                                          {"cause", "refused"},
                                          {"url", "http://example.test/api/apps/app1/x"}}));
  EXPECT_NE(down.error->describe().find("cause: refused"), std::string::npos);
  EXPECT_EQ(down.status, 0);
}

TEST_F(RequestTest, NothingIsSentWithoutAnApplication) {
  Jov::beginWithID("app1", "key1", static_cast<JovSite>(9));
  EXPECT_EQ(Jov::baseURL(), "");
  Jov::setRequestFactory(factory);
  JovRequest r("/x");
  auto res = run(r);
  EXPECT_EQ(res.error->code(), 101);
  Jov::beginWithID("", "key1", std::string("http://example.test/api"));
  Jov::setRequestFactory(factory);
  EXPECT_EQ(run(r).error->code(), 101);
  EXPECT_TRUE(factory->sent.empty());
}

TEST_F(RequestTest, AsksTheSessionToLogInAgainRefreshAndLogOut) {
  auto session = std::make_shared<FakeSession>();
  detail::setSessionHooks(session);

  // A failed re-login after a password change stops the request before it is sent.
  session->reloginError = JovError::errorWithCode(302);
  JovRequest r("/x");
  EXPECT_EQ(run(r).error->code(), 302);
  EXPECT_TRUE(factory->sent.empty());
  // ...but the login exchange itself is never held up by it.
  JovRequest login("/oauth2/token");
  login.anonymous = true;
  EXPECT_TRUE(run(login).ok());
  EXPECT_EQ(factory->sent.size(), 1u);
  session->reloginError.reset();

  // A failed refresh is the request's error; nothing is sent.
  session->refreshError = JovError::errorWithCode(330);
  factory->answers.clear();
  EXPECT_EQ(run(r).error->code(), 330);
  EXPECT_EQ(factory->sent.size(), 1u);
  session->refreshError.reset();

  // 403 WRONG_TOKEN logs the user out; another 403 does not.
  factory->answers.clear();
  EXPECT_FALSE(run(r, {403, R"({"errorCode":"WRONG_TOKEN"})", {}}).ok());
  EXPECT_EQ(session->logOuts, 1);
  EXPECT_FALSE(run(r, {403, R"({"errorCode":"FORBIDDEN"})", {}}).ok());
  EXPECT_FALSE(run(r, {401, R"({"errorCode":"WRONG_TOKEN"})", {}}).ok());
  EXPECT_EQ(session->logOuts, 1);
}

TEST_F(RequestTest, TracesTheExchangeWithACurlLineAndTrimsLongBodies) {
  std::vector<std::string> lines;
  JovLogger::setSink([&](int, const std::string& line) { lines.push_back(line); });
  Jov::setLogLevel(3);
  JovRequest r("/x");
  r.requestMethod = JovMethodPost;
  r.postData = json{{"n", std::string(2000, 'a')}};
  run(r, {200, std::string(1025, 'b'), {{"Server", "t"}}});
  std::string all;
  for (auto& l : lines) all += l + "\n";
  EXPECT_NE(all.find("***** JovRequest - Request Output *****"), std::string::npos);
  EXPECT_NE(all.find("Request Header : X-Jov-AppID / app1"), std::string::npos);
  EXPECT_NE(all.find("curl -v -X POST -H \"User-Agent:ios/1.1\""), std::string::npos);
  EXPECT_NE(all.find(" -d '{\"n\":\"aaa"), std::string::npos);
  EXPECT_NE(all.find("Response Header : Server / t"), std::string::npos);
  EXPECT_NE(
      all.find("Received response[200]: " + std::string(1024, 'b') + " ... (Show first 10KB)"),
      std::string::npos);
  EXPECT_EQ(JovRequest::trimHttpBodyString(std::string(1024, 'c')), std::string(1024, 'c'));

  // Level 2 prints no trace at all.
  lines.clear();
  Jov::setLogLevel(2);
  run(r);
  EXPECT_TRUE(lines.empty());
}

TEST_F(RequestTest, TracesHideSecretsUnlessAskedToShowThem) {
  std::string all;
  JovLogger::setSink([&](int, const std::string& line) { all += line + "\n"; });
  Jov::setLogLevel(3);
  auto login = [&] {
    all.clear();
    JovRequest r("/oauth2/token");
    r.requestMethod = JovMethodPost;
    r.postData =
        json{{"username", "ann"}, {"password", "pw-123"}, {"nested", {{"newPassword", "np-9"}}}};
    r.customHeaders.emplace_back("Authorization", "Bearer tok-7");
    run(r, {200, R"({"access_token":"at-5","refresh_token":"rt-6","expires_in":3600})"});
  };
  login();
  for (const char* secret : {"pw-123", "np-9", "tok-7", "key1", "at-5", "rt-6"})
    EXPECT_EQ(all.find(secret), std::string::npos) << secret << " is in the trace:\n" << all;
  EXPECT_NE(all.find("\"username\":\"ann\""), std::string::npos) << "other fields stay";
  EXPECT_NE(all.find("X-Jov-AppKey / ***"), std::string::npos);
  EXPECT_NE(all.find("-H \"Authorization:***\""), std::string::npos);
  EXPECT_NE(all.find("\"expires_in\":3600"), std::string::npos);

  Jov::setTraceSecrets(true);
  login();
  Jov::setTraceSecrets(false);
  for (const char* secret : {"pw-123", "np-9", "tok-7", "key1", "at-5", "rt-6"})
    EXPECT_NE(all.find(secret), std::string::npos) << secret << " is asked for";
}

TEST_F(RequestTest, RetriesOnlyWhatMayReachTheServiceTwiceAndOnlyByThePolicy) {
  const Answer unavailable{503, R"({"errorCode":"BUSY"})"};
  const Answer noAnswer{0, "", {}, std::string("connection reset")};
  auto send = [&](int method, std::vector<Answer> answers, JovHeaders headers = {}) {
    factory->sent.clear();
    for (auto& a : answers) factory->answers.push_back(a);
    JovRequest r("/x");
    r.requestMethod = method;
    r.customHeaders = std::move(headers);
    auto res = r.makeSynchronousRequest();
    factory->answers.clear();
    return res;
  };

  // No policy: every exchange is sent once.
  EXPECT_EQ(send(JovMethodGet, {unavailable, Answer{}}).status, 503);
  EXPECT_EQ(factory->sent.size(), 1u);

  JovRetryPolicy policy;
  policy.initialDelay = std::chrono::milliseconds(1);
  policy.maxDelay = std::chrono::milliseconds(2);
  Jov::setRetryPolicy(policy);
  auto res = send(JovMethodGet, {unavailable, noAnswer, Answer{200, R"({"ok":1})"}});
  EXPECT_TRUE(res.ok());
  EXPECT_EQ(res.json, (json{{"ok", 1}}));
  EXPECT_EQ(factory->sent.size(), 3u);

  // Three attempts in all, then the last answer stands.
  res = send(JovMethodDelete, {unavailable, unavailable, unavailable, Answer{}});
  EXPECT_EQ(res.status, 503);
  EXPECT_EQ(res.error->userInfo().value("server_code", ""), "BUSY");
  EXPECT_EQ(factory->sent.size(), 3u);

  // The service's own refusal is its word; a POST, a PATCH and an override are sent once.
  EXPECT_EQ(send(JovMethodPut, {Answer{409, "{}"}, Answer{}}).status, 409);
  EXPECT_EQ(factory->sent.size(), 1u);
  EXPECT_EQ(send(JovMethodPost, {noAnswer, Answer{}}).error->code(), 201);
  EXPECT_EQ(factory->sent.size(), 1u);
  EXPECT_EQ(send(JovMethodPatch, {unavailable, Answer{}}).status, 503);
  EXPECT_EQ(factory->sent.size(), 1u);
  EXPECT_EQ(
      send(JovMethodPut, {unavailable, Answer{}}, {{"X-HTTP-Method-Override", "PATCH"}}).status,
      503);
  EXPECT_EQ(factory->sent.size(), 1u);

  // A budget shorter than the first wait leaves nothing to retry.
  policy.initialDelay = policy.maxDelay = std::chrono::milliseconds(50);
  policy.jitter = 0;
  policy.budget = std::chrono::milliseconds(10);
  Jov::setRetryPolicy(policy);
  EXPECT_EQ(send(JovMethodGet, {unavailable, Answer{}}).status, 503);
  EXPECT_EQ(factory->sent.size(), 1u);
  Jov::setRetryPolicy(std::nullopt);
}

TEST_F(RequestTest, HandlesAFiftyMegabyteErrorBody) {
  std::string big = R"({"errorCode":"TOO_BIG","message":")" + std::string(50 << 20, 'x') + "\"}";
  JovRequest r("/x");
  auto res = run(r, {500, std::move(big), {}});
  ASSERT_FALSE(res.ok());
  EXPECT_EQ(res.error->jovErrorSummary(), "TOO_BIG");
  EXPECT_EQ(res.error->jovErrorMessage()->size(), size_t{50} << 20);
}
