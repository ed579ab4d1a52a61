// Registration and login against the fake transport: request shapes, identifier choice, checks
// before any request, failures that leave nobody logged in, token login and the async forms.
#include <gtest/gtest.h>
#include <strings.h>

#include "fake_transport.hpp"
#include "jov/user_builder.hpp"
#include "users/user_internal.hpp"

namespace jov {
namespace {

using jovtest::Answer;
using jovtest::codeOf;
using jovtest::thrownMessage;
using nlohmann::json;
using namespace std::chrono_literals;
using Login = std::function<Result<JovUser::Ptr>()>;

constexpr const char* kService = JovKeyChainWrapper::kUserCredentialsService;

class UserAuthTest : public jovtest::UserTest {
 protected:
  // A current user made without the network, to see that a failed login logs it out.
  JovUser::Ptr loginLocally() {
    auto user = jovtest::credentialUser({{"userID", "old"}});
    Jov::setCurrentUser(user);
    return user;
  }
  // The answers of a successful login of user u1.
  void scriptLogin(const json& record = {{"userID", "u1"}, {"loginName", "alice"}}) {
    fake.on("POST", "/oauth2/token", Answer::json(200, R"({"id": "u1", "access_token": "t1",
        "refresh_token": "r1", "expires_in": 3600, "token_type": "Bearer"})"_json));
    fake.on("GET", "/users/u1", Answer::json(200, record));
  }
  bool credentialsStored() { return JovKeyChainWrapper::jovUserFromMatchingService(kService).ok(); }

  // The device country comes from the locale: none unless a test sets one.
  jovtest::ScopedEnv locale{{"LC_ALL", nullptr}, {"LC_MESSAGES", nullptr}, {"LANG", nullptr}};
};

TEST_F(UserAuthTest, RegistrationSendsTheRecordThenLogsIn) {
  setenv("LANG", "ja_JP.UTF-8", 1);
  Jov::setAccessTokenExpiration(600);
  fake.on("POST", "/users", Answer::json(201, {{"userID", "u1"}}));
  scriptLogin({{"userID", "u1"}, {"loginName", "alice"}, {"level", 5}});
  auto user =
      JovUserBuilder::builderWithEmail("a@example.com", "pass1234").setUsername("alice").build();
  user->setDisplayName("Alice");
  user->setLocale("ja-JP");
  user->setObject(5, "level");
  const auto before = std::chrono::system_clock::now();
  ASSERT_TRUE(user->performRegistrationSynchronous().ok());
  const auto after = std::chrono::system_clock::now();
  Jov::setAccessTokenExpiration(0);

  auto sent = fake.requests();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].method + " " + sent[0].url,
            "POST " + std::string(jovtest::TestApp::kBaseURL) + "/apps/app1/users");
  EXPECT_EQ(sent[0].header("Content-type"), "application/vnd.jov.RegistrationRequest+json");
  EXPECT_FALSE(sent[0].header("Authorization"));
  EXPECT_EQ(sent[0].json(), R"({"password": "pass1234", "country": "JP", "loginName": "alice",
      "displayName": "Alice", "emailAddress": "a@example.com", "locale": "ja-JP", "level": 5})"_json);
  // The login: anonymous, asking for the configured token lifetime.
  EXPECT_EQ(sent[1].method + " " + sent[1].path(), "POST /oauth2/token");
  EXPECT_FALSE(sent[1].header("Authorization"));
  auto login = sent[1].json();
  const auto expiresAt = login["expiresAt"].get<std::int64_t>();
  EXPECT_GE(expiresAt, detail::toMillis(before + 600s));
  EXPECT_LE(expiresAt, detail::toMillis(after + 600s));
  login.erase("expiresAt");
  EXPECT_EQ(login, json({{"password", "pass1234"}, {"username", "alice"}}));
  EXPECT_EQ(sent[2].path(), "/users/u1");
  EXPECT_EQ(sent[2].header("Authorization"), "Bearer t1");

  EXPECT_EQ(JovUser::currentUser(), user);
  EXPECT_EQ(user->userID(), "u1");
  EXPECT_EQ(user->username(), "alice");
  EXPECT_EQ(user->accessToken(), "t1");
  EXPECT_EQ(user->refreshToken(), "r1");
  ASSERT_TRUE(user->accessTokenExpiresAt());
  EXPECT_GE(*user->accessTokenExpiresAt(), before + 3600s);
  EXPECT_LE(*user->accessTokenExpiresAt(), after + 3600s);
  EXPECT_EQ(user->getObjectForKey("level"), json(5));
  auto stored = JovKeyChainWrapper::jovUserFromMatchingService(kService);
  ASSERT_TRUE(stored.ok());
  EXPECT_EQ(stored.value()->accessToken(), "t1");
  EXPECT_EQ(stored.value()->refreshToken(), "r1");
  EXPECT_EQ(
      JovKeyChainWrapper::searchFirstItemCopyMatchingService(kService).value().find("pass1234"),
      std::string::npos)
      << "no password in the stored record";

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
  // Checked before any request.
  const std::pair<JovUser::Ptr, int> invalid[] = {
      {JovUser::userWithID("x"), JovError::codeInvalidUserObject()},
      {JovUser::userWithUsername("alice", ""), JovError::codeInvalidUserObject()},
      {JovUser::userWithEmailAddress("not-an-address", "pass1234"),
       JovError::codeInvalidEmailFormat()},
      {JovUser::userWithPhoneNumber("12-345-678", "pass1234"), JovError::codeInvalidPhoneFormat()},
  };
  for (const auto& [user, code] : invalid) {
    loginLocally();
    EXPECT_EQ(codeOf(user->performRegistrationSynchronous()), code);
    EXPECT_EQ(user->validationError()->code(), code);
    EXPECT_FALSE(JovUser::loggedIn());
  }
  EXPECT_EQ(fake.count(), 0u);

  // The service's refusals; the mapped error keeps what the service said.
  const std::pair<Answer, int> refusals[] = {
      {Answer::serviceError(409, "USER_ALREADY_EXISTS", "taken"), JovError::codeDuplicateEntry()},
      {Answer::serviceError(400, "user_already_exists"), JovError::codeDuplicateEntry()},
      {Answer::serviceError(400, "INVALID_INPUT_DATA", "bad"), 0},
      {Answer::error(), JovError::codeUnableToConnectToInternet()},
      {Answer::text(201, "[]"), JovError::codeUnableToParseResponse()},
  };
  for (const auto& [answer, code] : refusals) {
    SCOPED_TRACE(answer.body);
    fake.reset();
    fake.on("POST", "/users", answer);
    loginLocally();
    auto r = JovUser::userWithUsername("alice", "pass1234")->performRegistrationSynchronous();
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.error().code(), code);
    EXPECT_FALSE(JovUser::loggedIn());
    EXPECT_EQ(fake.count(), 1u) << "no login after a failed registration";
    if (answer.status >= 400) {
      EXPECT_EQ(r.error().jovHttpStatus(), answer.status);
      EXPECT_EQ(r.error().jovErrorSummary(),
                json::parse(answer.body)["errorCode"].get<std::string>());
    }
  }
}

TEST_F(UserAuthTest, LoginChoosesTheIdentifier) {
  // The login name first; a phone number when verified, or when the e-mail address is not; a
  // local number is prefixed with its country.
  const std::pair<const char*, std::string> records[] = {
      {R"({"loginName": "alice", "phoneNumber": "+8190", "phoneNumberVerified": true})", "alice"},
      {R"({"phoneNumber": "+819012345678", "phoneNumberVerified": true, "emailAddress": "a@b.c",
          "emailAddressVerified": true})",
       "+819012345678"},
      {R"({"phoneNumber": "09012345678", "country": "JP", "emailAddress": "a@b.c",
          "emailAddressVerified": true})",
       "a@b.c"},
      {R"({"phoneNumber": "+819012345678", "emailAddress": "a@b.c"})", "+819012345678"},
      {R"({"phoneNumber": "09012345678", "country": "JP", "emailAddress": "a@b.c"})",
       "PHONE:JP-09012345678"},
      {R"({"emailAddress": "a@b.c"})", "a@b.c"},
  };
  for (const auto& [record, expected] : records) {
    fake.reset();
    scriptLogin();
    auto user = JovUser::userWithID("");
    user->loadFromJSON(json::parse(record));
    detail::UserAccess::password(*user) = "pass1234";
    ASSERT_TRUE(detail::runSync(detail::UserAccess::authenticate(*user)).ok()) << record;
    EXPECT_EQ(fake.requests()[0].json()["username"], expected) << record;
  }

  // The class operations build the user from what they are given.
  const std::pair<Login, std::string> logins[] = {
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

TEST_F(UserAuthTest, BadInputIsRefusedBeforeAnyRequest) {
  auto local = [](const char* phone, const char* password, const char* country) {
    return JovUser::authenticateWithLocalPhoneNumberSynchronous(phone, password, country);
  };
  const std::pair<Login, int> cases[] = {
      {[] { return JovUser::authenticateSynchronous("alice", "abc"); },
       JovError::codeInvalidPasswordFormat()},
      {[] { return JovUser::authenticateSynchronous("not valid!", "pass1234"); },
       JovError::codeInvalidUsername()},
      {[&] { return local("+8190123", "pass1234", "JP"); },
       JovError::codeInvalidLocalPhoneFormat()},
      {[&] { return local("09012345678", "ab", "JP"); }, JovError::codeInvalidPasswordFormat()},
      {[&] { return local("09012345678", "pass1234", "Jp"); }, JovError::codeInvalidCountryCode()},
      {[] {
         JovUserFields fields;
         fields.setCountry("JPN");
         return JovUser::registerAsPseudoUserSynchronous(fields);
       },
       JovError::codeInvalidCountryCode()},
  };
  for (const auto& [call, code] : cases) {
    loginLocally();
    EXPECT_EQ(codeOf(call()), code);
    EXPECT_FALSE(JovUser::loggedIn()) << "a failed login leaves no current user";
  }
  EXPECT_EQ(fake.count(), 0u);
}

TEST_F(UserAuthTest, FailedLoginsLeaveNoCurrentUserAndNoStoredCredentials) {
  const auto granted = Answer::json(200, {{"id", "u1"}, {"access_token", "t"}});
  const auto record = Answer::json(200, {});
  const std::tuple<Answer, Answer, int> cases[] = {
      {Answer::json(400, {{"errorCode", "invalid_grant"}, {"error_description", "bad password"}}),
       record, JovError::codeUnableToAuthenticateUser()},
      {Answer::json(200, {{"id", "u1"}, {"token_type", "Bearer"}}), record,
       JovError::codeUnableToParseResponse()},
      {Answer::json(200, {{"id", "u1"}, {"access_token", nullptr}}), record,
       JovError::codeUnableToParseResponse()},
      {Answer::error(), record, JovError::codeUnableToConnectToInternet()},
      // The record cannot be fetched after the token was granted.
      {granted, Answer::text(200, "oops"), JovError::codeUnableToParseResponse()},
      {granted, Answer::serviceError(500, "INTERNAL"), 0},
      {Answer::json(200, {{"access_token", "t"}}), record, JovError::codeInvalidObjects()},
  };
  for (const auto& [token, user, code] : cases) {
    fake.reset();
    fake.on("POST", "/oauth2/token", token);
    fake.on("GET", "/users/u1", user);
    auto old = loginLocally();
    ASSERT_TRUE(JovKeyChainWrapper::createJovUser(*old, kService).ok());
    EXPECT_EQ(codeOf(JovUser::authenticateSynchronous("alice", "pass1234")), code)
        << token.body << " " << user.body;
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
  EXPECT_EQ(codeOf(JovKeyChainWrapper::searchFirstItemCopyMatchingService(kService)),
            JovError::codeNonKeychainItemFound())
      << "a pseudo user is not stored";

  fake.reset();
  fake.on("POST", "/users", Answer::json(201, {{"userID", "p2"}}));
  EXPECT_EQ(codeOf(JovUser::registerAsPseudoUserSynchronous(JovUserFields())),
            JovError::codeUnableToParseResponse());
  EXPECT_FALSE(JovUser::loggedIn());
  EXPECT_EQ(fake.last().json(), json::object());
}

TEST_F(UserAuthTest, TokenLogin) {
  const auto soon = std::chrono::system_clock::now() + 1h;
  EXPECT_EQ(thrownMessage([] { JovUser::authenticateWithTokenSynchronous(""); }),
            "token must not nil or empty");
  EXPECT_EQ(thrownMessage([&] { JovUser::authenticateWithTokenSynchronous("", soon); }),
            "token must not nil or empty");
  EXPECT_EQ(thrownMessage([&] { JovUser::authenticateWithTokenSynchronous("t", soon, ""); }),
            "refreshToken must not nil or empty");
  EXPECT_EQ(
      thrownMessage([] { JovUser::authenticateWithTokenSynchronous("t", std::nullopt, "r"); }),
      "expiresAt must not nil");
  EXPECT_EQ(thrownMessage([] { JovUser::authenticateWithToken("", [](JovUser::Ptr, auto) {}); }),
            "token must not nil or empty");
  EXPECT_EQ(thrownMessage([] { JovUser::authenticateWithTokenAsync("t", std::nullopt, "r"); }),
            "expiresAt must not nil");
  EXPECT_EQ(fake.count(), 0u);

  fake.on("GET", "/users/me", Answer::json(200, {{"userID", "u9"}, {"loginName", "zed"}}));
  loginLocally();
  auto r = JovUser::authenticateWithTokenSynchronous("given", soon, "refresh");
  ASSERT_TRUE(r.ok());
  auto sent = fake.last();
  EXPECT_EQ(sent.method, "GET");
  EXPECT_EQ(sent.header("Authorization"), "Bearer given");
  EXPECT_EQ(std::count_if(
                sent.headers.begin(), sent.headers.end(),
                [](const auto& h) { return ::strcasecmp(h.first.c_str(), "Authorization") == 0; }),
            1);
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
    fake.on("GET", "/users/me", answer);
    loginLocally();
    EXPECT_FALSE(JovUser::authenticateWithTokenSynchronous("given").ok());
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
  for (const auto& call : std::vector<std::function<void()>>{
           [] { JovUser::authenticate("alice", "pass1234", JovUser::UserBlock()); },
           [] { JovUser::findUserByUsername("alice", JovUser::UserBlock()); },
           [] { JovUser::resetPassword("a@b.c", JovNotificationMethodEmail, JovBlock<>()); }})
    EXPECT_EQ(thrownMessage(call), "completion can not be nil");
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
  ASSERT_EQ(JovMainQueue::runUntil(2, 5s), 2u);  // the delegate takes a second hop
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
