#pragma once
/// @file
/// @brief Queries of a bucket's objects: JovGeoPoint, JovClause and JovQuery.

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "jov/error.hpp"

namespace jov {

class JovObject;
class JovUser;

/// @brief A latitude and longitude in degrees, usable as an object value and in geo clauses.
class JovGeoPoint {
 public:
  /// @brief Raises std::invalid_argument "Given latitude is out of range" outside [-90, 90] and
  /// "Given longitude is out of range" outside [-180, 180] (bounds included).
  JovGeoPoint(double latitude, double longitude);

  /// @brief Degrees north, -90 to 90.
  double latitude() const { return latitude_; }
  /// @brief Degrees east, -180 to 180.
  double longitude() const { return longitude_; }
  /// @brief {"_type": "point", "lat": latitude, "lon": longitude}.
  nlohmann::json toDictionary() const;
  /// @brief The point of a JSON form whose "_type" is "point" with numbers "lat" and "lon";
  /// nothing for anything else (or coordinates out of range).
  static std::optional<JovGeoPoint> toGeoPoint(const nlohmann::json& value);

  /// @brief Equal when both coordinates are.
  bool operator==(const JovGeoPoint&) const = default;

 private:
  double latitude_, longitude_;
};

/// @brief The field types a hasField clause asks for.
enum JovFieldType : std::int32_t {
  JovFieldTypeString = 0,
  JovFieldTypeInteger = 1,
  JovFieldTypeDecimal = 2,
  JovFieldTypeBoolean = 3,
};

/// @brief One condition on a bucket's objects, or a tree of them ("and", "or", "not").
///
/// Clauses are immutable values made by the static constructors; misuse (an empty key, a radius
/// out of range...) raises std::invalid_argument with the texts given below.
class JovClause {
 public:
  /// @brief Clauses are immutable and shared.
  using Ptr = std::shared_ptr<const JovClause>;

  /// @brief {"type": "eq", "field": key, "value": value}.
  static Ptr equals(const std::string& key, const nlohmann::json& value);
  /// @brief Equality with an object or a user, written as its URI.
  static Ptr equals(const std::string& key, const std::shared_ptr<JovObject>& value);
  /// @brief Equality with a user, written as "jovcloud://users/ID".
  static Ptr equals(const std::string& key, const std::shared_ptr<JovUser>& value);
  /// @brief {"type": "not", "clause": the equals clause}.
  static Ptr notEquals(const std::string& key, const nlohmann::json& value);
  /// @brief Inequality with an object, written as its URI.
  static Ptr notEquals(const std::string& key, const std::shared_ptr<JovObject>& value);
  /// @brief Inequality with a user, written as "jovcloud://users/ID".
  static Ptr notEquals(const std::string& key, const std::shared_ptr<JovUser>& value);
  /// @brief Range clauses: {"type": "range", "field": key, "lowerLimit"/"upperLimit": value,
  /// "lowerIncluded"/"upperIncluded": bool}; one limit each (and two for an interval).
  static Ptr greaterThan(const std::string& key, const nlohmann::json& value);
  /// @brief "lowerLimit" with "lowerIncluded": true.
  static Ptr greaterThanOrEqual(const std::string& key, const nlohmann::json& value);
  /// @brief "upperLimit" with "upperIncluded": false.
  static Ptr lessThan(const std::string& key, const nlohmann::json& value);
  /// @brief "upperLimit" with "upperIncluded": true.
  static Ptr lessThanOrEqual(const std::string& key, const nlohmann::json& value);
  /// @brief {"type": "in", "field": key, "values": values}.
  static Ptr in(const std::string& key, const nlohmann::json& values);
  /// @brief {"type": "prefix", "field": key, "prefix": prefix}.
  static Ptr startsWith(const std::string& key, const std::string& prefix);
  /// @brief {"type": "hasField", "field": key, "fieldType": "STRING"|"INTEGER"|"DECIMAL"|
  /// "BOOLEAN"}. Raises "Key should not be nil or empty".
  static Ptr hasField(const std::string& key, JovFieldType type);
  /// @brief {"type": "geobox", "field": key, "box": {"ne": point, "sw": point}}. Raises "Key
  /// should not be nil or empty" and "ne or sw should not be nil".
  static Ptr geoBox(const std::string& key, const std::optional<JovGeoPoint>& northEast,
                    const std::optional<JovGeoPoint>& southWest);
  /// @brief {"type": "geodistance", "field": key, "center": point, "radius": metres,
  /// "putDistanceInto": name (when given)}. Raises "Key should not be nil or empty", "center
  /// should not be nil or empty" and "radius should be in range of ]0, 20000000]".
  static Ptr geoDistance(const std::string& key, const std::optional<JovGeoPoint>& center,
                         double radius, const std::optional<std::string>& putDistanceInto = {});

  /// @brief All of the clauses; an element that is null is skipped.
  static Ptr andClauses(const std::vector<Ptr>& clauses);
  /// @brief Any of the clauses; an element that is null is skipped.
  static Ptr orClauses(const std::vector<Ptr>& clauses);
  /// @brief The negation of a clause; raises "Clause should not be nil" for null.
  static Ptr notClause(const Ptr& clause);

  /// @brief This clause negated: {"type": "not", "clause": ...}; raises "invalid clause" for a
  /// clause without content (an empty "and"/"or").
  Ptr negate() const;
  /// @brief The clause's JSON.
  nlohmann::json json() const;
  /// @brief True when the tree holds an "and" or "or" without sub-clauses, negated ones included
  /// (the query then fails with 603 before any request).
  bool hasEmptyComposite() const { return hasEmptyComposite(json()); }
  /// @brief The same test on a clause document: an "and" or "or" whose "clauses" is missing or
  /// empty, at any depth.
  static bool hasEmptyComposite(const nlohmann::json& clause);

  /// @brief Made by the static constructors.
  JovClause(std::string where, std::vector<Ptr> clauses, nlohmann::json leaf);

 private:
  std::string where_;  // "and", "or", "not", or empty for a leaf
  std::vector<Ptr> clauses_;
  nlohmann::json leaf_;
};

/// @brief Which objects of a bucket to fetch, in which order, how many per page.
///
/// A value type: copy it to vary it. The next page's query comes from the query operation, or
/// from queryWithBase(query, paginationKey).
class JovQuery {
 public:
  /// @brief All objects.
  JovQuery() = default;
  /// @brief The objects a clause matches (null: all).
  explicit JovQuery(JovClause::Ptr clause);
  /// @brief The objects a ready clause dictionary matches (null: all).
  static JovQuery queryWithDictionary(const nlohmann::json& clause);
  /// @brief A copy of the base with the pagination key of the page to fetch.
  static JovQuery queryWithBase(const JovQuery& base, const std::string& paginationKey);

  /// @brief Orders by a field, ascending; raises "field can not be nil" for an empty field.
  void sortByAsc(const std::string& field) { sort(field, false); }
  /// @brief Orders by a field, descending.
  void sortByDesc(const std::string& field) { sort(field, true); }
  /// @brief Orders by a field.
  void sort(const std::string& field, bool descending);
  /// @brief The field the objects are ordered by, if any.
  const std::optional<std::string>& sortField() const { return sortField_; }
  /// @brief Whether the order is descending.
  bool sortDescending() const { return sortDescending_; }
  /// @brief The most objects the service returns in one page.
  static constexpr std::uint32_t kMaxLimit = 200;
  /// @brief Objects per page; 0 leaves it to the service.
  std::uint32_t limit() const { return limit_; }
  /// @brief Sets the objects per page (0: the service decides); more than kMaxLimit is capped
  /// at kMaxLimit, with a warning logged.
  void setLimit(std::uint32_t limit);
  /// @brief The key of the page this query fetches; nothing for the first.
  const std::optional<std::string>& paginationKey() const { return paginationKey_; }
  /// @brief Sets the key of the page to fetch.
  void setPaginationKey(std::optional<std::string> key) { paginationKey_ = std::move(key); }

  /// @brief The document posted to the bucket's query endpoint.
  nlohmann::json dictValue() const;
  /// @brief 603 when the clause tree holds an empty "and" or "or".
  std::optional<JovError> pendingError() const;

 private:
  std::optional<nlohmann::json> clause_;  // absent: all
  bool emptyComposite_ = false;
  std::optional<std::string> sortField_;
  bool sortDescending_ = false;
  std::uint32_t limit_ = 0;
  std::optional<std::string> paginationKey_;
};

}  // namespace jov

/// @brief Geo points hash by both coordinates, so that equal points hash alike.
template <>
struct std::hash<jov::JovGeoPoint> {
  /// @brief The hash of both coordinates.
  std::size_t operator()(const jov::JovGeoPoint& point) const noexcept {
    const std::size_t lat = std::hash<double>{}(point.latitude());
    return lat ^ (std::hash<double>{}(point.longitude()) + 0x9e3779b97f4a7c15ULL + (lat << 6) +
                  (lat >> 2));
  }
};
