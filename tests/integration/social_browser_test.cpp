// Login in a browser against the emulator: the library's loopback listener, the service's
// authorization page, the stand-in provider's form and the code exchange, end to end; first
// with a plain HTTP client playing the browser, then in a real headless chromium.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "emulator_fixture.hpp"
#include "headless_browser.hpp"
#include "jov/social_connect.hpp"
#include "jov/user.hpp"

namespace jov {
namespace {

using namespace std::chrono_literals;
using jovtest::codeOf;
using jovtest::succeeded;

// An account of the stand-in provider: its ID and password (its access token).
std::pair<std::string, std::string> providerAccount(const std::string& provider) {
  auto reply = jovtest::emulatorRequest("POST", "/emulator/social/" + provider + "/accounts",
                                        nlohmann::json({{"name", "Robin"}}).dump());
  EXPECT_EQ(reply.status, 201) << reply.raw;
  return {reply.body.value("id", ""), reply.body.value("access_token", "")};
}

std::pair<std::string, std::string> originAndPath(const std::string& url) {
  const auto slash = url.find('/', url.find("//") + 2);
  return {url.substr(0, slash), url.substr(slash)};
}

// A person in a browser without JavaScript: follows the service to the provider's form, submits
// it with a decision, and follows the redirect back to the application. The status of the last
// page it reached.
int signIn(const std::string& url, const std::string& account, const std::string& password,
           const std::string& decision = "allow") {
  auto [origin, path] = originAndPath(url);
  httplib::Client service(origin);
  auto toProvider = service.Get(path);
  if (!toProvider || toProvider->status != 302) return toProvider ? toProvider->status : 0;
  const std::string form = toProvider->get_header_value("Location");
  auto page = service.Get(form);
  if (!page || page->status != 200) return page ? page->status : 0;
  const std::string request = form.substr(form.find("request=") + 8);
  httplib::Params fields = {
      {"request", request}, {"username", account}, {"password", password}, {"decision", decision}};
  auto decided = service.Post(form.substr(0, form.find('?')), fields);
  if (!decided || decided->status != 302) return decided ? decided->status : 0;
  auto [appOrigin, appPath] = originAndPath(decided->get_header_value("Location"));
  httplib::Client application(appOrigin);
  application.Get("/favicon.ico");  // a browser asks for it; the login must not end on it
  auto back = application.Get(appPath);
  return back ? back->status : 0;
}

class SocialBrowserTest : public ::testing::Test {
 protected:
  void SetUp() override { jovtest::beginLibraryOnNewApp(); }
  void TearDown() override { JovUser::logOut(); }

  // Options whose opener hands the URL to `person` on a thread of its own, as a browser runs
  // beside the application.
  JovBrowserLoginOptions with(std::function<void(const std::string&)> person,
                              std::chrono::seconds timeout = 20s) {
    JovBrowserLoginOptions options;
    options.timeout = timeout;
    options.openURL = [this, person](const std::string& url) {
      opened = url;
      people.emplace_back([person, url] { person(url); });
      return true;
    };
    return options;
  }
  void TearDownPeople() {
    for (auto& p : people) p.join();
    people.clear();
  }

  std::string opened;
  std::vector<std::thread> people;
};

TEST_F(SocialBrowserTest, AllowedInTheBrowserLogsInTheSameUserEachTime) {
  auto [account, password] = providerAccount("github");
  int lastPage = 0;
  auto first = JovSocialConnect::loginInBrowserSynchronous(
      JovSocialNetworkGitHub,
      with([&, account = account, password = password](const std::string& url) {
        lastPage = signIn(url, account, password);
      }));
  TearDownPeople();
  ASSERT_TRUE(succeeded(first));
  EXPECT_EQ(lastPage, 200) << "the browser is told it may close the window";
  EXPECT_EQ(JovUser::currentUser(), first.value());
  EXPECT_EQ(first.value()->displayName(), "Robin");
  EXPECT_TRUE(first.value()->isLinkedWithSocialProvider(JovSocialNetworkGitHub));
  EXPECT_EQ(
      JovSocialConnect::sharedInstance().connector(JovSocialNetworkGitHub)->session()->accessToken,
      password);
  // What the application opened: the service's page, a loopback redirect, state and PKCE.
  EXPECT_NE(opened.find("/oauth2/authorize/github?redirect_uri=http%3A%2F%2F127.0.0.1%3A"),
            std::string::npos);
  EXPECT_NE(opened.find("&code_challenge_method=S256"), std::string::npos);

  JovUser::logOut();
  auto second = JovSocialConnect::loginInBrowserAsync(
      JovSocialNetworkGitHub,
      with([account = account, password = password](const std::string& url) {
        signIn(url, account, password);
      }));
  ASSERT_EQ(second.wait_for(30s), std::future_status::ready);
  auto again = second.get();
  TearDownPeople();
  ASSERT_TRUE(succeeded(again));
  EXPECT_EQ(again.value()->userID(), first.value()->userID());
}

TEST_F(SocialBrowserTest, DeniedClosedCancelledOrUnopenedPagesLogNobodyIn) {
  auto [account, password] = providerAccount("google");
  auto denied = JovSocialConnect::loginInBrowserSynchronous(
      JovSocialNetworkGoogle,
      with([account = account, password = password](const std::string& url) {
        signIn(url, account, password, "deny");
      }));
  TearDownPeople();
  EXPECT_EQ(codeOf(denied), JovError::codeSocialNetworkAuthCanceled());

  // A wrong password keeps the person on the form; nothing comes back before the timeout.
  int formStatus = 0;
  auto wrong = JovSocialConnect::loginInBrowserSynchronous(
      JovSocialNetworkGoogle,
      with([&, account =
                   account](const std::string& url) { formStatus = signIn(url, account, "nope"); },
           2s));
  TearDownPeople();
  EXPECT_EQ(codeOf(wrong), JovError::codeSocialNetworkAuthCanceled());
  EXPECT_EQ(formStatus, 401);

  JovCancellation cancel;
  auto cancelled = JovSocialConnect::loginInBrowserAsync(
      JovSocialNetworkGoogle, with([cancel](const std::string&) { cancel.cancel(); }), cancel);
  ASSERT_EQ(cancelled.wait_for(10s), std::future_status::ready);
  TearDownPeople();
  EXPECT_EQ(codeOf(cancelled.get()), JovError::codeSocialNetworkAuthCanceled());

  JovBrowserLoginOptions broken;
  broken.openURL = [](const std::string&) { return false; };
  EXPECT_EQ(codeOf(JovSocialConnect::loginInBrowserSynchronous(JovSocialNetworkGoogle, broken)),
            JovError::codeUnableToLoadAuthPage());
  EXPECT_FALSE(JovUser::currentUser());

  // A code works once: the service refuses it a second time.
  auto once = JovSocialConnect::loginInBrowserSynchronous(
      JovSocialNetworkGoogle,
      with([account = account, password = password](const std::string& url) {
        signIn(url, account, password);
      }));
  TearDownPeople();
  ASSERT_TRUE(succeeded(once));
}

TEST_F(SocialBrowserTest, InARealHeadlessBrowser) {
  if (!jovtest::HeadlessBrowser::find())
    GTEST_SKIP() << "no chromium (scripts/install-deps installs Debian's)";
  auto [account, password] = providerAccount("facebook");
  jovtest::HeadlessBrowser browser;
  std::atomic<bool> filled{false};
  auto login = JovSocialConnect::loginInBrowserSynchronous(
      JovSocialNetworkFacebook,
      with(
          [&, account = account, password = password](const std::string& url) {
            if (!browser.open(url) ||
                !browser.evaluateUntil("document.getElementById('username') !== null", 20s))
              return;
            filled = browser.evaluateUntil(
                "document.getElementById('username').value = '" + account +
                    "'; document.getElementById('password').value = '" + password +
                    "'; document.getElementById('allow').click(); true",
                5s);
          },
          60s));
  TearDownPeople();
  ASSERT_TRUE(filled) << "the browser never showed the provider's form";
  ASSERT_TRUE(succeeded(login));
  EXPECT_TRUE(login.value()->isLinkedWithSocialProvider(JovSocialNetworkFacebook));

  // The person closes the page instead: nothing comes back, and the login gives up.
  jovtest::HeadlessBrowser closing;
  JovUser::logOut();
  auto closed = JovSocialConnect::loginInBrowserSynchronous(
      JovSocialNetworkFacebook,
      with(
          [&](const std::string& url) {
            if (closing.open(url) &&
                closing.evaluateUntil("document.getElementById('username') !== null", 20s))
              closing.closePage();
          },
          15s));
  TearDownPeople();
  EXPECT_EQ(codeOf(closed), JovError::codeSocialNetworkAuthCanceled());
  EXPECT_FALSE(JovUser::currentUser());
}

}  // namespace
}  // namespace jov
