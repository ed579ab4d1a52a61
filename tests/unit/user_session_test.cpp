// The current user's session: the access-token refresh rule and its failures, single-flight
// refresh, stored credentials, log-out and the service's WRONG_TOKEN.
#include <gtest/gtest.h>

#include <future>
#include <mutex>

#include "fake_transport.hpp"
#include "users/user_internal.hpp"

namespace jov {
namespace {

using jovtest::Answer;
using jovtest::codeOf;
using nlohmann::json;
using namespace std::chrono_literals;

constexpr const char* kService = JovKeyChainWrapper::kUserCredentialsService;

class UserSessionTest : public jovtest::UserTest {
 protected:
  void SetUp() override {
    UserTest::SetUp();
    script(Answer::error());
  }
  // Forgets what was sent; the refresh gets `token`, the record of u1 is found.
  void script(const Answer& token) {
    fake.reset();
    fake.on("POST", "/oauth2/token", token);
    fake.on("GET", "/users/u1", Answer::json(200, {{"userID", "u1"}, {"loginName", "alice"}}));
  }
  // Logs u1 in without the network, its token expiring in `left`, and stores its credentials.
  JovUser::Ptr loginExpiringIn(std::chrono::seconds left, const std::string& refresh = "r0") {
    json extra = {
        {"accesstokenExpiresAt", detail::toMillis(std::chrono::system_clock::now() + left)},
        {"username", "alice"}};
    if (!refresh.empty()) extra["refreshToken"] = refresh;
    auto user = jovtest::credentialUser(extra);
    Jov::setCurrentUser(user);
    EXPECT_TRUE(JovKeyChainWrapper::createJovUser(*user, kService).ok());
    return user;
  }
  static Answer granted(const std::string& token, int expiresIn = 3600) {
    return Answer::json(200, {{"access_token", token},
                              {"refresh_token", "r-" + token},
                              {"expires_in", expiresIn},
                              {"token_type", "Bearer"}});
  }
};

TEST_F(UserSessionTest, TokensNearExpiryAreRefreshedFirst) {
  // 311 s left: the token is sent as it is.
  script(granted("t1"));
  auto user = loginExpiringIn(311s);
  ASSERT_TRUE(user->refreshSynchronous().ok());
  ASSERT_EQ(fake.count(), 1u);
  EXPECT_EQ(fake.last().header("Authorization"), "Bearer t0");

  // No refresh token: never refreshed, even when expired.
  script(granted("t1"));
  user = loginExpiringIn(-10s, "");
  ASSERT_TRUE(user->refreshSynchronous().ok());
  EXPECT_EQ(fake.count(), 1u);

  // 309 s left: refreshed before the request, which carries the new token.
  script(granted("t1"));
  user = loginExpiringIn(309s);
  const auto before = std::chrono::system_clock::now();
  ASSERT_TRUE(user->refreshSynchronous().ok());
  auto sent = fake.requests();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].path(), "/oauth2/token");
  EXPECT_FALSE(sent[0].header("Authorization"));
  EXPECT_EQ(sent[0].json(), json({{"grant_type", "refresh_token"}, {"refresh_token", "r0"}}));
  EXPECT_EQ(sent[1].header("Authorization"), "Bearer t1");
  EXPECT_EQ(user->accessToken(), "t1");
  EXPECT_EQ(user->refreshToken(), "r-t1");
  EXPECT_GE(*user->accessTokenExpiresAt(), before + 3600s);
  auto stored = JovKeyChainWrapper::jovUserFromMatchingService(kService);
  ASSERT_TRUE(stored.ok());
  EXPECT_EQ(stored.value()->accessToken(), "t1") << "the new token is stored";

  // An answer without "expires_in" never expires; an expired token is refreshed as well.
  script(Answer::json(200, {{"access_token", "t2"}}));
  user = loginExpiringIn(-100s);
  ASSERT_TRUE(user->refreshSynchronous().ok());
  EXPECT_EQ(user->accessTokenExpiresAt(), detail::distantFuture());
  EXPECT_EQ(user->refreshToken(), "") << "a refresh without a new refresh token drops it";
}

TEST_F(UserSessionTest, RefreshFailures) {
  struct Case {
    Answer answer;
    int code;
    bool staysLoggedIn;
  };
  const Case cases[] = {
      {Answer::json(400, {{"errorCode", "invalid_grant"}, {"error_description", "expired"}}),
       JovError::codeRefreshTokenFailed(), false},
      {Answer::serviceError(401, "UNAUTHORIZED"), JovError::codeRefreshTokenFailed(), false},
      {Answer::serviceError(503, "UNAVAILABLE"), JovError::codeRefreshTokenFailed(), true},
      {Answer::error(), JovError::codeUnableToConnectToInternet(), true},
      {Answer::json(200, {{"token_type", "Bearer"}}), JovError::codeRefreshTokenFailed(), true},
  };
  for (const auto& c : cases) {
    script(c.answer);
    auto user = loginExpiringIn(100s);
    EXPECT_EQ(codeOf(user->refreshSynchronous()), c.code) << c.answer.body;
    EXPECT_EQ(fake.count(), 1u) << "the request itself is not sent";
    EXPECT_EQ(JovUser::loggedIn(), c.staysLoggedIn) << c.answer.body;
    EXPECT_EQ(JovKeyChainWrapper::jovUserFromMatchingService(kService).ok(), c.staysLoggedIn);
    if (c.staysLoggedIn) {
      EXPECT_EQ(user->accessToken(), "t0");
    }
  }
  // The refused refresh's details travel with 330.
  script(Answer::serviceError(400, "invalid_grant", "m"));
  auto r = loginExpiringIn(100s)->refreshSynchronous();
  EXPECT_EQ(r.error().jovHttpStatus(), 400);
  EXPECT_EQ(r.error().jovErrorSummary(), "invalid_grant");
}

// Holds refresh exchanges in flight until opened; opens itself when it goes, so that a failed
// assertion never leaves a worker blocked.
struct Gate {
  void open() {
    std::call_once(once, [this] { promise.set_value(); });
  }
  ~Gate() { open(); }
  std::promise<void> promise;
  std::shared_future<void> future = promise.get_future().share();
  std::once_flag once;
};

TEST_F(UserSessionTest, ConcurrentRequestsShareOneRefresh) {
  for (bool refused : {false, true}) {
    script(Answer::error());
    std::future<Result<void>> first, second;  // declared before the gate: it opens first
    Gate gate;
    // The refresh answers a token that is itself short-lived, so a second refresh would be
    // due by the clock: only the single flight prevents it.
    fake.on("POST", "/oauth2/token", [refused, wait = gate.future](const jovtest::Recorded&) {
      wait.wait();
      return refused ? Answer::serviceError(400, "invalid_grant") : granted("t1", 60);
    });
    auto user = loginExpiringIn(100s);

    first = std::async(std::launch::async, [user] { return user->refreshSynchronous(); });
    ASSERT_TRUE(fake.waitForRequests(1, 5s));
    // Another user object: one entity is never used by two operations at once.
    second = std::async(std::launch::async,
                        [] { return JovUser::userWithID("u1")->refreshSynchronous(); });
    ASSERT_TRUE(detail::waitForRefreshWaiters(1, 5s)) << "the second request waits";
    gate.open();
    ASSERT_EQ(first.wait_for(5s), std::future_status::ready);
    ASSERT_EQ(second.wait_for(5s), std::future_status::ready);
    auto a = first.get();
    auto b = second.get();
    EXPECT_EQ(fake.count("POST", "/oauth2/token"), 1u);
    if (!refused) {
      EXPECT_TRUE(a.ok());
      EXPECT_TRUE(b.ok());
      ASSERT_EQ(fake.count("GET", "/users/u1"), 2u);
      for (const auto& r : fake.requests())
        if (r.method == "GET") {
          EXPECT_EQ(r.header("Authorization"), "Bearer t1");
        }
    } else {
      // A refused refresh is shared too: the waiter gets its error and sends nothing.
      EXPECT_EQ(a.error().code(), JovError::codeRefreshTokenFailed());
      EXPECT_EQ(b.error().code(), JovError::codeRefreshTokenFailed());
      EXPECT_EQ(fake.count(), 1u);
      EXPECT_FALSE(JovUser::loggedIn());
    }
  }
}

TEST_F(UserSessionTest, StoredCredentialsRestoreTheSession) {
  auto user = loginExpiringIn(3600s);
  Jov::setCurrentUser(nullptr);  // as in a new launch: the store is all that is left

  auto restored = JovUser::authenticateWithStoredCredentialsSynchronous();
  ASSERT_TRUE(restored.ok());
  EXPECT_EQ(fake.count(), 0u) << "restoring asks nothing of the service";
  EXPECT_EQ(JovUser::currentUser(), restored.value());
  EXPECT_EQ(restored.value()->credentialDictionary(), user->credentialDictionary());

  // The block form, on the main queue.
  Jov::setCurrentUser(nullptr);
  JovUser::Ptr delivered;
  JovUser::authenticateWithStoredCredentials([&](JovUser::Ptr u, std::optional<JovError> e) {
    delivered = u;
    EXPECT_FALSE(e);
  });
  ASSERT_EQ(JovMainQueue::runUntil(1, 5s), 1u);
  ASSERT_TRUE(delivered);
  EXPECT_EQ(delivered->accessToken(), "t0");
  EXPECT_EQ(jovtest::thrownMessage(
                [] { JovUser::authenticateWithStoredCredentials(JovUser::UserBlock()); }),
            "completion can not be nil");

  // Log-out removes the record: nothing to restore.
  JovUser::logOut();
  EXPECT_FALSE(JovUser::loggedIn());
  EXPECT_EQ(codeOf(JovUser::authenticateWithStoredCredentialsSynchronous()),
            JovError::codeNonKeychainItemFound());

  // A record of another application, or another server, is refused and deleted.
  for (const auto& [appID, baseURL] :
       {std::pair<std::string, std::string>{"other-app", jovtest::TestApp::kBaseURL},
        {"app1", "https://elsewhere.test/api"}}) {
    Jov::beginWithID(appID, "key1", baseURL);
    auto foreign = loginExpiringIn(3600s);
    Jov::beginWithID("app1", "key1", std::string(jovtest::TestApp::kBaseURL));
    Jov::setRequestFactory(app.fake);
    Jov::setCurrentUser(nullptr);
    EXPECT_EQ(codeOf(JovUser::authenticateWithStoredCredentialsSynchronous()),
              JovError::codeValidStoredUserNotFound());
    EXPECT_FALSE(JovUser::loggedIn());
    EXPECT_EQ(codeOf(JovKeyChainWrapper::searchFirstItemCopyMatchingService(kService)),
              JovError::codeNonKeychainItemFound());
  }
}

TEST_F(UserSessionTest, WrongTokenLogsOut) {
  fake.on("GET", "/users/u1", Answer::serviceError(403, "WRONG_TOKEN"));
  auto user = loginExpiringIn(3600s);
  EXPECT_FALSE(user->refreshSynchronous().ok());
  EXPECT_FALSE(JovUser::loggedIn());
  EXPECT_FALSE(JovKeyChainWrapper::jovUserFromMatchingService(kService).ok());
  EXPECT_FALSE(user->accessTokenExpiresAt()) << "log-out clears the expiry";
}

}  // namespace
}  // namespace jov
