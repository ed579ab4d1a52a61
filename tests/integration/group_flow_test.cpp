// Groups against the emulator, as an application uses them: create with members, rename, change
// and list members, list a user's groups, register with an ID, and what a non-owner may not do.
#include <gtest/gtest.h>

#include <algorithm>

#include "emulator_fixture.hpp"
#include "jov/application.hpp"
#include "jov/credential_store.hpp"
#include "jov/group.hpp"
#include "jov/user.hpp"

namespace jov {
namespace {

using namespace std::chrono_literals;

template <class List>
std::vector<std::string> sortedIDs(const List& list) {
  std::vector<std::string> ids;
  for (const auto& item : list) {
    if constexpr (std::is_same_v<typename List::value_type, std::shared_ptr<JovGroup>>)
      ids.push_back(item->groupID());
    else
      ids.push_back(item->userID());
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

class GroupFlowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    jovtest::beginLibraryOnNewApp();
    // Registration logs each user in: the owner, alice, comes last.
    bob = registered("bob");
    carol = registered("carol");
    alice = registered("alice");
  }
  void TearDown() override { JovUser::logOut(); }

  JovUser::Ptr registered(const std::string& name) {
    auto user = JovUser::userWithUsername(name, "pass1234");
    auto r = user->performRegistrationSynchronous();
    EXPECT_TRUE(r.ok()) << name << ": " << (r.ok() ? "" : r.error().describe());
    return user;
  }

  JovUser::Ptr alice, bob, carol;
};

TEST_F(GroupFlowTest, CreateRenameChangeMembersAndDelete) {
  auto group = Jov::groupWithName("climbers", {bob});
  ASSERT_TRUE(group->saveSynchronous().ok());
  ASSERT_FALSE(group->groupID().empty());
  EXPECT_EQ(group->owner()->userID(), alice->userID());
  auto members = group->getMemberListSynchronous();
  ASSERT_TRUE(jovtest::succeeded(members));
  EXPECT_EQ(sortedIDs(members.value()), sortedIDs(JovGroup::Users{alice, bob}));

  ASSERT_TRUE(group->changeGroupNameSynchronous("boulderers").ok());
  auto seen = JovGroup::groupWithURI(group->objectURI());
  ASSERT_TRUE(seen->refreshSynchronous().ok());
  EXPECT_EQ(seen->name(), "boulderers");
  auto owner = seen->getOwnerSynchronous();
  ASSERT_TRUE(owner.ok());
  EXPECT_EQ(owner.value()->userID(), alice->userID());

  // carol joins, bob leaves; a user the service does not know stays pending.
  group->addUser(carol);
  group->removeUser(bob);
  group->addUser(JovUser::userWithID("nosuchuser"));
  EXPECT_EQ(jovtest::codeOf(group->saveSynchronous()), JovError::codeUserNotFound());
  ASSERT_EQ(group->addMembers().size(), 1u);
  EXPECT_EQ(group->addMembers()[0]->userID(), "nosuchuser");
  EXPECT_TRUE(group->removeMembers().empty());

  // The block form, delivered on the main queue.
  std::optional<JovGroup::Users> listed;
  group->getMemberList([&](JovGroup::Users users, std::optional<JovError> e) {
    EXPECT_FALSE(e.has_value());
    listed = users;
  });
  ASSERT_EQ(JovMainQueue::runUntil(1, 10s), 1u);
  ASSERT_TRUE(listed.has_value());
  EXPECT_EQ(sortedIDs(*listed), sortedIDs(JovGroup::Users{alice, carol}));

  ASSERT_TRUE(group->deleteSynchronous().ok());
  EXPECT_EQ(group->deleteSynchronous().error().code(), JovError::codeObjectNotFound());
  EXPECT_EQ(seen->refreshSynchronous().error().code(), JovError::codeObjectNotFound());
}

TEST_F(GroupFlowTest, RegisterListAndWhatANonOwnerMayNotDo) {
  auto club = JovGroup::registerGroupSynchronousWithID("club.1", "Club", {bob});
  ASSERT_TRUE(club.ok()) << club.error().describe();
  EXPECT_EQ(club.value()->groupID(), "club.1");
  EXPECT_EQ(JovGroup::registerGroupSynchronousWithID("club.1", "Again", {}).error().code(),
            JovError::codeGroupAlreadyExists());
  auto other = Jov::groupWithName("Other");
  ASSERT_TRUE(other->saveSynchronous().ok());

  auto owned = alice->ownerOfGroupsAsync();
  ASSERT_EQ(owned.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(sortedIDs(owned.get().value()), sortedIDs(std::vector{club.value(), other}));
  auto ofBob = bob->memberOfGroupsSynchronous();
  ASSERT_TRUE(ofBob.ok());
  ASSERT_EQ(ofBob.value().size(), 1u);
  EXPECT_EQ(ofBob.value()[0]->name(), "Club");
  EXPECT_EQ(ofBob.value()[0]->owner()->userID(), alice->userID());
  EXPECT_TRUE(bob->ownerOfGroupsSynchronous().value().empty());

  // bob is a member, not the owner: the service refuses his rename and his delete.
  ASSERT_TRUE(JovUser::authenticateSynchronous("bob", "pass1234").ok());
  auto asBob = JovGroup::groupWithID("club.1");
  auto renamed = asBob->changeGroupNameSynchronous("Bob's");
  ASSERT_FALSE(renamed.ok());
  EXPECT_EQ(renamed.error().jovHttpStatus(), 403);
  EXPECT_EQ(asBob->deleteSynchronous().error().jovHttpStatus(), 403);
  ASSERT_TRUE(asBob->refreshSynchronous().ok());
  EXPECT_EQ(asBob->name(), "Club");
}

}  // namespace
}  // namespace jov
