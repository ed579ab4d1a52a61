// What every bucket, object and ACL route shares: the scopes a bucket path can have, the caller
// (a user or anonymous), the bucket's owner and the access checks.
#pragma once

#include <functional>
#include <string>

#include "acl_store.hpp"
#include "object_store.hpp"
#include "service.hpp"

namespace jovemu {

/// @brief A bucket as a request addresses it: the scope, the owner's path segment ("me" allowed
/// for a user) and the bucket name. `next` is the index of the route's first parameter after
/// the bucket name.
struct BucketAddress {
  ScopeKind kind = ScopeKind::App;
  std::string owner;
  std::string name;
  std::size_t next = 0;
};

/// @brief The caller and the bucket scope of a request, resolved in its transaction.
struct BucketContext {
  Requester requester;
  BucketScope scope;
};

/// @brief A route under every bucket scope: "/buckets/{}", "/users/{}/buckets/{}",
/// "/groups/{}/buckets/{}", "/things/{}/buckets/{}", each followed by `suffix`. The bucket name is
/// checked (400) before the handler runs.
using BucketHandler =
    std::function<void(Call&, const std::string& appID, const BucketAddress& address)>;
void addBucketRoute(Router& router, Service& service, const std::string& method,
                    const std::string& suffix, BucketHandler handler);

/// @brief The caller of a request: anonymous without a token, a thing for a thing's token, else
/// the user of the token (401 / 403 WRONG_TOKEN for a token that is not valid).
Requester requesterOf(const Service& service, const Call& call, Connection& conn,
                      const std::string& appID);
/// @brief In a thing's scope, an owner of the thing (itself or through a group) speaks for the
/// thing too: adds "ThingID:ID" to the caller's subjects.
void enterThingScope(Connection& conn, const std::string& appID, const std::string& thingID,
                     Requester& requester);

/// @brief The caller (see requesterOf) and the owner of the bucket: 404 USER_NOT_FOUND /
/// GROUP_NOT_FOUND / THING_NOT_FOUND when the owner does not exist, 401 for "me" without a
/// token.
BucketContext openBucketContext(const Service& service, const Call& call, Connection& conn,
                                const std::string& appID, const BucketAddress& address);

/// @brief The bucket, or 404 BUCKET_NOT_FOUND.
BucketRow existingBucket(Connection& conn, const std::string& appID, const BucketContext& context,
                         const std::string& name);

/// @brief Refuses a request the ACL does not allow: 401 UNAUTHORIZED for an anonymous caller,
/// 403 FORBIDDEN for a user.
void requireAllowed(bool allowed, const Requester& requester, const std::string& what);

/// @brief Whether the caller manages the bucket's ACL: the user of a user's bucket, the owner of
/// a group's bucket's group, a thing and its owners for the thing's buckets, the creator of an
/// application bucket.
bool managesBucket(Connection& conn, const std::string& appID, const BucketRow& bucket,
                   const Requester& requester);

/// @brief 400 unless the object ID is valid.
void requireObjectID(const std::string& id);

}  // namespace jovemu
