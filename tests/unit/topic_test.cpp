// JovTopic and JovPushSubscription against the fake transport: the paths of the three scopes,
// every status mapping (the deliberate ones included), the listing's pages, and the refusals
// that come before any request.
#include "jov/topic.hpp"

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
JovTopic::Ptr appTopic() {
  return JovTopic::topicWithName("news");
}
JovTopic::Ptr userTopic() {
  return JovTopic::topicWithName(JovUser::userWithID("u 1"), "news");
}
JovTopic::Ptr groupTopic() {
  return JovTopic::topicWithName(JovGroup::groupWithID("g1"), "news");
}
JovPushSubscription::Ptr subscriber() {
  return JovPushSubscription::subscriptionWithUser(JovUser::userWithID("s1"));
}

const Op kSave = [] { return err(appTopic()->saveSynchronous()); };
const Op kSaveUser = [] { return err(userTopic()->saveSynchronous()); };
const Op kSaveGroup = [] { return err(groupTopic()->saveSynchronous()); };
const Op kDelete = [] { return err(groupTopic()->deleteSynchronous()); };
const Op kExists = [] { return err(userTopic()->checkIfExistsSynchronous()); };
const Op kSubscribe = [] { return err(subscriber()->subscribeSynchronous(appTopic())); };
const Op kUnsubscribe = [] { return err(subscriber()->unsubscribeSynchronous(appTopic())); };
const Op kCheck = [] { return err(subscriber()->checkIsSubscribedSynchronous(groupTopic())); };
const Op kSubscribeMe = [] {
  return err(JovPushSubscription::subscribeCurrentUserSynchronous(userTopic()));
};
const Op kUnsubscribeMe = [] {
  return err(JovPushSubscription::unsubscribeCurrentUserSynchronous(appTopic()));
};
const Op kCheckMe = [] {
  return err(JovPushSubscription::checkSubscriptionSynchronous(appTopic()));
};
const Op kList = [] { return err(JovTopic::listTopicsSynchronous()); };
const Op kListUser = [] {
  return err(JovTopic::listTopicsSynchronous(JovUser::userWithID("u1"), "a/b"));
};
const Op kListGroup = [] {
  return err(JovTopic::listTopicsSynchronous(JovGroup::groupWithID("g1")));
};

class TopicTest : public ::testing::Test {
 protected:
  void SetUp() override {
    JovKeyChainWrapper::useMemoryStore();
    Jov::setCurrentUser(jovtest::credentialUser({{"userID", "me"}}));
  }
  void TearDown() override { JovUser::logOut(); }

  jovtest::TestApp app;
  jovtest::FakeTransport& fake = *app.fake;
};

TEST_F(TopicTest, EachExchangeSendsItsRequest) {
  const std::string plain = "application/json";
  const auto done = Answer::text(204, "");
  const auto empty = Answer::json(200, {{"topics", json::array()}});
  jovtest::checkRequests(
      fake,
      {
          {kSave, done, "PUT /topics/news", plain, "", ""},
          {kSaveUser, done, "PUT /users/u%201/topics/news", plain, "", ""},
          {kSaveGroup, done, "PUT /groups/g1/topics/news", plain, "", ""},
          {kDelete, done, "DELETE /groups/g1/topics/news", plain, "", ""},
          {kExists, done, "HEAD /users/u%201/topics/news", plain, "", ""},
          {kSubscribe, done, "PUT /topics/news/push/subscriptions/users/s1", plain, "", ""},
          {kUnsubscribe, done, "DELETE /topics/news/push/subscriptions/users/s1", plain, "", ""},
          {kCheck, done, "GET /groups/g1/topics/news/push/subscriptions/users/s1", plain, "", ""},
          {kSubscribeMe, done, "PUT /users/u%201/topics/news/push/subscriptions/users/me", plain,
           "", ""},
          {kUnsubscribeMe, done, "DELETE /topics/news/push/subscriptions/users/me", plain, "", ""},
          {kCheckMe, done, "GET /topics/news/push/subscriptions/users/me", plain, "", ""},
          {kList, empty, "GET /topics", plain, "", ""},
          {kListUser, empty, "GET /users/u1/topics?paginationKey=a%2Fb", plain, "", ""},
          {kListGroup, empty, "GET /groups/g1/topics", plain, "", ""},
      });
}

TEST_F(TopicTest, AnswersMapToCodes) {
  const int unreadable = JovError::codeUnableToParseResponse();
  const int parentGone = JovError::codeTopicParentNotExistInCloud();
  const int unauthorized = JovError::codeUnauthorizedRequest();
  const int container = JovError::codeInvalidContainer();
  const int notFound = JovError::codeObjectNotFound();
  jovtest::checkAnswers(
      fake,
      {
          {kSave, Answer::serviceError(409, "TOPIC_ALREADY_EXISTS"),
           JovError::codeTopicAlreadyExist()},
          {kSaveUser, Answer::serviceError(404, "USER_NOT_FOUND"), parentGone},
          {kSave, Answer::serviceError(401, "UNAUTHORIZED"), unauthorized},
          {kSave, Answer::serviceError(403, "FORBIDDEN"), 0},
          {kDelete, Answer::serviceError(404, "TOPIC_NOT_FOUND"), JovError::codeTopicNotExist()},
          {kDelete, Answer::serviceError(404, "topic_not_found"), JovError::codeTopicNotExist()},
          {kDelete, Answer::serviceError(404, "GROUP_NOT_FOUND"), parentGone},
          {kDelete, Answer::serviceError(401, "UNAUTHORIZED"), unauthorized},
          {kExists, Answer::text(400, ""), container},
          {kExists, Answer::text(401, ""), unauthorized},
          {kExists, Answer::text(500, ""), 0},
          {kSubscribe, Answer::serviceError(409, "PUSH_SUBSCRIPTION_ALREADY_EXISTS"),
           JovError::codeSubscriptionAlreadyExist()},
          {kSubscribeMe, Answer::serviceError(404, "TOPIC_NOT_FOUND"), notFound},
          {kSubscribe, Answer::serviceError(400, "INVALID_INPUT_DATA"), container},
          {kSubscribe, Answer::serviceError(401, "UNAUTHORIZED"), unauthorized},
          // The service's 409 to an unsubscribe means there was nothing to remove.
          {kUnsubscribe, Answer::serviceError(409, "PUSH_SUBSCRIPTION_NOT_FOUND"),
           JovError::codeSubscriptionNotExist()},
          {kUnsubscribeMe, Answer::serviceError(404, "TOPIC_NOT_FOUND"), notFound},
          {kUnsubscribe, Answer::serviceError(400, "X"), container},
          {kCheck, Answer::serviceError(404, "PUSH_SUBSCRIPTION_NOT_FOUND"), notFound},
          {kCheckMe, Answer::serviceError(400, "X"), container},
          {kCheck, Answer::serviceError(401, "X"), unauthorized},
          {kList, Answer::serviceError(400, "INVALID_INPUT_DATA"),
           JovError::codeInvalidRequestData()},
          {kListGroup, Answer::serviceError(401, "UNAUTHORIZED"), unauthorized},
          {kList, Answer::error(), JovError::codeUnableToConnectToInternet()},
          {kList, Answer::json(200, json::object()), unreadable},
          {kList, Answer::json(200, {{"topics", {{{"name", "x"}}}}}), unreadable},
          {kList, Answer::json(200, {{"topics", {{{"topicID", 3}}}}}), unreadable},
          {kList, Answer::json(200, {{"topics", json::array()}, {"paginationKey", 5}}), unreadable},
      });

  // The exists check reads 204 as "exists" and 404 as "does not exist", neither an error.
  fake.reset();
  fake.push(Answer::text(204, ""));
  fake.push(Answer::serviceError(404, "TOPIC_NOT_FOUND"));
  fake.push(Answer::text(200, ""));
  auto topic = appTopic();
  EXPECT_TRUE(topic->checkIfExistsSynchronous().value());
  EXPECT_FALSE(topic->checkIfExistsSynchronous().value());
  EXPECT_FALSE(topic->checkIfExistsSynchronous().value());

  // A missing subscription is an error with false; the error keeps the service's words.
  fake.push(Answer::serviceError(404, "PUSH_SUBSCRIPTION_NOT_FOUND", "none"));
  std::optional<bool> subscribed;
  std::optional<JovError> error;
  subscriber()->checkIsSubscribed(topic, [&](bool s, std::optional<JovError> e) {
    subscribed = s;
    error = e;
  });
  ASSERT_EQ(JovMainQueue::runUntil(1, 5s), 1u);
  EXPECT_EQ(subscribed, false);
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->code(), notFound);
  EXPECT_EQ(error->jovErrorSummary(), "PUSH_SUBSCRIPTION_NOT_FOUND");
  fake.push(Answer::text(204, ""));
  EXPECT_TRUE(topic->isSubscribedSynchronous().value());
}

TEST_F(TopicTest, ListingReadsPagesOfTheSameOwner) {
  fake.push(Answer::json(
      200, {{"topics", {{{"topicID", "a"}}, {{"topicID", "b"}}}}, {"paginationKey", "b"}}));
  fake.push(Answer::json(200, {{"topics", {{{"topicID", "c"}}}}, {"paginationKey", nullptr}}));
  auto group = JovGroup::groupWithID("g1");
  auto first = JovTopic::listTopicsSynchronous(group);
  ASSERT_TRUE(first.ok());
  ASSERT_EQ(first.value().results.size(), 2u);
  EXPECT_EQ(first.value().results[1]->name(), "b");
  EXPECT_EQ(first.value().results[1]->group(), group);
  EXPECT_EQ(first.value().results[1]->generatePath(), "/groups/g1/topics/b");
  EXPECT_TRUE(first.value().hasNext);
  auto second = JovTopic::listTopicsSynchronous(group, first.value().paginationKey);
  ASSERT_TRUE(second.ok());
  EXPECT_EQ(fake.last().path(), "/groups/g1/topics?paginationKey=b");
  EXPECT_EQ(second.value().results.size(), 1u);
  EXPECT_FALSE(second.value().hasNext);
  EXPECT_FALSE(second.value().paginationKey.has_value());
}

TEST_F(TopicTest, RefusedBeforeAnyRequest) {
  auto code = [](const std::optional<JovError>& e) { return e ? e->code() : -1; };
  const int invalidID = JovError::codeInvalidTopicID();
  auto longest = JovTopic::topicWithName(std::string(63, 'a') + "-");
  auto tooLong = JovTopic::topicWithName(std::string(65, 'a'));
  auto dotted = JovTopic::topicWithName("a.b");
  auto sub = subscriber();
  EXPECT_EQ(code(err(tooLong->saveSynchronous())), invalidID);
  EXPECT_EQ(code(err(dotted->saveSynchronous())), invalidID);
  EXPECT_EQ(code(err(dotted->deleteSynchronous())), invalidID);
  EXPECT_EQ(code(err(JovTopic::topicWithName("")->checkIfExistsSynchronous())), invalidID);
  EXPECT_EQ(code(err(sub->subscribeSynchronous(dotted))), invalidID);
  EXPECT_EQ(code(err(sub->unsubscribeSynchronous(tooLong))), invalidID);
  EXPECT_EQ(code(err(sub->checkIsSubscribedSynchronous(dotted))), invalidID);
  EXPECT_EQ(code(err(JovPushSubscription::checkSubscriptionSynchronous(nullptr))),
            JovError::codeInvalidObjects());
  EXPECT_EQ(code(err(JovTopic::listTopicsSynchronous(JovGroup::groupWithName("unsaved")))),
            JovError::codeInvalidObjects());
  EXPECT_EQ(fake.count(), 0u);

  // Nobody logged in: the exists check, the listing and the current user's forms refuse; a
  // name is checked first.
  JovUser::logOut();
  EXPECT_EQ(code(err(dotted->checkIfExistsSynchronous())), invalidID);
  EXPECT_EQ(code(err(appTopic()->checkIfExistsSynchronous())), JovError::codeLoginRequired());
  EXPECT_EQ(code(kList()), JovError::codeLoginRequired());
  EXPECT_EQ(code(kSubscribeMe()), JovError::codeLoginRequired());
  EXPECT_EQ(code(kUnsubscribeMe()), JovError::codeLoginRequired());
  EXPECT_EQ(code(kCheckMe()), JovError::codeLoginRequired());
  EXPECT_EQ(fake.count(), 0u);
  fake.push(Answer::text(204, ""));
  EXPECT_EQ(code(err(longest->saveSynchronous())), -1) << "saving needs only a valid name";

  using jovtest::thrownMessage;
  const std::string nil = "Subscribable can not be nil";
  EXPECT_EQ(thrownMessage([&] { (void)sub->subscribeSynchronous(nullptr); }), nil);
  EXPECT_EQ(thrownMessage([&] { sub->unsubscribe(nullptr, JovBlock<>{}); }), nil);
  EXPECT_EQ(thrownMessage([&] { (void)sub->checkIsSubscribedAsync(nullptr); }), nil);
  EXPECT_EQ(
      thrownMessage([&] { (void)JovPushSubscription::subscribeCurrentUserSynchronous(nullptr); }),
      nil);
  EXPECT_EQ(thrownMessage([&] { appTopic()->checkIfExists(JovBlock<bool>{}); }),
            "Completion block is mandatory");
  EXPECT_EQ(thrownMessage([&] { JovTopic::topicWithName(JovUser::Ptr{}, "n"); }),
            "user can not be nil");
  EXPECT_EQ(thrownMessage([&] { JovPushSubscription::subscriptionWithUser(nullptr); }),
            "user can not be nil");
}

struct Delegate {
  bool exists = false;
  void checked(bool found, std::optional<JovError> error) { exists = found && !error; }
};

TEST_F(TopicTest, BlockDelegateAndFutureForms) {
  fake.on("PUT", "/topics/news", Answer::serviceError(409, "TOPIC_ALREADY_EXISTS"));
  fake.on("HEAD", "/topics/news", Answer::text(204, ""));
  fake.on("PUT", "/topics/news/push/subscriptions/users/s1", Answer::text(204, ""));
  auto topic = appTopic();
  JovTopic::Ptr saved;
  int saveCode = -1;
  topic->save([&](JovTopic::Ptr t, std::optional<JovError> e) {
    saved = t;
    saveCode = e ? e->code() : 0;
  });
  auto delegate = std::make_shared<Delegate>();
  topic->checkIfExists(JovCallback::callbackWithDelegate(delegate, &Delegate::checked));
  int subscribeCode = -1;
  // The subscription's forms keep the topic alive themselves.
  subscriber()->subscribe(appTopic(),
                          [&](std::optional<JovError> e) { subscribeCode = e ? e->code() : 0; });
  // Four completions: two blocks, and the delegate's in two hops.
  ASSERT_EQ(JovMainQueue::runUntil(4, 5s), 4u);
  EXPECT_EQ(saved, topic);
  EXPECT_EQ(saveCode, JovError::codeTopicAlreadyExist());
  EXPECT_TRUE(delegate->exists);
  EXPECT_EQ(subscribeCode, 0);

  auto exists = topic->checkIfExistsAsync();
  ASSERT_EQ(exists.wait_for(5s), std::future_status::ready);
  EXPECT_TRUE(exists.get().value());
}

}  // namespace
}  // namespace jov
