// Queries against the emulator: every kind of clause the library writes selects the objects it
// describes (and counts them alike), distances put into the results and ordered by, and the
// answers for a bucket whose owner does not exist or a query the service cannot evaluate.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "emulator_fixture.hpp"
#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/credential_store.hpp"
#include "jov/group.hpp"
#include "jov/user.hpp"

namespace jov {
namespace {

using Names = std::set<std::string>;

const JovGeoPoint kTokyo(35.68, 139.76), kOsaka(34.69, 135.50), kLondon(51.50, -0.12);

class QueryFlowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    jovtest::beginLibraryOnNewApp();
    alice = JovUser::userWithUsername("alice", "pass1234");
    ASSERT_TRUE(alice->performRegistrationSynchronous().ok());
  }
  void TearDown() override { JovUser::logOut(); }

  // Five places; each field is missing on some of them, and "ratio" is a number on three and a
  // text on one, so that every clause has objects it must leave out.
  void seedPlaces() {
    struct Row {
      const char* name;
      int n;
      nlohmann::json ratio, flag;
      const char* tag;
      std::optional<JovGeoPoint> at;
    };
    const Row rows[] = {
        {"alpha", 1, 0.5, true, "red", kTokyo},   {"beta", 2, 1.5, false, "blue", kOsaka},
        {"gamma", 3, 2.5, true, "red", kLondon},  {"delta", 4, nullptr, nullptr, "green", {}},
        {"epsilon", 5, "x", nullptr, "grey", {}},
    };
    for (const auto& row : rows) {
      auto place = places->createObject();
      place->setObject(row.name, "name");
      place->setObject(row.n, "n");
      if (!row.ratio.is_null()) place->setObject(row.ratio, "ratio");
      if (!row.flag.is_null()) place->setObject(row.flag, "flag");
      place->setObject(row.tag, "tag");
      if (row.at) place->setGeoPoint(*row.at, "at");
      byName[row.name] = place;
    }
    byName["alpha"]->setObject(byName["beta"], "ref");  // saves beta first
    byName["gamma"]->setObject(alice, "owner");
    for (const auto& [name, place] : byName) {
      if (place->isCreated()) continue;
      auto saved = place->saveSynchronous();
      ASSERT_TRUE(saved.ok()) << name << ": " << saved.error().describe();
    }
  }

  Names namesOf(const JovQuery& query) {
    auto page = places->executeQuerySynchronous(query);
    if (!page.ok()) {
      ADD_FAILURE() << page.error().describe();
      return {};
    }
    EXPECT_FALSE(std::get<1>(page.value())) << "one page holds them all";
    Names names;
    for (const auto& object : std::get<0>(page.value()))
      names.insert(object->getObjectForKey("name").value_or("?").get<std::string>());
    return names;
  }

  JovUser::Ptr alice;
  JovBucket::Ptr places = Jov::bucketWithName("places");
  std::map<std::string, JovObject::Ptr> byName;
};

TEST_F(QueryFlowTest, EveryClauseSelectsWhatItDescribes) {
  ASSERT_NO_FATAL_FAILURE(seedPlaces());
  using C = JovClause;
  const auto red = C::equals("tag", "red");
  const auto greenOrFirst = C::orClauses({C::equals("tag", "green"), C::equals("n", 1)});
  const std::vector<std::pair<JovClause::Ptr, Names>> rows = {
      {nullptr, {"alpha", "beta", "gamma", "delta", "epsilon"}},
      {red, {"alpha", "gamma"}},
      {C::equals("flag", true), {"alpha", "gamma"}},
      {C::equals("ratio", 1.5), {"beta"}},
      {C::notEquals("tag", "red"), {"beta", "delta", "epsilon"}},
      {C::greaterThan("n", 3), {"delta", "epsilon"}},
      {C::greaterThanOrEqual("n", 3), {"gamma", "delta", "epsilon"}},
      {C::lessThan("n", 2), {"alpha"}},
      {C::lessThanOrEqual("n", 2), {"alpha", "beta"}},
      {C::lessThan("ratio", 2), {"alpha", "beta"}},  // the text "x" is not a number below 2
      {C::andClauses({C::greaterThanOrEqual("n", 2), C::lessThan("n", 4)}), {"beta", "gamma"}},
      {greenOrFirst, {"alpha", "delta"}},
      {C::notClause(greenOrFirst), {"beta", "gamma", "epsilon"}},
      {C::andClauses({red, C::notClause(C::equals("n", 1))}), {"gamma"}},
      {C::in("tag", {"blue", "green", "violet"}), {"beta", "delta"}},
      {C::startsWith("tag", "gre"), {"delta", "epsilon"}},
      {C::hasField("ratio", JovFieldTypeDecimal), {"alpha", "beta", "gamma"}},
      {C::hasField("ratio", JovFieldTypeString), {"epsilon"}},
      {C::hasField("flag", JovFieldTypeBoolean), {"alpha", "beta", "gamma"}},
      {C::hasField("n", JovFieldTypeInteger), {"alpha", "beta", "gamma", "delta", "epsilon"}},
      {C::geoBox("at", JovGeoPoint(40, 145), JovGeoPoint(30, 130)), {"alpha", "beta"}},
      {C::geoDistance("at", kTokyo, 450000), {"alpha", "beta"}},
      {C::geoDistance("at", kTokyo, 100000), {"alpha"}},
      {C::equals("ref", byName["beta"]), {"alpha"}},
      {C::notEquals("ref", byName["beta"]), {"beta", "gamma", "delta", "epsilon"}},
      {C::equals("owner", alice), {"gamma"}},
  };
  for (const auto& [clause, expected] : rows) {
    const JovQuery query(clause);
    SCOPED_TRACE(query.dictValue().dump());
    EXPECT_EQ(namesOf(query), expected);
    auto counted = places->countSynchronous(query);
    ASSERT_TRUE(counted.ok()) << counted.error().describe();
    EXPECT_EQ(counted.value(), static_cast<std::int64_t>(expected.size()));
  }
}

TEST_F(QueryFlowTest, DistancesComeBackAndOrderThePage) {
  ASSERT_NO_FATAL_FAILURE(seedPlaces());
  JovQuery query(JovClause::geoDistance("at", kTokyo, 20000000, "distance"));
  query.sortByAsc("distance");
  auto page = places->executeQuerySynchronous(query);
  ASSERT_TRUE(page.ok()) << page.error().describe();
  const auto& found = std::get<0>(page.value());
  ASSERT_EQ(found.size(), 3u);
  std::vector<std::string> order;
  std::vector<double> metres;
  for (const auto& place : found) {
    order.push_back(place->getObjectForKey("name")->get<std::string>());
    metres.push_back(place->getObjectForKey("distance")->get<double>());
  }
  EXPECT_EQ(order, (std::vector<std::string>{"alpha", "beta", "gamma"}));
  EXPECT_LT(metres[0], 1.0);
  EXPECT_GT(metres[1], 350000);  // Tokyo to Osaka, about 400 km
  EXPECT_LT(metres[1], 450000);
  EXPECT_GT(metres[2], 9000000);  // to London, about 9,600 km
  EXPECT_LT(metres[2], 10000000);
  // The point itself comes back as it was stored.
  EXPECT_EQ(found[1]->getGeoPointForKey("at"), kOsaka);

  // The same order descending, a page at a time.
  query.sortByDesc("distance");
  query.setLimit(2);
  auto first = places->executeQuerySynchronous(query);
  ASSERT_TRUE(first.ok());
  ASSERT_EQ(std::get<0>(first.value()).size(), 2u);
  EXPECT_EQ(std::get<0>(first.value())[0]->getObjectForKey("name"), "gamma");
  const auto& next = std::get<1>(first.value());
  ASSERT_TRUE(next && next->paginationKey());
  auto second = places->executeQuerySynchronous(*next);
  ASSERT_TRUE(second.ok()) << second.error().describe();
  ASSERT_EQ(std::get<0>(second.value()).size(), 1u);
  EXPECT_EQ(std::get<0>(second.value())[0]->getObjectForKey("name"), "alpha");
  EXPECT_FALSE(std::get<1>(second.value()));
}

TEST_F(QueryFlowTest, MissingOwnersAndQueriesTheServiceRefuses) {
  ASSERT_NO_FATAL_FAILURE(seedPlaces());
  for (const auto& bucket : {JovUser::userWithID("nobody")->bucketWithName("places"),
                             JovGroup::groupWithID("no-such-group")->bucketWithName("places")}) {
    SCOPED_TRACE(*bucket->bucketPath());
    EXPECT_EQ(bucket->executeQuerySynchronous(JovQuery()).error().code(),
              JovError::codeBucketParentNotExistInCloud());
    EXPECT_EQ(bucket->countSynchronous().error().code(),
              JovError::codeBucketParentNotExistInCloud());
  }

  // An object is not a value the service compares with: the count says so with 604; the query
  // keeps the service's answer.
  const JovQuery unsupported(JovClause::equals("tag", {{"a", 1}}));
  EXPECT_EQ(places->countSynchronous(unsupported).error().code(),
            JovError::codeQueryNotSupported());
  auto refused = places->executeQuerySynchronous(unsupported);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code(), 0);
  EXPECT_EQ(refused.error().userInfo().value("http_status", 0), 400);
  EXPECT_EQ(refused.error().userInfo().value("server_code", ""), "QUERY_NOT_SUPPORTED");

  // A ready document with an empty "or" is refused before it is sent; the service never sees it.
  const auto empty =
      JovQuery::queryWithDictionary({{"type", "or"}, {"clauses", nlohmann::json::array()}});
  EXPECT_EQ(places->countSynchronous(empty).error().code(), JovError::codeEmptyQueryClauses());
  EXPECT_EQ(places->executeQuerySynchronous(empty).error().code(),
            JovError::codeEmptyQueryClauses());
}

}  // namespace
}  // namespace jov
