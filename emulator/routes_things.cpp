// Things: registration by the device's maker, records, status, ownership and queries.
//
// POST   /things  ThingRegistrationAndAuthorizationRequest {"_vendorThingID", "_password",
//        "_thingType", predefined and custom fields}: 201 the record with "_accessToken" (the
//        thing acts with it); 409 THING_ALREADY_EXISTS for a vendor thing ID in use; 400
//        INVALID_INPUT_DATA for a field of the wrong type or an unknown "_" field. A caller
//        with or without a user's token may register; a user who registers a device is its
//        first owner.
// A thing is addressed as "/things/{thingID}" or "/things/VENDOR_THING_ID:{vendorThingID}";
// 404 THING_NOT_FOUND when there is none. Its owners (users, and groups through their members)
// and the thing itself, acting with its token, may:
//   GET     the record;  PATCH ThingUpdateRequest: merge fields (null removes), 204;
//   PUT     /status ThingStatusUpdateRequest {"disabled": B}, 204;
//   DELETE  the thing with its owners and tokens (owners only), 204;
//   PUT     /ownership/{UserID:x|GroupID:y} adds an owner (409 THING_OWNERSHIP_ALREADY_EXISTS,
//           404 USER_NOT_FOUND / GROUP_NOT_FOUND);
//   DELETE  /ownership/{token} removes one (404 THING_OWNERSHIP_NOT_FOUND); a user may also
//           remove itself.
// POST /ownership ThingOwnershipRequest {"userID"|"groupID", "thingPassword"}: anybody logged in
// who knows the password makes itself, or a group it belongs to, an owner (403 for a wrong
// password). GET (and HEAD) /ownership/{token}: 204 for an owner, 404 THING_OWNERSHIP_NOT_FOUND.
// POST /things/query ThingQueryRequest {"thingQuery": {"clause"}, "bestEffortLimit"?,
// "paginationKey"?}: the caller's things (owned by it or its groups) that match the clause
// ("contains" on "userOwners"/"groupOwners", "eq" on a field, "and", "or"), in thing ID
// order: {"results": [records], "nextPaginationKey"?}.
#include <algorithm>

#include "acl_store.hpp"
#include "api_error.hpp"
#include "bucket_access.hpp"
#include "crypto.hpp"
#include "group_store.hpp"
#include "push_store.hpp"
#include "service.hpp"
#include "thing_store.hpp"

namespace jovemu {

namespace {

constexpr const char* kRegistration =
    "application/vnd.jov.ThingRegistrationAndAuthorizationRequest+json";
constexpr const char* kUpdate = "application/vnd.jov.ThingUpdateRequest+json";
constexpr const char* kStatus = "application/vnd.jov.ThingStatusUpdateRequest+json";
constexpr const char* kOwnership = "application/vnd.jov.ThingOwnershipRequest+json";
constexpr const char* kQuery = "application/vnd.jov.ThingQueryRequest+json";
constexpr int kDefaultPage = 100;
constexpr int kLargestPage = 1000;

ApiError thingNotFound() {
  return ApiError(404, "THING_NOT_FOUND", "The thing was not found");
}
ApiError invalidThingData(const std::string& message) {
  return ApiError(400, "INVALID_INPUT_DATA", message);
}

// The fields a maker may set, by the JSON type their values must have.
const std::vector<std::string>& stringFields() {
  static const std::vector<std::string> names = {
      "_vendor",       "_firmwareVersion", "_productName",  "_lot",         "_stringField1",
      "_stringField2", "_stringField3",    "_stringField4", "_stringField5"};
  return names;
}
bool isNumberField(const std::string& key) {
  static const std::vector<std::string> names = {"_numberField1", "_numberField2", "_numberField3",
                                                 "_numberField4", "_numberField5"};
  return std::find(names.begin(), names.end(), key) != names.end();
}

// Merges fields into `into`: a null value removes the field. The identity keys are refused.
void mergeFields(nlohmann::json& into, const nlohmann::json& body,
                 const std::vector<std::string>& skip) {
  for (const auto& [key, value] : body.items()) {
    if (std::find(skip.begin(), skip.end(), key) != skip.end()) continue;
    if (key.empty()) throw invalidThingData("A field needs a name");
    if (value.is_null()) {
      into.erase(key);
      continue;
    }
    if (key.front() == '_') {
      const auto& strings = stringFields();
      if (std::find(strings.begin(), strings.end(), key) != strings.end()) {
        if (!value.is_string()) throw invalidThingData(key + " must be a string");
      } else if (isNumberField(key)) {
        if (!value.is_number()) throw invalidThingData(key + " must be a number");
      } else {
        throw invalidThingData(key + " is not a field a thing can set");
      }
    }
    into[key] = value;
  }
}

nlohmann::json record(const ThingRow& thing) {
  nlohmann::json out = thing.fields;
  out["_thingID"] = thing.thingID;
  out["_vendorThingID"] = thing.vendorThingID;
  out["_thingType"] = thing.thingType;
  out["_created"] = thing.created;
  out["_modified"] = thing.modified;
  out["_disabled"] = thing.disabled;
  out["_online"] = false;
  return out;
}

// Who calls: a user, or a thing acting with its own token; 401 without a token.
using ThingCaller = Requester;

ThingCaller openCaller(const Service& service, const Call& call, Connection& conn,
                       const std::string& appID) {
  auto caller = requesterOf(service, call, conn, appID);
  if (caller.anonymous()) throw ApiError(401, "UNAUTHORIZED", "An access token is required");
  return caller;
}

ThingRow addressedThing(Connection& conn, const std::string& appID, const std::string& segment) {
  static const std::string vendorPrefix = "VENDOR_THING_ID:";
  std::optional<ThingRow> thing;
  if (segment.rfind(vendorPrefix, 0) == 0) {
    thing = findThingByVendorID(conn, appID, segment.substr(vendorPrefix.size()));
  } else {
    thing = findThing(conn, appID, segment);
  }
  if (!thing) throw thingNotFound();
  return *thing;
}

bool speaksForAnOwner(const std::vector<std::string>& owners, const ThingCaller& caller) {
  return std::any_of(owners.begin(), owners.end(),
                     [&caller](const std::string& owner) { return caller.speaksFor(owner); });
}

bool ownedBy(Connection& conn, const std::string& appID, const ThingRow& thing,
             const ThingCaller& caller) {
  return speaksForAnOwner(thingOwners(conn, appID, thing.thingID), caller);
}

// An owner, or the thing itself.
void requireOwnerOrSelf(Connection& conn, const std::string& appID, const ThingRow& thing,
                        const ThingCaller& caller) {
  if (caller.thingID == thing.thingID || ownedBy(conn, appID, thing, caller)) return;
  throw forbidden("Only the thing's owners and the thing itself may do this");
}

// "UserID:x" or "GroupID:y" of a user or group that exists; 400 for another token.
std::string existingOwner(Connection& conn, const std::string& appID, const std::string& token) {
  const auto colon = token.find(':');
  const std::string kind = token.substr(0, colon);
  const std::string id = colon == std::string::npos ? "" : token.substr(colon + 1);
  if (id.empty() || (kind != "UserID" && kind != "GroupID")) {
    throw invalidInput("An owner is UserID:<id> or GroupID:<id>");
  }
  if (kind == "UserID" && !findUser(conn, appID, id)) throw userNotFound();
  if (kind == "GroupID" && !findGroup(conn, appID, id)) throw groupNotFound();
  return token;
}

void registerThing(Service& service, Call& call, const std::string& app) {
  call.requireMediaType({kRegistration});
  auto body = call.jsonObject();
  ThingRow thing;
  for (auto [key, out] : {std::pair{"_vendorThingID", &thing.vendorThingID},
                          std::pair{"_thingType", &thing.thingType}}) {
    auto value = body.find(key);
    if (value == body.end() || !value->is_string() || value->get<std::string>().empty()) {
      throw invalidThingData(std::string(key) + " must be a non-empty string");
    }
    *out = value->get<std::string>();
  }
  auto password = body.find("_password");
  if (password == body.end() || !password->is_string() || password->get<std::string>().empty()) {
    throw invalidThingData("_password must be a non-empty string");
  }
  mergeFields(thing.fields, body, {"_vendorThingID", "_thingType", "_password"});
  thing.passwordHash = hashPassword(password->get<std::string>());
  auto out = service.db.transaction([&](Connection& conn) {
    // A token that is given must be a valid one; none registers as the application's maker.
    std::optional<ThingCaller> caller;
    if (call.bearerToken()) caller = openCaller(service, call, conn, app);
    if (findThingByVendorID(conn, app, thing.vendorThingID)) {
      throw ApiError(409, "THING_ALREADY_EXISTS",
                     "The vendor thing ID " + thing.vendorThingID + " is registered already");
    }
    do {
      thing.thingID = "th." + randomHex(12);
    } while (findThing(conn, app, thing.thingID));
    thing.created = thing.modified = Service::now();
    insertThing(conn, app, thing);
    if (caller && caller->user) {
      addThingOwner(conn, app, thing.thingID, "UserID:" + caller->user->userID, thing.created);
    }
    nlohmann::json answer = record(thing);
    answer["_accessToken"] = issueThingToken(conn, app, thing.thingID);
    return answer;
  });
  call.reply(201, out);
}

// A route on one thing: the handler runs in a transaction with the caller and the thing, and
// answers 204 unless it returns a record.
using ThingHandler = std::function<std::optional<nlohmann::json>(
    Call&, Connection&, const std::string& app, const ThingCaller&, ThingRow&)>;
void addThingRoute(Router& router, Service& service, const std::string& method,
                   const std::string& suffix, ThingHandler handler) {
  addApiRoute(router, service, method, "/things/{}" + suffix,
              [&service, handler](Call& call, const std::string& app) {
                auto out = service.db.transaction([&](Connection& conn) {
                  auto caller = openCaller(service, call, conn, app);
                  auto thing = addressedThing(conn, app, call.param(1));
                  return handler(call, conn, app, caller, thing);
                });
                if (out) {
                  call.reply(200, *out);
                } else {
                  call.replyNoContent();
                }
              });
}

void addOwner(Connection& conn, const std::string& app, const ThingRow& thing,
              const std::string& owner) {
  if (!addThingOwner(conn, app, thing.thingID, owner, Service::now())) {
    throw ApiError(409, "THING_OWNERSHIP_ALREADY_EXISTS", owner + " owns it already");
  }
}

// ------------------------------------------------------------------ queries

bool matches(const nlohmann::json& clause, const nlohmann::json& thing,
             const std::vector<std::string>& owners) {
  if (!clause.is_object()) throw invalidThingData("A clause must be an object");
  const std::string type = clause.value("type", "");
  if (type == "and" || type == "or") {
    const auto clauses = clause.find("clauses");
    if (clauses == clause.end() || !clauses->is_array() || clauses->empty()) {
      throw invalidThingData("An " + type + " clause needs clauses");
    }
    bool all = true, any = false;
    for (const auto& inner : *clauses) {
      const bool hit = matches(inner, thing, owners);
      all = all && hit;
      any = any || hit;
    }
    return type == "and" ? all : any;
  }
  const std::string field = clause.value("field", "");
  const auto value = clause.find("value");
  if (value == clause.end()) throw invalidThingData("A " + type + " clause needs a value");
  if (type == "contains" && (field == "userOwners" || field == "groupOwners")) {
    if (!value->is_string()) throw invalidThingData("An owner is a string");
    const std::string token =
        std::string(field == "userOwners" ? "UserID:" : "GroupID:") + value->get<std::string>();
    return std::find(owners.begin(), owners.end(), token) != owners.end();
  }
  if (type == "eq" && !field.empty()) {
    const auto found = thing.find(field);
    return found != thing.end() && *found == *value;
  }
  throw invalidThingData("The clause type " + type + " is not supported in thing queries");
}

void queryThings(Service& service, Call& call, const std::string& app) {
  call.requireMediaType({kQuery});
  auto body = call.jsonObject();
  const auto query = body.find("thingQuery");
  if (query == body.end() || !query->is_object() || !query->contains("clause")) {
    throw invalidThingData("thingQuery.clause is required");
  }
  int limit = kDefaultPage;
  if (auto given = body.find("bestEffortLimit"); given != body.end()) {
    if (!given->is_number_integer() || given->get<std::int64_t>() < 1) {
      throw invalidThingData("bestEffortLimit must be a positive integer");
    }
    limit = static_cast<int>(std::min<std::int64_t>(given->get<std::int64_t>(), kLargestPage));
  }
  std::optional<std::string> after;
  if (auto key = body.find("paginationKey"); key != body.end()) {
    if (!key->is_string() || key->get<std::string>().empty()) {
      throw invalidThingData("paginationKey must be a non-empty string");
    }
    after = key->get<std::string>();
  }
  const nlohmann::json clause = query->at("clause");
  auto out = service.db.transaction([&](Connection& conn) {
    auto caller = openCaller(service, call, conn, app);
    nlohmann::json results = nlohmann::json::array();
    std::optional<std::string> next;
    // Things in ID order, a batch at a time, until the page is full; the key of the last thing
    // read when more may follow.
    while (true) {
      auto batch = listThings(conn, app, after, kLargestPage);
      for (const auto& thing : batch) {
        after = thing.thingID;
        // One read of the owners serves both the caller's right and the clause.
        const auto owners = thingOwners(conn, app, thing.thingID);
        if (!speaksForAnOwner(owners, caller)) continue;
        const auto doc = record(thing);
        if (!matches(clause, doc, owners)) continue;
        if (static_cast<int>(results.size()) == limit) {
          next = results.back()["_thingID"].get<std::string>();
          break;
        }
        results.push_back(doc);
      }
      if (next || batch.size() < static_cast<std::size_t>(kLargestPage)) break;
    }
    nlohmann::json page = {{"results", std::move(results)}};
    if (next) page["nextPaginationKey"] = *next;
    return page;
  });
  call.reply(200, out);
}

}  // namespace

void addThingRoutes(Router& router, Service& service) {
  using Answer = std::optional<nlohmann::json>;
  addApiRoute(router, service, "POST", "/things", [&service](Call& call, const std::string& app) {
    registerThing(service, call, app);
  });
  addApiRoute(router, service, "POST", "/things/query",
              [&service](Call& call, const std::string& app) { queryThings(service, call, app); });

  addThingRoute(router, service, "GET", "",
                [](Call&, Connection& conn, const std::string& app, const ThingCaller& caller,
                   ThingRow& thing) -> Answer {
                  requireOwnerOrSelf(conn, app, thing, caller);
                  return record(thing);
                });

  addThingRoute(router, service, "PATCH", "",
                [](Call& call, Connection& conn, const std::string& app, const ThingCaller& caller,
                   ThingRow& thing) -> Answer {
                  call.requireMediaType({kUpdate});
                  auto body = call.jsonObject();
                  for (const char* key : {"_thingID", "_vendorThingID", "_created", "_accessToken",
                                          "_thingType", "_password"}) {
                    if (body.contains(key)) {
                      throw invalidThingData(std::string(key) + " cannot be updated");
                    }
                  }
                  requireOwnerOrSelf(conn, app, thing, caller);
                  mergeFields(thing.fields, body, {});
                  thing.modified = std::max(Service::now(), thing.modified);
                  updateThing(conn, app, thing);
                  return std::nullopt;
                });

  addThingRoute(router, service, "PUT", "/status",
                [](Call& call, Connection& conn, const std::string& app, const ThingCaller& caller,
                   ThingRow& thing) -> Answer {
                  call.requireMediaType({kStatus});
                  auto body = call.jsonObject();
                  auto disabled = body.find("disabled");
                  if (disabled == body.end() || !disabled->is_boolean()) {
                    throw invalidThingData("disabled must be true or false");
                  }
                  requireOwnerOrSelf(conn, app, thing, caller);
                  thing.disabled = disabled->get<bool>();
                  thing.modified = std::max(Service::now(), thing.modified);
                  updateThing(conn, app, thing);
                  return std::nullopt;
                });

  addThingRoute(router, service, "DELETE", "",
                [](Call&, Connection& conn, const std::string& app, const ThingCaller& caller,
                   ThingRow& thing) -> Answer {
                  if (!ownedBy(conn, app, thing, caller)) {
                    throw forbidden("Only the thing's owners may delete it");
                  }
                  // Its buckets, topics, grants and subscriptions go with it.
                  dropScopeBuckets(conn, app, ScopeKind::Thing, thing.thingID);
                  dropScopeTopics(conn, app, {ScopeKind::Thing, thing.thingID});
                  forgetSubject(conn, app, "ThingID:" + thing.thingID);
                  forgetSubscriber(conn, app, "things/" + thing.thingID);
                  deleteThing(conn, app, thing.thingID);
                  return std::nullopt;
                });

  addThingRoute(router, service, "POST", "/ownership",
                [](Call& call, Connection& conn, const std::string& app, const ThingCaller& caller,
                   ThingRow& thing) -> Answer {
                  call.requireMediaType({kOwnership});
                  auto body = call.jsonObject();
                  auto password = body.find("thingPassword");
                  if (password == body.end() || !password->is_string()) {
                    throw invalidInput("thingPassword is required");
                  }
                  const std::string owner =
                      body.contains("userID")
                          ? existingOwner(conn, app, "UserID:" + requiredString(body, "userID"))
                          : existingOwner(conn, app, "GroupID:" + requiredString(body, "groupID"));
                  // The caller makes itself an owner, or a group it belongs to.
                  if (!caller.user || !caller.speaksFor(owner)) {
                    throw forbidden("A user makes only itself or its groups owners");
                  }
                  if (!verifyPassword(password->get<std::string>(), thing.passwordHash)) {
                    throw forbidden("The thing's password is wrong");
                  }
                  addOwner(conn, app, thing, owner);
                  return std::nullopt;
                });

  addThingRoute(router, service, "PUT", "/ownership/{}",
                [](Call& call, Connection& conn, const std::string& app, const ThingCaller& caller,
                   ThingRow& thing) -> Answer {
                  requireOwnerOrSelf(conn, app, thing, caller);
                  addOwner(conn, app, thing, existingOwner(conn, app, call.param(2)));
                  return std::nullopt;
                });

  // Removing an owner and asking whether one is: owners, the thing, and the user named.
  for (const bool remove : {true, false}) {
    addThingRoute(router, service, remove ? "DELETE" : "GET", "/ownership/{}",
                  [remove](Call& call, Connection& conn, const std::string& app,
                           const ThingCaller& caller, ThingRow& thing) -> Answer {
                    auto owner = existingOwner(conn, app, call.param(2));
                    const bool self = caller.user && owner == "UserID:" + caller.user->userID;
                    if (!self) requireOwnerOrSelf(conn, app, thing, caller);
                    const auto owners = thingOwners(conn, app, thing.thingID);
                    if (std::find(owners.begin(), owners.end(), owner) == owners.end()) {
                      throw ApiError(404, "THING_OWNERSHIP_NOT_FOUND", owner + " does not own it");
                    }
                    if (remove) removeThingOwner(conn, app, thing.thingID, owner);
                    return std::nullopt;
                  });
  }
}

}  // namespace jovemu
