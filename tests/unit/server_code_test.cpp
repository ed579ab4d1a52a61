// Server code entries against the fake transport: the factories' checks, the request of each
// kind of entry, how answers and their headers are read, and the asynchronous forms.
#include "jov/server_code.hpp"

#include <gtest/gtest.h>

#include "fake_transport.hpp"

namespace jov {
namespace {

using jovtest::Answer;
using nlohmann::json;
using namespace std::chrono_literals;

using Argument = JovServerCodeEntry::Argument;

class ServerCodeTest : public jovtest::UserTest {
 protected:
  void SetUp() override {
    jovtest::UserTest::SetUp();
    Jov::setCurrentUser(jovtest::credentialUser({{"userID", "me"}}));
  }
};

TEST_F(ServerCodeTest, FactoriesCheckInOrder) {
  const std::string noName = "entryName must not nil";
  const std::string noVersion = "version must not nil or empty string";
  const std::string badName =
      "entryName is invalid. Valid entryName pattern is [a-zA-Z][_a-zA-Z0-9]*$";
  EXPECT_EQ(jovtest::thrownMessage([] { Jov::serverCodeEntry(std::nullopt); }), noName);
  // A missing name is reported before a missing version, which is reported before a bad name.
  EXPECT_EQ(jovtest::thrownMessage([] { Jov::serverCodeEntry(std::nullopt, std::nullopt, 0); }),
            noName);
  EXPECT_EQ(jovtest::thrownMessage([] { Jov::serverCodeEntry("1st", std::nullopt); }), noVersion);
  EXPECT_EQ(jovtest::thrownMessage([] { Jov::serverCodeEntry("1st", std::string(), 6); }),
            noVersion);
  for (const char* name : {"1add", "add-two", "", "_x", "a b", "é"})
    EXPECT_EQ(jovtest::thrownMessage([&] { Jov::serverCodeEntry(name); }), badName) << name;
  auto entry = Jov::serverCodeEntry("add_2");
  EXPECT_EQ(entry->version(), "current");
  EXPECT_EQ(entry->environmentVersion(), -1);
  EXPECT_EQ(Jov::serverCodeEntry("A", "3")->environmentVersion(), -1);

  EXPECT_EQ(
      jovtest::thrownMessage([] { JovServerCodeEntryArgument::argumentWithDictionary(nullptr); }),
      "objectArgument can not nil.");
  const std::string notObject = "objectArgument can not be converted to JSON object.";
  for (const json& value : {json::array({1}), json("text"), json(3), json{{"s", "\xff\xfe"}}})
    EXPECT_EQ(
        jovtest::thrownMessage([&] { JovServerCodeEntryArgument::argumentWithDictionary(value); }),
        notObject)
        << value.dump(-1, ' ', false, json::error_handler_t::replace);
  EXPECT_EQ(fake.count(), 0u);
}

TEST_F(ServerCodeTest, EachEntrySendsItsPathQueryAndBody) {
  auto argument = JovServerCodeEntryArgument::argumentWithDictionary({{"a", 1}, {"b", 2}});
  auto run = [](std::shared_ptr<JovServerCodeEntry> entry, Argument arg) {
    return [entry, arg] { return entry->executeSynchronous(arg).errorIfAny(); };
  };
  const auto ok = Answer::json(200, {{"returnedValue", 3}});
  const std::string plain = "application/json";
  jovtest::checkRequests(
      fake, {
                {run(Jov::serverCodeEntry("add"), argument), ok,
                 "POST /server-code/versions/current/add", plain, "", R"({"a": 1, "b": 2})"},
                {run(Jov::serverCodeEntry("add"), nullptr), ok,
                 "POST /server-code/versions/current/add", plain, "", "{}"},
                {run(Jov::serverCodeEntry("add", "3"), nullptr), ok,
                 "POST /server-code/versions/3/add", plain, "", "{}"},
                {run(Jov::serverCodeEntry("add", "3", 0), argument), ok,
                 "POST /server-code/versions/3/add?environment-version=0", plain, "",
                 R"({"a": 1, "b": 2})"},
                {run(Jov::serverCodeEntry("add", "v 1/x", 6), nullptr), ok,
                 "POST /server-code/versions/v%201%2Fx/add?environment-version=6", plain, "", "{}"},
            });
  EXPECT_EQ(fake.last().header("Authorization").value_or("").rfind("Bearer ", 0), 0u);
}

TEST_F(ServerCodeTest, ResultReadsTheAnswerAndItsHeaders) {
  auto entry = Jov::serverCodeEntry("add");
  struct Row {
    jov::JovHeaders headers;
    std::int64_t steps;
    int environment;
  };
  const std::vector<Row> rows = {
      {{{"X-Step-count", "42"}, {"X-Environment-version", "6"}}, 42, 6},
      {{{"x-step-count", " 7 "}, {"x-environment-version", "0"}}, 7, 0},
      {{{"X-Environment-version", "4"}}, 0, -1},
      {{{"X-Step-count", ""}, {"X-Environment-version", ""}}, 0, -1},
      {{{"X-Step-count", "12abc"}, {"X-Environment-version", "6.0"}}, 0, -1},
      {{}, 0, -1},
  };
  for (const Row& row : rows) {
    fake.reset();
    fake.push(Answer::json(200, {{"returnedValue", {{"sum", 3}}}}, row.headers));
    auto result = entry->executeSynchronous();
    ASSERT_TRUE(result.ok()) << result.error().describe();
    EXPECT_EQ(result.value()->returnedValue, json({{"returnedValue", {{"sum", 3}}}}));
    EXPECT_EQ(result.value()->executedSteps, row.steps);
    EXPECT_EQ(result.value()->environmentVersion, row.environment);
  }
}

TEST_F(ServerCodeTest, AnswersMapToCodes) {
  auto entry = Jov::serverCodeEntry("add");
  const jovtest::Operation run = [entry] { return entry->executeSynchronous().errorIfAny(); };
  jovtest::checkAnswers(
      fake,
      {
          {run, Answer::serviceError(404, "ENTRY_NOT_FOUND"), JovError::codeObjectNotFound()},
          {run, Answer::text(404, ""), JovError::codeObjectNotFound()},
          {run, Answer::serviceError(401, "UNAUTHORIZED"), JovError::codeUnauthorizedRequest()},
          {run, Answer::serviceError(400, "RUNTIME_ERROR", "boom"),
           JovError::codeInvalidContainer()},
          {run, Answer::serviceError(403, "FORBIDDEN"), 0},
          {run, Answer::error(), JovError::codeUnableToConnectToInternet()},
          {run, Answer::json(200, json::array({1, 2})), JovError::codeUnableToParseResponse()},
          {run, Answer::text(200, "not json"), JovError::codeUnableToParseResponse()},
      });
  fake.reset();
  fake.push(Answer::serviceError(400, "RUNTIME_ERROR", "boom"));
  auto failed = entry->executeSynchronous();
  ASSERT_FALSE(failed.ok());
  EXPECT_EQ(failed.error().jovErrorMessage(), "boom") << "the service's error stays readable";
}

struct ExecDelegate {
  void executed(std::shared_ptr<JovServerCodeEntry> entry, Argument argument,
                JovServerCodeEntry::ExecResult result, std::optional<JovError> error) {
    this->entry = entry;
    this->argument = argument;
    steps = result ? result->executedSteps : -1;
    code = error ? error->code() : 0;
  }
  std::shared_ptr<JovServerCodeEntry> entry;
  Argument argument;
  std::int64_t steps = -2;
  int code = -1;
};

TEST_F(ServerCodeTest, AsynchronousFormsHandOverEntryAndArgument) {
  auto entry = Jov::serverCodeEntry("add");
  auto missing = Jov::serverCodeEntry("gone");
  auto argument = JovServerCodeEntryArgument::argumentWithDictionary({{"a", 1}});
  fake.on("POST", "/server-code/versions/current/add",
          Answer::json(200, {{"returnedValue", 1}}, {{"X-Step-count", "5"}}));
  fake.on("POST", "/server-code/versions/current/gone", Answer::text(404, ""));

  ExecDelegate viaBlock;
  missing->execute(argument, [&](auto e, auto a, auto r, auto err) {
    viaBlock.executed(std::move(e), std::move(a), std::move(r), std::move(err));
  });
  auto delegate = std::make_shared<ExecDelegate>();
  entry->execute(argument, JovCallback::callbackWithDelegate(delegate, &ExecDelegate::executed));
  // Three completions: the block's, and the delegate's in two hops.
  ASSERT_EQ(JovMainQueue::runUntil(3, 5s), 3u);
  // A failed execution still hands over its entry and argument.
  EXPECT_EQ(viaBlock.entry, missing);
  EXPECT_EQ(viaBlock.argument, argument);
  EXPECT_EQ(viaBlock.steps, -1);
  EXPECT_EQ(viaBlock.code, JovError::codeObjectNotFound());
  EXPECT_EQ(delegate->entry, entry);
  EXPECT_EQ(delegate->argument, argument);
  EXPECT_EQ(delegate->steps, 5);
  EXPECT_EQ(delegate->code, 0);

  auto future = entry->executeAsync(argument);
  ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
  auto result = future.get();
  ASSERT_TRUE(result.ok());
  EXPECT_EQ(result.value()->returnedValue["returnedValue"], 1);
}

}  // namespace
}  // namespace jov
