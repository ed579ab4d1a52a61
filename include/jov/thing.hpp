#pragma once
/// @file
/// @brief Things (connected devices): JovThingFields, JovThing, and thing queries
/// (JovThingQuery, JovThingQueryResult).

#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "jov/async.hpp"
#include "jov/cancellation.hpp"
#include "jov/detail/forms.hpp"
#include "jov/result.hpp"

namespace jov {

class JovBucket;
class JovGroup;
class JovThing;
class JovTopic;
class JovUser;
template <class T>
struct JovListResult;

/// @brief The predefined and custom fields a thing's maker registers and updates. A plain value.
///
/// Predefined fields are sent under their record names ("_vendor", "_stringField1", ...);
/// custom fields under their own names, which may not begin with "_".
struct JovThingFields {
  std::optional<std::string> vendor;           ///< "_vendor"
  std::optional<std::string> firmwareVersion;  ///< "_firmwareVersion"
  std::optional<std::string> productName;      ///< "_productName"
  std::optional<std::string> lot;              ///< "_lot"
  std::optional<std::string> stringField1;     ///< "_stringField1"
  std::optional<std::string> stringField2;     ///< "_stringField2"
  std::optional<std::string> stringField3;     ///< "_stringField3"
  std::optional<std::string> stringField4;     ///< "_stringField4"
  std::optional<std::string> stringField5;     ///< "_stringField5"
  std::optional<double> numberField1;          ///< "_numberField1"
  std::optional<double> numberField2;          ///< "_numberField2"
  std::optional<double> numberField3;          ///< "_numberField3"
  std::optional<double> numberField4;          ///< "_numberField4"
  std::optional<double> numberField5;          ///< "_numberField5"

  /// @brief Sets a custom field (any JSON value; null removes the field on the service at the
  /// next update); false, and nothing set, for an empty name or one that begins with "_" (the
  /// service's own).
  bool setCustomField(const std::string& key, nlohmann::json value);
  /// @brief Removes a custom field.
  void removeCustomField(const std::string& key) { custom_.erase(key); }
  /// @brief The custom fields.
  const nlohmann::json& customFields() const { return custom_; }
  /// @brief The fields that are set, as the service reads them.
  nlohmann::json toJSON() const;
  /// @brief The predefined fields (record names) and custom fields (names without "_") of a
  /// JSON object; other "_" names are skipped. Nothing for a value that is not an object or a
  /// predefined field of the wrong type.
  static std::optional<JovThingFields> fromJSON(const nlohmann::json& json);

  /// @brief The service's own field names, in their order: "_thingID", "_vendorThingID",
  /// "_thingType", "_vendor", "_firmwareVersion", "_productName", "_lot", "_created",
  /// "_stringField1" to "_stringField5", "_numberField1" to "_numberField5", "_accessToken".
  static const std::vector<std::string>& reservedFields();

 private:
  friend class JovThing;
  nlohmann::json custom_ = nlohmann::json::object();
};

/// @brief Who owns a thing: a user or a group.
using JovThingOwner = std::variant<std::shared_ptr<JovUser>, std::shared_ptr<JovGroup>>;

/// @brief Which things a query lists: those of a user and/or of groups, of a type, page by page.
/// A plain value.
class JovThingQuery {
 public:
  /// @brief A query for the things of a user (may be null) and of groups (none: not given).
  /// Raises std::invalid_argument: "Invalid argument : user and groups is nil" (neither),
  /// "Invalid argument : user does not have valid userID", "Invalid argument : groups is
  /// invalid" (a null group or one without ID), "Invalid argument : groups is empty while user
  /// is nil".
  static JovThingQuery thingQuery(const std::shared_ptr<JovUser>& user,
                                  const std::optional<std::vector<std::shared_ptr<JovGroup>>>& groups);

  /// @brief {"type": "contains", "field": "userOwners", "value": ID}, or nothing.
  const std::optional<nlohmann::json>& ownerClause() const { return ownerClause_; }
  /// @brief One {"type": "contains", "field": "groupOwners", "value": ID} per group.
  const std::vector<nlohmann::json>& groupOwnerClauses() const { return groupClauses_; }
  /// @brief The request body: {"thingQuery": {"clause": ...}}, "bestEffortLimit" (a limit that
  /// is not 0) and "paginationKey" (when set).
  nlohmann::json generateQueryDict() const;

  std::optional<std::string> thingType;          ///< only things of this type (empty: any)
  std::uint32_t limit = 0;                       ///< the most per page; 0 sends none
  std::optional<std::string> nextPaginationKey;  ///< the page to read; none: the first

 private:
  std::optional<nlohmann::json> ownerClause_;
  std::vector<nlohmann::json> groupClauses_;
};

/// @brief One page of a thing query and the query of the next page.
struct JovThingQueryResult {
  std::vector<std::shared_ptr<JovThing>> results;  ///< the things of this page
  std::optional<JovThingQuery> nextThingQuery;     ///< the next page's query; none on the last
  /// @brief True when another page follows.
  bool hasNext() const { return nextThingQuery.has_value(); }
  /// @brief The next page; 605 on the last page.
  Result<JovThingQueryResult> getNextResultSynchronous() const;
  /// @brief The block form of getNextResultSynchronous; the block receives the page, then the
  /// error.
  void getNextResult(JovBlock<JovThingQueryResult> block, JovCancellation cancel = {}) const;
};

/// @brief A connected device registered with the service.
///
/// Made by registerThing (a new device), loadWithThingID / loadWithVendorThingID, or
/// thingWithID (nothing fetched). Its fields are read and changed as a JovThingFields value
/// (fields(), setFields()), and sent by update. A thing that registered itself carries its
/// access token: Jov::setCurrentThing makes the library act as that thing when no user is
/// logged in. Held by std::shared_ptr; thread-safe.
class JovThing : public std::enable_shared_from_this<JovThing> {
 public:
  /// @brief Things are held by std::shared_ptr.
  using Ptr = std::shared_ptr<JovThing>;
  /// @brief Blocks of thing operations receive the thing, then the error.
  using ThingBlock = JovBlock<Ptr>;

  /// @brief Lets the factories use std::make_shared; not usable outside the class.
  struct Key {
   private:
    friend class JovThing;
    Key() = default;
  };
  /// @brief Made by the factories only.
  explicit JovThing(Key) {}
  JovThing(const JovThing&) = delete;
  JovThing& operator=(const JovThing&) = delete;

  /// @brief The thing with this ID (nothing is fetched); raises std::invalid_argument "thingID
  /// can not be nil or empty" for an empty ID.
  static Ptr thingWithID(const std::string& thingID);

  /// @brief The thing ID the service assigned; empty when unknown.
  std::string thingID() const;
  /// @brief The maker's ID of the device.
  std::string vendorThingID() const;
  /// @brief The device's type.
  std::string thingType() const;
  /// @brief When the thing was registered (milliseconds since the epoch; 0 unknown).
  std::int64_t created() const;
  /// @brief The access token the thing got when it registered itself; empty otherwise.
  std::string accessToken() const;
  /// @brief Whether the thing is disabled.
  bool disabled() const;
  /// @brief Whether the device is connected.
  bool online() const;
  /// @brief When the online status last changed (milliseconds since the epoch; 0 unknown).
  std::int64_t onlineStatusModifiedAt() const;
  /// @brief The predefined and custom fields as last loaded or set.
  JovThingFields fields() const;
  /// @brief Replaces the fields the next update sends.
  void setFields(JovThingFields fields);
  /// @brief The thing's path: "/things/ID", or "/things/VENDOR_THING_ID:V" when only the
  /// vendor thing ID is known; empty when neither is.
  std::string thingPath() const;

  /// @brief Reads a thing record: the reserved fields, "_disabled", "_online",
  /// "_onlineStatusModifiedAt" and custom fields (names without "_"). False, and nothing
  /// changed, for a value that is not an object or a known key of the wrong type.
  bool loadFromJSON(const nlohmann::json& record);

  /// @brief The thing's bucket of this name ("/things/ID/buckets/NAME"; nothing is fetched).
  /// The thing and its owners (users, and the members of owning groups) may use it.
  std::shared_ptr<JovBucket> bucketWithName(const std::string& name);
  /// @brief The thing's encrypted bucket of this name.
  std::shared_ptr<JovBucket> encryptedBucketWithName(const std::string& name);
  /// @brief The thing's push topic of this name ("/things/ID/topics/NAME"; nothing is fetched).
  std::shared_ptr<JovTopic> topicWithName(const std::string& name);
  /// @brief One page of the thing's topics; see JovTopic::listTopicsSynchronous.
  Result<JovListResult<std::shared_ptr<JovTopic>>> listTopicsSynchronous(
      std::optional<std::string> paginationKey = {});

  /// @name registerThing
  /// @{

  /// Registers a new device (POST "/things"): its fields, "_vendorThingID", "_password" and
  /// "_thingType". The thing returned holds the service's record and, when the answer carries
  /// one, its access token. Errors: 1105 the vendor thing ID is registered already; 1106
  /// invalid data; 202 an unreadable answer; and the errors of every exchange. The block
  /// receives the thing, then the error.
  static Result<Ptr> registerThingSynchronous(const std::string& vendorThingID,
                                              const std::string& password,
                                              const std::string& thingType,
                                              const JovThingFields& fields = {}) {
    return detail::runSync(registerRoutine(vendorThingID, password, thingType, fields));
  }
  static void registerThing(const std::string& vendorThingID, const std::string& password,
                            const std::string& thingType, const JovThingFields& fields,
                            ThingBlock block, JovCancellation cancel = {}) {
    detail::runClassBlock(registerRoutine(vendorThingID, password, thingType, fields),
                          std::move(block), cancel);
  }
  static std::future<Result<Ptr>> registerThingAsync(const std::string& vendorThingID,
                                                     const std::string& password,
                                                     const std::string& thingType,
                                                     const JovThingFields& fields = {},
                                                     JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, registerRoutine(vendorThingID, password, thingType, fields),
                             cancel);
  }
  /// @}

  /// @name load
  /// @{

  /// Fetches a thing by its thing ID or by its vendor thing ID (GET "/things/ID" or
  /// "/things/VENDOR_THING_ID:V"). Errors: 1101 no such thing; 202 an unreadable record; and
  /// the errors of every exchange.
  static Result<Ptr> loadSynchronousWithThingID(const std::string& thingID) {
    return detail::runSync(loadRoutine(thingID, false));
  }
  static Result<Ptr> loadSynchronousWithVendorThingID(const std::string& vendorThingID) {
    return detail::runSync(loadRoutine(vendorThingID, true));
  }
  static void loadWithThingID(const std::string& thingID, ThingBlock block,
                              JovCancellation cancel = {}) {
    detail::runClassBlock(loadRoutine(thingID, false), std::move(block), cancel);
  }
  static void loadWithVendorThingID(const std::string& vendorThingID, ThingBlock block,
                                    JovCancellation cancel = {}) {
    detail::runClassBlock(loadRoutine(vendorThingID, true), std::move(block), cancel);
  }
  /// @}

  /// @name refresh, update, enable, disable, delete
  /// @{

  /// refresh: GET the record again (1101 unknown). update: PATCH the fields, never
  /// "_thingID", "_vendorThingID", "_created" or "_accessToken" (1101, 1106). enable /
  /// disable: PUT "/things/ID/status" {"disabled": B} (1101). delete: DELETE "/things/ID"
  /// (1101). Every one: 501 a thing without ID (before any request), and the errors of every
  /// exchange. The block and delegate receive the thing, then the error.
  Result<void> refreshSynchronous() { return detail::runSync(refreshRoutine()); }
  void refresh(ThingBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), refreshRoutine(), std::move(block), cancel);
  }
  Result<void> updateSynchronous() { return detail::runSync(updateRoutine()); }
  void update(ThingBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), updateRoutine(), std::move(block), cancel);
  }
  Result<void> enableSynchronous() { return detail::runSync(statusRoutine(false)); }
  void enable(ThingBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), statusRoutine(false), std::move(block), cancel);
  }
  Result<void> disableSynchronous() { return detail::runSync(statusRoutine(true)); }
  void disable(ThingBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), statusRoutine(true), std::move(block), cancel);
  }
  Result<void> deleteSynchronous() { return detail::runSync(deleteRoutine()); }
  void deleteWithBlock(ThingBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), deleteRoutine(), std::move(block), cancel);
  }
  std::future<Result<void>> deleteAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), deleteRoutine(), cancel);
  }
  /// @}

  /// @name ownership
  /// @{

  /// registerOwner: PUT "THING/ownership/UserID:ID" (or "GroupID:ID"), or with the thing's
  /// password POST "THING/ownership" {"userID"|"groupID", "thingPassword"}; unregisterOwner:
  /// DELETE "THING/ownership/TOKEN"; checkIsOwner: HEAD on it (404: false, with 1104). Errors:
  /// 501 no thing ID or vendor thing ID, or an owner that is null or has no ID (before any
  /// request); 1101 no such thing; 1102 no such user or group; 1103 owner already; 1104 not an
  /// owner; and the errors of every exchange. The class forms work on a thing that is not
  /// loaded, named by its thing ID or vendor thing ID.
  Result<void> registerOwnerSynchronous(const JovThingOwner& owner,
                                        std::optional<std::string> thingPassword = {}) {
    return detail::runSync(addOwnerRoutine(thingPath(), owner, std::move(thingPassword)));
  }
  void registerOwner(const JovThingOwner& owner, std::optional<std::string> thingPassword,
                     ThingBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), addOwnerRoutine(thingPath(), owner, std::move(thingPassword)),
                     std::move(block), cancel);
  }
  Result<void> unregisterOwnerSynchronous(const JovThingOwner& owner) {
    return detail::runSync(removeOwnerRoutine(thingPath(), owner));
  }
  void unregisterOwner(const JovThingOwner& owner, ThingBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), removeOwnerRoutine(thingPath(), owner), std::move(block), cancel);
  }
  Result<bool> checkIsOwnerSynchronous(const JovThingOwner& owner) {
    return detail::runSync(checkOwnerRoutine(thingPath(), owner));
  }
  void checkIsOwner(const JovThingOwner& owner, JovBlock<bool> block, JovCancellation cancel = {}) {
    detail::runBlock(self(), checkOwnerRoutine(thingPath(), owner), std::move(block), cancel);
  }
  static Result<void> registerOwnerSynchronousWithThingID(
      const JovThingOwner& owner, const std::string& thingID,
      std::optional<std::string> thingPassword = {}) {
    return detail::runSync(addOwnerRoutine(pathOf(thingID, false), owner, std::move(thingPassword)));
  }
  static Result<void> registerOwnerSynchronousWithVendorThingID(
      const JovThingOwner& owner, const std::string& vendorThingID,
      std::optional<std::string> thingPassword = {}) {
    return detail::runSync(
        addOwnerRoutine(pathOf(vendorThingID, true), owner, std::move(thingPassword)));
  }
  static void registerOwnerWithThingID(const JovThingOwner& owner, const std::string& thingID,
                                       std::optional<std::string> thingPassword,
                                       JovBlock<> block, JovCancellation cancel = {}) {
    detail::runBlock(nullptr,
                     addOwnerRoutine(pathOf(thingID, false), owner, std::move(thingPassword)),
                     std::move(block), cancel);
  }
  static void registerOwnerWithVendorThingID(const JovThingOwner& owner,
                                             const std::string& vendorThingID,
                                             std::optional<std::string> thingPassword,
                                             JovBlock<> block, JovCancellation cancel = {}) {
    detail::runBlock(nullptr,
                     addOwnerRoutine(pathOf(vendorThingID, true), owner, std::move(thingPassword)),
                     std::move(block), cancel);
  }
  /// @}

  /// @name query
  /// @{

  /// One page of the things a query selects (POST "/things/query"). Errors: 1101, 1106 as the
  /// service names them; 202 an unreadable answer; and the errors of every exchange. The block
  /// form raises std::invalid_argument "completion can not be nil" without a block.
  static Result<JovThingQueryResult> querySynchronous(const JovThingQuery& query) {
    return detail::runSync(queryRoutine(query));
  }
  static void query(const JovThingQuery& query, JovBlock<JovThingQueryResult> block,
                    JovCancellation cancel = {}) {
    if (!block) throw std::invalid_argument("completion can not be nil");
    detail::runClassBlock(queryRoutine(query), std::move(block), cancel);
  }
  /// @}

 private:
  Ptr self() { return shared_from_this(); }
  static std::string pathOf(const std::string& id, bool vendor);
  static detail::Routine<Ptr> registerRoutine(std::string vendorThingID, std::string password,
                                              std::string thingType, JovThingFields fields);
  static detail::Routine<Ptr> loadRoutine(std::string id, bool vendor);
  detail::Routine<void> refreshRoutine();
  detail::Routine<void> updateRoutine();
  detail::Routine<void> statusRoutine(bool disabled);
  detail::Routine<void> deleteRoutine();
  static detail::Routine<void> addOwnerRoutine(std::string thingPath, JovThingOwner owner,
                                               std::optional<std::string> thingPassword);
  static detail::Routine<void> removeOwnerRoutine(std::string thingPath, JovThingOwner owner);
  static detail::Routine<bool> checkOwnerRoutine(std::string thingPath, JovThingOwner owner);
  static detail::Routine<JovThingQueryResult> queryRoutine(JovThingQuery query);
  friend struct JovThingQueryResult;

  mutable std::mutex mutex_;
  std::string thingID_, vendorThingID_, thingType_, accessToken_;
  std::int64_t created_ = 0, onlineModified_ = 0;
  bool disabled_ = false, online_ = false;
  JovThingFields fields_;
};

}  // namespace jov
