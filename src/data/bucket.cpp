// Buckets: the factories of every scope, names, paths and URIs, new objects, and the bucket's
// exchanges (query, count, delete).

#include "jov/bucket.hpp"

#include <cmath>

#include "core/exchange.hpp"
#include "jov/application.hpp"
#include "jov/encoding.hpp"
#include "jov/group.hpp"
#include "jov/thing.hpp"
#include "jov/user.hpp"
#include "jov/validation.hpp"

namespace jov {

// ------------------------------------------------------------------ factories

std::shared_ptr<JovBucket> Jov::bucketWithName(const std::string& name) {
  return std::make_shared<JovBucket>(JovBucket::Key{}, name, nullptr, nullptr);
}
std::shared_ptr<JovBucket> Jov::encryptedBucketWithName(const std::string& name) {
  return std::make_shared<JovEncryptedBucket>(JovBucket::Key{}, name, nullptr, nullptr);
}
std::shared_ptr<JovBucket> JovUser::bucketWithName(const std::string& name) {
  return std::make_shared<JovBucket>(JovBucket::Key{}, name, self(), nullptr);
}
std::shared_ptr<JovBucket> JovUser::encryptedBucketWithName(const std::string& name) {
  return std::make_shared<JovEncryptedBucket>(JovBucket::Key{}, name, self(), nullptr);
}
std::shared_ptr<JovBucket> JovGroup::bucketWithName(const std::string& name) {
  return std::make_shared<JovBucket>(JovBucket::Key{}, name, nullptr, self());
}
std::shared_ptr<JovBucket> JovGroup::encryptedBucketWithName(const std::string& name) {
  return std::make_shared<JovEncryptedBucket>(JovBucket::Key{}, name, nullptr, self());
}
std::shared_ptr<JovBucket> JovThing::bucketWithName(const std::string& name) {
  return std::make_shared<JovBucket>(JovBucket::Key{}, name, nullptr, nullptr, self());
}
std::shared_ptr<JovBucket> JovThing::encryptedBucketWithName(const std::string& name) {
  return std::make_shared<JovEncryptedBucket>(JovBucket::Key{}, name, nullptr, nullptr, self());
}

// ------------------------------------------------------------------ names and paths

JovBucket::JovBucket(Key, std::string name, std::shared_ptr<JovUser> user,
                     std::shared_ptr<JovGroup> group, std::shared_ptr<JovThing> thing)
    : name_(std::move(name)),
      user_(std::move(user)),
      group_(std::move(group)),
      thing_(std::move(thing)) {}

bool JovBucket::isValidBucketName(const std::optional<std::string>& name) {
  return name && bucketNameIsValid(*name);
}

std::string JovBucket::bucketQualifiedName() const {
  return urlEncode(name_);
}

std::string JovEncryptedBucket::bucketQualifiedName() const {
  return "CRYPTO:" + urlEncode(name());
}

std::optional<std::string> JovBucket::bucketPath() const {
  if (user_) {
    const std::string id = user_->userID();
    if (id.empty()) return std::nullopt;
    return "/users/" + urlEncode(id) + "/buckets/" + bucketQualifiedName();
  }
  if (group_) {
    const std::string& id = group_->groupID();
    if (id.empty()) return std::nullopt;
    return "/groups/" + urlEncode(id) + "/buckets/" + bucketQualifiedName();
  }
  if (thing_) {
    const std::string id = thing_->thingID();
    if (id.empty()) return std::nullopt;
    return "/things/" + urlEncode(id) + "/buckets/" + bucketQualifiedName();
  }
  return "/buckets/" + bucketQualifiedName();
}

std::optional<std::string> JovBucket::bucketURI() const {
  auto path = bucketPath();
  if (!path) return std::nullopt;
  return "jovcloud:/" + *path;
}

std::optional<std::string> JovBucket::aclPath() const {
  auto path = bucketPath();
  if (!path) return std::nullopt;
  return *path + "/acl";
}

std::shared_ptr<JovObject> JovBucket::createObject() {
  return std::make_shared<JovObject>(JovObject::Key{}, self(), std::nullopt, std::nullopt);
}

Result<std::shared_ptr<JovObject>> JovBucket::createObjectWithType(const std::string& type) {
  if (!JovObject::isValidObjectType(type))
    return JovError::errorWithCode(JovError::codeInvalidObjectType());
  return std::make_shared<JovObject>(JovObject::Key{}, self(), std::nullopt, type);
}

std::shared_ptr<JovObject> JovBucket::createObjectWithID(const std::string& objectID) {
  if (!objectIdIsValid(objectID)) throw std::invalid_argument("objectID is invalid.");
  return std::make_shared<JovObject>(JovObject::Key{}, self(), objectID, std::nullopt);
}

// ------------------------------------------------------------------ exchanges

namespace {

using detail::args;
using detail::Exchange;
using detail::onCode;
using detail::send;

constexpr const char* kQueryRequest = "application/vnd.jov.QueryRequest+json";

// The service spells the query endpoint's refusal "QUERY_NOT_SUPPPORTED" and the count's
// "QUERY_NOT_SUPPORTED"; each is read as it is sent. A user or group that does not exist is
// the bucket's missing parent.
constexpr detail::ErrorRule kQueryErrors[] = {
    onCode("QUERY_NOT_SUPPPORTED", JovError::codeQueryNotSupported()),
    onCode("USER_NOT_FOUND", JovError::codeBucketParentNotExistInCloud()),
    onCode("GROUP_NOT_FOUND", JovError::codeBucketParentNotExistInCloud()),
};
constexpr detail::ErrorRule kCountErrors[] = {
    onCode("QUERY_NOT_SUPPORTED", JovError::codeQueryNotSupported()),
    onCode("USER_NOT_FOUND", JovError::codeBucketParentNotExistInCloud()),
    onCode("GROUP_NOT_FOUND", JovError::codeBucketParentNotExistInCloud()),
};
constexpr detail::ErrorRule kDeleteErrors[] = {
    onCode("BUCKET_NOT_FOUND", JovError::codeObjectNotFound()),
};

constexpr Exchange kQuery{
    JovMethodPost, "{+}/query", {.contentType = kQueryRequest, .errors = kQueryErrors}};
constexpr Exchange kCount{
    JovMethodPost, "{+}/query", {.contentType = kQueryRequest, .errors = kCountErrors}};
constexpr Exchange kDelete{JovMethodDelete, "{+}", {.errors = kDeleteErrors}};

}  // namespace

detail::Routine<JovBucket::QueryPage> JovBucket::queryRoutine(JovQuery query) {
  if (auto invalid = query.pendingError()) co_return *invalid;
  auto path = bucketPath();
  JOV_CO_REQUIRE(path, JovError::codeBucketParentNotExistInCloud());
  nlohmann::json body = query.dictValue();
  auto answer = co_await send(kQuery, args(*path).json(std::move(body)));
  if (!answer) co_return answer.error();
  const nlohmann::json& page = answer->json;
  auto results = page.is_object() ? page.find("results") : page.end();
  if (results == page.end() || !results->is_array()) co_return detail::unreadableAnswer();
  Objects objects;
  objects.reserve(results->size());
  for (const nlohmann::json& document : *results) {
    std::optional<std::string> type;
    if (auto dataType = jsonString(document, "_dataType")) type = *dataType;
    auto object = std::make_shared<JovObject>(JovObject::Key{}, self(), std::nullopt, type);
    // One unreadable document refuses the page rather than hand back a shorter one.
    if (!object->loadFromJSON(document) || !object->uuid()) co_return detail::unreadableAnswer();
    objects.push_back(std::move(object));
  }
  std::optional<JovQuery> next;
  if (auto key = jsonString(page, "nextPaginationKey"); key && !key->empty())
    next = JovQuery::queryWithBase(query, *key);
  co_return QueryPage(std::move(objects), std::move(next));
}

detail::Routine<std::int64_t> JovBucket::countRoutine(JovQuery query) {
  if (auto invalid = query.pendingError()) co_return *invalid;
  auto path = bucketPath();
  JOV_CO_REQUIRE(path, JovError::codeBucketParentNotExistInCloud());
  nlohmann::json body = query.dictValue();
  body["bucketQuery"]["aggregations"] =
      nlohmann::json::array({{{"type", "COUNT"}, {"putAggregationInto", "count_field"}}});
  auto answer = co_await send(kCount, args(*path).json(std::move(body)));
  if (!answer) co_return answer.error();
  const nlohmann::json& counted = answer->json;
  auto aggregations = counted.is_object() ? counted.find("aggregations") : counted.end();
  if (aggregations == counted.end() || !aggregations->is_object())
    co_return detail::unreadableAnswer();
  auto count = aggregations->find("count_field");
  // A count written as 4.0 is still a count; a fraction or a negative number is not.
  if (count == aggregations->end() || !count->is_number()) co_return detail::unreadableAnswer();
  const double value = count->get<double>();
  if (!(value >= 0) || value != std::floor(value) || value > 9.0e15)
    co_return detail::unreadableAnswer();
  co_return static_cast<std::int64_t>(value);
}

detail::Routine<void> JovBucket::deleteRoutine() {
  auto path = bucketPath();
  JOV_CO_REQUIRE(path, JovError::codeBucketParentNotExistInCloud());
  auto answer = co_await send(kDelete, args(*path));
  if (!answer) co_return answer.error();
  co_return {};
}

}  // namespace jov
