// Clauses, queries and geo points: the documents the query endpoint reads, and the misuse each
// constructor refuses.
#include "jov/query.hpp"

#include <gtest/gtest.h>

#include <unordered_set>

#include "fake_transport.hpp"
#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/logger.hpp"
#include "jov/user.hpp"

namespace jov {
namespace {

using jovtest::thrownMessage;
using nlohmann::json;

TEST(QueryTest, ClausesWriteTheirDocuments) {
  const JovGeoPoint ne(10, 20), sw(-10, -20);
  const auto note = Jov::bucketWithName("notes")->createObjectWithID("n1");
  const std::vector<std::pair<JovClause::Ptr, json>> rows = {
      {JovClause::equals("a", 1), {{"type", "eq"}, {"field", "a"}, {"value", 1}}},
      {JovClause::notEquals("a", "x"),
       {{"type", "not"}, {"clause", {{"type", "eq"}, {"field", "a"}, {"value", "x"}}}}},
      {JovClause::equals("owner", JovUser::userWithID("u1")),
       {{"type", "eq"}, {"field", "owner"}, {"value", "jovcloud://users/u1"}}},
      {JovClause::notEquals("ref", note),
       {{"type", "not"},
        {"clause",
         {{"type", "eq"}, {"field", "ref"}, {"value", "jovcloud://buckets/notes/objects/n1"}}}}},
      {JovClause::notEquals("owner", JovUser::userWithID("u1")),
       {{"type", "not"},
        {"clause", {{"type", "eq"}, {"field", "owner"}, {"value", "jovcloud://users/u1"}}}}},
      {JovClause::greaterThan("a", 1),
       {{"type", "range"}, {"field", "a"}, {"lowerLimit", 1}, {"lowerIncluded", false}}},
      {JovClause::greaterThanOrEqual("a", 1),
       {{"type", "range"}, {"field", "a"}, {"lowerLimit", 1}, {"lowerIncluded", true}}},
      {JovClause::lessThan("a", 2),
       {{"type", "range"}, {"field", "a"}, {"upperLimit", 2}, {"upperIncluded", false}}},
      {JovClause::lessThanOrEqual("a", 2),
       {{"type", "range"}, {"field", "a"}, {"upperLimit", 2}, {"upperIncluded", true}}},
      {JovClause::in("a", {1, 2}), {{"type", "in"}, {"field", "a"}, {"values", {1, 2}}}},
      {JovClause::startsWith("a", "pre"), {{"type", "prefix"}, {"field", "a"}, {"prefix", "pre"}}},
      {JovClause::hasField("a", JovFieldTypeDecimal),
       {{"type", "hasField"}, {"field", "a"}, {"fieldType", "DECIMAL"}}},
      {JovClause::geoBox("at", ne, sw),
       {{"type", "geobox"},
        {"field", "at"},
        {"box",
         {{"ne", {{"_type", "point"}, {"lat", 10.0}, {"lon", 20.0}}},
          {"sw", {{"_type", "point"}, {"lat", -10.0}, {"lon", -20.0}}}}}}},
      {JovClause::geoDistance("at", ne, 20000000, "d"),
       {{"type", "geodistance"},
        {"field", "at"},
        {"center", ne.toDictionary()},
        {"radius", 20000000.0},
        {"putDistanceInto", "d"}}},
      {JovClause::andClauses({JovClause::equals("a", 1), nullptr, JovClause::equals("b", 2)}),
       {{"type", "and"},
        {"clauses",
         {{{"type", "eq"}, {"field", "a"}, {"value", 1}},
          {{"type", "eq"}, {"field", "b"}, {"value", 2}}}}}},
      {JovClause::notClause(JovClause::orClauses({JovClause::equals("a", 1)})),
       {{"type", "not"},
        {"clause",
         {{"type", "or"}, {"clauses", {{{"type", "eq"}, {"field", "a"}, {"value", 1}}}}}}}},
  };
  for (const auto& [clause, expected] : rows) EXPECT_EQ(clause->json(), expected);
}

TEST(QueryTest, ConstructorsRefuseMisuse) {
  const JovGeoPoint p(0, 0);
  const std::vector<std::pair<std::function<void()>, std::string>> rows = {
      {[] { JovGeoPoint(90.0001, 0); }, "Given latitude is out of range"},
      {[] { JovGeoPoint(0, -180.5); }, "Given longitude is out of range"},
      {[] { JovClause::hasField("", JovFieldTypeString); }, "Key should not be nil or empty"},
      {[&] { JovClause::geoBox("at", p, std::nullopt); }, "ne or sw should not be nil"},
      {[&] { JovClause::geoDistance("", p, 1); }, "Key should not be nil or empty"},
      {[] { JovClause::geoDistance("at", std::nullopt, 1); }, "center should not be nil or empty"},
      {[&] { JovClause::geoDistance("at", p, 0); }, "radius should be in range of ]0, 20000000]"},
      {[&] { JovClause::geoDistance("at", p, 20000000.5); },
       "radius should be in range of ]0, 20000000]"},
      {[] { JovClause::notClause(nullptr); }, "Clause should not be nil"},
      {[] { JovClause::andClauses({})->negate(); }, "invalid clause"},
      {[] { JovQuery().sortByAsc(""); }, "field can not be nil"},
  };
  for (const auto& [call, message] : rows) EXPECT_EQ(thrownMessage(call), message);
  EXPECT_EQ(JovGeoPoint(90, -180).latitude(), 90);
  EXPECT_EQ(JovGeoPoint::toGeoPoint({{"_type", "point"}, {"lat", 1}, {"lon", 2}}),
            JovGeoPoint(1, 2));
  EXPECT_FALSE(JovGeoPoint::toGeoPoint({{"_type", "box"}, {"lat", 1}, {"lon", 2}}));
  EXPECT_FALSE(JovGeoPoint::toGeoPoint({{"_type", "point"}, {"lat", "1"}, {"lon", 2}}));
}

TEST(QueryTest, QueryDocumentsAndPages) {
  EXPECT_EQ(JovQuery().dictValue(),
            json({{"bucketQuery", {{"clause", {{"type", "all"}}}, {"descending", false}}}}));
  JovQuery query(JovClause::lessThanOrEqual("n", 3));
  query.sortByDesc("n");
  query.setLimit(25);
  const json first = {{"bucketQuery",
                       {{"clause", JovClause::lessThanOrEqual("n", 3)->json()},
                        {"orderBy", "n"},
                        {"descending", true}}},
                      {"bestEffortLimit", 25}};
  EXPECT_EQ(query.dictValue(), first);
  json second = first;
  second["paginationKey"] = "k2";
  EXPECT_EQ(JovQuery::queryWithBase(query, "k2").dictValue(), second);
  EXPECT_FALSE(query.pendingError());
  EXPECT_EQ(JovQuery(JovClause::orClauses({})).pendingError()->code(),
            JovError::codeEmptyQueryClauses());
  EXPECT_EQ(JovQuery(JovClause::andClauses({JovClause::orClauses({})})).pendingError()->code(),
            JovError::codeEmptyQueryClauses());
}

// An empty "and"/"or" anywhere refuses the query before a request, however the tree was made:
// under a negation (which keeps only the document) or in a ready dictionary.
TEST(QueryTest, EmptyCompositesAtAnyDepth) {
  const auto eq = JovClause::equals("a", 1);
  const std::vector<std::pair<JovQuery, bool>> rows = {
      {JovQuery(JovClause::notClause(JovClause::andClauses({eq, JovClause::orClauses({})}))), true},
      {JovQuery(JovClause::notClause(JovClause::andClauses({eq, eq}))), false},
      {JovQuery::queryWithDictionary({{"type", "or"}, {"clauses", json::array()}}), true},
      {JovQuery::queryWithDictionary({{"type", "and"}}), true},
      {JovQuery::queryWithDictionary({{"type", "not"}, {"clause", {{"type", "and"}}}}), true},
      {JovQuery::queryWithDictionary({{"type", "or"}, {"clauses", {eq->json()}}}), false},
      {JovQuery::queryWithDictionary(nullptr), false},
  };
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const auto error = rows[i].first.pendingError();
    EXPECT_EQ(error.has_value(), rows[i].second) << "row " << i;
    if (error) {
      EXPECT_EQ(error->code(), JovError::codeEmptyQueryClauses());
    }
  }
  EXPECT_EQ(JovQuery::queryWithDictionary(nullptr).dictValue()["bucketQuery"]["clause"],
            json({{"type", "all"}}));
}

TEST(QueryTest, LimitIsCappedWithAWarning) {
  std::vector<std::string> lines;
  JovLogger::setSink([&](int, const std::string& line) { lines.push_back(line); });
  const auto level = Jov::logLevel();
  Jov::setLogLevel(JovLogWarning);
  JovQuery query;
  query.setLimit(JovQuery::kMaxLimit);
  EXPECT_EQ(query.limit(), JovQuery::kMaxLimit);
  EXPECT_TRUE(lines.empty());
  query.setLimit(JovQuery::kMaxLimit + 1);
  JovLogger::setSink({});
  Jov::setLogLevel(level);
  EXPECT_EQ(query.limit(), JovQuery::kMaxLimit);
  EXPECT_EQ(query.dictValue()["bestEffortLimit"], JovQuery::kMaxLimit);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("Query limit set too high. Capped at 200"), std::string::npos);
}

TEST(QueryTest, GeoPointsHashByBothCoordinates) {
  const std::hash<JovGeoPoint> hash;
  EXPECT_EQ(hash(JovGeoPoint(35.6, 139.7)), hash(JovGeoPoint(35.6, 139.7)));
  EXPECT_EQ(hash(JovGeoPoint(0.0, 0.0)), hash(JovGeoPoint(-0.0, 0.0)));
  EXPECT_NE(hash(JovGeoPoint(1, 2)), hash(JovGeoPoint(2, 1)));
  EXPECT_NE(hash(JovGeoPoint(1, 2)), hash(JovGeoPoint(1, 3)));
  const std::unordered_set<JovGeoPoint> points = {JovGeoPoint(1, 2), JovGeoPoint(1, 2),
                                                  JovGeoPoint(2, 1)};
  EXPECT_EQ(points.size(), 2u);
}

}  // namespace
}  // namespace jov
