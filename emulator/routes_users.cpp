// Reading, updating and deleting users: /users/{id} and the lookups by identifier.
#include <algorithm>
#include <cctype>

#include "acl_store.hpp"
#include "api_error.hpp"
#include "crypto.hpp"
#include "group_store.hpp"
#include "outbox_store.hpp"
#include "push_store.hpp"
#include "service.hpp"
#include "thing_store.hpp"
#include "token_store.hpp"
#include "user_fields.hpp"

namespace jovemu {

namespace {

constexpr const char* kUserUpdate = "application/vnd.jov.UserUpdateRequest+json";

bool sameEmail(const std::optional<std::string>& current, const std::string& next) {
  return current && current->size() == next.size() &&
         std::equal(next.begin(), next.end(), current->begin(), [](char a, char b) {
           return std::tolower(static_cast<unsigned char>(a)) ==
                  std::tolower(static_cast<unsigned char>(b));
         });
}

// A new e-mail address or phone number set directly starts unverified, and its code goes out.
void replaceEmail(Connection& conn, UserRow& user, const std::string& email, std::int64_t now) {
  user.email = email;
  user.emailVerified = false;
  user.emailPending.reset();
  sendCode(conn, user.appID, user.userID, kEmailVerification, kChannelEmail, email, now);
}

void replacePhone(Connection& conn, UserRow& user, const std::string& phone, std::int64_t now) {
  user.phone = phone;
  user.phoneVerified = false;
  user.phonePending.reset();
  sendCode(conn, user.appID, user.userID, kPhoneVerification, kChannelSms, phone, now);
}

nlohmann::json updateUserFrom(Service& service, Call& call, const std::string& appID,
                              const nlohmann::json& body) {
  auto ids = readIdentityFields(body);
  auto password = readPassword(body, "password", "password");
  std::optional<std::string> newHash;
  if (password) newHash = hashPassword(*password);  // slow: outside the store's lock

  return service.db.transaction([&](Connection& conn) {
    auto caller = service.requireUser(call, conn, appID);
    auto user = requireSelf(conn, appID, call.param(1), caller);
    if (newHash && user.passwordHash) {
      throw invalidInput(
          "There are validation errors: password - only a pseudo user gets a password this way");
    }
    applyProfileFields(body, user);
    requireIdentifiersFree(conn, user, ids);
    auto now = Service::now();
    if (ids.loginName) user.loginName = ids.loginName;
    if (ids.email && !sameEmail(user.email, *ids.email)) replaceEmail(conn, user, *ids.email, now);
    if (ids.phone && user.phone != ids.phone) replacePhone(conn, user, *ids.phone, now);
    if (newHash) {
      // This is how a pseudo user becomes a registered one: it needs something to log in with.
      if (!user.hasIdentifier()) {
        throw invalidInput(
            "There are validation errors: loginName, emailAddress or phoneNumber is required");
      }
      user.passwordHash = newHash;
    }
    requireCountryForLocalPhone(user);
    user.modified = now;
    updateUser(conn, user);
    return userRecord(user);
  });
}

}  // namespace

void addUserRoutes(Router& router, Service& service) {
  addApiRoute(router, service, "GET", "/users/{}",
              [&service](Call& call, const std::string& appID) {
                auto record = service.db.transaction([&](Connection& conn) {
                  auto caller = service.requireUser(call, conn, appID);
                  return userRecord(resolveUserPath(conn, appID, call.param(1), caller));
                });
                call.reply(200, record);
              });

  addApiRoute(router, service, "POST", "/users/{}",
              [&service](Call& call, const std::string& appID) {
                call.requireMediaType({kUserUpdate});
                auto body = call.jsonObject();
                call.reply(200, updateUserFrom(service, call, appID, body));
              });

  addApiRoute(router, service, "DELETE", "/users/{}",
              [&service](Call& call, const std::string& appID) {
                service.db.transaction([&](Connection& conn) {
                  auto caller = service.requireUser(call, conn, appID);
                  auto user = requireSelf(conn, appID, call.param(1), caller);
                  removeUserFromGroups(conn, appID, user.userID);
                  dropScopeBuckets(conn, appID, ScopeKind::User, user.userID);
                  forgetSubject(conn, appID, "UserID:" + user.userID);
                  forgetThingOwner(conn, appID, "UserID:" + user.userID);
                  forgetSubscriber(conn, appID, "users/" + user.userID);
                  dropScopeTopics(conn, appID, {ScopeKind::User, user.userID});
                  dropUserCodes(conn, appID, user.userID);
                  revokeUserTokens(conn, appID, user.userID);
                  deleteUserRow(conn, appID, user.userID);
                });
                call.replyNoContent();
              });
}

}  // namespace jovemu
