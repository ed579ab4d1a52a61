// Access control on buckets and objects: default entries, grants and revocations, groups,
// anonymous and any-authenticated subjects; a refused request changes nothing.
#include <gtest/gtest.h>

#include "bucket_test_helpers.hpp"

namespace jovtest {
namespace {

using nlohmann::json;

std::string idOf(const json& record) {
  return record["userID"].get<std::string>();
}

class EmulatorAcl : public ::testing::Test {
 protected:
  void SetUp() override {
    std::tie(alice, aliceToken) = client.newUser();
    std::tie(bob, bobToken) = client.newUser();
  }

  // Creates an object as Alice and returns its path.
  std::string aliceObject(const std::string& bucket, const json& fields) {
    auto reply = postObject(client, bucket, fields, aliceToken);
    EXPECT_EQ(reply.status, 201) << reply.raw;
    return bucket + "/objects/" + reply.body.value("objectID", "");
  }

  int grant(const std::string& target, const std::string& entry, const std::string& token) {
    return client.send("PUT", target + "/acl/" + entry, "", "", token).status;
  }
  int revoke(const std::string& target, const std::string& entry, const std::string& token) {
    return client.send("DELETE", target + "/acl/" + entry, "", "", token).status;
  }

  EmulatorClient client{Emulator::shared().newApp()};
  json alice, bob;
  std::string aliceToken, bobToken;
};

TEST_F(EmulatorAcl, BobReadsAliceObjectOnlyWhileGranted) {
  std::string path = aliceObject("/buckets/shared", {{"k", "secret"}});
  const std::string readByBob = "READ_EXISTING_OBJECT/UserID:" + idOf(bob);

  auto denied = client.get(path, bobToken);
  EXPECT_EQ(denied.status, 403);
  EXPECT_EQ(denied.errorCode(), "FORBIDDEN");
  auto all = queryBody({{"type", "all"}});
  EXPECT_EQ(valuesOf(postQuery(client, "/buckets/shared", all, bobToken)),
            std::vector<std::string>{})
      << "a query shows only what the caller may read";
  // Writes, ACL changes and drops by Bob are refused and change nothing.
  EXPECT_EQ(client.send("PUT", path, R"({"k":"bob"})", "application/json", bobToken).status, 403);
  EXPECT_EQ(client
                .send("POST", path, R"({"k":"bob"})", "application/json", bobToken,
                      {{"X-HTTP-Method-Override", "PATCH"}})
                .status,
            403);
  EXPECT_EQ(client.send("DELETE", path, "", "", bobToken).status, 403);
  EXPECT_EQ(client.send("DELETE", "/buckets/shared", "", "", bobToken).status, 403);
  EXPECT_EQ(grant(path, readByBob, bobToken), 403);
  EXPECT_EQ(client.get(path + "/acl", bobToken).status, 403);
  auto unchanged = client.get(path, aliceToken);
  EXPECT_EQ(unchanged.body["k"], "secret");
  EXPECT_EQ(unchanged.body["_version"], "1");
  auto list = client.get(path + "/acl", aliceToken);
  ASSERT_EQ(list.status, 200) << list.raw;
  EXPECT_EQ(list.body, (json{{"READ_EXISTING_OBJECT", {{{"userID", idOf(alice)}}}},
                             {"WRITE_EXISTING_OBJECT", {{{"userID", idOf(alice)}}}}}));

  EXPECT_EQ(grant(path, readByBob, aliceToken), 204);
  EXPECT_EQ(grant(path, readByBob, aliceToken), 204) << "granting twice is no error";
  EXPECT_EQ(client.get(path, bobToken).status, 200);
  EXPECT_EQ(valuesOf(postQuery(client, "/buckets/shared", all, bobToken)),
            std::vector<std::string>{"secret"});
  EXPECT_EQ(client.send("PUT", path, R"({"k":"bob"})", "application/json", bobToken).status, 403)
      << "reading is not writing";
  EXPECT_EQ(client.get(path + "/acl", aliceToken).body["READ_EXISTING_OBJECT"].size(), 2u);

  EXPECT_EQ(revoke(path, readByBob, aliceToken), 204);
  auto missing = client.send("DELETE", path + "/acl/" + readByBob, "", "", aliceToken);
  EXPECT_EQ(missing.status, 404);
  EXPECT_EQ(missing.errorCode(), "ACL_NOT_FOUND");
  EXPECT_EQ(client.get(path, bobToken).status, 403);

  // Bad entries are refused before anything is looked up.
  EXPECT_EQ(grant(path, "DROP_BUCKET_WITH_ALL_CONTENT/UserID:" + idOf(bob), aliceToken), 400)
      << "a bucket action on an object";
  EXPECT_EQ(grant(path, "READ_EXISTING_OBJECT/Someone:x", aliceToken), 400);
  EXPECT_EQ(grant(path, "READ_EXISTING_OBJECT/UserID:nobody", aliceToken), 404);
  EXPECT_EQ(grant(path, "READ_EXISTING_OBJECT/ThingID:th-1", aliceToken), 204)
      << "things are kept as given";

  // Alice made the bucket: she manages its list and drops it.
  EXPECT_EQ(grant("/buckets/shared", "READ_OBJECTS_IN_BUCKET/UserID:" + idOf(bob), aliceToken),
            204);
  EXPECT_EQ(client.get(path, bobToken).status, 200) << "a bucket-wide read grant";
  EXPECT_EQ(client.send("DELETE", "/buckets/shared", "", "", aliceToken).status, 204);
}

TEST_F(EmulatorAcl, GroupMembersFollowMembership) {
  ASSERT_EQ(client
                .sendJson("PUT", "/groups/crew", {{"name", "Crew"}},
                          "application/vnd.jov.GroupCreationRequest+json", aliceToken)
                .status,
            201);
  std::string path = aliceObject("/groups/crew/buckets/log", {{"k", "entry"}});
  auto all = queryBody({{"type", "all"}});

  EXPECT_EQ(client.get(path, bobToken).status, 403);
  EXPECT_EQ(postQuery(client, "/groups/crew/buckets/log", all, bobToken).status, 403);
  EXPECT_EQ(postObject(client, "/groups/crew/buckets/log", {{"k", "x"}}, bobToken).status, 403);

  ASSERT_EQ(client.send("PUT", "/groups/crew/members/" + idOf(bob), "", "", aliceToken).status,
            204);
  EXPECT_EQ(client.get(path, bobToken).status, 200);
  EXPECT_EQ(client.send("PUT", path, R"({"k":"edited"})", "application/json", bobToken).status, 200)
      << "members write the group's objects";
  EXPECT_EQ(postObject(client, "/groups/crew/buckets/log", {{"k", "bob's"}}, bobToken).status, 201);
  EXPECT_EQ(sortedValues(postQuery(client, "/groups/crew/buckets/log", all, bobToken)),
            (std::vector<std::string>{"bob's", "edited"}));

  ASSERT_EQ(client.send("DELETE", "/groups/crew/members/" + idOf(bob), "", "", aliceToken).status,
            204);
  EXPECT_EQ(client.get(path, bobToken).status, 403);
  EXPECT_EQ(postQuery(client, "/groups/crew/buckets/log", all, bobToken).status, 403);
  EXPECT_EQ(client.get(path, aliceToken).body["k"], "edited");
}

TEST_F(EmulatorAcl, AnonymousAndAnyAuthenticatedSubjects) {
  // A user's bucket is the user's alone; an application bucket takes objects from any
  // authenticated user but not from an anonymous caller.
  EXPECT_EQ(
      postObject(client, "/users/" + idOf(alice) + "/buckets/own", {{"k", 1}}, bobToken).status,
      403);
  auto anonymous = postObject(client, "/buckets/board", {{"k", "anon"}}, "");
  EXPECT_EQ(anonymous.status, 401);
  EXPECT_EQ(anonymous.errorCode(), "UNAUTHORIZED");
  std::string path = aliceObject("/buckets/board", {{"k", "notice"}});
  EXPECT_EQ(postObject(client, "/buckets/board", {{"k", "bob"}}, bobToken).status, 201);
  EXPECT_EQ(client.get("/buckets/board/acl", "").status, 401);

  EXPECT_EQ(grant(path, "READ_EXISTING_OBJECT/UserID:ANY_AUTHENTICATED_USER", aliceToken), 204);
  EXPECT_EQ(client.get(path, bobToken).status, 200);
  EXPECT_EQ(client.get(path, "").status, 401);
  EXPECT_EQ(grant(path, "READ_EXISTING_OBJECT/UserID:ANONYMOUS_USER", aliceToken), 204);
  EXPECT_EQ(client.get(path, "").status, 200);
  std::vector<std::string> readers;
  auto list = client.get(path + "/acl", aliceToken);
  for (const auto& subject : list.body["READ_EXISTING_OBJECT"])
    readers.push_back(subject.value("userID", "?"));
  std::sort(readers.begin(), readers.end());
  std::vector<std::string> expected{"ANONYMOUS_USER", "ANY_AUTHENTICATED_USER", idOf(alice)};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(readers, expected);

  EXPECT_EQ(grant("/buckets/board", "CREATE_OBJECTS_IN_BUCKET/UserID:ANONYMOUS_USER", aliceToken),
            204);
  auto created = postObject(client, "/buckets/board", {{"k", "anon"}}, "");
  ASSERT_EQ(created.status, 201) << created.raw;
  std::string anonymousPath =
      "/buckets/board/objects/" + created.body["objectID"].get<std::string>();
  EXPECT_EQ(client.get(anonymousPath, aliceToken).status, 403) << "no one owns it";
  EXPECT_EQ(grant("/buckets/board", "READ_OBJECTS_IN_BUCKET/UserID:" + idOf(alice), aliceToken),
            204);
  auto read = client.get(anonymousPath, aliceToken);
  EXPECT_EQ(read.status, 200);
  EXPECT_EQ(read.body["k"], "anon");
  EXPECT_FALSE(read.body.contains("_owner"));
  EXPECT_EQ(client.get(path, "not-a-token").errorCode(), "WRONG_TOKEN");
}

}  // namespace
}  // namespace jovtest
