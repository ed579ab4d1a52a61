// Execution of one exchange, in the order the service expects: the application's checks, the
// session (re-login, token refresh), headers and body, the transport, then the answer.

#include "jov/request.hpp"

#include "core/cancel_state.hpp"
#include "core/exchange.hpp"
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
  const std::string& body = t.httpBody();
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

// User-Agent, If-Match and the body, which go before the token.
void addBody(JovRequest& r, JovURLRequest& t, const std::string& etag) {
  t.setValue("ios/1.1", "User-Agent");
  if (!etag.empty()) t.addValue(etag, "If-Match");
  if (!r.content) r.content = "application/json";
  if (r.plainText && r.requestMethod == JovMethodPut && !r.fileData && !r.uploadFilePath) {
    t.setHTTPBody(*r.plainText);
  } else if (r.requestMethod != JovMethodDefault && r.requestMethod != JovMethodDelete &&
             !r.fileData && !r.uploadFilePath && r.postData) {
    t.setHTTPBody(r.postData->dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  } else if (r.fileData) {
    r.uploadFileSize = static_cast<std::int64_t>(r.fileData->size());
    if (r.uploadFileSize > 0) t.setHTTPBody(*r.fileData);
    t.addValue(std::to_string(r.uploadFileSize), "Content-Length");
    JOV_LOG(kTraceLevel, "Uploading data with length: " + std::to_string(r.uploadFileSize));
  } else if (r.uploadFilePath) {
    std::error_code ec;
    r.uploadFileSize = static_cast<std::int64_t>(std::filesystem::file_size(*r.uploadFilePath, ec));
    t.setHTTPBodyFile(*r.uploadFilePath);
    if (!ec) t.addValue(std::to_string(r.uploadFileSize), "Content-Length");
    JOV_LOG(kTraceLevel, "Uploading data with length: " + std::to_string(r.uploadFileSize));
  }
  if (r.downloadPath && !r.isChunkDownload) t.setDownloadFile(*r.downloadPath);
  if (r.reportsProgress) {
    t.setProgressHandlers([&r](std::int64_t sent) { r.requestDataSend(sent); },
                          [&r](std::int64_t received, std::int64_t expected) {
                            r.responseDataReceived(received, expected);
                          });
  }
  t.setKeepAllResponseHeaders(r.keepAllResponseHeaders);
  t.setMaxResponseSize(Jov::maxAnswerSize());
}

// The application's headers, method, media types and the caller's own headers.
void addApplicationHeaders(const JovRequest& r, JovURLRequest& t, const std::string& appID,
                           const std::string& appKey) {
  t.addValue(appID, "X-Jov-AppID");
  t.addValue(appKey, "X-Jov-AppKey");
  t.addValue(Jov::sdkClientInfo(), "X-Jov-SDK");
  if (r.accept) t.addValue(*r.accept, "accept");
  t.setHTTPMethod(JovRequest::methodString(r.requestMethod));
  t.addValue(*r.content, "Content-type");
  for (const auto& [field, value] : r.customHeaders) t.addValue(value, field);
}

// Answers nested deeper than this are not parsed: a value that deep is no record of the service,
// and copying or printing it recursively would exhaust the stack.
constexpr int kMaxJsonDepth = 256;

bool nestedDeeperThan(const std::string& text, int limit) {
  int depth = 0;
  bool inString = false, escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '{' || c == '[') {
      if (++depth > limit) return true;
    } else if (c == '}' || c == ']') {
      --depth;
    }
  }
  return false;
}

// The body as JSON; discarded when it is not JSON or nested too deep.
nlohmann::json parseAnswer(const std::string& body) {
  if (nestedDeeperThan(body, kMaxJsonDepth)) {
    JOV_LOG(kTraceLevel, "The response body is nested too deep to be read");
    return nlohmann::json(nlohmann::json::value_t::discarded);
  }
  return nlohmann::json::parse(body, nullptr, false);
}

// A 2xx answer: its JSON, ETag and, for a chunk download, its bytes.
void readSuccess(JovRequest& r, JovURLRequest& t, JovResponse& response) {
  std::string& body = t.responseData();
  if (!body.empty()) {
    response.json = parseAnswer(body);
    if (response.json.is_discarded()) {
      JOV_LOG(kTraceLevel, "Unable to parse the response body as JSON");
      response.json = nullptr;
    }
  }
  if (auto tag = jovHeaderValue(r.responseHeaders, "ETag")) {
    std::erase(*tag, '"');
    response.etag = std::move(*tag);
  }
  if (r.downloadPath && r.isChunkDownload) r.chunkDownloadData = std::move(body);
}

// Any other status: the service's errorCode and message, when the body is JSON.
void readFailure(JovURLRequest& t, JovResponse& response, std::string& serverCode) {
  const std::string& body = t.responseData();
  std::string serverMessage = "Unable to parse server response";
  int code = 0;
  if (!body.empty()) {
    auto parsed = parseAnswer(body);
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
  if (response.status >= 1) info["http_status"] = response.status;
  JOV_LOG(kTraceLevel, "########## " + JovRequest::trimHttpBodyString(info.dump()));
  response.error = JovError::errorWithCode(code, std::move(info));
}

// Sends the transport's request: inline in a blocking run; through the transport's
// asynchronous path in an asynchronous one, where a cancellation ends the wait at once.
struct Transmit {
  std::shared_ptr<JovURLRequest> transport;
  std::optional<JovError> cancelled;
  std::shared_ptr<detail::CancelState> attachedTo;

  // Who resumes the routine: the transport's completion or the cancellation, whichever first.
  struct Flight {
    std::atomic<bool> claimed{false};
    bool claim() { return !claimed.exchange(true, std::memory_order_acq_rel); }
  };

  bool await_ready() const noexcept { return false; }
  template <class P>
  bool await_suspend(std::coroutine_handle<P> routine) {
    detail::Env& env = *routine.promise().env;
    if (env.cancel) {
      if (auto error = env.cancel->error()) {
        cancelled = std::move(error);
        return false;
      }
    }
    if (!env.async) {
      transport->sendRequest();
      return false;
    }
    auto flight = std::make_shared<Flight>();
    if (env.cancel) {
      std::shared_ptr<detail::CancelState> cancel = env.cancel;
      bool attached = cancel->attach([this, flight, transport = transport, cancel, routine] {
        if (!flight->claim()) return;
        cancelled = cancel->error();
        transport->cancelRequest();
        detail::resumeOnWorker(routine);
      });
      if (!attached) {
        cancelled = cancel->error();
        return false;
      }
      attachedTo = env.cancel;
    }
    // After this call the routine may already run on a worker: nothing of `this` is touched.
    // The completion holds the transport: a cancelled routine may end before the exchange does.
    JovURLRequest& sender = *transport;
    sender.sendRequestAsync([flight, routine, keep = transport] {
      if (flight->claim()) detail::resumeOnWorker(routine);
    });
    return true;
  }
  std::optional<JovError> await_resume() {
    if (attachedTo) attachedTo->detach();
    return std::move(cancelled);
  }
};

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
  // "https://host/api/" and "https://host/api" name the same service: one slash either way.
  if (withApp && !url.empty() && url.back() == '/') url.pop_back();
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
  return detail::runSync(detail::execute(*this, etag));
}

namespace detail {

namespace {

// One execution's state. The routine below keeps it as its only local and returns from its top
// scope only: GCC 12 mishandles locals of nested scopes in a coroutine that returns early after
// a real suspension.
struct Execution {
  JovRequest& r;
  std::string etag;
  JovResponse response;
  std::string appID, appKey;
  std::shared_ptr<SessionHooks> hooks;
  std::shared_ptr<JovURLRequest> transport;
  std::optional<JovError> error;
  bool trace = false;
};

// The application's checks; false when nothing may be sent.
bool begin(Execution& x) {
  x.response.etag = x.etag;
  x.appID = Jov::appID();
  x.appKey = Jov::appKey();
  if (Jov::baseURL().empty() || x.appID.empty() || x.appKey.empty()) {
    x.response.error = JovError::errorWithCode(JovError::codeInvalidApplication());
    return false;
  }
  x.hooks = sessionHooks();
  return true;
}

void prepare(Execution& x) {
  x.transport = Jov::requestFactory()->requestWithURL(x.r.requestPath);
  addBody(x.r, *x.transport, x.etag);
}

void addHeaders(Execution& x) {
  if (!x.r.anonymous && x.hooks) {
    std::string token = x.hooks->accessToken();
    if (!token.empty()) x.transport->addValue("Bearer " + token, "Authorization");
  }
  addApplicationHeaders(x.r, *x.transport, x.appID, x.appKey);
  x.trace = JovLogger::enabled(kTraceLevel);
  if (x.trace) showHttpRequestInfo(*x.transport);
}

JovResponse failed(Execution& x) {
  x.response.error = std::move(x.error);
  return std::move(x.response);
}

// The answer: no answer at all (201), success, or the service's refusal.
JovResponse finish(Execution& x) {
  JovURLRequest& t = *x.transport;
  x.r.responseHeaders = t.responseHeaders();
  if (x.trace) showHttpResponseInfo(t);
  if (t.responseError()) {
    JOV_LOG(kTraceLevel, "Transport error: " + *t.responseError());
    // What failed and where: the code says only that no answer came.
    nlohmann::json info = {{"cause", *t.responseError()}, {"url", t.url()}};
    x.response.error =
        JovError::errorWithCode(JovError::codeUnableToConnectToInternet(), std::move(info));
    return std::move(x.response);
  }
  const int status = t.responseCode();
  if (status >= 1) x.response.status = status;
  if (t.responseTooLarge()) {
    const std::string cause =
        "the answer is larger than " + std::to_string(Jov::maxAnswerSize()) + " bytes";
    JOV_LOG(kTraceLevel, "Answer refused: " + cause);
    nlohmann::json info = {{"cause", cause}, {"url", t.url()}};
    if (status >= 1) info["http_status"] = status;
    x.response.error =
        JovError::errorWithCode(JovError::codeUnableToParseResponse(), std::move(info));
    return std::move(x.response);
  }
  if (status >= 200 && status <= 299) {
    readSuccess(x.r, t, x.response);
    return std::move(x.response);
  }
  std::string serverCode;
  readFailure(t, x.response, serverCode);
  if (status == 403 && serverCode == "WRONG_TOKEN" && x.hooks) x.hooks->logOut();
  return std::move(x.response);
}

}  // namespace

Task<JovResponse> execute(JovRequest& r, std::string etag) {
  Execution x{r, std::move(etag)};
  if (!begin(x)) co_return std::move(x.response);
  // A password changed locally is sent by logging in again before anything else.
  if (x.hooks && !r.authenticating) x.error = co_await x.hooks->reloginIfPasswordChanged();
  if (x.error) co_return failed(x);
  prepare(x);
  // The current user's token, refreshed first when it is about to expire.
  if (!r.anonymous && x.hooks) x.error = co_await x.hooks->refreshTokenIfNeeded();
  if (x.error) co_return failed(x);
  addHeaders(x);
  Transmit transmit{x.transport, std::nullopt, nullptr};
  x.error = co_await transmit;
  if (x.error) co_return failed(x);
  co_return finish(x);
}

}  // namespace detail

}  // namespace jov
