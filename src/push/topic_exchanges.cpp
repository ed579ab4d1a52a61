// The exchanges of a topic and of its subscriptions, their error tables, the routines behind
// every form, and the topic listings of the three scopes.

#include "core/exchange.hpp"
#include "jov/application.hpp"
#include "jov/encoding.hpp"
#include "jov/group.hpp"
#include "jov/thing.hpp"
#include "jov/topic.hpp"
#include "jov/user.hpp"
#include "push/subscriber.hpp"

namespace jov {

namespace {

using detail::args;
using detail::Exchange;
using detail::onStatus;
using detail::onStatusAndCode;
using detail::Routine;
using detail::send;

// The service answers 409 for a topic that exists, and 404 when the user or group the topic
// would belong to does not exist; a 404 on delete names the topic itself ("TOPIC_NOT_FOUND")
// or, again, its owner.
constexpr detail::ErrorRule kSaveErrors[] = {
    onStatus(409, JovError::codeTopicAlreadyExist()),
    onStatus(404, JovError::codeTopicParentNotExistInCloud()),
    onStatus(401, JovError::codeUnauthorizedRequest()),
};
constexpr detail::ErrorRule kDeleteErrors[] = {
    onStatusAndCode(404, "TOPIC_NOT_FOUND", JovError::codeTopicNotExist()),
    onStatus(404, JovError::codeTopicParentNotExistInCloud()),
    onStatus(401, JovError::codeUnauthorizedRequest()),
};
// A 404 here is an answer, "it does not exist", and stays unmapped for the routine to read.
constexpr detail::ErrorRule kExistsErrors[] = {
    onStatus(400, JovError::codeInvalidContainer()),
    onStatus(401, JovError::codeUnauthorizedRequest()),
};
// Subscriptions: 409 means "subscribed already" to a subscribe and "not subscribed" to an
// unsubscribe; 404 is a topic or subscriber the service does not know.
constexpr detail::ErrorRule kSubscribeErrors[] = {
    onStatus(400, JovError::codeInvalidContainer()),
    onStatus(401, JovError::codeUnauthorizedRequest()),
    onStatus(404, JovError::codeObjectNotFound()),
    onStatus(409, JovError::codeSubscriptionAlreadyExist()),
};
constexpr detail::ErrorRule kUnsubscribeErrors[] = {
    onStatus(400, JovError::codeInvalidContainer()),
    onStatus(401, JovError::codeUnauthorizedRequest()),
    onStatus(404, JovError::codeObjectNotFound()),
    onStatus(409, JovError::codeSubscriptionNotExist()),
};
constexpr detail::ErrorRule kCheckErrors[] = {
    onStatus(404, JovError::codeObjectNotFound()),
    onStatus(400, JovError::codeInvalidContainer()),
    onStatus(401, JovError::codeUnauthorizedRequest()),
};
constexpr detail::ErrorRule kSendErrors[] = {
    onStatus(400, JovError::codeInvalidPushMessageData()),
    onStatus(401, JovError::codeUnauthorizedRequest()),
};
constexpr detail::ErrorRule kListErrors[] = {
    onStatus(400, JovError::codeInvalidRequestData()),
    onStatus(401, JovError::codeUnauthorizedRequest()),
};

// Every topic path is formed by the topic (its name and owner's ID already encoded).
constexpr Exchange kSave{JovMethodPut, "{+}", {.errors = kSaveErrors}};
constexpr Exchange kDelete{JovMethodDelete, "{+}", {.errors = kDeleteErrors}};
constexpr Exchange kExists{JovMethodHead, "{+}", {.errors = kExistsErrors}};
constexpr Exchange kSubscribe{
    JovMethodPut, "{+}/push/subscriptions/{+}", {.errors = kSubscribeErrors}};
constexpr Exchange kUnsubscribe{
    JovMethodDelete, "{+}/push/subscriptions/{+}", {.errors = kUnsubscribeErrors}};
constexpr Exchange kCheck{JovMethodGet, "{+}/push/subscriptions/{+}", {.errors = kCheckErrors}};
constexpr Exchange kSendMessage{
    JovMethodPost,
    "{+}/push/messages",
    {.contentType = "application/vnd.jov.SendPushMessageRequest+json", .errors = kSendErrors}};
constexpr Exchange kList{JovMethodGet, "{+}", {.errors = kListErrors}};


// The list path of an owner: "/users/ID/topics", "/groups/ID/topics" or "/topics"; empty for an
// owner without ID.
std::string topicBaseURI(const std::shared_ptr<JovUser>& user,
                         const std::shared_ptr<JovGroup>& group,
                         const std::shared_ptr<JovThing>& thing) {
  if (thing) {
    const std::string id = thing->thingID();
    return id.empty() ? "" : "/things/" + urlEncode(id) + "/topics";
  }
  if (user) return user->userID().empty() ? "" : "/users/" + urlEncode(user->userID()) + "/topics";
  if (group) {
    return group->groupID().empty() ? "" : "/groups/" + urlEncode(group->groupID()) + "/topics";
  }
  return "/topics";
}

// A listing answer {"topics": [{"topicID"}...], "paginationKey"?}: an entry without a name
// refuses the whole answer rather than handing back a shorter page that looks complete.
Result<JovTopic::Page> readTopicPage(const nlohmann::json& answer,
                                     const std::shared_ptr<JovUser>& user,
                                     const std::shared_ptr<JovGroup>& group,
                                     const std::shared_ptr<JovThing>& thing) {
  if (!answer.is_object()) return detail::unreadableAnswer();
  const auto topics = answer.find("topics");
  if (topics == answer.end() || !topics->is_array()) return detail::unreadableAnswer();
  JovTopic::Page page;
  const auto key = answer.find("paginationKey");
  if (key != answer.end() && !key->is_null()) {
    if (!key->is_string()) return detail::unreadableAnswer();
    page.paginationKey = key->get<std::string>();
    page.hasNext = true;
  }
  page.results.reserve(topics->size());
  for (const nlohmann::json& entry : *topics) {
    std::optional<std::string> name = jsonString(entry, "topicID");
    if (!name || name->empty()) return detail::unreadableAnswer();
    if (user) {
      page.results.push_back(JovTopic::topicWithName(user, *name));
    } else if (group) {
      page.results.push_back(JovTopic::topicWithName(group, *name));
    } else if (thing) {
      page.results.push_back(JovTopic::topicWithName(thing, *name));
    } else {
      page.results.push_back(JovTopic::topicWithName(*name));
    }
  }
  return page;
}

}  // namespace

Routine<void> JovTopic::saveRoutine() {
  if (auto invalid = validateFields()) co_return *invalid;
  co_return (co_await send(kSave, args(generatePath()))).transform([](auto&&) {});
}

Routine<void> JovTopic::deleteRoutine() {
  if (auto invalid = validateFields()) co_return *invalid;
  co_return (co_await send(kDelete, args(generatePath()))).transform([](auto&&) {});
}

Routine<bool> JovTopic::existsRoutine() {
  if (auto invalid = validateOperations()) co_return *invalid;
  auto answer = co_await send(kExists, args(generatePath()));
  if (!answer) {
    const JovError& failed = answer.error();
    if (failed.code() == 0 && failed.domain() == JovError::kDomain &&
        failed.jovHttpStatus() == 404) {
      co_return false;
    }
    co_return failed;
  }
  co_return answer->status == 204;
}

Result<std::string> JovTopic::messageBody(const JovPushMessage& message) {
  // A received message has no body of its own to send.
  if (message.isIncomingMessage()) return JovError(JovError::codeInvalidPushMessageData());
  return message.getMessageData().transform(
      [](const nlohmann::ordered_json& body) { return body.dump(); });
}

Routine<void> JovTopic::sendMessageRoutine(Result<std::string> body) {
  if (auto invalid = validateFields()) co_return *invalid;
  if (!body) co_return body.error();
  co_return (co_await send(kSendMessage, args(generatePath()).raw(std::move(*body))))
      .transform([](auto&&) {});
}

Routine<void> JovTopic::subscribeRoutine(Ptr topic, std::string subscriberPath) {
  if (auto invalid = topic->validateFields()) co_return *invalid;
  co_return (co_await send(kSubscribe, args(topic->generatePath(), subscriberPath)))
      .transform([](auto&&) {});
}

Routine<void> JovTopic::unsubscribeRoutine(Ptr topic, std::string subscriberPath) {
  if (auto invalid = topic->validateFields()) co_return *invalid;
  co_return (co_await send(kUnsubscribe, args(topic->generatePath(), subscriberPath)))
      .transform([](auto&&) {});
}

Routine<bool> JovTopic::isSubscribedRoutine(Ptr topic, std::string subscriberPath) {
  if (auto invalid = topic->validateFields()) co_return *invalid;
  auto answer = co_await send(kCheck, args(topic->generatePath(), subscriberPath));
  // A missing subscription comes back as 510: the forms hand over false with it.
  if (!answer) co_return answer.error();
  co_return true;
}

Routine<void> JovTopic::subscribeCurrentUserRoutine(Ptr topic) {
  std::optional<std::string> path = detail::currentSubscriberPath();
  JOV_CO_REQUIRE(path, JovError::codeLoginRequired());
  co_return co_await subscribeRoutine(std::move(topic), *path);
}

Routine<void> JovTopic::unsubscribeCurrentUserRoutine(Ptr topic) {
  std::optional<std::string> path = detail::currentSubscriberPath();
  JOV_CO_REQUIRE(path, JovError::codeLoginRequired());
  co_return co_await unsubscribeRoutine(std::move(topic), *path);
}

Routine<bool> JovTopic::isSubscribedCurrentUserRoutine(Ptr topic) {
  std::optional<std::string> path = detail::currentSubscriberPath();
  JOV_CO_REQUIRE(path, JovError::codeLoginRequired());
  co_return co_await isSubscribedRoutine(std::move(topic), *path);
}

Routine<bool> JovPushSubscription::checkSubscriptionRoutine(Subscribable subscribable) {
  JOV_CO_REQUIRE(subscribable, JovError::codeInvalidObjects());
  co_return co_await isSubscribedRoutine(subscribable, std::nullopt);
}

// The forms of a subscription choose the topic's or the bucket's routine; no path means the
// current user.
Routine<void> JovPushSubscription::subscribeRoutine(const Subscribable& subscribable,
                                                    std::optional<std::string> path) {
  if (const auto& topic = subscribable.topic()) {
    return path ? JovTopic::subscribeRoutine(topic, std::move(*path))
                : JovTopic::subscribeCurrentUserRoutine(topic);
  }
  const auto& bucket = subscribable.bucket();
  return path ? JovBucket::subscribeRoutine(bucket, std::move(*path))
              : JovBucket::subscribeCurrentUserRoutine(bucket);
}

Routine<void> JovPushSubscription::unsubscribeRoutine(const Subscribable& subscribable,
                                                      std::optional<std::string> path) {
  if (const auto& topic = subscribable.topic()) {
    return path ? JovTopic::unsubscribeRoutine(topic, std::move(*path))
                : JovTopic::unsubscribeCurrentUserRoutine(topic);
  }
  const auto& bucket = subscribable.bucket();
  return path ? JovBucket::unsubscribeRoutine(bucket, std::move(*path))
              : JovBucket::unsubscribeCurrentUserRoutine(bucket);
}

Routine<bool> JovPushSubscription::isSubscribedRoutine(const Subscribable& subscribable,
                                                       std::optional<std::string> path) {
  if (const auto& topic = subscribable.topic()) {
    return path ? JovTopic::isSubscribedRoutine(topic, std::move(*path))
                : JovTopic::isSubscribedCurrentUserRoutine(topic);
  }
  const auto& bucket = subscribable.bucket();
  return path ? JovBucket::isSubscribedRoutine(bucket, std::move(*path))
              : JovBucket::isSubscribedCurrentUserRoutine(bucket);
}

Routine<JovTopic::Page> JovTopic::listRoutine(std::shared_ptr<JovUser> user,
                                              std::shared_ptr<JovGroup> group,
                                              std::optional<std::string> paginationKey,
                                              std::shared_ptr<JovThing> thing) {
  auto current = Jov::currentUser();
  JOV_CO_REQUIRE(current && !current->userID().empty(), JovError::codeLoginRequired());
  std::string base = topicBaseURI(user, group, thing);
  JOV_CO_REQUIRE(!base.empty(), JovError::codeInvalidObjects());
  detail::SendArgs sendArgs = args(base);
  if (paginationKey) sendArgs.query_ = "paginationKey=" + urlEncode(*paginationKey);
  auto answer = co_await send(kList, std::move(sendArgs));
  if (!answer) co_return answer.error();
  co_return readTopicPage(answer->json, user, group, thing);
}

}  // namespace jov
