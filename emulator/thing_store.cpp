#include "thing_store.hpp"

#include "crypto.hpp"

namespace jovemu {

namespace {

constexpr const char* kThingColumns =
    "thing_id, vendor_thing_id, thing_type, password_hash, fields, disabled, created, modified";

ThingRow readThing(const Statement& stmt) {
  ThingRow row{stmt.textOr(0),
               stmt.textOr(1),
               stmt.textOr(2),
               stmt.textOr(3),
               nlohmann::json::parse(stmt.textOr(4, "{}"), nullptr, false),
               stmt.integer(5) != 0,
               stmt.integer(6),
               stmt.integer(7)};
  if (!row.fields.is_object()) row.fields = nlohmann::json::object();
  return row;
}

}  // namespace

std::optional<ThingRow> findThing(Connection& conn, const std::string& appID,
                                  const std::string& thingID) {
  auto stmt = conn.prepare(std::string("SELECT ") + kThingColumns +
                           " FROM things WHERE app_id = ?1 AND thing_id = ?2");
  stmt.bind(1, appID).bind(2, thingID);
  if (!stmt.step()) return std::nullopt;
  return readThing(stmt);
}

std::optional<ThingRow> findThingByVendorID(Connection& conn, const std::string& appID,
                                            const std::string& vendorThingID) {
  auto stmt = conn.prepare(std::string("SELECT ") + kThingColumns +
                           " FROM things WHERE app_id = ?1 AND vendor_thing_id = ?2");
  stmt.bind(1, appID).bind(2, vendorThingID);
  if (!stmt.step()) return std::nullopt;
  return readThing(stmt);
}

void insertThing(Connection& conn, const std::string& appID, const ThingRow& thing) {
  auto stmt = conn.prepare(
      "INSERT INTO things (app_id, thing_id, vendor_thing_id, thing_type, password_hash, fields, "
      "disabled, created, modified) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)");
  stmt.bind(1, appID).bind(2, thing.thingID).bind(3, thing.vendorThingID);
  stmt.bind(4, thing.thingType).bind(5, thing.passwordHash).bind(6, thing.fields.dump());
  stmt.bind(7, thing.disabled).bind(8, thing.created).bind(9, thing.modified);
  stmt.run();
}

void updateThing(Connection& conn, const std::string& appID, const ThingRow& thing) {
  auto stmt = conn.prepare(
      "UPDATE things SET fields = ?3, disabled = ?4, modified = ?5 "
      "WHERE app_id = ?1 AND thing_id = ?2");
  stmt.bind(1, appID).bind(2, thing.thingID).bind(3, thing.fields.dump());
  stmt.bind(4, thing.disabled).bind(5, thing.modified);
  stmt.run();
}

void deleteThing(Connection& conn, const std::string& appID, const std::string& thingID) {
  for (const char* table : {"thing_owners", "thing_tokens", "things"}) {
    auto stmt =
        conn.prepare(std::string("DELETE FROM ") + table + " WHERE app_id = ?1 AND thing_id = ?2");
    stmt.bind(1, appID).bind(2, thingID);
    stmt.run();
  }
}

std::vector<ThingRow> listThings(Connection& conn, const std::string& appID,
                                 const std::optional<std::string>& after, int limit) {
  auto stmt = conn.prepare(std::string("SELECT ") + kThingColumns +
                           " FROM things WHERE app_id = ?1 AND (?2 IS NULL OR thing_id > ?2) "
                           "ORDER BY thing_id LIMIT ?3");
  stmt.bind(1, appID).bind(2, after).bind(3, limit);
  std::vector<ThingRow> rows;
  while (stmt.step()) rows.push_back(readThing(stmt));
  return rows;
}

std::vector<std::string> thingOwners(Connection& conn, const std::string& appID,
                                     const std::string& thingID) {
  auto stmt = conn.prepare(
      "SELECT owner FROM thing_owners WHERE app_id = ?1 AND thing_id = ?2 ORDER BY owner");
  stmt.bind(1, appID).bind(2, thingID);
  std::vector<std::string> owners;
  while (stmt.step()) owners.push_back(stmt.textOr(0));
  return owners;
}

bool addThingOwner(Connection& conn, const std::string& appID, const std::string& thingID,
                   const std::string& owner, std::int64_t nowMs) {
  auto stmt = conn.prepare(
      "INSERT OR IGNORE INTO thing_owners (app_id, thing_id, owner, created) "
      "VALUES (?1, ?2, ?3, ?4)");
  stmt.bind(1, appID).bind(2, thingID).bind(3, owner).bind(4, nowMs);
  stmt.run();
  return conn.changes() > 0;
}

bool removeThingOwner(Connection& conn, const std::string& appID, const std::string& thingID,
                      const std::string& owner) {
  auto stmt =
      conn.prepare("DELETE FROM thing_owners WHERE app_id = ?1 AND thing_id = ?2 AND owner = ?3");
  stmt.bind(1, appID).bind(2, thingID).bind(3, owner);
  stmt.run();
  return conn.changes() > 0;
}

void forgetThingOwner(Connection& conn, const std::string& appID, const std::string& owner) {
  auto stmt = conn.prepare("DELETE FROM thing_owners WHERE app_id = ?1 AND owner = ?2");
  stmt.bind(1, appID).bind(2, owner);
  stmt.run();
}

std::string issueThingToken(Connection& conn, const std::string& appID,
                            const std::string& thingID) {
  std::string token = randomHex(24);
  auto stmt =
      conn.prepare("INSERT INTO thing_tokens (app_id, token, thing_id) VALUES (?1, ?2, ?3)");
  stmt.bind(1, appID).bind(2, token).bind(3, thingID);
  stmt.run();
  return token;
}

std::optional<std::string> thingOfToken(Connection& conn, const std::string& appID,
                                        const std::string& token) {
  auto stmt = conn.prepare("SELECT thing_id FROM thing_tokens WHERE app_id = ?1 AND token = ?2");
  stmt.bind(1, appID).bind(2, token);
  if (!stmt.step()) return std::nullopt;
  return stmt.textOr(0);
}

}  // namespace jovemu
