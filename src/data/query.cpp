// Geo points, clauses and queries: the JSON documents the service's query endpoint reads.

#include "jov/query.hpp"

#include <stdexcept>

#include "jov/logger.hpp"
#include "jov/object.hpp"
#include "jov/user.hpp"

namespace jov {

// ------------------------------------------------------------------ geo points

JovGeoPoint::JovGeoPoint(double latitude, double longitude)
    : latitude_(latitude), longitude_(longitude) {
  if (!(latitude >= -90 && latitude <= 90))
    throw std::invalid_argument("Given latitude is out of range");
  if (!(longitude >= -180 && longitude <= 180))
    throw std::invalid_argument("Given longitude is out of range");
}

nlohmann::json JovGeoPoint::toDictionary() const {
  return {{"_type", "point"}, {"lat", latitude_}, {"lon", longitude_}};
}

std::optional<JovGeoPoint> JovGeoPoint::toGeoPoint(const nlohmann::json& value) {
  if (!value.is_object() || value.value("_type", nlohmann::json()) != "point") return std::nullopt;
  auto lat = value.find("lat"), lon = value.find("lon");
  if (lat == value.end() || lon == value.end() || !lat->is_number() || !lon->is_number())
    return std::nullopt;
  try {
    return JovGeoPoint(lat->get<double>(), lon->get<double>());
  } catch (const std::invalid_argument&) {
    return std::nullopt;
  }
}

// ------------------------------------------------------------------ clauses

namespace {

void requireKey(const std::string& key) {
  if (key.empty()) throw std::invalid_argument("Key should not be nil or empty");
}

JovClause::Ptr leaf(nlohmann::json json) {
  return std::make_shared<const JovClause>("", std::vector<JovClause::Ptr>{}, std::move(json));
}

JovClause::Ptr range(const std::string& key, const char* limit, const char* included,
                     const nlohmann::json& value, bool inclusive) {
  return leaf({{"type", "range"}, {"field", key}, {limit, value}, {included, inclusive}});
}

JovClause::Ptr composite(const char* where, const std::vector<JovClause::Ptr>& clauses) {
  std::vector<JovClause::Ptr> kept;
  for (const auto& clause : clauses)
    if (clause) kept.push_back(clause);
  return std::make_shared<const JovClause>(where, std::move(kept), nullptr);
}

}  // namespace

JovClause::JovClause(std::string where, std::vector<Ptr> clauses, nlohmann::json leaf)
    : where_(std::move(where)), clauses_(std::move(clauses)), leaf_(std::move(leaf)) {}

JovClause::Ptr JovClause::equals(const std::string& key, const nlohmann::json& value) {
  return leaf({{"type", "eq"}, {"field", key}, {"value", value}});
}
JovClause::Ptr JovClause::equals(const std::string& key, const std::shared_ptr<JovObject>& value) {
  return equals(key, value ? nlohmann::json(value->objectURI().value_or("")) : nullptr);
}
JovClause::Ptr JovClause::equals(const std::string& key, const std::shared_ptr<JovUser>& value) {
  return equals(key, value ? nlohmann::json(value->objectURI()) : nullptr);
}
JovClause::Ptr JovClause::notEquals(const std::string& key, const nlohmann::json& value) {
  return leaf({{"type", "not"}, {"clause", equals(key, value)->json()}});
}
JovClause::Ptr JovClause::notEquals(const std::string& key,
                                    const std::shared_ptr<JovObject>& value) {
  return equals(key, value)->negate();
}
JovClause::Ptr JovClause::notEquals(const std::string& key, const std::shared_ptr<JovUser>& value) {
  return equals(key, value)->negate();
}
JovClause::Ptr JovClause::greaterThan(const std::string& key, const nlohmann::json& value) {
  return range(key, "lowerLimit", "lowerIncluded", value, false);
}
JovClause::Ptr JovClause::greaterThanOrEqual(const std::string& key, const nlohmann::json& value) {
  return range(key, "lowerLimit", "lowerIncluded", value, true);
}
JovClause::Ptr JovClause::lessThan(const std::string& key, const nlohmann::json& value) {
  return range(key, "upperLimit", "upperIncluded", value, false);
}
JovClause::Ptr JovClause::lessThanOrEqual(const std::string& key, const nlohmann::json& value) {
  return range(key, "upperLimit", "upperIncluded", value, true);
}
JovClause::Ptr JovClause::in(const std::string& key, const nlohmann::json& values) {
  return leaf({{"type", "in"}, {"field", key}, {"values", values}});
}
JovClause::Ptr JovClause::startsWith(const std::string& key, const std::string& prefix) {
  return leaf({{"type", "prefix"}, {"field", key}, {"prefix", prefix}});
}

JovClause::Ptr JovClause::hasField(const std::string& key, JovFieldType type) {
  requireKey(key);
  static constexpr const char* kNames[] = {"STRING", "INTEGER", "DECIMAL", "BOOLEAN"};
  if (type < 0 || type > 3) throw std::invalid_argument("invalid field type");
  return leaf({{"type", "hasField"}, {"field", key}, {"fieldType", kNames[type]}});
}

JovClause::Ptr JovClause::geoBox(const std::string& key,
                                 const std::optional<JovGeoPoint>& northEast,
                                 const std::optional<JovGeoPoint>& southWest) {
  requireKey(key);
  if (!northEast || !southWest) throw std::invalid_argument("ne or sw should not be nil");
  return leaf({{"type", "geobox"},
               {"field", key},
               {"box", {{"ne", northEast->toDictionary()}, {"sw", southWest->toDictionary()}}}});
}

JovClause::Ptr JovClause::geoDistance(const std::string& key,
                                      const std::optional<JovGeoPoint>& center, double radius,
                                      const std::optional<std::string>& putDistanceInto) {
  requireKey(key);
  if (!center) throw std::invalid_argument("center should not be nil or empty");
  if (!(radius > 0 && radius <= 20000000))
    throw std::invalid_argument("radius should be in range of ]0, 20000000]");
  nlohmann::json json = {{"type", "geodistance"},
                         {"field", key},
                         {"center", center->toDictionary()},
                         {"radius", radius}};
  if (putDistanceInto) json["putDistanceInto"] = *putDistanceInto;
  return leaf(std::move(json));
}

JovClause::Ptr JovClause::andClauses(const std::vector<Ptr>& clauses) {
  return composite("and", clauses);
}
JovClause::Ptr JovClause::orClauses(const std::vector<Ptr>& clauses) {
  return composite("or", clauses);
}
JovClause::Ptr JovClause::notClause(const Ptr& clause) {
  if (!clause) throw std::invalid_argument("Clause should not be nil");
  return clause->negate();
}

JovClause::Ptr JovClause::negate() const {
  if (leaf_.is_null() && clauses_.empty()) throw std::invalid_argument("invalid clause");
  return leaf({{"type", "not"}, {"clause", json()}});
}

nlohmann::json JovClause::json() const {
  if (!leaf_.is_null()) return leaf_;
  if (where_ == "not" && clauses_.size() == 1)
    return {{"type", "not"}, {"clause", clauses_[0]->json()}};
  if (where_ == "and" || where_ == "or") {
    nlohmann::json list = nlohmann::json::array();
    for (const auto& clause : clauses_) list.push_back(clause->json());
    return {{"type", where_}, {"clauses", std::move(list)}};
  }
  return {{"type", "all"}};
}

// Read from the document rather than the tree of clauses: a negated clause keeps only its
// document, and a dictionary given to a query has no tree at all.
bool JovClause::hasEmptyComposite(const nlohmann::json& clause) {
  if (!clause.is_object()) return false;
  auto type = clause.find("type");
  auto clauses = clause.find("clauses");
  if (type != clause.end() && (*type == "and" || *type == "or") &&
      (clauses == clause.end() || !clauses->is_array() || clauses->empty()))
    return true;
  if (clauses != clause.end() && clauses->is_array())
    for (const auto& sub : *clauses)
      if (hasEmptyComposite(sub)) return true;
  auto negated = clause.find("clause");
  return negated != clause.end() && hasEmptyComposite(*negated);
}

// ------------------------------------------------------------------ queries

JovQuery::JovQuery(JovClause::Ptr clause) {
  if (!clause) return;
  clause_ = clause->json();
  emptyComposite_ = JovClause::hasEmptyComposite(*clause_);
}

JovQuery JovQuery::queryWithDictionary(const nlohmann::json& clause) {
  JovQuery query;
  if (clause.is_null()) return query;
  query.clause_ = clause;
  query.emptyComposite_ = JovClause::hasEmptyComposite(clause);
  return query;
}

JovQuery JovQuery::queryWithBase(const JovQuery& base, const std::string& paginationKey) {
  JovQuery next = base;
  next.paginationKey_ = paginationKey;
  return next;
}

void JovQuery::sort(const std::string& field, bool descending) {
  if (field.empty()) throw std::invalid_argument("field can not be nil");
  sortField_ = field;
  sortDescending_ = descending;
}

void JovQuery::setLimit(std::uint32_t limit) {
  if (limit > kMaxLimit) {
    JOV_LOG(JovLogWarning, "Query limit set too high. Capped at " + std::to_string(kMaxLimit));
    limit = kMaxLimit;
  }
  limit_ = limit;
}

nlohmann::json JovQuery::dictValue() const {
  nlohmann::json bucketQuery = {{"clause", clause_.value_or(nlohmann::json{{"type", "all"}})}};
  if (sortField_) bucketQuery["orderBy"] = *sortField_;
  bucketQuery["descending"] = sortDescending_;
  nlohmann::json dict = {{"bucketQuery", std::move(bucketQuery)}};
  if (paginationKey_) dict["paginationKey"] = *paginationKey_;
  if (limit_ != 0) dict["bestEffortLimit"] = limit_;
  return dict;
}

std::optional<JovError> JovQuery::pendingError() const {
  if (!emptyComposite_) return std::nullopt;
  return JovError::errorWithCode(JovError::codeEmptyQueryClauses());
}

}  // namespace jov
