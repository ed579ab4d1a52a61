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

}  // namespace jovemu
