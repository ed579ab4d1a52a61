// End-to-end latency of a push on loopback: from the call of sendMessageSynchronous to the
// receiver's handler, over the emulator and its MQTT broker. Messages go one at a time (each
// waits for the previous to arrive), so each figure is one message's own path.
//
//   usage: jov_push_latency_bench BASE_URL APP_ID APP_KEY [COUNT]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "jov/jov.hpp"

namespace {

using Clock = std::chrono::steady_clock;

template <class R>
bool ok(const R& result, const char* what) {
  if (result.ok()) return true;
  std::fprintf(stderr, "push latency: cannot %s: %s\n", what, result.error().describe().c_str());
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: %s BASE_URL APP_ID APP_KEY [COUNT]\n", argv[0]);
    return 2;
  }
  const int count = argc > 4 ? std::stoi(argv[4]) : 1000;
  using namespace jov;
  JovKeyChainWrapper::useMemoryStore();
  Jov::beginWithID(argv[2], argv[3], std::string(argv[1]));
  const std::string suffix = std::to_string(Clock::now().time_since_epoch().count());

  auto sender = JovUser::userWithUsername("latency-sender" + suffix, "pass1234");
  if (!ok(sender->performRegistrationSynchronous(), "register the sender")) return 1;
  auto topic = Jov::topicWithName("latency" + suffix);
  if (!ok(topic->saveSynchronous(), "create the topic")) return 1;
  auto listener = JovUser::userWithUsername("latency-listener" + suffix, "pass1234");
  if (!ok(listener->performRegistrationSynchronous(), "register the listener")) return 1;
  auto installed = JovMQTTInstallation::installSynchronous();
  if (!ok(installed, "install for MQTT")) return 1;
  auto endpoint = installed.value()->endpointSynchronous();
  if (!ok(endpoint, "read the endpoint")) return 1;
  if (!ok(JovPushSubscription::subscribeCurrentUserSynchronous(topic), "subscribe")) return 1;

  // The handler runs from the main queue, drained here as an application would.
  auto receiver = JovPushReceiver::receiverWithEndpoint(endpoint.value());
  std::vector<double> latencies;
  latencies.reserve(static_cast<std::size_t>(count));
  Clock::time_point sentAt;
  receiver->setMessageHandler([&](const JovReceivedMessage&) {
    latencies.push_back(std::chrono::duration<double, std::milli>(Clock::now() - sentAt).count());
  });
  if (!ok(receiver->start(), "start the receiver")) return 1;
  const auto connectBy = Clock::now() + std::chrono::seconds(10);
  while (receiver->state() != JovPushReceiverState::Listening && Clock::now() < connectBy) {
    JovMainQueue::runFor(std::chrono::milliseconds(10));
  }
  if (receiver->state() != JovPushReceiverState::Listening) {
    std::fprintf(stderr, "push latency: the receiver did not connect\n");
    return 1;
  }
  Jov::setCurrentUser(sender);
  auto message = JovPushMessage::composeMessageWithData({{"probe", true}});
  for (int i = 0; i < count; ++i) {
    const std::size_t before = latencies.size();
    sentAt = Clock::now();
    if (!ok(topic->sendMessageSynchronous(message), "send")) return 1;
    JovMainQueue::runUntil(1, std::chrono::seconds(5));
    if (latencies.size() == before) {
      std::fprintf(stderr, "push latency: message %d did not arrive within 5 s\n", i);
      return 1;
    }
  }
  receiver->stop();
  std::sort(latencies.begin(), latencies.end());
  auto at = [&](double q) {
    return latencies[std::min(latencies.size() - 1,
                              static_cast<std::size_t>(q * static_cast<double>(latencies.size())))];
  };
  std::printf(
      "P-push send to handler over MQTT, %d messages: median %.2f ms, p99 %.2f ms, "
      "max %.2f ms (target: median <= 5 ms)\n",
      count, at(0.5), at(0.99), latencies.back());
  return 0;
}
