#pragma once
// Exchanges as data, and the one `send` every routine awaits.
//
// An exchange is a constant: method, path template, media types, whether it goes out without
// the user's token, and the table that turns the service's refusals into the library's codes.
// A routine awaits send(kExchange, args(...)) and gets the answer, or the mapped error:
//
//   constexpr ErrorRule kGroupErrors[] = {onCode("GROUP_NOT_FOUND", codeObjectNotFound)};
//   constexpr Exchange kRefresh{JovMethodGet, "/groups/{}", {.errors = kGroupErrors}};
//   Routine<void> JovGroup::refreshRoutine() {
//     JOV_CO_REQUIRE(!uuid_.empty(), JovError::codeInvalidObjects());
//     auto answer = co_await send(kRefresh, args(uuid_));
//     ...
//   }

#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "jov/detail/task.hpp"
#include "jov/error.hpp"
#include "jov/request.hpp"
#include "jov/result.hpp"

namespace jov::detail {

/// One row of an error table: an HTTP status (0: any), an upper-cased "errorCode", a message
/// text, a lower-case part the message contains in any case (nullptr: any), and the code a
/// matching error becomes.
struct ErrorRule {
  int status = 0;
  const char* serverCode = nullptr;
  const char* message = nullptr;
  int code = 0;
  const char* messagePart = nullptr;
};
constexpr ErrorRule onStatus(int status, int code) {
  return {status, nullptr, nullptr, code};
}
constexpr ErrorRule onCode(const char* serverCode, int code) {
  return {0, serverCode, nullptr, code};
}
constexpr ErrorRule onStatusAndCode(int status, const char* serverCode, int code) {
  return {status, serverCode, nullptr, code};
}
constexpr ErrorRule onMessage(const char* message, int code) {
  return {0, nullptr, message, code};
}
/// The service tells some causes apart only in its message: "INVALID_INPUT_DATA" with a message
/// that contains `part` (compared in lower case).
constexpr ErrorRule onMessagePart(int status, const char* serverCode, const char* part, int code) {
  return {status, serverCode, nullptr, code, part};
}
constexpr ErrorRule onAny(int code) {
  return {0, nullptr, nullptr, code};
}
using ErrorRules = std::span<const ErrorRule>;

/// The error as the rules map it: an error that already carries a positive code (or another
/// domain) passes unchanged; otherwise the first matching row gives the code, and the mapped
/// error keeps the user info; no match leaves the error as it is.
JovError applyErrorRules(const JovError& error, ErrorRules rules);

/// What a body of an exchange is.
enum class Body { None, Json, Text };

/// The constant part of an exchange.
struct ExchangeSpec {
  const char* contentType = nullptr;  ///< "Content-type"; "application/json" when unset
  const char* accept = nullptr;       ///< "accept", when set
  bool anonymous = false;             ///< no "Authorization" of the current user
  ErrorRules errors = {};
};
struct Exchange {
  JovRequestMethod method;
  /// The path under the application; each "{}" takes the next argument, percent-encoded, and
  /// each "{+}" the next argument as it is (a path an entity formed, such as a bucket's).
  const char* path;
  ExchangeSpec spec = {};
};

/// The variable part of one exchange, built fluently:
///
///   co_await send(kRename, args(groupID).text(name));
///
/// (Not an aggregate on purpose: GCC 12 copies a braced aggregate temporary in a co_await
/// expression bit by bit, which breaks every std::string inside it. Build JSON bodies in a
/// statement of their own for the same reason.)
class SendArgs {
 public:
  SendArgs() = default;
  SendArgs&& json(nlohmann::json body) && {
    json_ = std::move(body);
    return std::move(*this);
  }
  SendArgs&& text(std::string body) && {
    text_ = std::move(body);
    return std::move(*this);
  }
  /// A body sent byte for byte, whatever the method (JSON whose key order matters, say).
  SendArgs&& raw(std::string body) && {
    raw_ = std::move(body);
    return std::move(*this);
  }
  /// Sent as "If-Match" when not empty.
  SendArgs&& etag(std::string tag) && {
    etag_ = std::move(tag);
    return std::move(*this);
  }
  SendArgs&& header(std::string field, std::string value) && {
    headers_.emplace_back(std::move(field), std::move(value));
    return std::move(*this);
  }
  /// Appended after "?" as given (already encoded).
  SendArgs&& query(std::string query) && {
    query_ = std::move(query);
    return std::move(*this);
  }
  /// Replaces the exchange's "Content-type" (a media type that names the application, say).
  SendArgs&& contentType(std::string type) && {
    contentType_ = std::move(type);
    return std::move(*this);
  }
  SendArgs&& keepAllHeaders() && {
    keepAllHeaders_ = true;
    return std::move(*this);
  }
  /// The body streams from this file (never read whole into memory).
  SendArgs&& uploadFile(std::filesystem::path file) && {
    uploadFile_ = std::move(file);
    return std::move(*this);
  }
  /// A 2xx answer's body streams to this file, which appears only whole.
  SendArgs&& downloadTo(std::filesystem::path file) && {
    downloadTo_ = std::move(file);
    return std::move(*this);
  }
  /// A 2xx answer's body is kept as bytes (JovResponse::body) and not read as JSON; it may be up
  /// to `limit` bytes long.
  SendArgs&& bytesAnswer(std::size_t limit) && {
    bytesAnswer_ = limit;
    return std::move(*this);
  }
  /// Bytes sent so far and bytes received so far with the expected total (-1 when unknown),
  /// called on the thread that moves them.
  SendArgs&& progress(
      std::function<void(std::int64_t sent, std::int64_t received, std::int64_t expected)>
          handler) && {
    progress_ = std::move(handler);
    return std::move(*this);
  }

  std::vector<std::string> path;  ///< fills the path's "{}" in order
  std::optional<nlohmann::json> json_;
  std::optional<std::string> text_;
  std::optional<std::string> raw_;
  std::string etag_;
  JovHeaders headers_;
  std::optional<std::string> query_;
  std::optional<std::string> contentType_;
  bool keepAllHeaders_ = false;
  std::optional<std::filesystem::path> uploadFile_;
  std::optional<std::filesystem::path> downloadTo_;
  std::optional<std::size_t> bytesAnswer_;
  std::function<void(std::int64_t, std::int64_t, std::int64_t)> progress_;
};

/// The arguments of an exchange, starting with the values of its path's "{}".
template <class... A>
SendArgs args(A&&... pathValues) {
  SendArgs a;
  a.path.reserve(sizeof...(A));
  (a.path.emplace_back(std::forward<A>(pathValues)), ...);
  return a;
}

/// The path of an exchange with its arguments filled in.
std::string formPath(const char* pathTemplate, const std::vector<std::string>& args);

/// Builds the request of an exchange, executes it and applies its error rules.
Routine<JovResponse> send(const Exchange& exchange, SendArgs args);

/// Executes a request: the library's checks, the session's token, the transport, the answer.
Task<JovResponse> execute(JovRequest& request, std::string etag);

/// 202 for an answer whose body cannot be read as the record the exchange expects.
JovError unreadableAnswer();

}  // namespace jov::detail

/// Returns `code` as the routine's error when the condition does not hold (a precondition).
#define JOV_CO_REQUIRE(condition, code)                               \
  do {                                                                \
    if (!(condition)) co_return ::jov::JovError::errorWithCode(code); \
  } while (0)
