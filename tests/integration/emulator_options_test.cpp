// jov-emulator's start-up options: a port in use, a broker given wrongly, export and import of
// the store, and the reset route.
#include <gtest/gtest.h>
#include <httplib.h>

#include <nlohmann/json.hpp>

#include "emulator_fixture.hpp"
#include "process.hpp"

namespace jovtest {
namespace {

using nlohmann::json;

TEST(EmulatorOptions, RefusesAPortInUse) {
  int port = Emulator::shared().port();
  auto second =
      runProcess({JOV_EMULATOR_PATH, "--port", std::to_string(port), "--data", ":memory:"});
  EXPECT_EQ(second.status, 1);
  EXPECT_EQ(second.err, "jov-emulator: port " + std::to_string(port) + " is already in use\n");
  EXPECT_TRUE(second.out.empty()) << second.out;
  // The first one still answers, alone.
  auto app = Emulator::shared().newApp();
  EXPECT_TRUE(Emulator::shared().outbox(app.appID).empty());
}

// A broker given wrongly stops the emulator before it serves anything.
TEST(EmulatorOptions, RefusesAnMQTTBrokerGivenWrongly) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--mqtt", "127.0.0.1:1883"}, "--mqtt HOST:PORT needs --mqtt-admin USER:PASSWORD"},
      {{"--mqtt", "127.0.0.1:port", "--mqtt-admin", "a:b"},
       "--mqtt 127.0.0.1:port: the port must be 1 to 65535"},
      {{"--mqtt", "127.0.0.1:70000", "--mqtt-admin", "a:b"},
       "--mqtt 127.0.0.1:70000: the port must be 1 to 65535"},
  };
  for (const auto& [extra, message] : cases) {
    std::vector<std::string> args = {JOV_EMULATOR_PATH, "--port", "0", "--data", ":memory:"};
    args.insert(args.end(), extra.begin(), extra.end());
    auto refused = runProcess(args);
    EXPECT_EQ(refused.status, 1) << message;
    EXPECT_EQ(refused.err, "jov-emulator: " + message + "\n");
    EXPECT_TRUE(refused.out.empty()) << refused.out;
  }
}

// Runs jov against one emulator with its own data directory.
struct Cli {
  std::string url;
  TempDir data;
  ProcessResult operator()(std::vector<std::string> args, const std::string& input = "") const {
    args.insert(args.begin(), {JOV_CLI_PATH, "--data", data.str()});
    args.insert(args.end(), {"--url", url, "--app", "roundtrip", "--key", "rt-key"});
    return runProcess(args, input);
  }
};

// Alice's requests to the "roundtrip" application of one private emulator.
struct AppClient {
  httplib::Client http;
  std::string token;
  explicit AppClient(int port) : http("127.0.0.1", port) {
    auto reply = send("POST", "/oauth2/token", R"({"username":"alice","password":"secret99"})");
    token = json::parse(reply.second, nullptr, false).value("access_token", "");
  }
  std::pair<int, std::string> send(const std::string& method, const std::string& path,
                                   const std::string& body = "") {
    httplib::Request request;
    request.method = method;
    request.path = "/api/apps/roundtrip" + path;
    request.headers = {{"X-Jov-AppID", "roundtrip"}, {"X-Jov-AppKey", "rt-key"}};
    if (!token.empty()) request.headers.emplace("Authorization", "Bearer " + token);
    if (!body.empty()) {
      request.body = body;
      request.headers.emplace("Content-Type", "application/json");
    }
    auto result = http.send(request);
    return result ? std::pair{result->status, result->body} : std::pair{0, std::string()};
  }
};

TEST(EmulatorOptions, ExportImportRoundTripAndReset) {
  TempDir dump;
  std::string groupID;
  {
    PrivateEmulator first(
        {"--data", ":memory:", "--app", "roundtrip:rt-key", "--export", dump.str()});
    Cli cli{first.baseURL(), {}};
    ASSERT_EQ(cli({"register", "alice", "--email", "alice@example.org"}, "secret99\n").status, 0);
    auto created = cli({"group", "create", "Climbers", "--json"});
    ASSERT_EQ(created.status, 0) << created.err;
    groupID = json::parse(created.out).value("groupID", "");
    // A bucket keeps its objects in a table made at run time: it must come back too.
    AppClient client(first.port());
    ASSERT_EQ(client.send("PUT", "/buckets/notes/objects/n1", R"({"text":"hi"})").first, 201);
    ASSERT_EQ(first.stop(), 0);
  }
  for (const char* table : {"apps", "users", "groups", "group_members", "tokens"})
    EXPECT_TRUE(std::filesystem::exists(dump.path() / (std::string(table) + ".json"))) << table;

  TempDir store;
  PrivateEmulator second({"--data", store.str(), "--import", dump.str()});
  Cli cli{second.baseURL(), {}};
  ASSERT_EQ(cli({"login", "alice@example.org"}, "secret99\n").status, 0);
  auto groups = cli({"group", "list", "--json"});
  ASSERT_EQ(groups.status, 0) << groups.err;
  auto list = json::parse(groups.out);
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]["groupID"], groupID);
  EXPECT_EQ(list[0]["name"], "Climbers");
  AppClient client(second.port());
  auto [status, note] = client.send("GET", "/buckets/notes/objects/n1");
  EXPECT_EQ(status, 200) << note;
  EXPECT_EQ(json::parse(note, nullptr, false).value("text", ""), "hi");

  // A store that already holds data takes no import.
  auto again =
      runProcess({JOV_EMULATOR_PATH, "--port", "0", "--data", store.str(), "--import", dump.str()});
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.err.find("not empty"), std::string::npos) << again.err;

  // The reset route clears the application's data and keeps the application.
  httplib::Client http("127.0.0.1", second.port());
  EXPECT_EQ(http.Delete("/emulator/apps/no-such-app")->status, 404);
  EXPECT_EQ(http.Delete("/emulator/apps/roundtrip")->status, 204);
  EXPECT_EQ(client.send("GET", "/buckets/notes/objects/n1").first / 100, 4);
  auto afterReset = cli({"login", "alice@example.org"}, "secret99\n");
  EXPECT_EQ(afterReset.status, 1);
  EXPECT_EQ(cli({"register", "alice"}, "secret99\n").status, 0) << "the application is gone";
}

}  // namespace
}  // namespace jovtest
