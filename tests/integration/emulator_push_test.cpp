// Push routes of the emulator: installations per token, topics in the three scopes with their
// rights, listing pages and subscriptions.
#include <gtest/gtest.h>

#include "emulator_fixture.hpp"

namespace jovtest {
namespace {

using nlohmann::json;

const char* kInstallation = "application/vnd.jov.InstallationCreationRequest+json";

TEST(EmulatorPush, Installations) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [owner, token] = client.newUser();
  auto [other, otherToken] = client.newUser();
  auto install = [&](const json& body, const std::string& as) {
    return client.sendJson("POST", "/installations", body, kInstallation, as);
  };
  const json body = {{"installationRegistrationID", "01AB"}, {"deviceType", "IOS"}};

  auto created = install(body, token);
  ASSERT_EQ(created.status, 201) << created.raw;
  EXPECT_FALSE(created.body.value("installationID", "").empty());
  // The token is taken, whoever asks again.
  EXPECT_EQ(install(body, token).errorCode(), "INSTALLATION_ALREADY_EXISTS");
  EXPECT_EQ(install(body, otherToken).status, 409);
  EXPECT_EQ(install(body, "").status, 401);
  EXPECT_EQ(install({{"deviceType", "IOS"}}, token).status, 400);
  EXPECT_EQ(install({{"installationRegistrationID", "02"}, {"deviceType", "PHONE"}}, token).status,
            400);
  EXPECT_EQ(
      install(
          {{"installationRegistrationID", "02"}, {"deviceType", "IOS"}, {"development", "maybe"}},
          token)
          .status,
      400);
  EXPECT_EQ(client.send("POST", "/installations", body.dump(), "application/json", token).status,
            415);

  // Only the installation's user removes it; others are told it does not exist.
  auto remove = [&](const std::string& id, const std::string& as) {
    return client.send("DELETE", "/installations/" + id, "", "application/json", as);
  };
  EXPECT_EQ(remove("IOS:01AB", otherToken).errorCode(), "INSTALLATION_NOT_FOUND");
  EXPECT_EQ(remove("01AB", token).status, 400);
  EXPECT_EQ(remove("IOS:01AB", token).status, 204);
  EXPECT_EQ(remove("IOS:01AB", token).status, 404);
  EXPECT_EQ(install(body, otherToken).status, 201) << "a removed token may be installed again";
}

TEST(EmulatorPush, TopicsAndTheirRights) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [alice, aliceToken] = client.newUser();
  auto [bob, bobToken] = client.newUser();
  const std::string aliceID = alice["userID"], bobID = bob["userID"];
  auto call = [&](const std::string& method, const std::string& path, const std::string& as) {
    return client.send(method, path, "", "application/json", as);
  };

  EXPECT_EQ(call("PUT", "/topics/news", aliceToken).status, 204);
  EXPECT_EQ(call("PUT", "/topics/news", bobToken).errorCode(), "TOPIC_ALREADY_EXISTS");
  EXPECT_EQ(call("PUT", "/topics/a.b", aliceToken).status, 400);
  EXPECT_EQ(call("PUT", "/topics/" + std::string(65, 'a'), aliceToken).status, 400);
  EXPECT_EQ(call("PUT", "/topics/" + std::string(64, 'a'), aliceToken).status, 204);
  EXPECT_EQ(call("PUT", "/topics/x", "").status, 401);
  EXPECT_EQ(call("HEAD", "/topics/news", bobToken).status, 204);
  EXPECT_EQ(call("HEAD", "/topics/none", bobToken).status, 404);
  EXPECT_EQ(call("DELETE", "/topics/news", bobToken).status, 403) << "the creator's to delete";

  // A user's topics are that user's alone; an unknown owner is a 404 of its own kind.
  EXPECT_EQ(call("PUT", "/users/me/topics/mine", aliceToken).status, 204);
  EXPECT_EQ(call("HEAD", "/users/" + aliceID + "/topics/mine", aliceToken).status, 204);
  EXPECT_EQ(call("PUT", "/users/" + aliceID + "/topics/x", bobToken).status, 403);
  EXPECT_EQ(call("GET", "/users/" + aliceID + "/topics", bobToken).status, 403);
  EXPECT_EQ(call("PUT", "/users/nobody/topics/x", aliceToken).errorCode(), "USER_NOT_FOUND");
  EXPECT_EQ(call("DELETE", "/users/me/topics/none", aliceToken).errorCode(), "TOPIC_NOT_FOUND");
  EXPECT_EQ(call("DELETE", "/groups/nogroup/topics/x", aliceToken).errorCode(), "GROUP_NOT_FOUND");

  // A group's topics are its members'; deleting is for the group's owner or the creator.
  auto group = client.sendJson("POST", "/groups", {{"name", "g"}, {"members", {bobID}}},
                               "application/vnd.jov.GroupCreationRequest+json", aliceToken);
  ASSERT_EQ(group.status, 201) << group.raw;
  const std::string groupPath = "/groups/" + group.body["groupID"].get<std::string>() + "/topics";
  auto [carol, carolToken] = client.newUser();
  EXPECT_EQ(call("PUT", groupPath + "/team", bobToken).status, 204);
  EXPECT_EQ(call("PUT", groupPath + "/other", carolToken).status, 403);
  EXPECT_EQ(call("DELETE", groupPath + "/team", carolToken).status, 403);
  EXPECT_EQ(call("DELETE", groupPath + "/team", aliceToken).status, 204);
  EXPECT_EQ(call("HEAD", groupPath + "/team", bobToken).status, 404);
}

TEST(EmulatorPush, ListingPagesAndSubscriptions) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [alice, token] = client.newUser();
  auto [bob, bobToken] = client.newUser();
  const std::string aliceID = alice["userID"];
  auto call = [&](const std::string& method, const std::string& path, const std::string& as) {
    return client.send(method, path, "", "application/json", as);
  };
  // More topics than one page holds, in the user's scope; another scope's topics stay apart.
  std::vector<std::string> created;
  for (int i = 0; i < 23; ++i) {
    char name[8];
    std::snprintf(name, sizeof name, "t%02d", i);
    created.push_back(name);
    ASSERT_EQ(call("PUT", "/users/me/topics/" + created.back(), token).status, 204);
  }
  ASSERT_EQ(call("PUT", "/topics/app-wide", token).status, 204);
  std::vector<std::string> listed;
  std::string path = "/users/me/topics";
  int pages = 0;
  while (true) {
    auto page = call("GET", path, token);
    ASSERT_EQ(page.status, 200) << page.raw;
    ++pages;
    for (const auto& topic : page.body["topics"]) listed.push_back(topic["topicID"]);
    if (!page.body.contains("paginationKey")) break;
    path = "/users/me/topics?paginationKey=" +
           percentEncode(page.body["paginationKey"].get<std::string>());
    ASSERT_LT(pages, 5);
  }
  EXPECT_EQ(listed, created);
  EXPECT_EQ(pages, 2);
  EXPECT_EQ(call("GET", "/topics", bobToken).body["topics"],
            json::array({{{"topicID", "app-wide"}}}));

  // Subscriptions: the user subscribes only itself; 409 both ways, 404 when checking nothing.
  const std::string subscription = "/topics/app-wide/push/subscriptions/users/" + aliceID;
  EXPECT_EQ(call("GET", subscription, token).errorCode(), "PUSH_SUBSCRIPTION_NOT_FOUND");
  EXPECT_EQ(call("PUT", subscription, token).status, 204);
  EXPECT_EQ(call("PUT", subscription, token).errorCode(), "PUSH_SUBSCRIPTION_ALREADY_EXISTS");
  EXPECT_EQ(call("GET", subscription, token).status, 204);
  EXPECT_EQ(call("PUT", subscription, bobToken).status, 403);
  EXPECT_EQ(call("PUT", "/topics/none/push/subscriptions/users/" + aliceID, token).errorCode(),
            "TOPIC_NOT_FOUND");
  EXPECT_EQ(call("PUT", "/topics/app-wide/push/subscriptions/users/nobody", token).errorCode(),
            "USER_NOT_FOUND");
  EXPECT_EQ(call("DELETE", subscription, token).status, 204);
  auto again = call("DELETE", subscription, token);
  EXPECT_EQ(again.status, 409);
  EXPECT_EQ(again.errorCode(), "PUSH_SUBSCRIPTION_NOT_FOUND");
  // Deleting a topic takes its subscriptions with it.
  ASSERT_EQ(call("PUT", subscription, token).status, 204);
  ASSERT_EQ(call("DELETE", "/topics/app-wide", token).status, 204);
  ASSERT_EQ(call("PUT", "/topics/app-wide", token).status, 204);
  EXPECT_EQ(call("GET", subscription, token).status, 404);
}

}  // namespace
}  // namespace jovtest
