// Registration (with a password, and pseudo users) and the password login.
#include <gtest/gtest.h>

#include "emulator_fixture.hpp"

namespace jovtest {
namespace {

const char* kRegistration = "application/vnd.jov.RegistrationRequest+json";
const char* kPseudo = "application/vnd.jov.RegistrationAndAuthorizationRequest+json";
const char* kUpdate = "application/vnd.jov.UserUpdateRequest+json";

TEST(EmulatorRegistration, RecordAndVerificationCodes) {
  auto& emulator = Emulator::shared();
  auto app = emulator.newApp();
  EmulatorClient client(app);
  auto record = client.registerUser(R"({"loginName": "alice", "password": "secret12",
      "emailAddress": "alice@example.com", "phoneNumber": "+81901234567", "country": "JP",
      "displayName": "Alice", "locale": "ja-JP", "favourite": {"colour": "blue"}, "_internal": 1})"_json);
  EXPECT_FALSE(record.value("userID", "").empty());
  EXPECT_GT(record.value("_created", 0LL), 1600000000000);
  // Custom fields are kept; keys beginning with _ are the service's; no password.
  expectFields(record, R"({"loginName": "alice", "emailAddress": "alice@example.com",
      "emailAddressVerified": false, "phoneNumber": "+81901234567", "phoneNumberVerified": false,
      "country": "JP", "locale": "ja-JP", "displayName": "Alice", "_hasPassword": true,
      "_disabled": false, "_thirdPartyAccounts": {}, "favourite": {"colour": "blue"},
      "_internal": null, "password": null})"_json);
  EXPECT_EQ(record.dump().find("secret12"), std::string::npos);

  auto messages = emulator.outbox(app.appID);
  ASSERT_EQ(messages.size(), 2u);
  expectFields(messages[0],
               {{"kind", "EMAIL_VERIFICATION"}, {"channel", "EMAIL"}, {"to", "alice@example.com"}});
  expectFields(messages[1], {{"kind", "PHONE_VERIFICATION"}, {"channel", "SMS"}});
  expectFields(messages[1], {{"to", "+81901234567"}, {"userID", record["userID"]}});
  EXPECT_EQ(messages[1].value("code", "").size(), 6u);

  EXPECT_EQ(emulatorRequest("DELETE", "/emulator/apps/" + app.appID + "/outbox").status, 204);
  EXPECT_TRUE(emulator.outbox(app.appID).empty());
}

TEST(EmulatorRegistration, RefusedRegistrations) {
  EmulatorClient client(Emulator::shared().newApp());
  client.registerUser({{"loginName", "bob"},
                       {"password", "secret12"},
                       {"emailAddress", "bob@example.com"},
                       {"phoneNumber", "+15550001111"}});
  auto post = [&](const nlohmann::json& body, const char* type = kRegistration) {
    return client.sendJson("POST", "/users", body, type);
  };
  for (const auto& taken :
       {nlohmann::json{{"loginName", "BOB"}}, nlohmann::json{{"emailAddress", "Bob@Example.com"}},
        nlohmann::json{{"phoneNumber", "+15550001111"}}}) {
    auto body = taken;
    body["password"] = "secret12";
    auto reply = post(body);
    EXPECT_EQ(reply.status, 409) << body;
    EXPECT_EQ(reply.errorCode(), "USER_ALREADY_EXISTS") << body;
  }
  // No password, no identifier, a bad password or name, a local phone number without country.
  for (const char* body :
       {R"({"loginName": "carol"})", R"({"password": "secret12", "displayName": "Nobody"})",
        R"({"loginName": "carol", "password": "abc"})",
        R"({"loginName": "carol", "password": "pässword"})",
        R"({"loginName": "c", "password": "secret12"})",
        R"({"phoneNumber": "0312345678", "password": "secret12"})"}) {
    auto reply = post(nlohmann::json::parse(body));
    EXPECT_EQ(reply.status, 400) << body;
    EXPECT_EQ(reply.errorCode(), "INVALID_INPUT_DATA") << body;
  }
  EXPECT_EQ(post({{"loginName", "carol"}, {"password", "secret12"}}, "text/plain").status, 415);
  EXPECT_EQ(post({{"loginName", "carol"}, {"password", "secret12"}}).status, 201)
      << "nothing above was stored";
}

TEST(EmulatorRegistration, PseudoUserAndUpgrade) {
  EmulatorClient client(Emulator::shared().newApp());
  auto pseudo =
      client.sendJson("POST", "/users", {{"displayName", "Guest"}, {"score", 3}}, kPseudo);
  ASSERT_EQ(pseudo.status, 201) << pseudo.raw;
  EXPECT_FALSE(pseudo.body.contains("_hasPassword")) << "a pseudo user has no such key at all";
  EXPECT_EQ(pseudo.body["score"], 3);
  std::string token = pseudo.body.value("_accessToken", "");
  ASSERT_FALSE(token.empty());
  EXPECT_TRUE(pseudo.body.contains("_refreshToken"));

  auto me = client.get("/users/me", token);
  EXPECT_EQ(me.body["userID"], pseudo.body["userID"]);
  EXPECT_FALSE(me.body.contains("_hasPassword"));

  EXPECT_EQ(client.sendJson("POST", "/users", {{"password", "secret12"}}, kPseudo).status, 400);
  EXPECT_EQ(client.sendJson("POST", "/users/me", {{"password", "secret12"}}, kUpdate, token).status,
            400)
      << "a password alone leaves nothing to log in with";

  auto upgraded = client.sendJson(
      "POST", "/users/me", {{"loginName", "guest1"}, {"password", "secret12"}}, kUpdate, token);
  ASSERT_EQ(upgraded.status, 200) << upgraded.raw;
  expectFields(upgraded.body, {{"_hasPassword", true}, {"loginName", "guest1"}, {"score", 3}});
  EXPECT_EQ(client.login("guest1", "secret12")["id"], pseudo.body["userID"]);
  EXPECT_EQ(client.sendJson("POST", "/users/me", {{"password", "other123"}}, kUpdate, token).status,
            400)
      << "a password is changed through its own route";
}

TEST(EmulatorRegistration, PasswordLogin) {
  auto app = Emulator::shared().newApp();
  EmulatorClient client(app);
  auto user = client.registerUser(R"({"loginName": "dave", "password": "secret12",
      "emailAddress": "dave@example.com", "phoneNumber": "0312345678", "country": "JP"})"_json);
  auto local = client.registerUser(
      {{"password", "secret34"}, {"phoneNumber", "0312345678"}, {"country", "US"}});
  auto global = client.registerUser({{"password", "secret56"}, {"phoneNumber", "+447700900123"}});

  auto token = client.login("dave", "secret12");
  expectFields(token, {{"id", user["userID"]}, {"token_type", "Bearer"}, {"expires_in", 86400}});
  EXPECT_FALSE(token.value("access_token", "").empty());
  EXPECT_FALSE(token.value("refresh_token", "").empty());
  EXPECT_EQ(client.login("DAVE@example.com", "secret12")["id"], user["userID"]);
  EXPECT_EQ(client.login("PHONE:JP-0312345678", "secret12")["id"], user["userID"]);
  EXPECT_EQ(client.login("PHONE:US-0312345678", "secret34")["id"], local["userID"])
      << "a local number is told apart by its country";
  EXPECT_EQ(client.login("+447700900123", "secret56")["id"], global["userID"]);

  auto attempt = [&](const nlohmann::json& body) {
    return client.sendJson("POST", "/oauth2/token", body, "application/json");
  };
  auto wrong = attempt({{"username", "dave"}, {"password", "secret99"}});
  EXPECT_EQ(wrong.status, 400);
  EXPECT_EQ(wrong.errorCode(), "invalid_grant");
  EXPECT_FALSE(wrong.body.value("error_description", "").empty());
  EXPECT_EQ(attempt({{"username", "nobody"}, {"password", "secret12"}}).errorCode(),
            "invalid_grant");
  EXPECT_EQ(attempt({{"username", "dave"}}).status, 400);

  auto disable = [&](bool disabled) {
    return emulatorRequest(
        "PUT",
        "/emulator/apps/" + app.appID + "/users/" + user["userID"].get<std::string>() + "/disabled",
        nlohmann::json{{"disabled", disabled}}.dump());
  };
  ASSERT_EQ(disable(true).status, 204);
  EXPECT_EQ(attempt({{"username", "dave"}, {"password", "secret12"}}).errorCode(), "invalid_grant");
  EXPECT_EQ(client.get("/users/me", token["access_token"]).body["_disabled"], true);
  EXPECT_EQ(attempt({{"grant_type", "refresh_token"}, {"refresh_token", token["refresh_token"]}})
                .errorCode(),
            "invalid_grant");
  ASSERT_EQ(disable(false).status, 204);
  EXPECT_EQ(attempt({{"username", "dave"}, {"password", "secret12"}}).status, 200);
}

}  // namespace
}  // namespace jovtest
