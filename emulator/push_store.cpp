#include "push_store.hpp"

namespace jovemu {

namespace {

// Binds a topic's key to ?1 (application) to ?4 (name) of a statement.
Statement& bindTopic(Statement& stmt, const std::string& appID, const TopicKey& key) {
  return stmt.bind(1, appID)
      .bind(2, scopeWord(key.scope.kind))
      .bind(3, key.scope.ownerID)
      .bind(4, key.name);
}

}  // namespace

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

std::optional<InstallationRow> findInstallationByID(Connection& conn, const std::string& appID,
                                                    const std::string& installationID) {
  auto stmt = conn.prepare(
      "SELECT installation_id, device_type, token, user_id, development, created "
      "FROM push_installations WHERE app_id = ?1 AND installation_id = ?2");
  stmt.bind(1, appID).bind(2, installationID);
  if (!stmt.step()) return std::nullopt;
  return InstallationRow{stmt.textOr(0), stmt.textOr(1),       stmt.textOr(2),
                         stmt.textOr(3), stmt.integer(4) != 0, stmt.integer(5)};
}

std::string mqttTopicOf(const std::string& installationID) {
  return "jov/installations/" + installationID;
}

std::string mqttUsernameOf(const std::string& installationID) {
  return "jov-" + installationID;
}

std::optional<MqttAccount> findMqttAccount(Connection& conn, const std::string& appID,
                                           const std::string& installationID) {
  auto stmt = conn.prepare(
      "SELECT password, provisioned FROM mqtt_accounts WHERE app_id = ?1 AND installation_id = ?2");
  stmt.bind(1, appID).bind(2, installationID);
  if (!stmt.step()) return std::nullopt;
  return MqttAccount(installationID, stmt.textOr(0), stmt.integer(1) != 0);
}

void insertMqttAccount(Connection& conn, const std::string& appID, const MqttAccount& account) {
  auto stmt = conn.prepare(
      "INSERT INTO mqtt_accounts (app_id, installation_id, password, provisioned) "
      "VALUES (?1, ?2, ?3, ?4)");
  stmt.bind(1, appID).bind(2, account.installationID).bind(3, account.password);
  stmt.bind(4, account.provisioned);
  stmt.run();
}

void markMqttAccountProvisioned(Connection& conn, const std::string& appID,
                                const std::string& installationID) {
  auto stmt = conn.prepare(
      "UPDATE mqtt_accounts SET provisioned = 1 WHERE app_id = ?1 AND installation_id = ?2");
  stmt.bind(1, appID).bind(2, installationID);
  stmt.run();
}

void deleteMqttAccount(Connection& conn, const std::string& appID,
                       const std::string& installationID) {
  auto stmt = conn.prepare("DELETE FROM mqtt_accounts WHERE app_id = ?1 AND installation_id = ?2");
  stmt.bind(1, appID).bind(2, installationID);
  stmt.run();
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
  bindTopic(stmt, appID, key);
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
  for (const char* table : {"push_subscriptions", "push_topic_acl", "push_topics"}) {
    auto stmt = conn.prepare(std::string("DELETE FROM ") + table +
                             " WHERE app_id = ?1 AND scope = ?2 AND owner = ?3 AND name = ?4");
    bindTopic(stmt, appID, key);
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
  bindTopic(stmt, appID, key).bind(5, subscriber);
  return stmt.step();
}

void insertSubscription(Connection& conn, const std::string& appID, const TopicKey& key,
                        const std::string& subscriber, std::int64_t nowMs) {
  auto stmt = conn.prepare(
      "INSERT INTO push_subscriptions (app_id, scope, owner, name, subscriber, created) "
      "VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
  bindTopic(stmt, appID, key).bind(5, subscriber).bind(6, nowMs);
  stmt.run();
}

void deleteSubscription(Connection& conn, const std::string& appID, const TopicKey& key,
                        const std::string& subscriber) {
  auto stmt = conn.prepare(
      "DELETE FROM push_subscriptions WHERE app_id = ?1 AND scope = ?2 AND owner = ?3 "
      "AND name = ?4 AND subscriber = ?5");
  bindTopic(stmt, appID, key).bind(5, subscriber);
  stmt.run();
}

void dropScopeTopics(Connection& conn, const std::string& appID, const BucketScope& scope) {
  for (const char* table : {"push_subscriptions", "push_topic_acl", "push_topics"}) {
    auto stmt = conn.prepare(std::string("DELETE FROM ") + table +
                             " WHERE app_id = ?1 AND scope = ?2 AND owner = ?3");
    stmt.bind(1, appID).bind(2, scopeWord(scope.kind)).bind(3, scope.ownerID);
    stmt.run();
  }
}

void forgetSubscriber(Connection& conn, const std::string& appID, const std::string& subscriber) {
  auto stmt = conn.prepare("DELETE FROM push_subscriptions WHERE app_id = ?1 AND subscriber = ?2");
  stmt.bind(1, appID).bind(2, subscriber);
  stmt.run();
  auto buckets = conn.prepare(
      "DELETE FROM push_bucket_subscriptions WHERE subscriber = ?1 AND bucket_key IN "
      "(SELECT bucket_key FROM buckets WHERE app_id = ?2)");
  buckets.bind(1, subscriber).bind(2, appID);
  buckets.run();
}

std::vector<std::string> topicSubscribers(Connection& conn, const std::string& appID,
                                          const TopicKey& key) {
  auto stmt = conn.prepare(
      "SELECT subscriber FROM push_subscriptions WHERE app_id = ?1 AND scope = ?2 AND owner = ?3 "
      "AND name = ?4 ORDER BY created, subscriber");
  bindTopic(stmt, appID, key);
  std::vector<std::string> subscribers;
  while (stmt.step()) subscribers.push_back(stmt.textOr(0));
  return subscribers;
}

std::vector<AclEntry> topicEntries(Connection& conn, const std::string& appID,
                                   const TopicKey& key) {
  auto stmt = conn.prepare(
      "SELECT action, subject FROM push_topic_acl WHERE app_id = ?1 AND scope = ?2 "
      "AND owner = ?3 AND name = ?4 ORDER BY action, subject");
  bindTopic(stmt, appID, key);
  std::vector<AclEntry> entries;
  while (stmt.step()) entries.push_back({stmt.textOr(0), stmt.textOr(1)});
  return entries;
}

void grantTopicEntry(Connection& conn, const std::string& appID, const TopicKey& key,
                     const AclEntry& entry) {
  auto stmt = conn.prepare(
      "INSERT OR IGNORE INTO push_topic_acl (app_id, scope, owner, name, action, subject) "
      "VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
  bindTopic(stmt, appID, key).bind(5, entry.action).bind(6, entry.subject);
  stmt.run();
}

bool revokeTopicEntry(Connection& conn, const std::string& appID, const TopicKey& key,
                      const AclEntry& entry) {
  auto stmt = conn.prepare(
      "DELETE FROM push_topic_acl WHERE app_id = ?1 AND scope = ?2 AND owner = ?3 AND name = ?4 "
      "AND action = ?5 AND subject = ?6");
  bindTopic(stmt, appID, key).bind(5, entry.action).bind(6, entry.subject);
  stmt.run();
  return conn.changes() > 0;
}

std::vector<InstallationRow> userInstallations(Connection& conn, const std::string& appID,
                                               const std::string& userID) {
  auto stmt = conn.prepare(
      "SELECT installation_id, device_type, token, user_id, development, created "
      "FROM push_installations WHERE app_id = ?1 AND user_id = ?2 ORDER BY created, token");
  stmt.bind(1, appID).bind(2, userID);
  std::vector<InstallationRow> rows;
  while (stmt.step()) {
    rows.push_back({stmt.textOr(0), stmt.textOr(1), stmt.textOr(2), stmt.textOr(3),
                    stmt.integer(4) != 0, stmt.integer(5)});
  }
  return rows;
}

bool hasBucketSubscription(Connection& conn, std::int64_t bucketKey,
                           const std::string& subscriber) {
  auto stmt = conn.prepare(
      "SELECT 1 FROM push_bucket_subscriptions WHERE bucket_key = ?1 AND subscriber = ?2");
  stmt.bind(1, bucketKey).bind(2, subscriber);
  return stmt.step();
}

void insertBucketSubscription(Connection& conn, std::int64_t bucketKey,
                              const std::string& subscriber, std::int64_t nowMs) {
  auto stmt = conn.prepare(
      "INSERT INTO push_bucket_subscriptions (bucket_key, subscriber, created) "
      "VALUES (?1, ?2, ?3)");
  stmt.bind(1, bucketKey).bind(2, subscriber).bind(3, nowMs);
  stmt.run();
}

void deleteBucketSubscription(Connection& conn, std::int64_t bucketKey,
                              const std::string& subscriber) {
  auto stmt = conn.prepare(
      "DELETE FROM push_bucket_subscriptions WHERE bucket_key = ?1 AND subscriber = ?2");
  stmt.bind(1, bucketKey).bind(2, subscriber);
  stmt.run();
}

std::vector<std::string> bucketSubscribers(Connection& conn, std::int64_t bucketKey) {
  auto stmt = conn.prepare(
      "SELECT subscriber FROM push_bucket_subscriptions WHERE bucket_key = ?1 "
      "ORDER BY created, subscriber");
  stmt.bind(1, bucketKey);
  std::vector<std::string> subscribers;
  while (stmt.step()) subscribers.push_back(stmt.textOr(0));
  return subscribers;
}

void insertDelivery(Connection& conn, const std::string& appID, const Delivery& delivery) {
  auto stmt = conn.prepare(
      "INSERT INTO push_deliveries "
      "(app_id, kind, user_id, installation_id, device_type, channel, payload, created) "
      "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)");
  stmt.bind(1, appID).bind(2, delivery.kind).bind(3, delivery.userID);
  stmt.bind(4, delivery.installationID).bind(5, delivery.deviceType).bind(6, delivery.channel);
  stmt.bind(7, delivery.payload.dump()).bind(8, delivery.created);
  stmt.run();
  // The MQTT bridge publishes it once the transaction commits.
  if (delivery.channel == "MQTT") conn.notifyOnCommit();
}

nlohmann::json pushOutbox(Connection& conn, const std::string& appID) {
  auto stmt = conn.prepare(
      "SELECT kind, user_id, installation_id, device_type, channel, payload, created "
      "FROM push_deliveries WHERE app_id = ?1 ORDER BY seq");
  stmt.bind(1, appID);
  auto deliveries = nlohmann::json::array();
  while (stmt.step()) {
    deliveries.push_back({{"kind", stmt.textOr(0)},
                          {"userID", stmt.textOr(1)},
                          {"installationID", stmt.textOr(2)},
                          {"deviceType", stmt.textOr(3)},
                          {"channel", stmt.textOr(4)},
                          {"payload", nlohmann::json::parse(stmt.textOr(5))},
                          {"createdAt", stmt.integer(6)}});
  }
  return {{"deliveries", std::move(deliveries)}};
}

void clearPushOutbox(Connection& conn, const std::string& appID) {
  auto stmt = conn.prepare("DELETE FROM push_deliveries WHERE app_id = ?1");
  stmt.bind(1, appID);
  stmt.run();
}

}  // namespace jovemu
