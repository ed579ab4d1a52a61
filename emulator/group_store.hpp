// Groups of users: a name, an owner and members.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "database.hpp"

namespace jovemu {

struct GroupRow {
  std::string groupID;
  std::string name;
  std::string owner;
  std::int64_t created = 0;
  std::int64_t modified = 0;
};

std::optional<GroupRow> findGroup(Connection& conn, const std::string& appID,
                                  const std::string& groupID);
void insertGroup(Connection& conn, const std::string& appID, const GroupRow& group);
void renameGroup(Connection& conn, const std::string& appID, const std::string& groupID,
                 const std::string& name, std::int64_t nowMs);
/// @brief Removes the group and its member list.
void deleteGroup(Connection& conn, const std::string& appID, const std::string& groupID);

void addMember(Connection& conn, const std::string& appID, const std::string& groupID,
               const std::string& userID, std::int64_t nowMs);
void removeMember(Connection& conn, const std::string& appID, const std::string& groupID,
                  const std::string& userID);
/// @brief Member IDs in the order they joined.
std::vector<std::string> groupMembers(Connection& conn, const std::string& appID,
                                      const std::string& groupID);

std::vector<GroupRow> groupsWithMember(Connection& conn, const std::string& appID,
                                       const std::string& userID);
std::vector<GroupRow> groupsOwnedBy(Connection& conn, const std::string& appID,
                                    const std::string& userID);

/// @brief A deleted user leaves every group; the groups it owned go with it.
void removeUserFromGroups(Connection& conn, const std::string& appID, const std::string& userID);

/// @brief {"groupID", "name", "owner", "_created", "_modified"}.
nlohmann::json groupRecord(const GroupRow& group);

}  // namespace jovemu
