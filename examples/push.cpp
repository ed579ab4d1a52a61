// Push in a few lines: bob installs his phone and subscribes to alice's topic and to her board;
// alice sends a message and adds an object; what bob's phone would receive is read from the
// emulator's push outbox and interpreted with JovReceivedMessage.
//
//   usage: push BASE_URL APP_ID APP_KEY DATA_DIR

#include <chrono>
#include <iostream>
#include <string>

#include "jov/acl.hpp"
#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/encoding.hpp"
#include "jov/push_installation.hpp"
#include "jov/push_message.hpp"
#include "jov/received_message.hpp"
#include "jov/request.hpp"
#include "jov/topic.hpp"
#include "jov/user.hpp"

namespace {

// Prints what failed and why; true when the operation went through.
template <class R>
bool check(const R& result, const std::string& what) {
  if (result.ok()) return true;
  std::cerr << "Could not " << what << ": " << result.error().describe() << "\n";
  return false;
}

// The deliveries the emulator made (its outbox stands in for the phones), oldest first.
nlohmann::json deliveries(std::string baseURL) {
  if (baseURL.ends_with("/api")) baseURL.resize(baseURL.size() - 4);
  auto request = jov::JovRequest::withURL(baseURL + "/emulator/apps/" +
                                          jov::urlEncode(jov::Jov::appID()) + "/push/outbox");
  request.requestMethod = jov::JovMethodGet;
  request.anonymous = true;
  request.postData.reset();
  auto response = request.makeSynchronousRequest();
  if (!response.ok() || !response.json.is_object()) return nlohmann::json::array();
  return response.json.value("deliveries", nlohmann::json::array());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: push BASE_URL APP_ID APP_KEY DATA_DIR\n";
    return 2;
  }
  using namespace jov;
  Jov::setDataDirectory(argv[4]);
  Jov::beginWithID(argv[2], argv[3], std::string(argv[1]));

  const std::string suffix = std::to_string(std::chrono::system_clock::now().time_since_epoch() /
                                            std::chrono::milliseconds(1));
  auto alice = JovUser::userWithUsername("alice" + suffix, "pass1234");
  if (!check(alice->performRegistrationSynchronous(), "register alice")) return 1;
  auto topic = Jov::topicWithName("scores" + suffix);
  if (!check(topic->saveSynchronous(), "create the topic")) return 1;
  auto board = Jov::bucketWithName("board" + suffix);
  auto first = board->createObject();
  first->setObject("welcome", "text");
  if (!check(first->saveSynchronous(), "start the board")) return 1;
  // News of an object reaches only those who may read it: the board is open to every user.
  auto acl = board->bucketACL();
  acl->putACLEntry(
      JovACLEntry::entryWithSubject(JovAnyAuthenticatedUser{}, JovACLActionReadObjectsInBucket));
  if (!check(acl->saveSynchronous(), "open the board")) return 1;
  std::cout << "alice created topic " << topic->name() << " and bucket " << board->name() << "\n";

  auto bob = JovUser::userWithUsername("bob" + suffix, "pass1234");
  if (!check(bob->performRegistrationSynchronous(), "register bob")) return 1;
  const std::string token = "bob-phone-" + suffix;
  if (!check(JovPushInstallation::installSynchronousWithDeviceToken(
                 std::vector<std::uint8_t>(token.begin(), token.end()), false),
             "install bob's phone")) {
    return 1;
  }
  if (!check(JovPushSubscription::subscribeCurrentUserSynchronous(topic), "subscribe to it") ||
      !check(board->subscribeSynchronous(), "subscribe to the board")) {
    return 1;
  }
  std::cout << "bob installed his phone and subscribed to both\n";

  if (!check(JovUser::authenticateSynchronous("alice" + suffix, "pass1234"),
             "log alice in")) {
    return 1;
  }
  auto message = JovPushMessage::composeMessageWithData({{"score", 7}});
  message.apnsFields->alertBody = "Alice scored";
  if (!check(topic->sendMessageSynchronous(message), "send the message")) return 1;
  auto note = board->createObject();
  note->setObject("meeting at 5", "text");
  if (!check(note->saveSynchronous(), "add a note")) return 1;
  std::cout << "alice sent a message and added a note\n\n";

  for (const auto& delivery : deliveries(argv[1])) {
    const auto& payload = delivery["payload"];
    auto received = JovReceivedMessage::messageFromPayload(payload);
    std::cout << delivery.value("kind", "") << " on " << delivery.value("channel", "") << ": "
              << payload.dump() << "\n";
    if (auto from = received.senderUser()) std::cout << "  sender user: " << from->userID() << "\n";
    if (auto t = received.eventSourceTopic()) std::cout << "  topic: " << t->generatePath() << "\n";
    if (received.containsJovTopic()) std::cout << "  alert: " << received.getAlertBody() << "\n";
    if (auto b = received.eventSourceBucket()) {
      std::cout << "  bucket: " << b->bucketPath().value_or("") << "\n";
    }
    if (auto object = received.eventSourceObject()) {
      if (check(object->refreshSynchronous(), "load the object")) {
        std::cout << "  object: " << object->objectURI().value_or("") << " text="
                  << object->getObjectForKey("text").value_or(nullptr).dump() << "\n";
      }
    }
  }
  JovUser::logOut();
  return 0;
}
