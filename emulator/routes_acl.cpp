// Access control lists of buckets and objects: list (GET .../acl), grant
// (PUT .../acl/ACTION/SUBJECT) and revoke (DELETE, same path). Granting what is granted answers
// 204 again; revoking what is not granted answers 404 ACL_NOT_FOUND. Only the bucket's manager
// (and, for an object, its owner) may read or change a list.
#include "api_error.hpp"
#include "bucket_access.hpp"
#include "group_store.hpp"

namespace jovemu {

namespace {

// What an ACL route works on: the bucket (objectID empty) or one object of it.
struct AclTarget {
  BucketRow bucket;
  std::string objectID;
  Requester requester;
};

AclTarget openTarget(const Service& service, const Call& call, Connection& conn,
                     const std::string& appID, const BucketAddress& address,
                     const std::string& objectID) {
  auto context = openBucketContext(service, call, conn, appID, address);
  auto bucket = existingBucket(conn, appID, context, address.name);
  bool manages = managesBucket(conn, appID, bucket, context.requester);
  if (!objectID.empty()) {
    auto object = findObject(conn, bucket, objectID);
    if (!object) throw ApiError(404, "OBJECT_NOT_FOUND", "The object was not found");
    manages =
        manages || (context.requester.user && object->owner == context.requester.user->userID);
  }
  requireAllowed(manages, context.requester, "manage this access control list");
  return {bucket, objectID, context.requester};
}

void requireAction(const std::string& action, bool onObject) {
  auto bucketAction = isBucketAction(action);
  if (!bucketAction || *bucketAction == onObject) {
    throw invalidInput("The action " + action + " does not apply to " +
                       (onObject ? "an object" : "a bucket"));
  }
}

void addAclRoutesFor(Router& router, Service& service, const std::string& objectPart) {
  const bool onObject = !objectPart.empty();
  auto objectIDOf = [onObject](const Call& call, const BucketAddress& address) {
    if (!onObject) return std::string();
    const std::string& id = call.param(address.next);
    requireObjectID(id);
    return id;
  };
  addBucketRoute(
      router, service, "GET", objectPart + "/acl",
      [&service, objectIDOf](Call& call, const std::string& app, const BucketAddress& address) {
        auto objectID = objectIDOf(call, address);
        auto list = service.db.transaction([&](Connection& conn) {
          auto target = openTarget(service, call, conn, app, address, objectID);
          return listEntries(conn, target.bucket.key, target.objectID);
        });
        call.reply(200, list);
      });
  auto change = [&service, objectIDOf, onObject](bool grant) {
    return [&service, objectIDOf, onObject, grant](Call& call, const std::string& app,
                                                   const BucketAddress& address) {
      auto objectID = objectIDOf(call, address);
      std::size_t next = address.next + (onObject ? 1 : 0);
      const std::string& action = call.param(next);
      const std::string& subject = call.param(next + 1);
      requireAction(action, onObject);
      service.db.transaction([&](Connection& conn) {
        auto target = openTarget(service, call, conn, app, address, objectID);
        if (grant) {
          requireSubject(conn, app, subject);
          grantEntry(conn, target.bucket.key, target.objectID, action, subject);
        } else if (!revokeEntry(conn, target.bucket.key, target.objectID, action, subject)) {
          throw ApiError(
              404, "ACL_NOT_FOUND",
              "The entry " + action + "/" + subject + " is not in the access control list");
        }
      });
      call.replyNoContent();
    };
  };
  addBucketRoute(router, service, "PUT", objectPart + "/acl/{}/{}", change(true));
  addBucketRoute(router, service, "DELETE", objectPart + "/acl/{}/{}", change(false));
}

}  // namespace

void addAclRoutes(Router& router, Service& service) {
  addAclRoutesFor(router, service, "");
  addAclRoutesFor(router, service, "/objects/{}");
}

}  // namespace jovemu
