// Access and refresh tokens: issued at login, checked on every request that needs a user.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "database.hpp"

namespace jovemu {

struct IssuedTokens {
  std::string accessToken;
  std::string refreshToken;
  std::optional<std::int64_t> expiresAt;  ///< ms since 1970; none for a token that never expires
};

/// @brief A new access token (expiring at `expiresAt` when given) and a new refresh token.
IssuedTokens issueTokens(Connection& conn, const std::string& appID, const std::string& userID,
                         std::optional<std::int64_t> expiresAt);

enum class TokenState { Valid, Unknown, Expired };

struct TokenCheck {
  TokenState state = TokenState::Unknown;
  std::string userID;
};

TokenCheck checkAccessToken(Connection& conn, const std::string& appID, const std::string& token,
                            std::int64_t nowMs);

/// @brief Takes a refresh token out of use and returns its user; none when unknown.
std::optional<std::string> consumeRefreshToken(Connection& conn, const std::string& appID,
                                               const std::string& token);

/// @brief Ends every token of the user.
void revokeUserTokens(Connection& conn, const std::string& appID, const std::string& userID);

}  // namespace jovemu
