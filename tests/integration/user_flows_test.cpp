// Whole user flows through the public API against jov-emulator: registration and login, a
// session restored by a fresh process, token refresh, pseudo users, password reset with the PIN
// from the outbox, e-mail change and deletion.
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <random>

#include "emulator_fixture.hpp"
#include "jov/application.hpp"
#include "jov/credential_store.hpp"
#include "jov/user.hpp"
#include "jov/user_builder.hpp"

extern char** environ;

namespace jov {
namespace {

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
    auto registered = user->performRegistrationSynchronous();
    EXPECT_TRUE(registered.ok()) << registered.error().describe();
    return user;
  }

  jovtest::EmulatorApp app;
  std::filesystem::path dataDirectory;
};

// Run by RegisterLoginAndRestoreInAFreshProcess as a child process of this binary.
TEST_F(UserFlowTest, DISABLED_RestoreChild) {
  const char* dir = std::getenv("JOV_FLOW_DATA_DIR");
  ASSERT_TRUE(dir);
  Jov::setDataDirectory(dir);
  Jov::beginWithID(std::getenv("JOV_FLOW_APP_ID"), std::getenv("JOV_FLOW_APP_KEY"),
                   std::string(std::getenv("JOV_FLOW_BASE_URL")));
  JovKeyChainWrapper::useFileStore();
  auto restored = JovUser::authenticateWithStoredCredentialsSynchronous();
  ASSERT_TRUE(restored.ok()) << restored.error().describe();
  EXPECT_EQ(restored.value()->userID(), std::getenv("JOV_FLOW_USER_ID"));
  auto refreshed = restored.value()->refreshSynchronous();
  ASSERT_TRUE(refreshed.ok()) << refreshed.error().describe();
  EXPECT_EQ(restored.value()->username(), std::getenv("JOV_FLOW_USERNAME"));
}

int runRestoreChild(const std::map<std::string, std::string>& vars) {
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e) env.emplace_back(*e);
  for (const auto& [k, v] : vars) env.push_back(k + "=" + v);
  std::vector<char*> envp;
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::string exe = std::filesystem::read_symlink("/proc/self/exe");
  std::string filter = "--gtest_filter=UserFlowTest.DISABLED_RestoreChild";
  std::string disabled = "--gtest_also_run_disabled_tests";
  char* argv[] = {exe.data(), filter.data(), disabled.data(), nullptr};
  pid_t pid = 0;
  if (posix_spawn(&pid, exe.c_str(), nullptr, nullptr, argv, envp.data()) != 0) return -1;
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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

  // The record is private and holds no password.
  ASSERT_TRUE(std::filesystem::exists(credentialFile()));
  struct stat st {};
  ASSERT_EQ(::stat(credentialFile().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  std::ifstream in(credentialFile());
  std::string record((std::istreambuf_iterator<char>(in)), {});
  EXPECT_EQ(record.find(kPassword), std::string::npos);

  // An authenticated request, and a lookup of the user by name.
  auto found = JovUser::findUserByUsernameSynchronous(name);
  ASSERT_TRUE(found.ok()) << found.error().describe();
  EXPECT_EQ(found.value()->userID(), id);

  // A new process restores the session from the store alone.
  EXPECT_EQ(runRestoreChild({{"JOV_FLOW_DATA_DIR", dataDirectory.string()},
                             {"JOV_FLOW_APP_ID", app.appID},
                             {"JOV_FLOW_APP_KEY", app.appKey},
                             {"JOV_FLOW_BASE_URL", app.baseURL},
                             {"JOV_FLOW_USER_ID", id},
                             {"JOV_FLOW_USERNAME", name}}),
            0);

  // A wrong password: 302 and nobody logged in.
  auto wrong = JovUser::authenticateSynchronous(name, "wrong-pass");
  ASSERT_FALSE(wrong.ok());
  EXPECT_EQ(wrong.error().code(), JovError::codeUnableToAuthenticateUser());
  EXPECT_FALSE(JovUser::loggedIn());
}

TEST_F(UserFlowTest, TokenNearExpiryIsRefreshedOnceBeforeTheNextRequests) {
  const std::string name = unique("bob");
  registerUser(JovUserBuilder::builderWithUsername(name, kPassword));
  // A token that lives less than the refresh margin.
  Jov::setAccessTokenExpiration(300);
  auto login = JovUser::authenticateSynchronous(name, kPassword);
  ASSERT_TRUE(login.ok()) << login.error().describe();
  Jov::setAccessTokenExpiration(0);
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
  auto ra = a.get();
  auto rb = b.get();
  EXPECT_TRUE(ra.ok()) << ra.error().describe();
  EXPECT_TRUE(rb.ok()) << rb.error().describe();
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
  auto upgraded = user->putIdentityDataSynchronous(identity, JovUserFields(), kPassword);
  ASSERT_TRUE(upgraded.ok()) << upgraded.error().describe();
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
  auto wrongCode = user->verifyPhoneNumberSynchronous("000000x");
  EXPECT_EQ(wrongCode.error().code(), JovError::codeUnableToVerifyUser());
  ASSERT_TRUE(user->verifyPhoneNumberSynchronous(*code).ok());
  ASSERT_TRUE(user->refreshSynchronous().ok());
  EXPECT_TRUE(user->phoneVerified());

  JovUser::logOut();
  ASSERT_TRUE(JovUser::resetPasswordSynchronous(phone, JovNotificationMethodSMSPin).ok());
  auto pin = jovtest::Emulator::shared().lastCode(app.appID, id, "PASSWORD_RESET");
  ASSERT_TRUE(pin);
  auto bad = JovUser::completeResetPasswordSynchronous(phone, *pin + "9", std::string("newpass99"));
  EXPECT_EQ(bad.error().code(), JovError::codeInvalidPinCode());
  auto same = JovUser::completeResetPasswordSynchronous(phone, *pin, std::string(kPassword));
  EXPECT_EQ(same.error().code(), JovError::codeNewPasswordIsSameAsOldOne());
  auto done = JovUser::completeResetPasswordSynchronous(phone, *pin, std::string("newpass99"));
  ASSERT_TRUE(done.ok()) << done.error().describe();

  EXPECT_EQ(JovUser::authenticateSynchronous(phone, kPassword).error().code(),
            JovError::codeUnableToAuthenticateUser());
  auto login = JovUser::authenticateSynchronous(phone, "newpass99");
  ASSERT_TRUE(login.ok()) << login.error().describe();
  EXPECT_EQ(login.value()->userID(), id);

  // An unknown user, and a user without a verified address.
  EXPECT_EQ(
      JovUser::resetPasswordSynchronous("+8199999999999", JovNotificationMethodSMS).error().code(),
      JovError::codeUserNotFound());
  EXPECT_EQ(JovUser::resetPasswordSynchronous(phone, JovNotificationMethodEmail).error().code(),
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
  auto taken = JovUser::currentUser()->changeEmailSynchronous(newAddress);
  EXPECT_EQ(taken.error().code(), JovError::codeUnableToUpdateEmail());
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
  EXPECT_EQ(JovUser::authenticateWithStoredCredentialsSynchronous().error().code(),
            JovError::codeNonKeychainItemFound());
  EXPECT_EQ(JovUser::authenticateSynchronous(name, kPassword).error().code(),
            JovError::codeUnableToAuthenticateUser());
}

}  // namespace
}  // namespace jov
