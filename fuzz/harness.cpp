#include "harness.hpp"

#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>

#include "app_registry.hpp"
#include "database.hpp"

namespace jovfuzz {

namespace {

constexpr std::string_view kSeparator = "\n~~~\n";
constexpr std::size_t kMaxRequests = 8;

void replaceAll(std::string& text, std::string_view from, const std::string& to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

// "a=1&b=%20" as cpp-httplib would hand it to a handler.
void parseQuery(std::string_view query, httplib::Request& req) {
  while (!query.empty()) {
    auto amp = query.find('&');
    auto pair = query.substr(0, amp);
    auto eq = pair.find('=');
    std::string key = jovemu::percentDecode(pair.substr(0, eq));
    std::string value =
        eq == std::string_view::npos ? std::string() : jovemu::percentDecode(pair.substr(eq + 1));
    if (!key.empty()) req.params.emplace(std::move(key), std::move(value));
    if (amp == std::string_view::npos) break;
    query.remove_prefix(amp + 1);
  }
}

httplib::Request decode(std::string_view text) {
  httplib::Request req;
  auto line = [&text]() {
    auto end = text.find('\n');
    std::string_view out = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (!out.empty() && out.back() == '\r') out.remove_suffix(1);
    return out;
  };
  auto first = line();
  auto space = first.find(' ');
  req.method = std::string(first.substr(0, space));
  req.target = space == std::string_view::npos ? "/" : std::string(first.substr(space + 1));
  auto question = req.target.find('?');
  req.path = req.target.substr(0, question);
  if (question != std::string::npos)
    parseQuery(std::string_view(req.target).substr(question + 1), req);
  while (!text.empty()) {
    auto header = line();
    if (header.empty()) break;
    auto colon = header.find(':');
    if (colon == std::string_view::npos) continue;
    auto value = header.substr(colon + 1);
    while (!value.empty() && value.front() == ' ') value.remove_prefix(1);
    req.headers.emplace(std::string(header.substr(0, colon)), std::string(value));
  }
  req.body = std::string(text);
  return req;
}

[[noreturn]] void fail(const httplib::Request& req, const httplib::Response& res,
                       const char* what) {
  std::fprintf(stderr, "%s: %s %s -> %d %s\n", what, req.method.c_str(), req.target.c_str(),
               res.status, res.body.c_str());
  std::abort();
}

}  // namespace

struct Harness::State {
  jovemu::Database db{":memory:"};
  jovemu::AppRegistry apps{db};
  jovemu::Service service{db, apps, {}};
  jovemu::Router router;
  std::string app = "fuzzapp", key = "fuzzkey", token, user;

  httplib::Response dispatch(const jovemu::Router& via, const httplib::Request& req) {
    httplib::Response res;
    via.dispatch(req, res);
    return res;
  }
};

Harness::Harness(const std::vector<RouteFamily>& families) : state_(std::make_unique<State>()) {
  auto& s = *state_;
  s.apps.registerApp(s.app, s.key, true);
  for (const auto& family : families) family(s.router, s.service);

  // A user and its token, made through the service's own routes.
  jovemu::Router setup;
  jovemu::addAuthRoutes(setup, s.service);
  jovemu::addUserRoutes(setup, s.service);
  auto post = [&](const std::string& path, const std::string& type, const nlohmann::json& body) {
    httplib::Request req;
    req.method = "POST";
    req.target = req.path = "/api/apps/" + s.app + path;
    req.headers = {{"X-Jov-AppID", s.app}, {"X-Jov-AppKey", s.key}, {"Content-Type", type}};
    req.body = body.dump();
    auto res = s.dispatch(setup, req);
    return nlohmann::json::parse(res.body);
  };
  s.user = post("/users", "application/vnd.jov.RegistrationRequest+json",
                {{"loginName", "fuzzer"}, {"password", "pass1234"}})
               .at("userID");
  s.token =
      post("/oauth2/token", "application/json", {{"username", "fuzzer"}, {"password", "pass1234"}})
          .at("access_token");
}

Harness::~Harness() = default;

void Harness::run(const std::uint8_t* data, std::size_t size) {
  auto& s = *state_;
  std::string input(reinterpret_cast<const char*>(data), size);
  replaceAll(input, "{app}", s.app);
  replaceAll(input, "{key}", s.key);
  replaceAll(input, "{token}", s.token);
  replaceAll(input, "{user}", s.user);
  std::string_view rest(input);
  for (std::size_t n = 0; n < kMaxRequests && !rest.empty(); ++n) {
    auto end = rest.find(kSeparator);
    auto req = decode(rest.substr(0, end));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + kSeparator.size());
    auto res = s.dispatch(s.router, req);
    if (res.status == 500) fail(req, res, "internal error");
    if (res.status < 200 || res.status > 599) fail(req, res, "no status");
    if (!res.body.empty() && !nlohmann::json::accept(res.body)) fail(req, res, "body not JSON");
  }
}

}  // namespace jovfuzz
