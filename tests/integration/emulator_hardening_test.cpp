// Hostile input and hostile clients: bodies over the limit however they are framed, JSON the
// emulator cannot hold, IDs that are dot segments, and connections held open on purpose.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <vector>

#include "emulator_fixture.hpp"

namespace jovtest {
namespace {

using Clock = std::chrono::steady_clock;

int connectFrom(const char* source) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  ::inet_pton(AF_INET, source, &local.sin_addr);
  sockaddr_in remote{};
  remote.sin_family = AF_INET;
  remote.sin_port = htons(static_cast<std::uint16_t>(Emulator::shared().port()));
  ::inet_pton(AF_INET, "127.0.0.1", &remote.sin_addr);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
      ::connect(fd, reinterpret_cast<sockaddr*>(&remote), sizeof remote) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

bool sendText(int fd, const std::string& text) {
  return ::send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

// The status of the answer waiting on `fd`, or -1 when none comes within `ms`.
int readStatus(int fd, int ms) {
  pollfd pfd{fd, POLLIN, 0};
  char head[13] = {};
  if (::poll(&pfd, 1, ms) != 1 || ::recv(fd, head, 12, MSG_WAITALL) != 12) return -1;
  return std::atoi(head + 9);  // "HTTP/1.1 413"
}

// The request sent byte for byte, so that no client library squashes or re-encodes the path.
int rawStatus(const std::string& request) {
  int fd = connectFrom("127.0.0.1");
  int status = fd >= 0 && sendText(fd, request) ? readStatus(fd, 5000) : -1;
  if (fd >= 0) ::close(fd);
  return status;
}

std::string appHeaders(const EmulatorApp& app) {
  return "Host: 127.0.0.1\r\nX-Jov-AppID: " + app.appID + "\r\nX-Jov-AppKey: " + app.appKey +
         "\r\n";
}

TEST(EmulatorHardening, ChunkedBodyOverTheLimitIsRefusedEarly) {
  auto app = Emulator::shared().newApp();
  int fd = connectFrom("127.0.0.1");
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(sendText(fd, "POST /api/apps/" + app.appID + "/users HTTP/1.1\r\n" + appHeaders(app) +
                               "Content-Type: application/json\r\n"
                               "Transfer-Encoding: chunked\r\n\r\n"));
  // Up to 64 MiB against the default limit of 16 MiB, stopping once the answer is there.
  const std::string chunk = "10000\r\n" + std::string(0x10000, ' ') + "\r\n";
  std::size_t sent = 0;
  auto start = Clock::now();
  for (int i = 0; i < 1024; ++i) {
    pollfd pfd{fd, POLLIN, 0};
    if (::poll(&pfd, 1, 0) == 1 || !sendText(fd, chunk)) break;
    sent += 0x10000;
  }
  EXPECT_EQ(readStatus(fd, 10000), 413);
  ::close(fd);
  EXPECT_LT(sent, 48u << 20) << "the answer came while the body was still arriving";
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(20));

  // Within the limit, a chunked body is read and handled like any other.
  EmulatorClient client(app);
  auto chunked = rawStatus("POST /api/apps/" + app.appID + "/users HTTP/1.1\r\n" + appHeaders(app) +
                           "Content-Type: application/vnd.jov.RegistrationRequest+json\r\n"
                           "Transfer-Encoding: chunked\r\nConnection: close\r\n\r\n"
                           "1a\r\n{\"loginName\":\"chunky\",\"pas\r\n"
                           "12\r\nsword\":\"pass1234\"}\r\n0\r\n\r\n");
  EXPECT_EQ(chunked, 201);
  EXPECT_EQ(client.login("chunky", "pass1234")["id"].is_string(), true) << "still serving";
}

// A GET with a body (a request left with its default "{}") is answered, and the request after
// it on the same connection is not read from the body's bytes.
TEST(EmulatorHardening, BodyOfAGetIsNotTakenForTheNextRequest) {
  auto app = Emulator::shared().newApp();
  int fd = connectFrom("127.0.0.1");
  ASSERT_GE(fd, 0);
  const std::string outbox = "/emulator/apps/" + app.appID + "/push/outbox";
  ASSERT_TRUE(sendText(fd, "GET " + outbox + " HTTP/1.1\r\n" + appHeaders(app) +
                               "Content-Type: application/json\r\nContent-Length: 2\r\n\r\n{}"));
  EXPECT_EQ(readStatus(fd, 5000), 200);
  ::close(fd);
  // Through a client that keeps its connection: the DELETE after the GET is its own request.
  httplib::Client client("127.0.0.1", Emulator::shared().port());
  client.set_keep_alive(true);
  httplib::Request get;
  get.method = "GET";
  get.path = outbox;
  get.body = "{}";
  get.set_header("Content-Type", "application/json");
  auto first = client.send(get);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->status, 200);
  auto second = client.Delete(outbox);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->status, 204) << second->body;
}

TEST(EmulatorHardening, JsonTheEmulatorCannotHoldIsInvalidInput) {
  EmulatorClient client(Emulator::shared().newApp());
  const char* registration = "application/vnd.jov.RegistrationRequest+json";
  for (const std::string number : {"1e999", "-1e999", "1E400"}) {
    auto reply = client.send(
        "POST", "/users", "{\"loginName\":\"big\",\"password\":\"pass1234\",\"n\":" + number + "}",
        registration);
    EXPECT_EQ(reply.status, 400) << number;
    EXPECT_EQ(reply.errorCode(), "INVALID_INPUT_DATA") << number;
  }
  std::string deep =
      "{\"loginName\":\"deep\",\"password\":\"pass1234\",\"n\":" + std::string(100000, '[') +
      std::string(100000, ']') + "}";
  EXPECT_EQ(client.send("POST", "/users", deep, registration).errorCode(), "INVALID_INPUT_DATA");
  // Nothing of the refused bodies was stored.
  auto login = client.sendJson("POST", "/oauth2/token",
                               {{"username", "big"}, {"password", "pass1234"}}, "application/json");
  EXPECT_EQ(login.status, 400);
}

TEST(EmulatorHardening, DotSegmentsAreNeverIDs) {
  auto app = Emulator::shared().newApp();
  EmulatorClient client(app);
  auto [owner, token] = client.newUser();
  std::string body = "{\"name\":\"Dots\"}";
  for (const std::string id : {".", "..", "%2e%2e", "%2E.", "%2e"}) {
    auto status = rawStatus("PUT /api/apps/" + app.appID + "/groups/" + id + " HTTP/1.1\r\n" +
                            appHeaders(app) + "Authorization: Bearer " + token +
                            "\r\nContent-Type: application/vnd.jov.GroupCreationRequest+json\r\n"
                            "Content-Length: " +
                            std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
    EXPECT_EQ(status, 400) << id;
  }
  auto groups = client.get("/groups?owner=" + std::string(owner["userID"]), token);
  EXPECT_TRUE(groups.raw.find("Dots") == std::string::npos) << groups.raw;
  // A path is taken as sent: "groups/../users/me" is not "users/me".
  EXPECT_EQ(rawStatus("GET /api/apps/" + app.appID + "/groups/../users/me HTTP/1.1\r\n" +
                      appHeaders(app) + "Authorization: Bearer " + token +
                      "\r\nConnection: close\r\n\r\n"),
            404);
  for (const std::string id : {".", ".."}) {
    EXPECT_EQ(emulatorRequest("POST", "/emulator/apps",
                              nlohmann::json{{"appID", id}, {"appKey", "k"}}.dump())
                  .status,
              400)
        << id;
  }
}

TEST(EmulatorHardening, HeldConnectionsDoNotStarveOthers) {
  auto app = Emulator::shared().newApp();
  std::vector<int> held;
  for (int i = 0; i < 50; ++i) {
    int idle = connectFrom("127.0.0.1");
    int noBody = connectFrom("127.0.0.1");
    int slow = connectFrom("127.0.0.1");
    ASSERT_TRUE(idle >= 0 && noBody >= 0 && slow >= 0);
    sendText(noBody, "POST /api/apps/" + app.appID + "/users HTTP/1.1\r\n" + appHeaders(app) +
                         "Content-Type: application/json\r\nContent-Length: 100\r\n\r\n");
    sendText(slow, "GET /api/apps/" + app.appID + "/users/me HTTP/1.1\r\n");
    held.insert(held.end(), {idle, noBody, slow});
  }
  // One client address may hold only so many; the rest are turned away at once.
  std::vector<int> flood;
  for (int i = 0; i < 300; ++i) {
    int fd = connectFrom("127.0.0.2");
    if (fd >= 0) flood.push_back(fd);
  }
  auto start = Clock::now();
  EmulatorClient client(app);
  auto [user, token] = client.newUser();
  EXPECT_EQ(client.get("/users/me", token).status, 200);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));

  // The last connection is surely over the bound: once its refusal is there, so are the others.
  int refused = 0;
  for (auto it = flood.rbegin(); it != flood.rend(); ++it) {
    int fd = *it;
    int status = readStatus(fd, it == flood.rbegin() ? 5000 : 0);
    if (status == 503) ++refused;
    ::close(fd);
  }
  EXPECT_GE(refused, 1) << "300 connections from one client are over its bound";
  for (int fd : held) ::close(fd);
}

}  // namespace
}  // namespace jovtest
