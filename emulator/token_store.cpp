#include "token_store.hpp"

#include "crypto.hpp"

namespace jovemu {

namespace {

constexpr const char* kAccess = "access";
constexpr const char* kRefresh = "refresh";

std::string insertToken(Connection& conn, const std::string& appID, const std::string& userID,
                        const char* kind, std::optional<std::int64_t> expiresAt) {
  std::string token = randomHex(32);
  auto stmt = conn.prepare(
      "INSERT INTO tokens (token, app_id, user_id, kind, expires_at) VALUES (?1, ?2, ?3, ?4, ?5)");
  stmt.bind(1, token).bind(2, appID).bind(3, userID).bind(4, std::string_view(kind));
  if (expiresAt) {
    stmt.bind(5, *expiresAt);
  } else {
    stmt.bindNull(5);
  }
  stmt.run();
  return token;
}

}  // namespace

IssuedTokens issueTokens(Connection& conn, const std::string& appID, const std::string& userID,
                         std::optional<std::int64_t> expiresAt) {
  IssuedTokens tokens;
  tokens.accessToken = insertToken(conn, appID, userID, kAccess, expiresAt);
  tokens.refreshToken = insertToken(conn, appID, userID, kRefresh, std::nullopt);
  tokens.expiresAt = expiresAt;
  return tokens;
}

TokenCheck checkAccessToken(Connection& conn, const std::string& appID, const std::string& token,
                            std::int64_t nowMs) {
  auto stmt = conn.prepare(
      "SELECT user_id, expires_at FROM tokens WHERE token = ?1 AND app_id = ?2 AND kind = ?3");
  stmt.bind(1, token).bind(2, appID).bind(3, std::string_view(kAccess));
  TokenCheck check;
  if (!stmt.step()) return check;
  check.userID = stmt.textOr(0);
  bool expired = !stmt.isNull(1) && stmt.integer(1) <= nowMs;
  check.state = expired ? TokenState::Expired : TokenState::Valid;
  return check;
}

std::optional<std::string> consumeRefreshToken(Connection& conn, const std::string& appID,
                                               const std::string& token) {
  std::optional<std::string> userID;
  {
    auto stmt =
        conn.prepare("SELECT user_id FROM tokens WHERE token = ?1 AND app_id = ?2 AND kind = ?3");
    stmt.bind(1, token).bind(2, appID).bind(3, std::string_view(kRefresh));
    if (!stmt.step()) return std::nullopt;
    userID = stmt.text(0);
  }
  auto erase = conn.prepare("DELETE FROM tokens WHERE token = ?1");
  erase.bind(1, token);
  erase.run();
  return userID;
}

void revokeUserTokens(Connection& conn, const std::string& appID, const std::string& userID) {
  auto stmt = conn.prepare("DELETE FROM tokens WHERE app_id = ?1 AND user_id = ?2");
  stmt.bind(1, appID).bind(2, userID);
  stmt.run();
}

}  // namespace jovemu
