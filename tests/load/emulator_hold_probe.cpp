// Measures how long a normal request waits while other clients hold connections open (idle,
// headers sent but no body, one header line per second), and what a chunked body far over the
// limit costs the emulator. Runs the emulator's server in this process, on loopback only, and
// stops by itself. Prints one line per measurement.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "app_registry.hpp"
#include "database.hpp"
#include "router.hpp"
#include "server.hpp"
#include "service.hpp"

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

int connectFrom(const char* source, int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  ::inet_pton(AF_INET, source, &local.sin_addr);
  sockaddr_in remote{};
  remote.sin_family = AF_INET;
  remote.sin_port = htons(static_cast<std::uint16_t>(port));
  ::inet_pton(AF_INET, "127.0.0.1", &remote.sin_addr);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
      ::connect(fd, reinterpret_cast<sockaddr*>(&remote), sizeof remote) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

void sendAll(int fd, const std::string& text) {
  [[maybe_unused]] auto n = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
}

// One request on a fresh connection from 127.0.0.1; its latency in ms, or -1 without answer.
double timedRequest(int port) {
  auto start = Clock::now();
  int fd = connectFrom("127.0.0.1", port);
  if (fd < 0) return -1;
  sendAll(fd,
          "GET /api/apps/probe/users/me HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Jov-AppID: probe\r\n"
          "X-Jov-AppKey: key\r\nConnection: close\r\n\r\n");
  pollfd pfd{fd, POLLIN, 0};
  char head[12] = {};
  bool answered = ::poll(&pfd, 1, 5000) == 1 && ::recv(fd, head, sizeof head, MSG_WAITALL) == 12 &&
                  std::strncmp(head + 9, "401", 3) == 0;
  double elapsed = msSince(start);
  ::close(fd);
  return answered ? elapsed : -1;
}

struct Held {
  int fd;
  int kind;  // 0 idle, 1 headers without body, 2 a header line per second
  double closedAt = -1;
};

long highWaterKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

void holdScenario(const char* label, const char* attacker, std::size_t perClient, int perKind) {
  jovemu::Database db(":memory:");
  jovemu::AppRegistry apps(db);
  apps.registerApp("probe", "key", true);
  jovemu::Service service(db, apps, {});
  jovemu::Router router;
  jovemu::addAllRoutes(router, service);
  jovemu::ServerOptions options;
  options.maxConnectionsPerClient = perClient;
  jovemu::HttpServer server(router, options);
  server.start();
  int port = server.port();

  double idleLatency = timedRequest(port);
  auto start = Clock::now();
  std::vector<Held> held;
  int refused = 0;
  const char* names[] = {"idle", "headers-no-body", "header-per-second"};
  for (int kind = 0; kind < 3; ++kind) {
    for (int i = 0; i < perKind; ++i) {
      int fd = connectFrom(attacker, port);
      if (fd < 0) {
        ++refused;
        continue;
      }
      if (kind == 1) {
        sendAll(
            fd,
            "POST /api/apps/probe/users HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Jov-AppID: probe\r\n"
            "X-Jov-AppKey: key\r\nContent-Type: application/json\r\nContent-Length: 100\r\n\r\n");
      } else if (kind == 2) {
        sendAll(fd, "GET /api/apps/probe/users/me HTTP/1.1\r\n");
      }
      held.push_back({fd, kind});
    }
  }
  std::vector<double> latencies;
  int line = 0;
  // 14 s: past the 10 s header deadline, so the cut-off of the slow senders shows.
  for (int tick = 0; tick < 140; ++tick) {
    if (tick % 10 == 0) {
      ++line;
      for (auto& h : held) {
        if (h.kind == 2 && h.closedAt < 0)
          sendAll(h.fd, "X-Line-" + std::to_string(line) + ": 1\r\n");
      }
    }
    if (tick < 80) latencies.push_back(timedRequest(port));
    for (auto& h : held) {
      if (h.closedAt >= 0) continue;
      pollfd pfd{h.fd, POLLIN, 0};
      char scratch[512];
      if (::poll(&pfd, 1, 0) == 1 && ::recv(h.fd, scratch, sizeof scratch, MSG_DONTWAIT) <= 0) {
        h.closedAt = msSince(start);
      }
    }
    ::poll(nullptr, 0, 100);
  }
  std::vector<double> served;
  int failed = 0;
  for (double l : latencies) (l < 0 ? failed++ : (served.push_back(l), 0));
  std::sort(served.begin(), served.end());
  int turnedAway = static_cast<int>(std::count_if(held.begin(), held.end(), [](const Held& h) {
    return h.closedAt >= 0 && h.closedAt < 1000;
  }));
  std::printf(
      "%s: %zu connections from %s (%d failed to connect, %d closed within 1 s), idle "
      "server %.1f ms\n",
      label, held.size(), attacker, refused, turnedAway, idleLatency);
  if (!served.empty()) {
    std::printf(
        "  normal request while held: n=%zu median %.2f ms, p95 %.2f ms, max %.2f ms, "
        "unanswered %d\n",
        served.size(), served[served.size() / 2], served[served.size() * 95 / 100], served.back(),
        failed);
  }
  for (int kind = 0; kind < 3; ++kind) {
    int count = 0, closed = 0;
    double first = 1e9, last = 0;
    for (auto& h : held) {
      if (h.kind != kind) continue;
      ++count;
      if (h.closedAt < 0) continue;
      ++closed;
      first = std::min(first, h.closedAt);
      last = std::max(last, h.closedAt);
    }
    std::printf("  %-18s %3d held, %3d closed by the server", names[kind], count, closed);
    if (closed) std::printf(" between %.1f s and %.1f s", first / 1000, last / 1000);
    std::printf("\n");
  }
  for (auto& h : held) ::close(h.fd);
  server.stop();
}

void chunkedScenario(std::size_t megabytes) {
  jovemu::Database db(":memory:");
  jovemu::AppRegistry apps(db);
  apps.registerApp("probe", "key", true);
  jovemu::Service service(db, apps, {});
  jovemu::Router router;
  jovemu::addAllRoutes(router, service);
  jovemu::HttpServer server(router, {});
  server.start();
  long before = highWaterKiB();
  auto start = Clock::now();
  int fd = connectFrom("127.0.0.1", server.port());
  sendAll(
      fd,
      "POST /api/apps/probe/users HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Jov-AppID: probe\r\n"
      "X-Jov-AppKey: key\r\nContent-Type: application/json\r\nTransfer-Encoding: chunked\r\n\r\n");
  std::string chunk = "10000\r\n" + std::string(0x10000, ' ') + "\r\n";
  std::size_t sent = 0;
  int status = -1;
  for (std::size_t i = 0; i < megabytes * 16; ++i) {
    pollfd pfd{fd, POLLIN, 0};
    if (::poll(&pfd, 1, 0) == 1) break;
    if (::send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL) <= 0) break;
    sent += 0x10000;
  }
  pollfd pfd{fd, POLLIN, 0};
  char head[12] = {};
  if (::poll(&pfd, 1, 5000) == 1 && ::recv(fd, head, sizeof head, MSG_WAITALL) == 12) {
    status = std::atoi(head + 9);
  }
  double elapsed = msSince(start);
  ::close(fd);
  std::printf(
      "chunked body of up to %zu MiB against a 16 MiB limit: status %d after %.0f ms, "
      "%.1f MiB sent, peak memory %+ld KiB\n",
      megabytes, status, elapsed, sent / 1048576.0, highWaterKiB() - before);
  server.stop();
}

}  // namespace

int main() {
  chunkedScenario(300);
  holdScenario("other client", "127.0.0.2", 256, 200);
  holdScenario("same client, per-client bound raised", "127.0.0.1", 1024, 200);
  return 0;
}
