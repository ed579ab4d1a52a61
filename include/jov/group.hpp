#pragma once
/// @file
/// @brief JovGroup: a named set of users with one owner.

#include <future>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "jov/async.hpp"
#include "jov/cancellation.hpp"
#include "jov/detail/forms.hpp"
#include "jov/result.hpp"

namespace jov {

class JovBucket;
class JovTopic;
class JovUser;
template <class T>
struct JovListResult;

/// @brief A group of users with an owner, created on the service when first saved.
///
/// Members are changed locally (addUser, removeUser) and sent on the next save. Groups are held
/// by std::shared_ptr; asynchronous operations keep the group alive until their completion ran.
class JovGroup : public std::enable_shared_from_this<JovGroup> {
 public:
  /// @brief Blocks of group operations receive the group itself, then the error.
  using GroupBlock = JovBlock<std::shared_ptr<JovGroup>>;
  /// @brief A list of users.
  using Users = std::vector<std::shared_ptr<JovUser>>;

  /// @brief Lets the factories use std::make_shared; not usable outside the class.
  struct Key {
   private:
    friend class JovGroup;
    Key() = default;
  };
  /// @brief Made by the factories only.
  explicit JovGroup(Key) {}
  JovGroup(const JovGroup&) = delete;
  JovGroup& operator=(const JovGroup&) = delete;

  /// @brief The group of a URI "jovcloud://groups/ID"; nullptr for any other URI.
  static std::shared_ptr<JovGroup> groupWithURI(const std::string& uri);
  /// @brief The group with this ID (nothing is fetched); raises std::invalid_argument when empty.
  static std::shared_ptr<JovGroup> groupWithID(const std::string& groupID);
  /// @brief A new group, created on the service by its first save.
  static std::shared_ptr<JovGroup> groupWithName(const std::string& name);
  /// @brief A new group whose members are added by its first save (users without ID skipped).
  static std::shared_ptr<JovGroup> groupWithName(const std::string& name, const Users& members);

  /// @brief True for 1 to 30 of lower-case letters, digits, ".", "_", "-".
  static bool isValidGroupID(const std::string& groupID);
  /// @brief True for a name of 1 to 190 Unicode characters.
  static bool isValidGroupName(const std::string& name);
  /// @brief True when every member is a user with an ID (an empty list is valid).
  static bool isValidMembers(const Users& members);

  /// @brief The service's ID of the group; empty until it is saved.
  const std::string& groupID() const { return uuid_; }
  /// @brief The group's name.
  const std::string& name() const { return name_; }
  /// @brief The owner, as last read from the service or set; nullptr when unknown.
  const std::shared_ptr<JovUser>& owner() const { return owner_; }
  /// @brief Sets the owner sent when the group is created (else the current user is sent).
  void setOwner(std::shared_ptr<JovUser> owner) { owner_ = std::move(owner); }
  /// @brief The members as last listed (getMemberList) or registered.
  const Users& members() const { return members_; }
  /// @brief Users to add on the next save.
  Users addMembers() const;
  /// @brief Users to remove on the next save.
  Users removeMembers() const;
  /// @brief "jovcloud://groups/ID"; empty while the group has no ID.
  std::string objectURI() const;

  /// @brief Reads "groupID" (or "uuid"), "name" and "owner"; absent or null keys are skipped.
  /// False, and nothing changed, when the value is not a JSON object or a key has the wrong
  /// type.
  bool loadFromJSON(const nlohmann::json& json);

  /// @brief Puts the user into the users to add (and out of those to remove); false when the
  /// user has no ID.
  bool addUser(const std::shared_ptr<JovUser>& user);
  /// @brief Puts the user into the users to remove (and out of those to add); false when the
  /// user has no ID.
  bool removeUser(const std::shared_ptr<JovUser>& user);

  /// @brief The group's bucket of this name ("/groups/ID/buckets/NAME"; nothing is fetched).
  std::shared_ptr<JovBucket> bucketWithName(const std::string& name);
  /// @brief The group's encrypted bucket of this name.
  std::shared_ptr<JovBucket> encryptedBucketWithName(const std::string& name);

  /// @brief The group's push topic of this name ("/groups/ID/topics/NAME"; nothing is fetched).
  std::shared_ptr<JovTopic> topicWithName(const std::string& name);
  /// @brief One page of the group's topics, from the page the key names or from the first; see
  /// JovTopic::listTopicsSynchronous for the errors. The block receives the page, then the error.
  Result<JovListResult<std::shared_ptr<JovTopic>>> listTopicsSynchronous(
      std::optional<std::string> paginationKey = {});
  /// @brief The block form of listTopicsSynchronous.
  void listTopics(std::optional<std::string> paginationKey,
                  JovBlock<JovListResult<std::shared_ptr<JovTopic>>> block,
                  JovCancellation cancel = {});

  /// @name save
  /// @{

  /// Creates the group on the service when it has no ID yet (POST "/groups", owned by the
  /// preset owner or the current user), then sends each pending member change by its own
  /// request (PUT or DELETE "/groups/ID/members/USERID"). A change that fails stays pending for
  /// the next save; the first failure is reported.
  /// Errors: 513 invalid name (before any request); 510 group not found, 324 member not found;
  /// 202 unreadable answer; and the errors of every exchange (101, 201, 203, 0 with the
  /// service's "http_status", "server_code", "server_message").
  /// The block and delegate receive the group, then the error; the future its result.
  /// Every asynchronous form takes an optional JovCancellation.
  Result<void> saveSynchronous() { return detail::runSync(saveRoutine()); }
  void save(GroupBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), saveRoutine(), std::move(block), cancel);
  }
  void save(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), saveRoutine(), std::move(callback), cancel);
  }
  std::future<Result<void>> saveAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), saveRoutine(), cancel);
  }
  /// @}

  /// @name refresh
  /// @{

  /// Reads the group's record (GET "/groups/ID"): name and owner.
  /// Errors: 501 when the group has no ID; 510 when the service does not know it
  /// ("GROUP_NOT_FOUND"); 202 when the record cannot be read (the group is then left unchanged);
  /// and the errors of every exchange. The block and delegate receive the group, then the error.
  Result<void> refreshSynchronous() { return detail::runSync(refreshRoutine()); }
  void refresh(GroupBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), refreshRoutine(), std::move(block), cancel);
  }
  void refresh(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), refreshRoutine(), std::move(callback), cancel);
  }
  std::future<Result<void>> refreshAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), refreshRoutine(), cancel);
  }
  /// @}

  /// @name changeGroupName
  /// @{

  /// Renames the group on the service (PUT "/groups/ID/name", text/plain; owner only), then
  /// here: `name` is the new name, 1 to 190 characters. A failed rename leaves name() as it was.
  /// Errors: 513 invalid name and 501 no ID (before any request); 510 group not found; and the
  /// errors of every exchange. The block and delegate receive the group, then the error.
  Result<void> changeGroupNameSynchronous(const std::string& name) {
    return detail::runSync(changeGroupNameRoutine(name));
  }
  void changeGroupName(const std::string& name, GroupBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), changeGroupNameRoutine(name), std::move(block), cancel);
  }
  void changeGroupName(const std::string& name, JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), changeGroupNameRoutine(name), std::move(callback), cancel);
  }
  std::future<Result<void>> changeGroupNameAsync(const std::string& name,
                                                 JovCancellation cancel = {}) {
    return detail::runFuture(self(), changeGroupNameRoutine(name), cancel);
  }
  /// @}

  /// @name getMemberList
  /// @{

  /// Lists the members on the service (GET "/groups/ID/members"); they become members().
  /// Errors: 501 no ID; 510 group not found; 202 unreadable answer; and the errors of every
  /// exchange. The block and delegate receive the members, then the error.
  Result<Users> getMemberListSynchronous() { return detail::runSync(getMemberListRoutine()); }
  void getMemberList(JovBlock<Users> block, JovCancellation cancel = {}) {
    detail::runBlock(self(), getMemberListRoutine(), std::move(block), cancel);
  }
  void getMemberList(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), getMemberListRoutine(), std::move(callback), cancel);
  }
  std::future<Result<Users>> getMemberListAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), getMemberListRoutine(), cancel);
  }
  /// @}

  /// @name getOwner
  /// @{

  /// The owner, read by a refresh. Errors: those of refresh, and 202 when the record names no
  /// owner. The block and delegate receive the owner, then the error.
  Result<std::shared_ptr<JovUser>> getOwnerSynchronous() {
    return detail::runSync(getOwnerRoutine());
  }
  void getOwner(JovBlock<std::shared_ptr<JovUser>> block, JovCancellation cancel = {}) {
    detail::runBlock(self(), getOwnerRoutine(), std::move(block), cancel);
  }
  void getOwner(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), getOwnerRoutine(), std::move(callback), cancel);
  }
  std::future<Result<std::shared_ptr<JovUser>>> getOwnerAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), getOwnerRoutine(), cancel);
  }
  /// @}

  /// @name delete
  /// @{

  /// Deletes the group on the service (DELETE "/groups/ID"; owner only); the local object keeps
  /// its data. Errors: 501 no ID; 510 group not found; and the errors of every exchange. The
  /// block and delegate receive the group, then the error.
  Result<void> deleteSynchronous() { return detail::runSync(deleteRoutine()); }
  void deleteWithBlock(GroupBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), deleteRoutine(), std::move(block), cancel);
  }
  void deleteWithCallback(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), deleteRoutine(), std::move(callback), cancel);
  }
  std::future<Result<void>> deleteAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), deleteRoutine(), cancel);
  }
  /// @}

  /// @name registerGroupWithID
  /// @{

  /// Creates a group with an ID of the caller's choosing, owned by the current user
  /// (PUT "/groups/ID" with the name, the owner and the members' IDs): `groupID` is 1 to 30 of
  /// lower-case letters, digits, ".", "_", "-"; `name` 1 to 190 characters; `members` users
  /// with an ID, possibly none. The result is a new group holding that ID, name, owner and
  /// those members. Errors (before any request): 524 invalid ID, 513 invalid name, 525 a member
  /// without ID, 327 nobody logged in; then 526 when the ID is taken ("GROUP_ALREADY_EXISTS"), 203
  /// for "WRONG_TOKEN", 202 unreadable answer, and the errors of every exchange. The block form
  /// raises std::invalid_argument "completion can not be nil" without a block.
  static Result<std::shared_ptr<JovGroup>> registerGroupSynchronousWithID(
      const std::string& groupID, const std::string& name, const Users& members) {
    return detail::runSync(registerGroupRoutine(groupID, name, members));
  }
  static void registerGroupWithID(const std::string& groupID, const std::string& name,
                                  const Users& members, JovBlock<std::shared_ptr<JovGroup>> block,
                                  JovCancellation cancel = {}) {
    detail::runClassBlock(registerGroupRoutine(groupID, name, members), std::move(block), cancel);
  }
  static void registerGroupWithID(const std::string& groupID, const std::string& name,
                                  const Users& members, JovCallback callback,
                                  JovCancellation cancel = {}) {
    detail::runCallback(nullptr, registerGroupRoutine(groupID, name, members), std::move(callback),
                        cancel);
  }
  static std::future<Result<std::shared_ptr<JovGroup>>> registerGroupWithIDAsync(
      const std::string& groupID, const std::string& name, const Users& members,
      JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, registerGroupRoutine(groupID, name, members), cancel);
  }
  /// @}

  /// @brief A one-line text for logs: ID, name, owner and pending changes.
  std::string describe() const;

 private:
  detail::Routine<void> saveRoutine();
  detail::Routine<void> createRoutine();
  detail::Routine<void> changeMemberRoutine(bool add, std::string userID);
  detail::Routine<void> refreshRoutine();
  detail::Routine<void> changeGroupNameRoutine(std::string name);
  detail::Routine<Users> getMemberListRoutine();
  detail::Routine<std::shared_ptr<JovUser>> getOwnerRoutine();
  detail::Routine<void> deleteRoutine();
  static detail::Routine<std::shared_ptr<JovGroup>> registerGroupRoutine(std::string groupID,
                                                                         std::string name,
                                                                         Users members);
  friend struct GroupFields;
  std::shared_ptr<JovGroup> self() { return shared_from_this(); }

  std::string uuid_;
  std::string name_;
  std::shared_ptr<JovUser> owner_;
  Users members_;
  // Pending changes keyed by user ID: one entry per user, sent in a stable order.
  std::map<std::string, std::shared_ptr<JovUser>> addMembers_;
  std::map<std::string, std::shared_ptr<JovUser>> removeMembers_;
};

}  // namespace jov
