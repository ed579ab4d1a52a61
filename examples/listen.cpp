// Receiving pushes on Linux: bob's desktop installs itself for MQTT, subscribes to alice's topic
// and listens; alice sends three messages; each reaches bob's listener through the service's
// MQTT broker, and the time from send to arrival is printed.
//
//   usage: listen BASE_URL APP_ID APP_KEY DATA_DIR

#include <chrono>
#include <iostream>
#include <string>

#include "jov/application.hpp"
#include "jov/async.hpp"
#include "jov/mqtt_installation.hpp"
#include "jov/push_message.hpp"
#include "jov/push_receiver.hpp"
#include "jov/topic.hpp"
#include "jov/user.hpp"

namespace {

template <class R>
bool check(const R& result, const std::string& what) {
  if (result.ok()) return true;
  std::cerr << "Could not " << what << ": " << result.error().describe() << "\n";
  return false;
}

using Clock = std::chrono::steady_clock;

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: listen BASE_URL APP_ID APP_KEY DATA_DIR\n";
    return 2;
  }
  using namespace jov;
  Jov::setDataDirectory(argv[4]);
  Jov::beginWithID(argv[2], argv[3], std::string(argv[1]));

  const std::string suffix = std::to_string(std::chrono::system_clock::now().time_since_epoch() /
                                            std::chrono::milliseconds(1));
  auto alice = JovUser::userWithUsername("alice-l" + suffix, "pass1234");
  if (!check(alice->performRegistrationSynchronous(), "register alice")) return 1;
  auto topic = Jov::topicWithName("news" + suffix);
  if (!check(topic->saveSynchronous(), "create the topic")) return 1;

  // Bob's desktop: an MQTT installation, the endpoint the service made for it, a subscription.
  auto bob = JovUser::userWithUsername("bob-l" + suffix, "pass1234");
  if (!check(bob->performRegistrationSynchronous(), "register bob")) return 1;
  auto installed = JovMQTTInstallation::installSynchronous();
  if (!check(installed, "install bob's desktop")) return 1;
  auto endpoint = installed.value()->endpointSynchronous();
  if (!check(endpoint, "read the MQTT endpoint")) return 1;
  if (!check(JovPushSubscription::subscribeCurrentUserSynchronous(topic), "subscribe")) return 1;

  auto receiver = JovPushReceiver::receiverWithEndpoint(endpoint.value());
  Clock::time_point sentAt;
  int received = 0;
  receiver->setStateHandler([](JovPushReceiverState state, std::optional<JovError> reason) {
    std::cout << "bob's listener: " << toString(state)
              << (reason ? " (" + reason->describe() + ")" : std::string()) << "\n";
  });
  receiver->setMessageHandler([&](const JovReceivedMessage& message) {
    const auto elapsed = std::chrono::duration<double, std::milli>(Clock::now() - sentAt);
    ++received;
    std::cout << "bob received after " << elapsed.count() << " ms: " << message.rawMessage().dump()
              << "\n";
    if (auto from = message.senderUser()) std::cout << "  from user " << from->userID() << "\n";
  });
  if (!check(receiver->start(), "start listening")) return 1;
  const auto connectBy = Clock::now() + std::chrono::seconds(10);
  while (receiver->state() != JovPushReceiverState::Listening && Clock::now() < connectBy) {
    JovMainQueue::runUntil(1, std::chrono::milliseconds(100));
  }
  JovMainQueue::poll();  // the state change to listening, told above
  if (receiver->state() != JovPushReceiverState::Listening) {
    std::cerr << "bob's listener did not connect within 10 s\n";
    return 1;
  }
  std::cout << "bob listens on mqtt://" << endpoint.value().host << ":" << endpoint.value().portTCP
            << " (" << endpoint.value().topic << ")\n";

  // Alice's side: the receiver keeps its own connection, whoever is logged in here.
  if (!check(JovUser::authenticateSynchronous("alice-l" + suffix, "pass1234"), "log alice in")) {
    return 1;
  }
  for (int i = 1; i <= 3; ++i) {
    auto message =
        JovPushMessage::composeMessageWithData({{"headline", "news #" + std::to_string(i)}});
    sentAt = Clock::now();
    if (!check(topic->sendMessageSynchronous(message), "send the message")) return 1;
    // Each one within a second, or the demo fails.
    if (JovMainQueue::runUntil(1, std::chrono::seconds(1)) != 1 || received != i) {
      std::cerr << "message " << i << " did not arrive within a second\n";
      return 1;
    }
  }
  receiver->stop();
  JovUser::logOut();
  return 0;
}
