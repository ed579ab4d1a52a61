// Account maintenance and lookup against the fake transport: exchanges, checks before any
// request, and the mapping of the service's answers to error codes.
#include <gtest/gtest.h>

#include "fake_transport.hpp"
#include "jov/user_builder.hpp"
#include "users/user_internal.hpp"

namespace jov {
namespace {

using jovtest::Answer;
using jovtest::codeOf;
using jovtest::thrownMessage;
using nlohmann::json;

constexpr const char* kService = JovKeyChainWrapper::kUserCredentialsService;

class UserAccountTest : public jovtest::UserTest {
 protected:
  JovUser::Ptr loginAlice() {
    auto user = jovtest::credentialUser({{"username", "alice"}});
    Jov::setCurrentUser(user);
    EXPECT_TRUE(JovKeyChainWrapper::createJovUser(*user, kService).ok());
    return user;
  }
  // The error code (-1 for success) of a blocking call whose single exchange gets `answer`.
  int codeFor(const std::string& method, const std::string& path, const Answer& answer,
              const std::function<Result<void>()>& call) {
    fake.reset();
    fake.on(method, path, answer);
    auto r = call();
    EXPECT_EQ(fake.count(), 1u) << path;
    return r.ok() ? -1 : r.error().code();
  }
};

TEST_F(UserAccountTest, RefreshAndSave) {
  auto user = loginAlice();
  user->setObject("blue", "color");
  fake.on("GET", "/users/u1",
          Answer::json(200, {{"userID", "u1"}, {"loginName", "alice"}, {"displayName", "Al"}}));
  ASSERT_TRUE(user->refreshSynchronous().ok());
  EXPECT_EQ(user->displayName(), "Al");
  EXPECT_FALSE(user->hasObject("color")) << "the record replaces the custom fields";
  EXPECT_EQ(JovKeyChainWrapper::jovUserFromMatchingService(kService).value()->displayName(), "Al")
      << "the current user's credentials are stored again";

  fake.on("GET", "/users/u1", Answer::text(200, "null"));
  EXPECT_EQ(codeOf(user->refreshSynchronous()), JovError::codeUnableToParseResponse());
  EXPECT_EQ(user->displayName(), "Al");
  fake.on("GET", "/users/u1", Answer::json(200, {{"userID", "u1"}, {"displayName", 5}}));
  EXPECT_EQ(codeOf(user->refreshSynchronous()), JovError::codeUnableToParseResponse());
  EXPECT_EQ(user->displayName(), "Al") << "a mistyped record changes nothing";

  // A refresh brings the whole record: a pending address it leaves out was verified or dropped,
  // unless the record is refused. A record loaded otherwise clears nothing it leaves out.
  fake.on("GET", "/users/u1",
          Answer::json(200, {{"userID", "u1"},
                             {"_emailAddressPending", "new@example.com"},
                             {"_phoneNumberPending", "+15550100"}}));
  ASSERT_TRUE(user->refreshSynchronous().ok());
  fake.on("GET", "/users/u1",
          Answer::json(200, {{"userID", "u1"}, {"displayName", 5}, {"_phoneNumberPending", 1}}));
  EXPECT_EQ(codeOf(user->refreshSynchronous()), JovError::codeUnableToParseResponse());
  EXPECT_EQ(user->pendingEmail(), "new@example.com");
  EXPECT_EQ(user->pendingPhoneNumber(), "+15550100");
  fake.on("GET", "/users/u1",
          Answer::json(200, {{"userID", "u1"}, {"_phoneNumberPending", "+15550100"}}));
  ASSERT_TRUE(user->refreshSynchronous().ok());
  EXPECT_EQ(user->pendingEmail(), "");
  EXPECT_EQ(user->pendingPhoneNumber(), "+15550100");
  ASSERT_TRUE(user->loadFromJSON({{"userID", "u1"}}));
  EXPECT_EQ(user->pendingPhoneNumber(), "+15550100");

  // Many refreshes of one user at once each read its ID while the others load the record.
  fake.on("GET", "/users/u1",
          Answer::json(200, {{"userID", "u1"}, {"loginName", "alice"}, {"displayName", "Al"}}));
  const std::size_t before = fake.count("GET", "/users/u1");
  std::vector<std::future<Result<void>>> inFlight;
  for (int i = 0; i < 32; ++i) inFlight.push_back(user->refreshAsync());
  for (auto& refreshed : inFlight) EXPECT_EQ(codeOf(refreshed.get()), -1);
  EXPECT_EQ(fake.count("GET", "/users/u1") - before, 32u);

  fake.reset();
  fake.on("POST", "/users/u1", Answer::json(200, {{"modifiedAt", 1700000000000LL}}));
  user->setObject(3, "level");
  user->setCountry("JP");
  ASSERT_TRUE(user->saveSynchronous().ok());
  auto sent = fake.last();
  EXPECT_EQ(sent.header("Content-type"), "application/vnd.jov.UserUpdateRequest+json");
  EXPECT_EQ(sent.header("Authorization"), "Bearer t0");
  EXPECT_EQ(sent.json(), json({{"level", 3}, {"country", "JP"}, {"displayName", "Al"}}));
  EXPECT_EQ(user->getObjectForKey("level"), json(3)) << "what was saved stays";
  EXPECT_TRUE(user->modified());

  // A user without an ID has nothing to refresh, save or delete.
  fake.reset();
  auto unsaved = JovUser::userWithUsername("bob", "pass1234");
  EXPECT_EQ(codeOf(unsaved->refreshSynchronous()), JovError::codeInvalidObjects());
  EXPECT_EQ(codeOf(unsaved->saveSynchronous()), JovError::codeInvalidObjects());
  EXPECT_EQ(codeOf(unsaved->deleteSynchronous()), JovError::codeInvalidObjects());
  EXPECT_EQ(fake.count(), 0u);
}

TEST_F(UserAccountTest, PasswordChangeLogsInAgain) {
  auto user = loginAlice();
  EXPECT_EQ(codeOf(user->updatePasswordSynchronous("pass1234", "abc")),
            JovError::codeInvalidPasswordFormat());
  EXPECT_EQ(fake.count(), 0u);

  fake.on("PUT", "/users/u1/password", Answer::text(204, ""));
  fake.on("POST", "/oauth2/token",
          Answer::json(200, {{"id", "u1"}, {"access_token", "t2"}, {"expires_in", 3600}}));
  fake.on("GET", "/users/u1", Answer::json(200, {{"userID", "u1"}, {"loginName", "alice"}}));
  ASSERT_TRUE(user->updatePasswordSynchronous("pass1234", "newpass99").ok());
  auto sent = fake.requests();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].header("Content-type"), "application/vnd.jov.ChangePasswordRequest+json");
  EXPECT_EQ(sent[0].json(), json({{"oldPassword", "pass1234"}, {"newPassword", "newpass99"}}));
  EXPECT_EQ(sent[1].json(), json({{"password", "newpass99"}, {"username", "alice"}}));
  EXPECT_EQ(sent[2].header("Authorization"), "Bearer t2");
  EXPECT_EQ(JovUser::currentUser(), user);
  EXPECT_FALSE(user->passwordChanged());

  // A failed login with the new password: 302, and nobody is logged in.
  fake.on("POST", "/oauth2/token", Answer::serviceError(500, "BOOM"));
  auto r = user->updatePasswordSynchronous("newpass99", "newpass77");
  EXPECT_EQ(r.error().code(), JovError::codeUnableToAuthenticateUser());
  EXPECT_FALSE(JovUser::loggedIn());
}

TEST_F(UserAccountTest, ResetPasswordRequest) {
  EXPECT_EQ(
      thrownMessage([] { JovUser::resetPasswordSynchronous("", JovNotificationMethodEmail); }),
      "userIdentifier can not be nil or empty string");
  EXPECT_EQ(thrownMessage([] {
              JovUser::resetPasswordSynchronous("a@b.c", static_cast<JovNotificationMethod>(3));
            }),
            "Invalid notificationMethod value");
  EXPECT_EQ(thrownMessage([] {
              JovUser::resetPasswordAsync("a@b.c", static_cast<JovNotificationMethod>(-1));
            }),
            "Invalid notificationMethod value");
  EXPECT_EQ(codeOf(JovUser::resetPasswordSynchronous("alice", JovNotificationMethodEmail)),
            JovError::codeInvalidUserIdentifier());
  EXPECT_EQ(codeOf(JovUser::resetPasswordSynchronous("09012345678", JovNotificationMethodSMS)),
            JovError::codeInvalidUserIdentifier())
      << "a local number is not an identifier";
  EXPECT_EQ(fake.count(), 0u);

  loginAlice();  // the request is anonymous even with a user logged in
  const std::string email = "/users/EMAIL%3Aa%40example.com";
  const std::string phone = "/users/PHONE%3A%2B819012345678";
  const std::tuple<std::string, JovNotificationMethod, std::string, json> cases[] = {
      {"a@example.com", JovNotificationMethodEmail, email, {{"notificationMethod", "EMAIL"}}},
      {"+819012345678", JovNotificationMethodSMS, phone, {{"notificationMethod", "SMS"}}},
      {"+819012345678",
       JovNotificationMethodSMSPin,
       phone,
       {{"notificationMethod", "SMS"}, {"smsResetMethod", "PIN"}}},
  };
  for (const auto& [identifier, method, path, body] : cases) {
    fake.reset();
    fake.on("POST", path + "/password/request-reset", Answer::text(204, ""));
    ASSERT_TRUE(JovUser::resetPasswordSynchronous(identifier, method).ok()) << path;
    auto sent = fake.last();
    EXPECT_EQ(sent.header("Content-type"), "application/vnd.jov.ResetPasswordRequest+json");
    EXPECT_FALSE(sent.header("Authorization"));
    EXPECT_EQ(sent.json(), body);
  }
  const std::pair<Answer, int> failures[] = {
      {Answer::serviceError(400, "INVALID_INPUT_DATA"), JovError::codeInvalidUserIdentifier()},
      {Answer::serviceError(404, "USER_NOT_FOUND"), JovError::codeUserNotFound()},
      {Answer::serviceError(409, "INVALID_STATUS"), JovError::codeInvalidUserStatus()},
      {Answer::serviceError(400, "OTHER"), 0},
      {Answer::error(), JovError::codeUnableToConnectToInternet()},
  };
  auto reset = [] {
    return JovUser::resetPasswordSynchronous("a@example.com", JovNotificationMethodEmail);
  };
  for (const auto& [answer, code] : failures)
    EXPECT_EQ(codeFor("POST", email + "/password/request-reset", answer, reset), code)
        << answer.body;

  // The older form: e-mail only, no body.
  fake.reset();
  fake.on("POST", "/users/EMAIL:a%40example.com/password/request-reset", Answer::text(204, ""));
  ASSERT_TRUE(JovUser::resetPasswordSynchronous("a@example.com").ok());
  EXPECT_EQ(fake.last().body, "");
  EXPECT_EQ(codeOf(JovUser::resetPasswordSynchronous("not-mail")),
            JovError::codeInvalidEmailFormat());
  EXPECT_EQ(fake.count(), 1u);
}

TEST_F(UserAccountTest, CompleteResetPassword) {
  auto complete = [](std::string pin, std::optional<std::string> password) {
    return [pin, password] {
      return JovUser::completeResetPasswordSynchronous("+819012345678", pin, password);
    };
  };
  EXPECT_EQ(complete("", "newpass1")().error().code(), JovError::codeInvalidPinCode());
  EXPECT_EQ(codeOf(JovUser::completeResetPasswordSynchronous("bob", "1234", std::nullopt)),
            JovError::codeInvalidUserIdentifier());
  EXPECT_EQ(complete("1234", "abc")().error().code(), JovError::codeInvalidPasswordFormat());
  EXPECT_EQ(fake.count(), 0u);

  const std::string path = "/users/PHONE%3A%2B819012345678/password/complete-reset";
  fake.on("POST", path, Answer::text(204, ""));
  ASSERT_TRUE(complete("1234", "newpass1")().ok());
  auto sent = fake.last();
  EXPECT_EQ(sent.header("Content-type"), "application/vnd.jov.CompletePasswordResetRequest+json");
  EXPECT_EQ(sent.json(), json({{"pinCode", "1234"}, {"newPassword", "newpass1"}}));
  ASSERT_TRUE(complete("1234", std::nullopt)().ok());
  EXPECT_EQ(fake.last().json(), json({{"pinCode", "1234"}}));

  const std::pair<Answer, int> cases[] = {
      {Answer::serviceError(400, "INVALID_INPUT_DATA",
                            "There are validation errors: password - too short"),
       JovError::codeInvalidPasswordFormat()},
      {Answer::serviceError(400, "INVALID_INPUT_DATA",
                            "The new password cannot be the same as the old one"),
       JovError::codeNewPasswordIsSameAsOldOne()},
      {Answer::serviceError(400, "INVALID_INPUT_DATA",
                            "There are validation errors: newPassword - required"),
       JovError::codePasswordRequired()},
      {Answer::serviceError(400, "INVALID_INPUT_DATA", "something else"), 0},
      {Answer::serviceError(400, "PASSWORD_TOO_SHORT"), JovError::codeInvalidPasswordFormat()},
      {Answer::serviceError(403, "INVALID_VERIFICATION_CODE"), JovError::codeInvalidPinCode()},
      {Answer::serviceError(409, "INVALID_STATUS"), JovError::codeInvalidUserStatus()},
      {Answer::serviceError(410, "PIN_CODE_EXPIRED"), JovError::codePINCodeIsExpired()},
      {Answer::serviceError(404, "PIN_CODE_EXPIRED"), 0},
  };
  for (const auto& [answer, code] : cases)
    EXPECT_EQ(codeFor("POST", path, answer, complete("1234", "newpass1")), code) << answer.body;
}

TEST_F(UserAccountTest, EmailAndPhoneChangesAndVerification) {
  auto user = loginAlice();
  EXPECT_EQ(codeOf(user->changeEmailSynchronous("nope")), JovError::codeInvalidEmailFormat());
  EXPECT_EQ(codeOf(user->changePhoneSynchronous("12-34")), JovError::codeInvalidPhoneFormat());
  EXPECT_EQ(fake.count(), 0u);

  // The exchange, its request type, the operation, the one key sent with its value, and the
  // code of a refusal.
  struct Case {
    std::string method, path, request;
    Result<void> (JovUser::*operation)(const std::string&);
    std::string key, value;
    int refused;
  } cases[] = {
      {"PUT", "/users/u1/email-address", "EmailAddressModification",
       &JovUser::changeEmailSynchronous, "emailAddress", "new@example.com",
       JovError::codeUnableToUpdateEmail()},
      {"PUT", "/users/u1/phone-number", "PhoneNumberModification", &JovUser::changePhoneSynchronous,
       "phoneNumber", "+819012345678", JovError::codeUnableToUpdatePhoneNumber()},
      {"POST", "/users/u1/phone-number/verify", "AddressVerification",
       &JovUser::verifyPhoneNumberSynchronous, "verificationCode", "123456",
       JovError::codeUnableToVerifyUser()},
  };
  for (const auto& c : cases) {
    auto call = [&] { return ((*user).*c.operation)(c.value); };
    EXPECT_EQ(codeFor(c.method, c.path, Answer::text(204, ""), call), -1) << c.path;
    EXPECT_EQ(fake.last().header("Content-type"),
              "application/vnd.jov." + c.request + "Request+json");
    EXPECT_EQ(fake.last().json(), json({{c.key, c.value}}));
    EXPECT_EQ(codeFor(c.method, c.path, Answer::serviceError(400, "INVALID_INPUT_DATA"), call),
              c.refused);
    EXPECT_EQ(codeFor(c.method, c.path, Answer::error(), call),
              JovError::codeUnableToConnectToInternet());
  }
  EXPECT_TRUE(user->phoneVerified());

  for (const char* kind : {"email-address", "phone-number"}) {
    fake.reset();
    fake.on("POST", std::string("/users/u1/") + kind + "/resend-verification",
            Answer::text(204, ""));
    auto r = std::string(kind) == "email-address"
                 ? user->resendEmailVerificationSynchronous()
                 : user->resendPhoneNumberVerificationSynchronous();
    EXPECT_TRUE(r.ok()) << kind;
    EXPECT_EQ(fake.count(), 1u);
  }
}

TEST_F(UserAccountTest, IdentityUpdatesOfTheLoggedInUser) {
  auto stranger = JovUser::userWithID("u2");
  auto identity = JovIdentityDataBuilder().setEmail("new@example.com").build();
  EXPECT_EQ(codeOf(stranger->updateWithIdentityDataSynchronous(identity, {})),
            JovError::codeNonLoggedInUserIsNotAllowed());
  EXPECT_EQ(codeOf(stranger->putIdentityDataSynchronous(identity, {}, "pass1234")),
            JovError::codeNonLoggedInUserIsNotAllowed());

  auto user = loginAlice();
  auto local = JovIdentityDataBuilder().setPhoneNumber("09012345678").build();
  EXPECT_EQ(codeOf(user->putIdentityDataSynchronous(local, {}, "pass1234")),
            JovError::codeLocalPhoneRequiresCountryCode());
  EXPECT_EQ(codeOf(user->putIdentityDataSynchronous(identity, {}, "ab")),
            JovError::codeInvalidPasswordFormat());
  EXPECT_EQ(codeOf(user->updateWithIdentityDataSynchronous(JovIdentityData(), {})),
            JovError::codeInvalidUserObject());
  EXPECT_EQ(fake.count(), 0u);

  // A full user updates its identity; a removed key leaves the request and the user.
  fake.on("GET", "/users/u1",
          Answer::json(200, {{"userID", "u1"}, {"loginName", "alice"}, {"old", 1}, {"keep", 2}}));
  fake.on("POST", "/users/me", Answer::text(204, ""));
  JovUserFields fields;
  fields.setDisplayName("Alice");
  fields.removeFromServer("old");
  ASSERT_TRUE(user->updateWithIdentityDataSynchronous(identity, fields).ok());
  auto sent = fake.last();
  EXPECT_EQ(sent.path(), "/users/me");
  EXPECT_EQ(sent.header("Content-type"), "application/vnd.jov.UserUpdateRequest+json");
  EXPECT_EQ(sent.json(),
            json({{"keep", 2}, {"emailAddress", "new@example.com"}, {"displayName", "Alice"}}));
  EXPECT_EQ(user->email(), "new@example.com");
  EXPECT_FALSE(user->hasObject("old"));
  EXPECT_EQ(user->displayName(), "Alice");

  fake.on("POST", "/users/me", Answer::serviceError(409, "USER_ALREADY_EXISTS"));
  EXPECT_EQ(codeOf(user->updateWithUserFieldsSynchronous(fields)), JovError::codeDuplicateEntry());
  fake.on("POST", "/users/me", Answer::serviceError(404, "USER_NOT_FOUND"));
  EXPECT_EQ(codeOf(user->updateWithUserFieldsSynchronous(fields)), JovError::codeUserNotFound());
  // A full user cannot be upgraded; a pseudo user cannot be updated.
  EXPECT_EQ(codeOf(user->putIdentityDataSynchronous(identity, {}, "pass1234")),
            JovError::codeInvalidUserObject());

  fake.reset();
  fake.on("GET", "/users/u1", Answer::json(200, {{"userID", "u1"}, {"color", "red"}}));
  fake.on("POST", "/users/me", Answer::text(204, ""));
  auto pseudo = jovtest::credentialUser({{"accessToken", "pt"}});
  Jov::setCurrentUser(pseudo);
  EXPECT_EQ(codeOf(pseudo->updateWithUserFieldsSynchronous(fields)),
            JovError::codePseudoUserIsNotAllowed());
  EXPECT_EQ(fake.count("POST", "/users/me"), 0u);

  // The upgrade: the record is read first, then identifiers and password are sent.
  JovUserFields country;
  country.setCountry("JP");
  ASSERT_TRUE(pseudo->putIdentityDataSynchronous(local, country, "pass1234").ok());
  EXPECT_EQ(fake.last().json(), R"({"color": "red", "phoneNumber": "09012345678", "country": "JP",
                                    "password": "pass1234"})"_json);
  EXPECT_FALSE(pseudo->isPseudoUser());
  EXPECT_EQ(pseudo->phoneNumber(), "09012345678");
  EXPECT_EQ(pseudo->country(), "JP");
  EXPECT_FALSE(pseudo->hasObject("password"));
}

TEST_F(UserAccountTest, DeleteEndsTheLogin) {
  auto user = loginAlice();
  fake.on("DELETE", "/users/u1", Answer::serviceError(404, "USER_NOT_FOUND"));
  EXPECT_FALSE(user->deleteSynchronous().ok());
  EXPECT_TRUE(JovUser::loggedIn()) << "a failed delete changes nothing";

  fake.on("DELETE", "/users/u1", Answer::text(204, ""));
  ASSERT_TRUE(user->deleteSynchronous().ok());
  EXPECT_FALSE(JovUser::loggedIn());
  EXPECT_EQ(JovKeyChainWrapper::searchFirstItemCopyMatchingService(kService).error().code(),
            JovError::codeNonKeychainItemFound());
}

TEST_F(UserAccountTest, Lookups) {
  EXPECT_EQ(codeOf(JovUser::findUserByUsernameSynchronous("a")), JovError::codeInvalidUsername());
  EXPECT_EQ(codeOf(JovUser::findUserByEmailSynchronous("a")), JovError::codeInvalidEmailFormat());
  EXPECT_EQ(codeOf(JovUser::findUserByPhoneSynchronous("+12")), JovError::codeInvalidPhoneFormat());
  EXPECT_EQ(fake.count(), 0u);

  loginAlice();
  const std::pair<std::function<Result<JovUser::Ptr>()>, std::string> cases[] = {
      {[] { return JovUser::findUserByUsernameSynchronous("bob"); }, "/users/LOGIN_NAME:bob"},
      {[] { return JovUser::findUserByEmailSynchronous("b@example.com"); },
       "/users/EMAIL:b%40example.com"},
      {[] { return JovUser::findUserByPhoneSynchronous("+819012345678"); },
       "/users/PHONE:%2B819012345678"},
  };
  for (const auto& [find, path] : cases) {
    fake.reset();
    fake.on("GET", path, Answer::json(200, {{"userID", "u2"}, {"loginName", "bob"}}));
    auto r = find();
    ASSERT_TRUE(r.ok()) << path;
    EXPECT_EQ(r.value()->userID(), "u2");
    EXPECT_EQ(r.value()->username(), "bob");
    EXPECT_EQ(fake.last().header("Authorization"), "Bearer t0");
    EXPECT_NE(JovUser::currentUser(), r.value());
  }
  fake.on("GET", "/users/LOGIN_NAME:bob", Answer::text(200, "\"bob\""));
  EXPECT_EQ(codeOf(JovUser::findUserByUsernameSynchronous("bob")),
            JovError::codeUnableToParseResponse());
}

}  // namespace
}  // namespace jov
