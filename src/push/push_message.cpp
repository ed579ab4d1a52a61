// The body of a push message: the message-wide part, each channel's section, and the checks
// made before a send.

#include "jov/push_message.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <stdexcept>
#include <string_view>

#include "jov/error.hpp"

namespace jov {

namespace {

template <class T>
void putIfSet(nlohmann::ordered_json& out, const char* key, const std::optional<T>& value) {
  if (value) out[key] = *value;
}

// Off drops a section; on makes a fresh one only when there is none.
template <class Section>
void switchSection(std::optional<Section>& section, bool enabled) {
  if (!enabled) {
    section.reset();
  } else if (!section) {
    section = Section::createFields();
  }
}

// A section of a channel that is off.
nlohmann::ordered_json disabledSection() { return nlohmann::ordered_json{{"enabled", false}}; }

bool hasReservedKey(const std::optional<nlohmann::json>& data) {
  if (!data || !data->is_object()) return false;
  return std::any_of(data->items().begin(), data->items().end(),
                     [](const auto& item) { return JovGCMFields::isReservedKey(item.key()); });
}

}  // namespace

nlohmann::ordered_json JovAPNSFields::generateFields() const {
  nlohmann::ordered_json out;
  putIfSet(out, "enabled", enabled);
  nlohmann::ordered_json alert = nlohmann::ordered_json::object();
  putIfSet(alert, "body", alertBody);
  putIfSet(alert, "actionLocKey", alertActionLocKey);
  putIfSet(alert, "locKey", alertLocKey);
  putIfSet(alert, "locArgs", alertLocArgs);
  putIfSet(alert, "launchImage", alertLaunchImage);
  putIfSet(alert, "title", alertTitle);
  putIfSet(alert, "subtitle", alertSubtitle);
  const bool hasAlert = !alert.empty();
  if (hasAlert) out["alert"] = std::move(alert);
  putIfSet(out, "contentAvailable", contentAvailable);
  putIfSet(out, "mutableContent", mutableContent);
  putIfSet(out, "data", data);
  putIfSet(out, "sound", sound);
  putIfSet(out, "badge", badge);
  if (category && !category->empty()) out["category"] = *category;
  // A push that only wakes the application is a background push; anything a person sees or
  // hears makes it an alert.
  const bool background = contentAvailable == 1 && !hasAlert && !sound && !badge;
  out["apnsPushType"] = background ? "background" : "alert";
  return out;
}

nlohmann::ordered_json JovGCMFields::generateFields() const {
  nlohmann::ordered_json out{{"enabled", true}};
  putIfSet(out, "collapseKey", collapseKey);
  putIfSet(out, "delayWhileIdle", delayWhileIdle);
  putIfSet(out, "timeToLive", timeToLive);
  putIfSet(out, "restrictedPackageName", restrictedPackageName);
  putIfSet(out, "dryRun", dryRun);
  putIfSet(out, "data", data);
  return out;
}

bool JovGCMFields::isReservedKey(const std::string& key) {
  static constexpr std::array<std::string_view, 8> kReserved = {
      "from",          "registration_ids", "collapse_key",           "data",
      "delay_while_idle", "time_to_live",  "restricted_package_name", "dry_run"};
  std::string lower(key);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (lower.rfind("google", 0) == 0) return true;
  return std::find(kReserved.begin(), kReserved.end(), key) != kReserved.end();
}

nlohmann::ordered_json JovMQTTFields::generateFields() const {
  nlohmann::ordered_json out;
  putIfSet(out, "enabled", enabled);
  putIfSet(out, "data", data);
  return out;
}

JovPushMessage JovPushMessage::composeMessageWithData(nlohmann::json data) {
  if (data.is_null()) data = nlohmann::json::object();  // composeMessageWithData({})
  if (!data.is_object()) throw std::invalid_argument("data must be a JSON object");
  JovPushMessage message;
  message.data = std::move(data);
  message.apnsFields = JovAPNSFields::createFields();
  message.gcmFields = JovGCMFields::createFields();
  message.mqttFields = JovMQTTFields::createFields();
  return message;
}

JovPushMessage JovPushMessage::composeMessageWithAPNSFields(std::optional<JovAPNSFields> apns,
                                                            std::optional<JovGCMFields> gcm,
                                                            std::optional<JovMQTTFields> mqtt) {
  JovPushMessage message;
  message.apnsFields = std::move(apns);
  message.gcmFields = std::move(gcm);
  message.mqttFields = std::move(mqtt);
  return message;
}

JovPushMessage JovPushMessage::messageWithReceivedPayload(nlohmann::json payload) {
  JovPushMessage message;
  message.incoming_ = true;
  message.rawMessage_ = std::move(payload);
  return message;
}

void JovPushMessage::setAPNSEnabled(bool enabled) { switchSection(apnsFields, enabled); }
void JovPushMessage::setGCMEnabled(bool enabled) { switchSection(gcmFields, enabled); }
void JovPushMessage::setMQTTEnabled(bool enabled) { switchSection(mqttFields, enabled); }

Result<nlohmann::ordered_json> JovPushMessage::getMessageData() const {
  if (incoming_) return nlohmann::ordered_json();
  if (!apnsFields && !gcmFields && !mqttFields) return JovError(JovError::codePushDataRequired());
  if (data && !data->is_object()) return JovError(JovError::codeInvalidPushMessageData());
  nlohmann::ordered_json body = nlohmann::ordered_json::object();
  putIfSet(body, "data", data);
  putIfSet(body, "sendToDevelopment", sendToDevelopment);
  putIfSet(body, "sendToProduction", sendToProduction);
  putIfSet(body, "pushMessageType", pushMessageType);
  putIfSet(body, "sendAppID", sendAppID);
  putIfSet(body, "sendSender", sendSender);
  putIfSet(body, "sendWhen", sendWhen);
  putIfSet(body, "sendOrigin", sendOrigin);
  putIfSet(body, "sendObjectScope", sendObjectScope);
  putIfSet(body, "sendTopicID", sendTopicID);
  if (gcmFields) {
    body["gcm"] = gcmFields->generateFields();
    if (hasReservedKey(data) || hasReservedKey(gcmFields->data)) {
      return JovError(JovError::codeContainsGCMReservedKey());
    }
  } else {
    body["gcm"] = disabledSection();
  }
  body["apns"] = apnsFields ? apnsFields->generateFields() : disabledSection();
  body["mqtt"] = mqttFields ? mqttFields->generateFields() : disabledSection();
  return body;
}

}  // namespace jov
