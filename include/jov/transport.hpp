#pragma once
/// @file
/// @brief The HTTP transport behind JovRequest, and the factory Jov holds to make it.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace jov {

/// @brief HTTP header fields in order, names spelled as given.
using JovHeaders = std::vector<std::pair<std::string, std::string>>;

/// @brief The first value of a header, looked up case-insensitively.
std::optional<std::string> jovHeaderValue(const JovHeaders& headers, const std::string& name);

/// @brief One HTTP exchange: filled by JovRequest, sent by a transport.
///
/// Subclasses implement sendRequest(); the setters only record what to send.
class JovURLRequest : public std::enable_shared_from_this<JovURLRequest> {
 public:
  /// @brief Progress of the request body: total bytes sent so far.
  using SentHandler = std::function<void(std::int64_t sent)>;
  /// @brief Progress of the response body: bytes received so far and the expected total (-1).
  using ReceivedHandler = std::function<void(std::int64_t received, std::int64_t expected)>;

  /// @brief A GET of this URL without headers or body; nothing goes out before sendRequest() or
  /// sendRequestAsync().
  explicit JovURLRequest(std::string url) : url_(std::move(url)) {}
  virtual ~JovURLRequest() = default;

  /// @brief Sets a header, replacing any value of the same name.
  void setValue(const std::string& value, const std::string& field);
  /// @brief Adds a header; an earlier one of the same name stays.
  void addValue(const std::string& value, const std::string& field);
  /// @brief Sets the method string ("GET", "PUT", ...).
  void setHTTPMethod(std::string method) { method_ = std::move(method); }
  /// @brief Sets the body bytes, sent when no body file is set.
  void setHTTPBody(std::string body) { body_ = std::move(body); }
  /// @brief Streams the body from a file instead of memory.
  void setHTTPBodyFile(std::filesystem::path file) { bodyFile_ = std::move(file); }
  /// @brief Writes a 2xx response body to this file as it arrives; the file appears only whole.
  void setDownloadFile(std::filesystem::path file) { downloadFile_ = std::move(file); }
  /// @brief Installs the progress handlers.
  void setProgressHandlers(SentHandler sent, ReceivedHandler received) {
    onSent_ = std::move(sent);
    onReceived_ = std::move(received);
  }

  /// @brief Keeps every response header; by default only those the library reads are kept
  /// ("ETag", "Content-Type", "Content-Length", "Content-Range", "Location", "X-Step-count",
  /// "X-Environment-version").
  void setKeepAllResponseHeaders(bool keep) { keepAllHeaders_ = keep; }

  /// @brief Limits a response body kept in memory to this many bytes (0: no limit). A larger
  /// one ends the exchange as soon as it is known to be larger (by its Content-Length, or once
  /// that many bytes arrived) and sets responseTooLarge(). A body written to the download file
  /// is not limited.
  void setMaxResponseSize(std::size_t bytes) { maxResponseSize_ = bytes; }
  /// @brief The limit set by setMaxResponseSize(); 0 when there is none.
  std::size_t maxResponseSize() const { return maxResponseSize_; }

  /// @brief False for an exchange that must not reach the service twice: POST, PATCH and any
  /// request carrying "X-HTTP-Method-Override". A transport never sends such a request again on
  /// its own (on a new connection, say), and the library never retries it.
  bool isIdempotent() const;

  /// @brief Sends and blocks until the exchange ends; fills the response fields.
  virtual void sendRequest() = 0;
  /// @brief Sends without blocking; `done` runs once, on any thread but the caller's own
  /// stack, when the response fields are filled. The default runs sendRequest() on a thread of
  /// its own: a transport that can do better (the libcurl one) overrides it.
  virtual void sendRequestAsync(std::function<void()> done);
  /// @brief Asks an exchange started by sendRequestAsync to stop; `done` still runs. The default
  /// cannot stop a blocking sendRequest() and lets it finish.
  virtual void cancelRequest() {}

  /// @brief The URL given at construction, query string included.
  const std::string& url() const { return url_; }
  /// @brief The method: "GET" unless setHTTPMethod() changed it.
  const std::string& httpMethod() const { return method_; }
  /// @brief The request headers in order.
  const JovHeaders& headers() const { return headers_; }
  /// @brief The body bytes; ignored when a body file is set.
  const std::string& httpBody() const { return body_; }
  /// @brief The body file, when the body streams from one.
  const std::optional<std::filesystem::path>& httpBodyFile() const { return bodyFile_; }
  /// @brief The download file, when set.
  const std::optional<std::filesystem::path>& downloadFile() const { return downloadFile_; }

  /// @brief The HTTP status; 0 when none arrived.
  int responseCode() const { return responseCode_; }
  /// @brief The response headers kept (see setKeepAllResponseHeaders()), in the order received.
  const JovHeaders& responseHeaders() const { return responseHeaders_; }
  /// @brief The transport error (no connection, TLS, timeout), if any.
  const std::optional<std::string>& responseError() const { return responseError_; }
  /// @brief The response body (empty when it went to the download file).
  std::string& responseData() { return responseData_; }
  /// @brief True when the exchange ended because the response body exceeded
  /// maxResponseSize(); responseError() is empty then and the body incomplete.
  bool responseTooLarge() const { return responseTooLarge_; }
  /// @brief True when responseError() comes from this side (an unreadable body file, an
  /// unwritable download), so that sending again would fail the same way.
  bool localFailure() const { return localFailure_; }

 protected:
  /// @brief Reports sent bytes to the handler.
  void reportSent(std::int64_t sent) const {
    if (onSent_) onSent_(sent);
  }
  /// @brief Reports received bytes to the handler.
  void reportReceived(std::int64_t received, std::int64_t expected) const {
    if (onReceived_) onReceived_(received, expected);
  }

  /// @brief True for a header a caller asked to keep (all of them, or one the library reads).
  bool keepsHeader(const char* name, std::size_t length) const;

  /// @name What to send
  /// Recorded by the setters; a transport reads them when it sends.
  /// @{

  /// @brief The full URL, query string included.
  std::string url_;
  /// @brief The method string, "GET" unless set.
  std::string method_ = "GET";
  /// @brief When true, keepsHeader() accepts every response header.
  bool keepAllHeaders_ = false;
  /// @brief The request headers, sent in this order.
  JovHeaders headers_;
  /// @brief The body bytes, sent when no body file is set.
  std::string body_;
  /// @brief A file whose content is the body; it takes precedence over body_.
  std::optional<std::filesystem::path> bodyFile_;
  /// @brief Where a 2xx response body goes instead of responseData_.
  std::optional<std::filesystem::path> downloadFile_;
  /// @brief Called through reportSent(); may be empty.
  SentHandler onSent_;
  /// @brief Called through reportReceived(); may be empty.
  ReceivedHandler onReceived_;
  /// @}

  /// @name What came back
  /// A transport clears these when it starts a request and fills them before it returns from
  /// sendRequest() or calls the `done` of sendRequestAsync().
  /// @{

  /// @brief The HTTP status of the last response; stays 0 when no response arrived.
  int responseCode_ = 0;
  /// @brief The response headers that keepsHeader() accepted, in the order received.
  JovHeaders responseHeaders_;
  /// @brief Set when the exchange failed below HTTP (no connection, TLS, timeout, cancelled,
  /// unreadable body file, unwritable download): a short text for the log. JovRequest then
  /// reports 201 whatever the status, so a response that arrived, 4xx and 5xx included, leaves
  /// it empty.
  std::optional<std::string> responseError_;
  /// @brief The response body; empty when it was written to downloadFile_.
  std::string responseData_;
  /// @brief Set when the body exceeded maxResponseSize_ and the exchange was ended for it.
  bool responseTooLarge_ = false;
  /// @brief Set with responseError_ when the failure is a local file's, not the network's.
  bool localFailure_ = false;
  /// @}

  /// @brief The limit of an in-memory response body; 0: none.
  std::size_t maxResponseSize_ = 0;
};

/// @brief Makes transports; Jov holds one, and replacing it plugs in another transport.
class JovURLRequestFactory {
 public:
  virtual ~JovURLRequestFactory() = default;
  /// @brief A new transport for one exchange with this URL.
  virtual std::unique_ptr<JovURLRequest> requestWithURL(const std::string& url) = 0;
};

/// @brief The libcurl transport factory: connections, TLS sessions and DNS answers are shared.
std::shared_ptr<JovURLRequestFactory> makeCurlRequestFactory();

}  // namespace jov
