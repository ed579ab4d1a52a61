// Things: registered devices, their owners and the access tokens of things that registered
// themselves.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "database.hpp"

namespace jovemu {

struct ThingRow {
  std::string thingID;
  std::string vendorThingID;
  std::string thingType;
  std::string passwordHash;
  nlohmann::json fields = nlohmann::json::object();  ///< predefined ("_vendor", ...) and custom
  bool disabled = false;
  std::int64_t created = 0;
  std::int64_t modified = 0;
};

std::optional<ThingRow> findThing(Connection& conn, const std::string& appID,
                                  const std::string& thingID);
std::optional<ThingRow> findThingByVendorID(Connection& conn, const std::string& appID,
                                            const std::string& vendorThingID);
void insertThing(Connection& conn, const std::string& appID, const ThingRow& thing);
/// @brief Writes the fields, the disabled flag and the modification time.
void updateThing(Connection& conn, const std::string& appID, const ThingRow& thing);
/// @brief Removes the thing, its owners and its tokens.
void deleteThing(Connection& conn, const std::string& appID, const std::string& thingID);
/// @brief Up to `limit` things in thing ID order, after `after` when given.
std::vector<ThingRow> listThings(Connection& conn, const std::string& appID,
                                 const std::optional<std::string>& after, int limit);

/// @brief The owners of a thing: "UserID:x" and "GroupID:y".
std::vector<std::string> thingOwners(Connection& conn, const std::string& appID,
                                     const std::string& thingID);
/// @brief Adds an owner; false when it owns the thing already.
bool addThingOwner(Connection& conn, const std::string& appID, const std::string& thingID,
                   const std::string& owner, std::int64_t nowMs);
/// @brief Removes an owner; false when it did not own the thing.
bool removeThingOwner(Connection& conn, const std::string& appID, const std::string& thingID,
                      const std::string& owner);
/// @brief Forgets an owner everywhere (its user or group is gone).
void forgetThingOwner(Connection& conn, const std::string& appID, const std::string& owner);

/// @brief A new access token for a thing.
std::string issueThingToken(Connection& conn, const std::string& appID, const std::string& thingID);
/// @brief The thing an access token belongs to.
std::optional<std::string> thingOfToken(Connection& conn, const std::string& appID,
                                        const std::string& token);

}  // namespace jovemu
