#include "router.hpp"

#include <cstdio>

#include "api_error.hpp"

namespace jovemu {

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

// "+" stays "+": in a path it is a literal plus sign (international phone numbers).
std::string percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      int high = hexValue(text[i + 1]);
      int low = hexValue(text[i + 2]);
      if (high >= 0 && low >= 0) {
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
        continue;
      }
    }
    out.push_back(text[i]);
  }
  return out;
}

namespace {

std::vector<std::string> splitRaw(std::string_view path) {
  std::vector<std::string> out;
  if (!path.empty() && path.front() == '/') path.remove_prefix(1);
  if (!path.empty() && path.back() == '/') path.remove_suffix(1);
  if (path.empty()) return out;
  std::size_t start = 0;
  while (true) {
    auto slash = path.find('/', start);
    out.emplace_back(
        path.substr(start, slash == std::string_view::npos ? path.npos : slash - start));
    if (slash == std::string_view::npos) break;
    start = slash + 1;
  }
  return out;
}

}  // namespace

std::vector<std::string> pathSegments(const std::string& target) {
  std::string_view path(target);
  path = path.substr(0, path.find('?'));
  auto segments = splitRaw(path);
  for (auto& segment : segments) segment = percentDecode(segment);
  return segments;
}

void Router::add(std::string method, std::string_view pattern, Handler handler) {
  routes_.push_back({std::move(method), splitRaw(pattern), std::move(handler)});
}

void Router::dispatch(const httplib::Request& req, httplib::Response& res, BodyReader* body) const {
  auto segments = pathSegments(req.target.empty() ? req.path : req.target);
  const std::string method = req.method == "HEAD" ? "GET" : req.method;
  bool pathKnown = false;
  for (const auto& route : routes_) {
    if (route.segments.size() != segments.size()) continue;
    std::vector<std::string> params;
    bool match = true;
    for (std::size_t i = 0; i < segments.size() && match; ++i) {
      if (route.segments[i] == "{}") {
        match = !segments[i].empty();
        params.push_back(segments[i]);
      } else {
        match = route.segments[i] == segments[i];
      }
    }
    if (!match) continue;
    pathKnown = true;
    if (route.method != method) continue;
    Call call(req, res, std::move(params), body);
    try {
      route.handler(call);
    } catch (const ApiError& error) {
      res.status = error.status();
      res.set_content(dumpJson(error.body()), "application/json");
    } catch (const std::exception& error) {
      std::fprintf(stderr, "jov-emulator: %s %s failed: %s\n", req.method.c_str(), req.path.c_str(),
                   error.what());
      writeError(res, 500, "INTERNAL_SERVER_ERROR", "The emulator failed to handle the request");
    }
    return;
  }
  if (pathKnown) {
    writeError(res, 405, "METHOD_NOT_ALLOWED", req.method + " is not allowed on this path");
  } else {
    writeError(res, 404, "NOT_FOUND", "No such resource");
  }
}

}  // namespace jovemu
