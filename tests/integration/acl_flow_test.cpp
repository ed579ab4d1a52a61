// Access control lists against the emulator, which enforces them: grants to a user, to a group
// (through membership at the time of the request), to anonymous and to any logged-in user, and
// revocations; a denied request changes nothing.
#include <gtest/gtest.h>

#include "emulator_fixture.hpp"
#include "jov/acl.hpp"
#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/credential_store.hpp"
#include "jov/group.hpp"
#include "jov/user.hpp"

namespace jov {
namespace {

class ACLFlowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    jovtest::beginLibraryOnNewApp();
    for (const char* name : {"bob", "carol", "alice"}) {
      auto user = JovUser::userWithUsername(name, "pass1234");
      ASSERT_TRUE(user->performRegistrationSynchronous().ok()) << name;
      ids[name] = user->userID();
    }
    // Alice, registered last, is logged in.
  }
  void TearDown() override { JovUser::logOut(); }

  static void loginAs(const std::string& name) {
    ASSERT_TRUE(JovUser::authenticateSynchronous(name, "pass1234").ok()) << name;
  }
  // The HTTP status of reading the object as the current caller; 200 when it can be read.
  static int readStatus(const std::string& uri) {
    auto copy = JovObject::objectWithURI(uri);
    auto read = copy->refreshSynchronous();
    return read.ok() ? 200 : read.error().jovHttpStatus();
  }
  static JovACLEntry::Ptr grant(JovACLSubject subject, JovACLAction action, bool grant = true) {
    auto entry = JovACLEntry::entryWithSubject(std::move(subject), action);
    entry->setGrant(grant);
    return entry;
  }

  std::map<std::string, std::string> ids;
};

TEST_F(ACLFlowTest, UsersAndGroupsGainAndLoseAccess) {
  auto note = Jov::currentUser()->bucketWithName("shared")->createObject();
  note->setObject("secret", "text");
  ASSERT_TRUE(note->saveSynchronous().ok());
  const std::string uri = *note->objectURI();
  auto group = Jov::groupWithName("readers");
  group->addUser(JovUser::userWithID(ids["carol"]));
  ASSERT_TRUE(group->saveSynchronous().ok());

  loginAs("bob");
  const int denied = readStatus(uri);
  EXPECT_TRUE(denied == 403 || denied == 404) << denied;
  // A denied write changes nothing.
  auto intruder = JovObject::objectWithURI(uri);
  intruder->setObject("defaced", "text");
  EXPECT_FALSE(intruder->saveSynchronous(true).ok());
  EXPECT_FALSE(note->objectACL()->listACLEntriesSynchronous().ok()) << "only the owner lists";

  loginAs("alice");
  auto acl = note->objectACL();
  acl->putACLEntry(grant(JovUser::userWithID(ids["bob"]), JovACLActionReadExistingObject));
  acl->putACLEntry(grant(group, JovACLActionReadExistingObjectAlias));
  ASSERT_TRUE(acl->saveSynchronous().ok());
  auto listed = acl->listACLEntriesSynchronous();
  ASSERT_TRUE(listed.ok()) << listed.error().describe();
  std::set<std::string> tokens;
  for (const auto& entry : listed.value())
    if (entry->action() == JovACLActionReadExistingObject) tokens.insert(entry->entityString());
  EXPECT_TRUE(tokens.contains("UserID:" + ids["bob"]));
  EXPECT_TRUE(tokens.contains("GroupID:" + group->groupID()));

  loginAs("bob");
  EXPECT_EQ(readStatus(uri), 200);
  loginAs("carol");
  EXPECT_EQ(readStatus(uri), 200) << "through the group";

  // Carol leaves the group, Bob's grant is revoked: both lose access at once.
  loginAs("alice");
  group->removeUser(JovUser::userWithID(ids["carol"]));
  ASSERT_TRUE(group->saveSynchronous().ok());
  acl->putACLEntry(grant(JovUser::userWithID(ids["bob"]), JovACLActionReadExistingObject, false));
  ASSERT_TRUE(acl->saveSynchronous().ok());
  loginAs("carol");
  EXPECT_NE(readStatus(uri), 200);
  loginAs("bob");
  EXPECT_NE(readStatus(uri), 200);

  loginAs("alice");
  ASSERT_TRUE(note->refreshSynchronous().ok());
  EXPECT_EQ(note->getObjectForKey("text"), "secret") << "the denied write left it as it was";
  // Revoking what is not granted is refused by the service; the entry stays pending.
  acl->putACLEntry(grant(JovAnonymousUser{}, JovACLActionWriteExistingObject, false));
  JovACL::Entries succeeded, failed;
  EXPECT_EQ(acl->saveSynchronous(succeeded, failed).error().code(),
            JovError::codePartialACLFailure());
  EXPECT_EQ(failed.size(), 1u);
}

TEST_F(ACLFlowTest, AnonymousAndAnyAuthenticatedSubjects) {
  auto bucket = Jov::currentUser()->bucketWithName("public");
  auto poster = bucket->createObject();
  poster->setObject("hello", "text");
  auto board = bucket->createObject();
  board->setObject("members only", "text");
  ASSERT_TRUE(poster->saveSynchronous().ok() && board->saveSynchronous().ok());
  auto posterACL = poster->objectACL();
  posterACL->putACLEntry(grant(JovAnonymousUser{}, JovACLActionReadExistingObject));
  ASSERT_TRUE(posterACL->saveSynchronous().ok());
  auto boardACL = board->objectACL();
  boardACL->putACLEntry(grant(JovAnyAuthenticatedUser{}, JovACLActionReadExistingObject));
  ASSERT_TRUE(boardACL->saveSynchronous().ok());

  JovUser::logOut();
  EXPECT_EQ(readStatus(*poster->objectURI()), 200) << "anyone, logged in or not";
  EXPECT_NE(readStatus(*board->objectURI()), 200);
  loginAs("bob");
  EXPECT_EQ(readStatus(*board->objectURI()), 200) << "any logged-in user";
}

}  // namespace
}  // namespace jov
