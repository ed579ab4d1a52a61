// Every operation against every kind of bad answer: a scripted loopback server answers each
// request with one fault, and each cell must end in a typed error (or the success the operation
// gives for any JSON), within the idle limit, with the operation's entity unchanged. A new
// operation joins the matrix by one row of `operations()`. (Operations that need a logged-in
// user, such as topics, refuse before any request here: the matrix runs without a session.)
#include <gtest/gtest.h>

#include <functional>

#include "jov/acl.hpp"
#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/group.hpp"
#include "jov/object.hpp"
#include "jov/query.hpp"
#include "jov/server_code.hpp"
#include "jov/user.hpp"
#include "scripted_server.hpp"

using namespace jov;
using namespace std::chrono_literals;
using jovtest::ScriptedServer;
using Step = ScriptedServer::Step;

namespace {

struct Fault {
  const char* name;
  Step step;
  bool successful;  // a 2xx whose body is JSON: an operation that takes any JSON may succeed
};

// An answer too large for the limit the matrix sets (64 KiB).
std::string oversized() { return "[\"" + std::string(100 * 1024, 'x') + "\"]"; }

std::vector<Fault> faults() {
  auto stall = Step::answer(200, R"({"userID":"u1"})");
  stall.stallMs = 3000;
  auto midBody = Step::answer(200, R"({"userID":"u1","username":"somebody"})");
  midBody.stallMidBodyMs = 3000;
  auto shortBody = Step::answer(200, R"({"userID":"u1","username":"somebody"})");
  shortBody.cutShort = true;
  return {
      {"garbage", Step::answer(200, "\x01\x02 garbage \xff"), false},
      {"empty", Step::answer(200, ""), false},
      {"truncated", Step::answer(200, R"({"userID":"u1","name":)"), false},
      {"JSON array", Step::answer(200, "[1,2,3]"), true},
      {"wrong types",
       Step::answer(200, R"({"userID":5,"username":[],"groupID":7,"name":{},"_id":3,)"
                         R"("results":"x","aggregations":[],"access_token":1,"expires_in":"x"})"),
       true},
      {"HTML 502", Step::answer(502, "<html><body>Bad gateway</body></html>"), false},
      {"JSON 500", Step::answer(500, R"({"errorCode":"INTERNAL","message":"boom"})"), false},
      {"404 without a body", Step::answer(404, ""), false},
      {"stall past the idle limit", stall, false},
      {"stall mid-body", midBody, false},
      {"short body", shortBody, false},
      {"dropped connection", Step::hangUp(), false},
      {"oversized body", Step::answer(200, oversized()), false},
      {"deeply nested body", Step::answer(200, std::string(100000, '[') + std::string(100000, ']')),
       false},
  };
}

// One operation: runs it and says whether it succeeded; `unchanged` tells whether the entity it
// works on is as it was.
struct Operation {
  const char* name;
  std::function<bool()> run;
  std::function<bool()> unchanged;
  bool acceptsAnyJson = false;  // its success is any JSON the service returns
};

std::vector<Operation> operations() {
  auto user = JovUser::userWithID("u1");
  auto group = JovGroup::groupWithID("g1");
  auto notes = Jov::bucketWithName("notes");
  auto object = notes->createObjectWithID("o1");
  auto saved = notes->createObjectWithID("o2");
  saved->setObject(nlohmann::json(5), "n");
  const auto savedBefore = saved->dictionaryValue();
  auto noUser = [] { return Jov::currentUser() == nullptr; };
  auto always = [] { return true; };
  return {
      {"login", [] { return JovUser::authenticateSynchronous("ann", "secret99").ok(); }, noUser},
      {"token login", [] { return JovUser::authenticateWithTokenSynchronous("tok").ok(); }, noUser},
      {"user refresh", [user] { return user->refreshSynchronous().ok(); },
       [user] { return user->username().empty() && user->email().empty(); }},
      {"find by e-mail", [] { return JovUser::findUserByEmailSynchronous("a@b.io").ok(); }, always},
      {"group refresh", [group] { return group->refreshSynchronous().ok(); },
       [group] { return group->name().empty(); }},
      {"group members", [group] { return group->getMemberListSynchronous().ok(); },
       [group] { return group->name().empty(); }},
      {"object refresh", [object] { return object->refreshSynchronous().ok(); },
       [object] { return object->dictionaryValue().empty(); }},
      {"object save", [saved] { return saved->saveSynchronous().ok(); },
       [saved, savedBefore] { return saved->dictionaryValue() == savedBefore; }},
      {"query", [notes] { return notes->executeQuerySynchronous(JovQuery()).ok(); }, always},
      {"count", [notes] { return notes->countSynchronous().ok(); }, always},
      {"bucket ACL", [notes] { return notes->bucketACL()->listACLEntriesSynchronous().ok(); },
       always},
      {"server code", [] { return Jov::serverCodeEntry("add")->executeSynchronous().ok(); }, always,
       true},
  };
}

}  // namespace

TEST(OperationFaults, EveryOperationHoldsAgainstEveryFault) {
  std::atomic<const Step*> current{nullptr};
  ScriptedServer server([&](const ScriptedServer::Seen&) { return *current.load(); });
  Jov::beginWithID("app", "key", server.base());
  Jov::setRequestFactory(nullptr);  // the libcurl transport
  Jov::setIdleTimeout(300ms);
  Jov::setMaxAnswerSize(64 * 1024);

  const auto faultList = faults();
  int cells = 0, failures = 0;
  for (const Fault& fault : faultList) {
    current = &fault.step;
    for (const Operation& op : operations()) {
      SCOPED_TRACE(std::string(op.name) + " / " + fault.name);
      const std::size_t before = server.seen().size();
      const auto start = std::chrono::steady_clock::now();
      const bool succeeded = op.run();
      const auto took = std::chrono::steady_clock::now() - start;
      ++cells;
      // A hang detector, not a speed target: a stall may cost the idle limit per attempt.
      EXPECT_LT(took, 2500ms) << "the idle limit did not end it";
      EXPECT_GT(server.seen().size(), before) << "the fault was never reached";
      if (succeeded && !(op.acceptsAnyJson && fault.successful)) {
        ADD_FAILURE() << "succeeded on a fault";
        ++failures;
      }
      if (!succeeded) {
        EXPECT_TRUE(op.unchanged()) << "a failed operation changed its entity";
      }
    }
  }
  std::printf("fault matrix: %zu operations x %zu faults = %d cells, %d accepted a fault\n",
              operations().size(), faultList.size(), cells, failures);
  Jov::setIdleTimeout(60s);
  Jov::setMaxAnswerSize(std::size_t{16} << 20);
}
