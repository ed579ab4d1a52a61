#include "bucket_access.hpp"

#include "api_error.hpp"
#include "group_store.hpp"
#include "thing_store.hpp"

namespace jovemu {

namespace {

// The scopes a bucket path can have; the route's "{}" for the owner comes first.
struct ScopeRoute {
  ScopeKind kind;
  const char* prefix;
  bool hasOwner;
};
constexpr ScopeRoute kScopeRoutes[] = {
    {ScopeKind::App, "", false},
    {ScopeKind::User, "/users/{}", true},
    {ScopeKind::Group, "/groups/{}", true},
    {ScopeKind::Thing, "/things/{}", true},
};

}  // namespace

Requester requesterOf(const Service& service, const Call& call, Connection& conn,
                      const std::string& appID) {
  if (!call.header("Authorization")) return requesterFor(conn, appID, std::nullopt);
  if (auto token = call.bearerToken()) {
    if (auto thingID = thingOfToken(conn, appID, *token)) {
      // A thing speaks for itself, and as any caller with a valid token.
      return {std::nullopt,
              {kAnonymousSubject, kAuthenticatedSubject, "ThingID:" + *thingID},
              *thingID};
    }
  }
  return requesterFor(conn, appID, service.requireUser(call, conn, appID));
}

void enterThingScope(Connection& conn, const std::string& appID, const std::string& thingID,
                     Requester& requester) {
  const std::string subject = "ThingID:" + thingID;
  if (requester.speaksFor(subject)) return;
  for (const auto& owner : thingOwners(conn, appID, thingID)) {
    if (requester.speaksFor(owner)) {
      requester.subjects.push_back(subject);
      return;
    }
  }
}

void addBucketRoute(Router& router, Service& service, const std::string& method,
                    const std::string& suffix, BucketHandler handler) {
  for (const auto& scope : kScopeRoutes) {
    addApiRoute(
        router, service, method, std::string(scope.prefix) + "/buckets/{}" + suffix,
        [scope, handler](Call& call, const std::string& appID) {
          BucketAddress address;
          address.kind = scope.kind;
          std::size_t index = 1;
          if (scope.hasOwner) address.owner = call.param(index++);
          address.name = call.param(index++);
          address.next = index;
          if (!isValidBucketName(address.name)) {
            throw invalidInput("The bucket name must be 2-64 of letters, digits, '-', '_' and '.'");
          }
          handler(call, appID, address);
        });
  }
}

BucketContext openBucketContext(const Service& service, const Call& call, Connection& conn,
                                const std::string& appID, const BucketAddress& address) {
  BucketContext context{requesterOf(service, call, conn, appID), {address.kind, {}}};
  const auto& caller = context.requester.user;
  switch (address.kind) {
    case ScopeKind::User:
      if (address.owner == "me") {
        if (!caller) throw ApiError(401, "UNAUTHORIZED", "An access token is required");
        context.scope.ownerID = caller->userID;
      } else {
        if (!findUser(conn, appID, address.owner)) throw userNotFound();
        context.scope.ownerID = address.owner;
      }
      break;
    case ScopeKind::Group:
      if (!findGroup(conn, appID, address.owner)) throw groupNotFound();
      context.scope.ownerID = address.owner;
      break;
    case ScopeKind::Thing:
      if (!findThing(conn, appID, address.owner)) {
        throw ApiError(404, "THING_NOT_FOUND", "The thing was not found");
      }
      context.scope.ownerID = address.owner;
      enterThingScope(conn, appID, address.owner, context.requester);
      break;
    case ScopeKind::App:
      break;
  }
  return context;
}

BucketRow existingBucket(Connection& conn, const std::string& appID, const BucketContext& context,
                         const std::string& name) {
  auto bucket = findBucket(conn, appID, context.scope, name);
  if (!bucket) throw ApiError(404, "BUCKET_NOT_FOUND", "The bucket " + name + " was not found");
  return *bucket;
}

void requireAllowed(bool allowed, const Requester& requester, const std::string& what) {
  if (allowed) return;
  if (requester.anonymous())
    throw ApiError(401, "UNAUTHORIZED", "An access token is required to " + what);
  throw forbidden("The access control list does not allow the caller to " + what);
}

bool managesBucket(Connection& conn, const std::string& appID, const BucketRow& bucket,
                   const Requester& requester) {
  if (bucket.scope.kind == ScopeKind::Thing) {
    return requester.speaksFor("ThingID:" + bucket.scope.ownerID);
  }
  if (!requester.user) return false;
  const std::string& caller = requester.user->userID;
  switch (bucket.scope.kind) {
    case ScopeKind::User:
      return bucket.scope.ownerID == caller;
    case ScopeKind::Group: {
      auto group = findGroup(conn, appID, bucket.scope.ownerID);
      return group && group->owner == caller;
    }
    case ScopeKind::App:
    case ScopeKind::Thing:
      break;
  }
  return bucket.creator == caller;
}

void requireObjectID(const std::string& id) {
  if (!isValidObjectID(id)) {
    throw invalidInput("The object ID must be 2-100 of letters, digits, '-', '_' and '.'");
  }
}

}  // namespace jovemu
