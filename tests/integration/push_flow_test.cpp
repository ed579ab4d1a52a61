// Push against the emulator, as an application uses it: installing this device's token (given
// or stored), topics of the application, a user and a group, their listing page by page, and
// the current user's subscriptions with every refusal the service can give.
#include <gtest/gtest.h>

#include "emulator_fixture.hpp"
#include "jov/application.hpp"
#include "jov/group.hpp"
#include "jov/push_installation.hpp"
#include "jov/topic.hpp"
#include "jov/user.hpp"

namespace jov {
namespace {

using jovtest::codeOf;
using jovtest::succeeded;

class PushFlowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    jovtest::beginLibraryOnNewApp();
    bob = registered("bob");
    alice = registered("alice");  // registered last: alice is logged in
  }
  void TearDown() override {
    JovUser::logOut();
    Jov::setAPNSDeviceToken(std::nullopt);
  }

  JovUser::Ptr registered(const std::string& name) {
    auto user = JovUser::userWithUsername(name, "pass1234");
    EXPECT_TRUE(succeeded(user->performRegistrationSynchronous())) << name;
    return user;
  }

  JovUser::Ptr alice, bob;
};

TEST_F(PushFlowTest, InstallAndUninstallThisDevice) {
  const std::vector<std::uint8_t> token = {0xDE, 0xAD, 0xBE, 0xEF};
  auto installed = JovPushInstallation::installSynchronousWithDeviceToken(token, true);
  ASSERT_TRUE(succeeded(installed));
  EXPECT_FALSE(installed.value()->installationID().value_or("").empty());
  EXPECT_EQ(codeOf(JovPushInstallation::installSynchronousWithDeviceToken(token, false)),
            JovError::codeInstallationAlreadyExist());
  EXPECT_TRUE(succeeded(JovPushInstallation::uninstallSynchronousWithDeviceToken(token)));
  EXPECT_EQ(codeOf(JovPushInstallation::uninstallSynchronousWithDeviceToken(token)),
            JovError::codeInstallationNotFound());

  // The stored token, installed through an instance and removed through the class.
  std::vector<std::uint8_t> stored(32, 0x5A);
  Jov::setAPNSDeviceToken(stored);
  auto installation = JovPushInstallation::installation();
  ASSERT_TRUE(succeeded(installation->installSynchronousWithError()));
  EXPECT_TRUE(installation->installationID().has_value());
  EXPECT_EQ(codeOf(JovPushInstallation::installSynchronous()),
            JovError::codeInstallationAlreadyExist());
  EXPECT_TRUE(succeeded(JovPushInstallation::uninstallSynchronous()));
  JovUser::logOut();
  EXPECT_EQ(codeOf(JovPushInstallation::uninstallSynchronous()), JovError::codeInvalidUserObject());
}

TEST_F(PushFlowTest, TopicsOfEachScope) {
  auto news = Jov::topicWithName("news");
  ASSERT_TRUE(succeeded(news->saveSynchronous()));
  EXPECT_EQ(codeOf(news->saveSynchronous()), JovError::codeTopicAlreadyExist());
  EXPECT_TRUE(news->checkIfExistsSynchronous().value());
  ASSERT_TRUE(succeeded(news->deleteSynchronous()));
  EXPECT_FALSE(news->checkIfExistsSynchronous().value());
  EXPECT_EQ(codeOf(news->deleteSynchronous()), JovError::codeTopicNotExist());

  // An owner the service does not know: 713 on save and on delete.
  auto orphan = JovUser::userWithID("nobody")->topicWithName("x");
  EXPECT_EQ(codeOf(orphan->saveSynchronous()), JovError::codeTopicParentNotExistInCloud());
  EXPECT_EQ(codeOf(orphan->deleteSynchronous()), JovError::codeTopicParentNotExistInCloud());
  // Another user's topics are not alice's to make.
  EXPECT_EQ(codeOf(bob->topicWithName("x")->saveSynchronous()), 0);

  auto group = Jov::groupWithName("club", {bob});
  ASSERT_TRUE(succeeded(group->saveSynchronous()));
  ASSERT_TRUE(succeeded(group->topicWithName("team")->saveSynchronous()));
  auto groupTopics = group->listTopicsSynchronous();
  ASSERT_TRUE(succeeded(groupTopics));
  ASSERT_EQ(groupTopics.value().results.size(), 1u);
  EXPECT_EQ(groupTopics.value().results[0]->name(), "team");
  EXPECT_EQ(groupTopics.value().results[0]->group(), group);

  // A user's topics come page by page until a page without a key.
  std::vector<std::string> created;
  for (int i = 0; i < 25; ++i) {
    created.push_back("topic-" + std::to_string(100 + i));
    ASSERT_TRUE(succeeded(alice->topicWithName(created.back())->saveSynchronous()));
  }
  std::vector<std::string> listed;
  std::optional<std::string> key;
  int pages = 0;
  do {
    auto page = alice->listTopicsSynchronous(key);
    ASSERT_TRUE(succeeded(page));
    for (const auto& topic : page.value().results) {
      EXPECT_EQ(topic->user(), alice);
      listed.push_back(topic->name());
    }
    key = page.value().paginationKey;
    EXPECT_EQ(page.value().hasNext, key.has_value());
  } while (key && ++pages < 5);
  EXPECT_EQ(listed, created);
  auto appTopics = Jov::listTopicsSynchronous();
  ASSERT_TRUE(succeeded(appTopics));
  EXPECT_TRUE(appTopics.value().results.empty()) << "news was deleted";
}

TEST_F(PushFlowTest, SubscriptionsOfTheCurrentUser) {
  auto topic = Jov::topicWithName("alerts");
  ASSERT_TRUE(succeeded(topic->saveSynchronous()));
  using Sub = JovPushSubscription;
  ASSERT_TRUE(succeeded(Sub::subscribeCurrentUserSynchronous(topic)));
  EXPECT_EQ(codeOf(Sub::subscribeCurrentUserSynchronous(topic)),
            JovError::codeSubscriptionAlreadyExist());
  EXPECT_TRUE(Sub::checkSubscriptionSynchronous(topic).value());
  EXPECT_TRUE(topic->isSubscribedSynchronous().value());
  ASSERT_TRUE(succeeded(Sub::unsubscribeCurrentUserSynchronous(topic)));
  EXPECT_EQ(codeOf(Sub::unsubscribeCurrentUserSynchronous(topic)),
            JovError::codeSubscriptionNotExist());
  EXPECT_EQ(codeOf(Sub::checkSubscriptionSynchronous(topic)), JovError::codeObjectNotFound());

  // The subscriber of an instance; another user cannot be subscribed by alice.
  auto mine = Sub::subscriptionWithUser(alice);
  ASSERT_TRUE(succeeded(mine->subscribeSynchronous(topic)));
  EXPECT_TRUE(mine->checkIsSubscribedSynchronous(topic).value());
  EXPECT_EQ(codeOf(Sub::subscriptionWithUser(bob)->subscribeSynchronous(topic)), 0);
  EXPECT_EQ(codeOf(mine->subscribeSynchronous(Jov::topicWithName("missing"))),
            JovError::codeObjectNotFound());
}

}  // namespace
}  // namespace jov
