// Groups: creation, reading, renaming, members, lists and deletion.
#include <gtest/gtest.h>

#include <algorithm>

#include "emulator_fixture.hpp"

namespace jovtest {
namespace {

using nlohmann::json;
using IDs = std::vector<std::string>;

const char* kCreation = "application/vnd.jov.GroupCreationRequest+json";

std::string idOf(const json& record) {
  return record["userID"].get<std::string>();
}

// The sorted values of `key` in the array `list` of the reply.
IDs sorted(const EmulatorReply& reply, const char* list, const char* key) {
  IDs out;
  for (const auto& item : reply.body[list]) out.push_back(item[key]);
  std::sort(out.begin(), out.end());
  return out;
}

IDs sorted(IDs ids) {
  std::sort(ids.begin(), ids.end());
  return ids;
}

TEST(EmulatorGroups, Creation) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [owner, token] = client.newUser();
  auto [member, memberToken] = client.newUser();
  auto post = [&](const json& body) {
    return client.sendJson("POST", "/groups", body, kCreation, token);
  };

  auto created = post({{"name", "Friends"}, {"owner", owner["userID"]}});
  ASSERT_EQ(created.status, 201) << created.raw;
  std::string groupID = created.body["groupID"];
  EXPECT_FALSE(groupID.empty());
  EXPECT_EQ(created.body["name"], "Friends");
  EXPECT_EQ(created.body["owner"], owner["userID"]);
  EXPECT_TRUE(created.body.contains("_created") && created.body.contains("_modified"));
  auto fetched = client.get("/groups/" + groupID, memberToken);
  EXPECT_EQ(fetched.status, 200);
  EXPECT_EQ(fetched.body["name"], "Friends");

  EXPECT_EQ(post({{"name", "X"}, {"owner", member["userID"]}}).status, 403)
      << "the owner must be the caller";
  auto unknownMember = post({{"name", "X"}, {"owner", owner["userID"]}, {"members", {"nobody"}}});
  EXPECT_EQ(unknownMember.status, 404);
  EXPECT_EQ(unknownMember.errorCode(), "USER_NOT_FOUND");
  EXPECT_EQ(post({{"name", ""}, {"owner", owner["userID"]}}).status, 400);

  auto put = [&](const std::string& id) {
    return client.sendJson(
        "PUT", "/groups/" + id,
        {{"name", "Team"}, {"owner", owner["userID"]}, {"members", {member["userID"]}}}, kCreation,
        token);
  };
  auto withID = put("team-1.a_b");
  ASSERT_EQ(withID.status, 201) << withID.raw;
  EXPECT_EQ(withID.body["groupID"], "team-1.a_b");
  auto twice = put("team-1.a_b");
  EXPECT_EQ(twice.status, 409);
  EXPECT_EQ(twice.errorCode(), "GROUP_ALREADY_EXISTS");
  EXPECT_EQ(put("Team").errorCode(), "INVALID_INPUT_DATA");
  EXPECT_EQ(put(std::string(31, 'a')).errorCode(), "INVALID_INPUT_DATA");
  EXPECT_EQ(sorted(client.get("/groups/team-1.a_b/members", memberToken), "members", "userID"),
            sorted({idOf(owner), idOf(member)}));
  EXPECT_EQ(client.get("/groups/nothing", token).errorCode(), "GROUP_NOT_FOUND");
}

TEST(EmulatorGroups, RenameMembersAndDelete) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [owner, token] = client.newUser();
  auto [alice, aliceToken] = client.newUser();
  auto [bob, bobToken] = client.newUser();
  ASSERT_EQ(client
                .sendJson("PUT", "/groups/crew", {{"name", "Crew"}, {"owner", owner["userID"]}},
                          kCreation, token)
                .status,
            201);
  auto rename = [&](const std::string& name, const std::string& as) {
    return client.send("PUT", "/groups/crew/name", name, "text/plain", as).status;
  };
  // A request without a body, to a path under /groups/.
  auto bare = [&](const char* method, const std::string& path, const std::string& as) {
    return client.send(method, "/groups/" + path, "", "", as);
  };

  EXPECT_EQ(rename("Renamed", aliceToken), 403);
  EXPECT_EQ(rename("", token), 400);
  EXPECT_EQ(rename("Renamed", token), 204);
  EXPECT_EQ(client.get("/groups/crew", token).body["name"], "Renamed");

  EXPECT_EQ(bare("PUT", "crew/members/" + idOf(alice), aliceToken).status, 403)
      << "only the owner adds members";
  EXPECT_EQ(bare("PUT", "crew/members/" + idOf(alice), token).status, 204);
  EXPECT_EQ(bare("PUT", "crew/members/" + idOf(bob), token).status, 204);
  EXPECT_EQ(bare("PUT", "crew/members/nobody", token).errorCode(), "USER_NOT_FOUND");
  EXPECT_EQ(bare("PUT", "nothing/members/" + idOf(bob), token).errorCode(), "GROUP_NOT_FOUND");
  EXPECT_EQ(bare("DELETE", "crew/members/" + idOf(bob), aliceToken).status, 403)
      << "a member removes only itself";
  EXPECT_EQ(bare("DELETE", "crew/members/" + idOf(alice), aliceToken).status, 204);
  auto list = client.get("/groups/crew/members", bobToken);
  EXPECT_EQ(list.status, 200);
  EXPECT_EQ(sorted(list, "members", "userID"), sorted({idOf(owner), idOf(bob)}));

  EXPECT_EQ(bare("DELETE", "crew", bobToken).status, 403);
  EXPECT_EQ(bare("DELETE", "crew", token).status, 204);
  EXPECT_EQ(client.get("/groups/crew", token).errorCode(), "GROUP_NOT_FOUND");
  EXPECT_EQ(bare("DELETE", "crew", token).errorCode(), "GROUP_NOT_FOUND");
}

TEST(EmulatorGroups, MemberAndOwnerLists) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [owner, token] = client.newUser();
  auto [member, memberToken] = client.newUser();
  auto create = [&](const std::string& id, const json& by, const std::string& as) {
    return client.sendJson("PUT", "/groups/" + id, {{"name", id}, {"owner", by["userID"]}},
                           kCreation, as);
  };
  ASSERT_EQ(create("g1", owner, token).status, 201);
  ASSERT_EQ(create("g2", owner, token).status, 201);
  ASSERT_EQ(client.send("PUT", "/groups/g2/members/" + idOf(member), "", "", token).status, 204);
  ASSERT_EQ(create("g3", member, memberToken).status, 201);

  auto owned = client.get("/groups/?owner=" + idOf(owner), memberToken);
  EXPECT_EQ(owned.status, 200);
  EXPECT_EQ(sorted(owned, "groups", "groupID"), (IDs{"g1", "g2"}));
  EXPECT_EQ(owned.body["groups"][0]["owner"], owner["userID"]);
  EXPECT_TRUE(owned.body["groups"][0].contains("name"));
  EXPECT_EQ(sorted(client.get("/groups?is_member=" + idOf(member), token), "groups", "groupID"),
            (IDs{"g2", "g3"}));
  EXPECT_TRUE(client.get("/groups/?owner=nobody", token).body["groups"].empty());
  EXPECT_EQ(client.get("/groups/", token).status, 400);
  EXPECT_EQ(client.get("/groups/?owner=" + idOf(owner), "").status, 401);
}

}  // namespace
}  // namespace jovtest
