// JovMQTTInstallation against the fake transport: the three exchanges, their answers mapped to
// codes, the endpoint record and its refusals, and what needs no request at all.
#include "jov/mqtt_installation.hpp"

#include <gtest/gtest.h>

#include "fake_transport.hpp"
#include "jov/push_receiver.hpp"

namespace jov {
namespace {

using jovtest::Answer;
using jovtest::codeOf;
using nlohmann::json;
using Op = jovtest::Operation;
using Installation = JovMQTTInstallation;

template <class R>
std::optional<JovError> err(const R& r) {
  return r.errorIfAny();
}

const json kEndpoint = {{"installationID", "i1"}, {"username", "jov-i1"},
                        {"password", "pw"},       {"mqttTopic", "jov/app/installations/i1"},
                        {"host", "127.0.0.1"},    {"portTCP", 1883}};

const Op kInstall = [] { return err(Installation::installSynchronous()); };
const Op kInstallDevelopment = [] { return err(Installation::installSynchronous(true)); };
const Op kEndpointOp = [] {
  return err(Installation::installationWithIDs("i1", "r1")->endpointSynchronous());
};
const Op kUninstall = [] {
  return err(Installation::installationWithIDs("i1", "r1")->uninstallSynchronous());
};

class MQTTInstallationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    JovKeyChainWrapper::useMemoryStore();
    Jov::setCurrentUser(jovtest::credentialUser({{"userID", "me"}}));
  }
  void TearDown() override { JovUser::logOut(); }

  jovtest::TestApp app;
  jovtest::FakeTransport& fake = *app.fake;
};

TEST_F(MQTTInstallationTest, EachExchangeSendsItsRequest) {
  const std::string creation = "application/vnd.jov.InstallationCreationRequest+json";
  const auto installed =
      Answer::json(201, {{"installationID", "i1"}, {"installationRegistrationID", "r1"}});
  jovtest::checkRequests(
      fake,
      {
          {kInstall, installed, "POST /installations", creation, "", R"({"deviceType": "MQTT"})"},
          {kInstallDevelopment, installed, "POST /installations", creation, "",
           R"({"deviceType": "MQTT", "development": "true"})"},
          {kEndpointOp, Answer::json(200, kEndpoint), "GET /installations/i1/mqtt-endpoint",
           "application/json", "", ""},
          {kUninstall, Answer::text(204, ""), "DELETE /installations/MQTT:r1", "application/json",
           "", ""},
      });
  EXPECT_TRUE(fake.last().header("Authorization").has_value());

  fake.reset();
  fake.push(installed);
  auto installation = Installation::installSynchronous();
  ASSERT_TRUE(installation.ok());
  EXPECT_EQ(installation.value()->installationID(), "i1");
  EXPECT_EQ(installation.value()->installationRegistrationID(), "r1");
}

TEST_F(MQTTInstallationTest, AnswersMapToCodes) {
  const int unreadable = JovError::codeUnableToParseResponse();
  json noPort = kEndpoint;
  noPort.erase("portTCP");
  json badTLS = kEndpoint;
  badTLS["portSSL"] = 70000;
  jovtest::checkAnswers(
      fake,
      {
          {kInstall, Answer::serviceError(409, "INSTALLATION_ALREADY_EXISTS"),
           JovError::codeInstallationAlreadyExist()},
          {kInstall, Answer::serviceError(404, "USER_NOT_FOUND"), JovError::codeObjectNotFound()},
          // Both IDs are needed: an installation without its registration ID could never
          // be uninstalled.
          {kInstall, Answer::json(201, {{"installationID", "i1"}}), unreadable},
          {kEndpointOp, Answer::serviceError(404, "INSTALLATION_NOT_FOUND"),
           JovError::codeInstallationNotFound()},
          {kEndpointOp, Answer::serviceError(400, "INVALID_INPUT_DATA"),
           JovError::codeInvalidRequestData()},
          {kEndpointOp, Answer::serviceError(503, "MQTT_ENDPOINT_NOT_AVAILABLE"), 0},
          {kEndpointOp, Answer::json(200, noPort), unreadable},
          {kEndpointOp, Answer::json(200, badTLS), unreadable},
          {kEndpointOp, Answer::text(200, "{"), unreadable},
          {kEndpointOp, Answer::error(), JovError::codeUnableToConnectToInternet()},
          {kUninstall, Answer::serviceError(404, "INSTALLATION_NOT_FOUND"),
           JovError::codeInstallationNotFound()},
          {kUninstall, Answer::serviceError(401, "UNAUTHORIZED"),
           JovError::codeUnauthorizedRequest()},
      });

  // A failed install leaves the installation as it was.
  auto installation = Installation::installationWithIDs("i0", "r0");
  fake.reset();
  fake.push(Answer::json(201, {{"installationID", "i1"}, {"installationRegistrationID", 3}}));
  auto again = Installation::installSynchronous();
  EXPECT_EQ(codeOf(again), unreadable);
  EXPECT_EQ(installation->installationID(), "i0");
}

TEST_F(MQTTInstallationTest, RefusedBeforeAnyRequest) {
  auto fresh = Installation::installation();
  EXPECT_EQ(codeOf(fresh->endpointSynchronous()), JovError::codeInstallationNotFound());
  EXPECT_EQ(codeOf(fresh->uninstallSynchronous()), JovError::codeInstallationNotFound());
  JovUser::logOut();
  EXPECT_EQ(codeOf(Installation::installSynchronous()), JovError::codeInvalidUserObject());
  EXPECT_EQ(codeOf(Installation::installationWithIDs("i1", "r1")->endpointSynchronous()),
            JovError::codeInvalidUserObject());
  EXPECT_EQ(fake.count(), 0u);

  // A receiver refuses an endpoint it could never connect with, before any connection.
  auto endpoint = JovMQTTEndpoint::fromJSON(kEndpoint);
  ASSERT_TRUE(endpoint.has_value());
  EXPECT_EQ(JovMQTTEndpoint::fromJSON(endpoint->toJSON()), endpoint);
  auto noUser = *endpoint;
  noUser.username.clear();
  EXPECT_EQ(codeOf(JovPushReceiver::receiverWithEndpoint(noUser)->start()),
            JovError::codeInvalidRequestData());
  JovPushReceiver::Options tooShort;
  tooShort.keepAlive = std::chrono::seconds(2);
  auto receiver = JovPushReceiver::receiverWithEndpoint(*endpoint, tooShort);
  EXPECT_EQ(codeOf(receiver->start()), JovError::codeInvalidRequestData());
  EXPECT_EQ(receiver->state(), JovPushReceiverState::Stopped);

  // A TLS endpoint with CA certificates that cannot be read: the client is never set up.
  auto secure = *endpoint;
  secure.portTLS = 8883;
  JovPushReceiver::Options missingCA;
  missingCA.caFile = "/nonexistent/ca.pem";
  auto tls = JovPushReceiver::receiverWithEndpoint(secure, missingCA);
  auto started = tls->start();
  ASSERT_FALSE(started.ok());
  EXPECT_EQ(started.error().code(), JovError::codeUndefinedError());
  EXPECT_EQ(started.error().userInfo().value("url", ""), "mqtts://127.0.0.1:8883");
  EXPECT_EQ(tls->state(), JovPushReceiverState::Stopped);
}

}  // namespace
}  // namespace jov
