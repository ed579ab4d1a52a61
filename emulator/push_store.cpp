#include "push_store.hpp"

namespace jovemu {

std::optional<InstallationRow> findInstallation(Connection& conn, const std::string& appID,
                                                const std::string& deviceType,
                                                const std::string& token) {
  auto stmt = conn.prepare(
      "SELECT installation_id, device_type, token, user_id, development, created "
      "FROM push_installations WHERE app_id = ?1 AND device_type = ?2 AND token = ?3");
  stmt.bind(1, appID).bind(2, deviceType).bind(3, token);
  if (!stmt.step()) return std::nullopt;
  return InstallationRow{stmt.textOr(0), stmt.textOr(1),       stmt.textOr(2),
                         stmt.textOr(3), stmt.integer(4) != 0, stmt.integer(5)};
}

void insertInstallation(Connection& conn, const std::string& appID, const InstallationRow& row) {
  auto stmt = conn.prepare(
      "INSERT INTO push_installations "
      "(app_id, installation_id, device_type, token, user_id, development, created) "
      "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)");
  stmt.bind(1, appID).bind(2, row.installationID).bind(3, row.deviceType).bind(4, row.token);
  stmt.bind(5, row.userID).bind(6, row.development).bind(7, row.created);
  stmt.run();
}

void deleteInstallation(Connection& conn, const std::string& appID, const std::string& deviceType,
                        const std::string& token) {
  auto stmt = conn.prepare(
      "DELETE FROM push_installations WHERE app_id = ?1 AND device_type = ?2 AND token = ?3");
  stmt.bind(1, appID).bind(2, deviceType).bind(3, token);
  stmt.run();
}

std::optional<TopicRow> findTopic(Connection& conn, const std::string& appID, const TopicKey& key) {
  auto stmt = conn.prepare(
      "SELECT creator, created FROM push_topics "
      "WHERE app_id = ?1 AND scope = ?2 AND owner = ?3 AND name = ?4");
  stmt.bind(1, appID).bind(2, scopeWord(key.scope.kind)).bind(3, key.scope.ownerID);
  stmt.bind(4, key.name);
  if (!stmt.step()) return std::nullopt;
  return TopicRow{key, stmt.textOr(0), stmt.integer(1)};
}

void insertTopic(Connection& conn, const std::string& appID, const TopicRow& topic) {
  auto stmt = conn.prepare(
      "INSERT INTO push_topics (app_id, scope, owner, name, creator, created) "
      "VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
  stmt.bind(1, appID).bind(2, scopeWord(topic.key.scope.kind)).bind(3, topic.key.scope.ownerID);
  stmt.bind(4, topic.key.name).bind(5, topic.creator).bind(6, topic.created);
  stmt.run();
}

void deleteTopic(Connection& conn, const std::string& appID, const TopicKey& key) {
  for (const char* table : {"push_subscriptions", "push_topics"}) {
    auto stmt = conn.prepare(std::string("DELETE FROM ") + table +
                             " WHERE app_id = ?1 AND scope = ?2 AND owner = ?3 AND name = ?4");
    stmt.bind(1, appID).bind(2, scopeWord(key.scope.kind)).bind(3, key.scope.ownerID);
    stmt.bind(4, key.name);
    stmt.run();
  }
}

std::vector<std::string> listTopics(Connection& conn, const std::string& appID,
                                    const BucketScope& scope,
                                    const std::optional<std::string>& after, int limit) {
  auto stmt = conn.prepare(
      "SELECT name FROM push_topics WHERE app_id = ?1 AND scope = ?2 AND owner = ?3 "
      "AND (?4 IS NULL OR name > ?4) ORDER BY name LIMIT ?5");
  stmt.bind(1, appID).bind(2, scopeWord(scope.kind)).bind(3, scope.ownerID).bind(4, after);
  stmt.bind(5, limit);
  std::vector<std::string> names;
  while (stmt.step()) names.push_back(stmt.textOr(0));
  return names;
}

bool hasSubscription(Connection& conn, const std::string& appID, const TopicKey& key,
                     const std::string& subscriber) {
  auto stmt = conn.prepare(
      "SELECT 1 FROM push_subscriptions WHERE app_id = ?1 AND scope = ?2 AND owner = ?3 "
      "AND name = ?4 AND subscriber = ?5");
  stmt.bind(1, appID).bind(2, scopeWord(key.scope.kind)).bind(3, key.scope.ownerID);
  stmt.bind(4, key.name).bind(5, subscriber);
  return stmt.step();
}

void insertSubscription(Connection& conn, const std::string& appID, const TopicKey& key,
                        const std::string& subscriber, std::int64_t nowMs) {
  auto stmt = conn.prepare(
      "INSERT INTO push_subscriptions (app_id, scope, owner, name, subscriber, created) "
      "VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
  stmt.bind(1, appID).bind(2, scopeWord(key.scope.kind)).bind(3, key.scope.ownerID);
  stmt.bind(4, key.name).bind(5, subscriber).bind(6, nowMs);
  stmt.run();
}

void deleteSubscription(Connection& conn, const std::string& appID, const TopicKey& key,
                        const std::string& subscriber) {
  auto stmt = conn.prepare(
      "DELETE FROM push_subscriptions WHERE app_id = ?1 AND scope = ?2 AND owner = ?3 "
      "AND name = ?4 AND subscriber = ?5");
  stmt.bind(1, appID).bind(2, scopeWord(key.scope.kind)).bind(3, key.scope.ownerID);
  stmt.bind(4, key.name).bind(5, subscriber);
  stmt.run();
}

}  // namespace jovemu
