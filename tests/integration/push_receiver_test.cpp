// Pushes received over MQTT, end to end: a real mosquitto broker on a free loopback port, an
// emulator publishing to it, and the library's installation and receiver as an application
// uses them.
#include <gtest/gtest.h>
#include <mosquitto.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "emulator_fixture.hpp"
#include "jov/jov.hpp"
#include "mqtt_broker.hpp"
#include "process.hpp"

namespace {

using namespace std::chrono_literals;
using jovtest::succeeded;
using nlohmann::json;

constexpr const char* kApp = "mqtt-app";
constexpr const char* kKey = "mqtt-key";
constexpr const char* kAdmin = "jov-admin";
constexpr const char* kAdminPassword = "admin-secret";

// The receiver's handlers, recorded on the main queue that this test drains.
struct Listener {
  jov::JovPushReceiver::Ptr receiver;
  std::vector<jov::JovReceivedMessage> messages;
  std::vector<jov::JovPushReceiverState> states;
  std::optional<jov::JovError> lastReason;

  explicit Listener(const jov::JovMQTTEndpoint& endpoint,
                    jov::JovPushReceiver::Options options = {}) {
    receiver = jov::JovPushReceiver::receiverWithEndpoint(endpoint, options);
    receiver->setMessageHandler(
        [this](const jov::JovReceivedMessage& message) { messages.push_back(message); });
    receiver->setStateHandler(
        [this](jov::JovPushReceiverState state, std::optional<jov::JovError> reason) {
          states.push_back(state);
          if (reason) lastReason = reason;
        });
  }
  ~Listener() { receiver->stop(); }

  // Drains the main queue until `done` holds or the time is up; whether it held.
  static bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
      const auto left = deadline - std::chrono::steady_clock::now();
      if (left <= 0ms) return false;
      jov::JovMainQueue::runUntil(
          1, std::min<std::chrono::milliseconds>(
                 std::chrono::duration_cast<std::chrono::milliseconds>(left), 200ms));
    }
    return true;
  }
  bool waitForState(jov::JovPushReceiverState state, std::chrono::milliseconds limit = 10s) {
    return waitFor([&] { return !states.empty() && states.back() == state; }, limit);
  }
  bool waitForMessages(std::size_t count, std::chrono::milliseconds limit = 10s) {
    return waitFor([&] { return messages.size() >= count; }, limit);
  }
};

class PushReceiverTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    brokerDir_ = new jovtest::TempDir();
    brokerPort_ = jovemu::freeLoopbackPort();
    jovemu::writeBrokerConfig(brokerDir_->path(), brokerPort_, kAdmin, kAdminPassword);
    tlsPort_ = jovemu::freeLoopbackPort();
    addTLSListener(brokerDir_->path(), tlsPort_);
    broker_ = new jovemu::BrokerProcess(brokerDir_->path(), brokerPort_);
    broker_->start();
    emulator_ =
        new jovtest::PrivateEmulator({"--data", ":memory:", "--app", std::string(kApp) + ":" + kKey,
                                      "--mqtt", "127.0.0.1:" + std::to_string(brokerPort_),
                                      "--mqtt-admin", std::string(kAdmin) + ":" + kAdminPassword});
  }
  static void TearDownTestSuite() {
    delete emulator_;
    delete broker_;
    delete brokerDir_;
  }

  void SetUp() override {
    jov::JovKeyChainWrapper::useMemoryStore();
    jov::Jov::setRequestFactory(nullptr);
    jov::Jov::beginWithID(kApp, kKey, emulator_->baseURL());
    jov::JovUser::logOut();
  }
  void TearDown() override { jov::JovUser::logOut(); }

  // A new user, logged in; its ID.
  std::string newUser(const std::string& name) {
    static int counter = 0;
    const std::string username = name + std::to_string(++counter) + "-" +
                                 std::to_string(::testing::UnitTest::GetInstance()->random_seed());
    auto user = jov::JovUser::userWithUsername(username, "pass1234");
    EXPECT_TRUE(succeeded(user->performRegistrationSynchronous()));
    return user->userID();
  }
  void logIn(const std::shared_ptr<jov::JovUser>& user) { jov::Jov::setCurrentUser(user); }

  // The current user's new MQTT installation and its endpoint.
  jov::JovMQTTEndpoint installedEndpoint() {
    auto installed = jov::JovMQTTInstallation::installSynchronous();
    EXPECT_TRUE(succeeded(installed));
    if (!installed) return {};
    auto endpoint = installed.value()->endpointSynchronous();
    EXPECT_TRUE(succeeded(endpoint));
    return endpoint ? endpoint.value() : jov::JovMQTTEndpoint{};
  }

  // A CA of the test's own, a certificate for 127.0.0.1 it signed, and a second listener of the
  // broker that presents it; "other-ca.pem" is a CA that signed nothing.
  static void addTLSListener(const std::filesystem::path& dir, int port) {
    auto openssl = [&](std::vector<std::string> args) {
      args.insert(args.begin(), "/usr/bin/openssl");
      auto result = jovtest::runProcess(args);
      ASSERT_EQ(result.status, 0) << result.err;
    };
    const auto at = [&](const char* name) { return (dir / name).string(); };
    for (const char* ca : {"ca", "other-ca"}) {
      openssl({"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout",
               at(ca) + std::string(".key"), "-out", at(ca) + std::string(".pem"), "-days", "2",
               "-subj", std::string("/CN=jov test ") + ca});
    }
    openssl({"req", "-newkey", "rsa:2048", "-nodes", "-keyout", at("server.key"), "-out",
             at("server.csr"), "-subj", "/CN=127.0.0.1"});
    std::ofstream(at("server.ext")) << "subjectAltName=IP:127.0.0.1\n";
    openssl({"x509", "-req", "-in", at("server.csr"), "-CA", at("ca.pem"), "-CAkey", at("ca.key"),
             "-CAcreateserial", "-out", at("server.pem"), "-days", "2", "-extfile",
             at("server.ext")});
    std::ofstream(dir / "mosquitto.conf", std::ios::app)
        << "listener " << port << " 127.0.0.1\ncafile " << at("ca.pem") << "\ncertfile "
        << at("server.pem") << "\nkeyfile " << at("server.key") << "\n";
  }

  static jovtest::TempDir* brokerDir_;
  static int brokerPort_, tlsPort_;
  static jovemu::BrokerProcess* broker_;
  static jovtest::PrivateEmulator* emulator_;
};
jovtest::TempDir* PushReceiverTest::brokerDir_ = nullptr;
int PushReceiverTest::brokerPort_ = 0;
int PushReceiverTest::tlsPort_ = 0;
jovemu::BrokerProcess* PushReceiverTest::broker_ = nullptr;
jovtest::PrivateEmulator* PushReceiverTest::emulator_ = nullptr;

// Publishes raw payloads to a topic as the broker's administrator (what no service would send).
void publishAsAdmin(int port, const std::string& topic, const std::vector<std::string>& payloads) {
  mosquitto_lib_init();
  mosquitto* m = mosquitto_new(nullptr, true, nullptr);
  ASSERT_NE(m, nullptr);
  mosquitto_username_pw_set(m, kAdmin, kAdminPassword);
  ASSERT_EQ(mosquitto_connect(m, "127.0.0.1", port, 10), MOSQ_ERR_SUCCESS);
  for (const auto& payload : payloads) {
    ASSERT_EQ(mosquitto_publish(m, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                                payload.data(), 1, false),
              MOSQ_ERR_SUCCESS);
  }
  // Lets the client send what it queued, then leaves cleanly.
  for (int i = 0; i < 20; ++i) mosquitto_loop(m, 10, 1);
  mosquitto_disconnect(m);
  mosquitto_loop(m, 10, 1);
  mosquitto_destroy(m);
}

TEST_F(PushReceiverTest, TopicMessagesAndBucketEventsArriveAsReceivedMessages) {
  newUser("alice");
  auto alice = jov::Jov::currentUser();
  auto topic = jov::Jov::topicWithName("scores");
  ASSERT_TRUE(succeeded(topic->saveSynchronous()));
  auto board = jov::Jov::bucketWithName("board" + alice->userID());
  auto first = board->createObject();
  first->setObject("welcome", "text");
  ASSERT_TRUE(succeeded(first->saveSynchronous()));
  auto acl = board->bucketACL();
  acl->putACLEntry(jov::JovACLEntry::entryWithSubject(jov::JovAnyAuthenticatedUser{},
                                                      jov::JovACLActionReadObjectsInBucket));
  ASSERT_TRUE(succeeded(acl->saveSynchronous()));

  newUser("bob");
  const auto endpoint = installedEndpoint();
  ASSERT_TRUE(succeeded(jov::JovPushSubscription::subscribeCurrentUserSynchronous(topic)));
  ASSERT_TRUE(succeeded(board->subscribeSynchronous()));
  Listener listener(endpoint);
  ASSERT_TRUE(succeeded(listener.receiver->start()));
  ASSERT_TRUE(listener.waitForState(jov::JovPushReceiverState::Listening));

  // What is not a JSON object is skipped, and what follows still arrives.
  publishAsAdmin(brokerPort_, endpoint.topic, {"not json", "[1,2]"});
  logIn(alice);
  auto message = jov::JovPushMessage::composeMessageWithData({{"score", 7}});
  message.mqttFields->data = json{{"channel", "mqtt"}};
  ASSERT_TRUE(succeeded(topic->sendMessageSynchronous(message)));
  auto note = board->createObject();
  note->setObject("meeting at 5", "text");
  ASSERT_TRUE(succeeded(note->saveSynchronous()));

  ASSERT_TRUE(listener.waitForMessages(2));
  ASSERT_EQ(listener.messages.size(), 2u);
  EXPECT_EQ(listener.receiver->receivedCount(), 2u);
  const auto& sent = listener.messages[0];
  EXPECT_EQ(sent.rawMessage().value("score", 0), 7);
  EXPECT_EQ(sent.rawMessage().value("channel", ""), "mqtt") << sent.rawMessage();
  ASSERT_NE(sent.senderUser(), nullptr);
  EXPECT_EQ(sent.senderUser()->userID(), alice->userID());
  ASSERT_NE(sent.eventSourceTopic(), nullptr);
  EXPECT_EQ(sent.eventSourceTopic()->name(), "scores");
  EXPECT_EQ(sent.messageScope(), jov::JovMessageScopeApp);

  const auto& event = listener.messages[1];
  EXPECT_EQ(event.getValueOfJovMessageField(jov::JovMessageFieldType), json("DATA_OBJECT_CREATED"));
  ASSERT_NE(event.eventSourceObject(), nullptr);
  EXPECT_EQ(event.eventSourceObject()->uuid(), note->uuid());
  ASSERT_NE(event.eventSourceBucket(), nullptr);
  EXPECT_EQ(event.eventSourceBucket()->name(), board->name());
}

TEST_F(PushReceiverTest, ListensAgainAfterTheBrokerRestartsAndLosesNothing) {
  newUser("alice");
  auto alice = jov::Jov::currentUser();
  auto topic = jov::Jov::topicWithName("restart");
  ASSERT_TRUE(succeeded(topic->saveSynchronous()));
  newUser("bob");
  const auto endpoint = installedEndpoint();
  ASSERT_TRUE(succeeded(jov::JovPushSubscription::subscribeCurrentUserSynchronous(topic)));
  jov::JovPushReceiver::Options options;
  options.keepAlive = 5s;
  options.maxReconnectDelay = 2s;
  Listener listener(endpoint, options);
  ASSERT_TRUE(succeeded(listener.receiver->start()));
  ASSERT_TRUE(listener.waitForState(jov::JovPushReceiverState::Listening));

  logIn(alice);
  broker_->stop();
  ASSERT_TRUE(listener.waitForState(jov::JovPushReceiverState::Connecting));
  // Sent while the broker is down: the service keeps it until the broker is back.
  ASSERT_TRUE(succeeded(
      topic->sendMessageSynchronous(jov::JovPushMessage::composeMessageWithData({{"n", 1}}))));
  broker_->start();
  ASSERT_TRUE(listener.waitForState(jov::JovPushReceiverState::Listening, 20s));
  ASSERT_TRUE(succeeded(
      topic->sendMessageSynchronous(jov::JovPushMessage::composeMessageWithData({{"n", 2}}))));
  ASSERT_TRUE(listener.waitForMessages(2, 20s));
  ASSERT_EQ(listener.messages.size(), 2u);
  EXPECT_EQ(listener.messages[0].rawMessage().value("n", 0), 1);
  EXPECT_EQ(listener.messages[1].rawMessage().value("n", 0), 2);
}

TEST_F(PushReceiverTest, AnInstallationHearsOnlyItsOwnTopic) {
  newUser("bob");
  const auto bobs = installedEndpoint();
  newUser("carol");
  const auto carols = installedEndpoint();
  ASSERT_NE(bobs.topic, carols.topic);
  ASSERT_NE(bobs.username, carols.username);

  // Carol's account asking for Bob's topic: the broker refuses the subscription.
  auto borrowed = carols;
  borrowed.topic = bobs.topic;
  Listener snooping(borrowed);
  ASSERT_TRUE(succeeded(snooping.receiver->start()));
  ASSERT_TRUE(snooping.waitForState(jov::JovPushReceiverState::Refused));
  ASSERT_TRUE(snooping.lastReason.has_value());
  EXPECT_EQ(snooping.lastReason->code(), jov::JovError::codeUnauthorizedRequest());
  snooping.receiver->stop();

  // A wrong password gets no connection at all.
  auto guessed = bobs;
  guessed.password = "guess";
  Listener guessing(guessed);
  ASSERT_TRUE(succeeded(guessing.receiver->start()));
  ASSERT_TRUE(guessing.waitForState(jov::JovPushReceiverState::Refused));
  EXPECT_EQ(guessing.lastReason->code(), jov::JovError::codeUnauthorizedRequest());
  guessing.receiver->stop();

  // Once uninstalled, the installation's account is gone.
  auto installation = jov::JovMQTTInstallation::installSynchronous();
  ASSERT_TRUE(succeeded(installation));
  auto endpoint = installation.value()->endpointSynchronous();
  ASSERT_TRUE(succeeded(endpoint));
  ASSERT_TRUE(succeeded(installation.value()->uninstallSynchronous()));
  Listener removed(endpoint.value());
  ASSERT_TRUE(succeeded(removed.receiver->start()));
  ASSERT_TRUE(removed.waitForState(jov::JovPushReceiverState::Refused));
  EXPECT_EQ(jovtest::codeOf(installation.value()->endpointSynchronous()),
            jov::JovError::codeInstallationNotFound());
}

// The same account over the broker's TLS listener: verified against the test's own CA, and
// refused when the certificate cannot be verified.
TEST_F(PushReceiverTest, ListensOverTLSWhenTheEndpointHasATLSPort) {
  newUser("alice");
  auto alice = jov::Jov::currentUser();
  auto topic = jov::Jov::topicWithName("secure");
  ASSERT_TRUE(succeeded(topic->saveSynchronous()));
  newUser("bob");
  auto endpoint = installedEndpoint();
  ASSERT_TRUE(succeeded(jov::JovPushSubscription::subscribeCurrentUserSynchronous(topic)));
  endpoint.portTLS = tlsPort_;

  jov::JovPushReceiver::Options untrusted;
  untrusted.caFile = (brokerDir_->path() / "other-ca.pem").string();
  Listener refused(endpoint, untrusted);
  ASSERT_TRUE(succeeded(refused.receiver->start()));
  ASSERT_FALSE(refused.waitForState(jov::JovPushReceiverState::Listening, 2s));
  EXPECT_EQ(refused.receiver->state(), jov::JovPushReceiverState::Connecting);
  refused.receiver->stop();

  jov::JovPushReceiver::Options trusted;
  trusted.caFile = (brokerDir_->path() / "ca.pem").string();
  Listener listener(endpoint, trusted);
  ASSERT_TRUE(succeeded(listener.receiver->start()));
  ASSERT_TRUE(listener.waitForState(jov::JovPushReceiverState::Listening));
  logIn(alice);
  ASSERT_TRUE(succeeded(
      topic->sendMessageSynchronous(jov::JovPushMessage::composeMessageWithData({{"tls", 1}}))));
  ASSERT_TRUE(listener.waitForMessages(1));
  EXPECT_EQ(listener.messages[0].rawMessage().value("tls", 0), 1);
}

TEST_F(PushReceiverTest, ABurstOfAThousandArrivesOnceAndInOrder) {
  newUser("alice");
  auto alice = jov::Jov::currentUser();
  auto topic = jov::Jov::topicWithName("burst");
  ASSERT_TRUE(succeeded(topic->saveSynchronous()));
  newUser("bob");
  const auto endpoint = installedEndpoint();
  ASSERT_TRUE(succeeded(jov::JovPushSubscription::subscribeCurrentUserSynchronous(topic)));
  Listener listener(endpoint);
  ASSERT_TRUE(succeeded(listener.receiver->start()));
  ASSERT_TRUE(listener.waitForState(jov::JovPushReceiverState::Listening));

  logIn(alice);
  constexpr int kCount = 1000;
  for (int n = 0; n < kCount; ++n) {
    auto message = jov::JovPushMessage::composeMessageWithData({{"n", n}});
    ASSERT_TRUE(succeeded(topic->sendMessageSynchronous(message))) << n;
  }
  ASSERT_TRUE(listener.waitForMessages(kCount, 60s)) << listener.messages.size();
  // Nothing more comes after the thousandth.
  listener.waitFor([] { return false; }, 300ms);
  ASSERT_EQ(listener.messages.size(), static_cast<std::size_t>(kCount));
  for (int n = 0; n < kCount; ++n) {
    ASSERT_EQ(listener.messages[n].rawMessage().value("n", -1), n);
  }
}

// The endpoint's refusals: another user's installation, one of another kind, and a service
// that has no broker.
TEST_F(PushReceiverTest, TheEndpointIsOnlyForTheOwnerOfAnMQTTInstallation) {
  newUser("bob");
  auto bobs = jov::JovMQTTInstallation::installSynchronous();
  ASSERT_TRUE(succeeded(bobs));
  auto first = bobs.value()->endpointSynchronous();
  ASSERT_TRUE(succeeded(first));
  // The same account every time.
  auto again = bobs.value()->endpointSynchronous();
  ASSERT_TRUE(succeeded(again));
  EXPECT_EQ(again.value(), first.value());
  const std::string token = "phone-of-" + jov::Jov::currentUser()->userID();
  auto phone = jov::JovPushInstallation::installSynchronousWithDeviceToken(
      std::vector<std::uint8_t>(token.begin(), token.end()), false);
  ASSERT_TRUE(succeeded(phone));
  auto notMQTT =
      jov::JovMQTTInstallation::installationWithIDs(*phone.value()->installationID(), "unused");
  EXPECT_EQ(jovtest::codeOf(notMQTT->endpointSynchronous()),
            jov::JovError::codeInvalidRequestData());

  newUser("mallory");
  EXPECT_EQ(jovtest::codeOf(bobs.value()->endpointSynchronous()),
            jov::JovError::codeInstallationNotFound());
  EXPECT_EQ(jovtest::codeOf(bobs.value()->uninstallSynchronous()),
            jov::JovError::codeInstallationNotFound());

  // The shared emulator of the other tests runs without a broker.
  jovtest::beginLibraryOnNewApp();
  auto user = jov::JovUser::userWithUsername("nobroker", "pass1234");
  ASSERT_TRUE(succeeded(user->performRegistrationSynchronous()));
  auto installed = jov::JovMQTTInstallation::installSynchronous();
  ASSERT_TRUE(succeeded(installed));
  auto none = installed.value()->endpointSynchronous();
  ASSERT_FALSE(none.ok());
  EXPECT_EQ(none.error().jovHttpStatus(), 503);
  EXPECT_EQ(none.error().jovErrorSummary(), "MQTT_ENDPOINT_NOT_AVAILABLE");
}

// jov push listen from a shell: the first listen installs this machine and subscribes; the
// broker keeps what arrives while nobody listens, and the next listen (the same installation)
// prints it.
TEST_F(PushReceiverTest, JovPushListenPrintsWhatArrived) {
  jovtest::TempDir data;
  auto jovCli = [&](std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), {JOV_CLI_PATH, "--data", data.str()});
    return jovtest::runProcess(args, input);
  };
  auto registered =
      jovCli({"register", "listener", "--url", emulator_->baseURL(), "--app", kApp, "--key", kKey},
             "secret99\n");
  ASSERT_EQ(registered.status, 0) << registered.err;
  ASSERT_EQ(jovCli({"topic", "create", "cli-news"}).status, 0);
  ASSERT_EQ(jovCli({"topic", "subscribe", "cli-news"}).status, 0);
  auto first = jovCli({"push", "listen", "--timeout", "2"});
  ASSERT_EQ(first.status, 0) << first.err;
  EXPECT_NE(first.err.find("listening"), std::string::npos) << first.err;

  // The topic's creator sends, through the library, while nobody listens.
  ASSERT_TRUE(succeeded(jov::JovUser::authenticateSynchronous("listener", "secret99")));
  auto topic = jov::Jov::topicWithName("cli-news");
  for (int n = 1; n <= 2; ++n) {
    ASSERT_TRUE(succeeded(
        topic->sendMessageSynchronous(jov::JovPushMessage::composeMessageWithData({{"n", n}}))));
  }
  auto second = jovCli({"push", "listen", "--count", "2", "--timeout", "20", "--json"});
  ASSERT_EQ(second.status, 0) << second.err;
  std::istringstream lines(second.out);
  std::vector<json> printed;
  for (std::string line; std::getline(lines, line);) printed.push_back(json::parse(line));
  ASSERT_EQ(printed.size(), 2u) << second.out;
  EXPECT_EQ(printed[0].value("n", 0), 1);
  EXPECT_EQ(printed[1].value("n", 0), 2);
  EXPECT_EQ(printed[1].value("to", ""), "cli-news");

  // Nothing more within the time: a failure that says how many came.
  auto nothing = jovCli({"push", "listen", "--count", "1", "--timeout", "1"});
  EXPECT_EQ(nothing.status, 1);
  EXPECT_NE(nothing.err.find("received 0 of 1"), std::string::npos) << nothing.err;
  EXPECT_EQ(jovCli({"push", "uninstall", "--mqtt"}).status, 0);
}

}  // namespace
