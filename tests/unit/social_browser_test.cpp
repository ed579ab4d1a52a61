// Login in the browser against the fake transport: what the library opens (loopback redirect,
// state, PKCE), what it sends for the code, how the service's refusals map, and the listener
// ignoring requests that are not the browser's return.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <thread>

#include "fake_transport.hpp"
#include "jov/encoding.hpp"
#include "jov/social_connect.hpp"

namespace jov {
namespace {

using jovtest::Answer;
using namespace std::chrono_literals;

std::map<std::string, std::string> queryOf(const std::string& url) {
  std::map<std::string, std::string> out;
  std::string query = url.substr(url.find('?') + 1);
  std::size_t start = 0;
  while (start < query.size()) {
    auto end = query.find('&', start);
    auto pair = query.substr(start, end - start);
    auto eq = pair.find('=');
    std::string value = pair.substr(eq + 1), decoded;
    for (std::size_t i = 0; i < value.size(); ++i) {
      if (value[i] == '%') {
        decoded += static_cast<char>(std::stoi(value.substr(i + 1, 2), nullptr, 16));
        i += 2;
      } else {
        decoded += value[i];
      }
    }
    out[pair.substr(0, eq)] = decoded;
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return out;
}

// A GET to the loopback listener; the status line it answered.
std::string get(int port, const std::string& target) {
  int sock = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(sock, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(sock);
    return "no connection";
  }
  const std::string request = "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  (void)::send(sock, request.data(), request.size(), 0);
  char buffer[512] = {};
  const ssize_t n = ::recv(sock, buffer, sizeof buffer - 1, 0);
  ::close(sock);
  std::string answer(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
  return answer.substr(0, answer.find("\r\n"));
}

std::string sha256url(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr);
  std::string b = base64(std::string_view(reinterpret_cast<const char*>(digest), length));
  for (char& c : b) c = c == '+' ? '-' : c == '/' ? '_' : c;
  while (!b.empty() && b.back() == '=') b.pop_back();
  return b;
}

class SocialBrowserUnitTest : public jovtest::UserTest {
 protected:
  // Options whose "browser" sends `targets` (with the state filled in for "STATE") to the
  // redirect address, one after the other, from a thread of its own.
  JovBrowserLoginOptions browserSending(std::vector<std::string> targets,
                                        std::chrono::seconds timeout = 10s) {
    JovBrowserLoginOptions options;
    options.timeout = timeout;
    options.openURL = [this, targets](const std::string& url) {
      opened = queryOf(url);
      openedURL = url;
      const std::string redirect = opened["redirect_uri"];
      const int port = std::stoi(redirect.substr(redirect.rfind(':') + 1));
      browser = std::thread([this, port, targets, state = opened["state"]] {
        for (std::string target : targets) {
          if (auto at = target.find("STATE"); at != std::string::npos) target.replace(at, 5, state);
          statuses.push_back(get(port, target));
        }
      });
      return true;
    };
    return options;
  }
  void TearDown() override {
    if (browser.joinable()) browser.join();
    jovtest::UserTest::TearDown();
  }

  std::map<std::string, std::string> opened;
  std::string openedURL;
  std::vector<std::string> statuses;
  std::thread browser;
};

TEST_F(SocialBrowserUnitTest, TheCodeIsTradedWithItsVerifier) {
  fake.on("POST", "/oauth2/token",
          Answer::json(200, {{"access_token", "t1"}, {"id", "u7"}, {"provider_token", "p1"}}));
  fake.on("GET", "/users/u7", Answer::json(200, {{"userID", "u7"}}));
  auto user = JovSocialConnect::loginInBrowserSynchronous(
      JovSocialNetworkGitHub, browserSending({"/favicon.ico", "/callback?code=c9&state=forged",
                                              "/callback?code=c9&state=STATE"}));
  browser.join();
  ASSERT_TRUE(user.ok()) << user.error().describe();
  EXPECT_EQ(user.value()->userID(), "u7");
  EXPECT_EQ(statuses, (std::vector<std::string>{"HTTP/1.1 404 Error", "HTTP/1.1 400 Error",
                                                "HTTP/1.1 200 OK"}));
  EXPECT_EQ(openedURL.rfind(std::string(jovtest::TestApp::kBaseURL) +
                                "/apps/app1/oauth2/authorize/github?redirect_uri=",
                            0),
            0u);
  EXPECT_EQ(opened["code_challenge_method"], "S256");
  EXPECT_GE(opened["state"].size(), 16u);
  EXPECT_EQ(opened["redirect_uri"].rfind("http://127.0.0.1:", 0), 0u);
  auto sent = fake.requests().front().json();
  EXPECT_EQ(sent["grant_type"], "authorization_code");
  EXPECT_EQ(sent["provider"], "github");
  EXPECT_EQ(sent["code"], "c9");
  EXPECT_EQ(sent["redirect_uri"], opened["redirect_uri"]);
  EXPECT_EQ(sha256url(sent["code_verifier"]), opened["code_challenge"]);
  EXPECT_EQ(
      JovSocialConnect::sharedInstance().connector(JovSocialNetworkGitHub)->session()->accessToken,
      "p1");
}

TEST_F(SocialBrowserUnitTest, RefusalsAndOutcomesMapToCodes) {
  struct Row {
    std::string back;
    std::optional<Answer> answer;
    int code;
  };
  const std::vector<Row> rows = {
      {"/callback?error=access_denied&state=STATE", std::nullopt,
       JovError::codeSocialNetworkAuthCanceled()},
      {"/callback?error=invalid_provider&state=STATE", std::nullopt,
       JovError::codeInvalidSocialNetworkKey()},
      {"/callback?error=server_error&state=STATE", std::nullopt,
       JovError::codeUnableToLoadAuthPage()},
      {"/callback?state=STATE", std::nullopt, JovError::codeUnableToLoadAuthPage()},
      {"/callback?code=x&state=STATE",
       jovtest::Answer::json(
           400, {{"errorCode", "invalid_grant"}, {"error_description", "The code is not valid"}}),
       JovError::codeServerSideLoginFailed()},
      {"/callback?code=x&state=STATE",
       jovtest::Answer::json(
           400, {{"errorCode", "invalid_grant"}, {"error_description", "The user is disabled"}}),
       JovError::codeUnableToAuthenticateUser()},
      {"/callback?code=x&state=STATE", Answer::serviceError(400, "PROVIDER_NOT_CONFIGURED"),
       JovError::codeInvalidSocialNetworkKey()},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.back);
    fake.reset();
    if (row.answer) fake.push(*row.answer);
    auto result = JovSocialConnect::loginInBrowserSynchronous(JovSocialNetworkGoogle,
                                                              browserSending({row.back}));
    browser.join();
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error().code(), row.code);
    EXPECT_EQ(fake.count(), row.answer ? 1u : 0u);
    EXPECT_FALSE(JovUser::currentUser());
  }
  // Nothing comes back: the wait ends at the timeout. A browser that cannot open: 322.
  fake.reset();
  auto silent =
      JovSocialConnect::loginInBrowserSynchronous(JovSocialNetworkGoogle, browserSending({}, 1s));
  browser.join();
  EXPECT_EQ(silent.error().code(), JovError::codeSocialNetworkAuthCanceled());
  JovBrowserLoginOptions none;
  none.openURL = [](const std::string&) { return false; };
  EXPECT_EQ(
      JovSocialConnect::loginInBrowserSynchronous(JovSocialNetworkGoogle, none).error().code(),
      JovError::codeUnableToLoadAuthPage());
  EXPECT_EQ(fake.count(), 0u);
}

}  // namespace
}  // namespace jov
