#pragma once
/// @file
/// @brief JovPushMessage, the message a client sends to a topic, and its per-channel sections
/// JovAPNSFields, JovGCMFields and JovMQTTFields.
///
/// Every type here is a plain value: copy it, change the copy, hand it to JovTopic::sendMessage.
/// A message is never shared between threads behind the caller's back.
///
/// @code
/// auto message = jov::JovPushMessage::composeMessageWithData({{"score", 3}});
/// message.apnsFields->alertBody = "Alice scored";
/// message.setGCMEnabled(false);
/// topic->sendMessageSynchronous(message);
/// @endcode

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "jov/result.hpp"

namespace jov {

/// @brief What an APNs delivery carries. Every field left unset stays out of the body.
struct JovAPNSFields {
  /// @brief A section with only "enabled" set (true).
  static JovAPNSFields createFields() { return {}; }
  /// @brief Sets the data only APNs deliveries carry ("data" of the section).
  void setSpecificData(nlohmann::json specificData) { data = std::move(specificData); }
  /// @brief The section's body: "enabled", "alert" (when any alert field is set),
  /// "contentAvailable", "mutableContent", "data", "sound", "badge", "category" (when not
  /// empty) and "apnsPushType": "background" for a content-available push without alert, sound
  /// and badge, else "alert".
  nlohmann::ordered_json generateFields() const;

  std::optional<bool> enabled = true;                    ///< "enabled"
  std::optional<nlohmann::json> data;                    ///< "data", APNs only
  std::optional<std::string> alertBody;                  ///< "alert"."body"
  std::optional<std::string> alertActionLocKey;          ///< "alert"."actionLocKey"
  std::optional<std::string> alertLocKey;                ///< "alert"."locKey"
  std::optional<std::vector<std::string>> alertLocArgs;  ///< "alert"."locArgs"
  std::optional<std::string> alertLaunchImage;           ///< "alert"."launchImage"
  std::optional<std::string> alertTitle;                 ///< "alert"."title"
  std::optional<std::string> alertSubtitle;              ///< "alert"."subtitle"
  std::optional<std::string> sound;                      ///< "sound"
  std::optional<std::int64_t> badge;                     ///< "badge"
  std::optional<std::int64_t> contentAvailable;          ///< "contentAvailable"
  std::optional<std::string> category;                   ///< "category"
  std::optional<std::int64_t> mutableContent;            ///< "mutableContent"
};

/// @brief What a GCM delivery carries. Every field left unset stays out of the body.
struct JovGCMFields {
  /// @brief An empty section (its body is {"enabled": true}).
  static JovGCMFields createFields() { return {}; }
  /// @brief Sets the data only GCM deliveries carry ("data" of the section).
  void setSpecificData(nlohmann::json specificData) { data = std::move(specificData); }
  /// @brief The section's body: "enabled": true, then "collapseKey", "delayWhileIdle",
  /// "timeToLive", "restrictedPackageName", "dryRun" and "data" when set.
  nlohmann::ordered_json generateFields() const;
  /// @brief Whether a key is GCM's own: its lower-case form begins with "google", or it is one
  /// of "from", "registration_ids", "collapse_key", "data", "delay_while_idle", "time_to_live",
  /// "restricted_package_name", "dry_run".
  static bool isReservedKey(const std::string& key);

  std::optional<nlohmann::json> data;                 ///< "data", GCM only
  std::optional<std::string> collapseKey;             ///< "collapseKey"
  std::optional<bool> delayWhileIdle;                 ///< "delayWhileIdle"
  std::optional<std::int64_t> timeToLive;             ///< "timeToLive", in seconds
  std::optional<std::string> restrictedPackageName;  ///< "restrictedPackageName"
  std::optional<bool> dryRun;                         ///< "dryRun"
};

/// @brief What an MQTT delivery carries.
struct JovMQTTFields {
  /// @brief A section with only "enabled" set (true).
  static JovMQTTFields createFields() { return {}; }
  /// @brief The section's body: "enabled", then "data" when set.
  nlohmann::ordered_json generateFields() const;

  std::optional<bool> enabled = true;  ///< "enabled"
  std::optional<nlohmann::json> data;  ///< "data", MQTT only
};

/// @brief A push message: a data dictionary for every channel, optional "send" switches that
/// tell the service which details to add to the deliveries, and one section per channel (an
/// empty optional means that channel is off).
class JovPushMessage {
 public:
  /// @brief A message with this data (a JSON object; null is taken as an empty one) and the
  /// three sections, each as its createFields makes it. Raises std::invalid_argument "data must
  /// be a JSON object" for any other JSON.
  static JovPushMessage composeMessageWithData(nlohmann::json data);
  /// @brief A message with exactly these sections (none given: that channel is off) and no
  /// data.
  static JovPushMessage composeMessageWithAPNSFields(std::optional<JovAPNSFields> apns,
                                                     std::optional<JovGCMFields> gcm,
                                                     std::optional<JovMQTTFields> mqtt = {});
  /// @brief A message that wraps a received push payload: it yields no request body.
  static JovPushMessage messageWithReceivedPayload(nlohmann::json payload);

  /// @brief Off drops the APNs section; on makes a fresh one only when there is none (an
  /// existing section and its alert are kept).
  void setAPNSEnabled(bool enabled);
  /// @brief As setAPNSEnabled, for GCM.
  void setGCMEnabled(bool enabled);
  /// @brief As setAPNSEnabled, for MQTT.
  void setMQTTEnabled(bool enabled);

  /// @brief True for a message made from a received payload.
  bool isIncomingMessage() const { return incoming_; }
  /// @brief The received payload (incoming messages only; null otherwise).
  const nlohmann::json& rawMessage() const { return rawMessage_; }

  /// @brief The request body: "data", the send switches that are set ("sendToDevelopment",
  /// "sendToProduction", "pushMessageType", "sendAppID", "sendSender", "sendWhen",
  /// "sendOrigin", "sendObjectScope", "sendTopicID"), then "gcm", "apns" and "mqtt", each a
  /// section's body or {"enabled": false} for a channel that is off; keys in that order.
  /// Errors: 708 no section at all; 712 a GCM-reserved key in the data or the GCM data while
  /// the GCM section is on; 706 data that is not a JSON object. An incoming message gives null
  /// and no error.
  Result<nlohmann::ordered_json> getMessageData() const;

  std::optional<nlohmann::json> data;           ///< "data": a JSON object for every channel
  std::optional<JovAPNSFields> apnsFields;      ///< the APNs section; none: APNs is off
  std::optional<JovGCMFields> gcmFields;        ///< the GCM section; none: GCM is off
  std::optional<JovMQTTFields> mqttFields;      ///< the MQTT section; none: MQTT is off
  std::optional<bool> sendToDevelopment;        ///< "sendToDevelopment"
  std::optional<bool> sendToProduction;         ///< "sendToProduction"
  std::optional<std::string> pushMessageType;   ///< "pushMessageType"
  std::optional<bool> sendAppID;                ///< "sendAppID": deliveries carry "a"
  std::optional<bool> sendSender;               ///< "sendSender": deliveries carry "s"
  std::optional<bool> sendWhen;                 ///< "sendWhen": deliveries carry "w"
  std::optional<bool> sendOrigin;               ///< "sendOrigin": deliveries carry "o"
  std::optional<bool> sendObjectScope;          ///< "sendObjectScope": the scope keys
  std::optional<bool> sendTopicID;              ///< "sendTopicID": deliveries carry "to"

 private:
  bool incoming_ = false;
  nlohmann::json rawMessage_;
};

}  // namespace jov
