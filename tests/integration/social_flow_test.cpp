// Social accounts through the library against the emulator, as an application uses them: a
// provider token logs in (the same user each time), links to a password user, is refused
// when someone else holds it, and unlinks.
#include <gtest/gtest.h>

#include "cli_user.hpp"
#include "emulator_fixture.hpp"
#include "jov/social_connect.hpp"
#include "jov/user.hpp"

namespace jovtest {
namespace {

// A new account of the emulator's stand-in provider: its ID and its token.
std::pair<std::string, jov::JovSocialToken> providerAccount(const std::string& provider) {
  auto reply = emulatorRequest("POST", "/emulator/social/" + provider + "/accounts",
                               nlohmann::json({{"name", "Pat"}}).dump());
  EXPECT_EQ(reply.status, 201) << reply.raw;
  jov::JovSocialToken token;
  token.accessToken = reply.body.value("access_token", "");
  token.tokenSecret = reply.body.value("token_secret", "");
  return {reply.body.value("id", ""), token};
}

}  // namespace
}  // namespace jovtest

namespace jov {
namespace {

using jovtest::codeOf;
using jovtest::providerAccount;
using jovtest::succeeded;
using nlohmann::json;

class SocialFlowTest : public ::testing::Test {
 protected:
  void SetUp() override { jovtest::beginLibraryOnNewApp(); }
  void TearDown() override { JovUser::logOut(); }
};

TEST_F(SocialFlowTest, ProviderTokenLogsInTheSameUserEachTime) {
  auto [socialID, token] = providerAccount("twitter");
  auto first = JovSocialConnect::loginWithTokenSynchronous(JovSocialNetworkTwitter, token);
  ASSERT_TRUE(succeeded(first));
  auto user = first.value();
  EXPECT_EQ(JovUser::currentUser(), user);
  EXPECT_EQ(user->displayName(), "Pat");
  EXPECT_TRUE(user->isPseudoUser());
  ASSERT_TRUE(user->isLinkedWithSocialProvider(JovSocialNetworkTwitter));
  EXPECT_EQ(user->linkedSocialAccounts().at(JovSocialNetworkTwitter).socialID(), socialID);
  // The session works for the service's other routes, and survives a restart of the app.
  ASSERT_TRUE(succeeded(user->refreshSynchronous()));
  EXPECT_TRUE(user->isLinkedWithSocialProvider(JovSocialNetworkTwitter));
  auto stored = JovUser::authenticateWithStoredCredentialsSynchronous();
  ASSERT_TRUE(succeeded(stored));
  EXPECT_EQ(stored.value()->userID(), user->userID());
  EXPECT_FALSE(JovSocialConnect::sharedInstance().connector(JovSocialNetworkTwitter)->isLoggedIn());

  JovUser::logOut();
  auto again = JovSocialConnect::loginWithTokenSynchronous(JovSocialNetworkTwitter, token);
  ASSERT_TRUE(succeeded(again));
  EXPECT_EQ(again.value()->userID(), user->userID());
  EXPECT_EQ(JovSocialConnect::sharedInstance().connector(JovSocialNetworkTwitter)->session(),
            token);

  // A token the provider does not know, or without its secret, logs nobody in.
  auto forged = token;
  forged.tokenSecret = "forged";
  EXPECT_EQ(codeOf(JovSocialConnect::loginWithTokenSynchronous(JovSocialNetworkTwitter, forged)),
            JovError::codeInvalidCredentials());
  EXPECT_FALSE(JovUser::loggedIn());
  EXPECT_EQ(codeOf(JovSocialConnect::loginWithTokenSynchronous(JovSocialNetworkFacebook,
                                                               {.accessToken = "nope"})),
            JovError::codeInvalidCredentials());
}

TEST_F(SocialFlowTest, LinkRefusedWhenSomeoneElseHoldsTheAccount) {
  auto [socialID, token] = providerAccount("github");
  auto holder = JovSocialConnect::loginWithTokenSynchronous(JovSocialNetworkGitHub, token);
  ASSERT_TRUE(succeeded(holder));

  auto alice = JovUser::userWithUsername("alice", "pass1234");
  ASSERT_TRUE(succeeded(alice->performRegistrationSynchronous()));
  EXPECT_EQ(codeOf(JovSocialConnect::linkWithTokenSynchronous(JovSocialNetworkGitHub, token)),
            JovError::codeSocialAccountAlreadyLinked());
  EXPECT_FALSE(alice->isLinkedWithSocialProvider(JovSocialNetworkGitHub));

  // An account of her own links, logs her in later, and unlinks once.
  auto [ownID, own] = providerAccount("github");
  auto linked = JovSocialConnect::linkWithTokenSynchronous(JovSocialNetworkGitHub, own);
  ASSERT_TRUE(succeeded(linked));
  EXPECT_EQ(linked.value(), alice);
  EXPECT_EQ(alice->linkedSocialAccounts().at(JovSocialNetworkGitHub).socialID(), ownID);
  EXPECT_EQ(alice->username(), "alice");

  auto viaGitHub = JovSocialConnect::loginWithTokenSynchronous(JovSocialNetworkGitHub, own);
  ASSERT_TRUE(succeeded(viaGitHub));
  EXPECT_EQ(viaGitHub.value()->userID(), alice->userID());
  EXPECT_EQ(viaGitHub.value()->username(), "alice");

  auto unlinked = JovSocialConnect::unlinkSynchronous(JovSocialNetworkGitHub);
  ASSERT_TRUE(succeeded(unlinked));
  EXPECT_FALSE(unlinked.value()->isLinkedWithSocialProvider(JovSocialNetworkGitHub));
  EXPECT_EQ(codeOf(JovSocialConnect::unlinkSynchronous(JovSocialNetworkGitHub)),
            JovError::codeSocialAccountNotLinked());
  // Unlinked, the account is a stranger again: the next login with it makes a new user.
  auto stranger = JovSocialConnect::loginWithTokenSynchronous(JovSocialNetworkGitHub, own);
  ASSERT_TRUE(succeeded(stranger));
  EXPECT_NE(stranger.value()->userID(), alice->userID());
}

}  // namespace
}  // namespace jov

namespace jovtest {
namespace {

TEST(SocialCli, LoginWithAProviderThenLinkAndUnlink) {
  CliUser cli;
  auto [githubID, github] = providerAccount("github");
  std::vector<std::string> login = {"login", "--with", "github", "--token", github.accessToken};
  for (const auto& arg : cli.service()) login.push_back(arg);
  auto session = cli.runJSON(login);
  EXPECT_EQ(session["linked"], nlohmann::json({{"github", githubID}}));
  EXPECT_EQ(session["displayName"], "Pat");

  auto [twitterID, twitter] = providerAccount("twitter");
  auto linked = cli.runJSON(
      {"link", "twitter", "--token", twitter.accessToken, "--secret", twitter.tokenSecret});
  EXPECT_EQ(linked["userID"], session["userID"]);
  EXPECT_EQ(linked["linked"], nlohmann::json({{"github", githubID}, {"twitter", twitterID}}));
  EXPECT_EQ(cli.runJSON({"unlink", "twitter"})["linked"], nlohmann::json({{"github", githubID}}));
  auto again = cli.run({"unlink", "twitter"});
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.err.find("(319)"), std::string::npos) << again.err;

  // A refused token leaves the session as it was.
  auto refused = cli.run({"login", "--with", "github", "--token", "forged"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("(317)"), std::string::npos) << refused.err;
  EXPECT_EQ(cli.runJSON({"unlink", "github"})["linked"], nlohmann::json::object());

  // Usage errors, before any request.
  const std::vector<std::vector<std::string>> misuse = {
      {"login"},
      {"login", "alice", "--with", "github", "--token", "t"},
      {"login", "alice", "--token", "t"},
      {"login", "--with", "myspace", "--token", "t"},
      {"link", "twitter", "--token", "t"},
      {"unlink", "google-oauth2"},
  };
  for (const auto& args : misuse) {
    auto result = cli.run(args);
    EXPECT_EQ(result.status, 2) << args.back() << ": " << result.err;
  }
  // Without a token the login happens in a browser; nobody signs in here, so it gives up.
  auto unattended = cli.run({"login", "--with", "github", "--no-browser", "--timeout", "1"});
  EXPECT_EQ(unattended.status, 1);
  EXPECT_NE(unattended.err.find("/oauth2/authorize/github?redirect_uri="), std::string::npos)
      << unattended.err;
  EXPECT_NE(unattended.err.find("(320)"), std::string::npos) << unattended.err;
}

}  // namespace
}  // namespace jovtest
