// Access control lists against the fake transport: paths in every scope, grants and
// revocations, partial failures, the listing's subjects, and saves that overlap or are
// cancelled.
#include "jov/acl.hpp"

#include <gtest/gtest.h>

#include <future>

#include "fake_transport.hpp"
#include "jov/bucket.hpp"
#include "jov/group.hpp"

namespace jov {
namespace {

using jovtest::Answer;
using nlohmann::json;
using namespace std::chrono_literals;

class ACLTest : public jovtest::UserTest {
 protected:
  void SetUp() override {
    jovtest::UserTest::SetUp();
    Jov::setCurrentUser(jovtest::credentialUser({{"userID", "u1"}}));
  }
  static JovACLEntry::Ptr entry(JovACLSubject subject, JovACLAction action, bool grant = true) {
    auto e = JovACLEntry::entryWithSubject(std::move(subject), action);
    e->setGrant(grant);
    return e;
  }
};

TEST_F(ACLTest, EntriesGoOutOneRequestEachToTheParentsPath) {
  auto user = JovUser::userWithID("u1");
  auto object = user->encryptedBucketWithName("my notes")->createObjectWithID("o1");
  auto acl = object->objectACL();
  EXPECT_EQ(acl, object->objectACL()) << "the same list while it is held";
  acl->putACLEntry(entry(JovAnyAuthenticatedUser{}, JovACLActionReadExistingObject));
  // Twice, the second time through the other value of the same name: one request.
  acl->putACLEntry(entry(JovAnyAuthenticatedUser{}, JovACLActionReadExistingObjectAlias));
  acl->putACLEntry(entry(JovGroup::groupWithID("g1"), JovACLActionWriteExistingObjectAlias));
  acl->putACLEntry(entry(JovAnonymousUser{}, JovACLActionReadExistingObjectAlias, false));
  fake.push(Answer::text(204, ""));
  fake.push(Answer::serviceError(404, "GROUP_NOT_FOUND"));
  fake.push(Answer::text(204, ""));
  JovACL::Entries succeeded, failed;
  auto saved = acl->saveSynchronous(succeeded, failed);
  ASSERT_FALSE(saved.ok());
  EXPECT_EQ(saved.error().code(), JovError::codePartialACLFailure());
  std::vector<std::string> sent;
  for (const auto& r : fake.requests()) sent.push_back(r.method + " " + r.path());
  const std::string base = "/users/u1/buckets/CRYPTO:my%20notes/objects/o1/acl/";
  EXPECT_EQ(sent, (std::vector<std::string>{
                      "PUT " + base + "READ_EXISTING_OBJECT/UserID:ANY_AUTHENTICATED_USER",
                      "PUT " + base + "WRITE_EXISTING_OBJECT/GroupID:g1",
                      "DELETE " + base + "READ_EXISTING_OBJECT/UserID:ANONYMOUS_USER"}));
  ASSERT_EQ(succeeded.size(), 2u);
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_TRUE(succeeded[0]->updated());
  EXPECT_FALSE(failed[0]->updated());
  EXPECT_EQ(acl->entries(), failed) << "only the failed entry is still pending";

  // Saving again retries only that one.
  fake.reset();
  fake.push(Answer::text(204, ""));
  ASSERT_TRUE(acl->saveSynchronous().ok());
  ASSERT_EQ(fake.count(), 1u);
  EXPECT_EQ(fake.last().path(), base + "WRITE_EXISTING_OBJECT/GroupID:g1");
  EXPECT_TRUE(acl->entries().empty());

  EXPECT_EQ(Jov::bucketWithName("b")->bucketACL()->aclPath(), "/buckets/b/acl");
  EXPECT_EQ(JovGroup::groupWithID("g1")->bucketWithName("b")->bucketACL()->aclPath(),
            "/groups/g1/buckets/b/acl");
  // Without a path there is nothing to send to.
  fake.reset();
  auto unsaved = Jov::bucketWithName("b")->createObject()->objectACL();
  unsaved->putACLEntry(entry(JovAnonymousUser{}, JovACLActionReadExistingObject));
  EXPECT_EQ(unsaved->saveSynchronous().error().code(), JovError::codeInvalidObjects());
  EXPECT_EQ(unsaved->listACLEntriesSynchronous().error().code(), JovError::codeInvalidObjects());
  EXPECT_EQ(fake.count(), 0u);
  EXPECT_EQ(jovtest::thrownMessage([] {
              JovACLEntry::entryWithSubject(JovAnonymousUser{}, static_cast<JovACLAction>(10));
            }),
            "Invalid ACL action");
  EXPECT_EQ(jovtest::thrownMessage([] {
              JovACLEntry::entryWithSubject(std::shared_ptr<JovUser>(),
                                            JovACLActionReadExistingObject);
            }),
            "Invalid ACL subject");
  EXPECT_EQ(jovtest::thrownMessage([] { JovACL(std::shared_ptr<JovObject>()); }),
            "Invalid ACL parent");
}

TEST_F(ACLTest, ListingReadsEverySubjectKind) {
  auto acl = Jov::bucketWithName("b")->bucketACL();
  fake.on("GET", "/buckets/b/acl",
          Answer::json(200, {{"QUERY_OBJECTS_IN_BUCKET",
                              {{{"userID", "u2"}},
                               {{"userID", "ANONYMOUS_USER"}},
                               {{"userID", "ANY_AUTHENTICATED_USER"}},
                               {{"groupID", "g1"}},
                               {{"thingID", "t1"}}}},
                             {"WRITE_EXISTING_OBJECT", json::array()}}));
  auto listed = acl->listACLEntriesSynchronous();
  ASSERT_TRUE(listed.ok()) << listed.error().describe();
  std::vector<std::string> tokens;
  for (const auto& e : listed.value()) {
    EXPECT_EQ(e->action(), JovACLActionQueryObjectsInBucket);
    EXPECT_TRUE(e->grant());
    tokens.push_back(e->entityString());
  }
  EXPECT_EQ(tokens, (std::vector<std::string>{"UserID:u2", "UserID:ANONYMOUS_USER",
                                              "UserID:ANY_AUTHENTICATED_USER", "GroupID:g1",
                                              "ThingID:t1"}));
  const int unreadable = JovError::codeUnableToParseResponse();
  auto list = [&] { return acl->listACLEntriesSynchronous().errorIfAny(); };
  jovtest::checkAnswers(
      fake, {
                {list, Answer::text(401, ""), JovError::codeUnauthorizedRequest()},
                {list, Answer::json(200, json::array()), unreadable},
                {list, Answer::json(200, {{"NO_SUCH_ACTION", json::array()}}), unreadable},
                {list, Answer::json(200, {{"READ_EXISTING_OBJECT", {{{"x", 1}}}}}), unreadable},
                {list, Answer::json(200, {{"READ_EXISTING_OBJECT", "u1"}}), unreadable},
            });

  // The block form hands over the list itself.
  fake.reset();
  fake.on("GET", "/buckets/b/acl", Answer::json(200, json::object()));
  std::shared_ptr<JovACL> received;
  std::size_t count = 99;
  acl->listACLEntries([&](std::shared_ptr<JovACL> a, JovACL::Entries e, std::optional<JovError>) {
    received = a;
    count = e.size();
  });
  fake.on("PUT", "/buckets/b/acl/DROP_BUCKET_WITH_ALL_CONTENT/UserID:u9", Answer::text(403, ""));
  acl->putACLEntry(entry(JovUser::userWithID("u9"), JovACLActionDropBucketWithAllContent));
  std::size_t failedCount = 0;
  int code = 0;
  acl->save([&](std::shared_ptr<JovACL>, JovACL::Entries, JovACL::Entries failed,
                std::optional<JovError> e) {
    failedCount = failed.size();
    code = e ? e->code() : -1;
  });
  ASSERT_EQ(JovMainQueue::runUntil(2, 5s), 2u);
  EXPECT_EQ(received, acl);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(failedCount, 1u);
  EXPECT_EQ(code, JovError::codePartialACLFailure());
}

TEST_F(ACLTest, OverlappingSavesSendEachEntryOnceAndCancellingKeepsTheRestPending) {
  auto acl = Jov::bucketWithName("b")->bucketACL();
  const std::string toUser = "/buckets/b/acl/READ_OBJECTS_IN_BUCKET/UserID:u2";
  const std::string toGroup = "/buckets/b/acl/QUERY_OBJECTS_IN_BUCKET/GroupID:g1";
  std::promise<void> opener;
  fake.on("PUT", toUser, [gate = opener.get_future().share()](const jovtest::Recorded&) {
    gate.wait();
    return Answer::text(204, "");
  });
  fake.on("PUT", toGroup, Answer::text(204, ""));
  auto first = entry(JovUser::userWithID("u2"), JovACLActionReadObjectsInBucket);
  auto second = entry(JovGroup::groupWithID("g1"), JovACLActionQueryObjectsInBucket);
  acl->putACLEntry(first);
  acl->putACLEntry(second);

  JovCancellation cancel;
  auto held = acl->saveAsync(cancel);
  ASSERT_TRUE(fake.waitForRequests(1, 5s));
  // Both entries belong to the save in flight: a second save has nothing to send.
  JovACL::Entries succeeded, failed;
  EXPECT_TRUE(acl->saveSynchronous(succeeded, failed).ok());
  EXPECT_TRUE(succeeded.empty() && failed.empty());
  EXPECT_EQ(fake.count(), 1u);

  cancel.cancel();
  ASSERT_EQ(held.wait_for(5s), std::future_status::ready);
  const JovACL::SaveReport report = held.get();
  ASSERT_TRUE(report.error);
  EXPECT_EQ(report.error->code(), JovError::codeOperationCancelled());
  EXPECT_TRUE(report.succeeded.empty());
  EXPECT_EQ(report.failed, (JovACL::Entries{first, second}));
  EXPECT_EQ(fake.count("PUT", toGroup), 0u) << "nothing is sent after the cancellation";
  EXPECT_EQ(acl->entries(), (JovACL::Entries{first, second}));

  // Released, both go out again; a user who has no ID yet fails without a request.
  opener.set_value();
  acl->putACLEntry(
      entry(JovUser::userWithUsername("nobody", "pass1234"), JovACLActionReadObjectsInBucket));
  fake.reset();
  fake.on("PUT", toUser, Answer::text(204, ""));
  fake.on("PUT", toGroup, Answer::text(204, ""));
  auto retried = acl->saveAsync().get();
  ASSERT_TRUE(retried.error);
  EXPECT_EQ(retried.error->code(), JovError::codePartialACLFailure());
  EXPECT_EQ(retried.succeeded, (JovACL::Entries{first, second}));
  ASSERT_EQ(retried.failed.size(), 1u);
  EXPECT_EQ(fake.count("PUT", toUser) + fake.count("PUT", toGroup), fake.count());
  EXPECT_EQ(acl->entries(), retried.failed);
}

}  // namespace
}  // namespace jov
