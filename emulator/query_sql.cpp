#include "query_sql.hpp"

#include <cmath>
#include <limits>

#include "acl_store.hpp"
#include "api_error.hpp"
#include "call.hpp"

namespace jovemu {

namespace {

using nlohmann::json;

constexpr std::size_t kMaxFieldLength = 256;
constexpr double kMaxRadiusMetres = 20000000.0;
constexpr const char* kNumberTypes = "'integer', 'real'";

ApiError notSupported(const std::string& message) {
  return ApiError(400, "QUERY_NOT_SUPPORTED", message);
}

// "a.b" becomes $."a"."b": every segment quoted, so any character but the ones refused here can
// stand in a field name. The path is written into the SQL text (an index only serves a query
// whose expression has the same literal path), which is why quotes are refused outright.
std::string jsonPath(const std::string& field) {
  if (field.empty() || field.size() > kMaxFieldLength) {
    throw notSupported("A field name must be 1-256 characters");
  }
  std::string path = "$";
  std::size_t start = 0;
  while (true) {
    auto dot = field.find('.', start);
    std::string segment = field.substr(start, dot == std::string::npos ? dot : dot - start);
    if (segment.empty()) throw notSupported("The field name " + field + " has an empty part");
    for (unsigned char c : segment) {
      if (c < 0x20 || c == 0x7f || c == '"' || c == '\'' || c == '\\') {
        throw notSupported("The field name " + field + " holds a character that is not allowed");
      }
    }
    path += ".\"" + segment + "\"";
    if (dot == std::string::npos) return path;
    start = dot + 1;
  }
}

std::string extractOf(const std::string& path) {
  return "json_extract(doc, '" + path + "')";
}
// Never NULL, so that every condition is true or false and "not" is the plain complement.
std::string typeOf(const std::string& path) {
  return "coalesce(json_type(doc, '" + path + "'), '')";
}

const json& member(const json& clause, const char* key) {
  auto it = clause.find(key);
  if (it == clause.end() || it->is_null()) {
    throw notSupported(std::string("The clause needs \"") + key + "\"");
  }
  return *it;
}

std::string stringMember(const json& clause, const char* key) {
  const auto& value = member(clause, key);
  if (!value.is_string()) throw notSupported(std::string("\"") + key + "\" must be a string");
  return value.get<std::string>();
}

double numberMember(const json& object, const char* key) {
  const auto& value = member(object, key);
  if (!value.is_number()) throw notSupported(std::string("\"") + key + "\" must be a number");
  return value.get<double>();
}

struct GeoPoint {
  double lat, lon;
};

GeoPoint pointMember(const json& clause, const char* key) {
  const auto& value = member(clause, key);
  if (!value.is_object()) throw notSupported(std::string("\"") + key + "\" must be a point");
  if (auto type = value.find("_type"); type != value.end() && *type != "point") {
    throw notSupported(std::string("\"") + key + "\" must be a point");
  }
  GeoPoint point{numberMember(value, "lat"), numberMember(value, "lon")};
  if (!(point.lat >= -90 && point.lat <= 90 && point.lon >= -180 && point.lon <= 180)) {
    throw notSupported(std::string("\"") + key + "\" is out of range");
  }
  return point;
}

// A scalar clause value and the JSON types it compares with: a number never matches a string,
// a string never matches an object or array (which json_extract also returns as text).
struct Scalar {
  SqlValue value;
  const char* types;
};

Scalar scalarOf(const json& value) {
  if (value.is_string()) return {value.get<std::string>(), "'text'"};
  if (value.is_number_integer() && !value.is_number_unsigned()) {
    return {value.get<std::int64_t>(), kNumberTypes};
  }
  if (value.is_number_unsigned()) {
    auto number = value.get<std::uint64_t>();
    if (number <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return {static_cast<std::int64_t>(number), kNumberTypes};
    }
    return {static_cast<double>(number), kNumberTypes};
  }
  if (value.is_number_float()) return {value.get<double>(), kNumberTypes};
  throw notSupported("A value must be a string, a number or a boolean");
}

class Translator {
 public:
  std::vector<SqlValue> params;
  // Fields compared or ordered by: each gets an index on first use.
  std::vector<std::pair<std::string, std::string>> indexed;
  // "putDistanceInto" names and their SQL expression.
  std::vector<std::pair<std::string, std::string>> distances;

  std::string bind(SqlValue value) {
    params.push_back(std::move(value));
    return "?" + std::to_string(params.size());
  }

  std::string field(const std::string& name) {
    auto path = jsonPath(name);
    auto expression = extractOf(path);
    indexed.emplace_back(name, expression);
    return expression;
  }

  std::string clause(const json& clause) {
    if (!clause.is_object()) throw notSupported("A clause must be an object");
    std::string type = stringMember(clause, "type");
    if (type == "all") return "1";
    if (type == "and" || type == "or") return compound(clause, type == "and" ? " AND " : " OR ");
    if (type == "not") return "(NOT " + this->clause(member(clause, "clause")) + ")";
    if (type == "eq") return equals(clause);
    if (type == "range") return range(clause);
    if (type == "in") return in(clause);
    if (type == "prefix") return prefix(clause);
    if (type == "hasField") return hasField(clause);
    if (type == "geobox") return geoBox(clause);
    if (type == "geodistance") return geoDistance(clause);
    throw notSupported("The clause type " + type + " is not supported");
  }

 private:
  std::string compound(const json& clause, const char* joiner) {
    const auto& list = member(clause, "clauses");
    if (!list.is_array() || list.empty()) {
      throw notSupported("\"clauses\" must be a non-empty array");
    }
    std::string out = "(";
    for (std::size_t i = 0; i < list.size(); ++i) {
      if (i) out += joiner;
      out += this->clause(list[i]);
    }
    return out + ")";
  }

  std::string equals(const json& clause) {
    auto name = stringMember(clause, "field");
    auto path = jsonPath(name);
    const auto& value = member(clause, "value");
    if (value.is_boolean()) {
      return "(" + typeOf(path) + " = '" + (value.get<bool>() ? "true" : "false") + "')";
    }
    auto scalar = scalarOf(value);
    return "(" + typeOf(path) + " IN (" + scalar.types + ") AND " + field(name) + " = " +
           bind(scalar.value) + ")";
  }

  std::string range(const json& clause) {
    auto name = stringMember(clause, "field");
    auto path = jsonPath(name);
    auto lower = clause.find("lowerLimit");
    auto upper = clause.find("upperLimit");
    bool hasLower = lower != clause.end() && !lower->is_null();
    bool hasUpper = upper != clause.end() && !upper->is_null();
    if (!hasLower && !hasUpper) throw notSupported("A range needs a lower or an upper limit");
    const char* types = nullptr;
    std::string out;
    auto limit = [&](const json& value, const char* includedKey, const char* strict,
                     const char* inclusive) {
      if (value.is_boolean()) throw notSupported("A range limit must be a number or a string");
      auto scalar = scalarOf(value);
      if (types && std::string_view(types) != scalar.types) {
        throw notSupported("The limits of a range must be of one type");
      }
      types = scalar.types;
      auto included = clause.find(includedKey);
      bool inclusiveLimit = false;
      if (included != clause.end() && !included->is_null()) {
        if (!included->is_boolean()) {
          throw notSupported(std::string("\"") + includedKey + "\" must be a boolean");
        }
        inclusiveLimit = included->get<bool>();
      }
      out += " AND " + field(name) + (inclusiveLimit ? inclusive : strict) + bind(scalar.value);
    };
    if (hasLower) limit(*lower, "lowerIncluded", " > ", " >= ");
    if (hasUpper) limit(*upper, "upperIncluded", " < ", " <= ");
    return "(" + typeOf(path) + " IN (" + types + ")" + out + ")";
  }

  std::string in(const json& clause) {
    auto name = stringMember(clause, "field");
    auto path = jsonPath(name);
    const auto& values = member(clause, "values");
    if (!values.is_array()) throw notSupported("\"values\" must be an array");
    std::vector<std::string> texts, numbers;
    std::vector<std::string> booleans;
    for (const auto& value : values) {
      if (value.is_boolean()) {
        booleans.push_back(value.get<bool>() ? "'true'" : "'false'");
        continue;
      }
      auto scalar = scalarOf(value);
      (std::string_view(scalar.types) == "'text'" ? texts : numbers).push_back(bind(scalar.value));
    }
    std::vector<std::string> parts;
    auto list = [](const std::vector<std::string>& items) {
      std::string out;
      for (std::size_t i = 0; i < items.size(); ++i) out += (i ? ", " : "") + items[i];
      return out;
    };
    if (!texts.empty()) {
      parts.push_back(typeOf(path) + " = 'text' AND " + field(name) + " IN (" + list(texts) + ")");
    }
    if (!numbers.empty()) {
      parts.push_back(typeOf(path) + " IN (" + kNumberTypes + ") AND " + field(name) + " IN (" +
                      list(numbers) + ")");
    }
    if (!booleans.empty()) parts.push_back(typeOf(path) + " IN (" + list(booleans) + ")");
    if (parts.empty()) return "0";
    std::string out = "(";
    for (std::size_t i = 0; i < parts.size(); ++i) out += (i ? ") OR (" : "(") + parts[i];
    return out + "))";
  }

  std::string prefix(const json& clause) {
    auto name = stringMember(clause, "field");
    auto path = jsonPath(name);
    auto prefix = stringMember(clause, "prefix");
    // A text starts with the prefix exactly when it sorts between the prefix and the prefix
    // followed by 0xFF, a byte that valid UTF-8 never holds: a range the field index serves.
    auto expression = field(name);
    return "(" + typeOf(path) + " = 'text' AND " + expression + " >= " + bind(prefix) + " AND " +
           expression + " < " + bind(prefix + "\xFF") + ")";
  }

  std::string hasField(const json& clause) {
    auto path = jsonPath(stringMember(clause, "field"));
    auto type = clause.find("fieldType");
    if (type == clause.end() || type->is_null()) return "(" + typeOf(path) + " <> '')";
    if (!type->is_string()) throw notSupported("\"fieldType\" must be a string");
    static const std::pair<const char*, const char*> kTypes[] = {{"STRING", "'text'"},
                                                                 {"INTEGER", "'integer'"},
                                                                 {"DECIMAL", "'real'"},
                                                                 {"BOOLEAN", "'true', 'false'"}};
    for (const auto& [word, types] : kTypes) {
      if (*type == word) return "(" + typeOf(path) + " IN (" + types + "))";
    }
    throw notSupported("The field type " + type->get<std::string>() + " is not supported");
  }

  // The point's coordinates, and a condition that both are numbers.
  struct Coordinates {
    std::string lat, lon, numeric;
  };
  Coordinates coordinates(const std::string& name) {
    auto path = jsonPath(name);
    std::string latPath = path + ".\"lat\"", lonPath = path + ".\"lon\"";
    return {extractOf(latPath), extractOf(lonPath),
            typeOf(latPath) + " IN (" + kNumberTypes + ") AND " + typeOf(lonPath) + " IN (" +
                kNumberTypes + ")"};
  }

  std::string geoBox(const json& clause) {
    auto point = coordinates(stringMember(clause, "field"));
    const auto& box = member(clause, "box");
    if (!box.is_object()) throw notSupported("\"box\" must hold \"ne\" and \"sw\"");
    auto ne = pointMember(box, "ne");
    auto sw = pointMember(box, "sw");
    std::string out = "(" + point.numeric + " AND " + point.lat + " BETWEEN " + bind(sw.lat) +
                      " AND " + bind(ne.lat);
    if (sw.lon <= ne.lon) {
      out += " AND " + point.lon + " BETWEEN " + bind(sw.lon) + " AND " + bind(ne.lon);
    } else {  // the box crosses the 180th meridian
      out += " AND (" + point.lon + " >= " + bind(sw.lon) + " OR " + point.lon +
             " <= " + bind(ne.lon) + ")";
    }
    return out + ")";
  }

  std::string geoDistance(const json& clause) {
    auto point = coordinates(stringMember(clause, "field"));
    auto center = pointMember(clause, "center");
    double radius = numberMember(clause, "radius");
    if (!(radius > 0 && radius <= kMaxRadiusMetres)) {
      throw notSupported("\"radius\" must be in ]0, 20000000]");
    }
    std::optional<std::string> into;
    if (auto name = clause.find("putDistanceInto"); name != clause.end() && !name->is_null()) {
      if (!name->is_string() || name->get<std::string>().empty()) {
        throw notSupported("\"putDistanceInto\" must be a field name");
      }
      into = name->get<std::string>();
    }
    std::string distance = "jov_distance(" + point.lat + ", " + point.lon + ", " +
                           bind(center.lat) + ", " + bind(center.lon) + ")";
    // A bounding box around the circle lets most rows go without computing a distance; it is
    // widened a little so rounding never drops a row the distance itself would keep.
    constexpr double kDeg = 180.0 / M_PI;
    constexpr double kSlack = 1.000001;
    double angle = radius / kEarthRadiusMetres;
    double dLat = angle * kDeg * kSlack + 1e-9;
    std::string out = "(" + point.numeric + " AND " + point.lat + " BETWEEN " +
                      bind(std::max(-90.0, center.lat - dLat)) + " AND " +
                      bind(std::min(90.0, center.lat + dLat));
    if (center.lat - dLat > -90 && center.lat + dLat < 90) {
      double s = std::sin(angle) / std::cos(center.lat / kDeg);
      if (s < 1) {
        double dLon = std::asin(s) * kDeg * kSlack + 1e-9;
        if (center.lon - dLon >= -180 && center.lon + dLon <= 180) {
          out += " AND " + point.lon + " BETWEEN " + bind(center.lon - dLon) + " AND " +
                 bind(center.lon + dLon);
        }
      }
    }
    if (into) distances.emplace_back(*into, distance);
    return out + " AND " + distance + " <= " + bind(radius) + ")";
  }
};

// Pagination keys: base64url of {"o": order field, "d": descending, "v": last sort value,
// "id": last object ID}. Opaque to the client; checked against the query it comes back with.
constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

std::string base64url(const std::string& data) {
  std::string out;
  std::uint32_t buffer = 0;
  int bits = 0;
  for (unsigned char c : data) {
    buffer = (buffer << 8) | c;
    bits += 8;
    while (bits >= 6) {
      bits -= 6;
      out.push_back(kBase64[(buffer >> bits) & 63]);
    }
  }
  if (bits > 0) out.push_back(kBase64[(buffer << (6 - bits)) & 63]);
  return out;
}

std::optional<std::string> unbase64url(const std::string& text) {
  std::string out;
  std::uint32_t buffer = 0;
  int bits = 0;
  for (char c : text) {
    const char* at = std::char_traits<char>::find(kBase64, 64, c);
    if (!at) return std::nullopt;
    buffer = (buffer << 6) | static_cast<std::uint32_t>(at - kBase64);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((buffer >> bits) & 0xFF));
    }
  }
  return out;
}

json jsonOf(const SqlValue& value) {
  return std::visit(
      [](const auto& v) -> json {
        if constexpr (std::is_same_v<std::decay_t<decltype(v)>, std::nullptr_t>) {
          return nullptr;
        } else {
          return v;
        }
      },
      value);
}

struct Cursor {
  SqlValue value;
  std::string id;
};

ApiError badKey() {
  return invalidInput("The pagination key does not belong to this query");
}

Cursor readCursor(const std::string& key, const QueryRequest& request) {
  auto text = unbase64url(key);
  if (!text) throw badKey();
  auto doc = json::parse(*text, nullptr, false);
  if (!doc.is_object() || !doc.contains("v") || !doc["id"].is_string() ||
      doc["o"] != request.orderBy.value_or("") || doc["d"] != request.descending) {
    throw badKey();
  }
  const auto& v = doc["v"];
  Cursor cursor{nullptr, doc["id"].get<std::string>()};
  if (v.is_string()) {
    cursor.value = v.get<std::string>();
  } else if (v.is_number_integer()) {
    cursor.value = v.get<std::int64_t>();
  } else if (v.is_number_float()) {
    cursor.value = v.get<double>();
  } else if (!v.is_null()) {
    throw badKey();
  }
  return cursor;
}

std::string writeCursor(const QueryRequest& request, const SqlValue& value, const std::string& id) {
  json doc = {{"o", request.orderBy.value_or("")},
              {"d", request.descending},
              {"v", jsonOf(value)},
              {"id", id}};
  return base64url(doc.dump());
}

// Rows after the cursor in ORDER BY sort, id (both the same direction). SQLite sorts NULL first
// ascending and last descending, and compares values of different types by type, as ORDER BY
// does, so one comparison covers every kind of value.
std::string afterCursor(Translator& t, const std::string& sort, const Cursor& cursor,
                        bool descending) {
  std::string id = t.bind(cursor.id);
  if (std::holds_alternative<std::nullptr_t>(cursor.value)) {
    return descending ? "(" + sort + " IS NULL AND id < " + id + ")"
                      : "(" + sort + " IS NOT NULL OR id > " + id + ")";
  }
  std::string v = t.bind(cursor.value);
  if (descending) {
    return "((" + sort + " <= " + v + " AND (" + sort + " < " + v + " OR id < " + id + ")) OR " +
           sort + " IS NULL)";
  }
  return "(" + sort + " >= " + v + " AND (" + sort + " > " + v + " OR id > " + id + "))";
}

std::string accessCondition(Translator& t, const BucketRow& bucket, const ReadFilter& filter) {
  if (filter.all) return "";
  int first = static_cast<int>(t.params.size()) + 1;
  t.params.emplace_back(bucket.key);
  for (const auto& subject : filter.subjects) t.params.emplace_back(subject);
  return " AND " + readableObjectsCondition(first, filter.subjects.size());
}

void bindAll(OneShotStatement& stmt, const std::vector<SqlValue>& params) {
  for (std::size_t i = 0; i < params.size(); ++i) stmt.bind(static_cast<int>(i) + 1, params[i]);
}

void buildIndexes(Connection& conn, const BucketRow& bucket, const Translator& t) {
  for (const auto& [name, expression] : t.indexed) ensureFieldIndex(conn, bucket, name, expression);
}

}  // namespace

QueryRequest parseQueryRequest(const nlohmann::json& body) {
  QueryRequest request;
  auto query = body.find("bucketQuery");
  if (query == body.end() || !query->is_object()) {
    throw invalidInput("There are validation errors: bucketQuery - must not be null");
  }
  if (auto clause = query->find("clause"); clause != query->end() && !clause->is_null()) {
    if (!clause->is_object()) throw invalidInput("bucketQuery.clause must be an object");
    request.clause = *clause;
  }
  request.orderBy = optionalString(*query, "orderBy");
  if (request.orderBy && request.orderBy->empty()) throw invalidInput("orderBy must not be empty");
  if (auto descending = query->find("descending");
      descending != query->end() && !descending->is_null()) {
    if (!descending->is_boolean()) throw invalidInput("descending must be a boolean");
    request.descending = descending->get<bool>();
  }
  if (auto aggregations = query->find("aggregations");
      aggregations != query->end() && !aggregations->is_null()) {
    if (!aggregations->is_array()) throw invalidInput("aggregations must be an array");
    for (const auto& aggregation : *aggregations) {
      if (!aggregation.is_object() || aggregation.value("type", "") != "COUNT") {
        throw notSupported("Only the COUNT aggregation is supported");
      }
      request.countInto = requiredString(aggregation, "putAggregationInto");
    }
  }
  request.paginationKey = optionalString(body, "paginationKey");
  if (auto limit = body.find("bestEffortLimit"); limit != body.end() && !limit->is_null()) {
    if (!limit->is_number_integer() || limit->get<std::int64_t>() < 1) {
      throw invalidInput("bestEffortLimit must be a positive integer");
    }
    request.limit = std::min(limit->get<std::int64_t>(), kMaxQueryLimit);
  }
  return request;
}

QueryPage runQuery(Connection& conn, const BucketRow& bucket, const QueryRequest& request,
                   const ReadFilter& filter) {
  registerObjectFunctions(conn);
  Translator t;
  std::string where = t.clause(request.clause);
  std::string sort = "id";
  if (request.orderBy && *request.orderBy != "_id") {
    sort.clear();
    for (const auto& [name, expression] : t.distances) {
      if (name == *request.orderBy) sort = expression;
    }
    if (sort.empty()) sort = t.field(*request.orderBy);
  }
  if (request.paginationKey) {
    where += " AND " +
             afterCursor(t, sort, readCursor(*request.paginationKey, request), request.descending);
  }
  where += accessCondition(t, bucket, filter);
  buildIndexes(conn, bucket, t);

  const char* direction = request.descending ? " DESC" : " ASC";
  std::string sql = "SELECT id, doc, " + sort;
  for (const auto& distance : t.distances) sql += ", " + distance.second;
  sql += " FROM " + bucket.table() + " WHERE " + where + " ORDER BY " + sort + direction + ", id" +
         direction + " LIMIT " + std::to_string(request.limit + 1);
  OneShotStatement stmt(conn, sql);
  bindAll(stmt, t.params);

  QueryPage page;
  SqlValue lastSort = nullptr;
  std::string lastID;
  while (stmt.step()) {
    if (static_cast<std::int64_t>(page.results.size()) == request.limit) {
      page.nextPaginationKey = writeCursor(request, lastSort, lastID);
      break;
    }
    auto doc = json::parse(stmt.text(1));
    for (std::size_t i = 0; i < t.distances.size(); ++i) {
      doc[t.distances[i].first] = jsonOf(stmt.value(3 + static_cast<int>(i)));
    }
    lastID = stmt.text(0);
    lastSort = stmt.value(2);
    page.results.push_back(std::move(doc));
  }
  return page;
}

std::int64_t countQuery(Connection& conn, const BucketRow& bucket, const QueryRequest& request,
                        const ReadFilter& filter) {
  registerObjectFunctions(conn);
  Translator t;
  std::string where = t.clause(request.clause);
  where += accessCondition(t, bucket, filter);
  buildIndexes(conn, bucket, t);
  OneShotStatement stmt(conn, "SELECT count(*) FROM " + bucket.table() + " WHERE " + where);
  bindAll(stmt, t.params);
  stmt.step();
  return std::get<std::int64_t>(stmt.value(0));
}

}  // namespace jovemu
