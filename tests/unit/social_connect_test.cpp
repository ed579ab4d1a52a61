// Social login and linking against the fake transport: the requests, the service's refusals
// and their codes, what a failure leaves behind, the provider sessions and the forms.
#include "jov/social_connect.hpp"

#include <gtest/gtest.h>

#include "fake_transport.hpp"

namespace jov {
namespace {

using jovtest::Answer;
using jovtest::codeOf;
using jovtest::thrownMessage;
using nlohmann::json;
using namespace std::chrono_literals;

constexpr const char* kService = JovKeyChainWrapper::kUserCredentialsService;

json record(const json& accounts = json::object()) {
  return {{"userID", "u1"}, {"displayName", "Ann"}, {"_thirdPartyAccounts", accounts}};
}

class SocialConnectTest : public jovtest::UserTest {
 protected:
  void scriptLogin() {
    fake.on(
        "POST", "/oauth2/token",
        Answer::json(
            200,
            {{"id", "u1"}, {"access_token", "t1"}, {"refresh_token", "r1"}, {"expires_in", 3600}}));
    fake.on("GET", "/users/u1",
            Answer::json(200, record({{"facebook", {{"id", "fb1"}, {"createdAt", 5}}}})));
  }
  JovUser::Ptr loginLocally() {
    auto user = jovtest::credentialUser();
    Jov::setCurrentUser(user);
    return user;
  }
  std::shared_ptr<JovSocialNetworkConnector> connector(JovSocialNetwork n) {
    return JovSocialConnect::sharedInstance().connector(n);
  }
};

TEST_F(SocialConnectTest, LoginSendsTheGrantThenReadsTheRecord) {
  scriptLogin();
  Jov::setAccessTokenExpiration(600);
  JovSocialToken token{.accessToken = "tw", .tokenSecret = "sec"};
  auto user = JovSocialConnect::loginWithTokenSynchronous(JovSocialNetworkTwitter, token);
  Jov::setAccessTokenExpiration(0);
  ASSERT_TRUE(user.ok()) << user.error().describe();

  auto sent = fake.requests();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].method + " " + sent[0].path(), "POST /oauth2/token");
  EXPECT_FALSE(sent[0].header("Authorization"));
  auto grant = sent[0].json();
  EXPECT_TRUE(grant["expiresAt"].is_number());
  grant.erase("expiresAt");
  EXPECT_EQ(grant, json({{"grant_type", "social_token"},
                         {"provider", "twitter"},
                         {"access_token", "tw"},
                         {"token_secret", "sec"}}));
  EXPECT_EQ(sent[1].method + " " + sent[1].path(), "GET /users/u1");
  EXPECT_EQ(sent[1].header("Authorization"), "Bearer t1");

  EXPECT_EQ(JovUser::currentUser(), user.value());
  EXPECT_EQ(user.value()->displayName(), "Ann");
  EXPECT_EQ(user.value()->refreshToken(), "r1");
  EXPECT_TRUE(user.value()->isLinkedWithSocialProvider(JovSocialNetworkFacebook));
  auto stored = JovKeyChainWrapper::jovUserFromMatchingService(kService);
  ASSERT_TRUE(stored.ok());
  EXPECT_EQ(stored.value()->accessToken(), "t1");
  EXPECT_EQ(connector(JovSocialNetworkTwitter)->session(), token);

  // An ID token goes along; a network without secrets sends none.
  fake.reset();
  scriptLogin();
  ASSERT_TRUE(JovSocialConnect::loginWithTokenSynchronous(
                  JovSocialNetworkLive, {.accessToken = "lv", .openIDToken = "idt"})
                  .ok());
  EXPECT_EQ(fake.requests()[0].json(), json({{"grant_type", "social_token"},
                                             {"provider", "live"},
                                             {"access_token", "lv"},
                                             {"id_token", "idt"}}));
  // Every login logs out first, which forgets the other networks' sessions.
  EXPECT_FALSE(connector(JovSocialNetworkTwitter)->isLoggedIn());
  EXPECT_TRUE(connector(JovSocialNetworkLive)->isLoggedIn());
}

TEST_F(SocialConnectTest, RefusedLoginsLeaveNobodyLoggedIn) {
  const std::pair<Answer, int> rows[] = {
      {Answer::serviceError(400, "PROVIDER_NOT_CONFIGURED"),
       JovError::codeInvalidSocialNetworkKey()},
      {Answer::serviceError(401, "INVALID_PROVIDER_TOKEN"), JovError::codeInvalidCredentials()},
      {Answer::serviceError(502, "PROVIDER_UNAVAILABLE"), JovError::codeServerSideLoginFailed()},
      {Answer::serviceError(400, "invalid_grant"), JovError::codeUnableToAuthenticateUser()},
      {Answer::json(200, {{"id", "u1"}}), JovError::codeUnableToParseResponse()},
      {Answer::json(200, {{"access_token", "t1"}}), JovError::codeUnableToParseResponse()},
      {Answer::error(), JovError::codeUnableToConnectToInternet()},
  };
  for (const auto& [answer, code] : rows) {
    SCOPED_TRACE(answer.body);
    fake.reset();
    fake.push(answer);
    loginLocally();
    connector(JovSocialNetworkGitHub)->logOut();
    auto result =
        JovSocialConnect::loginWithTokenSynchronous(JovSocialNetworkGitHub, {.accessToken = "g"});
    EXPECT_EQ(codeOf(result), code);
    EXPECT_FALSE(JovUser::loggedIn());
    EXPECT_FALSE(connector(JovSocialNetworkGitHub)->isLoggedIn());
  }

  // The token is accepted but the record cannot be read: the login is undone, nothing stored.
  for (const Answer& recordAnswer :
       {Answer::serviceError(404, "USER_NOT_FOUND"), Answer::json(200, {{"loginName", 3}})}) {
    fake.reset();
    scriptLogin();
    fake.on("GET", "/users/u1", recordAnswer);
    auto result =
        JovSocialConnect::loginWithTokenSynchronous(JovSocialNetworkGitHub, {.accessToken = "g"});
    EXPECT_FALSE(result.ok());
    EXPECT_FALSE(JovUser::loggedIn());
    EXPECT_FALSE(JovKeyChainWrapper::jovUserFromMatchingService(kService).ok());
  }
}

TEST_F(SocialConnectTest, LinkAndUnlinkUpdateTheCurrentUser) {
  auto user = loginLocally();
  fake.on("PUT", "/users/u1/third-party-accounts/google",
          Answer::json(200, record({{"google-oauth2", {{"id", "g1"}, {"createdAt", 9}}}})));
  auto linked = JovSocialConnect::linkWithTokenSynchronous(
      JovSocialNetworkGoogle, {.accessToken = "ga", .openIDToken = "gid"});
  ASSERT_TRUE(linked.ok());
  EXPECT_EQ(linked.value(), user);
  const auto sent = fake.last();
  EXPECT_EQ(sent.header("Authorization"), "Bearer t0");
  EXPECT_EQ(sent.header("Content-type"), "application/vnd.jov.ThirdPartyAccountLinkRequest+json");
  EXPECT_EQ(sent.json(), json({{"access_token", "ga"}, {"id_token", "gid"}}));
  EXPECT_EQ(user->linkedSocialAccounts().at(JovSocialNetworkGoogle).socialID(), "g1");
  EXPECT_TRUE(connector(JovSocialNetworkGoogle)->isLoggedIn());

  fake.on("DELETE", "/users/u1/third-party-accounts/google", Answer::json(200, record()));
  ASSERT_TRUE(JovSocialConnect::unlinkSynchronous(JovSocialNetworkGoogle).ok());
  EXPECT_FALSE(user->isLinkedWithSocialProvider(JovSocialNetworkGoogle));
  EXPECT_FALSE(connector(JovSocialNetworkGoogle)->isLoggedIn());
  EXPECT_TRUE(JovUser::loggedIn());
}

TEST_F(SocialConnectTest, RefusedLinksChangeNothing) {
  auto user = loginLocally();
  ASSERT_TRUE(user->loadFromJSON(record({{"dropbox", {{"id", "d1"}}}})));
  using Op = std::function<Result<JovUser::Ptr>()>;
  const Op link = [] {
    return JovSocialConnect::linkWithTokenSynchronous(JovSocialNetworkDropbox,
                                                      {.accessToken = "d"});
  };
  const Op unlink = [] { return JovSocialConnect::unlinkSynchronous(JovSocialNetworkDropbox); };
  const std::tuple<Op, Answer, int> rows[] = {
      {link, Answer::serviceError(409, "ACCOUNT_ALREADY_LINKED"),
       JovError::codeSocialAccountAlreadyLinked()},
      {link, Answer::serviceError(401, "INVALID_PROVIDER_TOKEN"),
       JovError::codeInvalidCredentials()},
      {link, Answer::serviceError(400, "PROVIDER_NOT_CONFIGURED"),
       JovError::codeInvalidSocialNetworkKey()},
      {link, Answer::json(200, {{"_thirdPartyAccounts", 7}}),
       JovError::codeUnableToParseResponse()},
      {unlink, Answer::serviceError(404, "ACCOUNT_NOT_LINKED"),
       JovError::codeSocialAccountNotLinked()},
      {unlink, Answer::text(200, "<html>"), JovError::codeUnableToParseResponse()},
  };
  for (const auto& [op, answer, code] : rows) {
    SCOPED_TRACE(answer.body);
    fake.reset();
    fake.push(answer);
    EXPECT_EQ(codeOf(op()), code);
    EXPECT_EQ(user->displayName(), "Ann");
    EXPECT_TRUE(user->isLinkedWithSocialProvider(JovSocialNetworkDropbox));
    EXPECT_EQ(JovUser::currentUser(), user);
  }

  // Nobody logged in: refused before any request.
  JovUser::logOut();
  fake.reset();
  EXPECT_EQ(codeOf(link()), JovError::codeNonLoggedInUserIsNotAllowed());
  EXPECT_EQ(codeOf(unlink()), JovError::codeNonLoggedInUserIsNotAllowed());
  EXPECT_EQ(fake.count(), 0u);
}

TEST_F(SocialConnectTest, MisuseRaisesBeforeAnyWork) {
  loginLocally();
  EXPECT_EQ(thrownMessage([] {
              (void)JovSocialConnect::loginWithTokenSynchronous(JovSocialNetworkFacebook, {});
            }),
            "accessToken must not nil or empty");
  EXPECT_EQ(thrownMessage([] {
              (void)JovSocialConnect::linkWithTokenAsync(JovSocialNetworkTwitter,
                                                         {.accessToken = "t"});
            }),
            "tokenSecret must not nil or empty");
  EXPECT_EQ(thrownMessage([] {
              JovSocialConnect::loginWithToken(JovSocialNetworkFacebook, {.accessToken = "t"},
                                               JovSocialConnect::UserBlock{});
            }),
            "completion can not be nil");
  try {
    (void)JovSocialConnect::unlinkSynchronous(static_cast<JovSocialNetwork>(42));
    ADD_FAILURE() << "an unknown network was accepted";
  } catch (const JovIllegalStateException& e) {
    EXPECT_EQ(std::string(e.what()), "JovSocialNetwork Exception : unknown social network 42");
  }
  EXPECT_EQ(fake.count(), 0u);
  EXPECT_TRUE(JovUser::loggedIn()) << "a refused call does not log out";
}

TEST_F(SocialConnectTest, LogOutAndStoredLoginForgetProviderSessions) {
  scriptLogin();
  ASSERT_TRUE(
      JovSocialConnect::loginWithTokenSynchronous(JovSocialNetworkQQ, {.accessToken = "q"}).ok());
  fake.on("PUT", "/users/u1/third-party-accounts/sina", Answer::json(200, record()));
  ASSERT_TRUE(
      JovSocialConnect::linkWithTokenSynchronous(JovSocialNetworkSina, {.accessToken = "s"}).ok());
  ASSERT_TRUE(connector(JovSocialNetworkQQ)->isLoggedIn());

  // A stored-credential login starts with no provider session.
  ASSERT_TRUE(JovUser::authenticateWithStoredCredentialsSynchronous().ok());
  EXPECT_FALSE(connector(JovSocialNetworkQQ)->isLoggedIn());
  EXPECT_FALSE(connector(JovSocialNetworkSina)->isLoggedIn());

  ASSERT_TRUE(
      JovSocialConnect::linkWithTokenSynchronous(JovSocialNetworkSina, {.accessToken = "s"}).ok());
  JovUser::logOut();
  EXPECT_FALSE(connector(JovSocialNetworkSina)->isLoggedIn());
}

struct Delegate {
  std::string userID;
  int code = -1;
  void done(JovUser::Ptr user, std::optional<JovError> error) {
    userID = user ? user->userID() : "";
    code = error ? error->code() : 0;
  }
};

TEST_F(SocialConnectTest, BlockDelegateAndFutureForms) {
  scriptLogin();
  JovUser::Ptr received;
  JovSocialConnect::loginWithToken(JovSocialNetworkFacebook, {.accessToken = "f"},
                                   [&](JovUser::Ptr user, std::optional<JovError> error) {
                                     EXPECT_FALSE(error);
                                     received = user;
                                   });
  ASSERT_EQ(JovMainQueue::runUntil(1, 5s), 1u);
  ASSERT_TRUE(received);
  EXPECT_EQ(received, JovUser::currentUser());

  fake.on("PUT", "/users/u1/third-party-accounts/yahoo",
          Answer::serviceError(409, "ACCOUNT_ALREADY_LINKED"));
  auto delegate = std::make_shared<Delegate>();
  JovSocialConnect::linkWithToken(JovSocialNetworkYahoo, {.accessToken = "y"},
                                  JovCallback::callbackWithDelegate(delegate, &Delegate::done));
  ASSERT_EQ(JovMainQueue::runUntil(2, 5s), 2u);
  EXPECT_EQ(delegate->code, JovError::codeSocialAccountAlreadyLinked());

  fake.on("DELETE", "/users/u1/third-party-accounts/facebook", Answer::json(200, record()));
  auto unlinked = JovSocialConnect::unlinkAsync(JovSocialNetworkFacebook);
  ASSERT_EQ(unlinked.wait_for(5s), std::future_status::ready);
  auto result = unlinked.get();
  ASSERT_TRUE(result.ok());
  EXPECT_FALSE(result.value()->isLinkedWithSocialProvider(JovSocialNetworkFacebook));
}

}  // namespace
}  // namespace jov
