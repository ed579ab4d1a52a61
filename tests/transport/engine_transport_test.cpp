// The asynchronous engine with the real libcurl transport: exchanges driven by the I/O loop,
// connection reuse, cancellation against a server that stalls, and a process that exits with
// exchanges in flight.
#include <gtest/gtest.h>
#include <httplib.h>
#include <spawn.h>
#include <sys/wait.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <set>
#include <thread>

#include "jov/application.hpp"
#include "jov/group.hpp"

extern char** environ;

using namespace jov;
using namespace std::chrono_literals;

namespace {

// Answers GET /api/apps/app/groups/ID with a group record; "stall" waits until released.
class GroupServer {
 public:
  GroupServer() {
    server.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response&) {
      std::lock_guard lock(mutex);
      ports.insert(req.remote_port);
      return httplib::Server::HandlerResponse::Unhandled;
    });
    server.Get(R"(/api/apps/app/groups/([^/]+))", [this](const httplib::Request& req,
                                                         httplib::Response& res) {
      const std::string id = req.matches[1];
      if (id == "stall") {
        std::unique_lock lock(mutex);
        ++stalled;
        changed.notify_all();
        changed.wait_for(lock, 10s, [&] { return released; });
      }
      res.set_content(R"({"groupID":")" + id + R"(","name":"from server"})", "application/json");
    });
    // A thread per connection the client may hold: httplib's default pool of 8 would hold back
    // the ninth connection, and stalled answers would hold every thread.
    server.new_task_queue = [] { return new httplib::ThreadPool(64); };
    server.set_keep_alive_max_count(100000);
    server.set_keep_alive_timeout(1);
    port = server.bind_to_any_port("127.0.0.1");
    thread = std::thread([this] { server.listen_after_bind(); });
    while (!server.is_running()) std::this_thread::yield();
  }
  ~GroupServer() {
    release();
    server.stop();
    thread.join();
  }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port) + "/api"; }
  bool waitStalled(int n) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, 5s, [&] { return stalled >= n; });
  }
  void release() {
    std::lock_guard lock(mutex);
    released = true;
    changed.notify_all();
  }
  std::size_t connections() {
    std::lock_guard lock(mutex);
    return ports.size();
  }

  httplib::Server server;
  int port = 0;
  std::thread thread;
  std::mutex mutex;
  std::condition_variable changed;
  int stalled = 0;
  bool released = false;
  std::set<int> ports;
};

class EngineTransportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Jov::beginWithID("app", "key", srv.base());
    Jov::setRequestFactory(nullptr);  // the libcurl transport
  }
  GroupServer srv;
};

TEST_F(EngineTransportTest, AsynchronousExchangesShareConnections) {
  // One after another: the loop's connection is reused every time.
  for (int i = 0; i < 50; ++i) {
    auto group = JovGroup::groupWithID("g" + std::to_string(i));
    auto done = group->refreshAsync();
    ASSERT_EQ(done.wait_for(5s), std::future_status::ready);
    ASSERT_TRUE(done.get().ok());
    EXPECT_EQ(group->name(), "from server");
  }
  EXPECT_EQ(srv.connections(), 1u);

  // Waves of 16 at once: connections are reused from wave to wave instead of one per exchange.
  // (The bound of one connection per exchange in flight is measured against the emulator by
  // bench/run; this server's own keep-alive handling makes the exact count vary.)
  std::vector<std::future<Result<void>>> wave;
  for (int batch = 0; batch < 200 / 16; ++batch) {
    wave.clear();
    for (int i = 0; i < 16; ++i) wave.push_back(JovGroup::groupWithID("w")->refreshAsync());
    for (auto& f : wave) ASSERT_TRUE(f.get().ok());
  }
  std::printf(
      "50 sequential and 192 asynchronous exchanges (16 in flight) used %zu connection(s)\n",
      srv.connections());
  EXPECT_LT(srv.connections(), 192u / 2);
}

TEST_F(EngineTransportTest, CancellingAStalledExchangeEndsItAtOnce) {
  auto group = JovGroup::groupWithID("stall");
  JovCancellation cancel;
  std::atomic<int> completions{0};
  std::optional<JovError> seen;
  group->refresh(
      [&](std::shared_ptr<JovGroup>, std::optional<JovError> error) {
        ++completions;
        seen = error;
      },
      cancel);
  ASSERT_TRUE(srv.waitStalled(1));
  const auto start = std::chrono::steady_clock::now();
  cancel.cancel();
  ASSERT_EQ(JovMainQueue::runUntil(1, 5s), 1u);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->code(), JovError::codeOperationCancelled());
  EXPECT_EQ(group->name(), "");
  srv.release();
  EXPECT_EQ(JovMainQueue::runFor(100ms), 0u);
  EXPECT_EQ(completions.load(), 1);

  // The engine goes on serving after an aborted transfer.
  auto next = JovGroup::groupWithID("after");
  EXPECT_TRUE(next->refreshAsync().get().ok());
}

// Run by ExitWithExchangesInFlight in a process of its own: starts exchanges that stall and
// leaves main with them in flight.
TEST(EngineExitChild, DISABLED_LeaveWithExchangesInFlight) {
  GroupServer* srv = new GroupServer();  // never stopped: the process ends under it
  Jov::beginWithID("app", "key", srv->base());
  for (int i = 0; i < 20; ++i) JovGroup::groupWithID("stall")->refresh([](auto, auto) {});
  if (!srv->waitStalled(20)) std::_Exit(3);
  std::exit(0);
}

TEST(EngineExit, ExitWithExchangesInFlightNeitherHangsNorCrashes) {
  std::string exe = std::filesystem::read_symlink("/proc/self/exe");
  std::string filter = "--gtest_filter=EngineExitChild.DISABLED_LeaveWithExchangesInFlight";
  std::string disabled = "--gtest_also_run_disabled_tests";
  char* argv[] = {exe.data(), filter.data(), disabled.data(), nullptr};
  pid_t pid = 0;
  ASSERT_EQ(posix_spawn(&pid, exe.c_str(), nullptr, nullptr, argv, environ), 0);
  int status = 0;
  const auto limit = std::chrono::steady_clock::now() + 20s;
  pid_t done = 0;
  while ((done = ::waitpid(pid, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < limit)
    std::this_thread::sleep_for(20ms);
  if (done == 0) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
    FAIL() << "the process did not exit";
  }
  ASSERT_TRUE(WIFEXITED(status)) << "signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
