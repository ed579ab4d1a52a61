// Received push payloads: the scope, the sender and the entities a payload concerns, and the
// alert hand-off that stands in for a platform alert view.

#include "jov/received_message.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <mutex>
#include <stdexcept>

#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/group.hpp"
#include "jov/logger.hpp"
#include "jov/object.hpp"
#include "jov/thing.hpp"
#include "jov/topic.hpp"
#include "jov/user.hpp"

namespace jov {

namespace {

// The short key of each field, by index.
constexpr std::array<const char*, 15> kFieldKeys = {"a",  "s",  "t",  "w",  "o",
                                                    "to", "sa", "su", "sg", "st",
                                                    "bi", "bt", "oi", "om", "sth"};
constexpr std::array<const char*, 4> kScopeTexts = {"APP", "APP_AND_GROUP", "APP_AND_USER",
                                                    "APP_AND_THING"};

bool isThingID(const std::string& id) { return id.rfind("th", 0) == 0; }

std::mutex& alertMutex() {
  static std::mutex mutex;
  return mutex;
}
JovReceivedMessage::AlertHandler& alertHandler() {
  static JovReceivedMessage::AlertHandler handler;
  return handler;
}

// Names in a payload come from the service, or from whoever forged it: a name the factories
// refuse yields nothing rather than an exception in the application's push handler.
template <class F>
auto orNull(F&& make) -> decltype(make()) {
  try {
    return make();
  } catch (const std::invalid_argument&) {
    return nullptr;
  }
}

}  // namespace

JovReceivedMessage::JovReceivedMessage(nlohmann::json payload) : raw_(std::move(payload)) {
  if (!has("st")) return;
  scope_ = JovMessageScopeApp;  // a text that names no scope reads as the application's
  const auto scope = text("st");
  if (!scope) return;
  for (std::size_t i = 0; i < kScopeTexts.size(); ++i) {
    if (*scope == kScopeTexts[i]) {
      scope_ = static_cast<int>(i);
      return;
    }
  }
}

JovReceivedMessage JovReceivedMessage::messageFromAPNS(nlohmann::json payload) {
  return JovReceivedMessage(std::move(payload));
}

bool JovReceivedMessage::has(const char* key) const {
  return raw_.is_object() && raw_.contains(key) && !raw_.at(key).is_null();
}

std::optional<std::string> JovReceivedMessage::text(const char* key) const {
  if (!has(key) || !raw_.at(key).is_string()) return std::nullopt;
  return raw_.at(key).get<std::string>();
}

int JovReceivedMessage::messageScope() const { return scope_; }

std::optional<nlohmann::json> JovReceivedMessage::getValueOfJovMessageField(int field) const {
  if (field < 0 || field >= static_cast<int>(kFieldKeys.size())) return std::nullopt;
  const char* key = kFieldKeys[static_cast<std::size_t>(field)];
  if (!has(key)) return std::nullopt;
  return raw_.at(key);
}

std::shared_ptr<JovUser> JovReceivedMessage::senderUser() const {
  auto sender = text("s");
  if (!sender || sender->empty() || isThingID(*sender)) return nullptr;
  return JovUser::userWithID(*sender);
}

std::shared_ptr<JovThing> JovReceivedMessage::senderThing() const {
  auto sender = text("s");
  if (!sender || !isThingID(*sender)) return nullptr;
  return JovThing::thingWithID(*sender);
}

std::shared_ptr<JovUser> JovReceivedMessage::eventSourceUser() const {
  auto id = text("su");
  if (!id || id->empty()) return nullptr;
  return JovUser::userWithID(*id);
}

std::shared_ptr<JovGroup> JovReceivedMessage::eventSourceGroup() const {
  auto id = text("sg");
  if (!id || id->empty()) return nullptr;
  return JovGroup::groupWithID(*id);
}

std::shared_ptr<JovThing> JovReceivedMessage::eventSourceThing() const {
  auto id = text("sth");
  if (!id || id->empty()) return nullptr;
  return JovThing::thingWithID(*id);
}

bool JovReceivedMessage::scopeOwner(Owner& owner) const {
  switch (scope_) {
    case JovMessageScopeApp:
      return true;
    case JovMessageScopeAppAndGroup:
      owner.group = eventSourceGroup();
      return owner.group != nullptr;
    case JovMessageScopeAppAndUser:
      owner.user = eventSourceUser();
      return owner.user != nullptr;
    case JovMessageScopeAppAndThing:
      owner.thing = eventSourceThing();
      return owner.thing != nullptr;
    default:
      return false;
  }
}

std::shared_ptr<JovBucket> JovReceivedMessage::eventSourceBucket() const {
  auto name = text("bi");
  auto type = text("bt");
  if (!name || !type || !JovBucket::isValidBucketName(*name)) return nullptr;
  std::string upper = *type;
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  // Synchronised buckets are not handed out; neither is a type this library does not know.
  const bool encrypted = upper == "CRYPTO";
  if (!encrypted && upper != "RW") return nullptr;
  Owner owner;
  if (!scopeOwner(owner)) return nullptr;
  if (const auto& user = owner.user) {
    return encrypted ? user->encryptedBucketWithName(*name) : user->bucketWithName(*name);
  }
  if (const auto& group = owner.group) {
    return encrypted ? group->encryptedBucketWithName(*name) : group->bucketWithName(*name);
  }
  if (const auto& thing = owner.thing) {
    return encrypted ? thing->encryptedBucketWithName(*name) : thing->bucketWithName(*name);
  }
  return encrypted ? Jov::encryptedBucketWithName(*name) : Jov::bucketWithName(*name);
}

std::shared_ptr<JovObject> JovReceivedMessage::eventSourceObject() const {
  auto id = text("oi");
  if (!id) return nullptr;
  auto bucket = eventSourceBucket();
  if (!bucket) return nullptr;
  return orNull([&] { return bucket->createObjectWithID(*id); });
}

std::shared_ptr<JovTopic> JovReceivedMessage::eventSourceTopic() const {
  auto name = text("to");
  if (!name) return nullptr;
  Owner owner;
  if (!scopeOwner(owner)) return nullptr;
  return orNull([&]() -> std::shared_ptr<JovTopic> {
    if (owner.user) return owner.user->topicWithName(*name);
    if (owner.group) return owner.group->topicWithName(*name);
    if (owner.thing) return owner.thing->topicWithName(*name);
    return Jov::topicWithName(*name);
  });
}

std::string JovReceivedMessage::getAlertBody() const {
  if (!has("aps") || !raw_.at("aps").is_object()) return "";
  const auto& aps = raw_.at("aps");
  const auto alert = aps.find("alert");
  if (alert == aps.end()) return "";
  if (alert->is_string()) return alert->get<std::string>();
  if (alert->is_object()) {
    const auto body = alert->find("body");
    if (body != alert->end() && body->is_string()) return body->get<std::string>();
  }
  return "";
}

void JovReceivedMessage::showMessageAlertWithTitle(const std::optional<std::string>& title) const {
  const std::string shownTitle = title.value_or("APNS Alert");
  AlertHandler handler;
  {
    std::lock_guard lock(alertMutex());
    handler = alertHandler();
  }
  if (handler) {
    handler(shownTitle, getAlertBody());
  } else {
    JOV_LOG(JovLogInfo, shownTitle + ": " + getAlertBody());
  }
}

void JovReceivedMessage::setAlertHandler(AlertHandler handler) {
  std::lock_guard lock(alertMutex());
  alertHandler() = std::move(handler);
}

}  // namespace jov
