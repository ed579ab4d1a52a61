// Push: device installations per user and token, topics in the application, user and group
// scopes, and the subscriptions of users to topics.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "database.hpp"
#include "object_store.hpp"

namespace jovemu {

struct InstallationRow {
  std::string installationID;
  std::string deviceType;
  std::string token;
  std::string userID;
  bool development = false;
  std::int64_t created = 0;
};

/// @brief The installation of a device token, whoever it belongs to.
std::optional<InstallationRow> findInstallation(Connection& conn, const std::string& appID,
                                                const std::string& deviceType,
                                                const std::string& token);
void insertInstallation(Connection& conn, const std::string& appID, const InstallationRow& row);
void deleteInstallation(Connection& conn, const std::string& appID, const std::string& deviceType,
                        const std::string& token);

/// @brief A topic as a request addresses it: its scope (owner ID empty for the application) and
/// name.
struct TopicKey {
  BucketScope scope;
  std::string name;
};

struct TopicRow {
  TopicKey key;
  std::string creator;
  std::int64_t created = 0;
};

std::optional<TopicRow> findTopic(Connection& conn, const std::string& appID, const TopicKey& key);
void insertTopic(Connection& conn, const std::string& appID, const TopicRow& topic);
/// @brief Removes the topic and its subscriptions.
void deleteTopic(Connection& conn, const std::string& appID, const TopicKey& key);
/// @brief Up to `limit` topic names of a scope in name order, after `after` when given.
std::vector<std::string> listTopics(Connection& conn, const std::string& appID,
                                    const BucketScope& scope,
                                    const std::optional<std::string>& after, int limit);

/// @brief Whether the subscriber ("users/ID") subscribes to the topic.
bool hasSubscription(Connection& conn, const std::string& appID, const TopicKey& key,
                     const std::string& subscriber);
void insertSubscription(Connection& conn, const std::string& appID, const TopicKey& key,
                        const std::string& subscriber, std::int64_t nowMs);
void deleteSubscription(Connection& conn, const std::string& appID, const TopicKey& key,
                        const std::string& subscriber);

}  // namespace jovemu
