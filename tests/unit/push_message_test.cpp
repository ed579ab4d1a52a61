// Push messages, received payloads and bucket subscriptions: the bodies a message makes (checked
// as text, keys in order, against hand-written JSON), what a send sends and how its refusals map,
// what a received payload yields, and the bucket subscription exchanges.
#include <gtest/gtest.h>

#include "fake_transport.hpp"
#include "jov/acl.hpp"
#include "jov/group.hpp"
#include "jov/push_message.hpp"
#include "jov/received_message.hpp"
#include "jov/thing.hpp"
#include "jov/topic.hpp"

namespace jov {
namespace {

using jovtest::Answer;
using nlohmann::json;
using Op = jovtest::Operation;

// The body as the service receives it, keys in the order they are sent.
std::string bodyText(const JovPushMessage& message) {
  auto body = message.getMessageData();
  return body ? body->dump() : "error " + std::to_string(body.error().code());
}
int errorCode(const JovPushMessage& message) {
  auto body = message.getMessageData();
  return body ? 0 : body.error().code();
}

TEST(PushMessageTest, BodiesInTheirOrder) {
  // Composed with data and untouched sections.
  auto message = JovPushMessage::composeMessageWithData({{"k", "v"}});
  EXPECT_EQ(bodyText(message),
            R"({"data":{"k":"v"},"gcm":{"enabled":true},"apns":{"enabled":true,)"
            R"("apnsPushType":"alert"},"mqtt":{"enabled":true}})");

  // Every switch and every field of every section.
  message.sendToDevelopment = true;
  message.sendToProduction = false;
  message.pushMessageType = "promo";
  message.sendAppID = message.sendSender = message.sendWhen = true;
  message.sendOrigin = message.sendObjectScope = message.sendTopicID = false;
  auto& apns = *message.apnsFields;
  apns.alertBody = "b";
  apns.alertActionLocKey = "ak";
  apns.alertLocKey = "lk";
  apns.alertLocArgs = std::vector<std::string>{"x", "y"};
  apns.alertLaunchImage = "li";
  apns.alertTitle = "t";
  apns.alertSubtitle = "st";
  apns.contentAvailable = 1;
  apns.mutableContent = 0;
  apns.setSpecificData({{"a", 1}});
  apns.sound = "ding";
  apns.badge = 3;
  apns.category = "c";
  auto& gcm = *message.gcmFields;
  gcm.collapseKey = "ck";
  gcm.delayWhileIdle = true;
  gcm.timeToLive = 60;
  gcm.restrictedPackageName = "p";
  gcm.dryRun = false;
  gcm.setSpecificData({{"g", 2}});
  message.mqttFields->data = json{{"m", 3}};
  message.mqttFields->enabled = false;
  EXPECT_EQ(bodyText(message),
            R"({"data":{"k":"v"},"sendToDevelopment":true,"sendToProduction":false,)"
            R"("pushMessageType":"promo","sendAppID":true,"sendSender":true,"sendWhen":true,)"
            R"("sendOrigin":false,"sendObjectScope":false,"sendTopicID":false,)"
            R"("gcm":{"enabled":true,"collapseKey":"ck","delayWhileIdle":true,"timeToLive":60,)"
            R"("restrictedPackageName":"p","dryRun":false,"data":{"g":2}},)"
            R"("apns":{"enabled":true,"alert":{"body":"b","actionLocKey":"ak","locKey":"lk",)"
            R"("locArgs":["x","y"],"launchImage":"li","title":"t","subtitle":"st"},)"
            R"("contentAvailable":1,"mutableContent":0,"data":{"a":1},"sound":"ding","badge":3,)"
            R"("category":"c","apnsPushType":"alert"},"mqtt":{"enabled":false,"data":{"m":3}}})");

  // Sections given one by one: a channel left out is {"enabled": false}; no data, no "data".
  JovAPNSFields silent;
  silent.contentAvailable = 1;
  silent.category = "";
  EXPECT_EQ(bodyText(JovPushMessage::composeMessageWithAPNSFields(silent, std::nullopt)),
            R"({"gcm":{"enabled":false},"apns":{"enabled":true,"contentAvailable":1,)"
            R"("apnsPushType":"background"},"mqtt":{"enabled":false}})");
}

TEST(PushMessageTest, PushTypeSwitchesAndRefusals) {
  auto pushType = [](JovAPNSFields fields) {
    return fields.generateFields()["apnsPushType"].get<std::string>();
  };
  JovAPNSFields wake;
  wake.contentAvailable = 1;
  EXPECT_EQ(pushType(wake), "background");
  for (auto change : std::vector<std::function<void(JovAPNSFields&)>>{
           [](JovAPNSFields& f) { f.badge = 1; },
           [](JovAPNSFields& f) { f.sound = "s"; },
           [](JovAPNSFields& f) { f.alertTitle = "t"; },
           [](JovAPNSFields& f) { f.contentAvailable = 0; },
       }) {
    JovAPNSFields fields = wake;
    change(fields);
    EXPECT_EQ(pushType(fields), "alert");
  }

  // Turning a channel on keeps a section that is there; off drops it.
  auto message = JovPushMessage::composeMessageWithData({{"x", 1}});
  message.apnsFields->alertBody = "kept";
  message.setAPNSEnabled(true);
  EXPECT_EQ(message.apnsFields->alertBody, "kept");
  message.setAPNSEnabled(false);
  message.setAPNSEnabled(true);
  EXPECT_FALSE(message.apnsFields->alertBody.has_value());

  // GCM's reserved keys, in the data or the GCM data, only while GCM is on.
  for (const char* key : {"Google.x", "GOOGLEy", "collapse_key", "from", "dry_run"}) {
    SCOPED_TRACE(key);
    auto reserved = JovPushMessage::composeMessageWithData({{key, 1}});
    EXPECT_EQ(errorCode(reserved), JovError::codeContainsGCMReservedKey());
    reserved.setGCMEnabled(false);
    EXPECT_EQ(reserved.getMessageData()->at("gcm"), json({{"enabled", false}}));
  }
  EXPECT_FALSE(JovGCMFields::isReservedKey("go"));
  EXPECT_FALSE(JovGCMFields::isReservedKey("Collapse_Key"));
  auto gcmData = JovPushMessage::composeMessageWithData({{"fine", 1}});
  gcmData.gcmFields->setSpecificData({{"registration_ids", 1}});
  EXPECT_EQ(errorCode(gcmData), JovError::codeContainsGCMReservedKey());

  // No channel at all; data that is not an object; a received message has no body.
  auto none = JovPushMessage::composeMessageWithData({{"x", 1}});
  none.setAPNSEnabled(false);
  none.setGCMEnabled(false);
  none.setMQTTEnabled(false);
  EXPECT_EQ(errorCode(none), JovError::codePushDataRequired());
  none.setMQTTEnabled(true);
  none.data = json::array();
  EXPECT_EQ(errorCode(none), JovError::codeInvalidPushMessageData());
  auto received = JovPushMessage::messageWithReceivedPayload({{"s", "u1"}});
  EXPECT_TRUE(received.isIncomingMessage());
  EXPECT_TRUE(received.getMessageData()->is_null());
  EXPECT_THROW(JovPushMessage::composeMessageWithData(json::array()), std::invalid_argument);
}

class PushExchangeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    JovKeyChainWrapper::useMemoryStore();
    Jov::setCurrentUser(jovtest::credentialUser({{"userID", "me"}}));
  }
  void TearDown() override { JovUser::logOut(); }

  jovtest::TestApp app;
  jovtest::FakeTransport& fake = *app.fake;
};

auto groupBucket() { return JovGroup::groupWithID("g1")->bucketWithName("news"); }
auto subscriber() { return JovPushSubscription::subscriptionWithUser(JovUser::userWithID("s1")); }
template <class R>
std::optional<JovError> err(const R& r) {
  return r.errorIfAny();
}
const Op kSend = [] {
  return err(Jov::topicWithName("t")->sendMessageSynchronous(
      JovPushMessage::composeMessageWithData({{"k", "v"}})));
};
const Op kSubscribeBucket = [] { return err(groupBucket()->subscribeSynchronous()); };
const Op kUnsubscribeBucket = [] {
  return err(Jov::encryptedBucketWithName("b")->unsubscribeSynchronous());
};
const Op kCheckBucket = [] { return err(subscriber()->checkIsSubscribedSynchronous(groupBucket())); };
const Op kSubscriberBucket = [] { return err(subscriber()->subscribeSynchronous(groupBucket())); };
const Op kListTopicACL = [] {
  return err(JovUser::userWithID("u1")->topicWithName("t")->topicACL()->listACLEntriesSynchronous());
};

TEST_F(PushExchangeTest, RequestsAndTheirMappings) {
  const auto done = Answer::text(204, "");
  jovtest::checkRequests(
      fake,
      {
          {kSend, Answer::json(200, {{"pushMessageID", "p"}}), "POST /topics/t/push/messages",
           "application/vnd.jov.SendPushMessageRequest+json", "",
           R"({"data":{"k":"v"},"gcm":{"enabled":true},"apns":{"enabled":true,)"
           R"("apnsPushType":"alert"},"mqtt":{"enabled":true}})"},
          {kSubscribeBucket, done,
           "PUT /groups/g1/buckets/news/filters/all/push/subscriptions/users/me",
           "application/json", "", ""},
          {kUnsubscribeBucket, done,
           "DELETE /buckets/CRYPTO:b/filters/all/push/subscriptions/users/me", "application/json",
           "", ""},
          {kCheckBucket, done, "GET /groups/g1/buckets/news/filters/all/push/subscriptions/users/s1",
           "application/json", "", ""},
          {kSubscriberBucket, done,
           "PUT /groups/g1/buckets/news/filters/all/push/subscriptions/users/s1",
           "application/json", "", ""},
          {kListTopicACL, Answer::json(200, json::object()), "GET /users/u1/topics/t/acl",
           "application/json", "", ""},
      });
  // The body goes out as made, keys in order.
  fake.reset();
  fake.push(Answer::json(200, json::object()));
  ASSERT_FALSE(kSend().has_value());
  EXPECT_EQ(fake.last().body.substr(0, 17), R"({"data":{"k":"v"})");

  jovtest::checkAnswers(
      fake,
      {
          {kSend, Answer::serviceError(400, "INVALID_INPUT_DATA"),
           JovError::codeInvalidPushMessageData()},
          {kSend, Answer::serviceError(401, "UNAUTHORIZED"), JovError::codeUnauthorizedRequest()},
          {kSend, Answer::serviceError(403, "FORBIDDEN"), 0},
          {kSubscribeBucket, Answer::serviceError(409, "PUSH_SUBSCRIPTION_ALREADY_EXISTS"),
           JovError::codeSubscriptionAlreadyExist()},
          {kSubscribeBucket, Answer::serviceError(404, "FILTER_NOT_FOUND"),
           JovError::codeObjectNotFound()},
          {kSubscribeBucket, Answer::serviceError(403, "FORBIDDEN"), 0},
          {kUnsubscribeBucket, Answer::serviceError(404, "PUSH_SUBSCRIPTION_NOT_FOUND"),
           JovError::codeSubscriptionNotExist()},
          {kCheckBucket, Answer::serviceError(404, "PUSH_SUBSCRIPTION_NOT_FOUND"), 0},
      });
}

TEST_F(PushExchangeTest, RefusedBeforeAnyRequest) {
  auto code = [](const std::optional<JovError>& e) { return e ? e->code() : -1; };
  auto reserved = JovPushMessage::composeMessageWithData({{"google.x", 1}});
  EXPECT_EQ(code(err(Jov::topicWithName("t")->sendMessageSynchronous(reserved))),
            JovError::codeContainsGCMReservedKey());
  EXPECT_EQ(code(err(Jov::topicWithName("a.b")->sendMessageSynchronous(
                JovPushMessage::composeMessageWithData({})))),
            JovError::codeInvalidTopicID());
  EXPECT_EQ(code(err(Jov::topicWithName("t")->sendMessageSynchronous(
                JovPushMessage::messageWithReceivedPayload({{"s", "x"}})))),
            JovError::codeInvalidPushMessageData());
  // A bucket of a user that has no ID yet has no path.
  auto unsaved = JovUser::userWithID("")->bucketWithName("b");
  EXPECT_EQ(code(err(unsaved->subscribeSynchronous())),
            JovError::codeBucketParentNotExistInCloud());
  EXPECT_EQ(code(err(JovPushSubscription::checkSubscriptionSynchronous(nullptr))),
            JovError::codeInvalidObjects());
  JovUser::logOut();
  EXPECT_EQ(code(kSubscribeBucket()), JovError::codeLoginRequired());
  EXPECT_EQ(fake.count(), 0u);
  EXPECT_EQ(jovtest::thrownMessage([] { (void)subscriber()->subscribeSynchronous(nullptr); }),
            "Subscribable can not be nil");
}

TEST(ReceivedMessageTest, ScopesSendersAndEntities) {
  auto message = JovReceivedMessage::messageFromAPNS(
      {{"s", "u1"}, {"st", "APP_AND_GROUP"}, {"sg", "g1"}, {"bi", "news"}, {"bt", "crypto"},
       {"oi", "o1"}, {"to", "t1"}, {"w", 5}, {"aps", {{"alert", "hello"}}}});
  EXPECT_EQ(message.messageScope(), JovMessageScopeAppAndGroup);
  EXPECT_EQ(message.senderUser()->userID(), "u1");
  EXPECT_EQ(message.senderThing(), nullptr);
  EXPECT_EQ(message.getValueOfJovMessageField(JovMessageFieldWhen), json(5));
  EXPECT_FALSE(message.getValueOfJovMessageField(15).has_value());
  EXPECT_FALSE(message.getValueOfJovMessageField(JovMessageFieldAppID).has_value());
  auto bucket = message.eventSourceBucket();
  ASSERT_TRUE(bucket);
  EXPECT_TRUE(bucket->isEncrypted());
  EXPECT_EQ(bucket->bucketPath(), "/groups/g1/buckets/CRYPTO:news");
  EXPECT_EQ(message.eventSourceObject()->uuid(), "o1");
  EXPECT_EQ(message.eventSourceTopic()->generatePath(), "/groups/g1/topics/t1");
  EXPECT_TRUE(message.containsJovBucket() && message.containsJovObject() &&
              message.containsJovTopic());
  EXPECT_EQ(message.getAlertBody(), "hello");

  // Bucket types in any case; "sync" and unknown types give nothing.
  auto withType = [](const char* type) {
    return JovReceivedMessage::messageFromAPNS(
        {{"st", "APP_AND_USER"}, {"su", "u2"}, {"bi", "b1"}, {"bt", type}});
  };
  EXPECT_EQ(withType("rw").eventSourceBucket()->bucketPath(), "/users/u2/buckets/b1");
  EXPECT_TRUE(withType("Crypto").eventSourceBucket()->isEncrypted());
  EXPECT_EQ(withType("sync").eventSourceBucket(), nullptr);
  EXPECT_EQ(withType("SYNC").eventSourceBucket(), nullptr);
  EXPECT_EQ(withType("other").eventSourceBucket(), nullptr);

  // No scope: -1, no bucket, no topic; a user scope without its user: no owner.
  auto unscoped = JovReceivedMessage::messageFromAPNS({{"bi", "b1"}, {"bt", "rw"}, {"to", "t"}});
  EXPECT_EQ(unscoped.messageScope(), -1);
  EXPECT_EQ(unscoped.eventSourceBucket(), nullptr);
  EXPECT_EQ(unscoped.eventSourceTopic(), nullptr);
  auto ownerless = JovReceivedMessage::messageFromAPNS(
      {{"st", "APP_AND_USER"}, {"bi", "b1"}, {"bt", "rw"}, {"to", "t"}});
  EXPECT_EQ(ownerless.eventSourceBucket(), nullptr);
  EXPECT_EQ(ownerless.eventSourceTopic(), nullptr);
  // An unknown scope text reads as the application's.
  auto odd = JovReceivedMessage::messageFromAPNS({{"st", "ELSEWHERE"}, {"to", "t"}});
  EXPECT_EQ(odd.messageScope(), JovMessageScopeApp);
  EXPECT_EQ(odd.eventSourceTopic()->generatePath(), "/topics/t");

  // A sender ID starting with "th" is a thing; a thing's scope owns buckets and topics.
  auto fromThing = JovReceivedMessage::messageFromAPNS({{"s", "th.1"},
                                                        {"st", "APP_AND_THING"},
                                                        {"sth", "th.2"},
                                                        {"bi", "log"},
                                                        {"bt", "RW"},
                                                        {"to", "alarms"}});
  EXPECT_EQ(fromThing.senderUser(), nullptr);
  EXPECT_EQ(fromThing.senderThing()->thingID(), "th.1");
  EXPECT_EQ(fromThing.messageScope(), JovMessageScopeAppAndThing);
  EXPECT_EQ(fromThing.eventSourceThing()->thingID(), "th.2");
  EXPECT_EQ(fromThing.eventSourceBucket()->bucketPath(), "/things/th.2/buckets/log");
  EXPECT_EQ(fromThing.eventSourceTopic()->generatePath(), "/things/th.2/topics/alarms");

  // Alert bodies; forged values of the wrong type or invalid names yield nothing.
  EXPECT_EQ(JovReceivedMessage::messageFromAPNS({{"aps", {{"alert", {{"title", "t"}}}}}})
                .getAlertBody(),
            "");
  EXPECT_EQ(JovReceivedMessage::messageFromAPNS({{"aps", {{"alert", {{"body", "b"}}}}}})
                .getAlertBody(),
            "b");
  EXPECT_EQ(JovReceivedMessage::messageFromAPNS({{"aps", {{"alert", 3}}}}).getAlertBody(), "");
  EXPECT_EQ(JovReceivedMessage::messageFromAPNS(json::array()).getAlertBody(), "");
  auto forged = JovReceivedMessage::messageFromAPNS(
      {{"s", 7}, {"st", "APP"}, {"bi", "x"}, {"bt", "rw"}, {"oi", "!"}, {"sg", ""}});
  EXPECT_EQ(forged.senderUser(), nullptr);
  EXPECT_EQ(forged.eventSourceBucket(), nullptr) << "a one-letter name is no bucket name";
  EXPECT_EQ(forged.eventSourceGroup(), nullptr);
  auto badObject = JovReceivedMessage::messageFromAPNS(
      {{"st", "APP"}, {"bi", "bucket"}, {"bt", "rw"}, {"oi", "!"}});
  EXPECT_NE(badObject.eventSourceBucket(), nullptr);
  EXPECT_EQ(badObject.eventSourceObject(), nullptr);

  // The alert goes to the application's handler, with the default title.
  std::string shown;
  JovReceivedMessage::setAlertHandler(
      [&](const std::string& title, const std::string& body) { shown = title + "|" + body; });
  message.showMessageAlertWithTitle();
  EXPECT_EQ(shown, "APNS Alert|hello");
  message.showMessageAlertWithTitle("News");
  EXPECT_EQ(shown, "News|hello");
  JovReceivedMessage::setAlertHandler({});
}

}  // namespace
}  // namespace jov
