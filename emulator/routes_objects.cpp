// Objects in buckets of every scope: create (POST), read, replace (PUT), merge (POST with
// "X-HTTP-Method-Override: PATCH", or PATCH) and delete, with versions as ETags.
#include <algorithm>
#include <cctype>
#include <regex>

#include "api_error.hpp"
#include "body_store.hpp"
#include "bucket_access.hpp"
#include "crypto.hpp"
#include "push_delivery.hpp"

namespace jovemu {

namespace {

// The conflict of a stale "If-Match", and of "If-None-Match: *" on an object that exists: the
// client's copy is older than the one stored.
ApiError staleVersion() {
  return ApiError(409, "OBJECT_VERSION_IS_STALE",
                  "The object has been changed since the given version");
}

ApiError objectNotFound() {
  return ApiError(404, "OBJECT_NOT_FOUND", "The object was not found");
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string trim(const std::string& text) {
  auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// An object's body is "application/json", or "application/vnd.<appID>.<type>+json" for an
// object of a type; 415 for anything else.
struct ObjectMediaType {
  std::optional<std::string> type;
  std::string mediaType;
};

ObjectMediaType objectMediaType(const Call& call, const std::string& appID) {
  std::string given = trim(call.header("Content-Type").value_or(""));
  given = trim(given.substr(0, given.find(';')));
  if (lower(given) == "application/json") return {std::nullopt, given};
  static const std::regex typePattern("[A-Za-z][A-Za-z0-9_-]{4,49}");
  const std::string prefix = "application/vnd." + appID + ".";
  const std::string suffix = "+json";
  if (given.size() > prefix.size() + suffix.size() && given.starts_with(prefix) &&
      given.ends_with(suffix)) {
    std::string type = given.substr(prefix.size(), given.size() - prefix.size() - suffix.size());
    if (std::regex_match(type, typePattern)) return {type, given};
  }
  throw ApiError(
      415, "UNSUPPORTED_MEDIA_TYPE",
      "The Content-Type must be application/json or application/vnd." + appID + ".<type>+json");
}

// The fields of a request body; keys beginning with "_" belong to the service and are refused.
nlohmann::json objectFields(const Call& call) {
  auto body = call.jsonObject();
  for (const auto& [key, value] : body.items()) {
    if (key.empty() || key.front() == '_') {
      throw invalidInput("There are validation errors: " + key +
                         " - keys beginning with '_' are reserved");
    }
  }
  return body;
}

// A version tag as sent in "If-Match": quotes and a weak marker are not part of it.
std::string bareTag(std::string tag) {
  tag = trim(tag);
  if (tag.starts_with("W/")) tag.erase(0, 2);
  tag.erase(std::remove(tag.begin(), tag.end(), '"'), tag.end());
  return tag;
}

struct Preconditions {
  std::optional<std::string> ifMatch;
  bool ifNoneMatchAny = false;
};

Preconditions preconditions(const Call& call) {
  Preconditions out;
  if (auto tag = call.header("If-Match")) out.ifMatch = bareTag(*tag);
  if (auto tag = call.header("If-None-Match")) out.ifNoneMatchAny = bareTag(*tag) == "*";
  return out;
}

// Checked after the access check, so a refused caller learns nothing of the version.
void checkVersion(const Preconditions& conditions, const ObjectRow& existing) {
  if (conditions.ifNoneMatchAny) throw staleVersion();
  if (conditions.ifMatch && *conditions.ifMatch != "*" &&
      *conditions.ifMatch != std::to_string(existing.version)) {
    throw staleVersion();
  }
}

// An answer carrying an object's version, made in the transaction and sent after its commit.
struct ObjectReply {
  int status;
  std::int64_t version;
  nlohmann::json body;
};

void send(Call& call, const ObjectReply& reply) {
  call.setHeader("ETag", "\"" + std::to_string(reply.version) + "\"");
  call.reply(reply.status, reply.body);
}

// The bucket a new object goes into: made on first use, when the default entries a new bucket
// of that scope gets would let the caller create objects in it.
BucketRow bucketForCreation(Connection& conn, const std::string& appID,
                            const BucketContext& context, const std::string& name) {
  const auto& requester = context.requester;
  if (auto bucket = findBucket(conn, appID, context.scope, name)) {
    requireAllowed(isAllowed(conn, bucket->key, kBucketTarget, kCreateObjects, requester),
                   requester, "create objects in this bucket");
    return *bucket;
  }
  std::optional<std::string> creator;
  if (requester.user) creator = requester.user->userID;
  auto entries = defaultBucketEntries(context.scope, creator);
  requireAllowed(isAllowed(entries, kCreateObjects, requester), requester,
                 "create objects in this bucket");
  auto bucket = createBucket(conn, appID, context.scope, name, creator, Service::now());
  for (const auto& entry : entries) {
    grantEntry(conn, bucket.key, kBucketTarget, entry.action, entry.subject);
  }
  return bucket;
}

ObjectRow insertNewObject(Connection& conn, const BucketRow& bucket, const BucketContext& context,
                          std::string id, nlohmann::json fields,
                          const std::optional<std::string>& type) {
  auto now = Service::now();
  ObjectRow object{std::move(id), std::move(fields), 1, now, now, std::nullopt};
  if (context.requester.user) object.owner = context.requester.user->userID;
  storeObject(conn, bucket, object, type);
  for (const auto& entry : defaultObjectEntries(bucket.scope, object.owner)) {
    grantEntry(conn, bucket.key, object.id, entry.action, entry.subject);
  }
  return object;
}

nlohmann::json creationRecord(const ObjectRow& object, const ObjectMediaType& media) {
  nlohmann::json out = {
      {"objectID", object.id}, {"createdAt", object.created}, {"modifiedAt", object.modified}};
  if (media.type) out["dataType"] = media.mediaType;
  return out;
}

// The user behind a change, for the news of it.
std::optional<std::string> senderOf(const BucketContext& context) {
  if (!context.requester.user) return std::nullopt;
  return context.requester.user->userID;
}

bool mayRead(Connection& conn, const BucketRow& bucket, const std::string& id,
             const Requester& requester) {
  return isAllowed(conn, bucket.key, kBucketTarget, kReadObjects, requester) ||
         isAllowed(conn, bucket.key, id, kReadObject, requester);
}

void createObject(Service& service, Call& call, const std::string& appID,
                  const BucketAddress& address) {
  auto media = objectMediaType(call, appID);
  auto fields = objectFields(call);
  send(call, service.db.transaction([&](Connection& conn) {
    auto context = openBucketContext(service, call, conn, appID, address);
    auto bucket = bucketForCreation(conn, appID, context, address.name);
    // 24 hex digits: unique in practice, and a valid object ID.
    std::string id = randomHex(12);
    while (findObject(conn, bucket, id)) id = randomHex(12);
    auto object = insertNewObject(conn, bucket, context, id, std::move(fields), media.type);
    deliverBucketEvent(conn, bucket, object.id, kObjectCreated, senderOf(context), object.modified);
    return ObjectReply{201, object.version, creationRecord(object, media)};
  }));
}

void readObject(Service& service, Call& call, const std::string& appID,
                const BucketAddress& address) {
  const std::string& id = call.param(address.next);
  requireObjectID(id);
  send(call, service.db.transaction([&](Connection& conn) {
    auto context = openBucketContext(service, call, conn, appID, address);
    auto bucket = existingBucket(conn, appID, context, address.name);
    auto object = findObject(conn, bucket, id);
    if (!object) throw objectNotFound();
    requireAllowed(mayRead(conn, bucket, id, context.requester), context.requester,
                   "read this object");
    return ObjectReply{200, object->version, object->doc};
  }));
}

void replaceObject(Service& service, Call& call, const std::string& appID,
                   const BucketAddress& address) {
  const std::string& id = call.param(address.next);
  requireObjectID(id);
  auto media = objectMediaType(call, appID);
  auto fields = objectFields(call);
  auto conditions = preconditions(call);
  send(call, service.db.transaction([&](Connection& conn) {
    auto context = openBucketContext(service, call, conn, appID, address);
    auto existingBucketRow = findBucket(conn, appID, context.scope, address.name);
    std::optional<ObjectRow> existing;
    if (existingBucketRow) existing = findObject(conn, *existingBucketRow, id);
    if (!existing) {
      if (conditions.ifMatch && *conditions.ifMatch != "*") throw objectNotFound();
      auto bucket = bucketForCreation(conn, appID, context, address.name);
      auto object = insertNewObject(conn, bucket, context, id, std::move(fields), media.type);
      deliverBucketEvent(conn, bucket, object.id, kObjectCreated, senderOf(context),
                         object.modified);
      return ObjectReply{201, object.version, creationRecord(object, media)};
    }
    const auto& bucket = *existingBucketRow;
    requireAllowed(isAllowed(conn, bucket.key, id, kWriteObject, context.requester),
                   context.requester, "write this object");
    checkVersion(conditions, *existing);
    ObjectRow object = *existing;
    object.doc = std::move(fields);
    object.version += 1;
    object.modified = std::max(Service::now(), existing->modified);
    storeObject(conn, bucket, object, media.type);
    deliverBucketEvent(conn, bucket, object.id, kObjectUpdated, senderOf(context), object.modified);
    return ObjectReply{
        200, object.version, {{"createdAt", object.created}, {"modifiedAt", object.modified}}};
  }));
}

void mergeObject(Service& service, Call& call, const std::string& appID,
                 const BucketAddress& address) {
  const std::string& id = call.param(address.next);
  requireObjectID(id);
  auto media = objectMediaType(call, appID);
  auto fields = objectFields(call);
  auto conditions = preconditions(call);
  send(call, service.db.transaction([&](Connection& conn) {
    auto context = openBucketContext(service, call, conn, appID, address);
    auto bucket = existingBucket(conn, appID, context, address.name);
    auto existing = findObject(conn, bucket, id);
    if (!existing) throw objectNotFound();
    requireAllowed(isAllowed(conn, bucket.key, id, kWriteObject, context.requester),
                   context.requester, "write this object");
    checkVersion(conditions, *existing);
    ObjectRow object = *existing;
    // Top-level merge: a key sent replaces the stored one; a key sent as null is removed.
    for (auto& [key, value] : fields.items()) {
      if (value.is_null()) {
        object.doc.erase(key);
      } else {
        object.doc[key] = std::move(value);
      }
    }
    object.version += 1;
    object.modified = std::max(Service::now(), existing->modified);
    std::optional<std::string> type = media.type;
    if (!type && object.doc.contains("_dataType")) type = object.doc["_dataType"];
    storeObject(conn, bucket, object, type);
    deliverBucketEvent(conn, bucket, object.id, kObjectUpdated, senderOf(context), object.modified);
    return ObjectReply{200, object.version, object.doc};
  }));
}

void removeObject(Service& service, Call& call, const std::string& appID,
                  const BucketAddress& address) {
  const std::string& id = call.param(address.next);
  requireObjectID(id);
  std::vector<std::string> bodyFiles;
  service.db.transaction([&](Connection& conn) {
    auto context = openBucketContext(service, call, conn, appID, address);
    auto bucket = existingBucket(conn, appID, context, address.name);
    if (!findObject(conn, bucket, id)) throw objectNotFound();
    requireAllowed(isAllowed(conn, bucket.key, id, kWriteObject, context.requester),
                   context.requester, "delete this object");
    // Told before the deletion: the object's entries still say who could read it.
    deliverBucketEvent(conn, bucket, id, kObjectDeleted, senderOf(context), Service::now());
    deleteObject(conn, bucket, id);
    // Its body, public links and uploads go with it.
    bodyFiles = forgetObjectBodies(conn, bucket.key, id);
  });
  if (service.bodies) service.bodies->remove(bodyFiles);
  call.replyNoContent();
}

}  // namespace

void addObjectRoutes(Router& router, Service& service) {
  addBucketRoute(router, service, "POST", "/objects",
                 [&service](Call& call, const std::string& app, const BucketAddress& address) {
                   createObject(service, call, app, address);
                 });
  addBucketRoute(router, service, "GET", "/objects/{}",
                 [&service](Call& call, const std::string& app, const BucketAddress& address) {
                   readObject(service, call, app, address);
                 });
  addBucketRoute(router, service, "PUT", "/objects/{}",
                 [&service](Call& call, const std::string& app, const BucketAddress& address) {
                   replaceObject(service, call, app, address);
                 });
  addBucketRoute(router, service, "PATCH", "/objects/{}",
                 [&service](Call& call, const std::string& app, const BucketAddress& address) {
                   mergeObject(service, call, app, address);
                 });
  // Clients that cannot send PATCH post with the method in a header.
  addBucketRoute(router, service, "POST", "/objects/{}",
                 [&service](Call& call, const std::string& app, const BucketAddress& address) {
                   auto method = call.header("X-HTTP-Method-Override");
                   if (!method || lower(trim(*method)) != "patch") {
                     throw ApiError(405, "METHOD_NOT_ALLOWED",
                                    "POST on an object needs X-HTTP-Method-Override: PATCH");
                   }
                   mergeObject(service, call, app, address);
                 });
  addBucketRoute(router, service, "DELETE", "/objects/{}",
                 [&service](Call& call, const std::string& app, const BucketAddress& address) {
                   removeObject(service, call, app, address);
                 });
}

}  // namespace jovemu
