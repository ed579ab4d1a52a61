// The exchanges of an object: create, update (merge or replace, with its version), refresh and
// delete, and the error table they share.

#include <algorithm>

#include "core/exchange.hpp"
#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/encoding.hpp"
#include "jov/logger.hpp"
#include "jov/object.hpp"
#include "jov/user.hpp"
#include "users/user_internal.hpp"

namespace jov {

namespace {

using detail::args;
using detail::Exchange;
using detail::onCode;
using detail::send;

// The service answers 409 "OBJECT_VERSION_IS_STALE" when the version sent is not the stored
// one, 404 "OBJECT_NOT_FOUND" for an object it does not have, and "USER_NOT_FOUND" /
// "GROUP_NOT_FOUND" when the bucket's owner does not exist.
// 512 ("The object you are saving is older than what is on the server...") has no named
// operation in the code table.
constexpr int kStaleObject = 512;
constexpr detail::ErrorRule kSaveErrors[] = {
    onCode("OBJECT_VERSION_IS_STALE", kStaleObject),
    onCode("OBJECT_NOT_FOUND", JovError::codeObjectNotFound()),
    onCode("USER_NOT_FOUND", JovError::codeBucketParentNotExistInCloud()),
    onCode("GROUP_NOT_FOUND", JovError::codeBucketParentNotExistInCloud()),
};
constexpr detail::ErrorRule kObjectErrors[] = {
    onCode("OBJECT_NOT_FOUND", JovError::codeObjectNotFound()),
    onCode("USER_NOT_FOUND", JovError::codeBucketParentNotExistInCloud()),
    onCode("GROUP_NOT_FOUND", JovError::codeBucketParentNotExistInCloud()),
};

// "{+}" is a bucket path the bucket formed (already encoded).
constexpr Exchange kCreate{JovMethodPost, "{+}/objects", {.errors = kSaveErrors}};
constexpr Exchange kReplace{JovMethodPut, "{+}/objects/{}", {.errors = kSaveErrors}};
constexpr Exchange kMerge{JovMethodPost, "{+}/objects/{}", {.errors = kSaveErrors}};
constexpr Exchange kRead{JovMethodGet, "{+}/objects/{}", {.errors = kObjectErrors}};
constexpr Exchange kDelete{JovMethodDelete, "{+}/objects/{}", {.errors = kObjectErrors}};

// "application/vnd.APPID.TYPE+json" for a typed object, else "application/json".
std::string mediaTypeOf(const std::optional<std::string>& type) {
  if (!type) return "application/json";
  return "application/vnd." + Jov::appID() + "." + *type + "+json";
}

// The type named by such a media type; nothing for any other.
std::optional<std::string> typeOfMediaType(const std::string& mediaType) {
  const std::string prefix = "application/vnd." + Jov::appID() + ".";
  constexpr std::string_view suffix = "+json";
  if (mediaType.size() <= prefix.size() + suffix.size() || !mediaType.starts_with(prefix) ||
      !mediaType.ends_with(suffix))
    return std::nullopt;
  return mediaType.substr(prefix.size(), mediaType.size() - prefix.size() - suffix.size());
}

std::optional<JovObject::TimePoint> millisIn(const nlohmann::json& answer, const char* key) {
  auto it = answer.find(key);
  if (it == answer.end() || !it->is_number()) return std::nullopt;
  return detail::fromMillis(it->get<double>());
}

void logEtag(const std::string& etag) {
  JOV_LOG(JovLogDebug, "Setting etag: " + etag);
}

}  // namespace

detail::Routine<nlohmann::json> JovObject::uploadBody(bool allFields, SaveChain chain) {
  std::map<std::string, Value> fields;
  std::set<std::string> keys;
  {
    std::lock_guard lock(mutex_);
    fields = fields_;
    keys = patchKeys_;
  }
  chain.push_back(this);
  const bool onlyChanges = !allFields && !keys.empty();
  nlohmann::json body = nlohmann::json::object();
  for (auto& [key, value] : fields) {
    if (onlyChanges && !keys.contains(key)) continue;
    if (key.front() == '_') continue;
    if (auto* object = std::get_if<Ptr>(&value)) {
      // An object without a URI is saved first; its failure is only logged. One that is being
      // saved further out (new objects referring to each other) gets no URI from this save.
      const bool inChain = std::find(chain.begin(), chain.end(), object->get()) != chain.end();
      if (!(*object)->objectURI() && inChain) {
        JOV_LOG(JovLogWarning,
                "The object of \"" + key + "\" is being saved and has no URI yet; sent as null");
      } else if (!(*object)->objectURI()) {
        auto saved = co_await (*object)->saveInChain(true, false, chain);
        if (!saved)
          JOV_LOG(JovLogWarning,
                  "Unable to save the object of \"" + key + "\": " + saved.error().describe());
      }
      auto uri = (*object)->objectURI();
      body[key] = uri ? nlohmann::json(*uri) : nlohmann::json(nullptr);
    } else if (auto* user = std::get_if<std::shared_ptr<JovUser>>(&value)) {
      body[key] = (*user)->objectURI();
    } else {
      body[key] = std::get<nlohmann::json>(value);
    }
  }
  // The service's merge removes a key sent as null: that is how a removed field leaves the
  // stored document (null is never a field's own value).
  if (onlyChanges) {
    for (const auto& key : keys)
      if (key.front() != '_' && !fields.contains(key)) body[key] = nullptr;
  }
  co_return body;
}

detail::Routine<void> JovObject::saveInChain(bool forced, bool allFields, SaveChain chain) {
  if (uuid()) co_return co_await updateRoutine(forced, allFields, std::move(chain));
  co_return co_await createRoutine(std::move(chain));
}

detail::Routine<void> JovObject::createRoutine(SaveChain chain) {
  auto bucketPath = bucket_ ? bucket_->bucketPath() : std::nullopt;
  JOV_CO_REQUIRE(bucketPath, JovError::codeInvalidObjects());
  auto body = co_await uploadBody(true, std::move(chain));
  if (!body) co_return body.error();
  auto sendArgs =
      args(*bucketPath).json(std::move(body.value())).contentType(mediaTypeOf(objectType()));
  auto answer = co_await send(kCreate, std::move(sendArgs));
  if (!answer) co_return answer.error();
  const nlohmann::json& created = answer->json;
  auto id = jsonString(created, "objectID");
  if (!created.is_object() || !id || id->empty()) co_return detail::unreadableAnswer();
  std::optional<std::string> type;
  if (auto dataType = jsonString(created, "dataType")) type = typeOfMediaType(*dataType);
  auto when = millisIn(created, "createdAt");
  std::lock_guard lock(mutex_);
  uuid_ = *id;
  if (when) created_ = modified_ = when;
  if (type) type_ = type;
  if (!answer->etag.empty()) {
    etag_ = answer->etag;
    logEtag(answer->etag);
  }
  patchKeys_.clear();
  co_return {};
}

detail::Routine<void> JovObject::updateRoutine(bool forced, bool allFields, SaveChain chain) {
  std::optional<std::string> path, id, etag;
  bool created = false;
  {
    std::lock_guard lock(mutex_);
    path = pathLocked();
    id = uuid_;
    etag = etag_;
    created = created_.has_value();
  }
  JOV_CO_REQUIRE(path, JovError::codeInvalidObjects());
  std::string ifMatch;
  bool ifNoneMatch = false;
  if (!forced) {
    // An object loaded from the service sends its version; one made with an ID and never
    // loaded asks that nothing be stored under that ID yet, and a partial save of it still needs
    // a version to send.
    const bool hasVersion = etag && !etag->empty();
    if (created || !allFields) JOV_CO_REQUIRE(hasVersion, JovError::codeIllegalStateObject());
    if (hasVersion) ifMatch = *etag;
    ifNoneMatch = !created;
  }
  auto body = co_await uploadBody(allFields, std::move(chain));
  if (!body) co_return body.error();
  auto bucketPath = bucket_->bucketPath().value_or("");
  auto sendArgs = args(bucketPath, *id)
                      .json(std::move(body.value()))
                      .etag(ifMatch)
                      .contentType(mediaTypeOf(objectType()));
  if (ifNoneMatch) sendArgs.headers_.emplace_back("If-None-Match", "*");
  if (!allFields) sendArgs.headers_.emplace_back("X-HTTP-Method-Override", "PATCH");
  auto answer = co_await send(allFields ? kReplace : kMerge, std::move(sendArgs));
  if (!answer) co_return answer.error();
  if (!answer->json.is_object()) co_return detail::unreadableAnswer();
  if (allFields) {
    auto createdAt = millisIn(answer->json, "createdAt");
    auto modifiedAt = millisIn(answer->json, "modifiedAt");
    std::lock_guard lock(mutex_);
    if (createdAt) created_ = createdAt;
    if (modifiedAt) modified_ = modifiedAt;
    patchKeys_.clear();
  } else if (!loadFromJSON(answer->json)) {
    co_return detail::unreadableAnswer();
  }
  if (!answer->etag.empty()) {
    std::lock_guard lock(mutex_);
    etag_ = answer->etag;
    logEtag(answer->etag);
  }
  co_return {};
}

detail::Routine<void> JovObject::refreshRoutine() {
  auto id = uuid();
  auto bucketPath = bucket_ ? bucket_->bucketPath() : std::nullopt;
  JOV_CO_REQUIRE(id && bucketPath, JovError::codeInvalidObjects());
  auto answer = co_await send(kRead, args(*bucketPath, *id));
  if (!answer) co_return answer.error();
  if (!loadFromJSON(answer->json)) co_return detail::unreadableAnswer();
  if (!answer->etag.empty()) {
    std::lock_guard lock(mutex_);
    etag_ = answer->etag;
  }
  co_return {};
}

detail::Routine<void> JovObject::deleteRoutine() {
  auto id = uuid();
  auto bucketPath = bucket_ ? bucket_->bucketPath() : std::nullopt;
  JOV_CO_REQUIRE(id && bucketPath, JovError::codeInvalidObjects());
  auto answer = co_await send(kDelete, args(*bucketPath, *id));
  if (!answer) co_return answer.error();
  co_return {};
}

}  // namespace jov
