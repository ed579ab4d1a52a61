// The asynchronous engine against what a user would write by hand with curl multi, on the same
// emulator, interleaved: connections opened (through a counting loopback proxy), throughput and
// client CPU per operation at 4, 16 and 64 in flight, peak memory of 10,000 operations
// submitted at once (each side in a process of its own), and 10,000 object saves at 16 in
// flight. Run through bench/run.
//
//   jov_engine_bench URL APP KEY                 P2 and P3, prints one line per figure
//   jov_engine_bench URL APP KEY p4 jov|multi    prints the peak RSS of one side (kB)
//   jov_engine_bench URL APP KEY p5              the object saves alone
#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/credential_store.hpp"
#include "jov/object.hpp"
#include "jov/request.hpp"
#include "jov/user.hpp"

namespace {

using Clock = std::chrono::steady_clock;

std::string gBase, gApp, gKey, gToken, gUserID;

// ---------------------------------------------------------------- a counting TCP proxy

// Accepts on a loopback port and relays every connection to the emulator's port; counts the
// connections a client opened.
class CountingProxy {
 public:
  explicit CountingProxy(int targetPort) : target_(targetPort) {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        ::listen(listener_, 1024) != 0)
      throw std::runtime_error("proxy: cannot listen");
    socklen_t len = sizeof addr;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    std::thread([this] { acceptLoop(); }).detach();
  }
  int port() const { return port_; }
  int accepted() const { return accepted_.load(); }
  void reset() { accepted_ = 0; }

 private:
  void acceptLoop() {
    for (;;) {
      int client = ::accept(listener_, nullptr, nullptr);
      if (client < 0) continue;
      ++accepted_;
      std::thread([this, client] { relay(client); }).detach();
    }
  }
  void relay(int client) {
    int server = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(target_));
    if (::connect(server, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      ::close(client);
      ::close(server);
      return;
    }
    pollfd fds[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
    char buffer[16384];
    for (;;) {
      if (::poll(fds, 2, -1) <= 0) break;
      bool closed = false;
      for (int i = 0; i < 2 && !closed; ++i) {
        if (fds[i].revents == 0) continue;
        ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
        if (n <= 0 || ::write(fds[1 - i].fd, buffer, static_cast<size_t>(n)) != n) closed = true;
      }
      if (closed) break;
    }
    ::close(client);
    ::close(server);
  }
  int target_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<int> accepted_{0};
};

int portOf(const std::string& url) {
  auto colon = url.rfind(':');
  return std::stoi(url.substr(colon + 1));
}

std::string withPort(const std::string& url, int port) {
  auto colon = url.rfind(':');
  auto slash = url.find('/', colon);
  return url.substr(0, colon + 1) + std::to_string(port) + url.substr(slash);
}

// ---------------------------------------------------------------- the two sides

double cpuSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct Figures {
  double seconds = 0, cpu = 0;
  int failures = 0;
};

// `total` refreshes of the current user through the library, `inFlight` at a time; each
// completion starts the next (the application's executor runs completions at once).
Figures runJov(int total, int inFlight) {
  auto user = jov::Jov::currentUser();
  std::atomic<int> started{0}, finished{0}, failures{0};
  std::mutex mutex;
  std::condition_variable done;
  std::function<void()> next = [&] {
    if (started.fetch_add(1) >= total) return;
    user->refresh([&](std::shared_ptr<jov::JovUser>, std::optional<jov::JovError> error) {
      if (error) ++failures;
      if (finished.fetch_add(1) + 1 == total) {
        std::lock_guard lock(mutex);
        done.notify_all();
      } else {
        next();
      }
    });
  };
  jov::JovMainQueue::setExecutor([](std::function<void()> f) { f(); });
  const double cpu0 = cpuSeconds();
  const auto t0 = Clock::now();
  for (int i = 0; i < inFlight; ++i) next();
  {
    std::unique_lock lock(mutex);
    done.wait(lock, [&] { return finished.load() >= total; });
  }
  Figures f;
  f.seconds = std::chrono::duration<double>(Clock::now() - t0).count();
  f.cpu = cpuSeconds() - cpu0;
  f.failures = failures.load();
  jov::JovMainQueue::setExecutor(nullptr);
  return f;
}

size_t collect(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

// `total` requests with curl multi, `inFlight` at a time, as a user would write them: one
// handle per request in flight, reused, the answer parsed when it is complete. `prepare` sets a
// handle up for the next request (its body, if any, kept in `request`); `accept` judges an
// answer by its status and JSON.
struct MultiRequests {
  std::string url;
  std::vector<std::string> headers;
  std::function<void(CURL*, std::string& request, int index)> prepare;
  std::function<bool(long status, const nlohmann::json& answer)> accept;
};

Figures runMultiRequests(const MultiRequests& spec, int total, int inFlight) {
  CURLM* multi = curl_multi_init();
  curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, 64L);
  curl_slist* headers = nullptr;
  headers = curl_slist_append(headers, ("X-Jov-AppID: " + gApp).c_str());
  headers = curl_slist_append(headers, ("X-Jov-AppKey: " + gKey).c_str());
  headers = curl_slist_append(headers, ("Authorization: Bearer " + gToken).c_str());
  for (const auto& header : spec.headers) headers = curl_slist_append(headers, header.c_str());
  struct Slot {
    CURL* easy;
    std::string request, body;
  };
  std::vector<Slot> slots(static_cast<size_t>(std::min(inFlight, total)));
  int started = 0, finished = 0, failures = 0;
  const double cpu0 = cpuSeconds();
  const auto t0 = Clock::now();
  auto start = [&](Slot& slot) {
    slot.body.clear();
    curl_easy_setopt(slot.easy, CURLOPT_URL, spec.url.c_str());
    curl_easy_setopt(slot.easy, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(slot.easy, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(slot.easy, CURLOPT_WRITEDATA, &slot.body);
    curl_easy_setopt(slot.easy, CURLOPT_PRIVATE, &slot);
    if (spec.prepare) spec.prepare(slot.easy, slot.request, started);
    curl_multi_add_handle(multi, slot.easy);
    ++started;
  };
  for (auto& slot : slots) {
    slot.easy = curl_easy_init();
    start(slot);
  }
  while (finished < total) {
    int running = 0;
    curl_multi_perform(multi, &running);
    int queued = 0;
    while (CURLMsg* msg = curl_multi_info_read(multi, &queued)) {
      if (msg->msg != CURLMSG_DONE) continue;
      Slot* slot = nullptr;
      curl_easy_getinfo(msg->easy_handle, CURLINFO_PRIVATE, reinterpret_cast<char**>(&slot));
      long status = 0;
      curl_easy_getinfo(slot->easy, CURLINFO_RESPONSE_CODE, &status);
      const bool ok = msg->data.result == CURLE_OK;
      curl_multi_remove_handle(multi, slot->easy);
      auto json = nlohmann::json::parse(slot->body, nullptr, false);
      if (!ok || json.is_discarded() || !spec.accept(status, json)) ++failures;
      ++finished;
      if (started < total) start(*slot);
    }
    if (finished < total) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
  }
  Figures f;
  f.seconds = std::chrono::duration<double>(Clock::now() - t0).count();
  f.cpu = cpuSeconds() - cpu0;
  f.failures = failures;
  for (auto& slot : slots) curl_easy_cleanup(slot.easy);
  curl_slist_free_all(headers);
  curl_multi_cleanup(multi);
  return f;
}

// The user's GETs of runJov with curl multi.
Figures runMulti(const std::string& base, int total, int inFlight) {
  MultiRequests spec;
  spec.url = base + "/apps/" + gApp + "/users/" + gUserID;
  spec.accept = [](long, const nlohmann::json& json) {
    return json.is_object() && json.value("userID", "") == gUserID;
  };
  return runMultiRequests(spec, total, inFlight);
}

// `total` new objects saved in the user's bucket through the future form, `inFlight` futures
// outstanding: the oldest is waited for, then the next save starts.
Figures runJovSaves(const std::shared_ptr<jov::JovBucket>& bucket, int total, int inFlight) {
  std::deque<std::future<jov::Result<void>>> pending;
  int failures = 0;
  const double cpu0 = cpuSeconds();
  const auto t0 = Clock::now();
  for (int i = 0; i < total || !pending.empty();) {
    if (i < total && static_cast<int>(pending.size()) < inFlight) {
      auto object = bucket->createObject();
      object->setObject(i, "n");
      object->setObject("saved by the engine benchmark", "text");
      pending.push_back(object->saveAsync());
      ++i;
      continue;
    }
    if (!pending.front().get().ok()) ++failures;
    pending.pop_front();
  }
  Figures f;
  f.seconds = std::chrono::duration<double>(Clock::now() - t0).count();
  f.cpu = cpuSeconds() - cpu0;
  f.failures = failures;
  return f;
}

// The same POSTs with curl multi, the created record read for its ID.
Figures runMultiSaves(const std::string& base, const std::string& bucketPath, int total,
                      int inFlight) {
  MultiRequests spec;
  spec.url = base + "/apps/" + gApp + bucketPath + "/objects";
  spec.headers = {"Content-Type: application/json"};
  spec.prepare = [](CURL* easy, std::string& request, int index) {
    request = nlohmann::json{{"n", index}, {"text", "saved by the engine benchmark"}}.dump();
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.c_str());
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.size()));
  };
  spec.accept = [](long status, const nlohmann::json& json) {
    return status == 201 && json.is_object() && json.contains("objectID");
  };
  return runMultiRequests(spec, total, inFlight);
}

void logIn(const std::string& base) {
  jov::JovKeyChainWrapper::useMemoryStore();
  jov::Jov::beginWithID(gApp, gKey, base);
  const std::string name =
      "eng" + std::to_string(::getpid()) + std::to_string(std::rand() % 100000);
  auto user = jov::JovUser::userWithUsername(name, "benchpass");
  if (!user->performRegistrationSynchronous().ok()) throw std::runtime_error("cannot register");
  auto login = jov::JovUser::authenticateSynchronous(name, "benchpass");
  if (!login) throw std::runtime_error("cannot log in");
  gToken = login.value()->accessToken();
  gUserID = login.value()->userID();
}

// P5: 10,000 object saves through the future form at 16 in flight against the same POSTs with
// curl multi, interleaved, best of two halves each.
void printSaves() {
  auto bucket = jov::Jov::currentUser()->bucketWithName("enginesaves");
  const std::string path = bucket->bucketPath().value_or("");
  constexpr int kTotal = 10000, kInFlight = 16;
  Figures jovRun{}, multiRun{};
  for (int round = 0; round < 2; ++round) {
    Figures m = runMultiSaves(gBase, path, kTotal / 2, kInFlight);
    Figures j = runJovSaves(bucket, kTotal / 2, kInFlight);
    if (round == 0 || j.seconds < jovRun.seconds) jovRun = j;
    if (round == 0 || m.seconds < multiRun.seconds) multiRun = m;
  }
  const double jovRate = kTotal / 2 / jovRun.seconds, multiRate = kTotal / 2 / multiRun.seconds;
  std::printf(
      "P5 object saves, future form at %d in flight: libjov %.0f saves/s, curl multi %.0f "
      "POSTs/s, ratio %.2f (target >= 0.90); client CPU %.1f us vs %.1f us per save%s\n",
      kInFlight, jovRate, multiRate, jovRate / multiRate, jovRun.cpu / (kTotal / 2) * 1e6,
      multiRun.cpu / (kTotal / 2) * 1e6, jovRun.failures + multiRun.failures ? " FAILURES" : "");
}

long peakRssKb() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr,
                 "usage: jov_engine_bench URL APP KEY [p4 jov|multi | profile jov|multi N]\n");
    return 2;
  }
  gBase = argv[1];
  gApp = argv[2];
  gKey = argv[3];
  curl_global_init(CURL_GLOBAL_DEFAULT);
  std::srand(static_cast<unsigned>(::getpid()));
  logIn(gBase);

  if (argc >= 5 && std::string(argv[4]) == "p5") {
    printSaves();
    return 0;
  }

  if (argc >= 6 && std::string(argv[4]) == "p4") {
    // 10,000 operations submitted at once; the peak memory of the whole process.
    const long before = peakRssKb();
    Figures f =
        std::string(argv[5]) == "jov" ? runJov(10000, 10000) : runMulti(gBase, 10000, 10000);
    std::printf("%ld %ld %d\n", peakRssKb(), before, f.failures);
    return f.failures == 0 ? 0 : 1;
  }

  if (argc >= 6 && std::string(argv[4]) == "profile") {
    // One side of P3 alone (for a profiler): "profile jov|multi IN_FLIGHT".
    const int inFlight = argc >= 7 ? std::atoi(argv[6]) : 64;
    Figures f =
        std::string(argv[5]) == "jov" ? runJov(10000, inFlight) : runMulti(gBase, 10000, inFlight);
    std::printf("%.0f ops/s, %.1f us CPU per op, %d failure(s)\n", 10000 / f.seconds,
                f.cpu / 10000 * 1e6, f.failures);
    return f.failures == 0 ? 0 : 1;
  }

  // P2: connections opened, counted by a proxy in front of the emulator.
  CountingProxy proxy(portOf(gBase));
  const std::string proxied = withPort(gBase, proxy.port());
  jov::Jov::beginWithID(gApp, gKey, proxied);
  auto sequential = [&] {
    for (int i = 0; i < 1000; ++i)
      if (!jov::Jov::currentUser()->refreshSynchronous().ok())
        throw std::runtime_error("GET failed");
  };
  sequential();
  std::printf("P2 sequential 1000 requests: %d connection(s) (target <= 1)\n", proxy.accepted());
  proxy.reset();
  {
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
      threads.emplace_back([] {
        for (int i = 0; i < 125; ++i) jov::Jov::currentUser()->refreshSynchronous();
      });
    for (auto& t : threads) t.join();
  }
  std::printf("P2 8 threads x 125 requests: %d connection(s) (target <= 8)\n", proxy.accepted());
  proxy.reset();
  Figures viaProxy = runJov(10000, 64);
  std::printf("P2 10000 async at 64 in flight: %d connection(s) (target <= 64), %d failure(s)\n",
              proxy.accepted(), viaProxy.failures);

  // P3: the engine against curl multi, same concurrency, interleaved, straight to the emulator.
  jov::Jov::beginWithID(gApp, gKey, gBase);
  for (int inFlight : {4, 16, 64}) {
    constexpr int kTotal = 10000;
    Figures jovRun{}, multiRun{};
    for (int round = 0; round < 2; ++round) {  // interleaved, best of two each
      Figures m = runMulti(gBase, kTotal / 2, inFlight);
      Figures j = runJov(kTotal / 2, inFlight);
      if (round == 0 || j.seconds < jovRun.seconds) jovRun = j;
      if (round == 0 || m.seconds < multiRun.seconds) multiRun = m;
    }
    const double jovRate = kTotal / 2 / jovRun.seconds, multiRate = kTotal / 2 / multiRun.seconds;
    const double jovCpu = jovRun.cpu / (kTotal / 2) * 1e6,
                 multiCpu = multiRun.cpu / (kTotal / 2) * 1e6;
    std::printf(
        "P3 %2d in flight: libjov %.0f ops/s, curl multi %.0f ops/s, throughput ratio %.2f "
        "(target >= 0.90); client CPU %.1f us vs %.1f us per op, ratio %.2f (target <= 1.30)%s\n",
        inFlight, jovRate, multiRate, jovRate / multiRate, jovCpu, multiCpu, jovCpu / multiCpu,
        jovRun.failures + multiRun.failures ? " FAILURES" : "");
  }

  printSaves();
  return 0;
}
