// The "social_token" grant of POST /oauth2/token: the login routes hand it the body, and it
// answers with the user the provider account is linked with, created on first use.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "service.hpp"
#include "token_store.hpp"

namespace jovemu {

inline constexpr const char* kSocialTokenGrant = "social_token";

struct SocialLogin {
  std::string userID;
  IssuedTokens tokens;
};

/// @brief Checks the provider token of the body ("provider", "access_token", "token_secret",
/// "id_token") with the stand-in provider and issues tokens of the linked user expiring at
/// `expiresAt`: 400 PROVIDER_NOT_CONFIGURED for a provider the service does not know, 401
/// INVALID_PROVIDER_TOKEN for a token the provider refuses, 400 invalid_grant for a disabled
/// user.
SocialLogin socialTokenLogin(Service& service, const std::string& appID, const nlohmann::json& body,
                             std::int64_t expiresAt);

/// @brief Tokens of the user linked with a provider account, created on first use (in the
/// caller's transaction).
SocialLogin loginProviderAccount(Connection& conn, const std::string& appID,
                                 const std::string& provider, const std::string& socialID,
                                 std::int64_t expiresAt);
/// @brief Whether the service has keys for the provider.
bool isKnownProvider(const std::string& provider);
/// @brief The stand-in provider's access token of an account, when it has that account.
std::optional<std::string> providerAccountToken(Connection& conn, const std::string& provider,
                                                const std::string& socialID);

inline constexpr const char* kAuthorizationCodeGrant = "authorization_code";

/// @brief The "authorization_code" grant of the browser login: the one-time code the service
/// redirected to the application, its PKCE verifier and redirect URI. 400 invalid_grant for a
/// code unknown, used, expired, or presented with another verifier or redirect URI.
SocialLogin authorizationCodeLogin(Service& service, const std::string& appID,
                                   const nlohmann::json& body, std::int64_t expiresAt,
                                   std::string& providerToken);

}  // namespace jovemu
