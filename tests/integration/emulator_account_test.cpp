// Account maintenance: lookups, updates, passwords and their reset, addresses, deletion.
#include <gtest/gtest.h>

#include "emulator_fixture.hpp"

namespace jovtest {
namespace {

using nlohmann::json;

const char* kUpdate = "application/vnd.jov.UserUpdateRequest+json";
const char* kVerify = "application/vnd.jov.AddressVerificationRequest+json";

std::string idOf(const json& record) {
  return record["userID"].get<std::string>();
}

TEST(EmulatorAccount, LookupsAndUpdates) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [erin, token] = client.newUser(R"({"loginName": "erin", "emailAddress": "erin+x@example.com",
      "phoneNumber": "+12025550123", "level": 1})"_json);
  auto [other, otherToken] = client.newUser();
  auto update = [&](const std::string& id, const json& body, const std::string& as) {
    return client.sendJson("POST", "/users/" + id, body, kUpdate, as);
  };

  for (const std::string& path : {"/users/" + idOf(erin), std::string("/users/LOGIN_NAME:erin"),
                                  "/users/EMAIL:" + percentEncode("erin+x@example.com"),
                                  "/users/PHONE:" + percentEncode("+12025550123")}) {
    auto reply = client.get(path, otherToken);
    EXPECT_EQ(reply.status, 200) << path;
    EXPECT_EQ(reply.body["userID"], erin["userID"]) << path;
  }
  auto unknown = client.get("/users/LOGIN_NAME:nobody", token);
  EXPECT_EQ(unknown.status, 404);
  EXPECT_EQ(unknown.errorCode(), "USER_NOT_FOUND");
  EXPECT_EQ(client.get("/users/no-such-id", token).errorCode(), "USER_NOT_FOUND");

  // null removes a custom field
  const auto changes =
      R"({"displayName": "Erin", "country": "DE", "level": null, "badge": "gold"})"_json;
  auto updated = update(idOf(erin), changes, token);
  ASSERT_EQ(updated.status, 200) << updated.raw;
  expectFields(updated.body, changes);
  EXPECT_EQ(client.get("/users/me", token).body["badge"], "gold");

  EXPECT_EQ(update(idOf(erin), {{"displayName", "X"}}, otherToken).status, 403);
  EXPECT_EQ(update("no-such-id", {{"displayName", "X"}}, token).errorCode(), "USER_NOT_FOUND");
  auto taken = update("me", {{"loginName", other["loginName"]}}, token);
  EXPECT_EQ(taken.status, 409);
  EXPECT_EQ(taken.errorCode(), "USER_ALREADY_EXISTS");
  EXPECT_EQ(update("me", {{"country", "Germany"}}, token).status, 400);
  EXPECT_EQ(client.get("/users/me", token).body["country"], "DE")
      << "a refused update changes nothing";
}

TEST(EmulatorAccount, ChangePassword) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [user, token] = client.newUser({{"loginName", "frank"}});
  auto change = [&](const std::string& oldPassword, const std::string& newPassword) {
    return client.sendJson("PUT", "/users/" + idOf(user) + "/password",
                           {{"oldPassword", oldPassword}, {"newPassword", newPassword}},
                           "application/vnd.jov.ChangePasswordRequest+json", token);
  };
  auto wrongOld = change("nope1234", "newpass1");
  EXPECT_EQ(wrongOld.status, 403);
  EXPECT_FALSE(wrongOld.errorCode().empty());
  auto invalid = change("pass1234", "no");
  EXPECT_EQ(invalid.status, 400);
  EXPECT_EQ(invalid.errorCode(), "INVALID_INPUT_DATA");
  EXPECT_EQ(change("pass1234", "newpass1").status, 204);
  EXPECT_EQ(client.login("frank", "newpass1")["id"], user["userID"]);
  auto old = client.sendJson("POST", "/oauth2/token",
                             {{"username", "frank"}, {"password", "pass1234"}}, "application/json");
  EXPECT_EQ(old.errorCode(), "invalid_grant");
}

TEST(EmulatorAccount, EmailAndPhoneVerification) {
  auto& emulator = Emulator::shared();
  auto app = emulator.newApp();
  EmulatorClient client(app);
  auto [user, token] =
      client.newUser({{"emailAddress", "gina@example.com"}, {"phoneNumber", "+33612345678"}});
  auto [other, otherToken] = client.newUser({{"emailAddress", "taken@example.com"}});
  // method and path under /users/{id}, body, media type, and the caller's token
  auto call = [&](const char* method, const std::string& path, const json& body = nullptr,
                  const char* type = "", const std::string& as = "") {
    return client.send(method, "/users/" + idOf(user) + path, body.is_null() ? "" : body.dump(),
                       type, as.empty() ? token : as);
  };
  auto verify = [&](const char* kind, const std::string& code, const std::string& as = "") {
    return call("POST", std::string("/") + kind + "/verify", {{"verificationCode", code}}, kVerify,
                as);
  };
  const char* kEmailChange = "application/vnd.jov.EmailAddressModificationRequest+json";
  const char* kPhoneChange = "application/vnd.jov.PhoneNumberModificationRequest+json";

  auto phoneCode = emulator.lastCode(app.appID, idOf(user), "PHONE_VERIFICATION");
  ASSERT_TRUE(phoneCode);
  auto wrong = verify("phone-number", "000000x");
  EXPECT_TRUE(wrong.status == 400 || wrong.status == 403) << wrong.raw;
  EXPECT_FALSE(wrong.errorCode().empty());
  EXPECT_EQ(verify("phone-number", *phoneCode).status, 204);
  EXPECT_EQ(client.get("/users/me", token).body["phoneNumberVerified"], true);
  EXPECT_EQ(call("POST", "/phone-number/resend-verification").status, 409)
      << "nothing is left to verify";

  auto change = [&](const std::string& address) {
    return call("PUT", "/email-address", {{"emailAddress", address}}, kEmailChange);
  };
  EXPECT_EQ(change("taken@example.com").errorCode(), "USER_ALREADY_EXISTS");
  EXPECT_EQ(change("new@example.com").status, 204);
  auto pending = client.get("/users/me", token).body;
  EXPECT_EQ(pending["emailAddress"], "gina@example.com");
  EXPECT_EQ(pending["_emailAddressPending"], "new@example.com");
  EXPECT_EQ(emulator.outbox(app.appID).back()["to"], "new@example.com");

  EXPECT_EQ(call("POST", "/email-address/resend-verification").status, 204);
  auto emailCode = emulator.lastCode(app.appID, idOf(user), "EMAIL_VERIFICATION");
  ASSERT_TRUE(emailCode);
  EXPECT_EQ(verify("email-address", *emailCode, otherToken).status, 403)
      << "only the user itself verifies";
  EXPECT_EQ(verify("email-address", *emailCode).status, 204);
  auto verified = client.get("/users/me", token).body;
  EXPECT_EQ(verified["emailAddress"], "new@example.com");
  EXPECT_EQ(verified["emailAddressVerified"], true);
  EXPECT_FALSE(verified.contains("_emailAddressPending"));

  EXPECT_EQ(call("PUT", "/phone-number", {{"phoneNumber", "+33699999999"}}, kPhoneChange).status,
            204);
  EXPECT_EQ(client.get("/users/me", token).body["_phoneNumberPending"], "+33699999999");
  EXPECT_EQ(emulator.outbox(app.appID).back()["channel"], "SMS");
  EXPECT_EQ(call("PUT", "/phone-number", {{"phoneNumber", "12-34"}}, kPhoneChange).status, 400);
}

TEST(EmulatorAccount, PasswordReset) {
  auto& emulator = Emulator::shared();
  auto app = emulator.newApp();
  EmulatorClient client(app);
  auto [user, token] =
      client.newUser({{"emailAddress", "hana@example.com"}, {"phoneNumber", "+81801112222"}});
  const std::string byEmail = "/users/EMAIL:" + percentEncode("hana@example.com") + "/password";
  auto request = [&](const std::string& path, const json& body) {
    return client.sendJson("POST", path + "/request-reset", body,
                           "application/vnd.jov.ResetPasswordRequest+json");
  };
  auto complete = [&](const json& body) {
    return client.sendJson("POST", byEmail + "/complete-reset", body,
                           "application/vnd.jov.CompletePasswordResetRequest+json");
  };

  auto unverified = request(byEmail, {{"notificationMethod", "EMAIL"}});
  EXPECT_EQ(unverified.status, 409);
  EXPECT_EQ(unverified.errorCode(), "INVALID_STATUS");
  EXPECT_EQ(complete({{"pinCode", "123456"}, {"newPassword", "fresh123"}}).errorCode(),
            "INVALID_STATUS");

  auto code = emulator.lastCode(app.appID, idOf(user), "EMAIL_VERIFICATION");
  ASSERT_TRUE(code);
  auto verified = client.sendJson("POST", "/users/me/email-address/verify",
                                  {{"verificationCode", *code}}, kVerify, token);
  ASSERT_EQ(verified.status, 204);

  EXPECT_EQ(request("/users/EMAIL:nobody%40example.com/password", json::object()).errorCode(),
            "USER_NOT_FOUND");
  EXPECT_EQ(request(byEmail, {{"notificationMethod", "PIGEON"}}).errorCode(), "INVALID_INPUT_DATA");
  EXPECT_EQ(request("/users/PHONE:" + percentEncode("+81801112222") + "/password",
                    {{"notificationMethod", "SMS"}, {"smsResetMethod", "PIN"}})
                .errorCode(),
            "INVALID_STATUS")
      << "the phone number is not verified";
  EXPECT_EQ(client.send("POST", byEmail + "/request-reset", "", "").status, 204)
      << "the older form has no body";
  EXPECT_EQ(request("/users/" + idOf(user) + "/password", {{"notificationMethod", "EMAIL"}}).status,
            204);
  auto message = emulator.outbox(app.appID).back();
  EXPECT_EQ(message["kind"], "PASSWORD_RESET");
  EXPECT_EQ(message["channel"], "EMAIL");
  EXPECT_EQ(message["to"], "hana@example.com");
  std::string pin = message["code"];

  auto wrongPin = complete({{"pinCode", pin + "9"}, {"newPassword", "fresh123"}});
  EXPECT_EQ(wrongPin.status, 403);
  EXPECT_EQ(wrongPin.errorCode(), "INVALID_VERIFICATION_CODE");
  auto noPassword = complete({{"pinCode", pin}});
  EXPECT_EQ(noPassword.status, 400);
  EXPECT_EQ(noPassword.body["message"],
            "There are validation errors: newPassword - must not be null");
  EXPECT_EQ(complete({{"pinCode", pin}, {"newPassword", "abc"}}).body["message"],
            "There are validation errors: password - must be 4-50 printable ASCII characters");
  auto same = complete({{"pinCode", pin}, {"newPassword", "pass1234"}});
  EXPECT_EQ(same.errorCode(), "INVALID_INPUT_DATA");
  EXPECT_EQ(same.body["message"], "The new password cannot be the same as the old one");

  EXPECT_EQ(complete({{"pinCode", pin}, {"newPassword", "fresh123"}}).status, 204);
  EXPECT_EQ(client.login(user["loginName"], "fresh123")["id"], user["userID"]);
  auto reused = complete({{"pinCode", pin}, {"newPassword", "fresh456"}});
  EXPECT_EQ(reused.status, 410);
  EXPECT_EQ(reused.errorCode(), "PIN_CODE_EXPIRED");
}

TEST(EmulatorAccount, DeleteUser) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [owner, ownerToken] = client.newUser();
  auto [user, token] = client.newUser();
  auto created =
      client.sendJson("PUT", "/groups/club",
                      {{"name", "Club"}, {"owner", owner["userID"]}, {"members", {user["userID"]}}},
                      "application/vnd.jov.GroupCreationRequest+json", ownerToken);
  ASSERT_EQ(created.status, 201);

  EXPECT_EQ(client.send("DELETE", "/users/" + idOf(user), "", "", ownerToken).status, 403);
  EXPECT_EQ(client.send("DELETE", "/users/" + idOf(user), "", "", token).status, 204);
  EXPECT_EQ(client.get("/users/me", token).errorCode(), "WRONG_TOKEN");
  EXPECT_EQ(client.get("/users/" + idOf(user), ownerToken).errorCode(), "USER_NOT_FOUND");
  EXPECT_EQ(client.get("/groups/club/members", ownerToken).body["members"],
            json::array({{{"userID", owner["userID"]}}}))
      << "a deleted user leaves its groups";
  auto login = client.sendJson("POST", "/oauth2/token",
                               {{"username", user["loginName"]}, {"password", "pass1234"}},
                               "application/json");
  EXPECT_EQ(login.errorCode(), "invalid_grant");
}

}  // namespace
}  // namespace jovtest
