// Registration and login against the fake transport: request shapes, identifier choice, checks
// before any request, failures that leave nobody logged in, token login and the async forms.
#include <gtest/gtest.h>

#include <cstdlib>

#include "fake_transport.hpp"
#include "jov/credential_store.hpp"
#include "jov/user.hpp"
#include "jov/user_builder.hpp"
#include "users/user_internal.hpp"

namespace jov {
namespace {

using jovtest::Answer;
using nlohmann::json;
using namespace std::chrono_literals;

constexpr const char* kService = JovKeyChainWrapper::kUserCredentialsService;

class UserAuthTest : public ::testing::Test {
 protected:
  void SetUp() override {
    JovKeyChainWrapper::useMemoryStore();
    JovUser::logOut();
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
      const char* v = std::getenv(name);
      savedLocale_.emplace_back(name, v ? v : "");
      unsetenv(name);
    }
  }
  void TearDown() override {
    JovUser::logOut();
    for (const auto& [name, value] : savedLocale_)
      value.empty() ? unsetenv(name.c_str()) : setenv(name.c_str(), value.c_str(), 1);
  }

  // A current user made without the network, to see that a failed login logs it out.
  JovUser::Ptr loginLocally(const std::string& id = "old") {
    auto user = JovUser::userWithCredentialDictionary(
        {{"userID", id}, {"accessToken", "old-token"}, {"accesstokenExpiresAt", 4102444800000LL}});
    Jov::setCurrentUser(user);
    return user;
  }
  // The answers of a successful login of user u1.
  void scriptLogin(const json& record = {{"userID", "u1"}, {"loginName", "alice"}}) {
    fake.on("POST", "/oauth2/token",
            Answer::json(200, {{"id", "u1"},
                               {"access_token", "t1"},
                               {"refresh_token", "r1"},
                               {"expires_in", 3600},
                               {"token_type", "Bearer"}}));
    fake.on("GET", "/users/u1", Answer::json(200, record));
  }
  bool credentialsStored() { return JovKeyChainWrapper::jovUserFromMatchingService(kService).ok(); }

  jovtest::TestApp app;
  jovtest::FakeTransport& fake = *app.fake;
  std::vector<std::pair<std::string, std::string>> savedLocale_;
};

TEST_F(UserAuthTest, RegistrationSendsTheRecordThenLogsIn) {
  setenv("LANG", "ja_JP.UTF-8", 1);
  fake.on("POST", "/users", Answer::json(201, {{"userID", "u1"}}));
  scriptLogin({{"userID", "u1"}, {"loginName", "alice"}, {"level", 5}});

  auto user =
      JovUserBuilder::builderWithEmail("a@example.com", "pass1234").setUsername("alice").build();
  user->setDisplayName("Alice");
  user->setLocale("ja-JP");
  user->setObject(5, "level");
  ASSERT_TRUE(user->performRegistrationSynchronous().ok());

  auto sent = fake.requests();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].method, "POST");
  EXPECT_EQ(sent[0].url, std::string(jovtest::TestApp::kBaseURL) + "/apps/app1/users");
  EXPECT_EQ(sent[0].header("Content-type"), "application/vnd.jov.RegistrationRequest+json");
  EXPECT_FALSE(sent[0].header("Authorization"));
  EXPECT_EQ(sent[0].json(), json({{"password", "pass1234"},
                                  {"country", "JP"},
                                  {"loginName", "alice"},
                                  {"displayName", "Alice"},
                                  {"emailAddress", "a@example.com"},
                                  {"locale", "ja-JP"},
                                  {"level", 5}}));
  EXPECT_EQ(sent[1].path(), "/oauth2/token");
  EXPECT_EQ(sent[1].json(), json({{"password", "pass1234"}, {"username", "alice"}}));
  EXPECT_EQ(sent[2].path(), "/users/u1");
  EXPECT_EQ(sent[2].header("Authorization"), "Bearer t1");

  EXPECT_EQ(JovUser::currentUser(), user);
  EXPECT_EQ(user->userID(), "u1");
  EXPECT_EQ(user->accessToken(), "t1");
  EXPECT_EQ(user->refreshToken(), "r1");
  EXPECT_EQ(user->getObjectForKey("level"), json(5));
  EXPECT_TRUE(credentialsStored());

  // The user's own country replaces the device's.
  fake.reset();
  fake.on("POST", "/users", Answer::json(201, {{"userID", "u1"}}));
  scriptLogin();
  auto second = JovUser::userWithUsername("bob", "pass1234");
  second->setCountry("US");
  ASSERT_TRUE(second->performRegistrationSynchronous().ok());
  EXPECT_EQ(fake.requests()[0].json()["country"], "US");
}

TEST_F(UserAuthTest, RegistrationRefusals) {
  struct Case {
    JovUser::Ptr user;
    int code;
  };
  // Checked before any request.
  const Case invalid[] = {
      {JovUser::userWithID("x"), JovError::codeInvalidUserObject()},
      {JovUser::userWithUsername("alice", ""), JovError::codeInvalidUserObject()},
      {JovUser::userWithEmailAddress("not-an-address", "pass1234"),
       JovError::codeInvalidEmailFormat()},
      {JovUser::userWithPhoneNumber("12-345-678", "pass1234"), JovError::codeInvalidPhoneFormat()},
  };
  for (const auto& c : invalid) {
    loginLocally();
    auto r = c.user->performRegistrationSynchronous();
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.error().code(), c.code);
    EXPECT_EQ(c.user->validationError()->code(), c.code);
    EXPECT_FALSE(JovUser::loggedIn());
  }
  EXPECT_EQ(fake.count(), 0u);

  // The service's refusals.
  struct Refusal {
    Answer answer;
    int code;
  };
  const Refusal refusals[] = {
      {Answer::serviceError(409, "USER_ALREADY_EXISTS", "taken"), JovError::codeDuplicateEntry()},
      {Answer::serviceError(400, "user_already_exists"), JovError::codeDuplicateEntry()},
      {Answer::serviceError(400, "INVALID_INPUT_DATA", "bad"), 0},
      {Answer::error(), JovError::codeUnableToConnectToInternet()},
      {Answer::text(201, "[]"), JovError::codeUnableToParseResponse()},
  };
  for (const auto& c : refusals) {
    fake.reset();
    fake.on("POST", "/users", c.answer);
    loginLocally();
    auto r = JovUser::userWithUsername("alice", "pass1234")->performRegistrationSynchronous();
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.error().code(), c.code) << c.answer.body;
    EXPECT_FALSE(JovUser::loggedIn());
    EXPECT_EQ(fake.count(), 1u) << "no login after a failed registration";
  }
  // The mapped error keeps what the service said.
  fake.reset();
  fake.on("POST", "/users", Answer::serviceError(409, "USER_ALREADY_EXISTS", "taken"));
  auto r = JovUser::userWithUsername("alice", "pass1234")->performRegistrationSynchronous();
  EXPECT_EQ(r.error().jovErrorSummary(), "USER_ALREADY_EXISTS");
  EXPECT_EQ(r.error().jovHttpStatus(), 409);
}

TEST_F(UserAuthTest, LoginChoosesTheIdentifier) {
  struct Case {
    json record;
    std::string expected;
  };
  const Case cases[] = {
      {{{"loginName", "alice"}, {"phoneNumber", "+8190"}, {"phoneNumberVerified", true}}, "alice"},
      {{{"phoneNumber", "+819012345678"},
        {"phoneNumberVerified", true},
        {"emailAddress", "a@b.c"},
        {"emailAddressVerified", true}},
       "+819012345678"},
      {{{"phoneNumber", "09012345678"},
        {"country", "JP"},
        {"emailAddress", "a@b.c"},
        {"emailAddressVerified", true}},
       "a@b.c"},
      {{{"phoneNumber", "+819012345678"}, {"emailAddress", "a@b.c"}}, "+819012345678"},
      {{{"phoneNumber", "09012345678"}, {"country", "JP"}, {"emailAddress", "a@b.c"}},
       "PHONE:JP-09012345678"},
      {{{"emailAddress", "a@b.c"}}, "a@b.c"},
  };
  for (const auto& c : cases) {
    fake.reset();
    scriptLogin();
    auto user = JovUser::userWithID("");
    user->loadFromJSON(c.record);
    detail::UserAccess::password(*user) = "pass1234";
    ASSERT_TRUE(detail::UserAccess::authenticate(*user).ok()) << c.record.dump();
    EXPECT_EQ(fake.requests()[0].json()["username"], c.expected) << c.record.dump();
  }

  // The class operations build the user from what they are given.
  const std::pair<std::function<Result<JovUser::Ptr>()>, std::string> logins[] = {
      {[] { return JovUser::authenticateSynchronous("a@example.com", "pass1234"); },
       "a@example.com"},
      {[] { return JovUser::authenticateSynchronous("alice", "pass1234"); }, "alice"},
      {[] { return JovUser::authenticateSynchronous("+819012345678", "pass1234"); },
       "+819012345678"},
      {[] {
         return JovUser::authenticateWithLocalPhoneNumberSynchronous("09012345678", "pass1234",
                                                                     "JP");
       },
       "PHONE:JP-09012345678"},
  };
  for (const auto& [login, expected] : logins) {
    fake.reset();
    scriptLogin();
    auto r = login();
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(fake.requests()[0].json()["username"], expected);
    EXPECT_EQ(JovUser::currentUser(), r.value());
  }
}

TEST_F(UserAuthTest, LoginExchangeAndItsOutcome) {
  Jov::setAccessTokenExpiration(600);
  scriptLogin();
  loginLocally();
  const auto before = std::chrono::system_clock::now();
  auto r = JovUser::authenticateSynchronous("alice", "pass1234");
  const auto after = std::chrono::system_clock::now();
  Jov::setAccessTokenExpiration(0);
  ASSERT_TRUE(r.ok());

  auto token = fake.requests()[0];
  EXPECT_EQ(token.method, "POST");
  EXPECT_FALSE(token.header("Authorization")) << "the login is anonymous";
  const auto expiresAt = token.json()["expiresAt"].get<std::int64_t>();
  EXPECT_GE(expiresAt, detail::toMillis(before + 600s));
  EXPECT_LE(expiresAt, detail::toMillis(after + 600s));

  auto user = r.value();
  EXPECT_EQ(user->userID(), "u1");
  EXPECT_EQ(user->username(), "alice");
  ASSERT_TRUE(user->accessTokenExpiresAt());
  EXPECT_GE(*user->accessTokenExpiresAt(), before + 3600s);
  EXPECT_LE(*user->accessTokenExpiresAt(), after + 3600s);
  auto stored = JovKeyChainWrapper::jovUserFromMatchingService(kService);
  ASSERT_TRUE(stored.ok());
  EXPECT_EQ(stored.value()->accessToken(), "t1");
  EXPECT_EQ(stored.value()->refreshToken(), "r1");
  EXPECT_EQ(
      JovKeyChainWrapper::searchFirstItemCopyMatchingService(kService).value().find("pass1234"),
      std::string::npos)
      << "no password in the stored record";
}

TEST_F(UserAuthTest, BadInputIsRefusedBeforeAnyRequest) {
  const std::pair<std::function<Result<JovUser::Ptr>()>, int> cases[] = {
      {[] { return JovUser::authenticateSynchronous("alice", "abc"); },
       JovError::codeInvalidPasswordFormat()},
      {[] { return JovUser::authenticateSynchronous("not valid!", "pass1234"); },
       JovError::codeInvalidUsername()},
      {[] {
         return JovUser::authenticateWithLocalPhoneNumberSynchronous("+8190123", "pass1234", "JP");
       },
       JovError::codeInvalidLocalPhoneFormat()},
      {[] {
         return JovUser::authenticateWithLocalPhoneNumberSynchronous("09012345678", "ab", "JP");
       },
       JovError::codeInvalidPasswordFormat()},
      {[] {
         return JovUser::authenticateWithLocalPhoneNumberSynchronous("09012345678", "pass1234",
                                                                     "Jp");
       },
       JovError::codeInvalidCountryCode()},
      {[] {
         JovUserFields fields;
         fields.setCountry("JPN");
         return JovUser::registerAsPseudoUserSynchronous(fields);
       },
       JovError::codeInvalidCountryCode()},
  };
  for (const auto& [call, code] : cases) {
    loginLocally();
    auto r = call();
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.error().code(), code);
    EXPECT_FALSE(JovUser::loggedIn()) << "a failed login leaves no current user";
  }
  EXPECT_EQ(fake.count(), 0u);
}

TEST_F(UserAuthTest, FailedLoginsLeaveNoCurrentUserAndNoStoredCredentials) {
  struct Case {
    Answer token;
    Answer record;
    int code;
  };
  const Case cases[] = {
      {Answer::json(400, {{"errorCode", "invalid_grant"}, {"error_description", "bad password"}}),
       Answer::json(200, {}), JovError::codeUnableToAuthenticateUser()},
      {Answer::json(200, {{"id", "u1"}, {"token_type", "Bearer"}}), Answer::json(200, {}),
       JovError::codeUnableToParseResponse()},
      {Answer::json(200, {{"id", "u1"}, {"access_token", nullptr}}), Answer::json(200, {}),
       JovError::codeUnableToParseResponse()},
      {Answer::error(), Answer::json(200, {}), JovError::codeUnableToConnectToInternet()},
      // The record cannot be fetched after the token was granted.
      {Answer::json(200, {{"id", "u1"}, {"access_token", "t"}}), Answer::text(200, "oops"),
       JovError::codeUnableToParseResponse()},
      {Answer::json(200, {{"id", "u1"}, {"access_token", "t"}}),
       Answer::serviceError(500, "INTERNAL"), 0},
      {Answer::json(200, {{"access_token", "t"}}), Answer::json(200, {}),
       JovError::codeInvalidObjects()},
  };
  for (const auto& c : cases) {
    fake.reset();
    fake.on("POST", "/oauth2/token", c.token);
    fake.on("GET", "/users/u1", c.record);
    auto old = loginLocally();
    ASSERT_TRUE(JovKeyChainWrapper::createJovUser(*old, kService).ok());
    auto r = JovUser::authenticateSynchronous("alice", "pass1234");
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.error().code(), c.code) << c.token.body << " " << c.record.body;
    EXPECT_FALSE(JovUser::loggedIn());
    EXPECT_FALSE(credentialsStored());
  }
}

TEST_F(UserAuthTest, PseudoUserRegistration) {
  fake.on("POST", "/users", Answer::json(201, {{"userID", "p1"}, {"_accessToken", "pt"}}));
  JovUserFields fields;
  fields.setDisplayName("Guest");
  fields.setCountry("JP");
  fields.setLocale("ja-JP");
  fields.setObject("blue", "color");
  auto r = JovUser::registerAsPseudoUserSynchronous(fields);
  ASSERT_TRUE(r.ok());
  auto sent = fake.last();
  EXPECT_EQ(sent.header("Content-type"),
            "application/vnd.jov.RegistrationAndAuthorizationRequest+json");
  EXPECT_FALSE(sent.header("Authorization"));
  EXPECT_EQ(
      sent.json(),
      json({{"displayName", "Guest"}, {"country", "JP"}, {"locale", "ja-JP"}, {"color", "blue"}}));
  auto user = r.value();
  EXPECT_EQ(JovUser::currentUser(), user);
  EXPECT_EQ(user->userID(), "p1");
  EXPECT_EQ(user->accessToken(), "pt");
  EXPECT_EQ(user->displayName(), "Guest");
  EXPECT_EQ(user->getObjectForKey("color"), json("blue"));
  EXPECT_TRUE(user->isPseudoUser());
  EXPECT_EQ(user->accessTokenExpiresAt(), detail::distantFuture());
  EXPECT_EQ(JovKeyChainWrapper::searchFirstItemCopyMatchingService(kService).error().code(),
            JovError::codeNonKeychainItemFound())
      << "a pseudo user is not stored";

  fake.reset();
  fake.on("POST", "/users", Answer::json(201, {{"userID", "p2"}}));
  auto missing = JovUser::registerAsPseudoUserSynchronous(JovUserFields());
  ASSERT_FALSE(missing.ok());
  EXPECT_EQ(missing.error().code(), JovError::codeUnableToParseResponse());
  EXPECT_FALSE(JovUser::loggedIn());
  EXPECT_EQ(fake.last().json(), json::object());
}

TEST_F(UserAuthTest, TokenLogin) {
  auto message = [](auto call) {
    try {
      call();
    } catch (const std::invalid_argument& e) {
      return std::string(e.what());
    }
    return std::string("no exception");
  };
  const auto soon = std::chrono::system_clock::now() + 1h;
  EXPECT_EQ(message([] { JovUser::authenticateWithTokenSynchronous(""); }),
            "token must not nil or empty");
  EXPECT_EQ(message([&] { JovUser::authenticateWithTokenSynchronous("", soon); }),
            "token must not nil or empty");
  EXPECT_EQ(message([&] { JovUser::authenticateWithTokenSynchronous("t", soon, ""); }),
            "refreshToken must not nil or empty");
  EXPECT_EQ(message([] { JovUser::authenticateWithTokenSynchronous("t", std::nullopt, "r"); }),
            "expiresAt must not nil");
  EXPECT_EQ(message([] { JovUser::authenticateWithToken("", [](JovUser::Ptr, auto) {}); }),
            "token must not nil or empty");
  EXPECT_EQ(message([] { JovUser::authenticateWithTokenAsync("t", std::nullopt, "r"); }),
            "expiresAt must not nil");
  EXPECT_EQ(fake.count(), 0u);

  fake.on("GET", "/users/me", Answer::json(200, {{"userID", "u9"}, {"loginName", "zed"}}));
  loginLocally();
  auto r = JovUser::authenticateWithTokenSynchronous("given", soon, "refresh");
  ASSERT_TRUE(r.ok());
  auto sent = fake.last();
  EXPECT_EQ(sent.method, "GET");
  EXPECT_EQ(sent.header("Authorization"), "Bearer given");
  EXPECT_EQ(sent.headerCount("Authorization"), 1u);
  auto user = r.value();
  EXPECT_EQ(JovUser::currentUser(), user);
  EXPECT_EQ(user->username(), "zed");
  EXPECT_EQ(user->accessToken(), "given");
  EXPECT_EQ(user->refreshToken(), "refresh");
  EXPECT_EQ(user->accessTokenExpiresAt(), soon);
  auto stored = JovKeyChainWrapper::jovUserFromMatchingService(kService);
  ASSERT_TRUE(stored.ok());
  EXPECT_EQ(stored.value()->refreshToken(), "refresh");

  // An unreadable answer or a refused token: nobody logged in.
  for (const auto& answer : {Answer::text(200, ""), Answer::serviceError(403, "WRONG_TOKEN")}) {
    fake.reset();
    fake.on("GET", "/users/me", answer);
    loginLocally();
    auto failed = JovUser::authenticateWithTokenSynchronous("given");
    ASSERT_FALSE(failed.ok());
    EXPECT_FALSE(JovUser::loggedIn());
  }
}

struct Delegate {
  void done(JovUser::Ptr user, std::optional<JovError> error) {
    this->user = user;
    this->error = error;
    ++calls;
  }
  JovUser::Ptr user;
  std::optional<JovError> error;
  int calls = 0;
};

TEST_F(UserAuthTest, AsyncFormsDeliverOnTheMainQueue) {
  scriptLogin();
  // A class block form refuses an empty block before anything happens.
  try {
    JovUser::authenticate("alice", "pass1234", JovUser::UserBlock());
    ADD_FAILURE() << "an empty block is refused";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "completion can not be nil");
  }
  EXPECT_THROW(JovUser::findUserByUsername("alice", JovUser::UserBlock()), std::invalid_argument);
  EXPECT_THROW(JovUser::resetPassword("a@b.c", JovNotificationMethodEmail, JovBlock<>()),
               std::invalid_argument);
  EXPECT_EQ(fake.count(), 0u);

  JovUser::Ptr delivered;
  std::optional<JovError> deliveredError = JovError(-1);
  bool onMainQueue = false;
  JovUser::authenticate("alice", "pass1234", [&](JovUser::Ptr u, std::optional<JovError> e) {
    delivered = u;
    deliveredError = e;
    onMainQueue = JovMainQueue::isDrainingThread();
  });
  ASSERT_EQ(JovMainQueue::runUntil(1, 5s), 1u);
  EXPECT_TRUE(onMainQueue);
  EXPECT_FALSE(deliveredError);
  ASSERT_TRUE(delivered);
  EXPECT_EQ(delivered->userID(), "u1");

  auto delegate = std::make_shared<Delegate>();
  fake.on("POST", "/oauth2/token", Answer::json(400, {{"errorCode", "invalid_grant"}}));
  JovUser::authenticate("alice", "wrong",
                        JovCallback::callbackWithDelegate(delegate, &Delegate::done));
  // The delegate is called in a second hop on the main queue.
  ASSERT_EQ(JovMainQueue::runUntil(2, 5s), 2u);
  EXPECT_EQ(delegate->calls, 1);
  EXPECT_FALSE(delegate->user);
  ASSERT_TRUE(delegate->error);
  EXPECT_EQ(delegate->error->code(), JovError::codeUnableToAuthenticateUser());

  scriptLogin();
  auto future = JovUser::authenticateAsync("alice", "pass1234");
  ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
  EXPECT_TRUE(future.get().ok());
}

}  // namespace
}  // namespace jov
