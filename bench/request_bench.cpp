// One authenticated GET against the emulator: libjov's JovRequest against what a user would
// write by hand with libcurl and nlohmann-json (one reused easy handle, the best case, and a new
// handle per request, the common case). Run through bench/run, which starts the emulator.
#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "jov/application.hpp"
#include "jov/credential_store.hpp"
#include "jov/request.hpp"
#include "jov/user.hpp"

namespace {

std::string gBase, gApp, gKey, gToken, gUserID;

size_t collect(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

// A plain libcurl exchange, as an application would write it without the library.
nlohmann::json rawExchange(CURL* h, const std::string& method, const std::string& url,
                           const std::string& body, const std::string& token,
                           const std::string& contentType = "application/json") {
  std::string response;
  curl_slist* headers = nullptr;
  headers = curl_slist_append(headers, ("X-Jov-AppID: " + gApp).c_str());
  headers = curl_slist_append(headers, ("X-Jov-AppKey: " + gKey).c_str());
  headers = curl_slist_append(headers, ("Content-Type: " + contentType).c_str());
  if (!token.empty())
    headers = curl_slist_append(headers, ("Authorization: Bearer " + token).c_str());
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, method.c_str());
  curl_easy_setopt(h, CURLOPT_POSTFIELDS, method == "GET" ? nullptr : body.c_str());
  if (method == "GET") curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &response);
  CURLcode rc = curl_easy_perform(h);
  curl_slist_free_all(headers);
  if (rc != CURLE_OK) throw std::runtime_error(curl_easy_strerror(rc));
  return nlohmann::json::parse(response, nullptr, false);
}

void setUp() {
  CURL* h = curl_easy_init();
  std::string apps = gBase + "/apps/" + gApp;
  std::string name = "bench" + std::to_string(std::rand());
  rawExchange(h, "POST", apps + "/users",
              nlohmann::json{{"loginName", name}, {"password", "benchpass"}}.dump(), "",
              "application/vnd.jov.RegistrationRequest+json");
  auto token =
      rawExchange(h, "POST", apps + "/oauth2/token",
                  nlohmann::json{{"username", name}, {"password", "benchpass"}}.dump(), "");
  gToken = token.value("access_token", "");
  gUserID = token.value("id", "");
  curl_easy_cleanup(h);
  if (gToken.empty()) throw std::runtime_error("could not log in to the emulator");
  jov::JovKeyChainWrapper::useMemoryStore();
  jov::Jov::beginWithID(gApp, gKey, gBase);
  if (!jov::JovUser::authenticateSynchronous(name, "benchpass"))
    throw std::runtime_error("the library could not log in");
}

// Every side GETs the user's record by ID, the exchange the library's refresh sends, so that
// the emulator does the same work for each. One exchange of each side:
bool jovRequestOnce() {
  jov::JovRequest r("/users/" + gUserID);
  r.anonymous = true;
  r.customHeaders.push_back({"Authorization", "Bearer " + gToken});
  auto res = r.makeSynchronousRequest();
  return res.ok() && res.json.value("userID", "") == gUserID;
}

// The same GET as an operation of the library: the current user's refresh (the record is
// loaded into the user; the stored credentials are not rewritten when nothing changed).
bool userRefreshOnce() {
  return jov::Jov::currentUser()->refreshSynchronous().ok();
}

std::string userURL() {
  return gBase + "/apps/" + gApp + "/users/" + gUserID;
}

bool rawOnce(CURL* h, const std::string& url) {
  return rawExchange(h, "GET", url, "", gToken).value("userID", "") == gUserID;
}

void BM_JovRequest(benchmark::State& state) {
  for (auto _ : state)
    if (!jovRequestOnce()) state.SkipWithError("bad answer");
}

void BM_UserRefresh(benchmark::State& state) {
  for (auto _ : state)
    if (!userRefreshOnce()) state.SkipWithError("refresh failed");
}

void BM_RawCurlReusedHandle(benchmark::State& state) {
  CURL* h = curl_easy_init();
  const std::string url = userURL();
  for (auto _ : state)
    if (!rawOnce(h, url)) state.SkipWithError("bad answer");
  curl_easy_cleanup(h);
}

void BM_RawCurlHandlePerRequest(benchmark::State& state) {
  const std::string url = userURL();
  for (auto _ : state) {
    CURL* h = curl_easy_init();
    const bool ok = rawOnce(h, url);
    curl_easy_cleanup(h);
    if (!ok) state.SkipWithError("bad answer");
  }
}

// `count` exchanges of one side and nothing else, for an instruction count under callgrind (run
// with 0 and with N: the difference is what N exchanges cost).
int runCount(const std::string& side, int count) {
  CURL* h = curl_easy_init();
  const std::string url = userURL();
  int failures = 0;
  for (int i = 0; i < count; ++i) {
    const bool ok = side == "request"   ? jovRequestOnce()
                    : side == "refresh" ? userRefreshOnce()
                                        : rawOnce(h, url);
    if (!ok) ++failures;
  }
  curl_easy_cleanup(h);
  return failures == 0 ? 0 : 1;
}

BENCHMARK(BM_JovRequest)->Unit(benchmark::kMicrosecond)->MinTime(2.0);
BENCHMARK(BM_UserRefresh)->Unit(benchmark::kMicrosecond)->MinTime(2.0);
BENCHMARK(BM_RawCurlReusedHandle)->Unit(benchmark::kMicrosecond)->MinTime(2.0);
BENCHMARK(BM_RawCurlHandlePerRequest)->Unit(benchmark::kMicrosecond)->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr,
                 "usage: jov_bench BASE_URL APP_ID APP_KEY [benchmark flags]\n"
                 "       jov_bench BASE_URL APP_ID APP_KEY count raw|request|refresh N\n");
    return 2;
  }
  gBase = argv[1];
  gApp = argv[2];
  gKey = argv[3];
  curl_global_init(CURL_GLOBAL_DEFAULT);
  setUp();
  if (argc == 7 && std::string(argv[4]) == "count") return runCount(argv[5], std::atoi(argv[6]));
  argv[3] = argv[0];
  int rest = argc - 3;
  benchmark::Initialize(&rest, argv + 3);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
