#include "push_delivery.hpp"

#include "acl_store.hpp"
#include "api_error.hpp"
#include "user_store.hpp"

namespace jovemu {

namespace {

// The channel an installation's device listens on.
const char* channelOf(const std::string& deviceType) {
  if (deviceType == "IOS") return "APNS";
  if (deviceType == "ANDROID") return "GCM";
  return "MQTT";
}
const char* sectionOf(const char* channel) {
  const std::string name(channel);
  return name == "APNS" ? "apns" : name == "GCM" ? "gcm" : "mqtt";
}

const char* scopeText(ScopeKind kind) {
  switch (kind) {
    case ScopeKind::User:
      return "APP_AND_USER";
    case ScopeKind::Group:
      return "APP_AND_GROUP";
    case ScopeKind::Thing:
      return "APP_AND_THING";
    case ScopeKind::App:
      break;
  }
  return "APP";
}

// "sa", "st" and, for a user's or a group's scope, "su" or "sg".
void putScope(nlohmann::json& keys, const std::string& appID, const BucketScope& scope) {
  keys["sa"] = appID;
  keys["st"] = scopeText(scope.kind);
  if (scope.kind == ScopeKind::User) keys["su"] = scope.ownerID;
  if (scope.kind == ScopeKind::Group) keys["sg"] = scope.ownerID;
  if (scope.kind == ScopeKind::Thing) keys["sth"] = scope.ownerID;
}

// A "send" switch of a message: absent means on.
bool switchOn(const nlohmann::json& body, const char* key) {
  auto value = body.find(key);
  return value == body.end() || !value->is_boolean() || value->get<bool>();
}

bool sectionEnabled(const nlohmann::json& body, const char* section) {
  auto found = body.find(section);
  if (found == body.end() || !found->is_object()) return false;
  auto enabled = found->find("enabled");
  return enabled == found->end() || !enabled->is_boolean() || enabled->get<bool>();
}

void merge(nlohmann::json& into, const nlohmann::json& from) {
  if (!from.is_object()) return;
  for (const auto& [key, value] : from.items()) into[key] = value;
}

// The "aps" dictionary of an APNs section, in APNs' own spelling.
nlohmann::json apsOf(const nlohmann::json& apns) {
  nlohmann::json aps = nlohmann::json::object();
  if (auto alert = apns.find("alert"); alert != apns.end() && alert->is_object()) {
    static const std::pair<const char*, const char*> kAlertKeys[] = {
        {"body", "body"},
        {"title", "title"},
        {"subtitle", "subtitle"},
        {"actionLocKey", "action-loc-key"},
        {"locKey", "loc-key"},
        {"locArgs", "loc-args"},
        {"launchImage", "launch-image"}};
    nlohmann::json out = nlohmann::json::object();
    for (const auto& [from, to] : kAlertKeys) {
      if (alert->contains(from)) out[to] = alert->at(from);
    }
    aps["alert"] = std::move(out);
  }
  static const std::pair<const char*, const char*> kKeys[] = {
      {"sound", "sound"},
      {"badge", "badge"},
      {"category", "category"},
      {"contentAvailable", "content-available"},
      {"mutableContent", "mutable-content"}};
  for (const auto& [from, to] : kKeys) {
    if (apns.contains(from)) aps[to] = apns.at(from);
  }
  return aps;
}

// Whether an installation takes a message meant for development or production devices.
bool takes(const InstallationRow& installation, const nlohmann::json& body) {
  return installation.development ? switchOn(body, "sendToDevelopment")
                                  : switchOn(body, "sendToProduction");
}

// The user ID of a "users/ID" subscriber; empty for another kind.
std::string subscribedUser(const std::string& subscriber) {
  static const std::string prefix = "users/";
  return subscriber.rfind(prefix, 0) == 0 ? subscriber.substr(prefix.size()) : std::string();
}

}  // namespace

void requireMessageBody(const nlohmann::json& body) {
  if (!body.is_object()) throw invalidInput("The push message must be a JSON object");
  if (auto data = body.find("data"); data != body.end() && !data->is_object()) {
    throw invalidInput("There are validation errors: data - must be an object");
  }
  bool anyEnabled = false;
  for (const char* section : {"gcm", "apns", "mqtt"}) {
    auto found = body.find(section);
    if (found == body.end()) continue;
    if (!found->is_object()) {
      throw invalidInput(std::string("There are validation errors: ") + section +
                         " - must be an object");
    }
    anyEnabled = anyEnabled || sectionEnabled(body, section);
  }
  if (!anyEnabled) throw invalidInput("The push message enables no channel");
}

std::size_t deliverTopicMessage(Connection& conn, const std::string& appID, const TopicKey& topic,
                                const std::string& senderID, const nlohmann::json& body,
                                std::int64_t nowMs) {
  // The keys every delivery of this message carries, as the message's switches ask.
  nlohmann::json keys = nlohmann::json::object();
  if (switchOn(body, "sendAppID")) keys["a"] = appID;
  if (switchOn(body, "sendSender")) keys["s"] = senderID;
  if (switchOn(body, "sendWhen")) keys["w"] = nowMs;
  if (switchOn(body, "sendOrigin")) keys["o"] = "USER";
  if (switchOn(body, "sendTopicID")) keys["to"] = topic.name;
  if (switchOn(body, "sendObjectScope")) putScope(keys, appID, topic.scope);
  if (auto type = body.find("pushMessageType"); type != body.end() && type->is_string()) {
    keys["t"] = *type;
  }
  const nlohmann::json data = body.value("data", nlohmann::json::object());

  std::size_t stored = 0;
  for (const auto& subscriber : topicSubscribers(conn, appID, topic)) {
    const std::string userID = subscribedUser(subscriber);
    if (userID.empty()) continue;
    for (const auto& installation : userInstallations(conn, appID, userID)) {
      const char* channel = channelOf(installation.deviceType);
      const char* section = sectionOf(channel);
      if (!sectionEnabled(body, section) || !takes(installation, body)) continue;
      const nlohmann::json& fields = body.at(section);
      nlohmann::json payload = nlohmann::json::object();
      merge(payload, data);
      merge(payload, fields.value("data", nlohmann::json::object()));
      merge(payload, keys);
      if (std::string(channel) == "APNS") payload["aps"] = apsOf(fields);
      insertDelivery(conn, appID,
                     {"TOPIC_MESSAGE", userID, installation.installationID, installation.deviceType,
                      channel, std::move(payload), nowMs});
      ++stored;
    }
  }
  return stored;
}

void deliverBucketEvent(Connection& conn, const BucketRow& bucket, const std::string& objectID,
                        const char* eventType, const std::optional<std::string>& senderID,
                        std::int64_t nowMs) {
  const auto subscribers = bucketSubscribers(conn, bucket.key);
  if (subscribers.empty()) return;
  static const std::string crypto = "CRYPTO:";
  const bool encrypted = bucket.name.rfind(crypto, 0) == 0;
  nlohmann::json keys = {{"a", bucket.appID},
                         {"t", eventType},
                         {"w", nowMs},
                         {"o", "EVENT"},
                         {"bi", encrypted ? bucket.name.substr(crypto.size()) : bucket.name},
                         {"bt", encrypted ? "crypto" : "rw"},
                         {"oi", objectID}};
  if (senderID) keys["s"] = *senderID;
  putScope(keys, bucket.appID, bucket.scope);

  for (const auto& subscriber : subscribers) {
    const std::string userID = subscribedUser(subscriber);
    if (userID.empty()) continue;
    // Only those who may read the object hear of it.
    auto user = findUser(conn, bucket.appID, userID);
    if (!user) continue;
    const auto requester = requesterFor(conn, bucket.appID, user);
    if (!isAllowed(conn, bucket.key, kBucketTarget, kReadObjects, requester) &&
        !isAllowed(conn, bucket.key, objectID, kReadObject, requester)) {
      continue;
    }
    for (const auto& installation : userInstallations(conn, bucket.appID, userID)) {
      const char* channel = channelOf(installation.deviceType);
      nlohmann::json payload = keys;
      // A change is news for the application, not for the person: a silent push.
      if (std::string(channel) == "APNS") payload["aps"] = {{"content-available", 1}};
      insertDelivery(conn, bucket.appID,
                     {"BUCKET_EVENT", userID, installation.installationID, installation.deviceType,
                      channel, std::move(payload), nowMs});
    }
  }
}

}  // namespace jovemu
