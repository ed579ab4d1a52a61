// The libcurl transport against a real HTTP server on loopback.
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

#include "jov/application.hpp"
#include "jov/request.hpp"

using namespace jov;
using nlohmann::json;
using namespace std::chrono_literals;

namespace {

class LoopbackServer {
 public:
  LoopbackServer() {
    server.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response&) {
      std::lock_guard lock(mutex);
      clientPorts.insert(req.remote_port);
      last = req;
      return httplib::Server::HandlerResponse::Unhandled;
    });
    server.set_keep_alive_max_count(1000);
    server.set_tcp_nodelay(true);
    server.set_keep_alive_timeout(1);  // so that stop() does not wait long for idle clients
    port = server.bind_to_any_port("127.0.0.1");
    thread = std::thread([this] { server.listen_after_bind(); });
    while (!server.is_running()) std::this_thread::yield();
  }
  ~LoopbackServer() {
    server.stop();
    thread.join();
  }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port) + "/api"; }
  std::size_t connections() {
    std::lock_guard lock(mutex);
    return clientPorts.size();
  }

  httplib::Server server;
  int port = 0;
  std::thread thread;
  std::mutex mutex;
  std::set<int> clientPorts;  // one client port per accepted connection
  httplib::Request last;
};

class TransportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Jov::beginWithID("app", "key", srv.base());
    Jov::setIdleTimeout(60s);
    dir = std::filesystem::temp_directory_path() /
          ("jov-transport-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
    std::filesystem::create_directories(dir);
  }
  void TearDown() override {
    Jov::setIdleTimeout(60s);
    std::filesystem::remove_all(dir);
  }
  LoopbackServer srv;
  std::filesystem::path dir;
  static inline int counter = 0;
};

int unusedPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(fd);  // nothing listens there now
  return ntohs(addr.sin_port);
}

}  // namespace

TEST_F(TransportTest, SendsMethodHeadersAndBodyAsBuilt) {
  srv.server.Post("/api/apps/app/echo", [](const httplib::Request& req, httplib::Response& res) {
    res.set_header("ETag", "\"42\"");
    res.set_content(req.body, "application/json");
  });
  JovRequest r("/echo");
  r.requestMethod = JovMethodPost;
  r.postData = json{{"name", "ünïcode"}, {"n", 1}};
  r.content = "application/vnd.jov.EchoRequest+json";
  r.accept = "application/vnd.jov.EchoResponse+json";
  r.customHeaders = {{"X-Extra", "a"}};
  auto res = r.makeSynchronousRequest();
  ASSERT_TRUE(res.ok()) << res.error->describe();
  EXPECT_EQ(res.status, 200);
  EXPECT_EQ(res.etag, "42");
  EXPECT_EQ(res.json, (json{{"name", "ünïcode"}, {"n", 1}}));
  const auto& last = srv.last;
  EXPECT_EQ(last.method, "POST");
  EXPECT_EQ(last.get_header_value("X-Jov-AppID"), "app");
  EXPECT_EQ(last.get_header_value("X-Jov-AppKey"), "key");
  EXPECT_EQ(last.get_header_value("User-Agent"), "ios/1.1");
  EXPECT_EQ(last.get_header_value("Content-type"), "application/vnd.jov.EchoRequest+json");
  EXPECT_EQ(last.get_header_value("accept"), "application/vnd.jov.EchoResponse+json");
  EXPECT_EQ(last.get_header_value("X-Extra"), "a");
  EXPECT_FALSE(last.has_header("Authorization"));
  EXPECT_FALSE(last.has_header("Expect"));

  // DELETE carries no body even when postData is set; HEAD and PATCH go out as such.
  srv.server.Delete("/api/apps/app/echo", [](const httplib::Request& req, httplib::Response& res) {
    res.status = req.body.empty() ? 204 : 400;
  });
  // Method 3 is GET and still carries postData: it must go out as a GET.
  srv.server.Get("/api/apps/app/echo", [](const httplib::Request& req, httplib::Response& res) {
    res.set_content(
        json{{"method", req.method}, {"length", req.get_header_value("Content-Length")}}.dump(),
        "application/json");
  });
  JovRequest get("/echo");
  get.requestMethod = JovMethodGet;
  get.postData = json{{"q", 1}};
  auto got = get.makeSynchronousRequest();
  EXPECT_EQ(got.json, (json{{"method", "GET"}, {"length", "7"}}));

  JovRequest del("/echo");
  del.requestMethod = JovMethodDelete;
  del.postData = json{{"x", 1}};
  EXPECT_EQ(del.makeSynchronousRequest().status, 204);
}

TEST_F(TransportTest, AHundredSequentialRequestsShareOneConnection) {
  srv.server.Get("/api/apps/app/ping", [](const httplib::Request&, httplib::Response& res) {
    res.set_content(R"({"pong":true})", "application/json");
  });
  for (int i = 0; i < 100; ++i) {
    JovRequest r("/ping");
    ASSERT_TRUE(r.makeSynchronousRequest().ok()) << i;
  }
  EXPECT_EQ(srv.connections(), 1u);
  std::printf("100 sequential requests used %zu connection(s)\n", srv.connections());
}

// One pooled handle serves every request below in turn: each goes exactly where its own URL says,
// whatever the handle was sent to before, and one URL that cannot be sent spoils nothing after it.
TEST_F(TransportTest, EachRequestGoesWhereItsOwnURLSays) {
  auto pathOf = [this](const std::string& path) {
    JovRequest r(path);
    auto res = r.makeSynchronousRequest();
    std::lock_guard lock(srv.mutex);
    return res.ok() || res.status > 0 ? srv.last.target : std::string("failed");
  };
  EXPECT_EQ(pathOf("/groups/one"), "/api/apps/app/groups/one");
  EXPECT_EQ(pathOf("/groups/one"), "/api/apps/app/groups/one");
  EXPECT_EQ(pathOf("/groups/."), "/api/apps/app/groups/.") << "dot segments go out as formed";
  EXPECT_EQ(pathOf("/users?q=1"), "/api/apps/app/users?q=1");
  // A base URL without a scheme is read as http, and is not taken relative to the last URL.
  Jov::beginWithID("app", "key", "127.0.0.1:" + std::to_string(srv.port) + "/api");
  EXPECT_EQ(pathOf("/groups/two"), "/api/apps/app/groups/two");
  EXPECT_EQ(pathOf("/groups/three"), "/api/apps/app/groups/three");
  JovRequest bad("/with space");
  auto refused = bad.makeSynchronousRequest();
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error->code(), 201);
  EXPECT_EQ(pathOf("/groups/four"), "/api/apps/app/groups/four");
}

TEST_F(TransportTest, ManyThreadsAtOnce) {
  srv.server.Get("/api/apps/app/n", [](const httplib::Request& req, httplib::Response& res) {
    res.set_content(json{{"q", req.get_param_value("q")}}.dump(), "application/json");
  });
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 20; ++i) {
        std::string q = std::to_string(t * 100 + i);
        JovRequest r("/n?q=" + q);
        auto res = r.makeSynchronousRequest();
        if (res.ok() && res.json.value("q", "") == q) ++good;
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(good, 160);
  EXPECT_LE(srv.connections(), 17u) << "idle connections are reused across threads";
}

TEST_F(TransportTest, DownloadsAreWrittenAtomically) {
  const std::string payload(300000, 'z');
  srv.server.Get("/api/apps/app/body", [&](const httplib::Request&, httplib::Response& res) {
    res.set_content(payload, "application/octet-stream");
  });
  srv.server.Get("/api/apps/app/broken", [&](const httplib::Request&, httplib::Response& res) {
    // Promises 300000 bytes, sends 1000, then drops the connection.
    res.set_content_provider(payload.size(), "application/octet-stream",
                             [](size_t offset, size_t, httplib::DataSink& sink) {
                               if (offset > 0) return false;
                               sink.write(std::string(1000, 'p').data(), 1000);
                               return true;
                             });
  });
  srv.server.Get("/api/apps/app/missing", [](const httplib::Request&, httplib::Response& res) {
    res.status = 404;
    res.set_content(R"({"errorCode":"OBJECT_NOT_FOUND","message":"gone"})", "application/json");
  });

  auto target = dir / "out.bin";
  JovRequest ok("/body");
  ok.downloadPath = target;
  std::int64_t lastReceived = 0;
  struct Watch : JovRequest {
    using JovRequest::JovRequest;
    std::int64_t* last = nullptr;
    void responseDataReceived(std::int64_t received, std::int64_t) override { *last = received; }
  };
  Watch watched("/body");
  watched.last = &lastReceived;
  watched.reportsProgress = true;
  watched.downloadPath = target;
  ASSERT_TRUE(watched.makeSynchronousRequest().ok());
  EXPECT_EQ(std::filesystem::file_size(target), payload.size());
  EXPECT_EQ(lastReceived, static_cast<std::int64_t>(payload.size()));

  // A broken transfer leaves the earlier file as it was and no partial file beside it.
  std::ofstream(target, std::ios::trunc) << "old";
  JovRequest broken("/broken");
  broken.downloadPath = target;
  auto res = broken.makeSynchronousRequest();
  ASSERT_FALSE(res.ok());
  EXPECT_EQ(res.error->code(), 201);
  std::ifstream in(target);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "old");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 1);

  // An error answer is read as an error and never written to the file.
  JovRequest missing("/missing");
  missing.downloadPath = dir / "never.bin";
  auto miss = missing.makeSynchronousRequest();
  EXPECT_EQ(miss.error->jovErrorSummary(), "OBJECT_NOT_FOUND");
  EXPECT_FALSE(std::filesystem::exists(dir / "never.bin"));

  // A download that cannot be written fails as a failed exchange, leaving nothing behind.
  JovRequest unwritable("/body");
  unwritable.downloadPath = dir / "missing-dir" / "out.bin";
  auto lost = unwritable.makeSynchronousRequest();
  ASSERT_FALSE(lost.ok());
  EXPECT_EQ(lost.error->code(), 201);
  EXPECT_FALSE(std::filesystem::exists(dir / "missing-dir"));
}

TEST_F(TransportTest, ReportsUploadProgressAndStreamsAFile) {
  srv.server.Put("/api/apps/app/up", [](const httplib::Request& req, httplib::Response& res) {
    res.set_content(json{{"size", req.body.size()}}.dump(), "application/json");
  });
  auto file = dir / "in.bin";
  std::ofstream(file, std::ios::binary) << std::string(1 << 20, 'u');
  struct Watch : JovRequest {
    using JovRequest::JovRequest;
    std::vector<std::int64_t> sent;
    void requestDataSend(std::int64_t s) override { sent.push_back(s); }
  };
  Watch r("/up");
  r.reportsProgress = true;
  r.requestMethod = JovMethodPut;
  r.uploadFilePath = file;
  r.content = "application/octet-stream";
  auto res = r.makeSynchronousRequest();
  ASSERT_TRUE(res.ok());
  EXPECT_EQ(res.json.value("size", 0), 1 << 20);
  ASSERT_FALSE(r.sent.empty());
  EXPECT_EQ(r.sent.back(), 1 << 20);
  EXPECT_TRUE(std::is_sorted(r.sent.begin(), r.sent.end()));
}

TEST_F(TransportTest, NoServerOrAStalledServerGives201) {
  Jov::beginWithID("app", "key", "http://127.0.0.1:" + std::to_string(unusedPort()) + "/api");
  JovRequest refused("/x");
  auto res = refused.makeSynchronousRequest();
  ASSERT_FALSE(res.ok());
  EXPECT_EQ(res.error->code(), 201);
  EXPECT_EQ(res.status, 0);

  Jov::beginWithID("app", "key", srv.base());
  std::atomic<bool> release{false};
  srv.server.Get("/api/apps/app/stall", [&](const httplib::Request&, httplib::Response& res) {
    // The server stalls (bounded, so the test always ends).
    for (int i = 0; i < 100 && !release; ++i) std::this_thread::sleep_for(50ms);
    res.set_content("{}", "application/json");
  });
  Jov::setIdleTimeout(700ms);
  auto start = std::chrono::steady_clock::now();
  JovRequest stalled("/stall");
  auto stall = stalled.makeSynchronousRequest();
  auto elapsed = std::chrono::steady_clock::now() - start;
  release = true;
  ASSERT_FALSE(stall.ok());
  EXPECT_EQ(stall.error->code(), 201);
  EXPECT_GE(elapsed, 600ms);
  EXPECT_LT(elapsed, 4s);
}
