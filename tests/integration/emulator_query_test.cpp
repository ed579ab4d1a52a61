// Bucket queries: every clause type, JSON types kept apart, geo against distances computed by
// hand, ordering, counts and paging while objects are added.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "bucket_test_helpers.hpp"

namespace jovtest {
namespace {

using nlohmann::json;
using Keys = std::vector<std::string>;

json point(double lat, double lon) {
  return {{"_type", "point"}, {"lat", lat}, {"lon", lon}};
}

// One degree of arc on a sphere of radius 6371000 m: 6371000 * pi / 180.
constexpr double kOneDegreeMetres = 111194.92664;

class EmulatorQuery : public ::testing::Test {
 protected:
  void SetUp() override {
    auto [user, userToken] = client.newUser();
    token = userToken;
    // "n" holds a number, a string that reads like it, a boolean-like number; "flag" a boolean
    // or the number 1; "loc" points on the equator and beside the 180th meridian.
    const json docs[] = {
        {{"k", "a"},
         {"name", "apple"},
         {"n", 10},
         {"price", 1.5},
         {"flag", true},
         {"loc", point(0, 0)}},
        {{"k", "b"}, {"name", "apricot"}, {"n", "10"}, {"flag", false}, {"loc", point(0, 1)}},
        {{"k", "c"}, {"name", "banana"}, {"n", 20}, {"price", 2}, {"loc", point(1, 1)}},
        {{"k", "d"}, {"name", "cherry"}, {"n", 5}, {"flag", 1}, {"loc", point(0, 179.5)}},
        {{"k", "e"}, {"other", {{"name", "apple"}}}, {"loc", point(1, 0)}},
    };
    for (const auto& doc : docs)
      ASSERT_EQ(postObject(client, "/buckets/qb", doc, token).status, 201);
  }

  Keys keys(const json& clause) {
    return sortedValues(postQuery(client, "/buckets/qb", queryBody(clause), token));
  }

  EmulatorClient client{Emulator::shared().newApp()};
  std::string token;
};

json eq(const std::string& field, const json& value) {
  return {{"type", "eq"}, {"field", field}, {"value", value}};
}

TEST_F(EmulatorQuery, EveryClauseType) {
  json range5to10 = {
      {"type", "and"},
      {"clauses",
       {{{"type", "range"}, {"field", "n"}, {"lowerLimit", 5}, {"lowerIncluded", true}},
        {{"type", "range"}, {"field", "n"}, {"upperLimit", 10}, {"upperIncluded", true}}}}};
  const std::pair<json, Keys> cases[] = {
      {{{"type", "all"}}, {"a", "b", "c", "d", "e"}},
      {eq("n", 10), {"a"}},
      {eq("n", "10"), {"b"}},
      {eq("n", 10.0), {"a"}},
      {eq("flag", true), {"a"}},
      {eq("flag", 1), {"d"}},
      {eq("other.name", "apple"), {"e"}},
      {{{"type", "not"}, {"clause", eq("n", 10)}}, {"b", "c", "d", "e"}},
      {{{"type", "or"}, {"clauses", {eq("name", "banana"), eq("k", "d")}}}, {"c", "d"}},
      {{{"type", "prefix"}, {"field", "name"}, {"prefix", "ap"}}, {"a", "b"}},
      {{{"type", "prefix"}, {"field", "name"}, {"prefix", ""}}, {"a", "b", "c", "d"}},
      {{{"type", "range"}, {"field", "n"}, {"lowerLimit", 5}, {"lowerIncluded", false}},
       {"a", "c"}},
      {range5to10, {"a", "d"}},
      {{{"type", "range"}, {"field", "name"}, {"lowerLimit", "b"}}, {"c", "d"}},
      {{{"type", "in"}, {"field", "n"}, {"values", {5, 20, "10"}}}, {"b", "c", "d"}},
      {{{"type", "in"}, {"field", "flag"}, {"values", {false}}}, {"b"}},
      {{{"type", "hasField"}, {"field", "price"}, {"fieldType", "DECIMAL"}}, {"a"}},
      {{{"type", "hasField"}, {"field", "price"}, {"fieldType", "INTEGER"}}, {"c"}},
      {{{"type", "hasField"}, {"field", "flag"}, {"fieldType", "BOOLEAN"}}, {"a", "b"}},
      {{{"type", "hasField"}, {"field", "n"}, {"fieldType", "STRING"}}, {"b"}},
      {{{"type", "geobox"},
        {"field", "loc"},
        {"box", {{"ne", point(0.5, 1.5)}, {"sw", point(-0.5, -0.5)}}}},
       {"a", "b"}},
      {{{"type", "geobox"},
        {"field", "loc"},
        {"box", {{"ne", point(1, -179)}, {"sw", point(-1, 179)}}}},
       {"d"}},
      // (0,1) and (1,0) lie 111.19 km from (0,0); (1,1) 157.25 km; (0,179.5) far away.
      {{{"type", "geodistance"}, {"field", "loc"}, {"center", point(0, 0)}, {"radius", 150000}},
       {"a", "b", "e"}},
      {{{"type", "geodistance"},
        {"field", "loc"},
        {"center", point(0, 0)},
        {"radius", kOneDegreeMetres - 1}},
       {"a"}},
      // 0.7 degrees across the 180th meridian: 77.84 km.
      {{{"type", "geodistance"}, {"field", "loc"}, {"center", point(0, -179.8)}, {"radius", 78000}},
       {"d"}},
      {{{"type", "geodistance"}, {"field", "loc"}, {"center", point(0, -179.8)}, {"radius", 77000}},
       Keys{}},
  };
  for (const auto& [clause, expected] : cases) {
    EXPECT_EQ(keys(clause), expected) << clause.dump();
    auto body = queryBody(clause);
    body["bucketQuery"]["aggregations"] = {
        {{"type", "COUNT"}, {"putAggregationInto", "count_field"}}};
    EXPECT_EQ(postQuery(client, "/buckets/qb", body, token).body["aggregations"]["count_field"],
              expected.size())
        << clause.dump();
  }

  auto withDistance = postQuery(client, "/buckets/qb",
                                queryBody({{"type", "geodistance"},
                                           {"field", "loc"},
                                           {"center", point(0, 0)},
                                           {"radius", 200000},
                                           {"putDistanceInto", "dist"}},
                                          "dist"),
                                token);
  // b and e are equally far: their order is the "_id" tie-break.
  auto byDistance = valuesOf(withDistance);
  ASSERT_EQ(byDistance.size(), 4u) << withDistance.raw;
  EXPECT_EQ(byDistance[0], "a");
  EXPECT_EQ(byDistance[3], "c");
  const auto& results = withDistance.body["results"];
  EXPECT_NEAR(results[0]["dist"].get<double>(), 0, 1e-6);
  EXPECT_NEAR(results[1]["dist"].get<double>(), kOneDegreeMetres, 0.01);
  EXPECT_NEAR(results[2]["dist"].get<double>(), kOneDegreeMetres, 0.01);
  EXPECT_NEAR(results[3]["dist"].get<double>(), 157249.38, 0.01);

  for (const json& bad :
       {json{{"type", "near"}, {"field", "n"}}, json{{"type", "and"}, {"clauses", json::array()}},
        json{{"type", "eq"}, {"field", "n"}, {"value", {1}}},
        json{{"type", "eq"}, {"field", "a'b"}, {"value", 1}},
        json{{"type", "geodistance"}, {"field", "loc"}, {"center", point(0, 0)}, {"radius", 0}}}) {
    auto reply = postQuery(client, "/buckets/qb", queryBody(bad), token);
    EXPECT_EQ(reply.status, 400) << bad.dump();
    EXPECT_EQ(reply.errorCode(), "QUERY_NOT_SUPPORTED") << bad.dump();
  }
}

TEST_F(EmulatorQuery, OrderingWithTiesAndPages) {
  for (int i = 0; i < 6; ++i) {
    ASSERT_EQ(
        postObject(client, "/buckets/qb", {{"k", "t" + std::to_string(i)}, {"n", 7}}, token).status,
        201);
  }
  // Every order, read whole and in pages of 2, gives the same sequence; ties go by "_id".
  for (bool descending : {false, true}) {
    auto whole =
        postQuery(client, "/buckets/qb", queryBody({{"type", "all"}}, "n", descending), token);
    auto order = valuesOf(whole);
    ASSERT_EQ(order.size(), 11u);
    Keys paged;
    std::string key;
    do {
      auto page = postQuery(client, "/buckets/qb",
                            queryBody({{"type", "all"}}, "n", descending, 2, key), token);
      ASSERT_EQ(page.status, 200) << page.raw;
      EXPECT_LE(page.body["results"].size(), 2u);
      for (const auto& k : valuesOf(page)) paged.push_back(k);
      key = page.body.value("nextPaginationKey", "");
    } while (!key.empty());
    EXPECT_EQ(paged, order) << "descending " << descending;
    // Numbers before strings ascending; objects without the field first ascending.
    Keys expectedEnds = descending ? Keys{"b", "e"} : Keys{"e", "b"};
    EXPECT_EQ(order.front(), expectedEnds[0]);
    EXPECT_EQ(order.back(), expectedEnds[1]);
  }
  auto ids = valuesOf(postQuery(client, "/buckets/qb", queryBody(eq("n", 7), "n"), token), "_id");
  EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));

  auto foreignKey =
      postQuery(client, "/buckets/qb", queryBody({{"type", "all"}}, "n", false, 2), token)
          .body.value("nextPaginationKey", "");
  auto misused = postQuery(client, "/buckets/qb",
                           queryBody({{"type", "all"}}, "name", false, 2, foreignKey), token);
  EXPECT_EQ(misused.errorCode(), "INVALID_INPUT_DATA");
  EXPECT_EQ(
      postQuery(client, "/buckets/qb", queryBody({{"type", "all"}}, "", false, 0, "%%"), token)
          .errorCode(),
      "INVALID_INPUT_DATA");
}

TEST(EmulatorQueryPaging, ThousandObjectsWhileAdding) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [user, token] = client.newUser();
  std::set<std::string> originals;
  for (int i = 0; i < 1000; ++i) {
    auto reply =
        postObject(client, "/buckets/big", {{"seq", (i * 7919) % 1000}, {"k", "o"}}, token);
    ASSERT_EQ(reply.status, 201) << reply.raw;
    originals.insert(reply.body["objectID"].get<std::string>());
  }
  auto capped =
      postQuery(client, "/buckets/big", queryBody({{"type", "all"}}, "", false, 5000), token);
  EXPECT_EQ(capped.body["results"].size(), 200u) << "bestEffortLimit is capped at 200";

  for (const std::string orderBy : {"seq", ""}) {
    std::map<std::string, int> seen;
    std::string key;
    int pages = 0, added = 0;
    do {
      auto page = postQuery(
          client, "/buckets/big",
          queryBody({{"type", "eq"}, {"field", "k"}, {"value", "o"}}, orderBy, false, 100, key),
          token);
      ASSERT_EQ(page.status, 200) << page.raw;
      for (const auto& id : valuesOf(page, "_id")) ++seen[id];
      key = page.body.value("nextPaginationKey", "");
      // New objects land before, inside and after the pages still to come.
      for (int j = 0; j < 5; ++j, ++added) {
        ASSERT_EQ(
            postObject(client, "/buckets/big", {{"seq", (added * 131) % 1000}, {"k", "o"}}, token)
                .status,
            201);
      }
      ASSERT_LT(++pages, 100);
    } while (!key.empty());
    for (const auto& id : originals) EXPECT_EQ(seen[id], 1) << "order " << orderBy << ": " << id;
    for (const auto& [id, count] : seen) EXPECT_EQ(count, 1) << id;
  }
}

}  // namespace
}  // namespace jovtest
