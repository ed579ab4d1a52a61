// The machinery under every operation: error tables, Result chaining, routines run blocking and
// asynchronously, cancellation and deadlines, the shared token refresh, and re-entrance from a
// completion. Entities' own tests cover what their exchanges send.
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "core/exchange.hpp"
#include "fake_transport.hpp"
#include "jov/credential_store.hpp"
#include "jov/group.hpp"
#include "jov/user.hpp"
#include "users/user_internal.hpp"

using namespace jov;
using jovtest::Answer;
using nlohmann::json;
using namespace std::chrono_literals;

namespace {

JovError serverError(int status, const std::string& code, const std::string& message = "m") {
  return JovError::errorWithCode(
      0, {{"http_status", status}, {"server_code", code}, {"server_message", message}});
}

TEST(ErrorRules, MatchStatusCodeAndMessageInOrderAndKeepUserInfo) {
  using namespace detail;
  constexpr ErrorRule rules[] = {
      onStatusAndCode(409, "OBJECT_VERSION_IS_STALE", 520),
      onCode("GROUP_NOT_FOUND", JovError::codeObjectNotFound()),
      onMessage("exact text", 701),
      onMessagePart(400, "INVALID", "validation errors: password", 304),
      onStatus(404, JovError::codeUserNotFound()),
      onAny(103),
  };
  // The server's code is compared upper-cased; the mapped error keeps what the request knew.
  JovError mapped = applyErrorRules(serverError(404, "group_not_found"), rules);
  EXPECT_EQ(mapped.code(), JovError::codeObjectNotFound());
  EXPECT_EQ(mapped.userInfo()["server_code"], "group_not_found");
  EXPECT_EQ(mapped.userInfo()["http_status"], 404);
  EXPECT_EQ(mapped.userInfo()["description"], *JovError::getDescription(510));

  EXPECT_EQ(applyErrorRules(serverError(409, "OBJECT_VERSION_IS_STALE"), rules).code(), 520);
  // Same code, other status: the combined row does not match; the catch-all does.
  EXPECT_EQ(applyErrorRules(serverError(412, "OBJECT_VERSION_IS_STALE"), rules).code(), 103);
  EXPECT_EQ(applyErrorRules(serverError(400, "X", "exact text"), rules).code(), 701);
  EXPECT_EQ(applyErrorRules(serverError(400, "X", "exact text!"), rules).code(), 103);
  EXPECT_EQ(
      applyErrorRules(serverError(400, "INVALID", "There are Validation errors: PASSWORD"), rules)
          .code(),
      304);
  EXPECT_EQ(
      applyErrorRules(serverError(400, "INVALID", "validation errors: newPassword"), rules).code(),
      103);
  EXPECT_EQ(applyErrorRules(serverError(404, "OTHER"), rules).code(), 324);

  // An error that already has a code passes unchanged, whatever the rows say.
  JovError offline = JovError::errorWithCode(JovError::codeUnableToConnectToInternet());
  EXPECT_EQ(applyErrorRules(offline, rules), offline);
  // Without a matching row the code stays 0.
  constexpr ErrorRule narrow[] = {onStatus(500, 103)};
  EXPECT_EQ(applyErrorRules(serverError(404, "X"), narrow).code(), 0);
}

TEST(ResultChaining, AndThenTransformOrElse) {
  Result<int> two(2);
  auto doubled = std::move(two).transform([](int v) { return v * 2; });
  EXPECT_EQ(doubled.value(), 4);
  auto text = Result<int>(3).and_then([](int v) -> Result<std::string> {
    if (v > 2) return JovError::errorWithCode(JovError::codeInvalidRequestData());
    return std::to_string(v);
  });
  EXPECT_EQ(text.error().code(), JovError::codeInvalidRequestData());

  bool called = false;
  Result<int> failed(JovError::errorWithCode(JovError::codeUnableToParseResponse()));
  auto still = std::move(failed).transform([&](int v) {
    called = true;
    return v;
  });
  EXPECT_FALSE(called);
  EXPECT_EQ(still.error().code(), 202);
  auto recovered = std::move(still).or_else([](const JovError&) { return Result<int>(7); });
  EXPECT_EQ(recovered.value(), 7);

  Result<void> done;
  EXPECT_EQ(std::move(done).and_then([] { return Result<int>(1); }).value(), 1);
  EXPECT_TRUE(Result<void>().transform([] {}).ok());
}

// A store that notes whether it was ever used on the engine's I/O thread.
class WatchedStore final : public JovCredentialStore {
 public:
  std::string name() const override { return "watched"; }
  JovCredentialStoreOutcome add(const std::string& s, const std::string& b) override {
    return wrote(note(inner_->add(s, b)));
  }
  JovCredentialStoreOutcome update(const std::string& s, const std::string& b) override {
    return wrote(note(inner_->update(s, b)));
  }
  JovCredentialStoreOutcome read(const std::string& s, std::string& b) override {
    return note(inner_->read(s, b));
  }
  JovCredentialStoreOutcome remove(const std::string& s) override {
    return note(inner_->remove(s));
  }
  JovCredentialStoreOutcome removeAll() override { return note(inner_->removeAll()); }
  std::atomic<int> calls{0}, onIoThread{0}, writes{0};

 private:
  // Counts the writes that took place (an add refused as a duplicate is followed by an update).
  JovCredentialStoreOutcome wrote(JovCredentialStoreOutcome outcome) {
    if (outcome.ok()) ++writes;
    return outcome;
  }
  JovCredentialStoreOutcome note(JovCredentialStoreOutcome outcome) {
    ++calls;
    if (detail::onIoThread()) ++onIoThread;
    return outcome;
  }
  std::shared_ptr<JovCredentialStore> inner_ = makeMemoryCredentialStore();
};

class EngineTest : public jovtest::UserTest {
 protected:
  // A store that counts what it is asked, in use, and the service's answers to ann's login.
  std::shared_ptr<WatchedStore> watchStoreAndAnswerLogin() {
    auto store = std::make_shared<WatchedStore>();
    JovKeyChainWrapper::setStore(store);
    fake.on("POST", "/oauth2/token",
            Answer::json(200, {{"access_token", "t1"}, {"id", "u1"}, {"expires_in", 3600}}));
    fake.on("GET", "/users/u1", Answer::json(200, {{"userID", "u1"}, {"loginName", "ann"}}));
    return store;
  }
  // Answers GET /groups/g1 only once the test opens the gate.
  void holdGroup(const std::string& name) {
    fake.on("GET", "/groups/g1", [gate = gate, name](const jovtest::Recorded&) {
      gate.wait();
      return Answer::json(200, {{"groupID", "g1"}, {"name", name}});
    });
  }
  std::promise<void> opener;
  std::shared_future<void> gate = opener.get_future().share();
};

TEST_F(EngineTest, CancellingAnExchangeInFlightCompletesOnceAndChangesNothing) {
  holdGroup("renamed");
  auto group = JovGroup::groupWithID("g1");
  JovCancellation cancel;
  std::atomic<int> completions{0};
  std::optional<JovError> seen;
  group->refresh(
      [&](std::shared_ptr<JovGroup> g, std::optional<JovError> error) {
        ++completions;
        seen = error;
        EXPECT_EQ(g, group);
      },
      cancel);
  ASSERT_TRUE(fake.waitForRequests(1, 5s));
  cancel.cancel();
  EXPECT_TRUE(cancel.isCancelled());
  EXPECT_EQ(JovMainQueue::runUntil(1, 5s), 1u);
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->code(), JovError::codeOperationCancelled());
  // The answer that arrives afterwards is dropped: the group keeps its state.
  opener.set_value();
  auto late = JovGroup::groupWithID("g2");  // a request after it, to let the late one finish
  fake.on("GET", "/groups/g2", Answer::json(200, {{"groupID", "g2"}, {"name", "n"}}));
  EXPECT_TRUE(late->refreshSynchronous().ok());
  EXPECT_EQ(JovMainQueue::runFor(50ms), 0u);
  EXPECT_EQ(completions.load(), 1);
  EXPECT_EQ(group->name(), "");

  // A token cancelled before the start sends nothing at all.
  const std::size_t sent = fake.count();
  JovCancellation early;
  early.cancel();
  auto result = group->refreshAsync(early);
  ASSERT_EQ(result.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(result.get().error().code(), JovError::codeOperationCancelled());
  EXPECT_EQ(fake.count(), sent);
}

TEST_F(EngineTest, DeadlineEndsAnExchangeThatTakesTooLong) {
  holdGroup("renamed");
  auto group = JovGroup::groupWithID("g1");
  JovCancellation deadline;
  deadline.setTimeout(100ms);
  auto result = group->refreshAsync(deadline);
  ASSERT_EQ(result.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(result.get().error().code(), JovError::codeDeadlineExceeded());
  EXPECT_EQ(group->name(), "");
  opener.set_value();
}

TEST_F(EngineTest, ConcurrentOperationsNearExpiryShareOneRefresh) {
  fake.on("POST", "/oauth2/token", [gate = gate](const jovtest::Recorded&) {
    gate.wait();
    return Answer::json(200, {{"access_token", "t1"}, {"refresh_token", "r1"}, {"expires_in", 60}});
  });
  fake.on("GET", "/groups/g1", Answer::json(200, {{"groupID", "g1"}, {"name", "n"}}));
  json extra = {{"accesstokenExpiresAt",
                 detail::toMillis(std::chrono::system_clock::now() + std::chrono::seconds(100))},
                {"refreshToken", "r0"}};
  auto user = jovtest::credentialUser(extra);
  Jov::setCurrentUser(user);

  constexpr int kOperations = 64;
  std::vector<std::future<Result<void>>> results;
  for (int i = 0; i < kOperations; ++i)
    results.push_back(JovGroup::groupWithID("g1")->refreshAsync());
  ASSERT_TRUE(fake.waitForRequests(1, 5s));
  // Every other operation waits for the refresh in flight (suspended, not holding a thread).
  ASSERT_TRUE(detail::waitForRefreshWaiters(kOperations - 1, 5s));
  opener.set_value();
  for (auto& r : results) {
    ASSERT_EQ(r.wait_for(5s), std::future_status::ready);
    EXPECT_TRUE(r.get().ok());
  }
  EXPECT_EQ(fake.count("POST", "/oauth2/token"), 1u);
  EXPECT_EQ(fake.count("GET", "/groups/g1"), static_cast<std::size_t>(kOperations));
  for (const auto& r : fake.requests())
    if (r.method == "GET") {
      EXPECT_EQ(r.header("Authorization"), "Bearer t1");
    }
}

TEST_F(EngineTest, CpuStepsStayOnTheIoThreadAndBlockingStepsLeaveIt) {
  auto store = watchStoreAndAnswerLogin();
  fake.on("GET", "/groups/g1", Answer::json(200, {{"groupID", "g1"}, {"name", "one"}}));
  // An executor that runs completions at once shows the thread the routine ended on.
  std::promise<bool> groupOnIo, loginOnIo;
  JovMainQueue::setExecutor([](std::function<void()> f) { f(); });
  JovGroup::groupWithID("g1")->refresh([&](std::shared_ptr<JovGroup>, std::optional<JovError>) {
    groupOnIo.set_value(detail::onIoThread());
  });
  JovUser::authenticate("ann", "secret", [&](JovUser::Ptr user, std::optional<JovError> error) {
    EXPECT_FALSE(error);
    EXPECT_TRUE(user);
    loginOnIo.set_value(detail::onIoThread());
  });
  auto group = groupOnIo.get_future(), login = loginOnIo.get_future();
  ASSERT_EQ(group.wait_for(5s), std::future_status::ready);
  ASSERT_EQ(login.wait_for(5s), std::future_status::ready);
  JovMainQueue::setExecutor(nullptr);
  EXPECT_TRUE(group.get());
  EXPECT_FALSE(login.get());
  // The login logged out, stored and read credentials: never on the I/O thread.
  EXPECT_GT(store->calls.load(), 0);
  EXPECT_EQ(store->onIoThread.load(), 0);

  // A large answer is read on a worker, not on the I/O thread.
  std::promise<bool> largeOnIo;
  fake.on(
      "GET", "/groups/g2",
      Answer::json(200, {{"groupID", "g2"}, {"name", "two"}, {"notes", std::string(300000, 'x')}}));
  JovMainQueue::setExecutor([](std::function<void()> f) { f(); });
  JovGroup::groupWithID("g2")->refresh([&](std::shared_ptr<JovGroup>, std::optional<JovError> e) {
    EXPECT_FALSE(e);
    largeOnIo.set_value(detail::onIoThread());
  });
  auto large = largeOnIo.get_future();
  ASSERT_EQ(large.wait_for(5s), std::future_status::ready);
  JovMainQueue::setExecutor(nullptr);
  EXPECT_FALSE(large.get());
  JovKeyChainWrapper::useMemoryStore();
}

TEST_F(EngineTest, ARefreshWritesTheStoredCredentialsOnlyWhenTheRecordChanged) {
  auto store = watchStoreAndAnswerLogin();
  auto user = JovUser::authenticateSynchronous("ann", "secret");
  ASSERT_TRUE(user.ok());
  const int afterLogin = store->writes.load();
  EXPECT_GT(afterLogin, 0);

  // The same record again: nothing to write.
  ASSERT_TRUE(user.value()->refreshSynchronous().ok());
  EXPECT_EQ(store->writes.load(), afterLogin);

  // A new display name is part of the stored record: written once, and read back as such.
  fake.on("GET", "/users/u1",
          Answer::json(200, {{"userID", "u1"}, {"loginName", "ann"}, {"displayName", "Ann"}}));
  ASSERT_TRUE(user.value()->refreshSynchronous().ok());
  EXPECT_EQ(store->writes.load(), afterLogin + 1);
  auto restored = JovUser::authenticateWithStoredCredentialsSynchronous();
  ASSERT_TRUE(restored.ok());
  EXPECT_EQ(restored.value()->displayName(), "Ann");

  // A refresh the service refuses leaves the user and the stored record as they were.
  fake.on("GET", "/users/u1", Answer::json(404, {{"errorCode", "USER_NOT_FOUND"}}));
  EXPECT_FALSE(restored.value()->refreshSynchronous().ok());
  EXPECT_EQ(restored.value()->displayName(), "Ann");
  EXPECT_EQ(store->writes.load(), afterLogin + 1);
  JovKeyChainWrapper::useMemoryStore();
}

TEST_F(EngineTest, BlockingCallInsideACompletionDoesNotDeadlock) {
  fake.on("GET", "/groups/g1", Answer::json(200, {{"groupID", "g1"}, {"name", "one"}}));
  fake.on("GET", "/groups/g2", Answer::json(200, {{"groupID", "g2"}, {"name", "two"}}));
  auto first = JovGroup::groupWithID("g1");
  auto second = JovGroup::groupWithID("g2");
  std::optional<Result<void>> inner;
  first->refresh([&](std::shared_ptr<JovGroup>, std::optional<JovError>) {
    EXPECT_TRUE(JovMainQueue::isDrainingThread());
    inner = second->refreshSynchronous();
  });
  EXPECT_EQ(JovMainQueue::runUntil(1, 5s), 1u);
  ASSERT_TRUE(inner);
  EXPECT_TRUE(inner->ok());
  EXPECT_EQ(second->name(), "two");
  EXPECT_EQ(first->name(), "one");
}

}  // namespace
