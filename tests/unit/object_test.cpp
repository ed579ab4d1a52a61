// Objects and buckets against the fake transport: what each exchange sends, how the service's
// answers are read, the version rules, the change set, URIs, and that a failure changes nothing.
#include <gtest/gtest.h>

#include "fake_transport.hpp"
#include "jov/bucket.hpp"
#include "jov/group.hpp"
#include "jov/thing.hpp"

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

class ObjectTest : public jovtest::UserTest {
 protected:
  void SetUp() override {
    jovtest::UserTest::SetUp();
    Jov::setCurrentUser(jovtest::credentialUser({{"userID", "u1"}}));
  }
  // An object of the user's bucket "notes" as the service last sent it (version "v1").
  std::shared_ptr<JovObject> loaded(const std::string& id = "o1") {
    auto object = JovUser::userWithID("u1")->bucketWithName("notes")->createObjectWithID(id);
    EXPECT_TRUE(object->loadFromJSON(
        {{"_id", id}, {"_created", 1000}, {"_modified", 2000}, {"_version", "v1"}, {"a", 1}}));
    return object;
  }
};

TEST_F(ObjectTest, EachExchangeSendsItsRequest) {
  const std::string created = R"({"objectID": "o9", "createdAt": 5})";
  auto typedSave = [this] {
    auto bucket = JovUser::userWithID("u1")->bucketWithName("notes");
    auto object = bucket->createObjectWithType("Recipe").value();
    object->setObject("soup", "name");
    return err(object->saveSynchronous());
  };
  auto merge = [this] {
    auto object = loaded();
    object->setObject(2, "b");
    return err(object->saveSynchronous(false));
  };
  auto replace = [this] { return err(loaded()->saveAllFieldsSynchronous(false)); };
  const auto doc = Answer::json(200, {{"_id", "o1"}, {"a", 1}});
  jovtest::checkRequests(
      fake,
      {
          {[] {
             auto object = Jov::bucketWithName("my notes")->createObject();
             object->setObject(json{{"x", 1}}, "nested");
             object->setObject(JovUser::userWithID("u2"), "friend");
             return err(object->saveSynchronous());
           },
           Answer::json(201, json::parse(created)), "POST /buckets/my%20notes/objects",
           "application/json", "", R"({"nested": {"x": 1}, "friend": "jovcloud://users/u2"})"},
          {typedSave, Answer::json(201, json::parse(created)),
           "POST /users/u1/buckets/notes/objects", "application/vnd.app1.Recipe+json", "",
           R"({"name": "soup"})"},
          {merge, doc, "POST /users/u1/buckets/notes/objects/o1", "application/json", "",
           R"({"b": 2})"},
          {replace, Answer::json(200, {{"modifiedAt", 3}}),
           "PUT /users/u1/buckets/notes/objects/o1", "application/json", "", R"({"a": 1})"},
          {[this] { return err(loaded()->refreshSynchronous()); }, doc,
           "GET /users/u1/buckets/notes/objects/o1", "application/json", "", ""},
          {[this] { return err(loaded()->deleteSynchronous()); }, Answer::text(204, ""),
           "DELETE /users/u1/buckets/notes/objects/o1", "application/json", "", ""},
          {[] { return err(Jov::encryptedBucketWithName("vault")->deleteSynchronous()); },
           Answer::text(204, ""), "DELETE /buckets/CRYPTO:vault", "application/json", "", ""},
          {[] { return err(JovGroup::groupWithID("g1")->bucketWithName("b")->countSynchronous()); },
           Answer::json(200, {{"aggregations", {{"count_field", 4}}}}),
           "POST /groups/g1/buckets/b/query", "application/vnd.jov.QueryRequest+json", "",
           R"({"bucketQuery": {"clause": {"type": "all"}, "descending": false,
               "aggregations": [{"type": "COUNT", "putAggregationInto": "count_field"}]}})"},
      });
}

TEST_F(ObjectTest, VersionHeadersFollowTheObjectsHistory) {
  auto headersOf = [this](const std::function<std::optional<JovError>()>& save) {
    fake.reset();
    fake.push(Answer::json(200, {{"_id", "o1"}}, {{"ETag", "\"v2\""}}));
    auto error = save();
    auto sent = fake.requests();
    return std::make_tuple(
        error ? error->code() : -1,
        sent.empty() ? "-" : sent.back().header("If-Match").value_or(""),
        sent.empty() ? "-" : sent.back().header("If-None-Match").value_or(""),
        sent.empty() ? "-" : sent.back().header("X-HTTP-Method-Override").value_or(""));
  };
  auto bucket = JovUser::userWithID("u1")->bucketWithName("notes");
  const int illegal = JovError::codeIllegalStateObject();
  // Loaded: its version goes as "If-Match"; forced: no version at all.
  EXPECT_EQ(headersOf([&] { return err(loaded()->saveSynchronous(false)); }),
            std::make_tuple(-1, std::string("v1"), std::string(""), std::string("PATCH")));
  EXPECT_EQ(headersOf([&] { return err(loaded()->saveAllFieldsSynchronous(true)); }),
            std::make_tuple(-1, std::string(""), std::string(""), std::string("")));
  // Made with an ID, never loaded: a whole save asks that nothing exists yet; a partial one
  // needs a version it does not have.
  EXPECT_EQ(headersOf([&] {
              return err(bucket->createObjectWithID("o2")->saveAllFieldsSynchronous(false));
            }),
            std::make_tuple(-1, std::string(""), std::string("*"), std::string("")));
  EXPECT_EQ(
      headersOf([&] { return err(bucket->createObjectWithID("o2")->saveSynchronous(false)); }),
      std::make_tuple(illegal, std::string("-"), std::string("-"), std::string("-")));
  // Loaded without a version: nothing to check against.
  auto unversioned = bucket->createObjectWithID("o3");
  unversioned->loadFromJSON({{"_id", "o3"}, {"_created", 1}});
  EXPECT_EQ(headersOf([&] { return err(unversioned->saveAllFieldsSynchronous(false)); }),
            std::make_tuple(illegal, std::string("-"), std::string("-"), std::string("-")));
  auto object = loaded();
  fake.reset();
  fake.push(Answer::json(200, {{"_id", "o1"}, {"a", 1}}, {{"ETag", "\"v7\""}}));
  ASSERT_TRUE(object->saveSynchronous(false).ok());
  EXPECT_EQ(object->etag(), "v7") << "the answer's version is kept for the next save";
}

TEST_F(ObjectTest, AnswersMapToCodesAndFailuresChangeNothing) {
  auto object = loaded();
  auto save = [&] {
    object->setObject(5, "b");
    return err(object->saveSynchronous(false));
  };
  const int unreadable = JovError::codeUnableToParseResponse();
  jovtest::checkAnswers(
      fake,
      {
          {save, Answer::serviceError(409, "object_version_is_stale"), 512},
          {save, Answer::serviceError(404, "OBJECT_NOT_FOUND"), JovError::codeObjectNotFound()},
          {save, Answer::serviceError(404, "USER_NOT_FOUND"),
           JovError::codeBucketParentNotExistInCloud()},
          {save, Answer::error(), JovError::codeUnableToConnectToInternet()},
          {save, Answer::text(200, "[]"), unreadable},
          {save, Answer::json(200, {{"_version", 3}}), unreadable},
          {[&] { return err(object->refreshSynchronous()); },
           Answer::serviceError(404, "GROUP_NOT_FOUND"),
           JovError::codeBucketParentNotExistInCloud()},
          {[&] { return err(object->refreshSynchronous()); },
           Answer::serviceError(409, "OBJECT_VERSION_IS_STALE"), 0},
          {[&] { return err(object->refreshSynchronous()); },
           Answer::json(200, {{"_created", "yesterday"}}), unreadable},
          {[] { return err(Jov::bucketWithName("gone")->deleteSynchronous()); },
           Answer::serviceError(404, "bucket_not_found"), JovError::codeObjectNotFound()},
          {[] { return err(Jov::bucketWithName("b")->countSynchronous()); },
           Answer::serviceError(400, "QUERY_NOT_SUPPORTED"), JovError::codeQueryNotSupported()},
          {[] { return err(Jov::bucketWithName("b")->executeQuerySynchronous(JovQuery())); },
           Answer::serviceError(400, "QUERY_NOT_SUPPPORTED"), JovError::codeQueryNotSupported()},
          {[] { return err(Jov::bucketWithName("b")->executeQuerySynchronous(JovQuery())); },
           Answer::serviceError(400, "QUERY_NOT_SUPPORTED"), 0},
          {[] { return err(Jov::bucketWithName("b")->countSynchronous()); },
           Answer::json(200, {{"aggregations", {{"count_field", "4"}}}}), unreadable},
          {[] { return err(Jov::bucketWithName("b")->executeQuerySynchronous(JovQuery())); },
           Answer::json(200, {{"results", {{{"_id", "x"}}, {{"_id", 7}}}}}), unreadable},
      });
  // None of those failures touched the object.
  EXPECT_EQ(object->etag(), "v1");
  EXPECT_EQ(object->getObjectForKey("a"), 1);
  EXPECT_EQ(object->changedKeys(), std::set<std::string>{"b"});

  // Preconditions, before any request.
  fake.reset();
  auto orphan = JovUser::userWithUsername("new", "pass1234")->bucketWithName("b");
  EXPECT_FALSE(orphan->bucketPath());
  EXPECT_EQ(orphan->countSynchronous().error().code(), JovError::codeBucketParentNotExistInCloud());
  EXPECT_EQ(orphan->createObject()->saveSynchronous().error().code(),
            JovError::codeInvalidObjects());
  EXPECT_EQ(Jov::bucketWithName("b")->createObject()->refreshSynchronous().error().code(),
            JovError::codeInvalidObjects());
  EXPECT_EQ(fake.count(), 0u);
}

TEST_F(ObjectTest, FieldsChangeSetAndLoading) {
  auto object = loaded();
  EXPECT_FALSE(object->setObject("x", "_owner"));
  EXPECT_EQ(object->lastError()->code(), JovError::codeInvalidAttributeKey());
  EXPECT_FALSE(object->setObject("x", ""));
  EXPECT_FALSE(object->setObject(object, "me"));
  EXPECT_EQ(object->lastError()->code(), JovError::codeUnableToSetObjectToItself());
  EXPECT_FALSE(object->setObject(json("\xff"), "bad"));
  EXPECT_EQ(object->lastError()->code(), JovError::codeUnableToParseObject());
  EXPECT_EQ(object->dictionaryValue(), json({{"a", 1}})) << "refused values leave no trace";
  EXPECT_TRUE(object->changedKeys().empty());

  object->setObject("v", "b");
  object->removeObjectForKey("a");
  EXPECT_EQ(object->changedKeys(), (std::set<std::string>{"a", "b"}));
  // Reserved keys of a document are the identity; the other "_" keys are kept as fields.
  ASSERT_TRUE(object->loadFromJSON(
      {{"_id", "o1"}, {"_dataType", "Note1"}, {"_version", "v3"}, {"_acl", 1}, {"c", 2}}));
  EXPECT_EQ(object->dictionaryValue(), json({{"_acl", 1}, {"c", 2}}))
      << "loading replaces unsaved changes";
  EXPECT_TRUE(object->changedKeys().empty());
  EXPECT_EQ(object->objectType(), "Note1");
  EXPECT_EQ(object->etag(), "v3");

  // A saved object value goes as its URI; an unsaved one is created first.
  fake.push(Answer::json(201, {{"objectID", "child"}, {"createdAt", 1}}));
  fake.push(Answer::json(201, {{"objectID", "parent"}, {"createdAt", 1}}));
  auto bucket = Jov::bucketWithName("b");
  auto child = bucket->createObject();
  auto parent = bucket->createObject();
  parent->setObject(child, "child");
  ASSERT_TRUE(parent->saveSynchronous().ok());
  auto sent = fake.requests();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[1].json(), json({{"child", "jovcloud://buckets/b/objects/child"}}));

  EXPECT_EQ(Jov::bucketWithName("b")->createObjectWithType("abc").error().code(),
            JovError::codeInvalidObjectType());
  EXPECT_EQ(jovtest::thrownMessage([&] { bucket->createObjectWithID("x"); }),
            "objectID is invalid.");
  EXPECT_FALSE(JovBucket::isValidBucketName(std::nullopt));
  EXPECT_FALSE(JovBucket::isValidBucketName("a"));
  EXPECT_TRUE(JovBucket::isValidBucketName(std::string(64, 'b')));
}

TEST_F(ObjectTest, URIsAndPaths) {
  auto user = JovUser::userWithID("u1");
  EXPECT_EQ(user->bucketWithName("my notes")->bucketPath(), "/users/u1/buckets/my%20notes");
  EXPECT_EQ(user->encryptedBucketWithName("my notes")->bucketURI(),
            "jovcloud://users/u1/buckets/CRYPTO:my%20notes");
  auto object =
      JovObject::objectWithURI("jovcloud://groups/g1/buckets/CRYPTO:my%20notes/objects/o1");
  ASSERT_TRUE(object);
  EXPECT_TRUE(object->bucket()->isEncrypted());
  EXPECT_EQ(object->bucket()->name(), "my notes");
  EXPECT_EQ(object->bucket()->group()->groupID(), "g1");
  EXPECT_EQ(object->objectURI(), "jovcloud://groups/g1/buckets/CRYPTO:my%20notes/objects/o1");
  EXPECT_EQ(object->aclPath(), "/groups/g1/buckets/CRYPTO:my%20notes/objects/o1/acl");
  auto app = JovObject::objectWithURI("jovcloud://buckets/b/objects/o");
  ASSERT_TRUE(app);
  EXPECT_FALSE(app->bucket()->user() || app->bucket()->group());
  auto ofThing = JovObject::objectWithURI("jovcloud://things/th.1/buckets/log/objects/o");
  ASSERT_TRUE(ofThing);
  EXPECT_EQ(ofThing->bucket()->thing()->thingID(), "th.1");
  EXPECT_EQ(ofThing->objectURI(), "jovcloud://things/th.1/buckets/log/objects/o");
  for (const char* bad : {"jovcloud://users/u/buckets/b", "jovcloud://buckets/b/objects",
                          "jovcloud://things//buckets/b/objects/o", "http://buckets/b/objects/o",
                          "jovcloud://buckets/b/things/o", "jovcloud://buckets/b/objects/%zz"})
    EXPECT_FALSE(JovObject::objectWithURI(bad)) << bad;
  EXPECT_FALSE(Jov::bucketWithName("b")->createObject()->objectURI());
}

TEST_F(ObjectTest, QueryPagesAndAsynchronousForms) {
  auto bucket = Jov::bucketWithName("b");
  fake.on("POST", "/buckets/b/query",
          Answer::json(200, {{"results", {{{"_id", "o1"}, {"_dataType", "Note1"}, {"n", 1}}}},
                             {"nextPaginationKey", "k2"}}));
  JovQuery query(JovClause::equals("n", 1));
  auto page = bucket->executeQuerySynchronous(query);
  ASSERT_TRUE(page.ok());
  auto& [objects, next] = page.value();
  ASSERT_EQ(objects.size(), 1u);
  EXPECT_EQ(objects[0]->objectType(), "Note1");
  EXPECT_EQ(objects[0]->bucket(), bucket);
  ASSERT_TRUE(next);
  EXPECT_EQ(next->paginationKey(), "k2");

  std::optional<JovQuery> receivedNext;
  std::shared_ptr<JovBucket> receivedBucket;
  bucket->executeQuery(query, [&](JovQuery, std::shared_ptr<JovBucket> b, JovBucket::Objects found,
                                  std::optional<JovQuery> n, std::optional<JovError> e) {
    receivedBucket = b;
    receivedNext = n;
    EXPECT_EQ(found.size(), 1u);
    EXPECT_FALSE(e);
  });
  std::int64_t counted = -1;
  fake.on("POST", "/buckets/c/query", Answer::json(200, {{"aggregations", {{"count_field", 9}}}}));
  Jov::bucketWithName("c")->count([&](std::shared_ptr<JovBucket>, JovQuery, std::int64_t n,
                                      std::optional<JovError>) { counted = n; });
  ASSERT_EQ(JovMainQueue::runUntil(2, 5s), 2u);
  EXPECT_EQ(receivedBucket, bucket);
  EXPECT_EQ(receivedNext->paginationKey(), "k2");
  EXPECT_EQ(counted, 9);
}

}  // namespace
}  // namespace jov
