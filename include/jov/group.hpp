#pragma once
/// @file
/// @brief JovGroup: a named set of users with one owner.

#include <future>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "jov/async.hpp"
#include "jov/result.hpp"

namespace jov {

class JovUser;

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

  /// @brief Reads "groupID" (or "uuid"), "name" and "owner"; absent, null or mistyped keys are
  /// skipped. False when the value is not a JSON object.
  bool loadFromJSON(const nlohmann::json& json);

  /// @brief Puts the user into the users to add (and out of those to remove); false when the
  /// user has no ID.
  bool addUser(const std::shared_ptr<JovUser>& user);
  /// @brief Puts the user into the users to remove (and out of those to add); false when the
  /// user has no ID.
  bool removeUser(const std::shared_ptr<JovUser>& user);

  /// @brief Creates the group when it has no ID, then sends each pending member change.
  Result<void> saveSynchronous();
  /// @brief save on a worker; the block runs on the main queue.
  void save(GroupBlock block);
  /// @brief save on a worker; the delegate receives (group, error).
  void save(JovCallback callback);
  /// @brief save on a worker, as a future.
  std::future<Result<void>> saveAsync();

  /// @brief Reads the group's record from the service.
  Result<void> refreshSynchronous();
  /// @brief refresh on a worker; the block runs on the main queue.
  void refresh(GroupBlock block);
  /// @brief refresh on a worker; the delegate receives (group, error).
  void refresh(JovCallback callback);
  /// @brief refresh on a worker, as a future.
  std::future<Result<void>> refreshAsync();

  /// @brief Renames the group on the service (owner only), then here.
  Result<void> changeGroupNameSynchronous(const std::string& name);
  /// @brief changeGroupName on a worker; the block runs on the main queue.
  void changeGroupName(const std::string& name, GroupBlock block);
  /// @brief changeGroupName on a worker; the delegate receives (group, error).
  void changeGroupName(const std::string& name, JovCallback callback);
  /// @brief changeGroupName on a worker, as a future.
  std::future<Result<void>> changeGroupNameAsync(const std::string& name);

  /// @brief Lists the members on the service; they become members().
  Result<Users> getMemberListSynchronous();
  /// @brief getMemberList on a worker; the block receives the members.
  void getMemberList(JovBlock<Users> block);
  /// @brief getMemberList on a worker; the delegate receives (members, error).
  void getMemberList(JovCallback callback);
  /// @brief getMemberList on a worker, as a future.
  std::future<Result<Users>> getMemberListAsync();

  /// @brief The owner, read by a refresh.
  Result<std::shared_ptr<JovUser>> getOwnerSynchronous();
  /// @brief getOwner on a worker; the block receives the owner.
  void getOwner(JovBlock<std::shared_ptr<JovUser>> block);
  /// @brief getOwner on a worker; the delegate receives (owner, error).
  void getOwner(JovCallback callback);
  /// @brief getOwner on a worker, as a future.
  std::future<Result<std::shared_ptr<JovUser>>> getOwnerAsync();

  /// @brief Deletes the group on the service (owner only); the local object keeps its data.
  Result<void> deleteSynchronous();
  /// @brief delete on a worker; the block runs on the main queue.
  void deleteWithBlock(GroupBlock block);
  /// @brief delete on a worker; the delegate receives (group, error).
  void deleteWithCallback(JovCallback callback);
  /// @brief delete on a worker, as a future.
  std::future<Result<void>> deleteAsync();

  /// @brief Creates a group with an ID of the caller's choosing, owned by the current user.
  static Result<std::shared_ptr<JovGroup>> registerGroupSynchronousWithID(
      const std::string& groupID, const std::string& name, const Users& members);
  /// @brief registerGroup on a worker; raises std::invalid_argument when the block is empty.
  static void registerGroupWithID(const std::string& groupID, const std::string& name,
                                  const Users& members, JovBlock<std::shared_ptr<JovGroup>> block);
  /// @brief registerGroup on a worker; the delegate receives (group, error).
  static void registerGroupWithID(const std::string& groupID, const std::string& name,
                                  const Users& members, JovCallback callback);
  /// @brief registerGroup on a worker, as a future.
  static std::future<Result<std::shared_ptr<JovGroup>>> registerGroupWithIDAsync(
      const std::string& groupID, const std::string& name, const Users& members);

  /// @brief A one-line text for logs: ID, name, owner and pending changes.
  std::string describe() const;

 private:
  Result<void> saveRoutine();
  Result<void> createRoutine();
  Result<void> refreshRoutine();
  Result<void> changeGroupNameRoutine(std::string name);
  Result<Users> getMemberListRoutine();
  Result<std::shared_ptr<JovUser>> getOwnerRoutine();
  Result<void> deleteRoutine();
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
