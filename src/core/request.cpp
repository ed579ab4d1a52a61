#include "jov/request.hpp"

#include "core/session.hpp"
#include "jov/application.hpp"
#include "jov/logger.hpp"

namespace jov {

namespace {

constexpr int kTraceLevel = 3;

std::string traceHeaders(const char* label, const JovHeaders& headers) {
  std::string text;
  for (const auto& [field, value] : headers)
    text.append("\n").append(label).append(field).append(" / ").append(value);
  return text;
}

void showHttpRequestInfo(const JovURLRequest& t) {
  std::string body = t.httpBody();
  std::string text = "***** JovRequest - Request Output *****";
  text += traceHeaders("Request Header : ", t.headers());
  if (!body.empty()) {
    text += "\nMaking request[" + t.httpMethod() + "] to URL " + t.url() +
            " with data: " + JovRequest::trimHttpBodyString(body);
  } else {
    text += "\nMaking request[" + t.httpMethod() + "] to URL " + t.url();
  }
  std::string curl = "curl -v -X " + t.httpMethod();
  for (const auto& [field, value] : t.headers()) curl += " -H \"" + field + ":" + value + "\"";
  curl += " " + t.url();
  if (!body.empty()) curl += " -d '" + JovRequest::trimHttpBodyString(body) + "'";
  text += "\n=> Copy and paste following line that is curl compatible command.\n" + curl;
  JOV_LOG(kTraceLevel, text);
}

void showHttpResponseInfo(JovURLRequest& t) {
  std::string text = "***** JovRequest - Response Output *****";
  text += traceHeaders("Response Header : ", t.responseHeaders());
  text += "\nReceived response[" + std::to_string(t.responseCode()) +
          "]: " + JovRequest::trimHttpBodyString(t.responseData());
  JOV_LOG(kTraceLevel, text);
}

}  // namespace

JovRequest::JovRequest(const std::string& path, bool withApp) {
  JOV_LOG(kTraceLevel, "Path: " + path);
  authenticating = path == "/oauth2/token";
  setRequestPath(path, withApp);
}

JovRequest JovRequest::withURL(const std::string& url) {
  JovRequest request;
  request.requestPath = url;
  return request;
}

void JovRequest::setRequestPath(const std::string& path, bool withApp) {
  std::string url = Jov::baseURL();
  if (withApp) url += "/apps/" + Jov::appID() + "/";
  if (!url.empty() && url.back() == '/') url.pop_back();
  requestPath = url + path;
}

const char* JovRequest::methodString(std::int32_t method) {
  switch (method) {
    case JovMethodPut:
      return "PUT";
    case JovMethodPost:
      return "POST";
    case JovMethodDelete:
      return "DELETE";
    case JovMethodHead:
      return "HEAD";
    case JovMethodPatch:
      return "PATCH";
    default:  // 0, 3 and anything unknown
      return "GET";
  }
}

std::string JovRequest::trimHttpBodyString(const std::string& body) {
  // The label says 10KB while the cut is at 1024 characters; both are kept as they always were.
  if (body.size() < 1025) return body;
  return body.substr(0, 1024) + " ... (Show first 10KB)";
}

void JovRequest::responseDataReceived(std::int64_t, std::int64_t) {}
void JovRequest::requestDataSend(std::int64_t) {}

JovResponse JovRequest::makeSynchronousRequest(const std::string& etag) {
  JovResponse response;
  response.etag = etag;

  // 1. An application that was never begun sends nothing.
  const std::string appID = Jov::appID(), appKey = Jov::appKey();
  if (Jov::baseURL().empty() || appID.empty() || appKey.empty()) {
    response.error = JovError::errorWithCode(JovError::codeInvalidApplication());
    return response;
  }

  auto hooks = detail::sessionHooks();
  // 2. A password changed locally is sent by logging in again before anything else.
  if (hooks && !authenticating) {
    if (auto error = hooks->reloginIfPasswordChanged()) {
      response.error = std::move(*error);
      return response;
    }
  }

  // 3. A transport for this exchange.
  std::unique_ptr<JovURLRequest> transport = Jov::requestFactory()->requestWithURL(requestPath);
  transport->setProgressHandlers([this](std::int64_t sent) { requestDataSend(sent); },
                                 [this](std::int64_t received, std::int64_t expected) {
                                   responseDataReceived(received, expected);
                                 });

  // 4-7. Fixed headers and the body.
  transport->setValue("ios/1.1", "User-Agent");
  if (!etag.empty()) transport->addValue(etag, "If-Match");
  if (!content) content = "application/json";
  if (plainText && requestMethod == JovMethodPut && !fileData && !uploadFilePath) {
    transport->setHTTPBody(*plainText);
  } else if (requestMethod != JovMethodDefault && requestMethod != JovMethodDelete && !fileData &&
             !uploadFilePath && postData) {
    transport->setHTTPBody(
        postData->dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  } else if (fileData) {
    uploadFileSize = static_cast<std::int64_t>(fileData->size());
    if (uploadFileSize > 0) transport->setHTTPBody(*fileData);
    transport->addValue(std::to_string(uploadFileSize), "Content-Length");
    JOV_LOG(kTraceLevel, "Uploading data with length: " + std::to_string(uploadFileSize));
  } else if (uploadFilePath) {
    std::error_code ec;
    uploadFileSize = static_cast<std::int64_t>(std::filesystem::file_size(*uploadFilePath, ec));
    transport->setHTTPBodyFile(*uploadFilePath);
    if (!ec) transport->addValue(std::to_string(uploadFileSize), "Content-Length");
    JOV_LOG(kTraceLevel, "Uploading data with length: " + std::to_string(uploadFileSize));
  }
  if (downloadPath && !isChunkDownload) transport->setDownloadFile(*downloadPath);

  // 8. The current user's token, refreshed first when it is about to expire.
  if (!anonymous && hooks) {
    if (auto error = hooks->refreshTokenIfNeeded()) {
      response.error = std::move(*error);
      return response;
    }
    std::string token = hooks->accessToken();
    if (!token.empty()) transport->addValue("Bearer " + token, "Authorization");
  }

  // 9. Application headers, method, content type and the caller's own headers.
  transport->addValue(appID, "X-Jov-AppID");
  transport->addValue(appKey, "X-Jov-AppKey");
  transport->addValue(Jov::sdkClientInfo(), "X-Jov-SDK");
  if (accept) transport->addValue(*accept, "accept");
  transport->setHTTPMethod(methodString(requestMethod));
  transport->addValue(*content, "Content-type");
  for (const auto& [field, value] : customHeaders) transport->addValue(value, field);

  // 10. Send and wait.
  if (JovLogger::enabled(kTraceLevel)) showHttpRequestInfo(*transport);
  transport->sendRequest();
  responseHeaders = transport->responseHeaders();
  if (JovLogger::enabled(kTraceLevel)) showHttpResponseInfo(*transport);

  // 11. No answer at all.
  if (transport->responseError()) {
    JOV_LOG(kTraceLevel, "Transport error: " + *transport->responseError());
    response.error = JovError::errorWithCode(JovError::codeUnableToConnectToInternet());
    return response;
  }

  // 12-13. Success.
  const int status = transport->responseCode();
  if (status >= 1) response.status = status;
  std::string& body = transport->responseData();
  if (status >= 200 && status <= 299) {
    if (!body.empty()) {
      response.json = nlohmann::json::parse(body, nullptr, false);
      if (response.json.is_discarded()) {
        JOV_LOG(kTraceLevel, "Unable to parse the response body as JSON");
        response.json = nullptr;
      }
    }
    if (auto tag = jovHeaderValue(responseHeaders, "ETag")) {
      std::erase(*tag, '"');
      response.etag = std::move(*tag);
    }
    if (downloadPath && isChunkDownload) chunkDownloadData = std::move(body);
    return response;
  }

  // 14. Failure: the service's errorCode and message, when the body is JSON.
  std::string serverCode;
  std::string serverMessage = "Unable to parse server response";
  int code = 0;
  if (!body.empty()) {
    auto parsed = nlohmann::json::parse(body, nullptr, false);
    if (!parsed.is_discarded()) {
      serverMessage.clear();
      if (parsed.is_object()) {
        if (auto m = parsed.find("message"); m != parsed.end() && m->is_string())
          serverMessage = m->get<std::string>();
        if (auto c = parsed.find("errorCode"); c != parsed.end() && c->is_string())
          serverCode = c->get<std::string>();
      }
      if (serverCode == "invalid_grant") {
        code = JovError::codeUnableToAuthenticateUser();
        if (auto d = parsed.find("error_description"); d != parsed.end() && d->is_string())
          serverMessage = d->get<std::string>();
      } else if (serverCode == "APP_NOT_FOUND") {
        code = JovError::codeAppNotFound();
      } else if (serverCode == "UNAUTHORIZED") {
        code = JovError::codeUnauthorizedRequest();
      }
      response.json = std::move(parsed);
    }
  }
  nlohmann::json info = nlohmann::json::object();
  if (!serverCode.empty()) info["server_code"] = serverCode;
  info["server_message"] = std::move(serverMessage);
  if (status >= 1) info["http_status"] = status;
  JOV_LOG(kTraceLevel, "########## " + trimHttpBodyString(info.dump()));
  response.error = JovError::errorWithCode(code, std::move(info));

  if (status == 403 && serverCode == "WRONG_TOKEN" && hooks) hooks->logOut();
  return response;
}

}  // namespace jov
