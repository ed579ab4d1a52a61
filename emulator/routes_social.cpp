// Social accounts: login with a provider's token, linking and unlinking provider accounts
// (PUT/DELETE /users/{id}/third-party-accounts/{provider}), and the stand-in provider whose
// accounts tests create through POST /emulator/social/{provider}/accounts.
//
// The stand-in provider is one for the whole emulator, as a real provider is outside every
// application: its accounts hold an access token (and a token secret for OAuth 1.0a providers,
// an ID token for every account), which the service checks when a client presents them.
#include <array>
#include <string_view>

#include "api_error.hpp"
#include "crypto.hpp"
#include "social_login.hpp"
#include "user_store.hpp"

namespace jovemu {

namespace {

constexpr const char* kLinkRequest = "application/vnd.jov.ThirdPartyAccountLinkRequest+json";

// The providers the service has keys for; an application cannot log in with any other.
constexpr std::array<std::string_view, 12> kProviders{"facebook", "twitter", "google",  "live",
                                                      "linkedin", "yahoo",   "dropbox", "box",
                                                      "renren",   "sina",    "qq",      "github"};

// OAuth 1.0a: the provider checks the secret along with the token.
bool usesTokenSecret(const std::string& provider) {
  return provider == "twitter";
}

void requireProvider(const std::string& provider) {
  for (auto known : kProviders)
    if (known == provider) return;
  throw ApiError(400, "PROVIDER_NOT_CONFIGURED",
                 "The application has no key for the provider " + provider);
}

ApiError invalidProviderToken() {
  return ApiError(401, "INVALID_PROVIDER_TOKEN", "The provider refused the token");
}

ApiError alreadyLinked(const std::string& what) {
  return ApiError(409, "ACCOUNT_ALREADY_LINKED", what);
}

// The provider account of a presented token; 401 unless the provider knows the token (and its
// secret, or the ID token when one is presented).
std::string checkProviderToken(Connection& conn, const std::string& provider,
                               const nlohmann::json& body) {
  auto token = optionalString(body, "access_token");
  if (!token || token->empty()) {
    throw invalidInput("There are validation errors: access_token - must not be empty");
  }
  auto stmt = conn.prepare(
      "SELECT social_id, token_secret, id_token FROM social_provider_accounts "
      "WHERE provider = ?1 AND access_token = ?2");
  stmt.bind(1, provider).bind(2, *token);
  if (!stmt.step()) throw invalidProviderToken();
  if (usesTokenSecret(provider) && optionalString(body, "token_secret") != stmt.text(1)) {
    throw invalidProviderToken();
  }
  if (auto idToken = optionalString(body, "id_token"); idToken && *idToken != stmt.text(2)) {
    throw invalidProviderToken();
  }
  return stmt.textOr(0);
}

// The user a provider account is linked with in the application. A link whose user was
// deleted since is dropped, so that the account can be used again.
std::optional<UserRow> linkedUser(Connection& conn, const std::string& appID,
                                  const std::string& provider, const std::string& socialID) {
  auto stmt = conn.prepare(
      "SELECT user_id FROM social_links WHERE app_id = ?1 AND provider = ?2 AND social_id = ?3");
  stmt.bind(1, appID).bind(2, provider).bind(3, socialID);
  if (!stmt.step()) return std::nullopt;
  auto user = findUser(conn, appID, stmt.textOr(0));
  if (!user) {
    auto drop = conn.prepare(
        "DELETE FROM social_links WHERE app_id = ?1 AND provider = ?2 AND social_id = ?3");
    drop.bind(1, appID).bind(2, provider).bind(3, socialID).run();
  }
  return user;
}

void insertLink(Connection& conn, const std::string& appID, const std::string& provider,
                const std::string& socialID, const std::string& userID) {
  auto stmt = conn.prepare(
      "INSERT INTO social_links (app_id, provider, social_id, user_id, created) "
      "VALUES (?1, ?2, ?3, ?4, ?5)");
  stmt.bind(1, appID).bind(2, provider).bind(3, socialID).bind(4, userID).bind(5, Service::now());
  stmt.run();
}

std::optional<std::string> linkedAccountOf(Connection& conn, const std::string& appID,
                                           const std::string& userID, const std::string& provider) {
  auto stmt = conn.prepare(
      "SELECT social_id FROM social_links WHERE app_id = ?1 AND user_id = ?2 AND provider = ?3");
  stmt.bind(1, appID).bind(2, userID).bind(3, provider);
  if (!stmt.step()) return std::nullopt;
  return stmt.textOr(0);
}

// The caller's own record after a change of its links.
nlohmann::json callerRecord(Connection& conn, const std::string& appID, const std::string& userID) {
  auto user = findUser(conn, appID, userID);
  if (!user) throw userNotFound();
  return userRecord(*user);
}

void linkAccount(Service& service, Call& call, const std::string& appID) {
  call.requireMediaType({kLinkRequest});
  auto body = call.jsonObject();
  const std::string provider = call.param(2);
  requireProvider(provider);
  auto record = service.db.transaction([&](Connection& conn) {
    auto caller = service.requireUser(call, conn, appID);
    auto user = requireSelf(conn, appID, call.param(1), caller);
    auto socialID = checkProviderToken(conn, provider, body);
    if (auto owner = linkedUser(conn, appID, provider, socialID)) {
      if (owner->userID != user.userID) {
        throw alreadyLinked("The " + provider + " account is linked with another user");
      }
      return callerRecord(conn, appID, user.userID);  // linking again changes nothing
    }
    if (linkedAccountOf(conn, appID, user.userID, provider)) {
      throw alreadyLinked("The user has another " + provider + " account linked");
    }
    insertLink(conn, appID, provider, socialID, user.userID);
    return callerRecord(conn, appID, user.userID);
  });
  call.reply(200, record);
}

void unlinkAccount(Service& service, Call& call, const std::string& appID) {
  const std::string provider = call.param(2);
  requireProvider(provider);
  auto record = service.db.transaction([&](Connection& conn) {
    auto caller = service.requireUser(call, conn, appID);
    auto user = requireSelf(conn, appID, call.param(1), caller);
    auto stmt = conn.prepare(
        "DELETE FROM social_links WHERE app_id = ?1 AND user_id = ?2 AND provider = ?3");
    stmt.bind(1, appID).bind(2, user.userID).bind(3, provider).run();
    if (conn.changes() == 0) {
      throw ApiError(404, "ACCOUNT_NOT_LINKED", "No " + provider + " account is linked");
    }
    return callerRecord(conn, appID, user.userID);
  });
  call.reply(200, record);
}

void createProviderAccount(Service& service, Call& call) {
  const std::string provider = call.param(0);
  requireProvider(provider);
  auto body = call.jsonObject();
  auto socialID = optionalString(body, "id").value_or(randomHex(8));
  auto name = optionalString(body, "name");
  if (socialID.empty()) throw invalidInput("There are validation errors: id - must not be empty");
  nlohmann::json account = {
      {"id", socialID}, {"access_token", randomHex(16)}, {"id_token", randomHex(16)}};
  if (usesTokenSecret(provider)) account["token_secret"] = randomHex(16);
  service.db.transaction([&](Connection& conn) {
    auto stmt = conn.prepare(
        "INSERT OR IGNORE INTO social_provider_accounts "
        "(provider, social_id, name, access_token, token_secret, id_token, created) "
        "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)");
    stmt.bind(1, provider)
        .bind(2, socialID)
        .bind(3, name)
        .bind(4, account["access_token"].get<std::string>())
        .bind(5, optionalString(account, "token_secret"))
        .bind(6, account["id_token"].get<std::string>())
        .bind(7, Service::now());
    stmt.run();
    if (conn.changes() == 0) {
      throw ApiError(409, "ACCOUNT_ALREADY_EXISTS", "The provider has an account " + socialID);
    }
  });
  call.reply(201, account);
}

}  // namespace

bool isKnownProvider(const std::string& provider) {
  for (auto known : kProviders)
    if (known == provider) return true;
  return false;
}

std::optional<std::string> providerAccountToken(Connection& conn, const std::string& provider,
                                                const std::string& socialID) {
  auto stmt = conn.prepare(
      "SELECT access_token FROM social_provider_accounts WHERE provider = ?1 AND social_id = ?2");
  stmt.bind(1, provider).bind(2, socialID);
  if (!stmt.step()) return std::nullopt;
  return stmt.text(0);
}

SocialLogin socialTokenLogin(Service& service, const std::string& appID, const nlohmann::json& body,
                             std::int64_t expiresAt) {
  auto provider = optionalString(body, "provider");
  if (!provider) throw invalidInput("There are validation errors: provider - must not be null");
  requireProvider(*provider);
  return service.db.transaction([&](Connection& conn) {
    auto socialID = checkProviderToken(conn, *provider, body);
    return loginProviderAccount(conn, appID, *provider, socialID, expiresAt);
  });
}

SocialLogin loginProviderAccount(Connection& conn, const std::string& appID,
                                 const std::string& provider, const std::string& socialID,
                                 std::int64_t expiresAt) {
  auto user = linkedUser(conn, appID, provider, socialID);
  if (!user) {
    // First use: a new user, known by the provider account alone.
    UserRow created;
    created.appID = appID;
    created.userID = newUserID();
    auto stmt = conn.prepare(
        "SELECT name FROM social_provider_accounts WHERE provider = ?1 AND social_id = ?2");
    stmt.bind(1, provider).bind(2, socialID);
    if (stmt.step()) created.displayName = stmt.text(0);
    created.created = created.modified = Service::now();
    insertUser(conn, created);
    insertLink(conn, appID, provider, socialID, created.userID);
    user = created;
  }
  if (user->disabled) throw invalidGrant("The user is disabled");
  return SocialLogin{user->userID, issueTokens(conn, appID, user->userID, expiresAt)};
}

void addSocialRoutes(Router& router, Service& service) {
  addApiRoute(
      router, service, "PUT", "/users/{}/third-party-accounts/{}",
      [&service](Call& call, const std::string& appID) { linkAccount(service, call, appID); });
  addApiRoute(
      router, service, "DELETE", "/users/{}/third-party-accounts/{}",
      [&service](Call& call, const std::string& appID) { unlinkAccount(service, call, appID); });
  router.add("POST", "/emulator/social/{}/accounts",
             [&service](Call& call) { createProviderAccount(service, call); });
}

}  // namespace jovemu
