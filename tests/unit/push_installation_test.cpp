// JovPushInstallation against the fake transport: the install body in both modes, the token in
// both encodings, the uninstall path and its answers read by status, and the refusals that come
// before any request.
#include "jov/push_installation.hpp"

#include <gtest/gtest.h>

#include "fake_transport.hpp"

namespace jov {
namespace {

using jovtest::Answer;
using nlohmann::json;
using namespace std::chrono_literals;
using Op = jovtest::Operation;
using Installation = JovPushInstallation;
using jovtest::codeOf;

const std::vector<std::uint8_t> kShortToken = {0x01, 0xAB};

std::vector<std::uint8_t> storedTokenBytes() {
  std::vector<std::uint8_t> bytes(32);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(0xA0 + i);
  return bytes;
}

template <class R>
std::optional<JovError> err(const R& r) {
  return r.errorIfAny();
}
const Op kInstallProduction = [] {
  return err(Installation::installSynchronousWithDeviceToken(kShortToken, false));
};
const Op kInstallDevelopment = [] {
  return err(Installation::installSynchronousWithDeviceToken(kShortToken, true));
};
const Op kInstallStored = [] { return err(Installation::installSynchronous()); };
const Op kUninstall = [] {
  return err(Installation::uninstallSynchronousWithDeviceToken(kShortToken));
};
const Op kUninstallStored = [] { return err(Installation::uninstallSynchronous()); };

class PushInstallationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    JovKeyChainWrapper::useMemoryStore();
    Jov::setCurrentUser(jovtest::credentialUser({{"userID", "me"}}));
    Jov::setAPNSDeviceToken(storedTokenBytes());
    Jov::enableAPNSWithDevelopmentMode(false, 0);
  }
  void TearDown() override {
    JovUser::logOut();
    Jov::setAPNSDeviceToken(std::nullopt);
    Jov::enableAPNSWithDevelopmentMode(false, 0);
  }

  jovtest::TestApp app;
  jovtest::FakeTransport& fake = *app.fake;
};

TEST_F(PushInstallationTest, EachExchangeSendsItsRequest) {
  const std::string creation = "application/vnd.jov.InstallationCreationRequest+json";
  const std::string stored = "a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4b5b6b7b8b9babbbcbdbebf";
  const auto installed = Answer::json(201, {{"installationID", "i1"}});
  const auto done = Answer::text(204, "");
  jovtest::checkRequests(
      fake, {
                // Production leaves "development" out rather than sending false.
                {kInstallProduction, installed, "POST /installations", creation, "",
                 R"({"installationRegistrationID": "01AB", "deviceType": "IOS"})"},
                {kInstallDevelopment, installed, "POST /installations", creation, "",
                 R"({"installationRegistrationID": "01AB", "deviceType": "IOS",
                     "development": "true"})"},
                {kInstallStored, installed, "POST /installations", creation, "",
                 R"({"installationRegistrationID": ")" + stored + R"(", "deviceType": "IOS"})"},
                {kUninstall, done, "DELETE /installations/IOS:01AB", "application/json", "", ""},
                {kUninstallStored, done, "DELETE /installations/IOS:" + stored, "application/json",
                 "", ""},
            });
  EXPECT_TRUE(fake.last().header("Authorization").has_value());

  // The stored development flag is read when the exchange starts.
  fake.reset();
  fake.push(installed);
  Jov::enableAPNSWithDevelopmentMode(true, 0);
  auto installation = Installation::installation();
  ASSERT_TRUE(installation->installSynchronousWithError().ok());
  EXPECT_EQ(fake.last().json().value("development", ""), "true");
  EXPECT_EQ(installation->installationID(), "i1");
}

TEST_F(PushInstallationTest, AnswersMapToCodes) {
  const int unreadable = JovError::codeUnableToParseResponse();
  jovtest::checkAnswers(
      fake, {
                {kInstallProduction, Answer::serviceError(409, "INSTALLATION_ALREADY_EXISTS"),
                 JovError::codeInstallationAlreadyExist()},
                {kInstallStored, Answer::serviceError(404, "USER_NOT_FOUND"),
                 JovError::codeObjectNotFound()},
                {kInstallProduction, Answer::serviceError(500, "INTERNAL"), 0},
                {kInstallProduction, Answer::error(), JovError::codeUnableToConnectToInternet()},
                {kInstallProduction, Answer::json(201, {{"installationID", 7}}), unreadable},
                {kInstallProduction, Answer::text(201, "[1"), unreadable},
                // Uninstall reads every outcome but 204 by its status.
                {kUninstall, Answer::json(200, json::object()), JovError::codeUndefinedError()},
                {kUninstall, Answer::serviceError(400, "X"), JovError::codeInvalidContainer()},
                {kUninstall, Answer::serviceError(401, "X"), JovError::codeUnauthorizedRequest()},
                {kUninstallStored, Answer::serviceError(404, "INSTALLATION_NOT_FOUND"),
                 JovError::codeInstallationNotFound()},
                {kUninstall, Answer::serviceError(409, "X"), JovError::codeUndefinedError()},
                {kUninstall, Answer::error(), JovError::codeUnableToConnectToInternet()},
            });

  // A mapped error keeps what the service said.
  fake.reset();
  fake.push(Answer::serviceError(404, "INSTALLATION_NOT_FOUND", "no such token"));
  auto missing = Installation::uninstallSynchronous();
  ASSERT_FALSE(missing.ok());
  EXPECT_EQ(missing.error().jovErrorSummary(), "INSTALLATION_NOT_FOUND");
  EXPECT_EQ(missing.error().userInfo().value("description", ""),
            "Push installation does not exist");

  // A failed install leaves the installation as it was.
  fake.on("POST", "/installations", Answer::json(201, {{"installationID", "first"}}));
  auto installation = Installation::installation();
  ASSERT_TRUE(installation->installSynchronousWithError().ok());
  fake.on("POST", "/installations", Answer::json(201, {{"installationID", false}}));
  EXPECT_EQ(codeOf(installation->installSynchronousWithError()), unreadable);
  EXPECT_EQ(installation->installationID(), "first");
}

TEST_F(PushInstallationTest, RefusedBeforeAnyRequest) {
  auto code = [](const std::optional<JovError>& e) { return e ? e->code() : -1; };
  // The user is checked before the token.
  Jov::setAPNSDeviceToken(std::nullopt);
  EXPECT_EQ(code(kInstallStored()), JovError::codeDeviceTokenNotSet());
  EXPECT_EQ(code(kUninstallStored()), JovError::codeDeviceTokenNotSet());
  EXPECT_EQ(
      codeOf(Installation::installSynchronousWithDeviceToken(std::vector<std::uint8_t>{}, false)),
      JovError::codeDeviceTokenNotSet());
  JovUser::logOut();
  EXPECT_EQ(code(kInstallStored()), JovError::codeInvalidUserObject());
  EXPECT_EQ(code(kUninstallStored()), JovError::codeInvalidUserObject());
  EXPECT_EQ(code(kInstallDevelopment()), JovError::codeInvalidUserObject());
  EXPECT_EQ(code(kUninstall()), JovError::codeInvalidUserObject());
  EXPECT_EQ(fake.count(), 0u);

  using jovtest::thrownMessage;
  const Installation::TokenData none;
  const std::string message = "deviceToken must not nil";
  EXPECT_EQ(
      thrownMessage([&] { (void)Installation::installSynchronousWithDeviceToken(none, true); }),
      message);
  EXPECT_EQ(thrownMessage([&] {
              Installation::installWithDeviceToken(none, false, Installation::InstallationBlock{});
            }),
            message);
  EXPECT_EQ(thrownMessage([&] { (void)Installation::installWithDeviceTokenAsync(none, false); }),
            message);
  EXPECT_EQ(thrownMessage([&] { (void)Installation::uninstallSynchronousWithDeviceToken(none); }),
            message);
  EXPECT_EQ(thrownMessage([&] {
              Installation::uninstallWithDeviceToken(none, Installation::InstallationBlock{});
            }),
            message);
  EXPECT_EQ(fake.count(), 0u);
}

struct Delegate {
  std::optional<std::string> installationID;
  void installed(Installation::Ptr installation, std::optional<JovError> error) {
    if (!error) installationID = installation->installationID();
  }
};

TEST_F(PushInstallationTest, BlockDelegateAndFutureForms) {
  fake.on("POST", "/installations", Answer::json(201, {{"installationID", "i9"}}));
  fake.on("DELETE", "/installations/IOS:01AB", Answer::serviceError(404, "NOT_FOUND"));
  Installation::Ptr fromBlock, fromUninstall;
  int uninstallCode = -1;
  Installation::installWithDeviceToken(kShortToken, true,
                                       [&](Installation::Ptr i, std::optional<JovError> e) {
                                         if (!e) fromBlock = i;
                                       });
  // A failed uninstall still hands over the installation it made.
  Installation::uninstallWithDeviceToken(kShortToken,
                                         [&](Installation::Ptr i, std::optional<JovError> e) {
                                           fromUninstall = i;
                                           uninstallCode = e ? e->code() : 0;
                                         });
  auto delegate = std::make_shared<Delegate>();
  Installation::installWithCallback(
      JovCallback::callbackWithDelegate(delegate, &Delegate::installed));
  // Four completions: two blocks, and the delegate's in two hops.
  ASSERT_EQ(JovMainQueue::runUntil(4, 5s), 4u);
  ASSERT_NE(fromBlock, nullptr);
  EXPECT_EQ(fromBlock->installationID(), "i9");
  ASSERT_NE(fromUninstall, nullptr);
  EXPECT_EQ(uninstallCode, JovError::codeInstallationNotFound());
  EXPECT_EQ(delegate->installationID, "i9");

  auto future = Installation::installAsync();
  ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
  auto result = future.get();
  ASSERT_TRUE(result.ok());
  EXPECT_EQ(result.value()->installationID(), "i9");
}

}  // namespace
}  // namespace jov
