// One HTTP exchange as the route handlers see it: path parameters, body, headers, answer.
#pragma once

#include <httplib.h>

#include <cstdint>
#include <functional>
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

/// @brief The body of a streaming request, read once, piece by piece, up to a limit.
class BodyReader {
 public:
  BodyReader(const httplib::ContentReader& reader, std::uint64_t limit)
      : reader_(reader), limit_(limit) {}
  /// @brief Hands each piece to `sink` (which returns false to stop); true when the whole body
  /// was read. A body past the limit stops the reading and sets tooLarge().
  bool read(const std::function<bool(const char*, std::size_t)>& sink);
  bool consumed() const { return consumed_; }
  bool tooLarge() const { return tooLarge_; }
  std::uint64_t limit() const { return limit_; }

 private:
  const httplib::ContentReader& reader_;
  std::uint64_t limit_;
  std::uint64_t received_ = 0;
  bool started_ = false, consumed_ = false, tooLarge_ = false;
};

class Call {
 public:
  Call(const httplib::Request& req, httplib::Response& res, std::vector<std::string> params,
       BodyReader* body = nullptr)
      : req_(req), res_(res), params_(std::move(params)), body_(body) {}

  /// @brief The unread body of a streaming route; nullptr for any other.
  BodyReader* bodyReader() const { return body_; }
  /// @brief The response, for answers that stream (a file).
  httplib::Response& response() { return res_; }

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
  BodyReader* body_ = nullptr;
};

/// @brief Reads an optional string member; another type is a 400.
std::optional<std::string> optionalString(const nlohmann::json& body, const char* key);
/// @brief Reads a required string member; absent or null gives "<key> - must not be null".
std::string requiredString(const nlohmann::json& body, const char* key);

}  // namespace jovemu
