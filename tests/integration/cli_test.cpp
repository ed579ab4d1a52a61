// The jov command as a shell user runs it: exit statuses, profiles and sessions, JSON output,
// user arguments by name, and confirmations.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "cli_user.hpp"

namespace jovtest {
namespace {

using nlohmann::json;

TEST(Cli, UsageErrorsAndVersion) {
  CliUser cli;
  auto version = cli.run({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out, "jov " JOV_PROJECT_VERSION "\n");

  EXPECT_EQ(cli.run({}).status, 2);
  EXPECT_EQ(cli.run({"whoami", "--no-such-option"}).status, 2);
  EXPECT_EQ(cli.run({"group", "list", "--site", "mars"}).status, 2);

  // --app and --key without a URL or a saved profile must not quietly pick the hosted site.
  auto noURL = cli.run({"login", "alice", "--app", cli.app().appID, "--key", "k"}, "pw\n");
  EXPECT_EQ(noURL.status, 2);
  EXPECT_NE(noURL.err.find("--url"), std::string::npos) << noURL.err;

  auto notLoggedIn = cli.run({"whoami"});
  EXPECT_EQ(notLoggedIn.status, 1);
  EXPECT_NE(notLoggedIn.err.find("not logged in"), std::string::npos) << notLoggedIn.err;
  EXPECT_FALSE(std::filesystem::exists(cli.profileFile()));
}

TEST(Cli, ProfileIsSavedOnlyAfterSuccessfulLogin) {
  CliUser cli;
  CliUser::registerOther(cli, "alice");

  // A wrong key: the service refuses, nothing is saved.
  auto args = cli.service();
  args.back() = "wrong-key";
  args.insert(args.begin(), {"login", "alice"});
  auto refused = cli.run(args, "secret99\n");
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err.find("error 0"), std::string::npos) << refused.err;
  EXPECT_FALSE(std::filesystem::exists(cli.profileFile()));

  // Nothing listens there: the line says what failed and where.
  auto unreachable = cli.run({"login", "alice", "--url", "http://127.0.0.1:1/api", "--app",
                              cli.app().appID, "--key", cli.app().appKey},
                             "secret99\n");
  EXPECT_EQ(unreachable.status, 1);
  EXPECT_NE(unreachable.err.find("codeUnableToConnectToInternet (201)"), std::string::npos)
      << unreachable.err;
  EXPECT_NE(unreachable.err.find("http://127.0.0.1:1/api/"), std::string::npos) << unreachable.err;
  EXPECT_FALSE(std::filesystem::exists(cli.profileFile()));

  args = cli.service();
  args.insert(args.begin(), {"login", "alice@example.org"});
  auto ok = cli.run(args, "secret99\n");
  ASSERT_EQ(ok.status, 0) << ok.err;
  EXPECT_EQ(ok.out, "logged in as alice\n");
  std::ifstream in(cli.profileFile());
  json saved = json::parse(in, nullptr, false);
  EXPECT_EQ(
      saved,
      (json{{"url", cli.app().baseURL}, {"app", cli.app().appID}, {"key", cli.app().appKey}}));

  // A wrong password fails and leaves the session as it was.
  auto wrong = cli.run({"login", "alice"}, "not-the-password\n");
  EXPECT_EQ(wrong.status, 1);
  EXPECT_NE(wrong.err.find("codeUnableToAuthenticateUser (302)"), std::string::npos) << wrong.err;

  // Global options after the subcommand; whoami's JSON keys are all there.
  auto me = cli.runJSON({"whoami"});
  for (const char* key : {"userID", "username", "displayName", "email", "emailVerified",
                          "phoneNumber", "phoneVerified", "pendingEmail", "pendingPhoneNumber",
                          "pseudoUser", "tokenExpiresAt", "baseURL", "appID"})
    EXPECT_TRUE(me.contains(key)) << key;
  EXPECT_EQ(me["username"], "alice");
  EXPECT_EQ(me["email"], "alice@example.org");
  EXPECT_EQ(me["emailVerified"], false);
  EXPECT_TRUE(me["tokenExpiresAt"].is_string());

  // Another profile keeps its own service and session.
  EXPECT_EQ(cli.run({"whoami", "--profile", "other"}).status, 1);
  // Service options that differ from the profile's are refused outside login.
  EXPECT_EQ(cli.run({"whoami", "--app", "someone-else"}).status, 2);

  EXPECT_EQ(cli.run({"logout"}).status, 0);
  EXPECT_EQ(cli.run({"whoami"}).status, 1);
}

TEST(Cli, GroupsTakeUsersByNameAndDeletesAreConfirmed) {
  CliUser cli;
  auto args = cli.service();
  args.insert(args.begin(), {"register", "owner", "--json"});
  auto owner = cli.run(args, "secret99\n");
  ASSERT_EQ(owner.status, 0) << owner.err;
  auto ownerID = json::parse(owner.out).value("userID", "");
  auto bobID = CliUser::registerOther(cli, "bob");
  auto carolID = CliUser::registerOther(cli, "carol");

  auto group = cli.runJSON({"group", "create", "Hikers", "--member", "bob"});
  std::string groupID = group.value("groupID", "");
  ASSERT_FALSE(groupID.empty()) << group.dump();
  ASSERT_EQ(cli.run({"group", "add", groupID, "carol@example.org"}).status, 0);
  auto members = cli.runJSON({"group", "members", groupID});
  std::set<std::string> ids;
  for (const auto& m : members) ids.insert(m.value("userID", ""));
  EXPECT_EQ(ids, (std::set<std::string>{ownerID, bobID, carolID}));  // the owner is a member

  // Unknown users read the same whichever way they are named.
  for (const char* who : {"nobody", "nobody@example.org", "00000000-0000-4000-8000-000000000000"}) {
    auto unknown = cli.run({"group", "add", groupID, who});
    EXPECT_EQ(unknown.status, 1) << who;
    EXPECT_NE(unknown.err.find("codeUserNotFound (324), HTTP 404"), std::string::npos)
        << unknown.err;
  }

  // Without a terminal, a delete needs --yes; refused, it deletes nothing.
  auto refused = cli.run({"group", "delete", groupID});
  EXPECT_EQ(refused.status, 2);
  EXPECT_EQ(cli.runJSON({"group", "list"}).size(), 1u);
  EXPECT_EQ(cli.run({"group", "delete", groupID, "--yes"}).status, 0);
  EXPECT_TRUE(cli.runJSON({"group", "list"}).empty());

  auto gone = cli.run({"group", "rename", groupID, "Again"});
  EXPECT_EQ(gone.status, 1);
  EXPECT_NE(gone.err.find("HTTP 404"), std::string::npos) << gone.err;
}

}  // namespace
}  // namespace jovtest
