// Objects in buckets of every scope: life cycle, versions, validation, bucket deletion.
#include <gtest/gtest.h>

#include "bucket_test_helpers.hpp"

namespace jovtest {
namespace {

using nlohmann::json;

const char* kGroupCreation = "application/vnd.jov.GroupCreationRequest+json";

std::string makeGroup(EmulatorClient& client, const std::string& token, const std::string& id) {
  auto reply = client.sendJson("PUT", "/groups/" + id, {{"name", "G"}}, kGroupCreation, token);
  EXPECT_EQ(reply.status, 201) << reply.raw;
  return id;
}

httplib::Headers header(const std::string& name, const std::string& value) {
  return {{name, value}};
}

TEST(EmulatorObjects, LifeCycleInEveryScope) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [alice, token] = client.newUser();
  std::string aliceID = alice["userID"];
  makeGroup(client, token, "team");
  const std::string typed = "application/vnd." + client.app().appID + ".Note1+json";

  for (const std::string& bucket : std::vector<std::string>{
           "/buckets/notes", "/users/me/buckets/notes", "/users/" + aliceID + "/buckets/notes",
           "/groups/team/buckets/notes", "/buckets/CRYPTO:notes"}) {
    SCOPED_TRACE(bucket);
    auto created = postObject(client, bucket, {{"title", "a"}, {"n", 1}}, token, typed);
    ASSERT_EQ(created.status, 201) << created.raw;
    std::string id = created.body["objectID"];
    EXPECT_EQ(created.body["dataType"], typed);
    std::string path = bucket + "/objects/" + id;

    auto read = client.get(path, token);
    ASSERT_EQ(read.status, 200) << read.raw;
    expectFields(read.body, {{"title", "a"},
                             {"n", 1},
                             {"_id", id},
                             {"_version", "1"},
                             {"_dataType", "Note1"},
                             {"_owner", aliceID},
                             {"_created", created.body["createdAt"]}});

    auto patched =
        client.send("POST", path, json{{"n", 2}, {"title", nullptr}}.dump(), "application/json",
                    token, header("X-HTTP-Method-Override", "PATCH"));
    ASSERT_EQ(patched.status, 200) << patched.raw;
    expectFields(patched.body, {{"n", 2}, {"title", nullptr}, {"_version", "2"}, {"_id", id}});

    auto replaced = client.send("PUT", path, json{{"other", true}}.dump(), "application/json",
                                token, header("If-Match", "\"2\""));
    ASSERT_EQ(replaced.status, 200) << replaced.raw;
    EXPECT_EQ(replaced.body["createdAt"], created.body["createdAt"]);
    expectFields(client.get(path, token).body,
                 {{"other", true}, {"n", nullptr}, {"_version", "3"}, {"_dataType", nullptr}});

    EXPECT_EQ(client.send("DELETE", path, "", "", token).status, 204);
    EXPECT_EQ(client.get(path, token).errorCode(), "OBJECT_NOT_FOUND");
    EXPECT_EQ(client.send("DELETE", path, "", "", token).errorCode(), "OBJECT_NOT_FOUND");
  }

  // A PUT on a new ID creates the object under that ID; the plain and the encrypted bucket of
  // one name are different buckets.
  auto put = client.send("PUT", "/buckets/CRYPTO:only/objects/my-id.1", R"({"a":1})",
                         "application/json", token);
  EXPECT_EQ(put.status, 201) << put.raw;
  EXPECT_EQ(put.body["objectID"], "my-id.1");
  EXPECT_EQ(client.get("/buckets/only/objects/my-id.1", token).errorCode(), "BUCKET_NOT_FOUND");
}

TEST(EmulatorObjects, RefusedRequestsAndMissingParents) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [alice, token] = client.newUser();
  ASSERT_EQ(postObject(client, "/buckets/b1", {{"a", 1}}, token).status, 201);

  struct Case {
    std::string method, path, body, contentType, code;
    int status;
  };
  const Case cases[] = {
      {"GET", "/buckets/nothing/objects/abc", "", "", "BUCKET_NOT_FOUND", 404},
      {"GET", "/buckets/b1/objects/abc", "", "", "OBJECT_NOT_FOUND", 404},
      {"POST", "/users/nobody/buckets/b1/objects", "{}", "application/json", "USER_NOT_FOUND", 404},
      {"POST", "/groups/nogroup/buckets/b1/objects", "{}", "application/json", "GROUP_NOT_FOUND",
       404},
      {"POST", "/buckets/b/objects", "{}", "application/json", "INVALID_INPUT_DATA", 400},
      {"GET", "/buckets/b1/objects/x", "", "", "INVALID_INPUT_DATA", 400},
      {"POST", "/buckets/b1/objects", R"({"_owner":"me"})", "application/json",
       "INVALID_INPUT_DATA", 400},
      {"POST", "/buckets/b1/objects", "[1]", "application/json", "INVALID_INPUT_DATA", 400},
      {"POST", "/buckets/b1/objects", "{}", "text/plain", "UNSUPPORTED_MEDIA_TYPE", 415},
      {"POST", "/buckets/b1/objects", "{}", "application/vnd.other-app.Note1+json",
       "UNSUPPORTED_MEDIA_TYPE", 415},
      {"POST", "/buckets/b1/objects/abc", "{}", "application/json", "METHOD_NOT_ALLOWED", 405},
      {"DELETE", "/buckets/nothing", "", "", "BUCKET_NOT_FOUND", 404},
  };
  for (const auto& c : cases) {
    auto reply = client.send(c.method, c.path, c.body, c.contentType, token);
    EXPECT_EQ(reply.status, c.status) << c.method << " " << c.path << ": " << reply.raw;
    EXPECT_EQ(reply.errorCode(), c.code) << c.method << " " << c.path;
  }
  auto count = postQuery(client, "/buckets/b1", queryBody({{"type", "all"}}), token);
  EXPECT_EQ(count.body["results"].size(), 1u) << "no refused request stored anything";
}

TEST(EmulatorObjects, OptimisticConcurrency) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [alice, token] = client.newUser();
  auto created = postObject(client, "/buckets/b1", {{"v", "first"}}, token);
  std::string path = "/buckets/b1/objects/" + created.body["objectID"].get<std::string>();
  auto write = [&](const std::string& method, const json& body, const httplib::Headers& headers) {
    httplib::Headers all = headers;
    if (method == "POST") all.emplace("X-HTTP-Method-Override", "PATCH");
    return client.send(method, path, body.dump(), "application/json", token, all);
  };

  auto second = write("PUT", {{"v", "second"}}, header("If-Match", "\"1\""));
  ASSERT_EQ(second.status, 200) << second.raw;
  EXPECT_EQ(client.get(path, token).raw.find("second") != std::string::npos, true);
  for (const auto& [method, headers] : std::vector<std::pair<std::string, httplib::Headers>>{
           {"PUT", header("If-Match", "\"1\"")},
           {"POST", header("If-Match", "1")},
           {"PUT", header("If-None-Match", "*")},
           {"POST", header("If-None-Match", "*")}}) {
    auto stale = write(method, {{"v", "lost"}}, headers);
    EXPECT_EQ(stale.status, 409) << method << " " << stale.raw;
    EXPECT_EQ(stale.errorCode(), "OBJECT_VERSION_IS_STALE");
  }
  auto current = client.get(path, token);
  EXPECT_EQ(current.body["v"], "second");
  EXPECT_EQ(current.body["_version"], "2");

  auto matching = write("POST", {{"v", "third"}}, header("If-Match", "\"2\""));
  EXPECT_EQ(matching.status, 200) << matching.raw;
  EXPECT_EQ(write("PUT", {{"v", "forced"}}, {}).status, 200) << "no condition: overwrites";
  EXPECT_EQ(client.get(path, token).body["_version"], "4");

  auto fresh = client.send("PUT", "/buckets/b1/objects/fresh-id", R"({"v":1})", "application/json",
                           token, header("If-None-Match", "*"));
  EXPECT_EQ(fresh.status, 201) << fresh.raw;
}

TEST(EmulatorObjects, DeletedBucketsUsersAndGroupsTakeTheirObjects) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [alice, token] = client.newUser();
  for (int i = 0; i < 3; ++i)
    ASSERT_EQ(postObject(client, "/buckets/b1", {{"i", i}}, token).status, 201);
  auto kept = postObject(client, "/buckets/b2", {{"i", 9}}, token);

  EXPECT_EQ(client.send("DELETE", "/buckets/b1", "", "", token).status, 204);
  EXPECT_EQ(postQuery(client, "/buckets/b1", queryBody({{"type", "all"}}), token).errorCode(),
            "BUCKET_NOT_FOUND");
  ASSERT_EQ(postObject(client, "/buckets/b1", {{"i", 10}}, token).status, 201);
  auto again = postQuery(client, "/buckets/b1", queryBody({{"type", "all"}}), token);
  EXPECT_EQ(again.body["results"].size(), 1u) << "a bucket made again starts empty";
  EXPECT_EQ(
      client.get("/buckets/b2/objects/" + kept.body["objectID"].get<std::string>(), token).status,
      200);

  // A group made again with the same ID does not find the old group's bucket.
  makeGroup(client, token, "g1");
  ASSERT_EQ(postObject(client, "/groups/g1/buckets/bb", {{"i", 1}}, token).status, 201);
  ASSERT_EQ(client.send("DELETE", "/groups/g1", "", "", token).status, 204);
  makeGroup(client, token, "g1");
  EXPECT_EQ(
      postQuery(client, "/groups/g1/buckets/bb", queryBody({{"type", "all"}}), token).errorCode(),
      "BUCKET_NOT_FOUND");

  // A deleted user's buckets go with it.
  ASSERT_EQ(postObject(client, "/users/me/buckets/mine", {{"i", 1}}, token).status, 201);
  ASSERT_EQ(client.send("DELETE", "/users/me", "", "", token).status, 204);
  auto [bob, bobToken] = client.newUser();
  EXPECT_EQ(postQuery(client, "/users/" + alice["userID"].get<std::string>() + "/buckets/mine",
                      queryBody({{"type", "all"}}), bobToken)
                .errorCode(),
            "USER_NOT_FOUND");
}

}  // namespace
}  // namespace jovtest
