// The exchanges of a thing, their error tables by operation group, and the routines behind
// every form; thing queries and their pages.

#include "core/exchange.hpp"
#include "jov/encoding.hpp"
#include "jov/group.hpp"
#include "jov/thing.hpp"
#include "jov/user.hpp"

namespace jov {

namespace {

using detail::args;
using detail::Exchange;
using detail::onCode;
using detail::onStatus;
using detail::Routine;
using detail::send;

// The service's "errorCode" words, by the group of operations that can meet them. A user and a
// group the service does not know are one error: the owner kind is not told apart. Deleting
// uses the load group.
constexpr detail::ErrorRule kRegisterErrors[] = {
    onCode("THING_ALREADY_EXISTS", JovError::codeThingExist()),
    onCode("INVALID_INPUT_DATA", JovError::codeThingInvalidData()),
};
constexpr detail::ErrorRule kLoadErrors[] = {
    onCode("THING_NOT_FOUND", JovError::codeThingNotFound()),
};
constexpr detail::ErrorRule kUpdateErrors[] = {
    onCode("THING_NOT_FOUND", JovError::codeThingNotFound()),
    onCode("INVALID_INPUT_DATA", JovError::codeThingInvalidData()),
};
constexpr detail::ErrorRule kAddOwnerErrors[] = {
    onCode("USER_NOT_FOUND", JovError::codeThingOwnerNotFound()),
    onCode("THING_NOT_FOUND", JovError::codeThingNotFound()),
    onCode("THING_OWNERSHIP_ALREADY_EXISTS", JovError::codeThingOwnershipExist()),
    onCode("GROUP_NOT_FOUND", JovError::codeThingOwnerNotFound()),
};
constexpr detail::ErrorRule kRemoveOwnerErrors[] = {
    onCode("USER_NOT_FOUND", JovError::codeThingOwnerNotFound()),
    onCode("GROUP_NOT_FOUND", JovError::codeThingOwnerNotFound()),
    onCode("THING_NOT_FOUND", JovError::codeThingNotFound()),
    onCode("THING_OWNERSHIP_NOT_FOUND", JovError::codeThingOwnershipNotFound()),
};
// A HEAD answer has no body: its 404 is "not an owner".
constexpr detail::ErrorRule kCheckOwnerErrors[] = {
    onStatus(404, JovError::codeThingOwnershipNotFound()),
};

constexpr Exchange kRegister{
    JovMethodPost,
    "/things",
    {.contentType = "application/vnd.jov.ThingRegistrationAndAuthorizationRequest+json",
     .errors = kRegisterErrors}};
constexpr Exchange kLoad{JovMethodGet,
                         "{+}",
                         {.accept = "application/vnd.jov.ThingRetrievalResponse+json",
                          .errors = kLoadErrors}};
constexpr Exchange kUpdate{
    JovMethodPatch,
    "{+}",
    {.contentType = "application/vnd.jov.ThingUpdateRequest+json", .errors = kUpdateErrors}};
constexpr Exchange kDelete{JovMethodDelete, "{+}", {.errors = kLoadErrors}};
constexpr Exchange kStatus{
    JovMethodPut,
    "{+}/status",
    {.contentType = "application/vnd.jov.ThingStatusUpdateRequest+json", .errors = kLoadErrors}};
constexpr Exchange kAddOwnerWithPassword{
    JovMethodPost,
    "{+}/ownership",
    {.contentType = "application/vnd.jov.ThingOwnershipRequest+json", .errors = kAddOwnerErrors}};
constexpr Exchange kAddOwner{JovMethodPut, "{+}/ownership/{+}", {.errors = kAddOwnerErrors}};
constexpr Exchange kRemoveOwner{
    JovMethodDelete, "{+}/ownership/{+}", {.errors = kRemoveOwnerErrors}};
constexpr Exchange kCheckOwner{JovMethodHead, "{+}/ownership/{+}", {.errors = kCheckOwnerErrors}};
constexpr Exchange kQuery{
    JovMethodPost,
    "/things/query",
    {.contentType = "application/vnd.jov.ThingQueryRequest+json", .errors = kUpdateErrors}};

// The owner as the service names it: {"userID": ID} or {"groupID": ID}, and its subject token
// "UserID:ID" / "GroupID:ID" (the ID encoded); nothing for a null owner or one without ID.
struct OwnerName {
  const char* key;
  std::string id;
  std::string token() const {
    return std::string(key[0] == 'u' ? "UserID:" : "GroupID:") + urlEncode(id);
  }
};
std::optional<OwnerName> ownerName(const JovThingOwner& owner) {
  if (const auto* user = std::get_if<std::shared_ptr<JovUser>>(&owner)) {
    if (!*user || (*user)->userID().empty()) return std::nullopt;
    return OwnerName{"userID", (*user)->userID()};
  }
  const auto& group = std::get<std::shared_ptr<JovGroup>>(owner);
  if (!group || group->groupID().empty()) return std::nullopt;
  return OwnerName{"groupID", group->groupID()};
}

// A thing made from a record; nothing for a record without a thing ID.
JovThing::Ptr thingOf(const nlohmann::json& record) {
  if (!record.is_object()) return nullptr;
  std::optional<std::string> id = jsonString(record, "_thingID");
  if (!id || id->empty()) return nullptr;
  auto thing = JovThing::thingWithID(*id);
  if (!thing->loadFromJSON(record)) return nullptr;
  return thing;
}

}  // namespace

Routine<JovThing::Ptr> JovThing::registerRoutine(std::string vendorThingID, std::string password,
                                                 std::string thingType, JovThingFields fields) {
  nlohmann::json body = fields.toJSON();
  body["_vendorThingID"] = vendorThingID;
  body["_password"] = password;
  body["_thingType"] = thingType;
  auto answer = co_await send(kRegister, args().json(std::move(body)));
  if (!answer) co_return answer.error();
  auto thing = thingOf(answer->json);
  if (!thing) co_return detail::unreadableAnswer();
  co_return thing;
}

Routine<JovThing::Ptr> JovThing::loadRoutine(std::string id, bool vendor) {
  JOV_CO_REQUIRE(!id.empty(), JovError::codeInvalidObjects());
  auto answer = co_await send(kLoad, args(pathOf(id, vendor)));
  if (!answer) co_return answer.error();
  auto thing = thingOf(answer->json);
  if (!thing) co_return detail::unreadableAnswer();
  co_return thing;
}

Routine<void> JovThing::refreshRoutine() {
  JOV_CO_REQUIRE(!thingID().empty(), JovError::codeInvalidObjects());
  auto answer = co_await send(kLoad, args(thingPath()));
  if (!answer) co_return answer.error();
  if (!loadFromJSON(answer->json)) co_return detail::unreadableAnswer();
  co_return {};
}

Routine<void> JovThing::updateRoutine() {
  JOV_CO_REQUIRE(!thingID().empty(), JovError::codeInvalidObjects());
  // The fields never name the thing, its vendor ID, its creation time or its token.
  nlohmann::json body = fields().toJSON();
  for (const char* key : {"_thingID", "_vendorThingID", "_created", "_accessToken"}) {
    body.erase(key);
  }
  auto answer = co_await send(kUpdate, args(thingPath()).json(std::move(body)));
  if (!answer) co_return answer.error();
  co_return {};
}

Routine<void> JovThing::statusRoutine(bool disabled) {
  JOV_CO_REQUIRE(!thingID().empty(), JovError::codeInvalidObjects());
  nlohmann::json body = {{"disabled", disabled}};
  auto answer = co_await send(kStatus, args(thingPath()).json(std::move(body)));
  if (!answer) co_return answer.error();
  std::lock_guard lock(mutex_);
  disabled_ = disabled;
  co_return {};
}

Routine<void> JovThing::deleteRoutine() {
  JOV_CO_REQUIRE(!thingID().empty(), JovError::codeInvalidObjects());
  auto answer = co_await send(kDelete, args(thingPath()));
  if (!answer) co_return answer.error();
  co_return {};
}

Routine<void> JovThing::addOwnerRoutine(std::string thingPath, JovThingOwner owner,
                                        std::optional<std::string> thingPassword) {
  std::optional<OwnerName> name = ownerName(owner);
  JOV_CO_REQUIRE(!thingPath.empty() && name, JovError::codeInvalidObjects());
  if (thingPassword) {
    nlohmann::json body = {{name->key, name->id}, {"thingPassword", *thingPassword}};
    auto answer = co_await send(kAddOwnerWithPassword, args(thingPath).json(std::move(body)));
    if (!answer) co_return answer.error();
    co_return {};
  }
  auto answer = co_await send(kAddOwner, args(thingPath, name->token()));
  if (!answer) co_return answer.error();
  co_return {};
}

Routine<void> JovThing::removeOwnerRoutine(std::string thingPath, JovThingOwner owner) {
  std::optional<OwnerName> name = ownerName(owner);
  JOV_CO_REQUIRE(!thingPath.empty() && name, JovError::codeInvalidObjects());
  auto answer = co_await send(kRemoveOwner, args(thingPath, name->token()));
  if (!answer) co_return answer.error();
  co_return {};
}

Routine<bool> JovThing::checkOwnerRoutine(std::string thingPath, JovThingOwner owner) {
  std::optional<OwnerName> name = ownerName(owner);
  JOV_CO_REQUIRE(!thingPath.empty() && name, JovError::codeInvalidObjects());
  auto answer = co_await send(kCheckOwner, args(thingPath, name->token()));
  // Not an owner: false, with 1104.
  if (!answer) co_return answer.error();
  co_return true;
}

Routine<JovThingQueryResult> JovThing::queryRoutine(JovThingQuery query) {
  nlohmann::json body = query.generateQueryDict();
  auto answer = co_await send(kQuery, args().json(std::move(body)));
  if (!answer) co_return answer.error();
  const nlohmann::json& page = answer->json;
  if (!page.is_object()) co_return detail::unreadableAnswer();
  const auto results = page.find("results");
  if (results == page.end() || !results->is_array()) co_return detail::unreadableAnswer();
  JovThingQueryResult result;
  result.results.reserve(results->size());
  for (const nlohmann::json& record : *results) {
    auto thing = thingOf(record);
    if (!thing) co_return detail::unreadableAnswer();
    result.results.push_back(std::move(thing));
  }
  const auto next = page.find("nextPaginationKey");
  if (next != page.end() && !next->is_null()) {
    if (!next->is_string()) co_return detail::unreadableAnswer();
    JovThingQuery following = query;
    following.nextPaginationKey = next->get<std::string>();
    result.nextThingQuery = std::move(following);
  }
  co_return result;
}

namespace {
Routine<JovThingQueryResult> endOfPages() {
  co_return JovError::errorWithCode(JovError::codeQueryEndOfPage());
}
}  // namespace

Result<JovThingQueryResult> JovThingQueryResult::getNextResultSynchronous() const {
  if (!nextThingQuery) return JovError::errorWithCode(JovError::codeQueryEndOfPage());
  return JovThing::querySynchronous(*nextThingQuery);
}

void JovThingQueryResult::getNextResult(JovBlock<JovThingQueryResult> block,
                                        JovCancellation cancel) const {
  detail::runClassBlock(nextThingQuery ? JovThing::queryRoutine(*nextThingQuery) : endOfPages(),
                        std::move(block), cancel);
}

}  // namespace jov
