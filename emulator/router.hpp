// Matches a request's method and path against the routes, segment by segment, and runs the
// handler; answers 404 for a path no route knows and 405 for a known path with another method.
#pragma once

#include <httplib.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "call.hpp"

namespace jovemu {

/// @brief Decodes "%XX" escapes; "+" stays "+", and a malformed escape is kept as it is.
std::string percentDecode(std::string_view text);
/// @brief Splits a request target's path into percent-decoded segments; a trailing "/" is
/// ignored and the query is dropped.
std::vector<std::string> pathSegments(const std::string& target);

class Router {
 public:
  using Handler = std::function<void(Call&)>;

  /// @brief Adds a route; "{}" in the pattern matches one non-empty segment.
  void add(std::string method, std::string_view pattern, Handler handler);
  /// @brief Runs the matching route and turns its ApiError into the error answer. `body`
  /// is the unread body of a request the streaming rule takes (see setStreamingRule).
  void dispatch(const httplib::Request& req, httplib::Response& res,
                BodyReader* body = nullptr) const;

  /// @brief Requests whose body the route reads itself, as a stream (object bodies): the
  /// server hands them over unread, with the body size limit instead of the JSON one.
  void setStreamingRule(std::function<bool(const httplib::Request&)> rule) {
    streaming_ = std::move(rule);
  }
  bool streams(const httplib::Request& req) const { return streaming_ && streaming_(req); }

 private:
  struct Route {
    std::string method;
    std::vector<std::string> segments;
    Handler handler;
  };
  std::vector<Route> routes_;
  std::function<bool(const httplib::Request&)> streaming_;
};

}  // namespace jovemu
