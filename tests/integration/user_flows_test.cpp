// Whole user flows through the public API against jov-emulator: registration and login, a
// session restored by a fresh process, token refresh, pseudo users, password reset with the PIN
// from the outbox, e-mail change and deletion.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>

#include "emulator_fixture.hpp"
#include "jov/application.hpp"
#include "jov/credential_store.hpp"
#include "jov/user.hpp"
#include "jov/user_builder.hpp"

extern char** environ;

namespace jov {
namespace {

using jovtest::codeOf;
using jovtest::succeeded;
using namespace std::chrono_literals;

constexpr const char* kPassword = "pass1234";

std::string unique(const std::string& prefix) {
  static std::mt19937_64 random{std::random_device{}()};
  return prefix + std::to_string(random() % 1000000000ULL);
}

std::filesystem::path credentialFile() {
  return Jov::dataDirectory() / "credentials" / "JovSDK%2Fuser_credentials";
}

class UserFlowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    app = jovtest::Emulator::shared().newApp();
    std::string pattern = (std::filesystem::temp_directory_path() / "jov-flow-XXXXXX").string();
    ASSERT_TRUE(::mkdtemp(pattern.data()));
    dataDirectory = pattern;
    Jov::setDataDirectory(dataDirectory);
    Jov::beginWithID(app.appID, app.appKey, app.baseURL);
    Jov::setAccessTokenExpiration(0);
    JovKeyChainWrapper::useFileStore();
    JovUser::logOut();
  }
  void TearDown() override {
    JovUser::logOut();
    Jov::setAccessTokenExpiration(0);
    std::error_code ec;
    std::filesystem::remove_all(dataDirectory, ec);
  }

  JovUser::Ptr registerUser(JovUserBuilder builder) {
    auto user = builder.build();
    EXPECT_TRUE(succeeded(user->performRegistrationSynchronous()));
    return user;
  }

  jovtest::EmulatorApp app;
  std::filesystem::path dataDirectory;
};

// Run by RegisterLoginAndRestoreInAFreshProcess in a new process of this binary; it leaves a
// mark in the data directory when it got through.
TEST(UserFlowChild, DISABLED_Restore) {
  const char* given = std::getenv("JOV_FLOW_CHILD");
  ASSERT_TRUE(given);
  const auto expected = nlohmann::json::parse(given);
  const std::filesystem::path dir = expected["dataDirectory"].get<std::string>();
  Jov::setDataDirectory(dir);
  Jov::beginWithID(expected["appID"], expected["appKey"], expected["baseURL"].get<std::string>());
  JovKeyChainWrapper::useFileStore();
  auto restored = JovUser::authenticateWithStoredCredentialsSynchronous();
  ASSERT_TRUE(restored.ok()) << restored.error().describe();
  EXPECT_EQ(restored.value()->userID(), expected["userID"]);
  ASSERT_TRUE(succeeded(restored.value()->refreshSynchronous()));
  EXPECT_EQ(restored.value()->username(), expected["username"]);
  std::ofstream(dir / "restored");
}

// The exit status of UserFlowChild.DISABLED_Restore run with `expected`.
int runRestoreChild(const nlohmann::json& expected) {
  setenv("JOV_FLOW_CHILD", expected.dump().c_str(), 1);
  std::string exe = std::filesystem::read_symlink("/proc/self/exe");
  std::string filter = "--gtest_filter=UserFlowChild.DISABLED_Restore";
  std::string disabled = "--gtest_also_run_disabled_tests";
  char* argv[] = {exe.data(), filter.data(), disabled.data(), nullptr};
  pid_t pid = 0;
  int status = 0;
  bool ran = posix_spawn(&pid, exe.c_str(), nullptr, nullptr, argv, environ) == 0 &&
             waitpid(pid, &status, 0) == pid && WIFEXITED(status);
  unsetenv("JOV_FLOW_CHILD");
  return ran ? WEXITSTATUS(status) : -1;
}

TEST_F(UserFlowTest, RegisterLoginAndRestoreInAFreshProcess) {
  const std::string name = unique("alice");
  auto registered = registerUser(JovUserBuilder::builderWithUsername(name, kPassword));
  ASSERT_TRUE(JovUser::loggedIn());
  const std::string id = registered->userID();
  ASSERT_FALSE(id.empty());

  JovUser::logOut();
  EXPECT_FALSE(std::filesystem::exists(credentialFile()));
  auto login = JovUser::authenticateSynchronous(name, kPassword);
  ASSERT_TRUE(login.ok()) << login.error().describe();
  EXPECT_EQ(login.value()->userID(), id);
  ASSERT_TRUE(std::filesystem::exists(credentialFile()));

  // An authenticated request, and a lookup of the user by name.
  auto found = JovUser::findUserByUsernameSynchronous(name);
  ASSERT_TRUE(succeeded(found));
  EXPECT_EQ(found.value()->userID(), id);

  // A new process restores the session from the store alone.
  EXPECT_EQ(runRestoreChild({{"dataDirectory", dataDirectory.string()},
                             {"appID", app.appID},
                             {"appKey", app.appKey},
                             {"baseURL", app.baseURL},
                             {"userID", id},
                             {"username", name}}),
            0);
  EXPECT_TRUE(std::filesystem::exists(dataDirectory / "restored"));

  // A wrong password: 302 and nobody logged in.
  EXPECT_EQ(codeOf(JovUser::authenticateSynchronous(name, "wrong-pass")),
            JovError::codeUnableToAuthenticateUser());
  EXPECT_FALSE(JovUser::loggedIn());
}

TEST_F(UserFlowTest, TokenNearExpiryIsRefreshedOnceBeforeTheNextRequests) {
  const std::string name = unique("bob");
  registerUser(JovUserBuilder::builderWithUsername(name, kPassword));
  // A token that lives less than the refresh margin.
  Jov::setAccessTokenExpiration(300);
  auto login = JovUser::authenticateSynchronous(name, kPassword);
  Jov::setAccessTokenExpiration(0);
  ASSERT_TRUE(succeeded(login));
  auto user = login.value();
  const std::string oldToken = user->accessToken();
  ASSERT_FALSE(user->refreshToken().empty());
  ASSERT_LT(*user->accessTokenExpiresAt(), std::chrono::system_clock::now() + 310s);

  // Two requests at once: the service takes each refresh token only once, so both must share
  // a single refresh.
  auto a = user->refreshAsync();
  auto b = JovUser::findUserByUsernameAsync(name);
  ASSERT_EQ(a.wait_for(10s), std::future_status::ready);
  ASSERT_EQ(b.wait_for(10s), std::future_status::ready);
  EXPECT_TRUE(succeeded(a.get()));
  EXPECT_TRUE(succeeded(b.get()));
  ASSERT_TRUE(JovUser::loggedIn());
  EXPECT_NE(user->accessToken(), oldToken);
  ASSERT_TRUE(user->accessTokenExpiresAt());
  EXPECT_GT(*user->accessTokenExpiresAt(), std::chrono::system_clock::now() + 3600s);
  auto stored =
      JovKeyChainWrapper::jovUserFromMatchingService(JovKeyChainWrapper::kUserCredentialsService);
  ASSERT_TRUE(stored.ok());
  EXPECT_EQ(stored.value()->accessToken(), user->accessToken());

  // The new token is good for the next request, without another refresh.
  const std::string newToken = user->accessToken();
  ASSERT_TRUE(user->refreshSynchronous().ok());
  EXPECT_EQ(user->accessToken(), newToken);
}

TEST_F(UserFlowTest, PseudoUserGainsAnIdentityAndLogsInWithIt) {
  JovUserFields fields;
  fields.setDisplayName("Guest");
  fields.setObject("blue", "color");
  auto pseudo = JovUser::registerAsPseudoUserSynchronous(fields);
  ASSERT_TRUE(pseudo.ok()) << pseudo.error().describe();
  auto user = pseudo.value();
  EXPECT_TRUE(user->isPseudoUser());
  ASSERT_TRUE(user->refreshSynchronous().ok()) << "the pseudo user's token works";
  EXPECT_TRUE(user->isPseudoUser());
  EXPECT_EQ(user->getObjectForKey("color"), nlohmann::json("blue"));

  const std::string name = unique("carol");
  auto identity = JovIdentityDataBuilder().setUserName(name).build();
  ASSERT_TRUE(succeeded(user->putIdentityDataSynchronous(identity, JovUserFields(), kPassword)));
  EXPECT_FALSE(user->isPseudoUser());
  EXPECT_EQ(user->username(), name);

  // A second upgrade is refused before anything is sent.
  EXPECT_FALSE(user->putIdentityDataSynchronous(identity, JovUserFields(), kPassword).ok());

  JovUser::logOut();
  auto login = JovUser::authenticateSynchronous(name, kPassword);
  ASSERT_TRUE(login.ok()) << login.error().describe();
  EXPECT_EQ(login.value()->userID(), user->userID());
  EXPECT_EQ(login.value()->getObjectForKey("color"), nlohmann::json("blue"));
}

TEST_F(UserFlowTest, PasswordResetWithThePinFromTheOutbox) {
  const std::string phone = "+8190" + std::to_string(10000000 + std::random_device{}() % 89999999);
  auto user = registerUser(JovUserBuilder::builderWithGlobalPhoneNumber(phone, kPassword));
  ASSERT_TRUE(JovUser::loggedIn());
  const std::string id = user->userID();

  // The phone is verified with the code sent by SMS.
  auto code = jovtest::Emulator::shared().lastCode(app.appID, id, "PHONE_VERIFICATION");
  ASSERT_TRUE(code);
  EXPECT_EQ(codeOf(user->verifyPhoneNumberSynchronous("000000x")),
            JovError::codeUnableToVerifyUser());
  ASSERT_TRUE(user->verifyPhoneNumberSynchronous(*code).ok());
  ASSERT_TRUE(user->refreshSynchronous().ok());
  EXPECT_TRUE(user->phoneVerified());

  JovUser::logOut();
  ASSERT_TRUE(JovUser::resetPasswordSynchronous(phone, JovNotificationMethodSMSPin).ok());
  auto pin = jovtest::Emulator::shared().lastCode(app.appID, id, "PASSWORD_RESET");
  ASSERT_TRUE(pin);
  auto complete = [&](const std::string& pin, const std::string& password) {
    return codeOf(JovUser::completeResetPasswordSynchronous(phone, pin, password));
  };
  EXPECT_EQ(complete(*pin + "9", "newpass99"), JovError::codeInvalidPinCode());
  EXPECT_EQ(complete(*pin, kPassword), JovError::codeNewPasswordIsSameAsOldOne());
  ASSERT_EQ(complete(*pin, "newpass99"), -1);

  EXPECT_EQ(codeOf(JovUser::authenticateSynchronous(phone, kPassword)),
            JovError::codeUnableToAuthenticateUser());
  auto login = JovUser::authenticateSynchronous(phone, "newpass99");
  ASSERT_TRUE(login.ok()) << login.error().describe();
  EXPECT_EQ(login.value()->userID(), id);

  // An unknown user, and a user without a verified address.
  EXPECT_EQ(codeOf(JovUser::resetPasswordSynchronous("+8199999999999", JovNotificationMethodSMS)),
            JovError::codeUserNotFound());
  EXPECT_EQ(codeOf(JovUser::resetPasswordSynchronous(phone, JovNotificationMethodEmail)),
            JovError::codeInvalidUserStatus());
}

TEST_F(UserFlowTest, EmailChangeIsPendingUntilVerified) {
  const std::string name = unique("dave");
  auto user = registerUser(
      JovUserBuilder::builderWithEmail(name + "@example.com", kPassword).setUsername(name));
  const std::string newAddress = name + "@new.example.com";
  ASSERT_TRUE(user->changeEmailSynchronous(newAddress).ok());
  ASSERT_TRUE(user->refreshSynchronous().ok());
  EXPECT_EQ(user->email(), name + "@example.com");
  EXPECT_EQ(user->pendingEmail(), newAddress);

  // The person follows the link in the mail; the service then holds the new address.
  auto code = jovtest::Emulator::shared().lastCode(app.appID, user->userID(), "EMAIL_VERIFICATION");
  ASSERT_TRUE(code);
  jovtest::EmulatorClient client(app);
  auto verified = client.sendJson(
      "POST", "/users/" + user->userID() + "/email-address/verify", {{"verificationCode", *code}},
      "application/vnd.jov.AddressVerificationRequest+json", user->accessToken());
  ASSERT_LT(verified.status, 300) << verified.raw;
  ASSERT_TRUE(user->refreshSynchronous().ok());
  EXPECT_EQ(user->email(), newAddress);
  EXPECT_TRUE(user->emailVerified());
  EXPECT_EQ(user->pendingEmail(), "");

  // Another user's address cannot be taken.
  const std::string other = unique("erin");
  registerUser(JovUserBuilder::builderWithUsername(other, kPassword));
  EXPECT_EQ(codeOf(JovUser::currentUser()->changeEmailSynchronous(newAddress)),
            JovError::codeUnableToUpdateEmail());
}

TEST_F(UserFlowTest, DeletingTheCurrentUserEndsTheSession) {
  const std::string name = unique("frank");
  auto user = registerUser(JovUserBuilder::builderWithUsername(name, kPassword));
  ASSERT_TRUE(std::filesystem::exists(credentialFile()));
  std::promise<std::optional<JovError>> deleted;
  user->deleteWithBlock(
      [&](JovUser::Ptr, std::optional<JovError> error) { deleted.set_value(error); });
  ASSERT_EQ(JovMainQueue::runUntil(1, 10s), 1u);
  EXPECT_FALSE(deleted.get_future().get());
  EXPECT_FALSE(JovUser::loggedIn());
  EXPECT_FALSE(std::filesystem::exists(credentialFile()));
  EXPECT_EQ(codeOf(JovUser::authenticateWithStoredCredentialsSynchronous()),
            JovError::codeNonKeychainItemFound());
  EXPECT_EQ(codeOf(JovUser::authenticateSynchronous(name, kPassword)),
            JovError::codeUnableToAuthenticateUser());
}

}  // namespace
}  // namespace jov
