#include "outbox_store.hpp"

#include "crypto.hpp"

namespace jovemu {

std::string sendCode(Connection& conn, const std::string& appID, const std::string& userID,
                     const char* kind, const char* channel, const std::string& to,
                     std::int64_t nowMs) {
  std::string code = randomDigits(6);
  {
    auto stmt = conn.prepare(
        "INSERT OR REPLACE INTO codes (app_id, user_id, kind, code, target, created_at, used) "
        "VALUES (?1, ?2, ?3, ?4, ?5, ?6, 0)");
    stmt.bind(1, appID).bind(2, userID).bind(3, std::string_view(kind)).bind(4, code);
    stmt.bind(5, to).bind(6, nowMs);
    stmt.run();
  }
  auto stmt = conn.prepare(
      "INSERT INTO outbox (app_id, user_id, channel, kind, recipient, code, created_at) "
      "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)");
  stmt.bind(1, appID).bind(2, userID).bind(3, std::string_view(channel));
  stmt.bind(4, std::string_view(kind)).bind(5, to).bind(6, code).bind(7, nowMs);
  stmt.run();
  return code;
}

std::optional<StoredCode> findCode(Connection& conn, const std::string& appID,
                                   const std::string& userID, const char* kind) {
  auto stmt = conn.prepare(
      "SELECT code, target, created_at, used FROM codes "
      "WHERE app_id = ?1 AND user_id = ?2 AND kind = ?3");
  stmt.bind(1, appID).bind(2, userID).bind(3, std::string_view(kind));
  if (!stmt.step()) return std::nullopt;
  return StoredCode{stmt.textOr(0), stmt.textOr(1), stmt.integer(2), stmt.integer(3) != 0};
}

void markCodeUsed(Connection& conn, const std::string& appID, const std::string& userID,
                  const char* kind) {
  auto stmt =
      conn.prepare("UPDATE codes SET used = 1 WHERE app_id = ?1 AND user_id = ?2 AND kind = ?3");
  stmt.bind(1, appID).bind(2, userID).bind(3, std::string_view(kind));
  stmt.run();
}

void dropCode(Connection& conn, const std::string& appID, const std::string& userID,
              const char* kind) {
  auto stmt = conn.prepare("DELETE FROM codes WHERE app_id = ?1 AND user_id = ?2 AND kind = ?3");
  stmt.bind(1, appID).bind(2, userID).bind(3, std::string_view(kind));
  stmt.run();
}

void dropUserCodes(Connection& conn, const std::string& appID, const std::string& userID) {
  auto stmt = conn.prepare("DELETE FROM codes WHERE app_id = ?1 AND user_id = ?2");
  stmt.bind(1, appID).bind(2, userID);
  stmt.run();
}

nlohmann::json outboxMessages(Connection& conn, const std::string& appID) {
  auto stmt = conn.prepare(
      "SELECT user_id, channel, kind, recipient, code, created_at FROM outbox "
      "WHERE app_id = ?1 ORDER BY seq");
  stmt.bind(1, appID);
  auto messages = nlohmann::json::array();
  while (stmt.step()) {
    messages.push_back({{"userID", stmt.textOr(0)},
                        {"channel", stmt.textOr(1)},
                        {"kind", stmt.textOr(2)},
                        {"to", stmt.textOr(3)},
                        {"code", stmt.textOr(4)},
                        {"createdAt", stmt.integer(5)}});
  }
  return {{"messages", messages}};
}

void clearOutbox(Connection& conn, const std::string& appID) {
  auto stmt = conn.prepare("DELETE FROM outbox WHERE app_id = ?1");
  stmt.bind(1, appID);
  stmt.run();
}

}  // namespace jovemu
