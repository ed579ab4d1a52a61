// One HTTP exchange as the route handlers see it: path parameters, body, headers, answer.
#pragma once

#include <httplib.h>

#include <initializer_list>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace jovemu {

/// @brief Serialises JSON for an answer; invalid UTF-8 from a path is replaced, never thrown.
std::string dumpJson(const nlohmann::json& value);
/// @brief Writes an error answer {"errorCode", "message"}.
void writeError(httplib::Response& res, int status, const std::string& code,
                const std::string& message);

class Call {
 public:
  Call(const httplib::Request& req, httplib::Response& res, std::vector<std::string> params)
      : req_(req), res_(res), params_(std::move(params)) {}

  /// @brief The n-th "{}" segment of the route, percent-decoded.
  const std::string& param(std::size_t index) const { return params_.at(index); }
  /// @brief A query parameter, when present.
  std::optional<std::string> query(const std::string& name) const;
  /// @brief A request header (names are case-insensitive), when present.
  std::optional<std::string> header(const std::string& name) const;
  /// @brief The token of "Authorization: Bearer T", when present.
  std::optional<std::string> bearerToken() const;

  /// @brief The Content-Type without parameters, lower-cased ("" when absent).
  std::string mediaType() const;
  bool hasBody() const { return !req_.body.empty(); }
  const std::string& rawBody() const { return req_.body; }
  /// @brief Refuses (415) a body whose Content-Type is none of the given media types.
  void requireMediaType(std::initializer_list<std::string_view> accepted) const;
  /// @brief The body as a JSON object (400 INVALID_INPUT_DATA when it is not one); an empty
  /// body is an empty object.
  nlohmann::json jsonObject() const;

  void reply(int status, const nlohmann::json& body);
  void replyNoContent() { res_.status = 204; }
  /// @brief Sets a response header (e.g. "ETag").
  void setHeader(const std::string& name, const std::string& value) {
    res_.set_header(name, value);
  }

  const httplib::Request& request() const { return req_; }

 private:
  const httplib::Request& req_;
  httplib::Response& res_;
  std::vector<std::string> params_;
};

/// @brief Reads an optional string member; another type is a 400.
std::optional<std::string> optionalString(const nlohmann::json& body, const char* key);
/// @brief Reads a required string member; absent or null gives "<key> - must not be null".
std::string requiredString(const nlohmann::json& body, const char* key);

}  // namespace jovemu
