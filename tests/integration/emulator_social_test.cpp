// The stand-in social provider and the service's social routes: provider accounts, the token
// check, login with a provider token, and linking refused for an account someone else holds.
#include <gtest/gtest.h>

#include "emulator_fixture.hpp"

namespace jovtest {
namespace {

using nlohmann::json;

const char* kLink = "application/vnd.jov.ThirdPartyAccountLinkRequest+json";

json providerAccount(const std::string& provider, const json& body = json::object()) {
  auto reply = emulatorRequest("POST", "/emulator/social/" + provider + "/accounts", body.dump());
  EXPECT_EQ(reply.status, 201) << reply.raw;
  return reply.body;
}

EmulatorReply socialLogin(EmulatorClient& client, json grant) {
  grant["grant_type"] = "social_token";
  return client.sendJson("POST", "/oauth2/token", grant, "application/json");
}

TEST(EmulatorSocial, ProviderAccountsAndTheTokenCheck) {
  EmulatorClient client(Emulator::shared().newApp());
  auto fb = providerAccount("facebook", {{"name", "Ann"}});
  EXPECT_FALSE(fb.value("id", "").empty());
  EXPECT_FALSE(fb.value("access_token", "").empty());
  EXPECT_FALSE(fb.contains("token_secret")) << "only OAuth 1.0a providers have secrets";
  auto tw = providerAccount("twitter");
  EXPECT_FALSE(tw.value("token_secret", "").empty());

  auto unknown = emulatorRequest("POST", "/emulator/social/myspace/accounts", "{}");
  EXPECT_EQ(unknown.status, 400);
  EXPECT_EQ(unknown.errorCode(), "PROVIDER_NOT_CONFIGURED");
  auto again = emulatorRequest("POST", "/emulator/social/facebook/accounts",
                               json({{"id", fb["id"]}}).dump());
  EXPECT_EQ(again.status, 409);

  const std::pair<json, std::string> refused[] = {
      {{{"provider", "facebook"}, {"access_token", "nope"}}, "INVALID_PROVIDER_TOKEN"},
      {{{"provider", "twitter"}, {"access_token", fb["access_token"]}}, "INVALID_PROVIDER_TOKEN"},
      {{{"provider", "twitter"}, {"access_token", tw["access_token"]}}, "INVALID_PROVIDER_TOKEN"},
      {{{"provider", "twitter"}, {"access_token", tw["access_token"]}, {"token_secret", "x"}},
       "INVALID_PROVIDER_TOKEN"},
      {{{"provider", "facebook"}, {"access_token", fb["access_token"]}, {"id_token", "forged"}},
       "INVALID_PROVIDER_TOKEN"},
      {{{"provider", "myspace"}, {"access_token", fb["access_token"]}}, "PROVIDER_NOT_CONFIGURED"},
      {{{"provider", "facebook"}}, "INVALID_INPUT_DATA"},
  };
  for (const auto& [grant, code] : refused) {
    auto reply = socialLogin(client, grant);
    EXPECT_EQ(reply.errorCode(), code) << grant;
    EXPECT_GE(reply.status, 400);
  }
  // A refused token created nobody: the first accepted login is a new user.
  auto first = socialLogin(client, {{"provider", "twitter"},
                                    {"access_token", tw["access_token"]},
                                    {"token_secret", tw["token_secret"]}});
  EXPECT_EQ(first.status, 200) << first.raw;
}

TEST(EmulatorSocial, TokenLoginCreatesTheUserOnceThenFindsIt) {
  EmulatorClient client(Emulator::shared().newApp());
  auto fb = providerAccount("facebook", {{"name", "Ann"}});
  json grant = {
      {"provider", "facebook"}, {"access_token", fb["access_token"]}, {"id_token", fb["id_token"]}};
  auto first = socialLogin(client, grant);
  ASSERT_EQ(first.status, 200) << first.raw;
  const std::string userID = first.body.value("id", "");
  ASSERT_FALSE(userID.empty());
  EXPECT_FALSE(first.body.value("refresh_token", "").empty());

  auto record = client.get("/users/me", first.body["access_token"]);
  ASSERT_EQ(record.status, 200);
  expectFields(record.body,
               {{"userID", userID}, {"displayName", "Ann"}, {"_hasPassword", nullptr}});
  ASSERT_TRUE(record.body["_thirdPartyAccounts"].contains("facebook"));
  EXPECT_EQ(record.body["_thirdPartyAccounts"]["facebook"]["id"], fb["id"]);
  EXPECT_GT(record.body["_thirdPartyAccounts"]["facebook"].value("createdAt", 0LL), 0);

  auto second = socialLogin(client, grant);
  ASSERT_EQ(second.status, 200);
  EXPECT_EQ(second.body["id"], userID);
  EXPECT_NE(second.body["access_token"], first.body["access_token"]);

  // Another application has users of its own: the same account makes a new one there.
  EmulatorClient other(Emulator::shared().newApp());
  auto elsewhere = socialLogin(other, grant);
  ASSERT_EQ(elsewhere.status, 200);
  EXPECT_NE(elsewhere.body["id"], userID);

  // A disabled user cannot log in with the account either.
  ASSERT_EQ(emulatorRequest(
                "PUT", "/emulator/apps/" + client.app().appID + "/users/" + userID + "/disabled",
                R"({"disabled": true})")
                .status,
            204);
  EXPECT_EQ(socialLogin(client, grant).errorCode(), "invalid_grant");
}

TEST(EmulatorSocial, LinkingAndUnlinking) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [alice, aliceToken] = client.newUser();
  auto [bob, bobToken] = client.newUser();
  auto gh = providerAccount("github");
  json body = {{"access_token", gh["access_token"]}};
  const std::string alicePath = "/users/" + alice["userID"].get<std::string>();
  const std::string bobPath = "/users/" + bob["userID"].get<std::string>();

  auto linked =
      client.sendJson("PUT", alicePath + "/third-party-accounts/github", body, kLink, aliceToken);
  ASSERT_EQ(linked.status, 200) << linked.raw;
  EXPECT_EQ(linked.body["_thirdPartyAccounts"]["github"]["id"], gh["id"]);
  EXPECT_EQ(linked.body["loginName"], alice["loginName"]);
  // Linking the same account again changes nothing.
  EXPECT_EQ(client.sendJson("PUT", "/users/me/third-party-accounts/github", body, kLink, aliceToken)
                .status,
            200);

  // Bob may not take alice's account, nor link for her.
  auto taken =
      client.sendJson("PUT", bobPath + "/third-party-accounts/github", body, kLink, bobToken);
  EXPECT_EQ(taken.status, 409);
  EXPECT_EQ(taken.errorCode(), "ACCOUNT_ALREADY_LINKED");
  EXPECT_EQ(client.get(bobPath, bobToken).body["_thirdPartyAccounts"], json::object());
  EXPECT_EQ(
      client.sendJson("PUT", alicePath + "/third-party-accounts/github", body, kLink, bobToken)
          .status,
      403);
  // One account per provider and user.
  auto second = providerAccount("github");
  auto another = client.sendJson("PUT", alicePath + "/third-party-accounts/github",
                                 {{"access_token", second["access_token"]}}, kLink, aliceToken);
  EXPECT_EQ(another.errorCode(), "ACCOUNT_ALREADY_LINKED");
  EXPECT_EQ(client
                .sendJson("PUT", alicePath + "/third-party-accounts/github",
                          {{"access_token", "forged"}}, kLink, aliceToken)
                .errorCode(),
            "INVALID_PROVIDER_TOKEN");

  // The account logs alice in.
  auto login = socialLogin(client, {{"provider", "github"}, {"access_token", gh["access_token"]}});
  EXPECT_EQ(login.body["id"], alice["userID"]);

  auto unlinked = client.send("DELETE", alicePath + "/third-party-accounts/github", "",
                              "application/json", aliceToken);
  ASSERT_EQ(unlinked.status, 200);
  EXPECT_EQ(unlinked.body["_thirdPartyAccounts"], json::object());
  auto none = client.send("DELETE", alicePath + "/third-party-accounts/github", "",
                          "application/json", aliceToken);
  EXPECT_EQ(none.status, 404);
  EXPECT_EQ(none.errorCode(), "ACCOUNT_NOT_LINKED");
  // Now free, bob links it.
  EXPECT_EQ(client.sendJson("PUT", bobPath + "/third-party-accounts/github", body, kLink, bobToken)
                .status,
            200);
}

}  // namespace
}  // namespace jovtest
