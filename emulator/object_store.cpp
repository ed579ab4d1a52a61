#include "object_store.hpp"

#include <cmath>
#include <mutex>
#include <regex>
#include <unordered_set>

#include "acl_store.hpp"
#include "body_store.hpp"

namespace jovemu {

namespace {

constexpr std::string_view kCryptoPrefix = "CRYPTO:";

[[noreturn]] void fail(sqlite3* db, const std::string& what) {
  throw DatabaseError(what + ": " + sqlite3_errmsg(db));
}

std::string hexOf(const std::string& text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : text) {
    out.push_back(kDigits[c >> 4]);
    out.push_back(kDigits[c & 15]);
  }
  return out;
}

BucketRow readBucket(const Statement& row, const std::string& appID) {
  BucketRow bucket;
  bucket.key = row.integer(0);
  bucket.appID = appID;
  std::string scope = row.textOr(1);
  bucket.scope.kind = scope == "user"    ? ScopeKind::User
                      : scope == "group" ? ScopeKind::Group
                      : scope == "thing" ? ScopeKind::Thing
                                         : ScopeKind::App;
  bucket.scope.ownerID = row.textOr(2);
  bucket.name = row.textOr(3);
  bucket.creator = row.text(4);
  bucket.created = row.integer(5);
  return bucket;
}

bool toDouble(sqlite3_value* value, double& out) {
  int type = sqlite3_value_type(value);
  if (type != SQLITE_INTEGER && type != SQLITE_FLOAT) return false;
  out = sqlite3_value_double(value);
  return true;
}

void distanceFunction(sqlite3_context* context, int, sqlite3_value** args) {
  double lat1, lon1, lat2, lon2;
  if (!toDouble(args[0], lat1) || !toDouble(args[1], lon1) || !toDouble(args[2], lat2) ||
      !toDouble(args[3], lon2)) {
    sqlite3_result_null(context);
    return;
  }
  sqlite3_result_double(context, haversineMetres(lat1, lon1, lat2, lon2));
}

}  // namespace

const char* scopeWord(ScopeKind kind) {
  switch (kind) {
    case ScopeKind::User:
      return "user";
    case ScopeKind::Group:
      return "group";
    case ScopeKind::Thing:
      return "thing";
    case ScopeKind::App:
      break;
  }
  return "app";
}

bool isValidBucketName(const std::string& name) {
  static const std::regex pattern("[a-zA-Z0-9_.-]{2,64}");
  std::string_view plain(name);
  if (plain.starts_with(kCryptoPrefix)) plain.remove_prefix(kCryptoPrefix.size());
  return std::regex_match(plain.begin(), plain.end(), pattern);
}

bool isValidObjectID(const std::string& id) {
  static const std::regex pattern("[a-zA-Z0-9_.-]{2,100}");
  return std::regex_match(id, pattern);
}

std::optional<BucketRow> findBucket(Connection& conn, const std::string& appID,
                                    const BucketScope& scope, const std::string& name) {
  auto stmt = conn.prepare(
      "SELECT bucket_key, scope, owner_id, name, creator, created FROM buckets "
      "WHERE app_id = ?1 AND scope = ?2 AND owner_id = ?3 AND name = ?4");
  stmt.bind(1, appID).bind(2, scopeWord(scope.kind)).bind(3, scope.ownerID).bind(4, name);
  if (!stmt.step()) return std::nullopt;
  return readBucket(stmt, appID);
}

BucketRow createBucket(Connection& conn, const std::string& appID, const BucketScope& scope,
                       const std::string& name, const std::optional<std::string>& creator,
                       std::int64_t nowMs) {
  {
    auto stmt = conn.prepare(
        "INSERT INTO buckets (app_id, scope, owner_id, name, creator, created) "
        "VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
    stmt.bind(1, appID).bind(2, scopeWord(scope.kind)).bind(3, scope.ownerID).bind(4, name);
    stmt.bind(5, creator).bind(6, nowMs);
    stmt.run();
  }
  BucketRow bucket{sqlite3_last_insert_rowid(conn.handle()), appID, scope, name, creator, nowMs};
  // The table name is built from our own integer key, never from the request.
  std::string sql = "CREATE TABLE " + bucket.table() +
                    " (id TEXT PRIMARY KEY, doc TEXT NOT NULL, version INTEGER NOT NULL,"
                    " created INTEGER NOT NULL, modified INTEGER NOT NULL, owner TEXT)";
  conn.exec(sql.c_str());
  return bucket;
}

void dropBucket(Connection& conn, const BucketRow& bucket) {
  std::string sql = "DROP TABLE IF EXISTS " + bucket.table();
  conn.exec(sql.c_str());
  dropBucketEntries(conn, bucket.key);
  forgetBucketBodies(conn, bucket.key);
  for (const char* statement : {"DELETE FROM push_bucket_subscriptions WHERE bucket_key = ?1",
                                "DELETE FROM buckets WHERE bucket_key = ?1"}) {
    auto stmt = conn.prepare(statement);
    stmt.bind(1, bucket.key);
    stmt.run();
  }
}

void dropScopeBuckets(Connection& conn, const std::string& appID, ScopeKind kind,
                      const std::string& ownerID) {
  std::vector<BucketRow> buckets;
  {
    auto stmt = conn.prepare(
        "SELECT bucket_key, scope, owner_id, name, creator, created FROM buckets "
        "WHERE app_id = ?1 AND scope = ?2 AND owner_id = ?3");
    stmt.bind(1, appID).bind(2, scopeWord(kind)).bind(3, ownerID);
    while (stmt.step()) buckets.push_back(readBucket(stmt, appID));
  }
  for (const auto& bucket : buckets) dropBucket(conn, bucket);
}

std::optional<ObjectRow> findObject(Connection& conn, const BucketRow& bucket,
                                    const std::string& id) {
  OneShotStatement stmt(conn, "SELECT id, doc, version, created, modified, owner FROM " +
                                  bucket.table() + " WHERE id = ?1");
  stmt.bind(1, id);
  if (!stmt.step()) return std::nullopt;
  ObjectRow row;
  row.id = stmt.text(0);
  row.doc = nlohmann::json::parse(stmt.text(1));
  row.version = std::get<std::int64_t>(stmt.value(2));
  row.created = std::get<std::int64_t>(stmt.value(3));
  row.modified = std::get<std::int64_t>(stmt.value(4));
  if (auto owner = stmt.value(5); std::holds_alternative<std::string>(owner)) {
    row.owner = std::get<std::string>(owner);
  }
  return row;
}

void storeObject(Connection& conn, const BucketRow& bucket, ObjectRow& object,
                 const std::optional<std::string>& dataType) {
  object.doc["_id"] = object.id;
  object.doc["_created"] = object.created;
  object.doc["_modified"] = object.modified;
  object.doc["_version"] = std::to_string(object.version);
  if (object.owner) object.doc["_owner"] = *object.owner;
  if (dataType) object.doc["_dataType"] = *dataType;
  OneShotStatement stmt(conn, "INSERT OR REPLACE INTO " + bucket.table() +
                                  " (id, doc, version, created, modified, owner)"
                                  " VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
  stmt.bind(1, object.id);
  stmt.bind(2, object.doc.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  stmt.bind(3, object.version);
  stmt.bind(4, object.created);
  stmt.bind(5, object.modified);
  stmt.bind(6, object.owner ? SqlValue(*object.owner) : SqlValue(nullptr));
  while (stmt.step()) {
  }
}

bool deleteObject(Connection& conn, const BucketRow& bucket, const std::string& id) {
  OneShotStatement stmt(conn, "DELETE FROM " + bucket.table() + " WHERE id = ?1");
  stmt.bind(1, id);
  while (stmt.step()) {
  }
  if (conn.changes() == 0) return false;
  dropObjectEntries(conn, bucket.key, id);
  return true;
}

OneShotStatement::OneShotStatement(Connection& conn, const std::string& sql) {
  if (sqlite3_prepare_v2(conn.handle(), sql.c_str(), static_cast<int>(sql.size()), &stmt_,
                         nullptr) != SQLITE_OK) {
    fail(conn.handle(), "prepare");
  }
}

OneShotStatement::~OneShotStatement() {
  sqlite3_finalize(stmt_);
}

void OneShotStatement::bind(int index, const SqlValue& value) {
  int rc = std::visit(
      [&](const auto& v) {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::nullptr_t>) {
          return sqlite3_bind_null(stmt_, index);
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
          return sqlite3_bind_int64(stmt_, index, v);
        } else if constexpr (std::is_same_v<T, double>) {
          return sqlite3_bind_double(stmt_, index, v);
        } else {
          return sqlite3_bind_text(stmt_, index, v.data(), static_cast<int>(v.size()),
                                   SQLITE_TRANSIENT);
        }
      },
      value);
  if (rc != SQLITE_OK) fail(sqlite3_db_handle(stmt_), "bind");
}

bool OneShotStatement::step() {
  int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  fail(sqlite3_db_handle(stmt_), "step");
}

SqlValue OneShotStatement::value(int column) const {
  switch (sqlite3_column_type(stmt_, column)) {
    case SQLITE_INTEGER:
      return static_cast<std::int64_t>(sqlite3_column_int64(stmt_, column));
    case SQLITE_FLOAT:
      return sqlite3_column_double(stmt_, column);
    case SQLITE_NULL:
      return nullptr;
    default:
      return text(column);
  }
}

std::string OneShotStatement::text(int column) const {
  const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
  if (!data) return {};
  return std::string(data, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)));
}

double haversineMetres(double lat1, double lon1, double lat2, double lon2) {
  constexpr double kRad = M_PI / 180.0;
  double dLat = (lat2 - lat1) * kRad;
  double dLon = (lon2 - lon1) * kRad;
  double a = std::sin(dLat / 2) * std::sin(dLat / 2) + std::cos(lat1 * kRad) *
                                                           std::cos(lat2 * kRad) *
                                                           std::sin(dLon / 2) * std::sin(dLon / 2);
  return 2 * kEarthRadiusMetres * std::asin(std::min(1.0, std::sqrt(a)));
}

void registerObjectFunctions(Connection& conn) {
  // Called under the database lock; one registration per connection.
  static std::unordered_set<sqlite3*> registered;
  if (registered.contains(conn.handle())) return;
  if (sqlite3_create_function_v2(conn.handle(), "jov_distance", 4,
                                 SQLITE_UTF8 | SQLITE_DETERMINISTIC, nullptr, distanceFunction,
                                 nullptr, nullptr, nullptr) != SQLITE_OK) {
    fail(conn.handle(), "create function");
  }
  registered.insert(conn.handle());
}

void ensureFieldIndex(Connection& conn, const BucketRow& bucket, const std::string& field,
                      const std::string& expression) {
  std::string name = bucket.table() + "_f" + hexOf(field);
  int existing = 0;
  {
    auto stmt = conn.prepare(
        "SELECT count(*), sum(name = ?2) FROM sqlite_master WHERE type = 'index' AND tbl_name = ?1 "
        "AND sql IS NOT NULL");
    stmt.bind(1, bucket.table()).bind(2, name);
    if (stmt.step()) {
      if (stmt.integer(1) > 0) return;
      existing = static_cast<int>(stmt.integer(0));
    }
  }
  if (existing >= kMaxFieldIndexes) return;
  // The expression holds a JSON path the query layer validated: no quote can end it early.
  std::string sql =
      "CREATE INDEX \"" + name + "\" ON " + bucket.table() + " (" + expression + ", id)";
  conn.exec(sql.c_str());
}

}  // namespace jovemu
