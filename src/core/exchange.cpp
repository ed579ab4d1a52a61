#include "core/exchange.hpp"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "jov/encoding.hpp"

namespace jov::detail {

JovError applyErrorRules(const JovError& error, ErrorRules rules) {
  if (error.code() != 0 || error.domain() != JovError::kDomain) return error;
  std::string serverCode = error.jovErrorSummary().value_or("");
  std::transform(serverCode.begin(), serverCode.end(), serverCode.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  const std::string message = error.jovErrorMessage().value_or("");
  std::string lowerMessage = message;
  std::transform(lowerMessage.begin(), lowerMessage.end(), lowerMessage.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const int status = error.jovHttpStatus();
  for (const ErrorRule& rule : rules) {
    if (rule.status != 0 && rule.status != status) continue;
    if (rule.serverCode != nullptr && serverCode != rule.serverCode) continue;
    if (rule.message != nullptr && message != rule.message) continue;
    if (rule.messagePart != nullptr && lowerMessage.find(rule.messagePart) == std::string::npos)
      continue;
    return JovError::errorWithCode(rule.code, error.userInfo());
  }
  return error;
}

std::string formPath(const char* pathTemplate, const std::vector<std::string>& args) {
  std::string path;
  path.reserve(std::strlen(pathTemplate) + 32);
  std::size_t next = 0;
  for (const char* p = pathTemplate; *p != '\0'; ++p) {
    if (p[0] == '{' && p[1] == '}') {
      if (next < args.size()) path += urlEncode(args[next++]);
      ++p;
    } else if (p[0] == '{' && p[1] == '+' && p[2] == '}') {
      if (next < args.size()) path += args[next++];
      p += 2;
    } else {
      path += *p;
    }
  }
  return path;
}

JovError unreadableAnswer() {
  return JovError::errorWithCode(JovError::codeUnableToParseResponse());
}

namespace {

// A request that hands its progress to a function.
class ProgressRequest final : public JovRequest {
 public:
  using Handler = std::function<void(std::int64_t, std::int64_t, std::int64_t)>;
  ProgressRequest(const std::string& path, Handler handler)
      : JovRequest(path), handler_(std::move(handler)) {
    reportsProgress = static_cast<bool>(handler_);
  }
  void requestDataSend(std::int64_t sent) override {
    sent_ = sent;
    handler_(sent_, received_, expected_);
  }
  void responseDataReceived(std::int64_t received, std::int64_t expected) override {
    received_ = received;
    expected_ = expected;
    handler_(sent_, received_, expected_);
  }

 private:
  Handler handler_;
  std::int64_t sent_ = 0, received_ = 0, expected_ = -1;
};

}  // namespace

Routine<JovResponse> send(const Exchange& exchange, SendArgs args) {
  std::string path = formPath(exchange.path, args.path);
  if (args.query_) path += "?" + *args.query_;
  ProgressRequest request(path, std::move(args.progress_));
  request.requestMethod = exchange.method;
  request.anonymous = exchange.spec.anonymous;
  if (exchange.spec.contentType) request.content = exchange.spec.contentType;
  if (args.contentType_) request.content = std::move(*args.contentType_);
  if (exchange.spec.accept) request.accept = exchange.spec.accept;
  // No body unless the exchange has one: a GET with the default empty object would send "{}".
  request.postData = std::move(args.json_);
  request.plainText = std::move(args.text_);
  if (args.raw_) {
    request.postData.reset();
    request.fileData = std::move(args.raw_);
  }
  if (args.uploadFile_) {
    request.postData.reset();
    request.uploadFilePath = std::move(args.uploadFile_);
  }
  request.downloadPath = std::move(args.downloadTo_);
  request.maxAnswerSize = args.bytesAnswer_;
  request.customHeaders = std::move(args.headers_);
  request.keepAllResponseHeaders = args.keepAllHeaders_;
  JovResponse response = co_await execute(request, std::move(args.etag_));
  if (response.error) co_return applyErrorRules(*response.error, exchange.spec.errors);
  response.headers = std::move(request.responseHeaders);
  co_return response;
}

}  // namespace jov::detail
