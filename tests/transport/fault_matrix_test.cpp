// The libcurl transport against a server that misbehaves on purpose: connections closed before
// the answer, answers larger than the limit, answers that say "try again", in blocking and
// asynchronous runs. What must hold: a POST reaches the service at most once unless the caller
// sends it again, nothing larger than the limit is kept, and a retry happens only by the policy.
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "jov/application.hpp"
#include "jov/group.hpp"
#include "jov/request.hpp"
#include "scripted_server.hpp"

using namespace jov;
using namespace std::chrono_literals;
using jovtest::ScriptedServer;
using Step = ScriptedServer::Step;

namespace {

class FaultMatrixTest : public ::testing::Test {
 protected:
  void TearDown() override {
    Jov::setRetryPolicy(std::nullopt);
    Jov::setMaxAnswerSize(std::size_t{16} << 20);
  }
  static void begin(const ScriptedServer& server) {
    Jov::beginWithID("app", "key", server.base());
    Jov::setRequestFactory(nullptr);  // the libcurl transport
  }
  static JovResponse send(const std::string& path, int method) {
    JovRequest r(path);
    r.requestMethod = method;
    if (method == JovMethodPost) r.postData = nlohmann::json{{"n", 1}};
    return r.makeSynchronousRequest();
  }
  static std::size_t count(const std::vector<ScriptedServer::Seen>& seen, const std::string& path) {
    std::size_t n = 0;
    for (const auto& s : seen) n += s.path.ends_with(path);
    return n;
  }
};

std::string groupRecord(const std::string& id) {
  return R"({"groupID":")" + id + R"(","name":"n"})";
}

}  // namespace

TEST_F(FaultMatrixTest, AReusedConnectionClosedBeforeTheAnswerSendsAPostOnce) {
  // The second request of each connection is read and then the connection is closed, as a
  // server does when its keep-alive limit is reached while the request is in flight.
  ScriptedServer server([](const ScriptedServer::Seen& seen) {
    return seen.onConnection == 1 ? Step::hangUp() : Step::answer(200);
  });
  begin(server);

  ASSERT_TRUE(send("/warm-1", JovMethodGet).ok());
  auto post = send("/post", JovMethodPost);
  ASSERT_TRUE(post.error);
  EXPECT_EQ(post.error->code(), JovError::codeUnableToConnectToInternet());
  EXPECT_EQ(count(server.seen(), "/post"), 1u) << "the service saw the POST once";

  // A GET may be sent again on a new connection: libcurl does that by itself.
  ASSERT_TRUE(send("/warm-2", JovMethodGet).ok());
  EXPECT_TRUE(send("/get", JovMethodGet).ok());
  EXPECT_EQ(count(server.seen(), "/get"), 2u);
}

TEST_F(FaultMatrixTest, AnAnswerLargerThanTheLimitFailsWith202) {
  ScriptedServer server([](const ScriptedServer::Seen& seen) {
    const std::string big = "\"" + std::string(64 * 1024, 'x') + "\"";
    if (seen.path.ends_with("/sized")) return Step::answer(200, big);
    if (seen.path.ends_with("/chunked")) return Step::chunks(big);
    if (seen.path.ends_with("/error")) return Step::answer(500, big);
    return Step::answer(200, "\"" + std::string(1000 - 2, 'y') + "\"");
  });
  begin(server);
  Jov::setMaxAnswerSize(1000);

  for (const char* path : {"/sized", "/chunked", "/error"}) {
    SCOPED_TRACE(path);
    auto res = send(path, JovMethodGet);
    ASSERT_TRUE(res.error);
    EXPECT_EQ(res.error->code(), JovError::codeUnableToParseResponse());
    EXPECT_EQ(res.error->userInfo().value("cause", ""), "the answer is larger than 1000 bytes");
    EXPECT_TRUE(res.json.is_null());
  }
  auto fits = send("/fits", JovMethodGet);
  ASSERT_TRUE(fits.ok()) << fits.error->describe();
  EXPECT_EQ(fits.json.get<std::string>().size(), 998u);

  // After a refused answer the transport goes on serving.
  Jov::setMaxAnswerSize(0);
  EXPECT_TRUE(send("/chunked", JovMethodGet).ok());
}

TEST_F(FaultMatrixTest, ThePolicyRetriesAsynchronousExchangesAndACancellationEndsTheWait) {
  std::atomic<int> busy{2};
  ScriptedServer server([&](const ScriptedServer::Seen& seen) {
    if (seen.path.ends_with("/groups/flaky")) {
      if (busy-- > 0) return Step::answer(503, R"({"errorCode":"BUSY"})");
      return Step::answer(200, groupRecord("flaky"));
    }
    if (seen.path.ends_with("/groups/down")) return Step::hangUp();
    return Step::answer(503, "{}");
  });
  begin(server);
  JovRetryPolicy policy;
  policy.initialDelay = 5ms;
  policy.maxDelay = 20ms;
  Jov::setRetryPolicy(policy);

  auto flaky = JovGroup::groupWithID("flaky");
  auto done = flaky->refreshAsync();
  ASSERT_EQ(done.wait_for(10s), std::future_status::ready);
  ASSERT_TRUE(done.get().ok());
  EXPECT_EQ(flaky->name(), "n");
  EXPECT_EQ(count(server.seen(), "/groups/flaky"), 3u);

  // No answer at all, three times: the error of the last attempt, and nothing changed.
  auto down = JovGroup::groupWithID("down");
  auto failed = down->refreshAsync();
  ASSERT_EQ(failed.wait_for(10s), std::future_status::ready);
  auto result = failed.get();
  ASSERT_FALSE(result.ok());
  EXPECT_EQ(result.error().code(), JovError::codeUnableToConnectToInternet());
  EXPECT_EQ(down->name(), "");

  // A long wait between attempts ends with the cancellation, not with the timer.
  policy.initialDelay = policy.maxDelay = 60s;
  policy.jitter = 0;
  policy.budget = 120s;
  Jov::setRetryPolicy(policy);
  JovCancellation cancel;
  std::promise<std::optional<JovError>> outcome;
  JovGroup::groupWithID("slow")->refresh(
      [&](std::shared_ptr<JovGroup>, std::optional<JovError> error) { outcome.set_value(error); },
      cancel);
  while (count(server.seen(), "/groups/slow") == 0) std::this_thread::sleep_for(1ms);
  std::this_thread::sleep_for(50ms);  // the answer is in and the routine waits for its retry
  cancel.cancel();
  auto ended = outcome.get_future();
  ASSERT_EQ(JovMainQueue::runUntil(1, 10s), 1u);
  ASSERT_EQ(ended.wait_for(0s), std::future_status::ready);
  auto error = ended.get();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), JovError::codeOperationCancelled());
  EXPECT_EQ(count(server.seen(), "/groups/slow"), 1u);
}
