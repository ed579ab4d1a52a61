// Push: device installations per user and token, topics in the application, user and group
// scopes with their access control lists, the subscriptions of users to topics and to buckets,
// and the deliveries a message or a change of a subscribed bucket makes (the push outbox).
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "acl_store.hpp"
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
/// @brief The installation with this ID, whoever it belongs to.
std::optional<InstallationRow> findInstallationByID(Connection& conn, const std::string& appID,
                                                    const std::string& installationID);
void insertInstallation(Connection& conn, const std::string& appID, const InstallationRow& row);
void deleteInstallation(Connection& conn, const std::string& appID, const std::string& deviceType,
                        const std::string& token);

/// @brief The topic and account name of an installation: the same for the same installation,
/// so that deliveries can be published before the account is made.
std::string mqttTopicOf(const std::string& installationID);
std::string mqttUsernameOf(const std::string& installationID);

/// @brief The broker account of an MQTT installation; its name and topic follow from the
/// installation's ID.
struct MqttAccount {
  MqttAccount(std::string id, std::string secret, bool confirmed = false)
      : installationID(std::move(id)),
        username(mqttUsernameOf(installationID)),
        password(std::move(secret)),
        topic(mqttTopicOf(installationID)),
        provisioned(confirmed) {}

  std::string installationID;
  std::string username;
  std::string password;
  std::string topic;
  bool provisioned = false;  ///< the broker confirmed it
};

std::optional<MqttAccount> findMqttAccount(Connection& conn, const std::string& appID,
                                           const std::string& installationID);
void insertMqttAccount(Connection& conn, const std::string& appID, const MqttAccount& account);
void markMqttAccountProvisioned(Connection& conn, const std::string& appID,
                                const std::string& installationID);
void deleteMqttAccount(Connection& conn, const std::string& appID,
                       const std::string& installationID);

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

/// @brief Removes every topic of a scope (its owner is gone), with their subscriptions and
/// lists.
void dropScopeTopics(Connection& conn, const std::string& appID, const BucketScope& scope);
/// @brief Ends every subscription of a subscriber ("users/ID", "things/ID") that is gone.
void forgetSubscriber(Connection& conn, const std::string& appID, const std::string& subscriber);

/// @brief The subscribers ("users/ID") of a topic, oldest first.
std::vector<std::string> topicSubscribers(Connection& conn, const std::string& appID,
                                          const TopicKey& key);

/// @brief The entries of a topic's access control list.
std::vector<AclEntry> topicEntries(Connection& conn, const std::string& appID, const TopicKey& key);
/// @brief Adds an entry; granting what is granted changes nothing.
void grantTopicEntry(Connection& conn, const std::string& appID, const TopicKey& key,
                     const AclEntry& entry);
/// @brief Removes an entry; false when there was none.
bool revokeTopicEntry(Connection& conn, const std::string& appID, const TopicKey& key,
                      const AclEntry& entry);

/// @brief Every installation of a user, oldest first.
std::vector<InstallationRow> userInstallations(Connection& conn, const std::string& appID,
                                               const std::string& userID);

/// @brief Subscriptions ("users/ID") to the changes of a bucket's objects.
bool hasBucketSubscription(Connection& conn, std::int64_t bucketKey, const std::string& subscriber);
void insertBucketSubscription(Connection& conn, std::int64_t bucketKey,
                              const std::string& subscriber, std::int64_t nowMs);
void deleteBucketSubscription(Connection& conn, std::int64_t bucketKey,
                              const std::string& subscriber);
std::vector<std::string> bucketSubscribers(Connection& conn, std::int64_t bucketKey);

/// @brief One push as a channel would carry it to one installation.
struct Delivery {
  std::string kind;  ///< "TOPIC_MESSAGE" or "BUCKET_EVENT"
  std::string userID;
  std::string installationID;
  std::string deviceType;
  std::string channel;  ///< "APNS", "GCM" or "MQTT"
  nlohmann::json payload;
  std::int64_t created = 0;
};
void insertDelivery(Connection& conn, const std::string& appID, const Delivery& delivery);
/// @brief {"deliveries": [{"kind", "userID", "installationID", "deviceType", "channel",
/// "payload", "createdAt"}...]}, oldest first.
nlohmann::json pushOutbox(Connection& conn, const std::string& appID);
void clearPushOutbox(Connection& conn, const std::string& appID);

}  // namespace jovemu
