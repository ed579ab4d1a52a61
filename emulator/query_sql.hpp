// Bucket queries evaluated inside SQLite: the clause tree becomes a WHERE over json_extract()
// with every value bound as a parameter, ordering is by (field, id), and pages continue from an
// opaque key holding the last row's (field value, id), so a page stays right while objects are
// added or removed before or after it.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "database.hpp"
#include "object_store.hpp"

namespace jovemu {

/// A page holds kDefaultQueryLimit objects unless "bestEffortLimit" asks for fewer or more;
/// more than kMaxQueryLimit is capped at kMaxQueryLimit.
constexpr std::int64_t kDefaultQueryLimit = 100;
constexpr std::int64_t kMaxQueryLimit = 200;

/// @brief A query request: {"bucketQuery": {"clause", "orderBy", "descending", "aggregations"},
/// "paginationKey", "bestEffortLimit"}.
struct QueryRequest {
  nlohmann::json clause = {{"type", "all"}};
  std::optional<std::string> orderBy;
  bool descending = false;
  std::optional<std::string> paginationKey;
  std::int64_t limit = kDefaultQueryLimit;
  /// Set when the request asks for a COUNT aggregation: the key to put it under.
  std::optional<std::string> countInto;
};

/// @brief Reads a request body; 400 INVALID_INPUT_DATA for a malformed one.
QueryRequest parseQueryRequest(const nlohmann::json& body);

/// @brief Restricts the rows to those a caller may read object by object; `all` lifts it.
struct ReadFilter {
  bool all = true;
  std::vector<std::string> subjects;
};

struct QueryPage {
  std::vector<nlohmann::json> results;
  std::optional<std::string> nextPaginationKey;
};

/// @brief Runs the query; 400 QUERY_NOT_SUPPORTED for a clause, field or order the service does
/// not evaluate, 400 INVALID_INPUT_DATA for a pagination key of another query.
QueryPage runQuery(Connection& conn, const BucketRow& bucket, const QueryRequest& request,
                   const ReadFilter& filter);
/// @brief The number of objects the query matches (all pages).
std::int64_t countQuery(Connection& conn, const BucketRow& bucket, const QueryRequest& request,
                        const ReadFilter& filter);

}  // namespace jovemu
