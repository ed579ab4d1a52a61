#pragma once
/// @file
/// @brief Push topics (JovTopic) in the application, user and group scopes, and the subscriber
/// side of push (JovPushSubscription).

#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "jov/async.hpp"
#include "jov/bucket.hpp"
#include "jov/cancellation.hpp"
#include "jov/detail/forms.hpp"
#include "jov/push_message.hpp"
#include "jov/result.hpp"

namespace jov {

class JovACL;
class JovGroup;
class JovPushSubscription;
class JovThing;
class JovUser;

/// @brief A named push channel of the application, of a user or of a group. Made by
/// Jov::topicWithName, JovUser::topicWithName and JovGroup::topicWithName (or the factories
/// here); nothing is fetched or created until an operation runs. Immutable and safe to share.
///
/// @code
/// auto topic = jov::Jov::topicWithName("news");
/// if (auto saved = topic->saveSynchronous(); !saved) std::cerr << saved.error().describe();
/// jov::JovPushSubscription::subscribeCurrentUserSynchronous(topic);
/// @endcode
class JovTopic : public std::enable_shared_from_this<JovTopic> {
 public:
  /// @brief Topics are held by std::shared_ptr.
  using Ptr = std::shared_ptr<JovTopic>;
  /// @brief Blocks of topic operations receive the topic, then the error.
  using TopicBlock = JovBlock<Ptr>;
  /// @brief One page of a topic listing.
  using Page = JovListResult<Ptr>;

  /// @brief Lets the factories use std::make_shared; not usable outside the class.
  struct Key {
   private:
    friend class JovTopic;
    Key() = default;
  };
  /// @brief Made by the factories only.
  JovTopic(Key, std::string name, std::shared_ptr<JovUser> user, std::shared_ptr<JovGroup> group,
           std::shared_ptr<JovThing> thing = nullptr)
      : name_(std::move(name)),
        user_(std::move(user)),
        group_(std::move(group)),
        thing_(std::move(thing)) {}
  JovTopic(const JovTopic&) = delete;
  JovTopic& operator=(const JovTopic&) = delete;

  /// @brief The application's topic of this name.
  static Ptr topicWithName(const std::string& name);
  /// @brief The user's topic of this name; raises std::invalid_argument "user can not be nil"
  /// without a user.
  static Ptr topicWithName(const std::shared_ptr<JovUser>& user, const std::string& name);
  /// @brief The group's topic of this name; raises std::invalid_argument "group can not be nil"
  /// without a group.
  static Ptr topicWithName(const std::shared_ptr<JovGroup>& group, const std::string& name);
  /// @brief The thing's topic of this name; raises std::invalid_argument "thing can not be nil"
  /// without a thing.
  static Ptr topicWithName(const std::shared_ptr<JovThing>& thing, const std::string& name);

  /// @brief True for 1 to 64 of letters, digits, "_" and "-".
  static bool isValidName(const std::string& name);

  /// @brief The topic ID.
  const std::string& name() const { return name_; }
  /// @brief The owning user, or nullptr.
  const std::shared_ptr<JovUser>& user() const { return user_; }
  /// @brief The owning group, or nullptr.
  const std::shared_ptr<JovGroup>& group() const { return group_; }
  /// @brief The owning thing, or nullptr.
  const std::shared_ptr<JovThing>& thing() const { return thing_; }
  /// @brief The topic's path under the application: "/users/ID/topics/NAME",
  /// "/groups/ID/topics/NAME", "/things/ID/topics/NAME" or "/topics/NAME", the name and the IDs
  /// percent-encoded.
  std::string generatePath() const;

  /// @name save
  /// @{

  /// Creates the topic on the service (PUT on its path). Errors: 711 an invalid name (before
  /// any request); 704 the topic exists (409); 713 its user or group does not exist (404); 203
  /// (401); and the errors of every exchange. The block and delegate receive the topic, then the
  /// error.
  Result<void> saveSynchronous() { return detail::runSync(saveRoutine()); }
  void save(TopicBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), saveRoutine(), std::move(block), cancel);
  }
  void save(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), saveRoutine(), std::move(callback), cancel);
  }
  std::future<Result<void>> saveAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), saveRoutine(), cancel);
  }
  /// @}

  /// @name delete
  /// @{

  /// Deletes the topic on the service (DELETE on its path). Errors: 711 an invalid name (before
  /// any request); 705 the topic does not exist (404 "TOPIC_NOT_FOUND"); 713 any other 404 (its
  /// user or group is gone); 203 (401); and the errors of every exchange. The block and delegate
  /// receive the topic, then the error.
  Result<void> deleteSynchronous() { return detail::runSync(deleteRoutine()); }
  void deleteWithBlock(TopicBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), deleteRoutine(), std::move(block), cancel);
  }
  void deleteWithCallback(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), deleteRoutine(), std::move(callback), cancel);
  }
  std::future<Result<void>> deleteAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), deleteRoutine(), cancel);
  }
  /// @}

  /// @name checkIfExists
  /// @{

  /// Whether the topic exists (HEAD on its path: 204 means it does, 404 that it does not, with
  /// no error). Errors: 711 an invalid name, 340 nobody logged in (before any request); 509
  /// (400); 203 (401); and the errors of every exchange. The block form raises
  /// std::invalid_argument "Completion block is mandatory" without a block.
  Result<bool> checkIfExistsSynchronous() { return detail::runSync(existsRoutine()); }
  void checkIfExists(JovBlock<bool> block, JovCancellation cancel = {}) {
    if (!block) throw std::invalid_argument("Completion block is mandatory");
    detail::runBlock(self(), existsRoutine(), std::move(block), cancel);
  }
  void checkIfExists(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), existsRoutine(), std::move(callback), cancel);
  }
  std::future<Result<bool>> checkIfExistsAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), existsRoutine(), cancel);
  }
  /// @}

  /// @name sendMessage
  /// @{

  /// Sends a message to the topic's subscribers (POST "TOPICPATH/push/messages", the body of
  /// JovPushMessage::getMessageData, made on the caller's thread). Errors: 711 an invalid name,
  /// 708 a message without any channel, 712 a GCM-reserved key, 706 data that is not an object
  /// or a message made from a received payload (all before any request); 706 the service
  /// refused the message (400); 203 (401); and the errors of every exchange (403 when the caller
  /// may not send to the topic, 404 when it does not exist). The block and delegate receive the
  /// topic, then the error.
  Result<void> sendMessageSynchronous(const JovPushMessage& message) {
    return detail::runSync(sendMessageRoutine(messageBody(message)));
  }
  void sendMessage(const JovPushMessage& message, TopicBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), sendMessageRoutine(messageBody(message)), std::move(block), cancel);
  }
  void sendMessage(const JovPushMessage& message, JovCallback callback,
                   JovCancellation cancel = {}) {
    detail::runCallback(self(), sendMessageRoutine(messageBody(message)), std::move(callback),
                        cancel);
  }
  std::future<Result<void>> sendMessageAsync(const JovPushMessage& message,
                                             JovCancellation cancel = {}) {
    return detail::runFuture(self(), sendMessageRoutine(messageBody(message)), cancel);
  }
  /// @}

  /// @brief The topic's access control list (actions 8 and 9: SUBSCRIBE_TO_TOPIC and
  /// SEND_MESSAGE_TO_TOPIC), made anew on each call; see JovACL.
  std::shared_ptr<JovACL> topicACL();
  /// @brief The path of the topic's access control list (generatePath + "/acl").
  std::optional<std::string> aclPath() const { return generatePath() + "/acl"; }

  /// @brief Whether the current user subscribes to the topic (see
  /// JovPushSubscription::checkSubscriptionSynchronous).
  Result<bool> isSubscribedSynchronous() {
    return detail::runSync(isSubscribedCurrentUserRoutine(self()));
  }
  /// @brief Whether a subscriber ("users/ID") subscribes to the topic.
  Result<bool> isSubscribedSynchronousWithSubscriberPath(const std::string& subscriberPath) {
    return detail::runSync(isSubscribedRoutine(self(), subscriberPath));
  }

  /// @name listTopics
  /// @{

  /// One page of the topics of the application (GET "/topics"), of a user
  /// ("/users/ID/topics") or of a group ("/groups/ID/topics"), from the page a pagination key
  /// names ("?paginationKey=KEY") or from the first. The page holds topics of the same owner
  /// and, when another page follows, its key. Errors: 340 nobody logged in, 501 a user or
  /// group without ID (before any request); 204 (400); 203 (401); 202 an unreadable answer; and
  /// the errors of every exchange. Jov, JovUser and JovGroup offer the same as listTopics.
  static Result<Page> listTopicsSynchronous(std::optional<std::string> paginationKey = {}) {
    return detail::runSync(listRoutine(nullptr, nullptr, std::move(paginationKey)));
  }
  static Result<Page> listTopicsSynchronous(const std::shared_ptr<JovUser>& user,
                                            std::optional<std::string> paginationKey = {}) {
    return detail::runSync(listRoutine(user, nullptr, std::move(paginationKey)));
  }
  static Result<Page> listTopicsSynchronous(const std::shared_ptr<JovGroup>& group,
                                            std::optional<std::string> paginationKey = {}) {
    return detail::runSync(listRoutine(nullptr, group, std::move(paginationKey)));
  }
  static Result<Page> listTopicsSynchronous(const std::shared_ptr<JovThing>& thing,
                                            std::optional<std::string> paginationKey = {}) {
    return detail::runSync(listRoutine(nullptr, nullptr, std::move(paginationKey), thing));
  }
  /// The block receives the page, then the error.
  static void listTopics(std::shared_ptr<JovUser> user, std::shared_ptr<JovGroup> group,
                         std::optional<std::string> paginationKey, JovBlock<Page> block,
                         JovCancellation cancel = {}) {
    detail::runClassBlock(listRoutine(std::move(user), std::move(group), std::move(paginationKey)),
                          std::move(block), cancel);
  }
  static void listTopics(std::shared_ptr<JovUser> user, std::shared_ptr<JovGroup> group,
                         std::optional<std::string> paginationKey, JovCallback callback,
                         JovCancellation cancel = {}) {
    detail::runCallback(nullptr,
                        listRoutine(std::move(user), std::move(group), std::move(paginationKey)),
                        std::move(callback), cancel);
  }
  static std::future<Result<Page>> listTopicsAsync(std::shared_ptr<JovUser> user,
                                                   std::shared_ptr<JovGroup> group,
                                                   std::optional<std::string> paginationKey,
                                                   JovCancellation cancel = {}) {
    return detail::runFuture(
        nullptr, listRoutine(std::move(user), std::move(group), std::move(paginationKey)), cancel);
  }
  /// @}

 private:
  friend class JovPushSubscription;
  // The topic's checks: 711 for an invalid name (every exchange), then 340 without a current
  // user (the exists check).
  std::optional<JovError> validateFields() const;
  std::optional<JovError> validateOperations() const;

  detail::Routine<void> saveRoutine();
  detail::Routine<void> deleteRoutine();
  detail::Routine<bool> existsRoutine();
  // The request body of a message, or why it has none.
  static Result<std::string> messageBody(const JovPushMessage& message);
  detail::Routine<void> sendMessageRoutine(Result<std::string> body);
  // The subscription routines hold the topic they work on: the forms of JovPushSubscription
  // have no entity of their own to keep it alive.
  static detail::Routine<void> subscribeRoutine(Ptr topic, std::string subscriberPath);
  static detail::Routine<void> unsubscribeRoutine(Ptr topic, std::string subscriberPath);
  static detail::Routine<bool> isSubscribedRoutine(Ptr topic, std::string subscriberPath);
  static detail::Routine<void> subscribeCurrentUserRoutine(Ptr topic);
  static detail::Routine<void> unsubscribeCurrentUserRoutine(Ptr topic);
  static detail::Routine<bool> isSubscribedCurrentUserRoutine(Ptr topic);
  static detail::Routine<Page> listRoutine(std::shared_ptr<JovUser> user,
                                           std::shared_ptr<JovGroup> group,
                                           std::optional<std::string> paginationKey,
                                           std::shared_ptr<JovThing> thing = nullptr);
  Ptr self() { return shared_from_this(); }

  const std::string name_;
  const std::shared_ptr<JovUser> user_;
  const std::shared_ptr<JovGroup> group_;
  const std::shared_ptr<JovThing> thing_;
};

/// @brief What a subscription is to: a topic, or a bucket (changes of its objects); empty when
/// made from nullptr. Converts implicitly from a topic or bucket pointer.
class JovSubscribable {
 public:
  /// @brief Nothing to subscribe to.
  JovSubscribable(std::nullptr_t = nullptr) {}  // NOLINT(google-explicit-constructor)
  /// @brief A topic, a bucket or an encrypted bucket.
  template <class T>
    requires std::is_convertible_v<T*, JovTopic*> || std::is_convertible_v<T*, JovBucket*>
  JovSubscribable(std::shared_ptr<T> target) {  // NOLINT(google-explicit-constructor)
    if constexpr (std::is_convertible_v<T*, JovTopic*>) {
      topic_ = std::move(target);
    } else {
      bucket_ = std::move(target);
    }
  }
  /// @brief The topic, or nullptr.
  const std::shared_ptr<JovTopic>& topic() const { return topic_; }
  /// @brief The bucket, or nullptr.
  const std::shared_ptr<JovBucket>& bucket() const { return bucket_; }
  /// @brief Whether there is a topic or a bucket.
  explicit operator bool() const { return topic_ || bucket_; }

 private:
  std::shared_ptr<JovTopic> topic_;
  std::shared_ptr<JovBucket> bucket_;
};

/// @brief The subscriber side of push: a user or a thing that subscribes to topics and to
/// buckets.
///
/// The instance forms subscribe the subscriber the instance was made for; the CurrentUser class
/// forms subscribe whoever is logged in (340 when nobody is). Every form raises
/// std::invalid_argument "Subscribable can not be nil" without a topic, except
/// checkSubscription, which reports 501.
class JovPushSubscription : public std::enable_shared_from_this<JovPushSubscription> {
 public:
  /// @brief Subscriptions are held by std::shared_ptr.
  using Ptr = std::shared_ptr<JovPushSubscription>;
  /// @brief What can be subscribed to: a topic, or a bucket (changes of its objects).
  using Subscribable = JovSubscribable;

  /// @brief Lets the factory use std::make_shared; not usable outside the class.
  struct Key {
   private:
    friend class JovPushSubscription;
    Key() = default;
  };
  /// @brief Made by subscriptionWithUser only.
  JovPushSubscription(Key, std::string subscriberPath) : path_(std::move(subscriberPath)) {}

  /// @brief The subscriptions of a user ("users/ID"); raises std::invalid_argument "user can not
  /// be nil" without a user, and "user must have an ID" for a user without ID.
  static Ptr subscriptionWithUser(const std::shared_ptr<JovUser>& user);

  /// @brief The subscriptions of a thing ("things/ID"): made by the thing acting with its own
  /// token, or by one of its owners. Raises std::invalid_argument "thing can not be nil" without
  /// a thing, and "thing must have an ID" for a thing without ID.
  static Ptr subscriptionWithThing(const std::shared_ptr<JovThing>& thing);

  /// @brief The subscriber's path: "users/ID" or "things/ID".
  const std::string& subscriberPath() const { return path_; }

  /// @name subscribe
  /// @{

  /// Subscribes to a topic (PUT "TOPICPATH/push/subscriptions/users/ID") or to a bucket (PUT
  /// "BUCKETPATH/filters/all/push/subscriptions/users/ID"). Errors of a topic: 711 an invalid
  /// topic name (before any request); 702 subscribed already (409); 510 the topic or the user
  /// does not exist (404); 509 (400); 203 (401). Errors of a bucket: 515 the bucket has no path
  /// (before any request); 702 subscribed already ("PUSH_SUBSCRIPTION_ALREADY_EXISTS"); 510 no
  /// such bucket ("FILTER_NOT_FOUND"). Both: the errors of every exchange. The block and
  /// delegate receive the error.
  Result<void> subscribeSynchronous(const Subscribable& subscribable) {
    return detail::runSync(subscribeRoutine(checked(subscribable), path_));
  }
  void subscribe(const Subscribable& subscribable, JovBlock<> block, JovCancellation cancel = {}) {
    detail::runBlock(nullptr, subscribeRoutine(checked(subscribable), path_), std::move(block),
                     cancel);
  }
  void subscribe(const Subscribable& subscribable, JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(nullptr, subscribeRoutine(checked(subscribable), path_),
                        std::move(callback), cancel);
  }
  std::future<Result<void>> subscribeAsync(const Subscribable& subscribable, JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, subscribeRoutine(checked(subscribable), path_), cancel);
  }
  /// @}

  /// @name unsubscribe
  /// @{

  /// Unsubscribes from the topic or bucket (DELETE on the subscription's path). Errors of a
  /// topic: 711 an invalid topic name (before any request); 703 not subscribed (409, as the
  /// service answers it); 510 (404); 509 (400); 203 (401). Errors of a bucket: 515 no path; 703
  /// not subscribed ("PUSH_SUBSCRIPTION_NOT_FOUND"). Both: the errors of every exchange.
  Result<void> unsubscribeSynchronous(const Subscribable& subscribable) {
    return detail::runSync(unsubscribeRoutine(checked(subscribable), path_));
  }
  void unsubscribe(const Subscribable& subscribable, JovBlock<> block, JovCancellation cancel = {}) {
    detail::runBlock(nullptr, unsubscribeRoutine(checked(subscribable), path_), std::move(block),
                     cancel);
  }
  void unsubscribe(const Subscribable& subscribable, JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(nullptr, unsubscribeRoutine(checked(subscribable), path_),
                        std::move(callback), cancel);
  }
  std::future<Result<void>> unsubscribeAsync(const Subscribable& subscribable,
                                             JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, unsubscribeRoutine(checked(subscribable), path_), cancel);
  }
  /// @}

  /// @name checkIsSubscribed
  /// @{

  /// Whether the subscriber subscribes to the topic or bucket (GET on the subscription's path).
  /// A missing subscription is an error with false: 510 for a topic, the service's 404 for a
  /// bucket; other errors: 711 an invalid topic name, 515 a bucket without path (before any
  /// request); 509 (400); 203 (401); and the errors of every exchange. The block receives the
  /// answer, then the error.
  Result<bool> checkIsSubscribedSynchronous(const Subscribable& subscribable) {
    return detail::runSync(isSubscribedRoutine(checked(subscribable), path_));
  }
  void checkIsSubscribed(const Subscribable& subscribable, JovBlock<bool> block,
                         JovCancellation cancel = {}) {
    detail::runBlock(nullptr, isSubscribedRoutine(checked(subscribable), path_),
                     std::move(block), cancel);
  }
  std::future<Result<bool>> checkIsSubscribedAsync(const Subscribable& subscribable,
                                                   JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, isSubscribedRoutine(checked(subscribable), path_), cancel);
  }
  /// @}

  /// @name the current user's subscriptions
  /// @{

  /// As subscribe, unsubscribe and checkIsSubscribed, for the current user: 340 when nobody is
  /// logged in. checkSubscription reports a missing topic as 501 instead of raising.
  static Result<void> subscribeCurrentUserSynchronous(const Subscribable& subscribable) {
    return detail::runSync(subscribeRoutine(checked(subscribable), std::nullopt));
  }
  static void subscribeCurrentUser(const Subscribable& subscribable, JovBlock<> block,
                                   JovCancellation cancel = {}) {
    detail::runBlock(nullptr, subscribeRoutine(checked(subscribable), std::nullopt),
                     std::move(block), cancel);
  }
  static void subscribeCurrentUser(const Subscribable& subscribable, JovCallback callback,
                                   JovCancellation cancel = {}) {
    detail::runCallback(nullptr, subscribeRoutine(checked(subscribable), std::nullopt),
                        std::move(callback), cancel);
  }
  static Result<void> unsubscribeCurrentUserSynchronous(const Subscribable& subscribable) {
    return detail::runSync(unsubscribeRoutine(checked(subscribable), std::nullopt));
  }
  static void unsubscribeCurrentUser(const Subscribable& subscribable, JovBlock<> block,
                                     JovCancellation cancel = {}) {
    detail::runBlock(nullptr, unsubscribeRoutine(checked(subscribable), std::nullopt),
                     std::move(block), cancel);
  }
  static void unsubscribeCurrentUser(const Subscribable& subscribable, JovCallback callback,
                                     JovCancellation cancel = {}) {
    detail::runCallback(nullptr, unsubscribeRoutine(checked(subscribable), std::nullopt),
                        std::move(callback), cancel);
  }
  static Result<bool> checkSubscriptionSynchronous(const Subscribable& subscribable) {
    return detail::runSync(checkSubscriptionRoutine(subscribable));
  }
  static void checkSubscription(const Subscribable& subscribable, JovBlock<bool> block,
                                JovCancellation cancel = {}) {
    detail::runBlock(nullptr, checkSubscriptionRoutine(subscribable), std::move(block), cancel);
  }
  static void checkSubscription(const Subscribable& subscribable, JovCallback callback,
                                JovCancellation cancel = {}) {
    detail::runCallback(nullptr, checkSubscriptionRoutine(subscribable), std::move(callback), cancel);
  }
  /// @}

 private:
  // The subscribable, or std::invalid_argument "Subscribable can not be nil" on the caller's
  // thread.
  static const Subscribable& checked(const Subscribable& subscribable) {
    if (!subscribable) throw std::invalid_argument("Subscribable can not be nil");
    return subscribable;
  }
  // The routines of the topic or the bucket, for the subscriber at the path or, with none, for
  // the current user.
  static detail::Routine<void> subscribeRoutine(const Subscribable& subscribable,
                                                std::optional<std::string> subscriberPath);
  static detail::Routine<void> unsubscribeRoutine(const Subscribable& subscribable,
                                                  std::optional<std::string> subscriberPath);
  static detail::Routine<bool> isSubscribedRoutine(const Subscribable& subscribable,
                                                   std::optional<std::string> subscriberPath);
  static detail::Routine<bool> checkSubscriptionRoutine(Subscribable subscribable);

  const std::string path_;
};

}  // namespace jov
