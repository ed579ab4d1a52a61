// Registration (POST /users) and login (POST /oauth2/token).
#include <cmath>

#include "api_error.hpp"
#include "crypto.hpp"
#include "outbox_store.hpp"
#include "service.hpp"
#include "social_login.hpp"
#include "token_store.hpp"
#include "user_fields.hpp"

namespace jovemu {

namespace {

constexpr const char* kRegistration = "application/vnd.jov.RegistrationRequest+json";
constexpr const char* kPseudoRegistration =
    "application/vnd.jov.RegistrationAndAuthorizationRequest+json";

// Far enough for any client, small enough to stay exact in a double.
constexpr double kLatestExpiry = 4102444800000.0;  // 2100-01-01

ApiError invalidRequest(const std::string& description) {
  return ApiError(400, "invalid_request", description,
                  {{"error", "invalid_request"}, {"error_description", description}});
}

void sendAddressCodes(Connection& conn, const UserRow& user, std::int64_t now) {
  if (user.email) {
    sendCode(conn, user.appID, user.userID, kEmailVerification, kChannelEmail, *user.email, now);
  }
  if (user.phone) {
    sendCode(conn, user.appID, user.userID, kPhoneVerification, kChannelSms, *user.phone, now);
  }
}

void registerUser(Service& service, Call& call, const std::string& appID,
                  const nlohmann::json& body) {
  auto password = readPassword(body, "password", "password");
  if (!password) throw invalidInput("There are validation errors: password - must not be null");
  auto ids = readIdentityFields(body);
  if (!ids.any()) {
    throw invalidInput(
        "There are validation errors: loginName, emailAddress or phoneNumber is required");
  }
  UserRow user;
  user.appID = appID;
  user.userID = newUserID();
  user.loginName = ids.loginName;
  user.email = ids.email;
  user.phone = ids.phone;
  applyProfileFields(body, user);
  requireCountryForLocalPhone(user);
  // Hashing is deliberately slow: done before taking the store's lock.
  user.passwordHash = hashPassword(*password);

  auto record = service.db.transaction([&](Connection& conn) {
    requireIdentifiersFree(conn, user, ids);
    user.created = user.modified = Service::now();
    insertUser(conn, user);
    sendAddressCodes(conn, user, user.created);
    return userRecord(user);
  });
  call.reply(201, record);
}

void registerPseudoUser(Service& service, Call& call, const std::string& appID,
                        const nlohmann::json& body) {
  if (body.contains("password") || readIdentityFields(body).any()) {
    throw invalidInput("A pseudo user has neither a password nor a login name, e-mail or phone");
  }
  UserRow user;
  user.appID = appID;
  user.userID = newUserID();
  applyProfileFields(body, user);

  auto record = service.db.transaction([&](Connection& conn) {
    user.created = user.modified = Service::now();
    insertUser(conn, user);
    // The client keeps a pseudo user's token for good and never refreshes it.
    auto tokens = issueTokens(conn, appID, user.userID, std::nullopt);
    auto out = userRecord(user);
    out["_accessToken"] = tokens.accessToken;
    out["_refreshToken"] = tokens.refreshToken;
    return out;
  });
  call.reply(201, record);
}

std::int64_t tokenExpiry(const Service& service, const nlohmann::json& body, std::int64_t now) {
  auto it = body.find("expiresAt");
  if (it == body.end() || it->is_null()) return now + service.settings.tokenTtlSeconds * 1000;
  if (!it->is_number()) throw invalidRequest("expiresAt must be milliseconds since 1970");
  double requested = std::floor(it->get<double>());
  if (!(requested > static_cast<double>(now))) {
    throw invalidRequest("expiresAt must be in the future");
  }
  return static_cast<std::int64_t>(std::min(requested, kLatestExpiry));
}

nlohmann::json tokenAnswer(const std::string& userID, const IssuedTokens& tokens,
                           std::int64_t now) {
  auto seconds = static_cast<std::int64_t>(
      std::ceil(static_cast<double>(tokens.expiresAt.value_or(now) - now) / 1000.0));
  return {{"id", userID},
          {"access_token", tokens.accessToken},
          {"token_type", "Bearer"},
          {"expires_in", std::max<std::int64_t>(seconds, 1)},
          {"refresh_token", tokens.refreshToken}};
}

void passwordGrant(Service& service, Call& call, const std::string& appID,
                   const nlohmann::json& body) {
  auto username = body.find("username");
  auto password = body.find("password");
  if (username == body.end() || !username->is_string() || password == body.end() ||
      !password->is_string()) {
    throw invalidRequest("username and password are required");
  }
  auto now = Service::now();
  auto expiresAt = tokenExpiry(service, body, now);
  auto found = service.db.transaction([&](Connection& conn) {
    return findByLoginIdentifier(conn, appID, username->get<std::string>());
  });
  // The hash is checked outside the store's lock; the write below re-checks that the password
  // did not change meanwhile.
  if (!found || !found->passwordHash ||
      !verifyPassword(password->get<std::string>(), *found->passwordHash)) {
    throw invalidGrant("The user name or password is incorrect");
  }
  if (found->disabled) throw invalidGrant("The user is disabled");
  auto tokens = service.db.transaction([&](Connection& conn) {
    auto current = findUser(conn, appID, found->userID);
    if (!current || current->passwordHash != found->passwordHash || current->disabled) {
      throw invalidGrant("The user name or password is incorrect");
    }
    return issueTokens(conn, appID, current->userID, expiresAt);
  });
  call.reply(200, tokenAnswer(found->userID, tokens, now));
}

void refreshGrant(Service& service, Call& call, const std::string& appID,
                  const nlohmann::json& body) {
  auto refresh = body.find("refresh_token");
  if (refresh == body.end() || !refresh->is_string()) {
    throw invalidRequest("refresh_token is required");
  }
  auto now = Service::now();
  auto expiresAt = tokenExpiry(service, body, now);
  auto [userID, tokens] = service.db.transaction([&](Connection& conn) {
    auto owner = consumeRefreshToken(conn, appID, refresh->get<std::string>());
    if (!owner) throw invalidGrant("The refresh token is not valid");
    auto user = findUser(conn, appID, *owner);
    if (!user || user->disabled) throw invalidGrant("The refresh token is not valid");
    return std::make_pair(*owner, issueTokens(conn, appID, *owner, expiresAt));
  });
  call.reply(200, tokenAnswer(userID, tokens, now));
}

}  // namespace

void addAuthRoutes(Router& router, Service& service) {
  addApiRoute(router, service, "POST", "/users", [&service](Call& call, const std::string& appID) {
    call.requireMediaType({kRegistration, kPseudoRegistration});
    auto body = call.jsonObject();
    if (call.mediaType() == "application/vnd.jov.registrationandauthorizationrequest+json") {
      registerPseudoUser(service, call, appID, body);
    } else {
      registerUser(service, call, appID, body);
    }
  });

  addApiRoute(
      router, service, "POST", "/oauth2/token", [&service](Call& call, const std::string& appID) {
        auto body = call.jsonObject();
        auto grant = optionalString(body, "grant_type").value_or("password");
        if (grant == "password") {
          passwordGrant(service, call, appID, body);
        } else if (grant == "refresh_token") {
          refreshGrant(service, call, appID, body);
        } else if (grant == kSocialTokenGrant) {
          auto now = Service::now();
          auto login = socialTokenLogin(service, appID, body, tokenExpiry(service, body, now));
          call.reply(200, tokenAnswer(login.userID, login.tokens, now));
        } else if (grant == kAuthorizationCodeGrant) {
          auto now = Service::now();
          std::string providerToken;
          auto login = authorizationCodeLogin(service, appID, body, tokenExpiry(service, body, now),
                                              providerToken);
          auto answer = tokenAnswer(login.userID, login.tokens, now);
          answer["provider_token"] = providerToken;
          call.reply(200, answer);
        } else {
          throw ApiError(400, "unsupported_grant_type", "Unsupported grant type",
                         {{"error", "unsupported_grant_type"},
                          {"error_description", "Unsupported grant type"}});
        }
      });
}

}  // namespace jovemu
