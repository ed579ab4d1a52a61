#pragma once
/// @file
/// @brief JovBucket and JovEncryptedBucket: named collections of objects in the application's,
/// a user's or a group's scope; and JovListResult, a page of a listing.

#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "jov/async.hpp"
#include "jov/cancellation.hpp"
#include "jov/detail/forms.hpp"
#include "jov/object.hpp"
#include "jov/query.hpp"
#include "jov/result.hpp"

namespace jov {

class Jov;
class JovACL;
class JovGroup;
class JovPushSubscription;
class JovRTransferManager;
class JovThing;
class JovUser;

/// @brief One page of a listing that pages with a key.
template <class T>
struct JovListResult {
  /// @brief The items of the page (empty when the answer had none).
  std::vector<T> results;
  /// @brief Whether another page follows.
  bool hasNext = false;
  /// @brief The key of the next page; nothing on the last one.
  std::optional<std::string> paginationKey;
};

/// @brief A named collection of objects. Made by Jov::bucketWithName (application scope),
/// JovUser::bucketWithName, JovGroup::bucketWithName and JovThing::bucketWithName; immutable
/// and safe to share.
class JovBucket : public std::enable_shared_from_this<JovBucket> {
 public:
  /// @brief Buckets are held by std::shared_ptr.
  using Ptr = std::shared_ptr<JovBucket>;
  /// @brief Objects of a page.
  using Objects = std::vector<std::shared_ptr<JovObject>>;
  /// @brief A page of query results and the query of the next page, when there is one.
  using QueryPage = std::tuple<Objects, std::optional<JovQuery>>;
  /// @brief Blocks of bucket operations receive the bucket, then the error.
  using BucketBlock = JovBlock<Ptr>;
  /// @brief Query blocks receive the query, the bucket, the objects, the next query, the error.
  using QueryBlock = JovBlock<JovQuery, Ptr, Objects, std::optional<JovQuery>>;
  /// @brief Count blocks receive the bucket, the query, the count, the error.
  using CountBlock = JovBlock<Ptr, JovQuery, std::int64_t>;

  /// @brief Lets the factories use std::make_shared; not usable outside the library.
  struct Key {
   private:
    friend class Jov;
    friend class JovBucket;
    friend class JovObject;
    friend class JovUser;
    friend class JovGroup;
    friend class JovThing;
    Key() = default;
  };
  /// @brief Made by the factories only.
  JovBucket(Key, std::string name, std::shared_ptr<JovUser> user, std::shared_ptr<JovGroup> group,
            std::shared_ptr<JovThing> thing = nullptr);
  virtual ~JovBucket() = default;
  JovBucket(const JovBucket&) = delete;
  JovBucket& operator=(const JovBucket&) = delete;

  /// @brief False for no name; else 2 to 64 of letters, digits, "-", "_" and ".".
  static bool isValidBucketName(const std::optional<std::string>& name);

  /// @brief The name as the application gave it.
  const std::string& name() const { return name_; }
  /// @brief The owning user of a user bucket, else nullptr.
  const std::shared_ptr<JovUser>& user() const { return user_; }
  /// @brief The owning group of a group bucket, else nullptr.
  const std::shared_ptr<JovGroup>& group() const { return group_; }
  /// @brief The owning thing of a thing's bucket, else nullptr.
  const std::shared_ptr<JovThing>& thing() const { return thing_; }
  /// @brief True for a JovEncryptedBucket.
  virtual bool isEncrypted() const { return false; }
  /// @brief The name percent-encoded ("CRYPTO:" before it for an encrypted bucket).
  virtual std::string bucketQualifiedName() const;
  /// @brief "/buckets/Q", "/users/ID/buckets/Q", "/groups/ID/buckets/Q" or
  /// "/things/ID/buckets/Q"; nothing while the owning user, group or thing has no ID.
  std::optional<std::string> bucketPath() const;
  /// @brief "jovcloud:/" + the path; nothing without a path.
  std::optional<std::string> bucketURI() const;
  /// @brief The path of the bucket's access control list (bucketPath + "/acl").
  std::optional<std::string> aclPath() const;
  /// @brief The resumable transfers of this bucket's bodies that the logged-in user started
  /// (see JovRTransferManager).
  std::shared_ptr<JovRTransferManager> transferManager();
  /// @brief The bucket's access control list (the same one while it is held).
  std::shared_ptr<JovACL> bucketACL();

  /// @brief A new object of this bucket, created on the service by its first save.
  std::shared_ptr<JovObject> createObject();
  /// @brief A new object of a type; 506 for a type that is not a letter and 4 to 49 letters,
  /// digits, "-" or "_".
  Result<std::shared_ptr<JovObject>> createObjectWithType(const std::string& type);
  /// @brief The object with this ID (nothing fetched: refresh loads it; saveAllFields creates
  /// or replaces it). Raises std::invalid_argument("objectID is invalid.") for an ID that is not
  /// 2 to 100 of letters, digits, "-", "_", ".".
  std::shared_ptr<JovObject> createObjectWithID(const std::string& objectID);

  /// @name executeQuery
  /// @{

  /// One page of the objects a query matches (POST BUCKET/query), each loaded into an object
  /// of this bucket, and the query of the next page when there is one.
  /// Errors: 603 an empty "and"/"or" (before any request); 515 the bucket's user or group has
  /// no ID or does not exist; 604 query not supported; 202 unreadable answer.
  Result<QueryPage> executeQuerySynchronous(const JovQuery& query) {
    return detail::runSync(queryRoutine(query));
  }
  void executeQuery(const JovQuery& query, QueryBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), queryRoutine(query), detail::leading(std::move(block), query, self()),
                     cancel);
  }
  void executeQuery(const JovQuery& query, JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), queryRoutine(query), std::move(callback), cancel, query, self());
  }
  std::future<Result<QueryPage>> executeQueryAsync(const JovQuery& query,
                                                   JovCancellation cancel = {}) {
    return detail::runFuture(self(), queryRoutine(query), cancel);
  }
  /// @}

  /// @name count
  /// @{

  /// The number of objects a query matches, or of all objects (POST BUCKET/query with a COUNT
  /// aggregation). Errors as executeQuery.
  Result<std::int64_t> countSynchronous() { return detail::runSync(countRoutine(JovQuery())); }
  Result<std::int64_t> countSynchronous(const JovQuery& query) {
    return detail::runSync(countRoutine(query));
  }
  void count(CountBlock block, JovCancellation cancel = {}) {
    countWithQuery(JovQuery(), block, cancel);
  }
  void countWithQuery(const JovQuery& query, CountBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), countRoutine(query), detail::leading(std::move(block), self(), query),
                     cancel);
  }
  void countWithQuery(const JovQuery& query, JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), countRoutine(query), std::move(callback), cancel, self(), query);
  }
  std::future<Result<std::int64_t>> countAsync(const JovQuery& query = JovQuery(),
                                               JovCancellation cancel = {}) {
    return detail::runFuture(self(), countRoutine(query), cancel);
  }
  /// @}

  /// @name delete
  /// @{

  /// Deletes the bucket with all its objects (DELETE BUCKET). Errors: 515 no path; 510 the
  /// service knows no such bucket ("BUCKET_NOT_FOUND"); and the errors of every exchange.
  Result<void> deleteSynchronous() { return detail::runSync(deleteRoutine()); }
  void deleteWithBlock(BucketBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), deleteRoutine(), std::move(block), cancel);
  }
  void deleteWithCallback(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), deleteRoutine(), std::move(callback), cancel);
  }
  std::future<Result<void>> deleteAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), deleteRoutine(), cancel);
  }
  /// @}

  /// @name subscribe
  /// @{

  /// Subscribes the current user to changes of the bucket's objects (PUT
  /// "BUCKET/filters/all/push/subscriptions/users/ID"); JovPushSubscription subscribes any
  /// subscriber. Errors: 340 nobody logged in, 515 the bucket has no path (before any request);
  /// 702 subscribed already; 510 the service knows no such bucket ("FILTER_NOT_FOUND"); and the
  /// errors of every exchange. The block and delegate receive the bucket, then the error.
  Result<void> subscribeSynchronous() {
    return detail::runSync(subscribeCurrentUserRoutine(self()));
  }
  void subscribe(BucketBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), subscribeCurrentUserRoutine(self()), std::move(block), cancel);
  }
  void subscribe(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), subscribeCurrentUserRoutine(self()), std::move(callback), cancel);
  }
  std::future<Result<void>> subscribeAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), subscribeCurrentUserRoutine(self()), cancel);
  }
  /// @}

  /// @name unsubscribe
  /// @{

  /// Ends the current user's subscription (DELETE on the subscription's path). Errors: 340
  /// nobody logged in, 515 no path (before any request); 703 not subscribed
  /// ("PUSH_SUBSCRIPTION_NOT_FOUND"); and the errors of every exchange.
  Result<void> unsubscribeSynchronous() {
    return detail::runSync(unsubscribeCurrentUserRoutine(self()));
  }
  void unsubscribe(BucketBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), unsubscribeCurrentUserRoutine(self()), std::move(block), cancel);
  }
  void unsubscribe(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), unsubscribeCurrentUserRoutine(self()), std::move(callback),
                        cancel);
  }
  std::future<Result<void>> unsubscribeAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), unsubscribeCurrentUserRoutine(self()), cancel);
  }
  /// @}

  /// @brief Whether the current user subscribes to the bucket (GET on the subscription's
  /// path): any error means "not subscribed" and is handed over (the service answers 404
  /// "PUSH_SUBSCRIPTION_NOT_FOUND" for a missing subscription).
  Result<bool> isSubscribedSynchronous() {
    return detail::runSync(isSubscribedCurrentUserRoutine(self()));
  }
  /// @brief Whether a subscriber ("users/ID") subscribes to the bucket.
  Result<bool> isSubscribedSynchronousWithSubscriberPath(const std::string& subscriberPath) {
    return detail::runSync(isSubscribedRoutine(self(), subscriberPath));
  }

 protected:
  /// @brief This bucket, shared.
  Ptr self() { return shared_from_this(); }

 private:
  friend class JovPushSubscription;
  detail::Routine<QueryPage> queryRoutine(JovQuery query);
  // Subscriptions: the routines hold the bucket they work on (JovPushSubscription's forms have
  // no entity of their own to keep it alive).
  static detail::Routine<void> subscribeRoutine(Ptr bucket, std::string subscriberPath);
  static detail::Routine<void> unsubscribeRoutine(Ptr bucket, std::string subscriberPath);
  static detail::Routine<bool> isSubscribedRoutine(Ptr bucket, std::string subscriberPath);
  static detail::Routine<void> subscribeCurrentUserRoutine(Ptr bucket);
  static detail::Routine<void> unsubscribeCurrentUserRoutine(Ptr bucket);
  static detail::Routine<bool> isSubscribedCurrentUserRoutine(Ptr bucket);
  detail::Routine<std::int64_t> countRoutine(JovQuery query);
  detail::Routine<void> deleteRoutine();

  const std::string name_;
  const std::shared_ptr<JovUser> user_;
  const std::shared_ptr<JovGroup> group_;
  const std::shared_ptr<JovThing> thing_;
  std::mutex aclMutex_;
  std::weak_ptr<JovACL> acl_;
};

/// @brief A bucket whose content the service keeps encrypted; only its qualified name differs.
class JovEncryptedBucket : public JovBucket {
 public:
  using JovBucket::JovBucket;
  /// @brief Always true.
  bool isEncrypted() const override { return true; }
  std::string bucketQualifiedName() const override;
};

}  // namespace jov
