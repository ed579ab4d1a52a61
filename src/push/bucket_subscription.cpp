// Subscriptions to the changes of a bucket's objects: the exchanges, their error tables and the
// routines behind JovBucket's and JovPushSubscription's forms.

#include "core/exchange.hpp"
#include "jov/bucket.hpp"
#include "push/subscriber.hpp"

namespace jov {

namespace {

using detail::args;
using detail::Exchange;
using detail::onCode;
using detail::Routine;
using detail::send;

// A bucket's subscriptions are told apart by the service's "errorCode" alone.
constexpr detail::ErrorRule kSubscribeErrors[] = {
    onCode("PUSH_SUBSCRIPTION_ALREADY_EXISTS", JovError::codeSubscriptionAlreadyExist()),
    onCode("FILTER_NOT_FOUND", JovError::codeObjectNotFound()),
};
constexpr detail::ErrorRule kUnsubscribeErrors[] = {
    onCode("PUSH_SUBSCRIPTION_NOT_FOUND", JovError::codeSubscriptionNotExist()),
};

constexpr Exchange kSubscribe{
    JovMethodPut, "{+}/filters/all/push/subscriptions/{+}", {.errors = kSubscribeErrors}};
constexpr Exchange kUnsubscribe{
    JovMethodDelete, "{+}/filters/all/push/subscriptions/{+}", {.errors = kUnsubscribeErrors}};
constexpr Exchange kCheck{JovMethodGet, "{+}/filters/all/push/subscriptions/{+}"};

}  // namespace

Routine<void> JovBucket::subscribeRoutine(Ptr bucket, std::string subscriberPath) {
  auto path = bucket->bucketPath();
  JOV_CO_REQUIRE(path, JovError::codeBucketParentNotExistInCloud());
  co_return (co_await send(kSubscribe, args(*path, subscriberPath))).transform([](auto&&) {});
}

Routine<void> JovBucket::unsubscribeRoutine(Ptr bucket, std::string subscriberPath) {
  auto path = bucket->bucketPath();
  JOV_CO_REQUIRE(path, JovError::codeBucketParentNotExistInCloud());
  co_return (co_await send(kUnsubscribe, args(*path, subscriberPath))).transform([](auto&&) {});
}

// Any error means "not subscribed"; the forms hand over false with it.
Routine<bool> JovBucket::isSubscribedRoutine(Ptr bucket, std::string subscriberPath) {
  auto path = bucket->bucketPath();
  JOV_CO_REQUIRE(path, JovError::codeBucketParentNotExistInCloud());
  auto answer = co_await send(kCheck, args(*path, subscriberPath));
  if (!answer) co_return answer.error();
  co_return true;
}

Routine<void> JovBucket::subscribeCurrentUserRoutine(Ptr bucket) {
  std::optional<std::string> path = detail::currentSubscriberPath();
  JOV_CO_REQUIRE(path, JovError::codeLoginRequired());
  co_return co_await subscribeRoutine(std::move(bucket), *path);
}

Routine<void> JovBucket::unsubscribeCurrentUserRoutine(Ptr bucket) {
  std::optional<std::string> path = detail::currentSubscriberPath();
  JOV_CO_REQUIRE(path, JovError::codeLoginRequired());
  co_return co_await unsubscribeRoutine(std::move(bucket), *path);
}

Routine<bool> JovBucket::isSubscribedCurrentUserRoutine(Ptr bucket) {
  std::optional<std::string> path = detail::currentSubscriberPath();
  JOV_CO_REQUIRE(path, JovError::codeLoginRequired());
  co_return co_await isSubscribedRoutine(std::move(bucket), *path);
}

}  // namespace jov
