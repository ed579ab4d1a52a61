// Server code through the library against the emulator: a deployed script's entries run with
// arguments, write into the caller's bucket, throw, loop past the time limit; step counts.
#include <gtest/gtest.h>

#include "emulator_fixture.hpp"
#include "jov/application.hpp"
#include "jov/credential_store.hpp"
#include "jov/server_code.hpp"
#include "jov/user.hpp"

namespace jov {
namespace {

using namespace std::chrono_literals;

const char* kScript = R"js(
function add(args) { return args.a + args.b; }
function count(args) { var s = 0; for (var i = 0; i < args.n; i++) s += i; return s; }
function note(args, context) {
  var saved = jov.saveObject("/users/me/buckets/notes", { text: args.text });
  return { id: saved._id, owner: context.userID };
}
function readNote(args) { return jov.getObject("/users/me/buckets/notes", args.id); }
function boom(args) { throw new Error("boom " + args.v); }
function spin() { for (;;) {} }
)js";

class ServerCodeFlowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    app = jovtest::beginLibraryOnNewApp();
    auto deployed = jovtest::emulatorRequest("POST", "/emulator/apps/" + app.appID + "/server-code",
                                             kScript, "application/javascript");
    ASSERT_EQ(deployed.status, 201) << deployed.raw;
    auto user = JovUser::userWithUsername("coder", "pass1234");
    ASSERT_TRUE(user->performRegistrationSynchronous().ok());
  }
  void TearDown() override { JovUser::logOut(); }

  static Result<JovServerCodeEntry::ExecResult> run(const std::string& entry,
                                                    const nlohmann::json& argument,
                                                    int environment = -1) {
    return Jov::serverCodeEntry(entry, std::string("current"), environment)
        ->executeSynchronous(JovServerCodeEntryArgument::argumentWithDictionary(argument));
  }

  jovtest::EmulatorApp app;
};

TEST_F(ServerCodeFlowTest, EntriesRunWithTheCallersRightsAndCountTheirSteps) {
  auto sum = run("add", {{"a", 2}, {"b", 40}});
  ASSERT_TRUE(sum.ok()) << sum.error().describe();
  EXPECT_EQ(sum.value()->returnedValue, nlohmann::json({{"returnedValue", 42}}));
  EXPECT_EQ(sum.value()->environmentVersion, 6) << "the emulator's default runtime";
  EXPECT_EQ(run("add", {{"a", 1}, {"b", 1}}, 0).value()->environmentVersion, 0);

  // More work, more steps.
  auto small = run("count", {{"n", 10}});
  auto large = run("count", {{"n", 10000}});
  ASSERT_TRUE(small.ok() && large.ok());
  EXPECT_GT(small.value()->executedSteps, 0);
  EXPECT_GT(large.value()->executedSteps, 100 * small.value()->executedSteps);

  // An object written by the entry lands in the caller's own bucket.
  auto written = run("note", {{"text", "hello"}});
  ASSERT_TRUE(written.ok()) << written.error().describe();
  const auto& value = written.value()->returnedValue["returnedValue"];
  EXPECT_EQ(value["owner"], Jov::currentUser()->userID());
  auto read = run("readNote", {{"id", value["id"]}});
  ASSERT_TRUE(read.ok());
  EXPECT_EQ(read.value()->returnedValue["returnedValue"]["text"], "hello");
  // Another user does not see it.
  JovUser::logOut();
  ASSERT_TRUE(
      JovUser::userWithUsername("other", "pass1234")->performRegistrationSynchronous().ok());
  auto foreign = run("readNote", {{"id", value["id"]}});
  ASSERT_TRUE(foreign.ok());
  EXPECT_TRUE(foreign.value()->returnedValue["returnedValue"].is_null());
}

TEST_F(ServerCodeFlowTest, FailuresAreTypedAndTheEmulatorKeepsServing) {
  auto thrown = run("boom", {{"v", 1}});
  ASSERT_FALSE(thrown.ok());
  EXPECT_EQ(thrown.error().code(), JovError::codeInvalidContainer());
  EXPECT_NE(thrown.error().jovErrorMessage().value_or("").find("boom 1"), std::string::npos);

  auto looped = run("spin", nlohmann::json::object());
  ASSERT_FALSE(looped.ok());
  EXPECT_EQ(looped.error().code(), JovError::codeInvalidContainer());
  EXPECT_EQ(looped.error().jovErrorSummary(), "EXECUTION_TIMEOUT");

  EXPECT_EQ(run("nothing", nlohmann::json::object()).error().code(),
            JovError::codeObjectNotFound());
  auto noVersion = Jov::serverCodeEntry("add", std::string("99"))->executeSynchronous();
  EXPECT_EQ(noVersion.error().code(), JovError::codeObjectNotFound());
  EXPECT_EQ(run("add", {{"a", 1}, {"b", 1}}, 3).error().code(), JovError::codeInvalidContainer());
  EXPECT_TRUE(run("add", {{"a", 1}, {"b", 1}}).ok()) << "still serving after the loop";
}

}  // namespace
}  // namespace jov
