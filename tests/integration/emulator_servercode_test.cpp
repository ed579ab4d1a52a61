// Server code on the emulator over raw HTTP: deployment and versions, entries that return, call
// back, throw, loop or hog memory, step counts, and the data API acting as the caller.
#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <future>
#include <string>

#include "emulator_fixture.hpp"

namespace jovtest {
namespace {

const char* kScript = R"js(
function add(args, context) {
  return { sum: args.a + args.b, userID: context.userID, appID: context.appID };
}
function count(args) { var s = 0; for (var i = 0; i < args.n; i++) s += i; return s; }
function twice(args, context, done) { done(null, { value: args.v * 2 }); }
function refuse(args, context, done) { done(new Error("refused " + args.v)); }
function owesDone(args, context, done) { return 1; }
function boom(args) { throw new TypeError("boom " + args.v); }
function spin() { for (;;) {} }
function hog() { var kept = []; for (;;) kept.push(new Uint8Array(1 << 20)); }
function cyclic() { var o = {}; o.self = o; return o; }
function stubborn() { try { for (;;) {} } catch (e) { for (;;) {} } }
var runs = 0;
function fresh() { return ++runs; }
var notAFunction = 3;
)js";

const nlohmann::json kNoArgument = nlohmann::json::object();

struct Answer {
  int status = 0;
  nlohmann::json body;
  std::string steps, environment;  // the X-Step-count and X-Environment-version headers
};

EmulatorReply deploy(const std::string& appID, const std::string& script) {
  return emulatorRequest("POST", "/emulator/apps/" + appID + "/server-code", script,
                         "application/javascript");
}

Answer run(const EmulatorApp& app, const std::string& version, const std::string& entry,
           const nlohmann::json& argument = nlohmann::json::object(), const std::string& token = "",
           const std::string& query = "") {
  httplib::Client client("127.0.0.1", Emulator::shared().port());
  client.set_read_timeout(std::chrono::seconds(30));
  httplib::Headers headers = {{"X-Jov-AppID", app.appID}, {"X-Jov-AppKey", app.appKey}};
  if (!token.empty()) headers.emplace("Authorization", "Bearer " + token);
  auto result = client.Post(
      "/api/apps/" + app.appID + "/server-code/versions/" + version + "/" + entry + query, headers,
      argument.dump(), "application/json");
  if (!result) return {-1, nullptr, "", ""};
  return {result->status, nlohmann::json::parse(result->body, nullptr, false),
          result->get_header_value("X-Step-count"),
          result->get_header_value("X-Environment-version")};
}

long steps(const Answer& answer) {
  return answer.steps.empty() ? -1 : std::stol(answer.steps);
}

class ServerCodeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto reply = deploy(app.appID, kScript);
    ASSERT_EQ(reply.status, 201) << reply.raw;
    ASSERT_EQ(reply.body["version"], 1);
  }
  EmulatorApp app = Emulator::shared().newApp();
};

TEST_F(ServerCodeTest, EntriesReturnOrCallBackWithTheirCallerStepsAndEnvironment) {
  auto anonymous = run(app, "current", "add", {{"a", 2}, {"b", 3}});
  ASSERT_EQ(anonymous.status, 200) << anonymous.body;
  EXPECT_EQ(anonymous.body["returnedValue"],
            (nlohmann::json{{"sum", 5}, {"userID", nullptr}, {"appID", app.appID}}));
  EXPECT_GT(steps(anonymous), 0);
  EXPECT_EQ(anonymous.environment, "6");

  EmulatorClient client(app);
  auto [user, token] = client.newUser();
  auto asUser = run(app, "1", "add", {{"a", 1}, {"b", 1}}, token, "?environment-version=0");
  ASSERT_EQ(asUser.status, 200) << asUser.body;
  EXPECT_EQ(asUser.body["returnedValue"]["userID"], user["userID"]);
  EXPECT_EQ(asUser.environment, "0");
  auto unknownEnvironment = run(app, "1", "add", kNoArgument, "", "?environment-version=4");
  EXPECT_EQ(unknownEnvironment.body["errorCode"], "INVALID_INPUT_DATA");
  EXPECT_EQ(run(app, "1", "add", kNoArgument, "not-a-token").status, 403);

  // Every loop turn executes instructions: a thousand turns cost at least a thousand more.
  auto few = run(app, "current", "count", {{"n", 10}});
  auto many = run(app, "current", "count", {{"n", 1000}});
  ASSERT_EQ(few.status, 200);
  ASSERT_EQ(many.status, 200);
  EXPECT_EQ(many.body["returnedValue"], 499500);
  EXPECT_GE(steps(many) - steps(few), 990);
  EXPECT_EQ(steps(run(app, "current", "count", {{"n", 10}})), steps(few));

  // Every execution starts from a fresh heap: nothing is left over from the one before.
  EXPECT_EQ(run(app, "current", "fresh").body["returnedValue"], 1);
  EXPECT_EQ(run(app, "current", "fresh").body["returnedValue"], 1);

  auto called = run(app, "current", "twice", {{"v", 21}});
  ASSERT_EQ(called.status, 200) << called.body;
  EXPECT_EQ(called.body["returnedValue"], (nlohmann::json{{"value", 42}}));
}

TEST_F(ServerCodeTest, FailingEntriesAreStoppedAndTheEmulatorKeepsServing) {
  auto thrown = run(app, "current", "boom", {{"v", 7}});
  EXPECT_EQ(thrown.status, 400);
  EXPECT_EQ(thrown.body["errorCode"], "RUNTIME_ERROR");
  EXPECT_EQ(thrown.body["message"], "TypeError: boom 7");

  auto refused = run(app, "current", "refuse", {{"v", 1}});
  EXPECT_EQ(refused.status, 400);
  EXPECT_EQ(refused.body["message"], "Error: refused 1");
  EXPECT_EQ(run(app, "current", "owesDone").body["errorCode"], "RUNTIME_ERROR");
  EXPECT_EQ(run(app, "current", "cyclic").body["errorCode"], "RUNTIME_ERROR");
  // Catching the stop does not buy more time.
  EXPECT_EQ(run(app, "current", "stubborn").body["errorCode"], "EXECUTION_TIMEOUT");

  // The fixture's emulator allows one second; the loop is stopped, and meanwhile others are
  // answered.
  auto started = std::chrono::steady_clock::now();
  auto spinning = std::async(std::launch::async, [&] { return run(app, "current", "spin"); });
  EXPECT_EQ(run(app, "current", "add", {{"a", 1}, {"b", 2}}).status, 200);
  auto stopped = spinning.get();
  EXPECT_EQ(stopped.status, 400);
  EXPECT_EQ(stopped.body["errorCode"], "EXECUTION_TIMEOUT");
  EXPECT_GT(steps(stopped), 1000);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));

  auto hog = run(app, "current", "hog");
  EXPECT_EQ(hog.status, 400);
  EXPECT_EQ(hog.body["errorCode"], "MEMORY_LIMIT_EXCEEDED") << hog.body;

  EXPECT_EQ(run(app, "current", "add", {{"a", 1}, {"b", 2}}).body["returnedValue"]["sum"], 3);
}

TEST_F(ServerCodeTest, VersionsEntriesAndDeploymentsThatDoNotExist) {
  for (const char* entry : {"missing", "notAFunction", "Object", "9lives", "a-b"}) {
    auto answer = run(app, "current", entry);
    EXPECT_EQ(answer.status, 404) << entry;
    EXPECT_EQ(answer.body["errorCode"], "ENTRY_NOT_FOUND") << entry;
  }
  for (const char* version : {"2", "0", "-1", "latest"}) {
    auto answer = run(app, version, "add");
    EXPECT_EQ(answer.status, 404) << version;
    EXPECT_EQ(answer.body["errorCode"], "SERVER_CODE_VERSION_NOT_FOUND") << version;
  }
  auto other = Emulator::shared().newApp();
  EXPECT_EQ(run(other, "current", "add").status, 404);  // nothing deployed there
  ASSERT_EQ(deploy(other.appID, "throw new Error('at load');").status, 201);
  auto loadFailure = run(other, "current", "add");
  EXPECT_EQ(loadFailure.status, 400);
  EXPECT_EQ(loadFailure.body["message"], "Error: at load");

  auto broken = deploy(app.appID, "function add(args {");
  EXPECT_EQ(broken.status, 400);
  EXPECT_EQ(broken.errorCode(), "INVALID_SCRIPT");
  EXPECT_NE(broken.body.value("message", "").find("SyntaxError"), std::string::npos);
  EXPECT_EQ(deploy(app.appID, "").status, 400);
  EXPECT_EQ(deploy("no-such-app", kScript).status, 404);

  // A refused deployment made no version; a good one becomes current, and the old one stays.
  ASSERT_EQ(deploy(app.appID, "function add(args) { return 'second'; }").body["version"], 2);
  EXPECT_EQ(run(app, "current", "add").body["returnedValue"], "second");
  EXPECT_EQ(run(app, "1", "add", {{"a", 1}, {"b", 1}}).body["returnedValue"]["sum"], 2);
  EXPECT_EQ(run(app, "2", "count", {{"n", 2}}).status, 404);

  // A chosen version must be above every deployed one; the next unchosen one follows it.
  auto deployAs = [&](const std::string& version) {
    return emulatorRequest("POST",
                           "/emulator/apps/" + app.appID + "/server-code?version=" + version,
                           "function add() { return " + version + "; }", "application/javascript");
  };
  EXPECT_EQ(deployAs("2").errorCode(), "SERVER_CODE_VERSION_EXISTS");
  EXPECT_EQ(deployAs("x").status, 400);
  EXPECT_EQ(deployAs("0").status, 400);
  ASSERT_EQ(deployAs("10").body["version"], 10);
  EXPECT_EQ(run(app, "current", "add").body["returnedValue"], 10);
  EXPECT_EQ(run(app, "5", "add").status, 404);
  ASSERT_EQ(deploy(app.appID, "function add() { return 11; }").body["version"], 11);
  ASSERT_EQ(deploy(app.appID, "function add(args) { return 'second'; }").body["version"], 12);

  Emulator::shared().restart();
  auto listed = emulatorRequest("GET", "/emulator/apps/" + app.appID + "/server-code");
  ASSERT_EQ(listed.status, 200);
  EXPECT_EQ(listed.body["current"], 12);
  ASSERT_EQ(listed.body["versions"].size(), 5u);
  EXPECT_EQ(listed.body["versions"][0]["version"], 1);
  EXPECT_EQ(run(app, "current", "add").body["returnedValue"], "second");
}

TEST_F(ServerCodeTest, TheDataApiActsAsTheCallerWithItsAcls) {
  ASSERT_EQ(deploy(app.appID, R"js(
function save(args) { return jov.saveObject("/users/me/buckets/notes", { text: args.text }); }
function load(args) { return jov.getObject(args.bucket, args.id); }
function tryLoad(args) {
  try { return jov.getObject(args.bucket, args.id); } catch (e) { return { status: e.status }; }
}
function find(args) {
  return jov.query("/users/me/buckets/notes", { type: "eq", field: "text", value: args.text });
}
function remove(args) { return jov.deleteObject("/users/me/buckets/notes", args.id); }
)js")
                .status,
            201);
  EmulatorClient client(app);
  auto [alice, aliceToken] = client.newUser();
  auto [bob, bobToken] = client.newUser();

  auto saved = run(app, "current", "save", {{"text", "hello"}}, aliceToken);
  ASSERT_EQ(saved.status, 200) << saved.body;
  std::string id = saved.body["returnedValue"]["_id"];
  std::string bucket = "/users/" + alice["userID"].get<std::string>() + "/buckets/notes";

  // The object is in the store, where the REST route finds it.
  auto stored = client.get("/users/me/buckets/notes/objects/" + id, aliceToken);
  ASSERT_EQ(stored.status, 200) << stored.raw;
  EXPECT_EQ(stored.body["text"], "hello");

  auto loaded = run(app, "current", "load", {{"bucket", bucket}, {"id", id}}, aliceToken);
  EXPECT_EQ(loaded.body["returnedValue"]["text"], "hello");
  auto found = run(app, "current", "find", {{"text", "hello"}}, aliceToken);
  ASSERT_EQ(found.body["returnedValue"].size(), 1u) << found.body;
  EXPECT_EQ(found.body["returnedValue"][0]["_id"], id);

  // Bob may not read Alice's note; without a token there is no "me".
  auto denied = run(app, "current", "tryLoad", {{"bucket", bucket}, {"id", id}}, bobToken);
  EXPECT_EQ(denied.body["returnedValue"]["status"], 403);
  auto anonymous = run(app, "current", "save", {{"text", "x"}});
  EXPECT_EQ(anonymous.status, 400);
  EXPECT_NE(anonymous.body.value("message", "").find("access token"), std::string::npos);
  EXPECT_EQ(run(app, "current", "load", {{"bucket", "notes"}, {"id", id}}, aliceToken).status, 400);

  EXPECT_EQ(run(app, "current", "remove", {{"id", id}}, aliceToken).body["returnedValue"], true);
  EXPECT_EQ(run(app, "current", "load", {{"bucket", bucket}, {"id", id}}, aliceToken)
                .body["returnedValue"],
            nullptr);
}

}  // namespace
}  // namespace jovtest
