// Bad input never brings the emulator down; many clients at once are each served correctly;
// a restart on the same store keeps everything.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "emulator_fixture.hpp"

namespace jovtest {
namespace {

const char* kRegistration = "application/vnd.jov.RegistrationRequest+json";
const char* kCreation = "application/vnd.jov.GroupCreationRequest+json";

// Sends the bytes as they are and returns the answer's status; -1 when none comes within 3 s
// (the server's own read timeout is longer, so a server waiting for a body shows up as -1).
int statusOfRawRequest(const std::string& request) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(Emulator::shared().port()));
  ::inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
  int status = -1;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
          static_cast<ssize_t>(request.size())) {
    pollfd pfd{fd, POLLIN, 0};
    char head[13] = {};
    if (::poll(&pfd, 1, 3000) == 1 && ::recv(fd, head, 12, MSG_WAITALL) == 12) {
      status = std::atoi(head + 9);  // "HTTP/1.1 204"
    }
  }
  ::close(fd);
  return status;
}

TEST(EmulatorRobustness, BadRequestsGetErrorAnswers) {
  EmulatorClient client(Emulator::shared().newApp());
  auto [user, token] = client.newUser();

  for (const std::string body : {"{", "{\"loginName\": }", "[1, 2", "\xff\xfe", "null", "[]"}) {
    auto reply = client.send("POST", "/users", body, kRegistration);
    EXPECT_EQ(reply.status, 400) << body;
    EXPECT_EQ(reply.errorCode(), "INVALID_INPUT_DATA") << body;
  }
  EXPECT_EQ(client.send("POST", "/oauth2/token", "username=a&password=b").status, 400);
  std::string deep(10000, '[');
  EXPECT_EQ(client.send("POST", "/users", deep, kRegistration).status, 400);
  EXPECT_EQ(client
                .send("POST", "/users/me",
                      "{\"a\":" + std::string(100, '[') + std::string(100, ']') + "}",
                      "application/vnd.jov.UserUpdateRequest+json", token)
                .status,
            400)
      << "nesting is bounded";

  auto unknown = emulatorRequest("GET", "/api/apps/" + client.app().appID + "/nothing/here");
  EXPECT_EQ(unknown.status, 404);
  EXPECT_FALSE(unknown.errorCode().empty());
  EXPECT_EQ(emulatorRequest("GET", "/").status, 404);
  EXPECT_EQ(emulatorRequest("DELETE", "/emulator/apps").status, 405);
  EXPECT_EQ(client.send("PATCH", "/users/me", "{}", "application/json", token).status, 405);
  EXPECT_EQ(emulatorRequest("GET", "/api/" + std::string(4000, 'a')).status, 414);

  // Just above the default limit of 16 MiB.
  auto oversized =
      client.send("POST", "/users", std::string(16 * 1024 * 1024 + 1, ' '), kRegistration);
  EXPECT_EQ(oversized.status, 413);
  EXPECT_FALSE(oversized.errorCode().empty());

  EXPECT_EQ(client.get("/users/me", token).status, 200) << "the emulator is still serving";
}

TEST(EmulatorRobustness, BodilessRequestsWithoutLength) {
  // HTTP/1.1 clients such as libcurl send a PUT or DELETE without a body with no length header.
  auto app = Emulator::shared().newApp();
  EmulatorClient client(app);
  auto [owner, token] = client.newUser();
  auto [user, userToken] = client.newUser();
  auto group = client.sendJson("PUT", "/groups/nolength",
                               {{"name", "N"}, {"owner", owner["userID"]}}, kCreation, token);
  ASSERT_EQ(group.status, 201);
  auto request = [&](const std::string& method, const std::string& path,
                     const std::string& bearer) {
    return method + " /api/apps/" + app.appID + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" +
           "X-Jov-AppID: " + app.appID + "\r\nX-Jov-AppKey: " + app.appKey +
           "\r\nAuthorization: Bearer " + bearer + "\r\nConnection: close\r\n\r\n";
  };
  std::string userID = user["userID"];
  EXPECT_EQ(statusOfRawRequest(request("PUT", "/groups/nolength/members/" + userID, token)), 204);
  EXPECT_EQ(statusOfRawRequest(request("DELETE", "/users/" + userID, userToken)), 204);
  EXPECT_EQ(client.get("/users/me", userToken).errorCode(), "WRONG_TOKEN");
}

TEST(EmulatorRobustness, HundredConcurrentClients) {
  auto app = Emulator::shared().newApp();
  constexpr int kClients = 100;
  std::vector<std::string> failures(kClients);  // what each client got wrong, if anything
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      EmulatorClient client(app);
      std::string name = "racer" + std::to_string(i);
      auto created =
          client.sendJson("POST", "/users",
                          {{"loginName", name}, {"password", "pass1234"}, {"n", i}}, kRegistration);
      auto login =
          client.sendJson("POST", "/oauth2/token", {{"username", name}, {"password", "pass1234"}},
                          "application/json");
      auto me = client.get("/users/me",
                           login.body.is_object() ? login.body.value("access_token", "") : "");
      if (created.status != 201 || login.status != 200 || me.status != 200 ||
          me.body["loginName"] != name || me.body["n"] != i ||
          me.body["userID"] != created.body["userID"])
        failures[i] = std::to_string(created.status) + "/" + std::to_string(login.status) + "/" +
                      std::to_string(me.status) + " " + me.raw;
    });
  }
  for (auto& thread : threads) thread.join();
  for (int i = 0; i < kClients; ++i) EXPECT_EQ(failures[i], "") << i;
}

TEST(EmulatorRobustness, RestartKeepsEverything) {
  auto& emulator = Emulator::shared();
  auto app = emulator.newApp();
  EmulatorClient client(app);
  auto [user, token] = client.newUser({{"emailAddress", "kept@example.com"}});
  auto login = client.login(user["loginName"], "pass1234");
  auto group = client.sendJson("PUT", "/groups/kept", {{"name", "Kept"}, {"owner", user["userID"]}},
                               kCreation, token);
  ASSERT_EQ(group.status, 201);

  emulator.restart();  // throws unless the old process exited cleanly with status 0

  EXPECT_EQ(client.get("/users/me", token).body["userID"], user["userID"]) << "tokens survive";
  EXPECT_EQ(client.get("/groups/kept", token).body["name"], "Kept");
  EXPECT_EQ(client.login(user["loginName"], "pass1234")["id"], user["userID"]);
  auto refreshed =
      client.sendJson("POST", "/oauth2/token",
                      {{"grant_type", "refresh_token"}, {"refresh_token", login["refresh_token"]}},
                      "application/json");
  EXPECT_EQ(refreshed.status, 200) << refreshed.raw;
  EXPECT_EQ(emulator.outbox(app.appID).size(), 1u);
  EXPECT_EQ(emulator.newApp().baseURL, emulator.baseURL());
}

}  // namespace
}  // namespace jovtest
