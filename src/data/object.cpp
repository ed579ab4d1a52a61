// An object's local state: identity, fields and the change set, its URI and path, loading a
// document of the service, and parsing object URIs.

#include "jov/object.hpp"

#include <atomic>
#include <cmath>
#include <random>
#include <regex>
#include <sstream>

#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/encoding.hpp"
#include "jov/group.hpp"
#include "jov/thing.hpp"
#include "jov/logger.hpp"
#include "jov/user.hpp"
#include "jov/validation.hpp"
#include "users/user_internal.hpp"

namespace jov {

namespace {

constexpr std::string_view kURIPrefix = "jovcloud://";

// A unique string per object of the process: a random prefix and a counter.
std::string uniqueID() {
  static const std::string prefix = [] {
    std::random_device device;
    std::ostringstream text;
    text << std::hex << device() << device();
    return text.str();
  }();
  static std::atomic<std::uint64_t> counter{0};
  return "jovid://" + prefix + "-" + std::to_string(++counter);
}

// Percent-decoding of one path segment; nothing for a malformed escape.
std::optional<std::string> percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i + 1])) ||
        !std::isxdigit(static_cast<unsigned char>(text[i + 2])))
      return std::nullopt;
    out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
    i += 2;
  }
  return out;
}

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (true) {
    auto end = text.find(separator, start);
    parts.emplace_back(text.substr(start, end - start));
    if (end == std::string_view::npos) return parts;
    start = end + 1;
  }
}

// The bucket a qualified name names under a parent: "CRYPTO:" makes an encrypted one.
std::shared_ptr<JovBucket> parseBucket(const std::string& qualified,
                                       const std::shared_ptr<JovUser>& user,
                                       const std::shared_ptr<JovGroup>& group,
                                       const std::shared_ptr<JovThing>& thing = nullptr) {
  constexpr std::string_view kCrypto = "CRYPTO:";
  const bool encrypted = qualified.starts_with(kCrypto);
  auto name = percentDecode(encrypted ? qualified.substr(kCrypto.size()) : qualified);
  if (!name || name->empty()) return nullptr;
  if (user) return encrypted ? user->encryptedBucketWithName(*name) : user->bucketWithName(*name);
  if (group)
    return encrypted ? group->encryptedBucketWithName(*name) : group->bucketWithName(*name);
  if (thing)
    return encrypted ? thing->encryptedBucketWithName(*name) : thing->bucketWithName(*name);
  return encrypted ? Jov::encryptedBucketWithName(*name) : Jov::bucketWithName(*name);
}

std::string jsonText(const nlohmann::json& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

}  // namespace

JovObject::JovObject(Key, std::shared_ptr<JovBucket> bucket, std::optional<std::string> uuid,
                     std::optional<std::string> type)
    : bucket_(std::move(bucket)),
      internalID_(uniqueID()),
      uuid_(std::move(uuid)),
      type_(std::move(type)) {}

bool JovObject::isValidObjectType(const std::string& type) {
  static const std::regex pattern("[A-Za-z]{1}[A-Za-z0-9-_]{4,49}");
  return std::regex_match(type, pattern);
}

JovObject::Ptr JovObject::objectWithURI(const std::string& uri) {
  auto fail = [&uri]() -> Ptr {
    JOV_LOG(JovLogWarning, "Failed to parse URI: " + uri);
    return nullptr;
  };
  if (!uri.starts_with(kURIPrefix)) return fail();
  const auto parts = split(std::string_view(uri).substr(kURIPrefix.size()), '/');
  if (parts.size() < 3) return fail();
  std::shared_ptr<JovBucket> bucket;
  if ((parts[0] == "users" || parts[0] == "groups" || parts[0] == "things") && parts.size() == 6 &&
      parts[2] == "buckets" && parts[4] == "objects" && !parts[1].empty()) {
    auto parentID = percentDecode(parts[1]);
    if (!parentID || parentID->empty()) return fail();
    if (parts[0] == "users") {
      bucket = parseBucket(parts[3], JovUser::userWithID(*parentID), nullptr);
    } else if (parts[0] == "groups") {
      bucket = parseBucket(parts[3], nullptr, JovGroup::groupWithID(*parentID));
    } else {
      bucket = parseBucket(parts[3], nullptr, nullptr, JovThing::thingWithID(*parentID));
    }
  } else if (parts[0] == "buckets" && parts.size() == 4 && parts[2] == "objects") {
    bucket = parseBucket(parts[1], nullptr, nullptr);
  }
  auto id = bucket ? percentDecode(parts.back()) : std::nullopt;
  if (!id || id->empty()) return fail();
  return std::make_shared<JovObject>(Key{}, bucket, *id, std::nullopt);
}

std::optional<std::string> JovObject::uuid() const {
  std::lock_guard lock(mutex_);
  return uuid_;
}
std::optional<JovObject::TimePoint> JovObject::created() const {
  std::lock_guard lock(mutex_);
  return created_;
}
std::optional<JovObject::TimePoint> JovObject::modified() const {
  std::lock_guard lock(mutex_);
  return modified_;
}
std::optional<std::string> JovObject::objectType() const {
  std::lock_guard lock(mutex_);
  return type_;
}
std::optional<std::string> JovObject::etag() const {
  std::lock_guard lock(mutex_);
  return etag_;
}
std::optional<std::string> JovObject::bodyContentType() const {
  std::lock_guard lock(mutex_);
  return bodyContentType_;
}
std::optional<JovError> JovObject::lastError() const {
  std::lock_guard lock(mutex_);
  return lastError_;
}

std::optional<std::string> JovObject::pathLocked() const {
  auto bucketPath = bucket_ ? bucket_->bucketPath() : std::nullopt;
  if (!uuid_ || !bucketPath) return std::nullopt;
  return *bucketPath + "/objects/" + urlEncode(*uuid_);
}

std::optional<std::string> JovObject::objectPath() const {
  std::lock_guard lock(mutex_);
  return pathLocked();
}

std::optional<std::string> JovObject::objectURI() const {
  auto path = objectPath();
  if (!path) return std::nullopt;
  return "jovcloud:/" + *path;
}

std::optional<std::string> JovObject::aclPath() const {
  auto path = objectPath();
  if (!path) return std::nullopt;
  return *path + "/acl";
}

// ------------------------------------------------------------------ fields

bool JovObject::refuse(int code) {
  std::lock_guard lock(mutex_);
  lastError_ = JovError::errorWithCode(code);
  return false;
}

bool JovObject::store(const std::string& key, Value value) {
  if (key.empty() || key.front() == '_') return refuse(JovError::codeInvalidAttributeKey());
  std::lock_guard lock(mutex_);
  fields_.insert_or_assign(key, std::move(value));
  patchKeys_.insert(key);
  return true;
}

namespace {

// Whether a value has a faithful JSON text: no non-finite number anywhere (it would be written
// as null), no discarded value.
bool encodable(const nlohmann::json& value) {
  if (value.is_discarded()) return false;
  if (value.is_number_float()) return std::isfinite(value.get<double>());
  if (value.is_structured()) {
    for (const auto& item : value)
      if (!encodable(item)) return false;
  }
  return true;
}

}  // namespace

bool JovObject::setObject(const nlohmann::json& value, const std::string& key) {
  if (key.empty() || key.front() == '_') return refuse(JovError::codeInvalidAttributeKey());
  // A field is never null itself: a partial save sends null for a removed field.
  if (value.is_null() || !encodable(value) || !JSONRepresentation(value))
    return refuse(JovError::codeUnableToParseObject());
  return store(key, value);
}

bool JovObject::setObject(const Ptr& value, const std::string& key) {
  if (key.empty() || key.front() == '_') return refuse(JovError::codeInvalidAttributeKey());
  if (value.get() == this) return refuse(JovError::codeUnableToSetObjectToItself());
  if (!value) return refuse(JovError::codeUnableToParseObject());
  return store(key, value);
}

bool JovObject::setObject(const std::shared_ptr<JovUser>& value, const std::string& key) {
  if (key.empty() || key.front() == '_') return refuse(JovError::codeInvalidAttributeKey());
  if (!value) return refuse(JovError::codeUnableToParseObject());
  return store(key, value);
}

bool JovObject::setGeoPoint(const JovGeoPoint& point, const std::string& key) {
  return setObject(point.toDictionary(), key);
}

namespace {

nlohmann::json jsonOf(const JovObject::Value& value) {
  if (auto* json = std::get_if<nlohmann::json>(&value)) return *json;
  if (auto* object = std::get_if<JovObject::Ptr>(&value)) {
    auto uri = (*object)->objectURI();
    return uri ? nlohmann::json(*uri) : nlohmann::json(nullptr);
  }
  return std::get<std::shared_ptr<JovUser>>(value)->objectURI();
}

}  // namespace

std::optional<nlohmann::json> JovObject::getObjectForKey(const std::string& key) const {
  auto value = getValueForKey(key);
  if (!value) return std::nullopt;
  return jsonOf(*value);
}

std::optional<JovObject::Value> JovObject::getValueForKey(const std::string& key) const {
  std::lock_guard lock(mutex_);
  auto it = fields_.find(key);
  if (it == fields_.end()) return std::nullopt;
  return it->second;
}

std::optional<JovGeoPoint> JovObject::getGeoPointForKey(const std::string& key) const {
  auto value = getObjectForKey(key);
  return value ? JovGeoPoint::toGeoPoint(*value) : std::nullopt;
}

bool JovObject::hasObject(const std::string& key) const {
  std::lock_guard lock(mutex_);
  return fields_.contains(key);
}

void JovObject::removeObjectForKey(const std::string& key) {
  std::lock_guard lock(mutex_);
  fields_.erase(key);
  patchKeys_.insert(key);
}

nlohmann::json JovObject::dictionaryValue() const {
  std::map<std::string, Value> fields;
  {
    std::lock_guard lock(mutex_);
    fields = fields_;
  }
  nlohmann::json dict = nlohmann::json::object();
  for (const auto& [key, value] : fields) dict[key] = jsonOf(value);
  return dict;
}

std::set<std::string> JovObject::changedKeys() const {
  std::lock_guard lock(mutex_);
  return patchKeys_;
}

bool JovObject::loadFromJSON(const nlohmann::json& document) {
  if (!document.is_object()) return false;
  auto text = [&](const char* key) -> std::optional<std::optional<std::string>> {
    auto it = document.find(key);
    if (it == document.end() || it->is_null()) return std::optional<std::string>();
    if (!it->is_string()) return std::nullopt;  // refused
    return std::optional<std::string>(it->get<std::string>());
  };
  auto date = [&](const char* key) -> std::optional<std::optional<TimePoint>> {
    auto it = document.find(key);
    if (it == document.end() || it->is_null()) return std::optional<TimePoint>();
    if (!it->is_number()) return std::nullopt;
    return std::optional<TimePoint>(detail::fromMillis(it->get<double>()));
  };
  auto id = text("_id"), type = text("_dataType"), version = text("_version");
  auto created = date("_created"), modified = date("_modified");
  if (!id || !type || !version || !created || !modified) return false;
  std::map<std::string, Value> fields;
  for (const auto& [key, value] : document.items()) {
    if (key == "_id" || key == "_dataType" || key == "_version" || key == "_created" ||
        key == "_modified")
      continue;
    fields.emplace(key, value);
  }
  std::lock_guard lock(mutex_);
  if (*id) uuid_ = **id;
  if (*type) type_ = **type;
  if (*version) etag_ = **version;
  if (*created) created_ = **created;
  if (*modified) modified_ = **modified;
  fields_ = std::move(fields);
  patchKeys_.clear();
  return true;
}

std::string JovObject::describe() const {
  auto scope = [this] {
    if (bucket_ && bucket_->user()) return "user " + bucket_->user()->userID();
    if (bucket_ && bucket_->group()) return "group " + bucket_->group()->groupID();
    return std::string("application");
  };
  auto date = [](const std::optional<TimePoint>& t) {
    return t ? std::to_string(detail::toMillis(*t)) : std::string("(none)");
  };
  std::ostringstream out;
  out << "======================\n";
  out << "    UUID: " << uuid().value_or("(none)") << "\n";
  out << "    Bucket: " << (bucket_ ? bucket_->name() : "(none)") << " in scope: " << scope()
      << "\n";
  out << "    Created: " << date(created()) << "\n";
  out << "    Modified: " << date(modified()) << "\n";
  out << "    URI: " << objectURI().value_or("(none)") << "\n";
  out << "    Type: " << objectType().value_or("(none)") << "\n";
  // A local: items() refers to its document, which a temporary would take away mid-loop.
  const nlohmann::json fields = dictionaryValue();
  for (const auto& [key, value] : fields.items())
    out << "    " << key << ": " << jsonText(value) << "\n";
  out << "======================";
  JOV_LOG(JovLogInfo, out.str());
  return out.str();
}

}  // namespace jov
