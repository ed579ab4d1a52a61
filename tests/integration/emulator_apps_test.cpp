// Applications, their headers, and the checks of access and refresh tokens.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "emulator_fixture.hpp"

namespace jovtest {
namespace {

const char* kJson = "application/json";

std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

TEST(EmulatorApps, RegistrationAtRunTime) {
  auto& emulator = Emulator::shared();
  auto app = emulator.newApp();
  EXPECT_EQ(app.baseURL, emulator.baseURL());
  EXPECT_EQ(app.baseURL.rfind("http://127.0.0.1:", 0), 0u);

  auto again = emulatorRequest("POST", "/emulator/apps",
                               nlohmann::json{{"appID", app.appID}, {"appKey", app.appKey}}.dump());
  EXPECT_EQ(again.status, 201) << "the same ID with the same key is accepted";
  auto other = emulatorRequest("POST", "/emulator/apps",
                               nlohmann::json{{"appID", app.appID}, {"appKey", "other"}}.dump());
  EXPECT_EQ(other.status, 409);
  auto badID = emulatorRequest("POST", "/emulator/apps",
                               nlohmann::json{{"appID", "a/b"}, {"appKey", "k"}}.dump());
  EXPECT_EQ(badID.status, 400);
  EXPECT_EQ(badID.errorCode(), "INVALID_INPUT_DATA");

  EXPECT_EQ(emulatorRequest("GET", "/emulator/apps/no-such-app/outbox").errorCode(),
            "APP_NOT_FOUND");
  EXPECT_TRUE(emulator.outbox(app.appID).empty());
}

TEST(EmulatorApps, ApplicationHeadersAreChecked) {
  auto app = Emulator::shared().newApp();
  EmulatorClient client(app);
  auto [record, token] = client.newUser();
  const std::string path = "/api/apps/" + app.appID + "/users/me";
  httplib::Headers bearer{{"Authorization", "Bearer " + token}};

  auto noHeaders = emulatorRequest("GET", path, "", kJson, bearer);
  EXPECT_EQ(noHeaders.status, 404);
  EXPECT_EQ(noHeaders.errorCode(), "APP_NOT_FOUND");
  EXPECT_TRUE(noHeaders.body.contains("message"));

  auto wrongKey = bearer;
  wrongKey.emplace("X-Jov-AppID", app.appID);
  wrongKey.emplace("X-Jov-AppKey", "wrong");
  EXPECT_EQ(emulatorRequest("GET", path, "", kJson, wrongKey).errorCode(), "APP_NOT_FOUND");

  auto lowerCase = bearer;
  lowerCase.emplace("x-jov-appid", app.appID);
  lowerCase.emplace("x-jov-appkey", app.appKey);
  EXPECT_EQ(emulatorRequest("GET", path, "", kJson, lowerCase).status, 200)
      << "header names are case-insensitive";

  // Headers of one application do not open another one's routes.
  auto other = Emulator::shared().newApp();
  auto foreign = bearer;
  foreign.emplace("X-Jov-AppID", other.appID);
  foreign.emplace("X-Jov-AppKey", other.appKey);
  EXPECT_EQ(emulatorRequest("GET", path, "", kJson, foreign).errorCode(), "APP_NOT_FOUND");
  // ... and a token of one application is unknown to another.
  EXPECT_EQ(EmulatorClient(other).get("/users/me", token).errorCode(), "WRONG_TOKEN");
}

TEST(EmulatorApps, AccessTokens) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [record, token] = client.newUser();

  auto missing = client.get("/users/me", "");
  EXPECT_EQ(missing.status, 401);
  EXPECT_EQ(missing.errorCode(), "UNAUTHORIZED");

  auto unknown = client.get("/users/me", "not-a-token");
  EXPECT_EQ(unknown.status, 403);
  EXPECT_EQ(unknown.errorCode(), "WRONG_TOKEN");

  // A token asked to expire shortly is honoured, then refused as expired (not as unknown,
  // which would log the client out).
  auto expiresAt = nowMs() + 300;
  auto shortLived = client.sendJson(
      "POST", "/oauth2/token",
      {{"username", record["loginName"]}, {"password", "pass1234"}, {"expiresAt", expiresAt}},
      kJson);
  ASSERT_EQ(shortLived.status, 200) << shortLived.raw;
  EXPECT_EQ(shortLived.body["expires_in"], 1);
  std::this_thread::sleep_until(std::chrono::system_clock::time_point(
      std::chrono::milliseconds(expiresAt + 5)));  // waits for the clock, not for work
  auto expired = client.get("/users/me", shortLived.body["access_token"]);
  EXPECT_EQ(expired.status, 401);
  EXPECT_EQ(expired.errorCode(), "UNAUTHORIZED");
  EXPECT_EQ(expired.body["message"], "The access token has expired");

  auto past = client.sendJson(
      "POST", "/oauth2/token",
      {{"username", record["loginName"]}, {"password", "pass1234"}, {"expiresAt", nowMs() - 1000}},
      kJson);
  EXPECT_EQ(past.status, 400);
  EXPECT_EQ(client.get("/users/me", token).status, 200) << "the first token still works";
}

TEST(EmulatorApps, RefreshTokens) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [record, token] = client.newUser();
  auto first = client.login(record["loginName"], "pass1234");
  ASSERT_TRUE(first.contains("refresh_token"));

  auto refresh = [&](const nlohmann::json& body) {
    return client.sendJson("POST", "/oauth2/token", body, kJson);
  };
  auto second = refresh({{"grant_type", "refresh_token"},
                         {"refresh_token", first["refresh_token"]},
                         {"expiresAt", nowMs() + 3600 * 1000}});
  ASSERT_EQ(second.status, 200) << second.raw;
  EXPECT_EQ(second.body["id"], record["userID"]);
  EXPECT_EQ(second.body["token_type"], "Bearer");
  EXPECT_NEAR(second.body["expires_in"].get<double>(), 3600, 2);
  EXPECT_NE(second.body["refresh_token"], first["refresh_token"]);
  EXPECT_EQ(client.get("/users/me", second.body["access_token"]).body["userID"], record["userID"]);

  auto reused =
      refresh({{"grant_type", "refresh_token"}, {"refresh_token", first["refresh_token"]}});
  EXPECT_EQ(reused.status, 400);
  EXPECT_EQ(reused.errorCode(), "invalid_grant");
  EXPECT_TRUE(reused.body.contains("error_description"));

  EXPECT_EQ(refresh({{"grant_type", "refresh_token"}, {"refresh_token", "nope"}}).errorCode(),
            "invalid_grant");
  EXPECT_EQ(refresh({{"grant_type", "client_credentials"}}).status, 400);
  auto third =
      refresh({{"grant_type", "refresh_token"}, {"refresh_token", second.body["refresh_token"]}});
  EXPECT_EQ(third.status, 200) << "the rotated refresh token works once";
}

}  // namespace
}  // namespace jovtest
