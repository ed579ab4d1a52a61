// Push: topics in the application, user and group scopes, and users' subscriptions to topics
// (installations are in routes_installations.cpp).
//
// Topics, under "/topics/{name}", "/users/{id}/topics/{name}" and "/groups/{id}/topics/{name}":
//   PUT creates (204; 409 TOPIC_ALREADY_EXISTS), DELETE removes it with its subscriptions (204),
//   GET (and HEAD) answer 204 when it exists; 404 TOPIC_NOT_FOUND, or USER_NOT_FOUND /
//   GROUP_NOT_FOUND for a missing owner. GET on ".../topics[?paginationKey=K]" lists a page of
//   names {"topics": [{"topicID"}], "paginationKey"?}, the key only when more follow.
//   ".../topics/{name}/push/subscriptions/users/{id}": PUT subscribes (204; 409
//   PUSH_SUBSCRIPTION_ALREADY_EXISTS), DELETE unsubscribes (204; 409 PUSH_SUBSCRIPTION_NOT_FOUND),
//   GET answers 204 when subscribed (404 PUSH_SUBSCRIPTION_NOT_FOUND).
//   POST ".../topics/{name}/push/messages" SendPushMessageRequest: 200 {"pushMessageID"}; stores
//   the deliveries of every subscriber's installations in the push outbox; 400 for a body that
//   enables no channel or is not a message.
//   ".../topics/{name}/acl" GET lists the topic's entries; ".../acl/{ACTION}/{SUBJECT}" PUT
//   grants, DELETE revokes (404 ACL_NOT_FOUND); actions SUBSCRIBE_TO_TOPIC and
//   SEND_MESSAGE_TO_TOPIC.
// Buckets: ".../buckets/{name}/filters/all/push/subscriptions/users/{id}": PUT subscribes (204;
//   409 PUSH_SUBSCRIPTION_ALREADY_EXISTS; 404 FILTER_NOT_FOUND for a bucket that does not
//   exist), DELETE unsubscribes (404 PUSH_SUBSCRIPTION_NOT_FOUND), GET answers 204 when
//   subscribed. Subscribing needs the right to query or read the bucket's objects.
// Rights: an application topic is anybody's to create and list; a user's topics are that
// user's; a group's are its members'. The topic's manager (the creator of an application topic,
// the user of a user's topic, the group's owner or the topic's creator for a group's) deletes it
// and changes its list; subscribing and sending need SUBSCRIBE_TO_TOPIC and
// SEND_MESSAGE_TO_TOPIC, which a new topic grants to any authenticated user and its creator
// (application), to the user (user's) or to the group (group's). Users subscribe only
// themselves.
#include <regex>

#include "api_error.hpp"
#include "bucket_access.hpp"
#include "crypto.hpp"
#include "group_store.hpp"
#include "push_delivery.hpp"
#include "push_store.hpp"
#include "service.hpp"
#include "thing_store.hpp"

namespace jovemu {

namespace {

constexpr const char* kSendPushMessage = "application/vnd.jov.SendPushMessageRequest+json";
constexpr int kTopicPageSize = 20;
constexpr const char* kSubscribeToTopic = "SUBSCRIBE_TO_TOPIC";
constexpr const char* kSendToTopic = "SEND_MESSAGE_TO_TOPIC";

void requireTopicName(const std::string& name) {
  static const std::regex pattern("[A-Za-z0-9_-]{1,64}");
  if (!std::regex_match(name, pattern)) {
    throw invalidInput("The topic ID must be 1-64 of A-Z, a-z, 0-9, '_' and '-'");
  }
}

ApiError topicNotFound() {
  return ApiError(404, "TOPIC_NOT_FOUND", "The topic was not found");
}

// ------------------------------------------------------------------ topics

// A topic route under one scope: the handler receives the scope's owner path segment (empty for
// the application) and the index of the route's first parameter after the scope.
using ScopedHandler = std::function<void(Call&, const std::string& appID, ScopeKind kind,
                                         const std::string& owner, std::size_t next)>;

void addTopicRoute(Router& router, Service& service, const std::string& method,
                   const std::string& suffix, const ScopedHandler& handler) {
  addApiRoute(router, service, method, "/topics" + suffix,
              [handler](Call& call, const std::string& app) {
                handler(call, app, ScopeKind::App, std::string(), 1);
              });
  addApiRoute(router, service, method, "/users/{}/topics" + suffix,
              [handler](Call& call, const std::string& app) {
                handler(call, app, ScopeKind::User, call.param(1), 2);
              });
  addApiRoute(router, service, method, "/groups/{}/topics" + suffix,
              [handler](Call& call, const std::string& app) {
                handler(call, app, ScopeKind::Group, call.param(1), 2);
              });
  addApiRoute(router, service, method, "/things/{}/topics" + suffix,
              [handler](Call& call, const std::string& app) {
                handler(call, app, ScopeKind::Thing, call.param(1), 2);
              });
}

// The caller (a user, or a thing with its own token) and the topic scope of a request; 401
// without a token, 404 when the owner does not exist.
struct TopicContext {
  Requester caller;
  BucketScope scope;
};

TopicContext openTopicContext(const Service& service, const Call& call, Connection& conn,
                              const std::string& appID, ScopeKind kind, const std::string& owner) {
  TopicContext context{requesterOf(service, call, conn, appID), {kind, {}}};
  if (context.caller.anonymous()) {
    throw ApiError(401, "UNAUTHORIZED", "An access token is required");
  }
  switch (kind) {
    case ScopeKind::User:
      if (owner == "me" && !context.caller.user) throw forbidden("A thing has no user scope");
      context.scope.ownerID = owner == "me" ? context.caller.user->userID : owner;
      if (!findUser(conn, appID, context.scope.ownerID)) throw userNotFound();
      break;
    case ScopeKind::Group:
      if (!findGroup(conn, appID, owner)) throw groupNotFound();
      context.scope.ownerID = owner;
      break;
    case ScopeKind::Thing:
      if (!findThing(conn, appID, owner)) {
        throw ApiError(404, "THING_NOT_FOUND", "The thing was not found");
      }
      context.scope.ownerID = owner;
      enterThingScope(conn, appID, owner, context.caller);
      break;
    case ScopeKind::App:
      break;
  }
  return context;
}

// The subscriber a path names ("users/ID" or "things/ID"): only the caller itself, or a thing
// its owner speaks for; 404 when it does not exist.
std::string subscriberPath(Connection& conn, const std::string& appID, const std::string& kind,
                           const std::string& id, const Requester& caller) {
  if (kind != "users" && kind != "things") {
    throw invalidInput("A subscriber is users/<id> or things/<id>");
  }
  if (kind == "users") {
    const std::string userID = id == "me" && caller.user ? caller.user->userID : id;
    if (!findUser(conn, appID, userID)) throw userNotFound();
    if (!caller.user || caller.user->userID != userID) {
      throw forbidden("A user subscribes only itself");
    }
    return "users/" + userID;
  }
  if (!findThing(conn, appID, id))
    throw ApiError(404, "THING_NOT_FOUND", "The thing was not found");
  Requester speaker = caller;
  enterThingScope(conn, appID, id, speaker);
  if (!speaker.speaksFor("ThingID:" + id)) {
    throw forbidden("A thing is subscribed by itself or its owners");
  }
  return "things/" + id;
}

bool isMember(Connection& conn, const std::string& appID, const std::string& groupID,
              const std::string& userID) {
  for (const auto& member : groupMembers(conn, appID, groupID)) {
    if (member == userID) return true;
  }
  return false;
}

// Creating, listing and subscribing: anybody in the application scope, the user in its own, the
// members in a group's.
void requireUse(Connection& conn, const std::string& appID, const TopicContext& context) {
  const std::string caller = context.caller.id();
  switch (context.scope.kind) {
    case ScopeKind::App:
      return;
    case ScopeKind::User:
      if (context.scope.ownerID == caller) return;
      throw forbidden("Only the user itself may use its topics");
    case ScopeKind::Group:
      if (isMember(conn, appID, context.scope.ownerID, caller)) return;
      throw forbidden("Only the members of the group may use its topics");
    case ScopeKind::Thing:
      if (context.caller.speaksFor("ThingID:" + context.scope.ownerID)) return;
      throw forbidden("Only the thing and its owners may use its topics");
  }
}

// The manager of a topic deletes it and changes its access control list.
bool managesTopic(Connection& conn, const std::string& appID, const TopicContext& context,
                  const TopicRow& topic) {
  const std::string caller = context.caller.id();
  switch (context.scope.kind) {
    case ScopeKind::App:
      return topic.creator == caller;
    case ScopeKind::Thing:
      return context.caller.speaksFor("ThingID:" + context.scope.ownerID);
    case ScopeKind::User:
      return context.scope.ownerID == caller;
    case ScopeKind::Group: {
      auto group = findGroup(conn, appID, context.scope.ownerID);
      return topic.creator == caller || (group && group->owner == caller);
    }
  }
  return false;
}

void requireManager(Connection& conn, const std::string& appID, const TopicContext& context,
                    const TopicRow& topic) {
  if (!managesTopic(conn, appID, context, topic)) {
    throw forbidden("Only the topic's manager may do this");
  }
}

// The entries a new topic starts with.
std::vector<AclEntry> defaultTopicEntries(const BucketScope& scope, const std::string& creator) {
  switch (scope.kind) {
    case ScopeKind::User:
      return {{kSubscribeToTopic, "UserID:" + scope.ownerID},
              {kSendToTopic, "UserID:" + scope.ownerID}};
    case ScopeKind::Group:
      return {{kSubscribeToTopic, "GroupID:" + scope.ownerID},
              {kSendToTopic, "GroupID:" + scope.ownerID}};
    case ScopeKind::Thing:
      return {{kSubscribeToTopic, "ThingID:" + scope.ownerID},
              {kSendToTopic, "ThingID:" + scope.ownerID}};
    case ScopeKind::App:
      break;
  }
  const std::string sender = creator.rfind("th.", 0) == 0 ? "ThingID:" : "UserID:";
  return {{kSubscribeToTopic, kAuthenticatedSubject}, {kSendToTopic, sender + creator}};
}

// Subscribing and sending: the manager, or a subject the topic's list grants the action.
void requireTopicRight(Connection& conn, const std::string& appID, const TopicContext& context,
                       const TopicRow& topic, const char* action) {
  if (managesTopic(conn, appID, context, topic)) return;
  if (isAllowed(topicEntries(conn, appID, topic.key), action, context.caller)) return;
  throw forbidden(std::string("The caller lacks ") + action + " on this topic");
}

TopicRow existingTopic(Connection& conn, const std::string& appID, const TopicKey& key) {
  auto topic = findTopic(conn, appID, key);
  if (!topic) throw topicNotFound();
  return *topic;
}

void addTopicRoutes(Router& router, Service& service) {
  addTopicRoute(
      router, service, "PUT", "/{}",
      [&service](Call& call, const std::string& app, ScopeKind kind, const std::string& owner,
                 std::size_t next) {
        const std::string& name = call.param(next);
        requireTopicName(name);
        service.db.transaction([&](Connection& conn) {
          auto context = openTopicContext(service, call, conn, app, kind, owner);
          requireUse(conn, app, context);
          TopicKey key{context.scope, name};
          if (findTopic(conn, app, key)) {
            throw ApiError(409, "TOPIC_ALREADY_EXISTS", "The topic exists already");
          }
          insertTopic(conn, app, {key, context.caller.id(), Service::now()});
          for (const auto& entry : defaultTopicEntries(context.scope, context.caller.id())) {
            grantTopicEntry(conn, app, key, entry);
          }
        });
        call.replyNoContent();
      });

  addTopicRoute(router, service, "DELETE", "/{}",
                [&service](Call& call, const std::string& app, ScopeKind kind,
                           const std::string& owner, std::size_t next) {
                  const std::string& name = call.param(next);
                  requireTopicName(name);
                  service.db.transaction([&](Connection& conn) {
                    auto context = openTopicContext(service, call, conn, app, kind, owner);
                    TopicKey key{context.scope, name};
                    auto topic = existingTopic(conn, app, key);
                    requireManager(conn, app, context, topic);
                    deleteTopic(conn, app, key);
                  });
                  call.replyNoContent();
                });

  // GET answers as HEAD does: 204 for a topic that exists, no body.
  addTopicRoute(router, service, "GET", "/{}",
                [&service](Call& call, const std::string& app, ScopeKind kind,
                           const std::string& owner, std::size_t next) {
                  const std::string& name = call.param(next);
                  requireTopicName(name);
                  service.db.transaction([&](Connection& conn) {
                    auto context = openTopicContext(service, call, conn, app, kind, owner);
                    existingTopic(conn, app, {context.scope, name});
                  });
                  call.replyNoContent();
                });

  addTopicRoute(router, service, "GET", "",
                [&service](Call& call, const std::string& app, ScopeKind kind,
                           const std::string& owner, std::size_t) {
                  auto after = call.query("paginationKey");
                  if (after && after->empty()) throw invalidInput("paginationKey is empty");
                  auto page = service.db.transaction([&](Connection& conn) {
                    auto context = openTopicContext(service, call, conn, app, kind, owner);
                    requireUse(conn, app, context);
                    // One more than a page tells whether another page follows.
                    auto names = listTopics(conn, app, context.scope, after, kTopicPageSize + 1);
                    const bool more = names.size() > static_cast<std::size_t>(kTopicPageSize);
                    if (more) names.resize(kTopicPageSize);
                    nlohmann::json topics = nlohmann::json::array();
                    for (const auto& name : names) topics.push_back({{"topicID", name}});
                    nlohmann::json out = {{"topics", std::move(topics)}};
                    if (more) out["paginationKey"] = names.back();
                    return out;
                  });
                  call.reply(200, page);
                });
}

// ------------------------------------------------------------------ subscriptions

enum class SubscriptionChange { Add, Remove, Check };

void changeSubscription(Service& service, Call& call, const std::string& app, ScopeKind kind,
                        const std::string& owner, std::size_t next, SubscriptionChange change) {
  const std::string& name = call.param(next);
  requireTopicName(name);
  service.db.transaction([&](Connection& conn) {
    auto context = openTopicContext(service, call, conn, app, kind, owner);
    TopicKey key{context.scope, name};
    auto topic = existingTopic(conn, app, key);
    const std::string path =
        subscriberPath(conn, app, call.param(next + 1), call.param(next + 2), context.caller);
    if (change == SubscriptionChange::Add) {
      requireTopicRight(conn, app, context, topic, kSubscribeToTopic);
    }
    const bool exists = hasSubscription(conn, app, key, path);
    switch (change) {
      case SubscriptionChange::Add:
        if (exists) {
          throw ApiError(409, "PUSH_SUBSCRIPTION_ALREADY_EXISTS",
                         "The subscription exists already");
        }
        insertSubscription(conn, app, key, path, Service::now());
        break;
      case SubscriptionChange::Remove:
        if (!exists) {
          throw ApiError(409, "PUSH_SUBSCRIPTION_NOT_FOUND", "There is no such subscription");
        }
        deleteSubscription(conn, app, key, path);
        break;
      case SubscriptionChange::Check:
        if (!exists) {
          throw ApiError(404, "PUSH_SUBSCRIPTION_NOT_FOUND", "There is no such subscription");
        }
        break;
    }
  });
  call.replyNoContent();
}

void addSubscriptionRoutes(Router& router, Service& service) {
  const std::string suffix = "/{}/push/subscriptions/{}/{}";
  const std::pair<const char*, SubscriptionChange> methods[] = {
      {"PUT", SubscriptionChange::Add},
      {"DELETE", SubscriptionChange::Remove},
      {"GET", SubscriptionChange::Check},
  };
  for (const auto& [method, change] : methods) {
    addTopicRoute(router, service, method, suffix,
                  [&service, change = change](Call& call, const std::string& app, ScopeKind kind,
                                              const std::string& owner, std::size_t next) {
                    changeSubscription(service, call, app, kind, owner, next, change);
                  });
  }
}

// ------------------------------------------------------------------ messages and topic ACLs

void addMessageRoutes(Router& router, Service& service) {
  addTopicRoute(router, service, "POST", "/{}/push/messages",
                [&service](Call& call, const std::string& app, ScopeKind kind,
                           const std::string& owner, std::size_t next) {
                  const std::string& name = call.param(next);
                  requireTopicName(name);
                  call.requireMediaType({kSendPushMessage});
                  auto body = call.jsonObject();
                  requireMessageBody(body);
                  service.db.transaction([&](Connection& conn) {
                    auto context = openTopicContext(service, call, conn, app, kind, owner);
                    auto topic = existingTopic(conn, app, {context.scope, name});
                    requireTopicRight(conn, app, context, topic, kSendToTopic);
                    deliverTopicMessage(conn, app, topic.key, context.caller.id(), body,
                                        Service::now());
                  });
                  call.reply(200, {{"pushMessageID", randomHex(12)}});
                });

  addTopicRoute(router, service, "GET", "/{}/acl",
                [&service](Call& call, const std::string& app, ScopeKind kind,
                           const std::string& owner, std::size_t next) {
                  const std::string& name = call.param(next);
                  requireTopicName(name);
                  auto list = service.db.transaction([&](Connection& conn) {
                    auto context = openTopicContext(service, call, conn, app, kind, owner);
                    auto topic = existingTopic(conn, app, {context.scope, name});
                    requireManager(conn, app, context, topic);
                    return aclJson(topicEntries(conn, app, topic.key));
                  });
                  call.reply(200, list);
                });

  for (const bool grant : {true, false}) {
    addTopicRoute(
        router, service, grant ? "PUT" : "DELETE", "/{}/acl/{}/{}",
        [&service, grant](Call& call, const std::string& app, ScopeKind kind,
                          const std::string& owner, std::size_t next) {
          const std::string& name = call.param(next);
          requireTopicName(name);
          const AclEntry entry{call.param(next + 1), call.param(next + 2)};
          if (entry.action != kSubscribeToTopic && entry.action != kSendToTopic) {
            throw invalidInput("The action " + entry.action + " does not apply to a topic");
          }
          service.db.transaction([&](Connection& conn) {
            auto context = openTopicContext(service, call, conn, app, kind, owner);
            auto topic = existingTopic(conn, app, {context.scope, name});
            requireManager(conn, app, context, topic);
            if (grant) {
              requireSubject(conn, app, entry.subject);
              grantTopicEntry(conn, app, topic.key, entry);
            } else if (!revokeTopicEntry(conn, app, topic.key, entry)) {
              throw ApiError(404, "ACL_NOT_FOUND",
                             "The entry " + entry.action + "/" + entry.subject +
                                 " is not in the access control list");
            }
          });
          call.replyNoContent();
        });
  }
}

// ------------------------------------------------------------------ bucket subscriptions

void changeBucketSubscription(Service& service, Call& call, const std::string& app,
                              const BucketAddress& address, SubscriptionChange change) {
  service.db.transaction([&](Connection& conn) {
    auto context = openBucketContext(service, call, conn, app, address);
    const auto& requester = context.requester;
    if (requester.anonymous()) {
      throw ApiError(401, "UNAUTHORIZED", "A subscriber must be logged in");
    }
    const std::string path = subscriberPath(conn, app, call.param(address.next),
                                            call.param(address.next + 1), requester);
    auto bucket = findBucket(conn, app, context.scope, address.name);
    if (!bucket) throw ApiError(404, "FILTER_NOT_FOUND", "The bucket has no such filter");
    const bool exists = hasBucketSubscription(conn, bucket->key, path);
    switch (change) {
      case SubscriptionChange::Add:
        requireAllowed(managesBucket(conn, app, *bucket, requester) ||
                           isAllowed(conn, bucket->key, kBucketTarget, kQueryObjects, requester) ||
                           isAllowed(conn, bucket->key, kBucketTarget, kReadObjects, requester),
                       requester, "subscribe to this bucket");
        if (exists) {
          throw ApiError(409, "PUSH_SUBSCRIPTION_ALREADY_EXISTS",
                         "The subscription exists already");
        }
        insertBucketSubscription(conn, bucket->key, path, Service::now());
        break;
      case SubscriptionChange::Remove:
      case SubscriptionChange::Check:
        if (!exists) {
          throw ApiError(404, "PUSH_SUBSCRIPTION_NOT_FOUND", "There is no such subscription");
        }
        if (change == SubscriptionChange::Remove) {
          deleteBucketSubscription(conn, bucket->key, path);
        }
        break;
    }
  });
  call.replyNoContent();
}

void addBucketSubscriptionRoutes(Router& router, Service& service) {
  const std::pair<const char*, SubscriptionChange> methods[] = {
      {"PUT", SubscriptionChange::Add},
      {"DELETE", SubscriptionChange::Remove},
      {"GET", SubscriptionChange::Check},
  };
  for (const auto& [method, change] : methods) {
    addBucketRoute(router, service, method, "/filters/all/push/subscriptions/{}/{}",
                   [&service, change = change](Call& call, const std::string& app,
                                               const BucketAddress& address) {
                     changeBucketSubscription(service, call, app, address, change);
                   });
  }
}

}  // namespace

void addPushRoutes(Router& router, Service& service) {
  addInstallationRoutes(router, service);
  addTopicRoutes(router, service);
  addSubscriptionRoutes(router, service);
  addMessageRoutes(router, service);
  addBucketSubscriptionRoutes(router, service);
}

}  // namespace jovemu
