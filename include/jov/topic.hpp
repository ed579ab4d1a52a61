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
#include <vector>

#include "jov/async.hpp"
#include "jov/bucket.hpp"
#include "jov/cancellation.hpp"
#include "jov/detail/forms.hpp"
#include "jov/result.hpp"

namespace jov {

class JovGroup;
class JovPushSubscription;
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
  JovTopic(Key, std::string name, std::shared_ptr<JovUser> user, std::shared_ptr<JovGroup> group)
      : name_(std::move(name)), user_(std::move(user)), group_(std::move(group)) {}
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

  /// @brief True for 1 to 64 of letters, digits, "_" and "-".
  static bool isValidName(const std::string& name);

  /// @brief The topic ID.
  const std::string& name() const { return name_; }
  /// @brief The owning user, or nullptr.
  const std::shared_ptr<JovUser>& user() const { return user_; }
  /// @brief The owning group, or nullptr.
  const std::shared_ptr<JovGroup>& group() const { return group_; }
  /// @brief The topic's path under the application: "/users/ID/topics/NAME",
  /// "/groups/ID/topics/NAME" or "/topics/NAME", the name and the IDs percent-encoded.
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
                                           std::optional<std::string> paginationKey);
  Ptr self() { return shared_from_this(); }

  const std::string name_;
  const std::shared_ptr<JovUser> user_;
  const std::shared_ptr<JovGroup> group_;
};

/// @brief The subscriber side of push: a user that subscribes to topics.
///
/// The instance forms subscribe the subscriber the instance was made for; the CurrentUser class
/// forms subscribe whoever is logged in (340 when nobody is). Every form raises
/// std::invalid_argument "Subscribable can not be nil" without a topic, except
/// checkSubscription, which reports 501.
class JovPushSubscription : public std::enable_shared_from_this<JovPushSubscription> {
 public:
  /// @brief Subscriptions are held by std::shared_ptr.
  using Ptr = std::shared_ptr<JovPushSubscription>;
  /// @brief What can be subscribed to.
  using Subscribable = std::shared_ptr<JovTopic>;

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

  /// @brief The subscriber's path: "users/ID".
  const std::string& subscriberPath() const { return path_; }

  /// @name subscribe
  /// @{

  /// Subscribes to the topic (PUT "TOPICPATH/push/subscriptions/users/ID"). Errors: 711 an
  /// invalid topic name (before any request); 702 subscribed already (409); 510 the topic or
  /// the user does not exist (404); 509 (400); 203 (401); and the errors of every exchange. The
  /// block and delegate receive the error.
  Result<void> subscribeSynchronous(const Subscribable& topic) {
    return detail::runSync(JovTopic::subscribeRoutine(checked(topic), path_));
  }
  void subscribe(const Subscribable& topic, JovBlock<> block, JovCancellation cancel = {}) {
    detail::runBlock(nullptr, JovTopic::subscribeRoutine(checked(topic), path_), std::move(block),
                     cancel);
  }
  void subscribe(const Subscribable& topic, JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(nullptr, JovTopic::subscribeRoutine(checked(topic), path_),
                        std::move(callback), cancel);
  }
  std::future<Result<void>> subscribeAsync(const Subscribable& topic, JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, JovTopic::subscribeRoutine(checked(topic), path_), cancel);
  }
  /// @}

  /// @name unsubscribe
  /// @{

  /// Unsubscribes from the topic (DELETE on the subscription's path). Errors: 711 an invalid
  /// topic name (before any request); 703 not subscribed (409, as the service answers it); 510
  /// (404); 509 (400); 203 (401); and the errors of every exchange.
  Result<void> unsubscribeSynchronous(const Subscribable& topic) {
    return detail::runSync(JovTopic::unsubscribeRoutine(checked(topic), path_));
  }
  void unsubscribe(const Subscribable& topic, JovBlock<> block, JovCancellation cancel = {}) {
    detail::runBlock(nullptr, JovTopic::unsubscribeRoutine(checked(topic), path_), std::move(block),
                     cancel);
  }
  void unsubscribe(const Subscribable& topic, JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(nullptr, JovTopic::unsubscribeRoutine(checked(topic), path_),
                        std::move(callback), cancel);
  }
  std::future<Result<void>> unsubscribeAsync(const Subscribable& topic,
                                             JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, JovTopic::unsubscribeRoutine(checked(topic), path_), cancel);
  }
  /// @}

  /// @name checkIsSubscribed
  /// @{

  /// Whether the subscriber subscribes to the topic (GET on the subscription's path). A missing
  /// subscription is an error, 510 with false; other errors: 711 an invalid topic name (before
  /// any request); 509 (400); 203 (401); and the errors of every exchange. The block receives
  /// the answer, then the error.
  Result<bool> checkIsSubscribedSynchronous(const Subscribable& topic) {
    return detail::runSync(JovTopic::isSubscribedRoutine(checked(topic), path_));
  }
  void checkIsSubscribed(const Subscribable& topic, JovBlock<bool> block,
                         JovCancellation cancel = {}) {
    detail::runBlock(nullptr, JovTopic::isSubscribedRoutine(checked(topic), path_),
                     std::move(block), cancel);
  }
  std::future<Result<bool>> checkIsSubscribedAsync(const Subscribable& topic,
                                                   JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, JovTopic::isSubscribedRoutine(checked(topic), path_), cancel);
  }
  /// @}

  /// @name the current user's subscriptions
  /// @{

  /// As subscribe, unsubscribe and checkIsSubscribed, for the current user: 340 when nobody is
  /// logged in. checkSubscription reports a missing topic as 501 instead of raising.
  static Result<void> subscribeCurrentUserSynchronous(const Subscribable& topic) {
    return detail::runSync(JovTopic::subscribeCurrentUserRoutine(checked(topic)));
  }
  static void subscribeCurrentUser(const Subscribable& topic, JovBlock<> block,
                                   JovCancellation cancel = {}) {
    detail::runBlock(nullptr, JovTopic::subscribeCurrentUserRoutine(checked(topic)),
                     std::move(block), cancel);
  }
  static void subscribeCurrentUser(const Subscribable& topic, JovCallback callback,
                                   JovCancellation cancel = {}) {
    detail::runCallback(nullptr, JovTopic::subscribeCurrentUserRoutine(checked(topic)),
                        std::move(callback), cancel);
  }
  static Result<void> unsubscribeCurrentUserSynchronous(const Subscribable& topic) {
    return detail::runSync(JovTopic::unsubscribeCurrentUserRoutine(checked(topic)));
  }
  static void unsubscribeCurrentUser(const Subscribable& topic, JovBlock<> block,
                                     JovCancellation cancel = {}) {
    detail::runBlock(nullptr, JovTopic::unsubscribeCurrentUserRoutine(checked(topic)),
                     std::move(block), cancel);
  }
  static void unsubscribeCurrentUser(const Subscribable& topic, JovCallback callback,
                                     JovCancellation cancel = {}) {
    detail::runCallback(nullptr, JovTopic::unsubscribeCurrentUserRoutine(checked(topic)),
                        std::move(callback), cancel);
  }
  static Result<bool> checkSubscriptionSynchronous(const Subscribable& topic) {
    return detail::runSync(checkSubscriptionRoutine(topic));
  }
  static void checkSubscription(const Subscribable& topic, JovBlock<bool> block,
                                JovCancellation cancel = {}) {
    detail::runBlock(nullptr, checkSubscriptionRoutine(topic), std::move(block), cancel);
  }
  static void checkSubscription(const Subscribable& topic, JovCallback callback,
                                JovCancellation cancel = {}) {
    detail::runCallback(nullptr, checkSubscriptionRoutine(topic), std::move(callback), cancel);
  }
  /// @}

 private:
  // The topic, or std::invalid_argument "Subscribable can not be nil" on the caller's thread.
  static const Subscribable& checked(const Subscribable& topic) {
    if (!topic) throw std::invalid_argument("Subscribable can not be nil");
    return topic;
  }
  static detail::Routine<bool> checkSubscriptionRoutine(Subscribable topic);

  const std::string path_;
};

}  // namespace jov
