// Things against the fake transport: every exchange's request, the error map row by row, the
// record read into a thing, the update body, query bodies and paging, and the refusals that
// come before any request.
#include "jov/thing.hpp"

#include <gtest/gtest.h>

#include "fake_transport.hpp"
#include "jov/group.hpp"

namespace jov {
namespace {

using jovtest::Answer;
using nlohmann::json;
using namespace std::chrono_literals;
using Op = jovtest::Operation;

template <class R>
std::optional<JovError> err(const R& r) {
  return r.errorIfAny();
}

const json kRecord = {{"_thingID", "th.1"},   {"_vendorThingID", "v-1"}, {"_thingType", "lamp"},
                      {"_created", 1000},     {"_vendor", "acme"},       {"_numberField2", 2.5},
                      {"_disabled", true},    {"_online", true},         {"color", "red"},
                      {"_accessToken", "tok"}};

JovThing::Ptr known() {
  auto thing = JovThing::thingWithID("th.1");
  thing->loadFromJSON(kRecord);
  return thing;
}
JovThingOwner alice() { return JovUser::userWithID("alice"); }
JovThingOwner club() { return JovGroup::groupWithID("club"); }

const Op kRegister = [] {
  JovThingFields fields;
  fields.vendor = "acme";
  fields.numberField1 = 3;
  fields.setCustomField("color", "red");
  return err(JovThing::registerThingSynchronous("v-1", "pw", "lamp", fields));
};
const Op kLoad = [] { return err(JovThing::loadSynchronousWithThingID("th.1")); };
const Op kLoadVendor = [] { return err(JovThing::loadSynchronousWithVendorThingID("v 1")); };
const Op kRefresh = [] { return err(known()->refreshSynchronous()); };
const Op kUpdate = [] { return err(known()->updateSynchronous()); };
const Op kDisable = [] { return err(known()->disableSynchronous()); };
const Op kEnable = [] { return err(known()->enableSynchronous()); };
const Op kDelete = [] { return err(known()->deleteSynchronous()); };
const Op kOwnWithPassword = [] { return err(known()->registerOwnerSynchronous(alice(), "pw")); };
const Op kOwnGroup = [] {
  return err(JovThing::registerOwnerSynchronousWithVendorThingID(club(), "v-1"));
};
const Op kDisown = [] { return err(known()->unregisterOwnerSynchronous(club())); };
const Op kIsOwner = [] { return err(known()->checkIsOwnerSynchronous(alice())); };
const Op kQuery = [] {
  return err(JovThing::querySynchronous(JovThingQuery::thingQuery(JovUser::userWithID("u1"), {})));
};

class ThingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    JovKeyChainWrapper::useMemoryStore();
    Jov::setCurrentUser(jovtest::credentialUser({{"userID", "me"}}));
  }
  void TearDown() override {
    JovUser::logOut();
    Jov::setCurrentThing(nullptr);
  }

  jovtest::TestApp app;
  jovtest::FakeTransport& fake = *app.fake;
};

TEST_F(ThingTest, EachExchangeSendsItsRequest) {
  const std::string plain = "application/json";
  const auto done = Answer::text(204, "");
  const auto record = Answer::json(200, kRecord);
  jovtest::checkRequests(
      fake,
      {
          {kRegister, Answer::json(201, kRecord), "POST /things",
           "application/vnd.jov.ThingRegistrationAndAuthorizationRequest+json", "",
           R"({"_vendor":"acme","_numberField1":3,"color":"red","_vendorThingID":"v-1",)"
           R"("_password":"pw","_thingType":"lamp"})"},
          {kLoad, record, "GET /things/th.1", plain,
           "application/vnd.jov.ThingRetrievalResponse+json", ""},
          {kLoadVendor, record, "GET /things/VENDOR_THING_ID:v%201", plain,
           "application/vnd.jov.ThingRetrievalResponse+json", ""},
          {kRefresh, record, "GET /things/th.1", plain,
           "application/vnd.jov.ThingRetrievalResponse+json", ""},
          // Never the thing's ID, vendor ID, creation time or token.
          {kUpdate, done, "PATCH /things/th.1", "application/vnd.jov.ThingUpdateRequest+json", "",
           R"({"_vendor":"acme","_numberField2":2.5,"color":"red"})"},
          {kDisable, done, "PUT /things/th.1/status",
           "application/vnd.jov.ThingStatusUpdateRequest+json", "", R"({"disabled":true})"},
          {kEnable, done, "PUT /things/th.1/status",
           "application/vnd.jov.ThingStatusUpdateRequest+json", "", R"({"disabled":false})"},
          {kDelete, done, "DELETE /things/th.1", plain, "", ""},
          {kOwnWithPassword, done, "POST /things/th.1/ownership",
           "application/vnd.jov.ThingOwnershipRequest+json", "",
           R"({"userID":"alice","thingPassword":"pw"})"},
          {kOwnGroup, done, "PUT /things/VENDOR_THING_ID:v-1/ownership/GroupID:club", plain, "",
           ""},
          {kDisown, done, "DELETE /things/th.1/ownership/GroupID:club", plain, "", ""},
          {kIsOwner, done, "HEAD /things/th.1/ownership/UserID:alice", plain, "", ""},
          {kQuery, Answer::json(200, {{"results", json::array()}}), "POST /things/query",
           "application/vnd.jov.ThingQueryRequest+json", "",
           R"({"thingQuery":{"clause":{"type":"contains","field":"userOwners","value":"u1"}}})"},
      });
}

TEST_F(ThingTest, ErrorMapByOperationGroup) {
  const int notFound = JovError::codeThingNotFound();
  const int ownerGone = JovError::codeThingOwnerNotFound();
  const int invalid = JovError::codeThingInvalidData();
  auto e = [](int status, const char* code) { return Answer::serviceError(status, code); };
  jovtest::checkAnswers(
      fake,
      {
          {kRegister, e(409, "THING_ALREADY_EXISTS"), JovError::codeThingExist()},
          {kRegister, e(400, "INVALID_INPUT_DATA"), invalid},
          {kRegister, e(404, "THING_NOT_FOUND"), 0},
          {kRegister, Answer::json(201, {{"_vendorThingID", "v"}}), JovError::codeUnableToParseResponse()},
          {kLoad, e(404, "THING_NOT_FOUND"), notFound},
          {kLoadVendor, e(404, "thing_not_found"), notFound},
          {kLoad, Answer::json(200, {{"_thingID", 5}}), JovError::codeUnableToParseResponse()},
          {kRefresh, e(404, "THING_NOT_FOUND"), notFound},
          {kUpdate, e(404, "THING_NOT_FOUND"), notFound},
          {kUpdate, e(400, "INVALID_INPUT_DATA"), invalid},
          {kDisable, e(404, "THING_NOT_FOUND"), notFound},
          {kDisable, e(400, "INVALID_INPUT_DATA"), 0},
          // Deleting speaks the load group's words.
          {kDelete, e(404, "THING_NOT_FOUND"), notFound},
          {kDelete, e(400, "INVALID_INPUT_DATA"), 0},
          {kOwnWithPassword, e(404, "USER_NOT_FOUND"), ownerGone},
          {kOwnGroup, e(404, "GROUP_NOT_FOUND"), ownerGone},
          {kOwnGroup, e(404, "THING_NOT_FOUND"), notFound},
          {kOwnWithPassword, e(409, "THING_OWNERSHIP_ALREADY_EXISTS"),
           JovError::codeThingOwnershipExist()},
          {kOwnWithPassword, e(403, "FORBIDDEN"), 0},
          {kDisown, e(404, "USER_NOT_FOUND"), ownerGone},
          {kDisown, e(404, "GROUP_NOT_FOUND"), ownerGone},
          {kDisown, e(404, "THING_NOT_FOUND"), notFound},
          {kDisown, e(404, "THING_OWNERSHIP_NOT_FOUND"), JovError::codeThingOwnershipNotFound()},
          {kDisown, e(409, "THING_OWNERSHIP_ALREADY_EXISTS"), 0},
          {kIsOwner, Answer::text(404, ""), JovError::codeThingOwnershipNotFound()},
          {kQuery, e(404, "THING_NOT_FOUND"), notFound},
          {kQuery, e(400, "INVALID_INPUT_DATA"), invalid},
          {kQuery, Answer::json(200, {{"results", {{{"_vendorThingID", "x"}}}}}),
           JovError::codeUnableToParseResponse()},
          {kQuery, Answer::json(200, {{"results", json::array()}, {"nextPaginationKey", 3}}),
           JovError::codeUnableToParseResponse()},
      });

  // A check that finds no ownership answers false, with 1104.
  fake.reset();
  fake.push(Answer::text(404, ""));
  std::optional<bool> owner;
  std::optional<JovError> error;
  known()->checkIsOwner(alice(), [&](bool o, std::optional<JovError> e) {
    owner = o;
    error = e;
  });
  ASSERT_EQ(JovMainQueue::runUntil(1, 5s), 1u);
  EXPECT_EQ(owner, false);
  EXPECT_EQ(error->code(), JovError::codeThingOwnershipNotFound());
  fake.push(Answer::text(204, ""));
  EXPECT_TRUE(known()->checkIsOwnerSynchronous(alice()).value());
}

TEST_F(ThingTest, RecordsFieldsAndActingAsAThing) {
  auto thing = known();
  EXPECT_EQ(thing->vendorThingID(), "v-1");
  EXPECT_EQ(thing->thingType(), "lamp");
  EXPECT_EQ(thing->created(), 1000);
  EXPECT_TRUE(thing->disabled());
  EXPECT_TRUE(thing->online());
  EXPECT_EQ(thing->accessToken(), "tok");
  EXPECT_EQ(thing->fields().vendor, "acme");
  EXPECT_EQ(thing->fields().numberField2, 2.5);
  EXPECT_EQ(thing->fields().customFields(), json({{"color", "red"}}));
  // A record with a known key of the wrong type changes nothing.
  EXPECT_FALSE(thing->loadFromJSON({{"_thingType", "x"}, {"_vendor", 3}}));
  EXPECT_FALSE(thing->loadFromJSON(json::array()));
  EXPECT_EQ(thing->thingType(), "lamp");
  // A load answers without the token: the thing keeps it.
  ASSERT_TRUE(thing->loadFromJSON({{"_thingID", "th.1"}, {"_thingType", "bulb"}}));
  EXPECT_EQ(thing->accessToken(), "tok");
  EXPECT_FALSE(thing->disabled());
  EXPECT_FALSE(thing->fields().vendor.has_value());

  JovThingFields fields;
  EXPECT_FALSE(fields.setCustomField("_secret", 1));
  EXPECT_FALSE(fields.setCustomField("", 1));
  EXPECT_TRUE(fields.setCustomField("size", 3));
  EXPECT_EQ(fields.toJSON(), json({{"size", 3}}));
  EXPECT_EQ(JovThingFields::reservedFields().size(), 19u);
  EXPECT_EQ(JovThingFields::reservedFields().front(), "_thingID");
  EXPECT_EQ(JovThingFields::reservedFields().back(), "_accessToken");

  // Nobody logged in: requests carry the token of the thing the library acts as.
  JovUser::logOut();
  Jov::setCurrentThing(known());
  fake.push(Answer::json(200, kRecord));
  ASSERT_TRUE(known()->refreshSynchronous().ok());
  EXPECT_EQ(fake.last().header("Authorization"), "Bearer tok");
  Jov::setCurrentUser(jovtest::credentialUser({{"userID", "me"}}));
  fake.push(Answer::json(200, kRecord));
  ASSERT_TRUE(known()->refreshSynchronous().ok());
  EXPECT_EQ(fake.last().header("Authorization"), "Bearer t0") << "a user comes first";
}

TEST_F(ThingTest, QueryBodiesAndPaging) {
  auto user = JovUser::userWithID("u1");
  auto g1 = JovGroup::groupWithID("g1"), g2 = JovGroup::groupWithID("g2");
  auto one = JovThingQuery::thingQuery(user, std::nullopt);
  EXPECT_EQ(one.generateQueryDict()["thingQuery"]["clause"],
            json({{"type", "contains"}, {"field", "userOwners"}, {"value", "u1"}}));
  auto three = JovThingQuery::thingQuery(user, std::vector{g1, g2});
  three.thingType = "lamp";
  three.limit = 20;
  three.nextPaginationKey = "k";
  EXPECT_EQ(three.generateQueryDict(),
            json::parse(R"({"thingQuery":{"clause":{"type":"and","clauses":[
              {"type":"or","clauses":[
                {"type":"contains","field":"userOwners","value":"u1"},
                {"type":"contains","field":"groupOwners","value":"g1"},
                {"type":"contains","field":"groupOwners","value":"g2"}]},
              {"type":"eq","field":"_thingType","value":"lamp"}]}},
              "bestEffortLimit":20,"paginationKey":"k"})"));
  auto groupOnly = JovThingQuery::thingQuery(nullptr, std::vector{g1});
  groupOnly.thingType = "";
  EXPECT_EQ(groupOnly.generateQueryDict(),
            json({{"thingQuery",
                   {{"clause", {{"type", "contains"}, {"field", "groupOwners"}, {"value", "g1"}}}}}}));

  using jovtest::thrownMessage;
  using Groups = std::vector<std::shared_ptr<JovGroup>>;
  EXPECT_EQ(thrownMessage([] { JovThingQuery::thingQuery(nullptr, std::nullopt); }),
            "Invalid argument : user and groups is nil");
  EXPECT_EQ(thrownMessage([] { JovThingQuery::thingQuery(JovUser::userWithID(""), Groups{}); }),
            "Invalid argument : user does not have valid userID");
  EXPECT_EQ(thrownMessage([] { JovThingQuery::thingQuery(nullptr, Groups{nullptr}); }),
            "Invalid argument : groups is invalid");
  EXPECT_EQ(thrownMessage([] { JovThingQuery::thingQuery(nullptr, Groups{}); }),
            "Invalid argument : groups is empty while user is nil");
  EXPECT_EQ(thrownMessage([] {
              JovThing::query(JovThingQuery::thingQuery(JovUser::userWithID("u"), {}), {});
            }),
            "completion can not be nil");

  // Two pages: the second query carries the key; the last page has no next one (605).
  fake.push(Answer::json(200, {{"results", {kRecord}}, {"nextPaginationKey", "th.1"}}));
  fake.push(Answer::json(200, {{"results", json::array()}}));
  auto first = JovThing::querySynchronous(one);
  ASSERT_TRUE(first.ok());
  ASSERT_EQ(first.value().results.size(), 1u);
  EXPECT_EQ(first.value().results[0]->thingType(), "lamp");
  ASSERT_TRUE(first.value().hasNext());
  auto second = first.value().getNextResultSynchronous();
  ASSERT_TRUE(second.ok());
  EXPECT_EQ(fake.last().json()["paginationKey"], "th.1");
  EXPECT_FALSE(second.value().hasNext());
  EXPECT_EQ(second.value().getNextResultSynchronous().error().code(),
            JovError::codeQueryEndOfPage());
  std::optional<int> code;
  second.value().getNextResult(
      [&](JovThingQueryResult, std::optional<JovError> e) { code = e ? e->code() : 0; });
  ASSERT_EQ(JovMainQueue::runUntil(1, 5s), 1u);
  EXPECT_EQ(code, JovError::codeQueryEndOfPage());

  // Refusals before any request: no ID, an owner without ID.
  fake.reset();
  auto code501 = [](const std::optional<JovError>& e) { return e ? e->code() : -1; };
  EXPECT_EQ(code501(err(JovThing::loadSynchronousWithThingID(""))), JovError::codeInvalidObjects());
  EXPECT_EQ(code501(err(known()->registerOwnerSynchronous(JovUser::userWithID("")))),
            JovError::codeInvalidObjects());
  EXPECT_EQ(code501(err(known()->checkIsOwnerSynchronous(std::shared_ptr<JovGroup>{}))),
            JovError::codeInvalidObjects());
  EXPECT_EQ(fake.count(), 0u);
  EXPECT_THROW(JovThing::thingWithID(""), std::invalid_argument);
}

}  // namespace
}  // namespace jov
