// Passwords: change with the old one, and the two-step reset with a PIN code.
#include "api_error.hpp"
#include "crypto.hpp"
#include "outbox_store.hpp"
#include "service.hpp"
#include "user_fields.hpp"

namespace jovemu {

namespace {

constexpr const char* kChangePassword = "application/vnd.jov.ChangePasswordRequest+json";
constexpr const char* kResetPassword = "application/vnd.jov.ResetPasswordRequest+json";
constexpr const char* kCompleteReset = "application/vnd.jov.CompletePasswordResetRequest+json";

UserRow findResetUser(Connection& conn, const std::string& appID, const std::string& identifier) {
  auto user = findByIdentifier(conn, appID, identifier);
  if (!user) throw userNotFound();
  return *user;
}

// The required "newPassword"; `label` names it in a validation message.
std::string requireNewPassword(const nlohmann::json& body, const char* label) {
  auto newPassword = readPassword(body, "newPassword", label);
  if (!newPassword) {
    throw invalidInput("There are validation errors: newPassword - must not be null");
  }
  return *newPassword;
}

void changePassword(Service& service, Call& call, const std::string& appID) {
  call.requireMediaType({kChangePassword});
  auto body = call.jsonObject();
  auto oldPassword = requiredString(body, "oldPassword");
  auto newHash = hashPassword(requireNewPassword(body, "newPassword"));
  service.db.transaction([&](Connection& conn) {
    auto caller = service.requireUser(call, conn, appID);
    auto user = requireSelf(conn, appID, call.param(1), caller);
    if (!user.passwordHash || !verifyPassword(oldPassword, *user.passwordHash)) {
      throw ApiError(403, "WRONG_PASSWORD", "The old password is not correct");
    }
    user.passwordHash = newHash;
    user.modified = Service::now();
    updateUser(conn, user);
  });
  call.replyNoContent();
}

void requestReset(Service& service, Call& call, const std::string& appID) {
  // The older form of this request has no body at all, which means an e-mail.
  nlohmann::json body = nlohmann::json::object();
  if (call.hasBody()) {
    call.requireMediaType({kResetPassword});
    body = call.jsonObject();
  }
  auto method = optionalString(body, "notificationMethod").value_or("EMAIL");
  if (method != "EMAIL" && method != "SMS") {
    throw invalidInput("There are validation errors: notificationMethod - must be EMAIL or SMS");
  }
  auto smsMethod = optionalString(body, "smsResetMethod");
  if (smsMethod && *smsMethod != "PIN" && *smsMethod != "URL") {
    throw invalidInput("There are validation errors: smsResetMethod - must be PIN or URL");
  }
  service.db.transaction([&](Connection& conn) {
    auto user = findResetUser(conn, appID, call.param(1));
    auto now = Service::now();
    if (method == "EMAIL") {
      if (!user.email || !user.emailVerified) {
        throw invalidStatus("The user has no verified e-mail address");
      }
      sendCode(conn, appID, user.userID, kPasswordReset, kChannelEmail, *user.email, now);
    } else {
      if (!user.phone || !user.phoneVerified) {
        throw invalidStatus("The user has no verified phone number");
      }
      sendCode(conn, appID, user.userID, kPasswordReset, kChannelSms, *user.phone, now);
    }
  });
  call.replyNoContent();
}

void completeReset(Service& service, Call& call, const std::string& appID) {
  call.requireMediaType({kCompleteReset});
  auto body = call.jsonObject();
  auto pinCode = requiredString(body, "pinCode");
  // The client matches these messages (lower-cased): keep their wording.
  auto newPassword = requireNewPassword(body, "password");
  auto newHash = hashPassword(newPassword);
  service.db.transaction([&](Connection& conn) {
    auto user = findResetUser(conn, appID, call.param(1));
    if (!(user.email && user.emailVerified) && !(user.phone && user.phoneVerified)) {
      throw invalidStatus("The user has no verified e-mail address or phone number");
    }
    auto stored = findCode(conn, appID, user.userID, kPasswordReset);
    if (!stored || stored->code != pinCode) {
      throw ApiError(403, "INVALID_VERIFICATION_CODE", "The PIN code is not correct");
    }
    auto now = Service::now();
    if (stored->used || now - stored->createdAt > service.settings.pinLifetimeMs) {
      throw ApiError(410, "PIN_CODE_EXPIRED", "The PIN code has expired");
    }
    if (user.passwordHash && verifyPassword(newPassword, *user.passwordHash)) {
      throw invalidInput("The new password cannot be the same as the old one");
    }
    markCodeUsed(conn, appID, user.userID, kPasswordReset);
    user.passwordHash = newHash;
    user.modified = now;
    updateUser(conn, user);
  });
  call.replyNoContent();
}

}  // namespace

void addPasswordRoutes(Router& router, Service& service) {
  addApiRoute(
      router, service, "PUT", "/users/{}/password",
      [&service](Call& call, const std::string& appID) { changePassword(service, call, appID); });
  addApiRoute(
      router, service, "POST", "/users/{}/password/request-reset",
      [&service](Call& call, const std::string& appID) { requestReset(service, call, appID); });
  addApiRoute(
      router, service, "POST", "/users/{}/password/complete-reset",
      [&service](Call& call, const std::string& appID) { completeReset(service, call, appID); });
}

}  // namespace jovemu
