// JovGroup's exchanges against the fake transport: what each sends, how each answer of the
// service is read, and that refused input and failed exchanges leave the group as it was.
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
Op onGroup(std::function<std::optional<JovError>(JovGroup&)> f) {
  return [f] { return f(*JovGroup::groupWithID("g1")); };
}
const Op kCreate = [] { return err(Jov::groupWithName("team")->saveSynchronous()); };
const Op kAdd = onGroup([](JovGroup& g) {
  g.addUser(JovUser::userWithID("u1"));
  return err(g.saveSynchronous());
});
const Op kRemove = onGroup([](JovGroup& g) {
  g.removeUser(JovUser::userWithID("u1"));
  return err(g.saveSynchronous());
});
const Op kRefresh = onGroup([](JovGroup& g) { return err(g.refreshSynchronous()); });
const Op kOwner = onGroup([](JovGroup& g) { return err(g.getOwnerSynchronous()); });
const Op kRename = onGroup([](JovGroup& g) { return err(g.changeGroupNameSynchronous("n 2")); });
const Op kMembers = onGroup([](JovGroup& g) { return err(g.getMemberListSynchronous()); });
const Op kDelete = onGroup([](JovGroup& g) { return err(g.deleteSynchronous()); });
const Op kRegister = [] {
  return err(JovGroup::registerGroupSynchronousWithID("club", "n", {JovUser::userWithID("u1")}));
};
const Op kMemberOf = [] { return err(JovUser::userWithID("u 1")->memberOfGroupsSynchronous()); };
const Op kOwnerOf = [] { return err(JovUser::userWithID("u1")->ownerOfGroupsSynchronous()); };

class GroupRequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    JovKeyChainWrapper::useMemoryStore();
    Jov::setCurrentUser(jovtest::credentialUser({{"userID", "me"}}));
  }
  void TearDown() override { JovUser::logOut(); }

  jovtest::TestApp app;
  jovtest::FakeTransport& fake = *app.fake;
};

TEST_F(GroupRequestTest, EachExchangeSendsItsRequest) {
  const std::string creation = "application/vnd.jov.GroupCreationRequest+json";
  const std::string plain = "application/json", text = "text/plain";
  const std::string groups = "application/vnd.jov.GroupsRetrievalResponse+json";
  const auto done = Answer::text(204, "");
  jovtest::checkRequests(
      fake,
      {
          {kCreate, Answer::json(201, {{"groupID", "g1"}}), "POST /groups", creation, "",
           R"({"name": "team", "owner": "me"})"},
          {kAdd, done, "PUT /groups/g1/members/u1", plain, "", ""},
          {kRemove, done, "DELETE /groups/g1/members/u1", plain, "", ""},
          {kRefresh, Answer::json(200, {{"groupID", "g1"}}), "GET /groups/g1", plain, "", ""},
          {kRename, done, "PUT /groups/g1/name", text, "", "n 2"},
          {kMembers, Answer::json(200, {{"members", json::array()}}), "GET /groups/g1/members",
           plain, "application/vnd.jov.MembersRetrievalResponse+json", ""},
          {kDelete, done, "DELETE /groups/g1", plain, "", ""},
          {kRegister, Answer::json(201, {{"groupID", "club"}}), "PUT /groups/club", creation,
           "application/vnd.jov.GroupCreationResponse+json",
           R"({"name": "n", "owner": "me", "members": ["u1"]})"},
          {kMemberOf, Answer::json(200, {{"groups", json::array()}}),
           "GET /groups/?is_member=u%201", plain, groups, ""},
          {kOwnerOf, Answer::json(200, {{"groups", json::array()}}), "GET /groups/?owner=u1", plain,
           groups, ""},
      });
}

TEST_F(GroupRequestTest, AnswersMapToCodesAndMalformedOnesTo202) {
  const int unreadable = JovError::codeUnableToParseResponse();
  jovtest::checkAnswers(
      fake,
      {
          {kDelete, Answer::serviceError(404, "GROUP_NOT_FOUND"), JovError::codeObjectNotFound()},
          {kAdd, Answer::serviceError(404, "GROUP_NOT_FOUND"), JovError::codeObjectNotFound()},
          {kRemove, Answer::serviceError(404, "group_not_found"), JovError::codeObjectNotFound()},
          {kAdd, Answer::serviceError(404, "USER_NOT_FOUND"), JovError::codeUserNotFound()},
          {kRegister, Answer::serviceError(409, "GROUP_ALREADY_EXISTS"),
           JovError::codeGroupAlreadyExists()},
          {kRename, Answer::serviceError(403, "FORBIDDEN"), 0},  // the owner's alone: left as is
          {kRefresh, Answer::error(), JovError::codeUnableToConnectToInternet()},
          {kCreate, Answer::json(201, {{"name", "team"}}), unreadable},
          {kCreate, Answer::json(201, {{"groupID", 5}}), unreadable},
          {kCreate, Answer::text(201, "not json"), unreadable},
          {kRegister, Answer::json(201, {{"groupID", nullptr}}), unreadable},
          {kRefresh, Answer::json(200, json::array()), unreadable},
      // Nested far deeper than any record: refused unread, never a stack overflow.
      {kRefresh, Answer::text(200, std::string(100000, '[') + std::string(100000, ']')),
       unreadable},
      {kRefresh, Answer::text(404, std::string(100000, '{') + "}"), 0},
          {kOwner, Answer::json(200, {{"groupID", "g1"}}), unreadable},
          {kMembers, Answer::json(200, {{"members", "a"}}), unreadable},
          {kMembers, Answer::json(200, {{"members", {{{"userID", 7}}}}}), unreadable},
          {kMembers, Answer::json(200, {{"members", {nullptr}}}), unreadable},
          {kMemberOf, Answer::json(200, json::object()), unreadable},
          {kOwnerOf, Answer::json(200, {{"groups", {{{"name", "no ID"}}}}}), unreadable},
          {kRegister, Answer::serviceError(403, "WRONG_TOKEN"),
           JovError::codeUnauthorizedRequest()},
      });
  EXPECT_EQ(Jov::currentUser(), nullptr) << "WRONG_TOKEN ends the login";
}

TEST_F(GroupRequestTest, RefusedBeforeAnyRequest) {
  auto code = [](const std::optional<JovError>& e) { return e ? e->code() : -1; };
  auto reg = [&](const std::string& id, const std::string& name, JovGroup::Users members) {
    return code(err(JovGroup::registerGroupSynchronousWithID(id, name, members)));
  };
  EXPECT_EQ(reg(std::string(31, 'g'), "n", {}), JovError::codeInvalidGroupID());
  EXPECT_EQ(reg("Club", "n", {}), JovError::codeInvalidGroupID());
  EXPECT_EQ(reg("club", std::string(191, 'n'), {}), JovError::codeInvalidGroupName());
  EXPECT_EQ(reg("club", "n", {nullptr}), JovError::codeMemberIsNotJovUser());
  EXPECT_EQ(code(err(Jov::groupWithName("")->saveSynchronous())), JovError::codeInvalidGroupName());
  auto g1 = JovGroup::groupWithID("g1");
  EXPECT_EQ(code(err(g1->changeGroupNameSynchronous(""))), JovError::codeInvalidGroupName());
  auto unsaved = Jov::groupWithName("team");
  for (auto e : {err(unsaved->refreshSynchronous()), err(unsaved->getOwnerSynchronous()),
                 err(unsaved->changeGroupNameSynchronous("x")),
                 err(unsaved->getMemberListSynchronous()), err(unsaved->deleteSynchronous())})
    EXPECT_EQ(code(e), JovError::codeInvalidObjects());
  JovUser::logOut();
  EXPECT_EQ(reg(std::string(30, 'g'), std::string(190, 'n'), {}),
            JovError::codeNonLoggedInUserIsNotAllowed());
  EXPECT_EQ(fake.count(), 0u);
  EXPECT_THROW(
      JovGroup::registerGroupWithID("club", "n", {}, JovBlock<std::shared_ptr<JovGroup>>{}),
      std::invalid_argument);
}

TEST_F(GroupRequestTest, SaveSendsWhatIsPendingAndKeepsWhatFailed) {
  fake.push(Answer::json(201, {{"groupID", "g1"}, {"owner", "me"}}));
  fake.push(Answer::serviceError(404, "USER_NOT_FOUND"));  // adding u1
  fake.push(Answer::text(204, ""));                        // removing u2; u3 gets no answer
  auto group = Jov::groupWithName("team", {JovUser::userWithID("u1"), JovUser::userWithID("u2")});
  group->removeUser(JovUser::userWithID("u2"));  // added, then removed: only the removal goes
  group->removeUser(JovUser::userWithID("u3"));
  auto first = group->saveSynchronous();
  ASSERT_FALSE(first.ok());
  EXPECT_EQ(first.error().code(), JovError::codeUserNotFound());  // the first failure
  auto sent = fake.requests();
  ASSERT_EQ(sent.size(), 4u);
  EXPECT_EQ(sent[1].method + sent[1].path(), "PUT/groups/g1/members/u1");
  EXPECT_EQ(sent[2].method + sent[2].path(), "DELETE/groups/g1/members/u2");
  EXPECT_EQ(sent[3].method + sent[3].path(), "DELETE/groups/g1/members/u3");
  EXPECT_EQ(group->groupID(), "g1");
  EXPECT_EQ(group->addMembers().size(), 1u);
  EXPECT_EQ(group->removeMembers().size(), 1u);

  // The next save sends only what is still pending, and does not create the group again.
  fake.reset();
  fake.push(Answer::text(204, ""));
  fake.push(Answer::text(204, ""));
  ASSERT_TRUE(group->saveSynchronous().ok());
  sent = fake.requests();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].method + sent[0].path(), "PUT/groups/g1/members/u1");
  EXPECT_EQ(sent[1].method + sent[1].path(), "DELETE/groups/g1/members/u3");
  EXPECT_TRUE(group->addMembers().empty());
  EXPECT_TRUE(group->removeMembers().empty());

  // A preset owner is sent instead of the current user.
  fake.push(Answer::json(201, {{"groupID", "g2"}}));
  auto owned = Jov::groupWithName("other");
  owned->setOwner(JovUser::userWithID("boss"));
  ASSERT_TRUE(owned->saveSynchronous().ok());
  EXPECT_EQ(fake.last().json(), json({{"name", "other"}, {"owner", "boss"}}));
}

struct Delegate {
  std::vector<std::string> memberIDs;
  void membersListed(JovGroup::Users members, std::optional<JovError>) {
    for (const auto& m : members) memberIDs.push_back(m->userID());
  }
};

TEST_F(GroupRequestTest, BlockDelegateAndFutureForms) {
  fake.on("GET", "/groups/g1", Answer::json(200, {{"groupID", "g1"}, {"name", "n"}}));
  fake.on("GET", "/groups/g1/members", Answer::json(200, {{"members", {{{"userID", "a"}}}}}));
  fake.on("PUT", "/groups/g1/name", Answer::serviceError(404, "GROUP_NOT_FOUND"));
  auto group = JovGroup::groupWithID("g1");
  std::shared_ptr<JovGroup> received;
  int code = -1;
  group->changeGroupName("x", [&](std::shared_ptr<JovGroup> g, std::optional<JovError> e) {
    received = g;
    code = e ? e->code() : 0;
  });
  auto delegate = std::make_shared<Delegate>();
  group->getMemberList(JovCallback::callbackWithDelegate(delegate, &Delegate::membersListed));
  // Three completions: the block's, and the delegate's in two hops.
  ASSERT_EQ(JovMainQueue::runUntil(3, 5s), 3u);
  EXPECT_EQ(received, group);
  EXPECT_EQ(code, JovError::codeObjectNotFound());
  EXPECT_EQ(delegate->memberIDs, std::vector<std::string>{"a"});

  auto refreshed = group->refreshAsync();
  ASSERT_EQ(refreshed.wait_for(5s), std::future_status::ready);
  EXPECT_TRUE(refreshed.get().ok());
  EXPECT_EQ(group->name(), "n");
}

}  // namespace
}  // namespace jov
