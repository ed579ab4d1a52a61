// Login in the system browser with a loopback redirect and PKCE: a listener on 127.0.0.1 takes
// the browser's return from the service, the one-time code is traded for the user's tokens.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "core/cancel_state.hpp"
#include "core/exchange.hpp"
#include "jov/application.hpp"
#include "jov/encoding.hpp"
#include "jov/logger.hpp"
#include "jov/social_connect.hpp"
#include "users/user_internal.hpp"

extern char** environ;

namespace jov {

namespace {

using Clock = std::chrono::steady_clock;

constexpr detail::ErrorRule kCodeErrors[] = {
    detail::onCode("PROVIDER_NOT_CONFIGURED", JovError::codeInvalidSocialNetworkKey()),
};
constexpr detail::Exchange kCodeLogin{
    JovMethodPost, "/oauth2/token", {.anonymous = true, .errors = kCodeErrors}};

std::string base64url(const unsigned char* bytes, std::size_t length) {
  std::string text = base64(std::string_view(reinterpret_cast<const char*>(bytes), length));
  for (char& c : text) {
    if (c == '+') c = '-';
    if (c == '/') c = '_';
  }
  while (!text.empty() && text.back() == '=') text.pop_back();
  return text;
}

std::string randomURLSafe(std::size_t bytes) {
  std::vector<unsigned char> random(bytes);
  if (RAND_bytes(random.data(), static_cast<int>(bytes)) != 1)
    throw std::runtime_error("no random bytes for the login");
  return base64url(random.data(), random.size());
}

std::string challengeOf(const std::string& verifier) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(verifier.data(), verifier.size(), digest, &length, EVP_sha256(), nullptr);
  return base64url(digest, length);
}

std::string percentDecode(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(text[i + 1]) &&
        std::isxdigit(text[i + 2])) {
      out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
      i += 2;
    } else {
      out += text[i] == '+' ? ' ' : text[i];
    }
  }
  return out;
}

std::map<std::string, std::string> queryOf(std::string_view target) {
  std::map<std::string, std::string> params;
  auto question = target.find('?');
  if (question == std::string_view::npos) return params;
  std::string_view query = target.substr(question + 1);
  while (!query.empty()) {
    auto amp = query.find('&');
    auto pair = query.substr(0, amp);
    auto equals = pair.find('=');
    params[percentDecode(pair.substr(0, equals))] =
        equals == std::string_view::npos ? "" : percentDecode(pair.substr(equals + 1));
    if (amp == std::string_view::npos) break;
    query.remove_prefix(amp + 1);
  }
  return params;
}

bool openWithDesktop(const std::string& url) {
  const char* argv[] = {"xdg-open", url.c_str(), nullptr};
  pid_t pid = 0;
  if (posix_spawnp(&pid, "xdg-open", nullptr, nullptr, const_cast<char**>(argv), environ) != 0)
    return false;
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The outcome of the wait for the browser's return.
struct Return {
  int code = 0;  // 0: a code arrived
  std::string authorizationCode;
};

// A listener on a free loopback port that takes the browser's return: one GET of /callback
// with the expected state. Anything else (a favicon, a stale tab, a forged state) is answered
// and ignored; every path out closes it.
class LoopbackListener {
 public:
  LoopbackListener() {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd_, 8) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      close();
      return;
    }
    port_ = ntohs(address.sin_port);
  }
  ~LoopbackListener() { close(); }
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;

  bool ok() const { return fd_ >= 0; }
  std::string redirectURI() const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/callback";
  }

  Return wait(const std::string& state, Clock::time_point deadline,
              const std::shared_ptr<detail::CancelState>& cancel) {
    while (Clock::now() < deadline) {
      if (cancel && cancel->isCancelled()) return {JovError::codeSocialNetworkAuthCanceled(), {}};
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      const int client = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) continue;
      auto result = serve(client, state);
      ::close(client);
      if (result) return *result;
    }
    return {JovError::codeSocialNetworkAuthCanceled(), {}};
  }

 private:
  // One request; the outcome when it was the browser's return.
  std::optional<Return> serve(int client, const std::string& state) {
    std::string head;
    char buffer[2048];
    const auto until = Clock::now() + std::chrono::seconds(2);
    while (head.find("\r\n\r\n") == std::string::npos && head.size() < 16384 &&
           Clock::now() < until) {
      pollfd p{client, POLLIN, 0};
      if (::poll(&p, 1, 100) <= 0) continue;
      const ssize_t n = ::recv(client, buffer, sizeof buffer, 0);
      if (n <= 0) return std::nullopt;
      head.append(buffer, static_cast<std::size_t>(n));
    }
    const auto lineEnd = head.find("\r\n");
    const std::string line = head.substr(0, lineEnd);
    const auto firstSpace = line.find(' ');
    const auto secondSpace = line.find(' ', firstSpace + 1);
    const std::string method = line.substr(0, firstSpace);
    const std::string target = firstSpace == std::string::npos
                                   ? std::string()
                                   : line.substr(firstSpace + 1, secondSpace - firstSpace - 1);
    if (method != "GET" || !(target == "/callback" || target.starts_with("/callback?"))) {
      answer(client, 404, "Not found.");
      return std::nullopt;
    }
    auto params = queryOf(target);
    if (params["state"] != state) {
      answer(client, 400, "This sign-in is not the one the application started.");
      return std::nullopt;
    }
    if (const auto& error = params["error"]; !error.empty()) {
      answer(client, 200, "Sign-in cancelled. You can close this window.");
      if (error == "access_denied") return Return{JovError::codeSocialNetworkAuthCanceled(), {}};
      if (error == "invalid_provider") return Return{JovError::codeInvalidSocialNetworkKey(), {}};
      return Return{JovError::codeUnableToLoadAuthPage(), {}};
    }
    if (params["code"].empty()) {
      answer(client, 400, "The sign-in came back without a code.");
      return Return{JovError::codeUnableToLoadAuthPage(), {}};
    }
    answer(client, 200, "Signed in. You can close this window and return to the application.");
    return Return{0, params["code"]};
  }

  static void answer(int client, int status, const std::string& text) {
    const std::string body = "<!doctype html><html><head><meta charset=\"utf-8\"><title>" + text +
                             "</title></head><body><p>" + text + "</p></body></html>";
    const std::string response = "HTTP/1.1 " + std::to_string(status) +
                                 (status == 200 ? " OK" : " Error") +
                                 "\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: " +
                                 std::to_string(body.size()) +
                                 "\r\nConnection: close\r\nCache-Control: no-store\r\n\r\n" + body;
    (void)::send(client, response.data(), response.size(), MSG_NOSIGNAL);
  }

  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

  int fd_ = -1;
  int port_ = 0;
};

// Waits for the browser off the engine's threads: in an asynchronous run on a thread of its
// own (a login may take minutes), inline in a blocking one.
struct AwaitBrowser {
  LoopbackListener* listener = nullptr;
  std::string state;
  Clock::time_point deadline;
  Return result;

  bool await_ready() const noexcept { return false; }
  template <class P>
  bool await_suspend(std::coroutine_handle<P> routine) {
    detail::Env& env = *routine.promise().env;
    if (!env.async) {
      result = listener->wait(state, deadline, env.cancel);
      return false;
    }
    std::thread([this, routine, cancel = env.cancel] {
      result = listener->wait(state, deadline, cancel);
      detail::resumeOnWorker(routine);
    }).detach();
    return true;
  }
  Return await_resume() { return std::move(result); }
};

}  // namespace

detail::Routine<JovUser::Ptr> JovSocialConnect::browserLoginRoutine(
    JovSocialNetwork network, JovBrowserLoginOptions options) {
  // A listening socket, a browser to start, then the stored credentials: all may block.
  co_await detail::mayBlock();
  const std::string provider = providerNameForSocialNetwork(network);
  LoopbackListener listener;
  JOV_CO_REQUIRE(listener.ok(), JovError::codeUnableToLoadAuthPage());
  const std::string verifier = randomURLSafe(32);
  const std::string state = randomURLSafe(16);
  const std::string url = Jov::baseURL() + "/apps/" + urlEncode(Jov::appID()) +
                          "/oauth2/authorize/" + urlEncode(provider) +
                          "?redirect_uri=" + urlEncode(listener.redirectURI()) + "&state=" + state +
                          "&code_challenge=" + challengeOf(verifier) +
                          "&code_challenge_method=S256";
  JovUser::logOut();
  const bool opened = options.openURL ? options.openURL(url) : openWithDesktop(url);
  if (!opened) {
    JOV_LOG(JovLogError, "Unable to open the sign-in page " + url);
    co_return JovError::errorWithCode(JovError::codeUnableToLoadAuthPage());
  }
  // A named awaiter: GCC 12 copies a braced temporary in a co_await expression bit by bit.
  AwaitBrowser wait;
  wait.listener = &listener;
  wait.state = state;
  wait.deadline = Clock::now() + options.timeout;
  Return back = co_await wait;
  if (back.code != 0) co_return JovError::errorWithCode(back.code);

  nlohmann::json body = {{"grant_type", "authorization_code"},
                         {"provider", provider},
                         {"code", back.authorizationCode},
                         {"code_verifier", verifier},
                         {"redirect_uri", listener.redirectURI()}};
  if (auto expiresAt = detail::requestedTokenExpiry()) body["expiresAt"] = *expiresAt;
  auto answer = co_await detail::send(kCodeLogin, detail::args().json(std::move(body)));
  if (!answer) {
    // A code the service refuses is a login the service could not complete.
    const std::string message = answer.error().jovErrorMessage().value_or("");
    if (answer.error().code() == JovError::codeUnableToAuthenticateUser() &&
        answer.error().jovHttpStatus() == 400 && message.find("disabled") == std::string::npos)
      co_return JovError::errorWithCode(JovError::codeServerSideLoginFailed(),
                                        answer.error().userInfo());
    co_return answer.error();
  }
  JovSocialToken session;
  session.accessToken = jsonString(answer->json, "provider_token").value_or("");
  co_return co_await completeLogin(network, std::move(answer->json), std::move(session));
}

}  // namespace jov
