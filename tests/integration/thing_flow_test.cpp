// Things against the emulator: a device registered by its maker, owned by alice with its
// password and by her group, its bucket shared through that ownership, the device acting with
// its own token (its bucket, its topic, a message a subscriber receives), and owners' queries
// paging through 250 things.
#include <gtest/gtest.h>

#include "emulator_fixture.hpp"
#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/group.hpp"
#include "jov/object.hpp"
#include "jov/push_installation.hpp"
#include "jov/received_message.hpp"
#include "jov/thing.hpp"
#include "jov/topic.hpp"
#include "jov/user.hpp"

namespace jov {
namespace {

using jovtest::codeOf;
using jovtest::succeeded;
using nlohmann::json;

class ThingFlowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    app = jovtest::beginLibraryOnNewApp();
    for (const char* name : {"bob", "dave", "alice"}) {
      auto user = JovUser::userWithUsername(name, "pass1234");
      ASSERT_TRUE(succeeded(user->performRegistrationSynchronous())) << name;
      users[name] = user;
    }
    JovUser::logOut();  // the maker registers devices without a user
  }
  void TearDown() override {
    JovUser::logOut();
    Jov::setCurrentThing(nullptr);
  }
  static void loginAs(const std::string& name) {
    ASSERT_TRUE(JovUser::authenticateSynchronous(name, "pass1234").ok()) << name;
  }
  static int statusOf(const std::optional<JovError>& error) {
    return error ? error->jovHttpStatus() : 0;
  }

  jovtest::EmulatorApp app;
  std::map<std::string, JovUser::Ptr> users;
};

TEST_F(ThingFlowTest, OwnedSharedAndActingForItself) {
  JovThingFields fields;
  fields.vendor = "acme";
  fields.numberField1 = 40;
  fields.setCustomField("room", "kitchen");
  auto registered = JovThing::registerThingSynchronous("lamp-001", "lamp-pw", "lamp", fields);
  ASSERT_TRUE(succeeded(registered));
  auto lamp = registered.value();
  EXPECT_EQ(lamp->thingID().rfind("th.", 0), 0u) << lamp->thingID();
  EXPECT_FALSE(lamp->accessToken().empty());
  EXPECT_EQ(lamp->fields().customFields()["room"], "kitchen");
  EXPECT_EQ(codeOf(JovThing::registerThingSynchronous("lamp-001", "x", "lamp")),
            JovError::codeThingExist());
  EXPECT_EQ(codeOf(JovThing::registerThingSynchronous("", "x", "lamp")),
            JovError::codeThingInvalidData());

  // Alice owns it once she knows its password; bob does not.
  loginAs("alice");
  EXPECT_EQ(statusOf(JovThing::loadSynchronousWithThingID(lamp->thingID()).errorIfAny()), 403);
  EXPECT_EQ(statusOf(lamp->registerOwnerSynchronous(users["alice"], "wrong").errorIfAny()), 403);
  ASSERT_TRUE(succeeded(lamp->registerOwnerSynchronous(users["alice"], "lamp-pw")));
  EXPECT_EQ(codeOf(lamp->registerOwnerSynchronous(users["alice"], "lamp-pw")),
            JovError::codeThingOwnershipExist());
  EXPECT_TRUE(lamp->checkIsOwnerSynchronous(users["alice"]).value());
  EXPECT_EQ(codeOf(lamp->checkIsOwnerSynchronous(users["bob"])),
            JovError::codeThingOwnershipNotFound());
  EXPECT_EQ(codeOf(lamp->registerOwnerSynchronous(JovUser::userWithID("nobody"))),
            JovError::codeThingOwnerNotFound());

  // Loaded by its vendor ID, changed, disabled and enabled again.
  auto mine = JovThing::loadSynchronousWithVendorThingID("lamp-001");
  ASSERT_TRUE(succeeded(mine));
  EXPECT_EQ(mine.value()->thingID(), lamp->thingID());
  EXPECT_EQ(mine.value()->fields().numberField1, 40);
  auto changed = mine.value()->fields();
  changed.stringField1 = "warm white";
  changed.removeCustomField("room");
  mine.value()->setFields(changed);
  ASSERT_TRUE(succeeded(mine.value()->updateSynchronous()));
  ASSERT_TRUE(succeeded(mine.value()->disableSynchronous()));
  ASSERT_TRUE(succeeded(lamp->refreshSynchronous()));
  EXPECT_TRUE(lamp->disabled());
  EXPECT_EQ(lamp->fields().stringField1, "warm white");
  EXPECT_EQ(lamp->fields().customFields()["room"], "kitchen") << "a merge keeps unsent fields";
  ASSERT_TRUE(succeeded(lamp->enableSynchronous()));

  // Her group owns it too: bob, a member, reads what alice writes into the lamp's bucket.
  auto family = Jov::groupWithName("family", {users["bob"]});
  ASSERT_TRUE(succeeded(family->saveSynchronous()));
  ASSERT_TRUE(succeeded(JovThing::registerOwnerSynchronousWithThingID(family, lamp->thingID())));
  auto note = lamp->bucketWithName("notes")->createObject();
  note->setObject("bulb replaced", "text");
  ASSERT_TRUE(succeeded(note->saveSynchronous()));
  const std::string noteURI = *note->objectURI();
  EXPECT_EQ(noteURI.rfind("jovcloud://things/" + lamp->thingID() + "/buckets/notes/", 0), 0u);
  loginAs("bob");
  auto seen = JovObject::objectWithURI(noteURI);
  ASSERT_TRUE(succeeded(seen->refreshSynchronous()));
  EXPECT_EQ(seen->getObjectForKey("text").value_or(json()), "bulb replaced");
  loginAs("dave");
  EXPECT_EQ(statusOf(JovObject::objectWithURI(noteURI)->refreshSynchronous().errorIfAny()), 403);
  EXPECT_EQ(statusOf(lamp->deleteSynchronous().errorIfAny()), 403);

  // Alice's phone listens to the lamp's topic.
  loginAs("alice");
  const std::vector<std::uint8_t> phone = {1, 2, 3, 4};
  ASSERT_TRUE(succeeded(JovPushInstallation::installSynchronousWithDeviceToken(phone, false)));
  auto alarms = lamp->topicWithName("alarms");
  ASSERT_TRUE(succeeded(alarms->saveSynchronous()));
  ASSERT_TRUE(succeeded(JovPushSubscription::subscribeCurrentUserSynchronous(alarms)));
  jovtest::emulatorRequest("DELETE", "/emulator/apps/" + urlEncode(app.appID) + "/push/outbox");

  // The lamp acts for itself with its own token: its bucket, its topic, its record.
  JovUser::logOut();
  Jov::setCurrentThing(lamp);
  auto reading = lamp->bucketWithName("readings")->createObject();
  reading->setObject(230, "volts");
  ASSERT_TRUE(succeeded(reading->saveSynchronous()));
  ASSERT_TRUE(succeeded(lamp->refreshSynchronous()));
  auto message = JovPushMessage::composeMessageWithData({{"volts", 230}});
  message.apnsFields->alertBody = "overheating";
  ASSERT_TRUE(succeeded(alarms->sendMessageSynchronous(message)));
  EXPECT_EQ(statusOf(JovThing::loadSynchronousWithThingID("th.nothing").errorIfAny()), 404);
  Jov::setCurrentThing(nullptr);

  auto outbox = jovtest::emulatorRequest(
      "GET", "/emulator/apps/" + urlEncode(app.appID) + "/push/outbox");
  const json deliveries = outbox.body.value("deliveries", json::array());
  ASSERT_EQ(deliveries.size(), 1u) << outbox.raw;
  auto received = JovReceivedMessage::messageFromPayload(deliveries[0]["payload"]);
  ASSERT_TRUE(received.senderThing());
  EXPECT_EQ(received.senderThing()->thingID(), lamp->thingID());
  EXPECT_EQ(received.messageScope(), JovMessageScopeAppAndThing);
  EXPECT_EQ(received.eventSourceTopic()->generatePath(), alarms->generatePath());
  EXPECT_EQ(received.getAlertBody(), "overheating");

  // Deleted by an owner, with its buckets.
  loginAs("alice");
  ASSERT_TRUE(succeeded(lamp->unregisterOwnerSynchronous(family)));
  EXPECT_EQ(codeOf(lamp->unregisterOwnerSynchronous(family)),
            JovError::codeThingOwnershipNotFound());
  ASSERT_TRUE(succeeded(lamp->deleteSynchronous()));
  EXPECT_EQ(codeOf(lamp->refreshSynchronous()), JovError::codeThingNotFound());
  EXPECT_EQ(codeOf(lamp->deleteSynchronous()), JovError::codeThingNotFound());
}

TEST_F(ThingFlowTest, OwnersQueryPageByPage) {
  // 250 devices: every third a sensor. Alice registers them, which makes her their owner; her
  // group owns the first ten too.
  loginAs("alice");
  auto family = Jov::groupWithName("family", {users["bob"]});
  ASSERT_TRUE(succeeded(family->saveSynchronous()));
  for (int i = 0; i < 250; ++i) {
    const std::string vendorID = "dev-" + std::to_string(1000 + i);
    auto thing = JovThing::registerThingSynchronous(vendorID, "pw", i % 3 == 0 ? "sensor" : "lamp");
    ASSERT_TRUE(succeeded(thing)) << vendorID;
    if (i < 10) {
      ASSERT_TRUE(succeeded(thing.value()->registerOwnerSynchronous(family)));
    }
  }
  auto countAll = [](JovThingQuery query, int& pages) {
    std::set<std::string> seen;
    auto page = JovThing::querySynchronous(query);
    for (pages = 1; page.ok(); ++pages) {
      for (const auto& thing : page.value().results) seen.insert(thing->thingID());
      if (!page.value().hasNext()) break;
      page = page.value().getNextResultSynchronous();
    }
    EXPECT_TRUE(page.ok());
    return seen.size();
  };
  int pages = 0;
  auto sensors = JovThingQuery::thingQuery(users["alice"], std::nullopt);
  sensors.thingType = "sensor";
  sensors.limit = 30;
  EXPECT_EQ(countAll(sensors, pages), 84u);
  EXPECT_EQ(pages, 3);
  auto everything = JovThingQuery::thingQuery(users["alice"], std::vector{family});
  EXPECT_EQ(countAll(everything, pages), 250u);
  EXPECT_EQ(pages, 3) << "100 a page without a limit";

  // Bob sees the group's ten through the group; asked about alice's things, he sees none of
  // the others.
  loginAs("bob");
  auto ofGroup = JovThingQuery::thingQuery(nullptr, std::vector{family});
  EXPECT_EQ(countAll(ofGroup, pages), 10u);
  EXPECT_EQ(countAll(JovThingQuery::thingQuery(users["alice"], std::nullopt), pages), 10u);
  auto last = JovThing::querySynchronous(ofGroup);
  ASSERT_TRUE(succeeded(last));
  EXPECT_EQ(codeOf(last.value().getNextResultSynchronous()), JovError::codeQueryEndOfPage());
}

}  // namespace
}  // namespace jov
