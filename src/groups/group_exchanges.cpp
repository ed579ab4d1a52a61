// The exchanges of a group, their error tables and the routines behind every form; and the
// user's group listings, which read group records.

#include "core/exchange.hpp"
#include "jov/application.hpp"
#include "jov/encoding.hpp"
#include "jov/group.hpp"
#include "jov/user.hpp"

namespace jov {

namespace {

using detail::args;
using detail::Exchange;
using detail::onCode;
using detail::Routine;
using detail::send;

constexpr const char* kGroupCreationRequest = "application/vnd.jov.GroupCreationRequest+json";
constexpr const char* kGroupCreationResponse = "application/vnd.jov.GroupCreationResponse+json";

// The service answers 404 "GROUP_NOT_FOUND" for a group it does not know (never created, or
// deleted since), and "USER_NOT_FOUND" for a member or a user it does not know.
constexpr detail::ErrorRule kGroupErrors[] = {
    onCode("GROUP_NOT_FOUND", JovError::codeObjectNotFound()),
};
constexpr detail::ErrorRule kMemberErrors[] = {
    onCode("GROUP_NOT_FOUND", JovError::codeObjectNotFound()),
    onCode("USER_NOT_FOUND", JovError::codeUserNotFound()),
};
constexpr detail::ErrorRule kListErrors[] = {
    onCode("USER_NOT_FOUND", JovError::codeUserNotFound()),
};
constexpr detail::ErrorRule kRegisterErrors[] = {
    onCode("GROUP_ALREADY_EXISTS", JovError::codeGroupAlreadyExists()),
    onCode("WRONG_TOKEN", JovError::codeUnauthorizedRequest()),
};

constexpr Exchange kCreate{JovMethodPost, "/groups", {.contentType = kGroupCreationRequest}};
constexpr Exchange kRegister{JovMethodPut,
                             "/groups/{}",
                             {.contentType = kGroupCreationRequest,
                              .accept = kGroupCreationResponse,
                              .errors = kRegisterErrors}};
constexpr Exchange kRefresh{JovMethodGet, "/groups/{}", {.errors = kGroupErrors}};
constexpr Exchange kRename{
    JovMethodPut, "/groups/{}/name", {.contentType = "text/plain", .errors = kGroupErrors}};
constexpr Exchange kMembers{
    JovMethodGet,
    "/groups/{}/members",
    {.accept = "application/vnd.jov.MembersRetrievalResponse+json", .errors = kGroupErrors}};
constexpr Exchange kAddMember{JovMethodPut, "/groups/{}/members/{}", {.errors = kMemberErrors}};
constexpr Exchange kRemoveMember{
    JovMethodDelete, "/groups/{}/members/{}", {.errors = kMemberErrors}};
constexpr Exchange kDelete{JovMethodDelete, "/groups/{}", {.errors = kGroupErrors}};
constexpr Exchange kListOfUser{
    JovMethodGet,
    "/groups/",
    {.accept = "application/vnd.jov.GroupsRetrievalResponse+json", .errors = kListErrors}};

// The group ID of a record: "groupID", else "uuid"; nothing when neither is a non-empty string.
std::optional<std::string> groupIDIn(const nlohmann::json& record) {
  for (const char* key : {"groupID", "uuid"}) {
    std::optional<std::string> id = jsonString(record, key);
    if (id && !id->empty()) return id;
  }
  return std::nullopt;
}

// A listing answer {"groups": [records]}: a record without an ID refuses the whole answer
// rather than handing back a shorter list that looks complete.
Result<JovUser::Groups> readGroupList(const nlohmann::json& answer) {
  if (!answer.is_object()) return detail::unreadableAnswer();
  const auto it = answer.find("groups");
  if (it == answer.end() || !it->is_array()) return detail::unreadableAnswer();
  JovUser::Groups groups;
  groups.reserve(it->size());
  for (const nlohmann::json& record : *it) {
    std::optional<std::string> id = groupIDIn(record);
    if (!id) return detail::unreadableAnswer();
    auto group = JovGroup::groupWithID(*id);
    if (!group->loadFromJSON(record)) return detail::unreadableAnswer();
    groups.push_back(std::move(group));
  }
  return groups;
}

// GET "/groups/?KEY=USERID": the groups a user belongs to ("is_member") or owns ("owner").
Routine<JovUser::Groups> listGroupsOfUser(const char* key, std::string userID) {
  JOV_CO_REQUIRE(!userID.empty(), JovError::codeInvalidObjects());
  auto answer =
      co_await send(kListOfUser, args().query(std::string(key) + "=" + urlEncode(userID)));
  if (!answer) co_return answer.error();
  co_return readGroupList(answer->json);
}

}  // namespace

Routine<void> JovGroup::saveRoutine() {
  if (uuid_.empty()) {
    if (auto created = co_await createRoutine(); !created) co_return created;
  }
  // Every change goes out by its own request; a failed one stays pending for the next save and
  // the first failure is reported. The loops walk copies: entries leave the sets as they succeed.
  std::optional<JovError> firstError;
  for (int pass = 0; pass < 2; ++pass) {
    const bool add = pass == 0;
    auto& pending = add ? addMembers_ : removeMembers_;
    std::vector<std::string> userIDs;
    for (const auto& entry : pending) userIDs.push_back(entry.first);
    for (const std::string& userID : userIDs) {
      auto changed = co_await changeMemberRoutine(add, userID);
      if (changed) {
        pending.erase(userID);
      } else if (!firstError) {
        firstError = changed.error();
      }
    }
  }
  co_return Result<void>::fromOptional(std::move(firstError));
}

Routine<void> JovGroup::changeMemberRoutine(bool add, std::string userID) {
  co_return (co_await send(add ? kAddMember : kRemoveMember, args(uuid_, userID)))
      .transform([](auto&&) {});
}

Routine<void> JovGroup::createRoutine() {
  JOV_CO_REQUIRE(isValidGroupName(name_), JovError::codeInvalidGroupName());
  // A preset owner wins; otherwise the group belongs to whoever is logged in.
  std::shared_ptr<JovUser> owner = owner_;
  if (!owner || owner->userID().empty()) owner = Jov::currentUser();
  nlohmann::json body = {{"name", name_}};
  if (owner && !owner->userID().empty()) body["owner"] = owner->userID();

  auto answer = co_await send(kCreate, args().json(std::move(body)));
  if (!answer) co_return answer.error();
  if (!groupIDIn(answer->json) || !loadFromJSON(answer->json)) co_return detail::unreadableAnswer();
  if (!owner_ && owner && !owner->userID().empty()) owner_ = owner;
  co_return {};
}

Routine<void> JovGroup::refreshRoutine() {
  JOV_CO_REQUIRE(!uuid_.empty(), JovError::codeInvalidObjects());
  auto answer = co_await send(kRefresh, args(uuid_));
  if (!answer) co_return answer.error();
  if (!loadFromJSON(answer->json)) co_return detail::unreadableAnswer();
  co_return {};
}

Routine<void> JovGroup::changeGroupNameRoutine(std::string name) {
  JOV_CO_REQUIRE(isValidGroupName(name), JovError::codeInvalidGroupName());
  JOV_CO_REQUIRE(!uuid_.empty(), JovError::codeInvalidObjects());
  auto answer = co_await send(kRename, args(uuid_).text(name));
  if (!answer) co_return answer.error();
  name_ = std::move(name);
  co_return {};
}

Routine<JovGroup::Users> JovGroup::getMemberListRoutine() {
  JOV_CO_REQUIRE(!uuid_.empty(), JovError::codeInvalidObjects());
  auto answer = co_await send(kMembers, args(uuid_));
  if (!answer) co_return answer.error();
  const nlohmann::json& json = answer->json;
  const auto list = json.is_object() ? json.find("members") : json.end();
  if (list == json.end() || !list->is_array()) co_return detail::unreadableAnswer();
  Users members;
  members.reserve(list->size());
  for (const nlohmann::json& entry : *list) {
    std::optional<std::string> userID = jsonString(entry, "userID");
    if (!userID || userID->empty()) co_return detail::unreadableAnswer();
    members.push_back(JovUser::userWithID(*userID));
  }
  members_ = members;
  co_return members;
}

Routine<std::shared_ptr<JovUser>> JovGroup::getOwnerRoutine() {
  if (auto refreshed = co_await refreshRoutine(); !refreshed) co_return refreshed.error();
  if (!owner_) co_return detail::unreadableAnswer();
  co_return owner_;
}

Routine<void> JovGroup::deleteRoutine() {
  JOV_CO_REQUIRE(!uuid_.empty(), JovError::codeInvalidObjects());
  co_return (co_await send(kDelete, args(uuid_))).transform([](auto&&) {});
}

Routine<std::shared_ptr<JovGroup>> JovGroup::registerGroupRoutine(std::string groupID,
                                                                  std::string name, Users members) {
  JOV_CO_REQUIRE(isValidGroupID(groupID), JovError::codeInvalidGroupID());
  JOV_CO_REQUIRE(isValidGroupName(name), JovError::codeInvalidGroupName());
  JOV_CO_REQUIRE(isValidMembers(members), JovError::codeMemberIsNotJovUser());
  std::shared_ptr<JovUser> owner = Jov::currentUser();
  JOV_CO_REQUIRE(owner && !owner->userID().empty(), JovError::codeNonLoggedInUserIsNotAllowed());

  nlohmann::json memberIDs = nlohmann::json::array();
  for (const auto& user : members) memberIDs.push_back(user->userID());
  nlohmann::json body = {{"name", name}, {"owner", owner->userID()}, {"members", memberIDs}};
  auto answer = co_await send(kRegister, args(groupID).json(std::move(body)));
  if (!answer) co_return answer.error();
  std::optional<std::string> createdID = groupIDIn(answer->json);
  if (!createdID) co_return detail::unreadableAnswer();

  auto group = groupWithID(*createdID);
  group->name_ = std::move(name);
  group->owner_ = owner;
  group->members_ = std::move(members);
  if (!group->loadFromJSON(answer->json)) co_return detail::unreadableAnswer();
  co_return group;
}

// ------------------------------------------------------------------ the user's groups

detail::Routine<JovUser::Groups> JovUser::memberOfGroupsRoutine() {
  return listGroupsOfUser("is_member", userID());
}

detail::Routine<JovUser::Groups> JovUser::ownerOfGroupsRoutine() {
  return listGroupsOfUser("owner", userID());
}

}  // namespace jov
