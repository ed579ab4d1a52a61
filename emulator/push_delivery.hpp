// What the devices of subscribers receive: a message sent to a topic, or the news that an
// object of a subscribed bucket changed, composed for each installation as its channel (APNs,
// GCM, MQTT) would carry it, with the short keys a received payload is read by ("s" sender,
// "st"/"su"/"sg" scope, "to" topic, "bi"/"bt"/"oi" bucket and object, ...), and stored in the
// application's push outbox.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "database.hpp"
#include "object_store.hpp"
#include "push_store.hpp"

namespace jovemu {

inline constexpr const char* kObjectCreated = "DATA_OBJECT_CREATED";
inline constexpr const char* kObjectUpdated = "DATA_OBJECT_UPDATED";
inline constexpr const char* kObjectDeleted = "DATA_OBJECT_DELETED";

/// @brief 400 unless the body is a message a topic can carry: an object whose "data" and
/// channel sections ("gcm", "apns", "mqtt") are objects, with at least one channel enabled.
void requireMessageBody(const nlohmann::json& body);

/// @brief Stores, for every installation of every subscriber of the topic, the deliveries of the
/// message on the channels it enables. Returns how many were stored.
std::size_t deliverTopicMessage(Connection& conn, const std::string& appID, const TopicKey& topic,
                                const std::string& senderID, const nlohmann::json& body,
                                std::int64_t nowMs);

/// @brief Stores, for every installation of every subscriber of the bucket who may read the
/// object, the news of the change. Call it before the change for a deletion (the object's
/// entries still tell who could read it), after it otherwise.
void deliverBucketEvent(Connection& conn, const BucketRow& bucket, const std::string& objectID,
                        const char* eventType, const std::optional<std::string>& senderID,
                        std::int64_t nowMs);

}  // namespace jovemu
