// Objects, buckets and queries against the emulator, as an application uses them: the life of an
// object in each scope, two copies racing on one version, queries with order and pages, counts.
#include <gtest/gtest.h>

#include "emulator_fixture.hpp"
#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/credential_store.hpp"
#include "jov/group.hpp"
#include "jov/user.hpp"

namespace jov {
namespace {

class ObjectFlowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    jovtest::beginLibraryOnNewApp();
    alice = JovUser::userWithUsername("alice", "pass1234");
    ASSERT_TRUE(alice->performRegistrationSynchronous().ok());
  }
  void TearDown() override { JovUser::logOut(); }

  JovUser::Ptr alice;
};

TEST_F(ObjectFlowTest, AnObjectLivesInEveryScope) {
  auto group = Jov::groupWithName("club");
  ASSERT_TRUE(group->saveSynchronous().ok());
  for (const auto& bucket :
       {Jov::bucketWithName("notes"), alice->bucketWithName("notes"),
        group->bucketWithName("notes"), alice->encryptedBucketWithName("secret-notes")}) {
    SCOPED_TRACE(*bucket->bucketPath());
    auto note = bucket->createObject();
    ASSERT_TRUE(note->setObject("buy milk", "text"));
    ASSERT_TRUE(note->setGeoPoint(JovGeoPoint(35.6, 139.7), "where"));
    auto saved = note->saveSynchronous();
    ASSERT_TRUE(saved.ok()) << saved.error().describe();
    ASSERT_TRUE(note->uuid() && note->isCreated() && note->etag());

    // The URI finds the same object again.
    auto again = JovObject::objectWithURI(*note->objectURI());
    ASSERT_TRUE(again);
    ASSERT_TRUE(again->refreshSynchronous().ok());
    EXPECT_EQ(again->getObjectForKey("text"), "buy milk");
    EXPECT_EQ(again->getGeoPointForKey("where"), JovGeoPoint(35.6, 139.7));

    // A partial save sends the change; the other copy sees it after a refresh.
    note->setObject(2, "count");
    ASSERT_TRUE(note->saveSynchronous(false).ok());
    ASSERT_TRUE(again->refreshSynchronous().ok());
    EXPECT_EQ(again->getObjectForKey("count"), 2);
    EXPECT_EQ(again->getObjectForKey("text"), "buy milk");

    ASSERT_TRUE(note->deleteSynchronous().ok());
    EXPECT_EQ(again->refreshSynchronous().error().code(), JovError::codeObjectNotFound());
  }
}

TEST_F(ObjectFlowTest, AStaleCopyIsRefusedAndChangesNothing) {
  auto bucket = alice->bucketWithName("race");
  auto mine = bucket->createObject();
  mine->setObject("first", "text");
  ASSERT_TRUE(mine->saveSynchronous().ok());
  auto theirs = JovObject::objectWithURI(*mine->objectURI());
  ASSERT_TRUE(theirs->refreshSynchronous().ok());

  theirs->setObject("theirs", "text");
  ASSERT_TRUE(theirs->saveSynchronous(false).ok());
  mine->setObject("mine", "text");
  const auto versionBefore = mine->etag();
  auto stale = mine->saveSynchronous(false);
  ASSERT_FALSE(stale.ok());
  EXPECT_EQ(stale.error().code(), 512);
  EXPECT_EQ(mine->etag(), versionBefore) << "a refused save changes nothing";
  EXPECT_EQ(mine->getObjectForKey("text"), "mine");
  ASSERT_TRUE(theirs->refreshSynchronous().ok());
  EXPECT_EQ(theirs->getObjectForKey("text"), "theirs");

  // Forced, the copy wins; replacing the whole document drops the fields it lacks.
  ASSERT_TRUE(mine->saveSynchronous(true).ok());
  ASSERT_TRUE(theirs->refreshSynchronous().ok());
  EXPECT_EQ(theirs->getObjectForKey("text"), "mine");
  mine->removeObjectForKey("text");
  mine->setObject(1, "other");
  ASSERT_TRUE(mine->saveAllFieldsSynchronous(true).ok());
  ASSERT_TRUE(theirs->refreshSynchronous().ok());
  EXPECT_FALSE(theirs->hasObject("text"));

  // An object made with an ID and saved whole is created under that ID; saved whole again
  // without forcing, it is refused since one now exists.
  auto fixed = bucket->createObjectWithID("fixed-1");
  fixed->setObject(true, "flag");
  ASSERT_TRUE(fixed->saveAllFieldsSynchronous(false).ok());
  auto twin = bucket->createObjectWithID("fixed-1");
  EXPECT_EQ(twin->saveAllFieldsSynchronous(false).error().code(), 512);
}

TEST_F(ObjectFlowTest, QueriesOrderPageAndCount) {
  auto bucket = Jov::bucketWithName("scores");
  for (int points : {5, 3, 9, 1, 7}) {
    auto score = bucket->createObject();
    score->setObject(points, "points");
    score->setObject(points % 2 == 1 ? "odd" : "even", "kind");
    ASSERT_TRUE(score->saveSynchronous().ok());
  }
  JovQuery query(JovClause::greaterThanOrEqual("points", 3));
  query.sortByDesc("points");
  query.setLimit(2);
  std::vector<int> seen;
  std::optional<JovQuery> page = query;
  while (page) {
    auto result = bucket->executeQuerySynchronous(*page);
    ASSERT_TRUE(result.ok()) << result.error().describe();
    auto& [objects, next] = result.value();
    EXPECT_LE(objects.size(), 2u);
    for (const auto& object : objects)
      seen.push_back(object->getObjectForKey("points")->get<int>());
    page = next;
  }
  EXPECT_EQ(seen, (std::vector<int>{9, 7, 5, 3}));

  EXPECT_EQ(bucket->countSynchronous().value(), 5);
  EXPECT_EQ(bucket->countSynchronous(JovQuery(JovClause::lessThan("points", 5))).value(), 2);
  auto empty = JovQuery(JovClause::orClauses({}));
  EXPECT_EQ(bucket->countSynchronous(empty).error().code(), JovError::codeEmptyQueryClauses());

  ASSERT_TRUE(bucket->deleteSynchronous().ok());
  EXPECT_EQ(bucket->deleteSynchronous().error().code(), JovError::codeObjectNotFound());
}

}  // namespace
}  // namespace jov
