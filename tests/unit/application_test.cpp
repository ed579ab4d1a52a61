// Application setup: sites, per-application URLs, settings and their misuse, logging, scratch data.
#include "jov/application.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <set>

#include "fake_transport.hpp"
#include "jov/error.hpp"
#include "jov/logger.hpp"

using namespace jov;

TEST(ApplicationTest, BeginsWithSitesAndCustomURLs) {
  Jov::beginWithID("myapp", "k");
  EXPECT_EQ(Jov::baseURL(), Jov::siteBaseURL(JovSiteUS));
  EXPECT_EQ(Jov::appID(), "myapp");
  EXPECT_EQ(Jov::appKey(), "k");
  EXPECT_EQ(Jov::appName(), "");

  // Every site has its own https base URL ending in /api, and its own per-application URL.
  std::set<std::string> urls;
  const std::pair<JovSite, const char*> codes[] = {{JovSiteUS, ".us."},   {JovSiteJP, ".jp."},
                                                   {JovSiteCN, ".cn."},   {JovSiteSG, ".sg."},
                                                   {JovSiteCN3, ".cn3."}, {JovSiteEU, ".eu."}};
  for (auto [site, code] : codes) {
    auto url = Jov::siteBaseURL(site);
    ASSERT_TRUE(url);
    EXPECT_EQ(url->rfind("https://", 0), 0u);
    EXPECT_EQ(url->substr(url->size() - 4), "/api");
    urls.insert(*url);
    Jov::beginWithID("myapp", "k", site);
    EXPECT_EQ(Jov::baseURL(), *url);
    EXPECT_EQ(Jov::jovAppsBaseURL().rfind(std::string("https://myapp") + code, 0), 0u)
        << Jov::jovAppsBaseURL();
  }
  EXPECT_EQ(urls.size(), 6u);

  // A custom server has no per-application URL; an unknown site has no URL at all.
  Jov::beginWithID("myapp", "k", std::string("http://127.0.0.1:8080/api"));
  EXPECT_EQ(Jov::baseURL(), "http://127.0.0.1:8080/api");
  EXPECT_EQ(Jov::jovAppsBaseURL(), "");
  EXPECT_FALSE(Jov::siteBaseURL(static_cast<JovSite>(6)));
  EXPECT_FALSE(Jov::siteBaseURL(static_cast<JovSite>(-1)));
  // A site's host with another path or a port still selects that site.
  std::string jp = *Jov::siteBaseURL(JovSiteJP);
  Jov::beginWithID("a2", "k", jp.substr(0, jp.size() - 4) + ":443/other");
  EXPECT_EQ(Jov::jovAppsBaseURL().rfind("https://a2.jp.", 0), 0u);
}

TEST(ApplicationTest, VersionsAndClientInfo) {
  EXPECT_EQ(Jov::getSDKVersion(), "2.7.8");
  EXPECT_EQ(Jov::getBuildNumber(), "1");
  std::string info = Jov::sdkClientInfo();
  ASSERT_EQ(info.rfind("sn=is;sv=2.7.8;pv=", 0), 0u);
  EXPECT_GT(info.size(), std::string("sn=is;sv=2.7.8;pv=").size());
  EXPECT_EQ(info.find(';', 18), std::string::npos) << "nothing after the OS version";
}

TEST(ApplicationTest, AccessTokenExpirationChecksItsInputAndTheBegin) {
  Jov::beginWithID("", "");
  try {
    Jov::setAccessTokenExpiration(10);
    ADD_FAILURE() << "refused before the begin";
  } catch (const JovIllegalStateException& e) {
    EXPECT_STREQ(e.what(), "Jov Exception : Jov initialization is not called.");
  }
  EXPECT_THROW(Jov::accessTokenExpiration(), JovIllegalStateException);
  Jov::beginWithID("app", "key");
  EXPECT_NO_THROW(Jov::setAccessTokenExpiration(0));
  EXPECT_EQ(Jov::accessTokenExpiration(), 0);
  Jov::setAccessTokenExpiration(3600);
  EXPECT_EQ(Jov::accessTokenExpiration(), 3600);
  EXPECT_EQ(jovtest::thrownMessage([] { Jov::setAccessTokenExpiration(-1); }),
            "expriresIn should be positive number");
  EXPECT_EQ(Jov::accessTokenExpiration(), 3600);
  Jov::setAccessTokenExpiration(0);
}

TEST(ApplicationTest, DeviceTokenIsEightBigEndianWords) {
  std::vector<std::uint8_t> token(40);
  for (std::size_t i = 0; i < token.size(); ++i) token[i] = static_cast<std::uint8_t>(i * 7 + 1);
  Jov::setAPNSDeviceToken(token);
  const std::string expected = "01080f161d242b323940474e555c636a71787f868d949ba2a9b0b7bec5ccd3da";
  EXPECT_EQ(Jov::deviceToken(), expected) << "the first 32 bytes only, lower case";
  EXPECT_THROW(Jov::setAPNSDeviceToken(std::vector<std::uint8_t>(31)), std::invalid_argument);
  EXPECT_EQ(Jov::deviceToken(), expected);
  Jov::setAPNSDeviceToken(std::nullopt);
  EXPECT_EQ(Jov::deviceToken(), "");
  Jov::enableAPNSWithDevelopmentMode(true, 7);
  EXPECT_TRUE(Jov::isDevelopmentMode());
  Jov::enableAPNSWithDevelopmentMode(false, 7);
  EXPECT_FALSE(Jov::isDevelopmentMode());
}

TEST(ApplicationTest, LoggerPrefixesAndLevels) {
  std::vector<std::pair<int, std::string>> lines;
  JovLogger::setSink([&](int level, const std::string& line) { lines.emplace_back(level, line); });
  Jov::setLogLevel(2);
  JovLogger::jovLogger(0, "f.cpp", "fn", 1, "e");
  JovLogger::jovLogger(1, "f.cpp", "fn", 1, "w");
  JovLogger::jovLogger(2, "f.cpp", "fn", 1, "i");
  JovLogger::jovLogger(3, "f.cpp", "fn", 1, "hidden");
  Jov::setLogLevel(7);
  JovLogger::jovLogger(3, "f.cpp", "fn", 42, "d");
  JovLogger::jovLogger(5, "f.cpp", "fn", 1, "plain");
  int evaluated = 0;
  Jov::setLogLevel(0);
  JOV_LOG(3, std::to_string(++evaluated));
  JovLogger::setSink(nullptr);
  EXPECT_EQ(evaluated, 0) << "a disabled message is not even built";
  std::vector<std::pair<int, std::string>> expected = {{0, "Jov Error > e"},
                                                       {1, "Jov Warning > w"},
                                                       {2, "Jov Info > i"},
                                                       {3, "Jov Debug fn:42 > d"},
                                                       {5, "plain"}};
  EXPECT_EQ(lines, expected);
}

TEST(ApplicationTest, ScratchDataPersistsInTheDataDirectory) {
  auto dir = std::filesystem::temp_directory_path() / ("jov-app-" + std::to_string(::getpid()));
  std::filesystem::remove_all(dir);
  Jov::setDataDirectory(dir);
  EXPECT_EQ(Jov::dataDirectory(), dir);
  Jov::beginWithID("app", "key");
  EXPECT_EQ(Jov::userData("u1"), nlohmann::json::object());
  EXPECT_TRUE(std::filesystem::exists(dir / "preferences.sqlite3"));

  // With nobody logged in, saving keeps nothing under any user.
  Jov::setCurrentUserData({{"k", 1}});
  Jov::saveCurrentUserData();
  EXPECT_EQ(Jov::userData("u1"), nlohmann::json::object());

  // A store that cannot be created fails softly.
  Jov::setDataDirectory("/proc/self/not-here");
  EXPECT_EQ(Jov::userData("u2"), nlohmann::json::object());
  Jov::setDataDirectory(dir);
  std::filesystem::remove_all(dir);
}
