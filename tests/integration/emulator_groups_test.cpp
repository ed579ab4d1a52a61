// Groups: creation, reading, renaming, members, lists and deletion.
#include <gtest/gtest.h>

#include "emulator_fixture.hpp"

namespace jovtest {
namespace {

const char* kCreation = "application/vnd.jov.GroupCreationRequest+json";

std::string idOf(const nlohmann::json& record) {
  return record["userID"].get<std::string>();
}

std::vector<std::string> memberIDs(const EmulatorReply& reply) {
  std::vector<std::string> out;
  for (const auto& member : reply.body["members"]) out.push_back(member["userID"]);
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> groupIDs(const EmulatorReply& reply) {
  std::vector<std::string> out;
  for (const auto& group : reply.body["groups"]) out.push_back(group["groupID"]);
  std::sort(out.begin(), out.end());
  return out;
}

TEST(EmulatorGroups, Creation) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [owner, token] = client.newUser();
  auto [member, memberToken] = client.newUser();

  auto created = client.sendJson(
      "POST", "/groups", {{"name", "Friends"}, {"owner", owner["userID"]}}, kCreation, token);
  ASSERT_EQ(created.status, 201) << created.raw;
  std::string groupID = created.body["groupID"];
  EXPECT_FALSE(groupID.empty());
  EXPECT_EQ(created.body["name"], "Friends");
  EXPECT_EQ(created.body["owner"], owner["userID"]);
  EXPECT_TRUE(created.body.contains("_created") && created.body.contains("_modified"));
  auto fetched = client.get("/groups/" + groupID, memberToken);
  EXPECT_EQ(fetched.status, 200);
  EXPECT_EQ(fetched.body["name"], "Friends");

  EXPECT_EQ(client
                .sendJson("POST", "/groups", {{"name", "X"}, {"owner", member["userID"]}},
                          kCreation, token)
                .status,
            403)
      << "the owner must be the caller";
  auto unknownMember = client.sendJson(
      "POST", "/groups", {{"name", "X"}, {"owner", owner["userID"]}, {"members", {"nobody"}}},
      kCreation, token);
  EXPECT_EQ(unknownMember.status, 404);
  EXPECT_EQ(unknownMember.errorCode(), "USER_NOT_FOUND");
  EXPECT_EQ(
      client
          .sendJson("POST", "/groups", {{"name", ""}, {"owner", owner["userID"]}}, kCreation, token)
          .status,
      400);

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
  EXPECT_EQ(memberIDs(client.get("/groups/team-1.a_b/members", memberToken)),
            (std::vector<std::string>{std::min(idOf(owner), idOf(member)),
                                      std::max(idOf(owner), idOf(member))}));
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

  EXPECT_EQ(client.send("PUT", "/groups/crew/name", "Renamed", "text/plain", aliceToken).status,
            403);
  EXPECT_EQ(client.send("PUT", "/groups/crew/name", "", "text/plain", token).status, 400);
  EXPECT_EQ(client.send("PUT", "/groups/crew/name", "Renamed", "text/plain", token).status, 204);
  EXPECT_EQ(client.get("/groups/crew", token).body["name"], "Renamed");

  const std::string members = "/groups/crew/members/";
  EXPECT_EQ(client.send("PUT", members + idOf(alice), "", "", aliceToken).status, 403)
      << "only the owner adds members";
  EXPECT_EQ(client.send("PUT", members + idOf(alice), "", "", token).status, 204);
  EXPECT_EQ(client.send("PUT", members + idOf(bob), "", "", token).status, 204);
  EXPECT_EQ(client.send("PUT", members + "nobody", "", "", token).errorCode(), "USER_NOT_FOUND");
  EXPECT_EQ(client.send("PUT", "/groups/nothing/members/" + idOf(bob), "", "", token).errorCode(),
            "GROUP_NOT_FOUND");
  EXPECT_EQ(client.send("DELETE", members + idOf(bob), "", "", aliceToken).status, 403)
      << "a member removes only itself";
  EXPECT_EQ(client.send("DELETE", members + idOf(alice), "", "", aliceToken).status, 204);
  auto list = client.get("/groups/crew/members", bobToken);
  EXPECT_EQ(list.status, 200);
  EXPECT_EQ(memberIDs(list), (std::vector<std::string>{std::min(idOf(owner), idOf(bob)),
                                                       std::max(idOf(owner), idOf(bob))}));

  EXPECT_EQ(client.send("DELETE", "/groups/crew", "", "", bobToken).status, 403);
  EXPECT_EQ(client.send("DELETE", "/groups/crew", "", "", token).status, 204);
  EXPECT_EQ(client.get("/groups/crew", token).errorCode(), "GROUP_NOT_FOUND");
  EXPECT_EQ(client.send("DELETE", "/groups/crew", "", "", token).errorCode(), "GROUP_NOT_FOUND");
}

TEST(EmulatorGroups, MemberAndOwnerLists) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [owner, token] = client.newUser();
  auto [member, memberToken] = client.newUser();
  for (const char* id : {"g1", "g2"}) {
    ASSERT_EQ(client
                  .sendJson("PUT", std::string("/groups/") + id,
                            {{"name", id}, {"owner", owner["userID"]}}, kCreation, token)
                  .status,
              201);
  }
  ASSERT_EQ(client.send("PUT", "/groups/g2/members/" + idOf(member), "", "", token).status, 204);
  ASSERT_EQ(client
                .sendJson("PUT", "/groups/g3", {{"name", "g3"}, {"owner", member["userID"]}},
                          kCreation, memberToken)
                .status,
            201);

  auto owned = client.get("/groups/?owner=" + idOf(owner), memberToken);
  EXPECT_EQ(owned.status, 200);
  EXPECT_EQ(groupIDs(owned), (std::vector<std::string>{"g1", "g2"}));
  EXPECT_EQ(owned.body["groups"][0]["owner"], owner["userID"]);
  EXPECT_TRUE(owned.body["groups"][0].contains("name"));
  EXPECT_EQ(groupIDs(client.get("/groups?is_member=" + idOf(member), token)),
            (std::vector<std::string>{"g2", "g3"}));
  EXPECT_TRUE(client.get("/groups/?owner=nobody", token).body["groups"].empty());
  EXPECT_EQ(client.get("/groups/", token).status, 400);
  EXPECT_EQ(client.get("/groups/?owner=" + idOf(owner), "").status, 401);
}

}  // namespace
}  // namespace jovtest
