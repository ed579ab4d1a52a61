// Execution of one exchange, in the order the service expects: the application's checks, the
// session (re-login, token refresh), headers and body, the transport, then the answer.

#include "jov/request.hpp"

#include <strings.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <random>
#include <set>
#include <thread>

#include "core/cancel_state.hpp"
#include "core/exchange.hpp"
#include "core/io_loop.hpp"
#include "core/session.hpp"
#include "jov/application.hpp"
#include "jov/logger.hpp"

namespace jov {

namespace {

constexpr int kTraceLevel = 3;

// What a trace shows of a secret unless Jov::setTraceSecrets(true).
constexpr const char* kHidden = "***";

bool secretHeader(const std::string& field) {
  return strcasecmp(field.c_str(), "Authorization") == 0 ||
         strcasecmp(field.c_str(), "X-Jov-AppKey") == 0;
}

bool secretField(const std::string& key) {
  static const std::set<std::string> kSecrets = {"password",      "newPassword",  "access_token",
                                                 "refresh_token", "_accessToken", "thingPassword"};
  return kSecrets.contains(key);
}

void hideSecrets(nlohmann::json& value) {
  if (value.is_object()) {
    for (auto& [key, item] : value.items()) {
      if (secretField(key) && !item.is_null())
        item = kHidden;
      else
        hideSecrets(item);
    }
  } else if (value.is_array()) {
    for (auto& item : value) hideSecrets(item);
  }
}

// A body as the trace shows it: cut at 1024 characters, JSON with its secrets hidden. A body
// that is not JSON (a form, a file) is shown as it is unless it names a secret field.
std::string traceBody(const std::string& body) {
  if (body.empty() || Jov::traceSecrets()) return JovRequest::trimHttpBodyString(body);
  auto parsed = nlohmann::json::parse(body, nullptr, false);
  if (parsed.is_discarded()) {
    for (const char* key : {"password", "access_token", "refresh_token", "thingPassword"})
      if (body.find(key) != std::string::npos) return "(" + std::to_string(body.size()) + " bytes)";
    return JovRequest::trimHttpBodyString(body);
  }
  hideSecrets(parsed);
  return JovRequest::trimHttpBodyString(parsed.dump());
}

std::string traceValue(const std::string& field, const std::string& value) {
  return secretHeader(field) && !Jov::traceSecrets() ? kHidden : value;
}

std::string traceHeaders(const char* label, const JovHeaders& headers) {
  std::string text;
  for (const auto& [field, value] : headers)
    text.append("\n").append(label).append(field).append(" / ").append(traceValue(field, value));
  return text;
}

void showHttpRequestInfo(const JovURLRequest& t) {
  const std::string body = traceBody(t.httpBody());
  std::string text = "***** JovRequest - Request Output *****";
  text += traceHeaders("Request Header : ", t.headers());
  if (!body.empty()) {
    text += "\nMaking request[" + t.httpMethod() + "] to URL " + t.url() + " with data: " + body;
  } else {
    text += "\nMaking request[" + t.httpMethod() + "] to URL " + t.url();
  }
  std::string curl = "curl -v -X " + t.httpMethod();
  for (const auto& [field, value] : t.headers())
    curl += " -H \"" + field + ":" + traceValue(field, value) + "\"";
  curl += " " + t.url();
  if (!body.empty()) curl += " -d '" + body + "'";
  text += "\n=> Copy and paste following line that is curl compatible command.\n" + curl;
  JOV_LOG(kTraceLevel, text);
}

void showHttpResponseInfo(JovURLRequest& t) {
  std::string text = "***** JovRequest - Response Output *****";
  text += traceHeaders("Response Header : ", t.responseHeaders());
  text += "\nReceived response[" + std::to_string(t.responseCode()) +
          "]: " + traceBody(t.responseData());
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
  t.setMaxResponseSize(r.maxAnswerSize.value_or(Jov::maxAnswerSize()));
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
  // Fewer brackets than the limit cannot nest deeper; memchr finds the few there are quickly.
  long brackets = 0;
  for (char open : {'{', '['}) {
    const char* p = text.data();
    const char* end = p + text.size();
    while ((p = static_cast<const char*>(std::memchr(p, open, static_cast<size_t>(end - p))))) {
      ++brackets;
      ++p;
    }
  }
  if (brackets <= limit) return false;
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
  if (r.maxAnswerSize) {
    response.body = std::move(body);
  } else if (!body.empty()) {
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

// Answers larger than this are read (parsed, loaded) on a worker rather than the I/O thread.
constexpr std::size_t kLargeAnswer = 256 * 1024;

// Who resumes a suspended routine: the event it waits for or the cancellation, whichever first.
struct Flight {
  std::atomic<bool> claimed{false};
  bool claim() { return !claimed.exchange(true, std::memory_order_acq_rel); }
};

// What the waits of an exchange share: a cancellation that came before the wait ends it at
// once; one that comes during it resumes the routine, unless the awaited event claimed the flight
// first; resuming detaches it.
struct CancellableWait {
  std::optional<JovError> cancelled;
  std::shared_ptr<detail::CancelState> attachedTo;

  bool await_ready() const noexcept { return false; }
  // True (with `cancelled` set) when the operation is cancelled already.
  bool cancelledBefore(const detail::Env& env) {
    if (env.cancel) cancelled = env.cancel->error();
    return cancelled.has_value();
  }
  // Lets a cancellation run `stop` and resume the routine; false (with `cancelled` set) when it
  // came meanwhile.
  template <class Stop>
  bool attach(const detail::Env& env, const std::shared_ptr<Flight>& flight,
              std::coroutine_handle<> routine, Stop stop) {
    if (!env.cancel) return true;
    std::shared_ptr<detail::CancelState> cancel = env.cancel;
    // Set before attaching: once attached, a cancellation may resume the routine on another
    // thread at once, and nothing of `this` may be touched here any more.
    attachedTo = cancel;
    bool attached = cancel->attach([this, flight, cancel, routine, stop] {
      if (!flight->claim()) return;
      cancelled = cancel->error();
      stop();
      detail::resumeOnWorker(routine);
    });
    if (!attached) {
      attachedTo.reset();
      cancelled = cancel->error();
      return false;
    }
    return true;
  }
  std::optional<JovError> await_resume() {
    if (attachedTo) attachedTo->detach();
    attachedTo.reset();
    return std::move(cancelled);
  }
};

// Sends the transport's request: inline in a blocking run; through the transport's
// asynchronous path in an asynchronous one, where a cancellation ends the wait at once.
struct Transmit : CancellableWait {
  std::shared_ptr<JovURLRequest> transport;

  template <class P>
  bool await_suspend(std::coroutine_handle<P> routine) {
    detail::Env& env = *routine.promise().env;
    if (cancelledBefore(env)) return false;
    if (!env.async) {
      transport->sendRequest();
      return false;
    }
    // Without a cancellation nothing races the answer to resume the routine.
    auto flight = env.cancel ? std::make_shared<Flight>() : nullptr;
    detail::Env* envp = &env;
    std::shared_ptr<JovURLRequest> sending = transport;
    if (!attach(env, flight, routine, [sending] { sending->cancelRequest(); })) return false;
    // From here the routine may already run elsewhere: nothing of `this` is touched. A
    // cancellation that came meanwhile resumed it already; the request is then not sent at all.
    if (flight && flight->claimed.load(std::memory_order_acquire)) return true;
    // The completion holds the transport: a cancelled routine may end before the exchange does.
    // A large answer is read on a worker, so that it holds up no other exchange meanwhile.
    sending->sendRequestAsync([flight, routine, envp, keep = sending] {
      if (flight && !flight->claim()) return;
      if (keep->responseData().size() > kLargeAnswer) {
        detail::resumeOnWorker(routine);
      } else {
        detail::resumeAfterWait(*envp, routine);
      }
    });
    return true;
  }
};

// The wait before a retry: a sleep of the calling thread in a blocking run (in slices, so that a
// cancellation from another thread ends it), a timer of the I/O thread in an asynchronous one.
struct Backoff : CancellableWait {
  std::chrono::milliseconds delay{0};

  template <class P>
  bool await_suspend(std::coroutine_handle<P> routine) {
    detail::Env& env = *routine.promise().env;
    if (cancelledBefore(env)) return false;
    const auto until = std::chrono::steady_clock::now() + delay;
    if (!env.async) {
      for (auto now = std::chrono::steady_clock::now(); now < until && !cancelled;
           now = std::chrono::steady_clock::now()) {
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
            until - now, std::chrono::milliseconds(20)));
        if (env.cancel) cancelled = env.cancel->error();
      }
      return false;
    }
    auto flight = std::make_shared<Flight>();
    if (!attach(env, flight, routine, [] {})) return false;
    detail::IoLoop::instance().addTimer(until, [flight, routine, envp = &env] {
      if (flight->claim()) detail::resumeAfterWait(*envp, routine);
    });
    return true;
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
  if (withApp) {
    const std::string app = Jov::appID();
    url.reserve(url.size() + app.size() + path.size() + 7);
    url.append("/apps/").append(app).append("/");
  }
  if (!url.empty() && url.back() == '/') url.pop_back();
  url += path;
  requestPath = std::move(url);
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
  // The retry policy read when the exchange began, the attempts made and when the first began.
  std::optional<JovRetryPolicy> retry;
  int attempts = 0;
  std::chrono::steady_clock::time_point started;
  std::optional<std::chrono::milliseconds> delay;
  // The service no longer knows the token: the current user is logged out.
  bool wrongToken = false;
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

// The wait before sending the exchange again, or nothing when it ends here. Only an exchange
// that may reach the service twice is retried (GET, HEAD, PUT, DELETE), and only when no answer
// came or the answer was 502, 503 or 504: another answer is the service's word.
std::optional<std::chrono::milliseconds> retryDelay(Execution& x) {
  if (!x.retry || x.attempts >= x.retry->maxAttempts) return std::nullopt;
  const JovURLRequest& t = *x.transport;
  if (!t.isIdempotent() || t.localFailure() || t.responseTooLarge()) return std::nullopt;
  const int status = t.responseCode();
  if (!t.responseError() && status != 502 && status != 503 && status != 504) return std::nullopt;
  const JovRetryPolicy& p = *x.retry;
  double wait = static_cast<double>(p.initialDelay.count()) *
                std::pow(std::max(p.multiplier, 1.0), x.attempts - 1);
  wait = std::min(wait, static_cast<double>(p.maxDelay.count()));
  const double jitter = std::clamp(p.jitter, 0.0, 1.0);
  if (jitter > 0) {
    thread_local std::mt19937 random{std::random_device{}()};
    wait -= wait * jitter * std::uniform_real_distribution<double>(0.0, 1.0)(random);
  }
  const auto delay = std::chrono::milliseconds(static_cast<std::int64_t>(std::max(wait, 0.0)));
  if (std::chrono::steady_clock::now() + delay > x.started + p.budget) return std::nullopt;
  JOV_LOG(JovLogInfo,
          t.httpMethod() + " " + t.url() + ": " +
              (t.responseError() ? *t.responseError() : "answered " + std::to_string(status)) +
              "; attempt " + std::to_string(x.attempts + 1) + " in " +
              std::to_string(delay.count()) + " ms");
  return delay;
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
        "the answer is larger than " + std::to_string(t.maxResponseSize()) + " bytes";
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
  x.wrongToken = status == 403 && serverCode == "WRONG_TOKEN" && x.hooks;
  return std::move(x.response);
}

}  // namespace

Task<JovResponse> execute(JovRequest& r, std::string etag) {
  Execution x{r, std::move(etag)};
  if (!begin(x)) co_return std::move(x.response);
  // A password changed locally is sent by logging in again before anything else.
  if (x.hooks && !r.authenticating && x.hooks->mayRelogin())
    x.error = co_await x.hooks->reloginIfPasswordChanged();
  if (x.error) co_return failed(x);
  prepare(x);
  // The current user's token, refreshed first when it is about to expire.
  if (!r.anonymous && x.hooks && x.hooks->mayRefreshToken())
    x.error = co_await x.hooks->refreshTokenIfNeeded();
  if (x.error) co_return failed(x);
  addHeaders(x);
  x.retry = Jov::retryPolicy();
  x.started = std::chrono::steady_clock::now();
  Transmit transmit;
  transmit.transport = x.transport;
  Backoff backoff;
  x.error = co_await transmit;
  ++x.attempts;
  while (!x.error) {
    x.delay = retryDelay(x);
    if (!x.delay) break;
    backoff.delay = *x.delay;
    x.error = co_await backoff;
    if (x.error) break;
    // A fresh request, with the token as it is now.
    prepare(x);
    addHeaders(x);
    transmit.transport = x.transport;
    x.error = co_await transmit;
    ++x.attempts;
  }
  if (x.error) co_return failed(x);
  x.response = finish(x);
  // Logging out deletes the stored credentials, which may block.
  if (x.wrongToken) co_await mayBlock();
  if (x.wrongToken) x.hooks->logOut();
  co_return std::move(x.response);
}

}  // namespace detail

}  // namespace jov
