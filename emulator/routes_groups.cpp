// Groups: creation (server or client ID), reading, renaming, members, deletion and lists.
#include "api_error.hpp"
#include "crypto.hpp"
#include "group_store.hpp"
#include "service.hpp"
#include "validation.hpp"

namespace jovemu {

namespace {

constexpr const char* kGroupCreation = "application/vnd.jov.GroupCreationRequest+json";

struct GroupRequest {
  std::string name;
  std::optional<std::string> owner;
  std::vector<std::string> members;
};

GroupRequest readGroupRequest(const Call& call) {
  call.requireMediaType({kGroupCreation});
  auto body = call.jsonObject();
  GroupRequest request;
  request.name = requiredString(body, "name");
  if (!isValidGroupName(request.name)) {
    throw invalidInput("There are validation errors: name - must be 1-190 characters");
  }
  request.owner = optionalString(body, "owner");
  auto members = body.find("members");
  if (members != body.end() && !members->is_null()) {
    if (!members->is_array()) {
      throw invalidInput("There are validation errors: members - must be an array of user IDs");
    }
    for (const auto& member : *members) {
      if (!member.is_string()) {
        throw invalidInput("There are validation errors: members - must be an array of user IDs");
      }
      request.members.push_back(member.get<std::string>());
    }
  }
  return request;
}

nlohmann::json createGroup(Service& service, const Call& call, const std::string& appID,
                           const GroupRequest& request, std::optional<std::string> groupID) {
  return service.db.transaction([&](Connection& conn) {
    auto caller = service.requireUser(call, conn, appID);
    if (request.owner && *request.owner != caller.userID) {
      throw forbidden("A group can only be created with the caller as its owner");
    }
    if (groupID && findGroup(conn, appID, *groupID)) {
      throw ApiError(409, "GROUP_ALREADY_EXISTS", "A group with this ID already exists");
    }
    for (const auto& member : request.members) {
      if (!findUser(conn, appID, member))
        throw userNotFound("The member " + member + " was not found");
    }
    auto now = Service::now();
    GroupRow group{groupID.value_or(randomHex(12)), request.name, caller.userID, now, now};
    insertGroup(conn, appID, group);
    // The owner belongs to its own group.
    addMember(conn, appID, group.groupID, caller.userID, now);
    for (const auto& member : request.members) addMember(conn, appID, group.groupID, member, now);
    return groupRecord(group);
  });
}

GroupRow existingGroup(Connection& conn, const std::string& appID, const std::string& groupID) {
  auto group = findGroup(conn, appID, groupID);
  if (!group) throw groupNotFound();
  return *group;
}

void requireOwner(const GroupRow& group, const UserRow& caller) {
  if (group.owner != caller.userID) throw forbidden("Only the owner of the group may do this");
}

nlohmann::json groupList(const std::vector<GroupRow>& groups) {
  auto list = nlohmann::json::array();
  for (const auto& group : groups) list.push_back(groupRecord(group));
  return {{"groups", list}};
}

void listGroups(Service& service, Call& call, const std::string& appID) {
  auto member = call.query("is_member");
  auto owner = call.query("owner");
  if (!member && !owner) throw invalidInput("Either is_member or owner must be given");
  auto list = service.db.transaction([&](Connection& conn) {
    service.requireUser(call, conn, appID);
    return groupList(member ? groupsWithMember(conn, appID, *member)
                            : groupsOwnedBy(conn, appID, *owner));
  });
  call.reply(200, list);
}

void changeMember(Service& service, Call& call, const std::string& appID, bool add) {
  service.db.transaction([&](Connection& conn) {
    auto caller = service.requireUser(call, conn, appID);
    auto group = existingGroup(conn, appID, call.param(1));
    const std::string& userID = call.param(2);
    if (!findUser(conn, appID, userID)) throw userNotFound();
    // A member may leave on its own; everything else is the owner's.
    if (add || userID != caller.userID) requireOwner(group, caller);
    if (add) {
      addMember(conn, appID, group.groupID, userID, Service::now());
    } else {
      removeMember(conn, appID, group.groupID, userID);
    }
  });
  call.replyNoContent();
}

}  // namespace

void addGroupRoutes(Router& router, Service& service) {
  addApiRoute(router, service, "POST", "/groups", [&service](Call& call, const std::string& app) {
    auto request = readGroupRequest(call);
    call.reply(201, createGroup(service, call, app, request, std::nullopt));
  });

  addApiRoute(router, service, "GET", "/groups",
              [&service](Call& call, const std::string& app) { listGroups(service, call, app); });

  addApiRoute(router, service, "PUT", "/groups/{}", [&service](Call& call, const std::string& app) {
    if (!isValidGroupID(call.param(1))) {
      throw invalidInput("The group ID must be 1-30 of a-z, 0-9, '.', '_' and '-'");
    }
    auto request = readGroupRequest(call);
    call.reply(201, createGroup(service, call, app, request, call.param(1)));
  });

  addApiRoute(router, service, "GET", "/groups/{}", [&service](Call& call, const std::string& app) {
    auto record = service.db.transaction([&](Connection& conn) {
      service.requireUser(call, conn, app);
      return groupRecord(existingGroup(conn, app, call.param(1)));
    });
    call.reply(200, record);
  });

  addApiRoute(router, service, "DELETE", "/groups/{}",
              [&service](Call& call, const std::string& app) {
                service.db.transaction([&](Connection& conn) {
                  auto caller = service.requireUser(call, conn, app);
                  auto group = existingGroup(conn, app, call.param(1));
                  requireOwner(group, caller);
                  deleteGroup(conn, app, group.groupID);
                });
                call.replyNoContent();
              });

  addApiRoute(router, service, "PUT", "/groups/{}/name",
              [&service](Call& call, const std::string& app) {
                call.requireMediaType({"text/plain"});
                const std::string& name = call.rawBody();
                if (!isValidGroupName(name)) {
                  throw invalidInput("The group name must be 1-190 characters");
                }
                service.db.transaction([&](Connection& conn) {
                  auto caller = service.requireUser(call, conn, app);
                  auto group = existingGroup(conn, app, call.param(1));
                  requireOwner(group, caller);
                  renameGroup(conn, app, group.groupID, name, Service::now());
                });
                call.replyNoContent();
              });

  addApiRoute(router, service, "GET", "/groups/{}/members",
              [&service](Call& call, const std::string& app) {
                auto members = service.db.transaction([&](Connection& conn) {
                  service.requireUser(call, conn, app);
                  auto group = existingGroup(conn, app, call.param(1));
                  auto list = nlohmann::json::array();
                  for (const auto& id : groupMembers(conn, app, group.groupID)) {
                    list.push_back({{"userID", id}});
                  }
                  return nlohmann::json{{"members", list}};
                });
                call.reply(200, members);
              });

  addApiRoute(
      router, service, "PUT", "/groups/{}/members/{}",
      [&service](Call& call, const std::string& app) { changeMember(service, call, app, true); });
  addApiRoute(
      router, service, "DELETE", "/groups/{}/members/{}",
      [&service](Call& call, const std::string& app) { changeMember(service, call, app, false); });
}

}  // namespace jovemu
