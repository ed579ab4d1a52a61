// Pushes that arrive: a topic opened to a group through its access control list, a message sent
// to it and the delivery each subscriber's device gets; a bucket subscription and the news of a
// change; the payloads read back through JovReceivedMessage.
#include <gtest/gtest.h>

#include "emulator_fixture.hpp"
#include "jov/acl.hpp"
#include "jov/application.hpp"
#include "jov/group.hpp"
#include "jov/push_installation.hpp"
#include "jov/received_message.hpp"
#include "jov/request.hpp"
#include "jov/topic.hpp"
#include "jov/user.hpp"

namespace jov {
namespace {

using jovtest::codeOf;
using jovtest::succeeded;
using nlohmann::json;

class PushDeliveryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    app = jovtest::beginLibraryOnNewApp();
    // Each user installs one device: bob an iPhone, carol an Android one, dave an iPhone.
    const std::vector<std::pair<const char*, const char*>> users = {
        {"bob", "IOS"}, {"carol", "ANDROID"}, {"dave", "IOS"}, {"alice", ""}};
    std::uint8_t tokenByte = 1;
    for (const auto& [name, device] : users) {
      auto user = JovUser::userWithUsername(name, "pass1234");
      ASSERT_TRUE(succeeded(user->performRegistrationSynchronous())) << name;
      ids[name] = user->userID();
      if (std::string(device).empty()) continue;
      const std::string token(8, static_cast<char>(tokenByte++));
      installToken(std::string(device), token);
    }
    // Alice, registered last, is logged in.
  }
  void TearDown() override { JovUser::logOut(); }

  // Installs a device of the current user; Android through the service's route, which the
  // library's installation (an iPhone's) does not make.
  void installToken(const std::string& device, const std::string& token) {
    if (device == "IOS") {
      std::vector<std::uint8_t> bytes(token.begin(), token.end());
      ASSERT_TRUE(succeeded(JovPushInstallation::installSynchronousWithDeviceToken(bytes, false)));
      return;
    }
    JovRequest request("/installations");
    request.requestMethod = JovMethodPost;
    request.content = "application/vnd.jov.InstallationCreationRequest+json";
    request.postData = json{{"installationRegistrationID", "android-" + Jov::currentUser()->userID()},
                            {"deviceType", "ANDROID"}};
    ASSERT_TRUE(request.makeSynchronousRequest().ok());
  }

  static void loginAs(const std::string& name) {
    ASSERT_TRUE(JovUser::authenticateSynchronous(name, "pass1234").ok()) << name;
  }
  json deliveries() {
    auto reply = jovtest::emulatorRequest(
        "GET", "/emulator/apps/" + urlEncode(app.appID) + "/push/outbox");
    EXPECT_EQ(reply.status, 200) << reply.raw;
    return reply.body.value("deliveries", json::array());
  }
  void clearDeliveries() {
    jovtest::emulatorRequest("DELETE",
                             "/emulator/apps/" + urlEncode(app.appID) + "/push/outbox");
  }

  jovtest::EmulatorApp app;
  std::map<std::string, std::string> ids;
};

TEST_F(PushDeliveryTest, TopicOpenedToAGroup) {
  auto club = Jov::groupWithName("club", {JovUser::userWithID(ids["bob"]),
                                          JovUser::userWithID(ids["carol"])});
  ASSERT_TRUE(succeeded(club->saveSynchronous()));
  auto topic = Jov::currentUser()->topicWithName("scores");
  ASSERT_TRUE(succeeded(topic->saveSynchronous()));

  // Before the grant nobody but alice may subscribe.
  loginAs("bob");
  auto bobsView = JovUser::userWithID(ids["alice"])->topicWithName("scores");
  auto refused = JovPushSubscription::subscribeCurrentUserSynchronous(bobsView);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().jovHttpStatus(), 403);
  EXPECT_FALSE(bobsView->topicACL()->listACLEntriesSynchronous().ok()) << "only alice lists";

  loginAs("alice");
  auto acl = topic->topicACL();
  acl->putACLEntry(JovACLEntry::entryWithSubject(club, JovACLActionSubscribeToTopic));
  ASSERT_TRUE(succeeded(acl->saveSynchronous()));
  auto listed = topic->topicACL()->listACLEntriesSynchronous();
  ASSERT_TRUE(succeeded(listed));
  std::set<std::string> granted;
  for (const auto& entry : listed.value()) {
    granted.insert(std::to_string(entry->action()) + " " + entry->entityString());
  }
  EXPECT_TRUE(granted.contains("8 GroupID:" + club->groupID()));
  EXPECT_TRUE(granted.contains("9 UserID:" + ids["alice"]));

  for (const char* member : {"bob", "carol"}) {
    loginAs(member);
    ASSERT_TRUE(succeeded(JovPushSubscription::subscribeCurrentUserSynchronous(bobsView)))
        << member;
    // Subscribing is not sending: only alice holds that right.
    auto message = JovPushMessage::composeMessageWithData({{"x", 1}});
    EXPECT_EQ(bobsView->sendMessageSynchronous(message).error().jovHttpStatus(), 403);
  }
  loginAs("dave");
  EXPECT_EQ(JovPushSubscription::subscribeCurrentUserSynchronous(bobsView).error().jovHttpStatus(),
            403)
      << "dave is no member";

  loginAs("alice");
  clearDeliveries();
  auto message = JovPushMessage::composeMessageWithData({{"score", 7}});
  message.apnsFields->alertBody = "Alice scored";
  message.gcmFields->setSpecificData({{"channel", "sport"}});
  ASSERT_TRUE(succeeded(topic->sendMessageSynchronous(message)));

  // One delivery per subscriber's device, each as its channel carries it.
  auto sent = deliveries();
  ASSERT_EQ(sent.size(), 2u) << sent.dump();
  std::map<std::string, json> byUser;
  for (const auto& d : sent) byUser[d["userID"]] = d;
  const json& apns = byUser[ids["bob"]];
  EXPECT_EQ(apns["kind"], "TOPIC_MESSAGE");
  EXPECT_EQ(apns["channel"], "APNS");
  EXPECT_EQ(apns["payload"]["aps"]["alert"]["body"], "Alice scored");
  EXPECT_EQ(apns["payload"]["score"], 7);
  EXPECT_FALSE(apns["payload"].contains("channel")) << "GCM's own data stays with GCM";
  const json& gcm = byUser[ids["carol"]];
  EXPECT_EQ(gcm["channel"], "GCM");
  EXPECT_EQ(gcm["payload"]["channel"], "sport");
  EXPECT_FALSE(gcm["payload"].contains("aps"));

  auto received = JovReceivedMessage::messageFromPayload(apns["payload"]);
  EXPECT_EQ(received.messageScope(), JovMessageScopeAppAndUser);
  EXPECT_EQ(received.senderUser()->userID(), ids["alice"]);
  EXPECT_EQ(received.eventSourceUser()->userID(), ids["alice"]);
  ASSERT_TRUE(received.eventSourceTopic());
  EXPECT_EQ(received.eventSourceTopic()->generatePath(), topic->generatePath());
  EXPECT_EQ(received.getAlertBody(), "Alice scored");

  // Every device here is a production one: a message kept from production reaches none.
  clearDeliveries();
  message.sendToProduction = false;
  ASSERT_TRUE(succeeded(topic->sendMessageSynchronous(message)));
  EXPECT_TRUE(deliveries().empty());
}

TEST_F(PushDeliveryTest, BucketChangesReachSubscribers) {
  auto club = Jov::groupWithName("club", {JovUser::userWithID(ids["bob"]),
                                          JovUser::userWithID(ids["carol"])});
  ASSERT_TRUE(succeeded(club->saveSynchronous()));
  auto bucket = club->bucketWithName("board");
  // The bucket does not exist before its first object.
  loginAs("bob");
  auto bobsBucket = JovGroup::groupWithID(club->groupID())->bucketWithName("board");
  EXPECT_EQ(codeOf(bobsBucket->subscribeSynchronous()), JovError::codeObjectNotFound());
  auto first = bobsBucket->createObject();
  first->setObject("hello", "text");
  ASSERT_TRUE(succeeded(first->saveSynchronous()));
  ASSERT_TRUE(succeeded(bobsBucket->subscribeSynchronous()));
  EXPECT_EQ(codeOf(bobsBucket->subscribeSynchronous()), JovError::codeSubscriptionAlreadyExist());
  EXPECT_TRUE(bobsBucket->isSubscribedSynchronous().value());
  loginAs("dave");
  EXPECT_EQ(bobsBucket->subscribeSynchronous().error().jovHttpStatus(), 403) << "no member";

  loginAs("carol");
  clearDeliveries();
  auto note = JovGroup::groupWithID(club->groupID())->bucketWithName("board")->createObject();
  note->setObject("meeting at 5", "text");
  ASSERT_TRUE(succeeded(note->saveSynchronous()));
  auto sent = deliveries();
  ASSERT_EQ(sent.size(), 1u) << sent.dump();
  EXPECT_EQ(sent[0]["kind"], "BUCKET_EVENT");
  EXPECT_EQ(sent[0]["userID"], ids["bob"]);
  const json& payload = sent[0]["payload"];
  EXPECT_EQ(payload["t"], "DATA_OBJECT_CREATED");
  EXPECT_EQ(payload["aps"]["content-available"], 1);

  auto received = JovReceivedMessage::messageFromPayload(payload);
  EXPECT_EQ(received.messageScope(), JovMessageScopeAppAndGroup);
  EXPECT_EQ(received.senderUser()->userID(), ids["carol"]);
  ASSERT_TRUE(received.eventSourceBucket());
  EXPECT_EQ(received.eventSourceBucket()->bucketPath(), bucket->bucketPath());
  ASSERT_TRUE(received.eventSourceObject());
  EXPECT_EQ(received.eventSourceObject()->uuid(), note->uuid());
  // Bob can load what the payload names.
  loginAs("bob");
  auto loaded = received.eventSourceObject();
  ASSERT_TRUE(succeeded(loaded->refreshSynchronous()));
  EXPECT_EQ(loaded->getObjectForKey("text").value_or(json()), json("meeting at 5"));

  // An update and a deletion are news too; after unsubscribing there is none.
  loginAs("carol");
  clearDeliveries();
  note->setObject("moved to 6", "text");
  ASSERT_TRUE(succeeded(note->saveSynchronous()));
  ASSERT_TRUE(succeeded(note->deleteSynchronous()));
  sent = deliveries();
  ASSERT_EQ(sent.size(), 2u) << sent.dump();
  EXPECT_EQ(sent[0]["payload"]["t"], "DATA_OBJECT_UPDATED");
  EXPECT_EQ(sent[1]["payload"]["t"], "DATA_OBJECT_DELETED");
  loginAs("bob");
  ASSERT_TRUE(succeeded(bobsBucket->unsubscribeSynchronous()));
  EXPECT_EQ(codeOf(bobsBucket->unsubscribeSynchronous()), JovError::codeSubscriptionNotExist());
  auto check = bobsBucket->isSubscribedSynchronous();
  EXPECT_FALSE(check.ok());
  clearDeliveries();
  first->setObject("again", "text");
  ASSERT_TRUE(succeeded(first->saveSynchronous()));
  EXPECT_TRUE(deliveries().empty());
}

}  // namespace
}  // namespace jov
