#pragma once
/// @file
/// @brief JovRequest: one REST exchange with the service.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "jov/error.hpp"
#include "jov/transport.hpp"

namespace jov {

/// @brief Request method numbers; 0, 3 and any unknown value send GET.
enum JovRequestMethod : std::int32_t {
  JovMethodDefault = 0,
  JovMethodPut = 1,
  JovMethodPost = 2,
  JovMethodGet = 3,
  JovMethodDelete = 4,
  JovMethodHead = 5,
  JovMethodPatch = 6,
};

/// @brief What an exchange produced.
struct JovResponse {
  /// @brief The failure, or nothing on a 2xx status.
  std::optional<JovError> error;
  /// @brief The HTTP status; 0 when none arrived.
  int status = 0;
  /// @brief The response's ETag without quotes, else the ETag that was sent.
  std::string etag;
  /// @brief The parsed JSON body (also on failure when it parsed); null when none.
  nlohmann::json json;
  /// @brief The response headers the request kept (see JovRequest::keepAllResponseHeaders).
  JovHeaders headers;
  /// @brief The body of a 2xx answer as bytes, when the request asked for it
  /// (JovRequest::maxAnswerSize); it is then not read as JSON.
  std::string body;
  /// @brief True when there is no error.
  bool ok() const { return !error.has_value(); }
};

/// @brief One REST exchange: an entity fills path, method, body and headers, then executes it.
class JovRequest {
 public:
  /// @brief A request for a path under the application ("/apps/ID") or directly under the base URL.
  explicit JovRequest(const std::string& path, bool withApp = true);
  /// @brief A request for a full URL, used unchanged.
  static JovRequest withURL(const std::string& url);
  virtual ~JovRequest() = default;
  /// @brief Takes over every field of another request: URL, method, headers, body, options.
  JovRequest(JovRequest&&) = default;
  /// @brief Takes over every field of another request: URL, method, headers, body, options.
  JovRequest& operator=(JovRequest&&) = default;

  /// @brief Forms requestPath from the base URL, the application segment and the path.
  void setRequestPath(const std::string& path, bool withApp = true);

  /// @brief Executes the exchange on this thread; etag, when not empty, is sent as "If-Match".
  JovResponse makeSynchronousRequest(const std::string& etag = {});

  /// @brief Called after every received piece (bytes so far, expected total or -1).
  virtual void responseDataReceived(std::int64_t received, std::int64_t expected);
  /// @brief Called after every sent piece (total bytes sent).
  virtual void requestDataSend(std::int64_t sent);

  /// @brief The method string sent for a method number.
  static const char* methodString(std::int32_t method);
  /// @brief A body text cut to 1024 characters for the trace.
  static std::string trimHttpBodyString(const std::string& body);

  // What to send. Plain fields: a request lives for one exchange on one thread.
  bool authenticating = false;  ///< @brief True for the login exchange ("/oauth2/token").
  bool anonymous = false;       ///< @brief True: no "Authorization" header of the current user.
  std::int32_t requestMethod = JovMethodDefault;                      ///< @brief The method number.
  std::string requestPath;                                            ///< @brief The full URL.
  std::optional<nlohmann::json> postData = nlohmann::json::object();  ///< @brief JSON body.
  std::optional<std::string> plainText;  ///< @brief Literal body text (used with PUT only).
  std::optional<std::string> content;    ///< @brief "Content-type"; "application/json" when unset.
  std::optional<std::string> accept;     ///< @brief "accept", when set.
  JovHeaders customHeaders;              ///< @brief Extra headers, added in order.
  std::optional<std::string> fileData;   ///< @brief Raw body bytes.
  std::optional<std::filesystem::path> uploadFilePath;  ///< @brief Raw body streamed from a file.
  std::int64_t uploadFileSize = 0;  ///< @brief Length of the raw body once attached.
  std::optional<std::filesystem::path> downloadPath;  ///< @brief A 2xx body goes to this file.
  bool isChunkDownload = false;   ///< @brief With downloadPath: keep the body in memory.
  std::string chunkDownloadData;  ///< @brief The body of a chunk download.
  /// @brief When set, a 2xx body up to this many bytes is kept as bytes (JovResponse::body)
  /// instead of being read as JSON; it replaces Jov::maxAnswerSize() for this request.
  std::optional<std::size_t> maxAnswerSize;
  JovHeaders responseHeaders;     ///< @brief Response headers of the last execution.
  /// @brief Keeps every response header in responseHeaders (by default only those the library
  /// reads: "ETag", "Content-Type" and the server-code counters).
  bool keepAllResponseHeaders = false;
  /// @brief Set by subclasses that override the progress hooks: without it, no progress is
  /// reported (and the transport spends nothing on it).
  bool reportsProgress = false;

 private:
  JovRequest() = default;
};

}  // namespace jov
