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

  auto add = [](const std::string& appID, const std::string& appKey) {
    return emulatorRequest("POST", "/emulator/apps",
                           nlohmann::json{{"appID", appID}, {"appKey", appKey}}.dump());
  };
  EXPECT_EQ(add(app.appID, app.appKey).status, 201) << "the same ID with the same key is accepted";
  EXPECT_EQ(add(app.appID, "other").status, 409);
  auto badID = add("a/b", "k");
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

  auto with = [&](httplib::Headers headers) {
    headers.emplace("Authorization", "Bearer " + token);
    return emulatorRequest("GET", path, "", "application/json", headers);
  };
  auto noHeaders = with({});
  EXPECT_EQ(noHeaders.status, 404);
  EXPECT_EQ(noHeaders.errorCode(), "APP_NOT_FOUND");
  EXPECT_TRUE(noHeaders.body.contains("message"));
  EXPECT_EQ(with({{"X-Jov-AppID", app.appID}, {"X-Jov-AppKey", "wrong"}}).errorCode(),
            "APP_NOT_FOUND");
  EXPECT_EQ(with({{"x-jov-appid", app.appID}, {"x-jov-appkey", app.appKey}}).status, 200)
      << "header names are case-insensitive";

  // Headers of one application do not open another one's routes.
  auto other = Emulator::shared().newApp();
  EXPECT_EQ(with({{"X-Jov-AppID", other.appID}, {"X-Jov-AppKey", other.appKey}}).errorCode(),
            "APP_NOT_FOUND");
  // ... and a token of one application is unknown to another.
  EXPECT_EQ(EmulatorClient(other).get("/users/me", token).errorCode(), "WRONG_TOKEN");
}

TEST(EmulatorApps, AccessTokens) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [record, token] = client.newUser();
  auto loginUntil = [&](std::int64_t expiresAt) {
    return client.sendJson(
        "POST", "/oauth2/token",
        {{"username", record["loginName"]}, {"password", "pass1234"}, {"expiresAt", expiresAt}},
        kJson);
  };

  auto missing = client.get("/users/me", "");
  EXPECT_EQ(missing.status, 401);
  EXPECT_EQ(missing.errorCode(), "UNAUTHORIZED");
  auto unknown = client.get("/users/me", "not-a-token");
  EXPECT_EQ(unknown.status, 403);
  EXPECT_EQ(unknown.errorCode(), "WRONG_TOKEN");

  // A token asked to expire shortly is honoured, then refused as expired (not as unknown,
  // which would log the client out).
  auto expiresAt = nowMs() + 300;
  auto shortLived = loginUntil(expiresAt);
  ASSERT_EQ(shortLived.status, 200) << shortLived.raw;
  EXPECT_EQ(shortLived.body["expires_in"], 1);
  std::this_thread::sleep_until(std::chrono::system_clock::time_point(
      std::chrono::milliseconds(expiresAt + 5)));  // waits for the clock, not for work
  auto expired = client.get("/users/me", shortLived.body["access_token"]);
  EXPECT_EQ(expired.status, 401);
  EXPECT_EQ(expired.errorCode(), "UNAUTHORIZED");
  EXPECT_EQ(expired.body["message"], "The access token has expired");

  EXPECT_EQ(loginUntil(nowMs() - 1000).status, 400);
  EXPECT_EQ(client.get("/users/me", token).status, 200) << "the first token still works";
}

TEST(EmulatorApps, RefreshTokens) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [record, token] = client.newUser();
  auto first = client.login(record["loginName"], "pass1234");
  ASSERT_TRUE(first.contains("refresh_token"));
  auto refresh = [&](const nlohmann::json& refreshToken, nlohmann::json body = {}) {
    body["grant_type"] = "refresh_token";
    body["refresh_token"] = refreshToken;
    return client.sendJson("POST", "/oauth2/token", body, kJson);
  };

  auto second = refresh(first["refresh_token"], {{"expiresAt", nowMs() + 3600 * 1000}});
  ASSERT_EQ(second.status, 200) << second.raw;
  EXPECT_EQ(second.body["id"], record["userID"]);
  EXPECT_EQ(second.body["token_type"], "Bearer");
  EXPECT_NEAR(second.body["expires_in"].get<double>(), 3600, 2);
  EXPECT_NE(second.body["refresh_token"], first["refresh_token"]);
  EXPECT_EQ(client.get("/users/me", second.body["access_token"]).body["userID"], record["userID"]);

  auto reused = refresh(first["refresh_token"]);
  EXPECT_EQ(reused.status, 400);
  EXPECT_EQ(reused.errorCode(), "invalid_grant");
  EXPECT_TRUE(reused.body.contains("error_description"));
  EXPECT_EQ(refresh("nope").errorCode(), "invalid_grant");
  EXPECT_EQ(client.sendJson("POST", "/oauth2/token", {{"grant_type", "client_credentials"}}, kJson)
                .status,
            400);
  EXPECT_EQ(refresh(second.body["refresh_token"]).status, 200)
      << "the rotated refresh token works once";
}

}  // namespace
}  // namespace jovtest
