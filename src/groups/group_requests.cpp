// The exchanges of a group. Each routine runs on the calling thread and is the one body behind
// the blocking, block, delegate and future forms (group_forms.cpp).

#include <optional>

#include "groups/group_support.hpp"
#include "jov/application.hpp"
#include "jov/encoding.hpp"
#include "jov/group.hpp"
#include "jov/request.hpp"
#include "jov/user.hpp"

namespace jov {

namespace {

using detail::groupError;
using detail::mapServerError;

// The service answers 404 "GROUP_NOT_FOUND" for a group it does not know (never created, or
// deleted since).
constexpr detail::ServerCodeMapping kGroupNotFound{"GROUP_NOT_FOUND",
                                                   JovError::codeObjectNotFound()};
constexpr detail::ServerCodeMapping kUserNotFound{"USER_NOT_FOUND", JovError::codeUserNotFound()};

JovError noGroupID() {
  return groupError(JovError::codeInvalidObjects());
}

// PUT or DELETE "/groups/ID/members/USERID": one member change, no body.
Result<void> changeMember(std::int32_t method, const std::string& groupID,
                          const std::string& userID) {
  JovRequest request =
      detail::bareRequest(detail::groupPath(groupID) + "/members/" + urlEncode(userID), method);
  JovResponse response = request.makeSynchronousRequest();
  if (response.error) return mapServerError(*response.error, {kGroupNotFound, kUserNotFound});
  return {};
}

}  // namespace

Result<void> JovGroup::saveRoutine() {
  if (uuid_.empty()) {
    if (Result<void> created = createRoutine(); !created) return created;
  }
  // Every change goes out by its own request; a failed one stays pending for the next save and
  // the first failure is reported. The loops walk copies: entries leave the sets as they succeed.
  std::optional<JovError> firstError;
  for (const auto& [userID, user] : std::map(addMembers_)) {
    Result<void> added = changeMember(JovMethodPut, uuid_, userID);
    if (added) {
      addMembers_.erase(userID);
    } else if (!firstError) {
      firstError = added.error();
    }
  }
  for (const auto& [userID, user] : std::map(removeMembers_)) {
    Result<void> removed = changeMember(JovMethodDelete, uuid_, userID);
    if (removed) {
      removeMembers_.erase(userID);
    } else if (!firstError) {
      firstError = removed.error();
    }
  }
  return Result<void>::fromOptional(std::move(firstError));
}

Result<void> JovGroup::createRoutine() {
  if (!isValidGroupName(name_)) return groupError(JovError::codeInvalidGroupName());
  // A preset owner wins; otherwise the group belongs to whoever is logged in.
  std::shared_ptr<JovUser> owner = owner_;
  if (!owner || owner->userID().empty()) owner = Jov::currentUser();
  nlohmann::json body = {{"name", name_}};
  if (owner && !owner->userID().empty()) body["owner"] = owner->userID();

  JovRequest request = detail::bareRequest("/groups", JovMethodPost);
  request.postData = std::move(body);
  request.content = detail::kGroupCreationRequest;
  JovResponse response = request.makeSynchronousRequest();
  if (response.error) return *response.error;
  if (!detail::groupIDIn(response.json)) {
    return groupError(JovError::codeUnableToParseResponse());
  }
  loadFromJSON(response.json);
  if (!owner_ && owner && !owner->userID().empty()) owner_ = owner;
  return {};
}

Result<void> JovGroup::refreshRoutine() {
  if (uuid_.empty()) return noGroupID();
  JovRequest request = detail::bareRequest(detail::groupPath(uuid_), JovMethodGet);
  JovResponse response = request.makeSynchronousRequest();
  if (response.error) return mapServerError(*response.error, {kGroupNotFound});
  if (!loadFromJSON(response.json)) return groupError(JovError::codeUnableToParseResponse());
  return {};
}

Result<void> JovGroup::changeGroupNameRoutine(std::string name) {
  if (!isValidGroupName(name)) return groupError(JovError::codeInvalidGroupName());
  if (uuid_.empty()) return noGroupID();
  JovRequest request = detail::bareRequest(detail::groupPath(uuid_) + "/name", JovMethodPut);
  request.plainText = name;
  request.content = "text/plain";
  JovResponse response = request.makeSynchronousRequest();
  if (response.error) return mapServerError(*response.error, {kGroupNotFound});
  name_ = std::move(name);
  return {};
}

Result<JovGroup::Users> JovGroup::getMemberListRoutine() {
  if (uuid_.empty()) return noGroupID();
  JovRequest request = detail::bareRequest(detail::groupPath(uuid_) + "/members", JovMethodGet);
  request.accept = detail::kMembersRetrievalResponse;
  JovResponse response = request.makeSynchronousRequest();
  if (response.error) return mapServerError(*response.error, {kGroupNotFound});

  const JovError unreadable = groupError(JovError::codeUnableToParseResponse());
  if (!response.json.is_object()) return unreadable;
  const auto list = response.json.find("members");
  if (list == response.json.end() || !list->is_array()) return unreadable;
  Users members;
  members.reserve(list->size());
  for (const nlohmann::json& entry : *list) {
    std::optional<std::string> userID = jsonString(entry, "userID");
    if (!userID || userID->empty()) return unreadable;
    members.push_back(JovUser::userWithID(*userID));
  }
  members_ = members;
  return members;
}

Result<std::shared_ptr<JovUser>> JovGroup::getOwnerRoutine() {
  if (Result<void> refreshed = refreshRoutine(); !refreshed) return refreshed.error();
  if (!owner_) return groupError(JovError::codeUnableToParseResponse());
  return owner_;
}

Result<void> JovGroup::deleteRoutine() {
  if (uuid_.empty()) return noGroupID();
  JovRequest request = detail::bareRequest(detail::groupPath(uuid_), JovMethodDelete);
  JovResponse response = request.makeSynchronousRequest();
  if (response.error) return mapServerError(*response.error, {kGroupNotFound});
  return {};
}

Result<std::shared_ptr<JovGroup>> JovGroup::registerGroupSynchronousWithID(
    const std::string& groupID, const std::string& name, const Users& members) {
  if (!isValidGroupID(groupID)) return groupError(JovError::codeInvalidGroupID());
  if (!isValidGroupName(name)) return groupError(JovError::codeInvalidGroupName());
  if (!isValidMembers(members)) return groupError(JovError::codeMemberIsNotJovUser());
  std::shared_ptr<JovUser> owner = Jov::currentUser();
  if (!owner || owner->userID().empty()) {
    return groupError(JovError::codeNonLoggedInUserIsNotAllowed());
  }

  nlohmann::json memberIDs = nlohmann::json::array();
  for (const auto& user : members) memberIDs.push_back(user->userID());
  JovRequest request = detail::bareRequest(detail::groupPath(groupID), JovMethodPut);
  request.postData =
      nlohmann::json{{"name", name}, {"owner", owner->userID()}, {"members", memberIDs}};
  request.content = detail::kGroupCreationRequest;
  request.accept = detail::kGroupCreationResponse;
  JovResponse response = request.makeSynchronousRequest();
  if (response.error) {
    return mapServerError(*response.error,
                          {{"GROUP_ALREADY_EXISTS", JovError::codeGroupAlreadyExists()},
                           {"WRONG_TOKEN", JovError::codeUnauthorizedRequest()}});
  }
  std::optional<std::string> createdID = detail::groupIDIn(response.json);
  if (!createdID) return groupError(JovError::codeUnableToParseResponse());

  auto group = groupWithID(*createdID);
  group->name_ = name;
  group->owner_ = owner;
  group->members_ = members;
  group->loadFromJSON(response.json);
  return group;
}

}  // namespace jov
