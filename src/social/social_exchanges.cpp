// The social exchanges: login with a provider's token, linking and unlinking a provider
// account, their error tables and routines.

#include "core/exchange.hpp"
#include "jov/encoding.hpp"
#include "jov/social_connect.hpp"
#include "users/user_internal.hpp"

namespace jov {

namespace {

using detail::args;
using detail::Exchange;
using detail::onCode;
using detail::send;
using detail::UserAccess;

constexpr const char* kLinkRequest = "application/vnd.jov.ThirdPartyAccountLinkRequest+json";

// The service answers 400 "PROVIDER_NOT_CONFIGURED" when the application has no valid key of
// the provider (or names a provider it does not know), 401 "INVALID_PROVIDER_TOKEN" when the
// provider refuses the token, and 502 "PROVIDER_UNAVAILABLE" when it cannot reach the provider.
constexpr detail::ErrorRule kLoginErrors[] = {
    onCode("PROVIDER_NOT_CONFIGURED", JovError::codeInvalidSocialNetworkKey()),
    onCode("INVALID_PROVIDER_TOKEN", JovError::codeInvalidCredentials()),
    onCode("PROVIDER_UNAVAILABLE", JovError::codeServerSideLoginFailed()),
};
// 409 "ACCOUNT_ALREADY_LINKED": the provider account belongs to a user already (this one or
// another), or this user has another account of the provider.
constexpr detail::ErrorRule kLinkErrors[] = {
    onCode("PROVIDER_NOT_CONFIGURED", JovError::codeInvalidSocialNetworkKey()),
    onCode("INVALID_PROVIDER_TOKEN", JovError::codeInvalidCredentials()),
    onCode("ACCOUNT_ALREADY_LINKED", JovError::codeSocialAccountAlreadyLinked()),
};
constexpr detail::ErrorRule kUnlinkErrors[] = {
    onCode("PROVIDER_NOT_CONFIGURED", JovError::codeInvalidSocialNetworkKey()),
    onCode("ACCOUNT_NOT_LINKED", JovError::codeSocialAccountNotLinked()),
};

constexpr Exchange kLogin{
    JovMethodPost, "/oauth2/token", {.anonymous = true, .errors = kLoginErrors}};
constexpr Exchange kUserRecord{JovMethodGet, "/users/{}"};
constexpr Exchange kLink{JovMethodPut,
                         "/users/{}/third-party-accounts/{}",
                         {.contentType = kLinkRequest, .errors = kLinkErrors}};
constexpr Exchange kUnlink{
    JovMethodDelete, "/users/{}/third-party-accounts/{}", {.errors = kUnlinkErrors}};

// The token as the service reads it; the secret and the ID token only when given.
nlohmann::json tokenFields(const JovSocialToken& token) {
  nlohmann::json body = nlohmann::json::object();
  body["access_token"] = token.accessToken;
  if (!token.tokenSecret.empty()) body["token_secret"] = token.tokenSecret;
  if (!token.openIDToken.empty()) body["id_token"] = token.openIDToken;
  return body;
}

JovUser::TimePoint expiryOf(const nlohmann::json& answer) {
  if (auto it = answer.find("expires_in");
      it != answer.end() && it->is_number() && it->get<double>() != 0)
    return detail::expiryAfterSeconds(it->get<double>());
  return detail::distantFuture();
}

}  // namespace

detail::Routine<JovUser::Ptr> JovSocialConnect::loginRoutine(JovSocialNetwork network,
                                                             JovSocialToken token) {
  // Logging out and in touches the stored credentials and preferences.
  co_await detail::mayBlock();
  JovUser::logOut();
  nlohmann::json body = tokenFields(token);
  body["grant_type"] = "social_token";
  body["provider"] = providerNameForSocialNetwork(network);
  if (auto expiresAt = detail::requestedTokenExpiry()) body["expiresAt"] = *expiresAt;
  auto answer = co_await send(kLogin, args().json(std::move(body)));
  if (!answer) co_return answer.error();
  co_return co_await completeLogin(network, std::move(answer->json), std::move(token));
}

detail::Routine<JovUser::Ptr> JovSocialConnect::completeLogin(JovSocialNetwork network,
                                                              nlohmann::json answer,
                                                              JovSocialToken token) {
  auto access = jsonString(answer, "access_token");
  auto id = jsonString(answer, "id");
  if (!access || access->empty() || !id || id->empty()) co_return detail::unreadableAnswer();

  auto user = UserAccess::create();
  UserAccess::uuid(*user) = *id;
  UserAccess::setTokens(*user, *access, jsonString(answer, "refresh_token").value_or(""),
                        expiryOf(answer));
  detail::makeCurrent(user);
  // As after every login, the record is read with the new token; without it there is no login.
  auto record = co_await send(kUserRecord, args(*id));
  if (!record || !user->loadFromJSON(record->json) || user->userID() != *id) {
    JovUser::logOut();
    co_return record ? detail::unreadableAnswer() : record.error();
  }
  detail::storeCurrentUserInfoOrLog();
  sharedInstance().connector(network)->setSession(std::move(token));
  co_return user;
}

detail::Routine<JovUser::Ptr> JovSocialConnect::linkRoutine(JovSocialNetwork network,
                                                            JovSocialToken token) {
  auto user = JovUser::currentUser();
  JOV_CO_REQUIRE(user && !user->userID().empty(), JovError::codeNonLoggedInUserIsNotAllowed());
  nlohmann::json body = tokenFields(token);
  auto answer = co_await send(
      kLink, args(user->userID(), providerNameForSocialNetwork(network)).json(std::move(body)));
  if (!answer) co_return answer.error();
  // The answer is the user's record with its linked accounts.
  if (!user->loadFromJSON(answer->json)) co_return detail::unreadableAnswer();
  sharedInstance().connector(network)->setSession(std::move(token));
  co_return user;
}

detail::Routine<JovUser::Ptr> JovSocialConnect::unlinkRoutine(JovSocialNetwork network) {
  auto user = JovUser::currentUser();
  JOV_CO_REQUIRE(user && !user->userID().empty(), JovError::codeNonLoggedInUserIsNotAllowed());
  auto answer = co_await send(kUnlink, args(user->userID(), providerNameForSocialNetwork(network)));
  if (!answer) co_return answer.error();
  if (!user->loadFromJSON(answer->json)) co_return detail::unreadableAnswer();
  sharedInstance().connector(network)->logOut();
  co_return user;
}

}  // namespace jov
