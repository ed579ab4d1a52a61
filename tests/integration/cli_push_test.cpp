// `jov push` and `jov topic` from a shell: this machine's installation, topics of the
// application and of the user, subscriptions, and what the service refuses.
#include <gtest/gtest.h>

#include "cli_user.hpp"

namespace jovtest {
namespace {

TEST(CliPush, InstallThenTopicsAndSubscriptions) {
  CliUser cli;
  std::vector<std::string> registration = {"register", "pusher"};
  auto service = cli.service();
  registration.insert(registration.end(), service.begin(), service.end());
  ASSERT_EQ(cli.run(registration, "secret99\n").status, 0);

  // This machine's token is made once and kept: a second install is the same token again.
  auto first = cli.runJSON({"push", "install"});
  ASSERT_TRUE(first["installationID"].is_string()) << first;
  auto again = cli.run({"push", "install"});
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.err.find("codeInstallationAlreadyExist (701), HTTP 409"), std::string::npos)
      << again.err;
  EXPECT_EQ(cli.run({"push", "install", "--token", "abc"}).status, 2) << "odd hex is a usage error";
  EXPECT_EQ(cli.run({"push", "install", "--token", "zz"}).status, 2);
  EXPECT_TRUE(cli.runJSON({"push", "uninstall"})["uninstalled"].get<bool>());

  EXPECT_EQ(cli.runJSON({"topic", "create", "news"})["topicID"], "news");
  EXPECT_EQ(cli.run({"topic", "create", "news"}).status, 1) << "a topic that exists";
  EXPECT_EQ(cli.runJSON({"topic", "create", "mine", "--user", "pusher"})["topicID"], "mine");
  auto listed = cli.runJSON({"topic", "list"});
  ASSERT_TRUE(listed.is_array()) << listed;
  ASSERT_EQ(listed.size(), 1u) << "the application's topics only: " << listed;
  EXPECT_EQ(listed[0]["topicID"], "news");
  EXPECT_EQ(cli.runJSON({"topic", "list", "--user", "pusher"})[0]["topicID"], "mine");

  EXPECT_TRUE(cli.runJSON({"topic", "subscribe", "news"})["subscribed"].get<bool>());
  EXPECT_FALSE(cli.runJSON({"topic", "unsubscribe", "news"})["subscribed"].get<bool>());
  EXPECT_EQ(cli.run({"topic", "unsubscribe", "news"}).status, 1) << "not subscribed";
  EXPECT_EQ(cli.run({"topic", "subscribe", "nothing-here"}).status, 1);
  EXPECT_EQ(cli.run({"topic", "list", "--user", "x", "--group", "y"}).status, 2);

  EXPECT_TRUE(cli.runJSON({"topic", "delete", "news", "--yes"})["deleted"].get<bool>());
  EXPECT_EQ(cli.run({"topic", "delete", "news", "--yes"}).status, 1);
  EXPECT_EQ(cli.runJSON({"topic", "list"}).size(), 0u);
}

}  // namespace
}  // namespace jovtest
