#include "group_store.hpp"

#include "acl_store.hpp"
#include "push_store.hpp"
#include "thing_store.hpp"

namespace jovemu {

namespace {

GroupRow readGroup(const Statement& row) {
  return GroupRow{row.textOr(0), row.textOr(1), row.textOr(2), row.integer(3), row.integer(4)};
}

std::vector<GroupRow> readGroups(Statement& stmt) {
  std::vector<GroupRow> out;
  while (stmt.step()) out.push_back(readGroup(stmt));
  return out;
}

}  // namespace

std::optional<GroupRow> findGroup(Connection& conn, const std::string& appID,
                                  const std::string& groupID) {
  auto stmt = conn.prepare(
      "SELECT group_id, name, owner, created, modified FROM groups "
      "WHERE app_id = ?1 AND group_id = ?2");
  stmt.bind(1, appID).bind(2, groupID);
  if (!stmt.step()) return std::nullopt;
  return readGroup(stmt);
}

void insertGroup(Connection& conn, const std::string& appID, const GroupRow& group) {
  auto stmt = conn.prepare(
      "INSERT INTO groups (app_id, group_id, name, owner, created, modified) "
      "VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
  stmt.bind(1, appID).bind(2, group.groupID).bind(3, group.name).bind(4, group.owner);
  stmt.bind(5, group.created).bind(6, group.modified);
  stmt.run();
}

void renameGroup(Connection& conn, const std::string& appID, const std::string& groupID,
                 const std::string& name, std::int64_t nowMs) {
  auto stmt = conn.prepare(
      "UPDATE groups SET name = ?3, modified = ?4 WHERE app_id = ?1 AND group_id = ?2");
  stmt.bind(1, appID).bind(2, groupID).bind(3, name).bind(4, nowMs);
  stmt.run();
}

void deleteGroup(Connection& conn, const std::string& appID, const std::string& groupID) {
  // The group's buckets go with it, and so do the grants naming it.
  dropScopeBuckets(conn, appID, ScopeKind::Group, groupID);
  forgetSubject(conn, appID, "GroupID:" + groupID);
  forgetThingOwner(conn, appID, "GroupID:" + groupID);
  dropScopeTopics(conn, appID, {ScopeKind::Group, groupID});
  {
    auto stmt = conn.prepare("DELETE FROM group_members WHERE app_id = ?1 AND group_id = ?2");
    stmt.bind(1, appID).bind(2, groupID);
    stmt.run();
  }
  auto stmt = conn.prepare("DELETE FROM groups WHERE app_id = ?1 AND group_id = ?2");
  stmt.bind(1, appID).bind(2, groupID);
  stmt.run();
}

void addMember(Connection& conn, const std::string& appID, const std::string& groupID,
               const std::string& userID, std::int64_t nowMs) {
  auto stmt = conn.prepare(
      "INSERT OR IGNORE INTO group_members (app_id, group_id, user_id, added) "
      "VALUES (?1, ?2, ?3, ?4)");
  stmt.bind(1, appID).bind(2, groupID).bind(3, userID).bind(4, nowMs);
  stmt.run();
}

void removeMember(Connection& conn, const std::string& appID, const std::string& groupID,
                  const std::string& userID) {
  auto stmt = conn.prepare(
      "DELETE FROM group_members WHERE app_id = ?1 AND group_id = ?2 AND user_id = ?3");
  stmt.bind(1, appID).bind(2, groupID).bind(3, userID);
  stmt.run();
}

std::vector<std::string> groupMembers(Connection& conn, const std::string& appID,
                                      const std::string& groupID) {
  auto stmt = conn.prepare(
      "SELECT user_id FROM group_members WHERE app_id = ?1 AND group_id = ?2 "
      "ORDER BY added, rowid");
  stmt.bind(1, appID).bind(2, groupID);
  std::vector<std::string> out;
  while (stmt.step()) out.push_back(stmt.textOr(0));
  return out;
}

std::vector<GroupRow> groupsWithMember(Connection& conn, const std::string& appID,
                                       const std::string& userID) {
  auto stmt = conn.prepare(
      "SELECT g.group_id, g.name, g.owner, g.created, g.modified FROM groups g "
      "JOIN group_members m ON m.app_id = g.app_id AND m.group_id = g.group_id "
      "WHERE g.app_id = ?1 AND m.user_id = ?2 ORDER BY g.created, g.group_id");
  stmt.bind(1, appID).bind(2, userID);
  return readGroups(stmt);
}

std::vector<GroupRow> groupsOwnedBy(Connection& conn, const std::string& appID,
                                    const std::string& userID) {
  auto stmt = conn.prepare(
      "SELECT group_id, name, owner, created, modified FROM groups "
      "WHERE app_id = ?1 AND owner = ?2 ORDER BY created, group_id");
  stmt.bind(1, appID).bind(2, userID);
  return readGroups(stmt);
}

void removeUserFromGroups(Connection& conn, const std::string& appID, const std::string& userID) {
  for (const auto& group : groupsOwnedBy(conn, appID, userID)) {
    deleteGroup(conn, appID, group.groupID);
  }
  auto stmt = conn.prepare("DELETE FROM group_members WHERE app_id = ?1 AND user_id = ?2");
  stmt.bind(1, appID).bind(2, userID);
  stmt.run();
}

nlohmann::json groupRecord(const GroupRow& group) {
  return {{"groupID", group.groupID},
          {"name", group.name},
          {"owner", group.owner},
          {"_created", group.created},
          {"_modified", group.modified}};
}

}  // namespace jovemu
