// Buckets and their objects. Each bucket keeps its objects in a table of its own
// ("bucket_objects_<key>"), so that a field index built for one bucket serves that bucket's
// queries alone and dropping a bucket is dropping its table.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "database.hpp"

namespace jovemu {

/// @brief Who a bucket (or a topic) belongs to.
enum class ScopeKind { App, User, Group, Thing };

/// @brief "app", "user", "group" or "thing": the word stored with the bucket.
const char* scopeWord(ScopeKind kind);

struct BucketScope {
  ScopeKind kind = ScopeKind::App;
  std::string ownerID;  ///< the user, group or thing ID; empty for the application scope
};

struct BucketRow {
  std::int64_t key = 0;
  std::string appID;
  BucketScope scope;
  std::string name;  ///< as addressed, "CRYPTO:" included for an encrypted bucket
  std::optional<std::string> creator;
  std::int64_t created = 0;

  /// @brief The table holding the bucket's objects; built from the key alone.
  std::string table() const { return "bucket_objects_" + std::to_string(key); }
};

/// @brief Whether a bucket name (after an optional "CRYPTO:") is 2-64 of letters, digits, "-",
/// "_" and ".".
bool isValidBucketName(const std::string& name);
/// @brief Whether an object ID is 2-100 of letters, digits, "-", "_" and ".".
bool isValidObjectID(const std::string& id);

std::optional<BucketRow> findBucket(Connection& conn, const std::string& appID,
                                    const BucketScope& scope, const std::string& name);
/// @brief Creates the bucket row and its object table.
BucketRow createBucket(Connection& conn, const std::string& appID, const BucketScope& scope,
                       const std::string& name, const std::optional<std::string>& creator,
                       std::int64_t nowMs);
/// @brief Drops the bucket's objects, their ACL entries, the bucket's own and the bucket.
void dropBucket(Connection& conn, const BucketRow& bucket);
/// @brief Drops every bucket of a user or group (the owner is being deleted).
void dropScopeBuckets(Connection& conn, const std::string& appID, ScopeKind kind,
                      const std::string& ownerID);

/// @brief One stored object: its document carries the fields and "_id", "_created",
/// "_modified", "_version" (a string), "_owner" and "_dataType" when they apply.
struct ObjectRow {
  std::string id;
  nlohmann::json doc;
  std::int64_t version = 0;
  std::int64_t created = 0;
  std::int64_t modified = 0;
  std::optional<std::string> owner;
};

std::optional<ObjectRow> findObject(Connection& conn, const BucketRow& bucket,
                                    const std::string& id);
/// @brief Writes the object's system fields into its document, then inserts or replaces it.
void storeObject(Connection& conn, const BucketRow& bucket, ObjectRow& object,
                 const std::optional<std::string>& dataType);
/// @brief Removes the object and its ACL entries; false when there was none.
bool deleteObject(Connection& conn, const BucketRow& bucket, const std::string& id);

/// @brief A value bound to a statement built at run time.
using SqlValue = std::variant<std::nullptr_t, std::int64_t, double, std::string>;

/// @brief A statement prepared for one use (query texts vary with the clause tree, so they are
/// not kept in the connection's cache); finalized when it goes out of scope.
class OneShotStatement {
 public:
  OneShotStatement(Connection& conn, const std::string& sql);
  OneShotStatement(const OneShotStatement&) = delete;
  OneShotStatement& operator=(const OneShotStatement&) = delete;
  ~OneShotStatement();

  void bind(int index, const SqlValue& value);
  bool step();
  SqlValue value(int column) const;
  std::string text(int column) const;

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

/// @brief Registers jov_distance(lat1, lon1, lat2, lon2), the great-circle distance in metres
/// (haversine on a sphere of radius kEarthRadiusMetres), on the connection once.
void registerObjectFunctions(Connection& conn);
constexpr double kEarthRadiusMetres = 6371000.0;
double haversineMetres(double lat1, double lon1, double lat2, double lon2);

/// @brief An expression index on (field, id) in the bucket's table, made the first time the
/// field is queried or ordered by; `expression` is the exact text queries use for the field.
/// At most kMaxFieldIndexes per bucket; fields past that are evaluated without an index.
void ensureFieldIndex(Connection& conn, const BucketRow& bucket, const std::string& field,
                      const std::string& expression);
constexpr int kMaxFieldIndexes = 16;

}  // namespace jovemu
