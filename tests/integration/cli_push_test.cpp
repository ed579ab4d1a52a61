// `jov push`, `jov topic` and `jov bucket subscribe` from a shell: this machine's installation,
// topics of the application and of the user, subscriptions, messages and the push outbox, and
// what the service refuses.
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

  // A message to a topic the user subscribes to reaches this machine's installation.
  ASSERT_TRUE(cli.runJSON({"push", "install"})["installationID"].is_string());
  EXPECT_TRUE(cli.runJSON({"topic", "subscribe", "news"})["subscribed"].get<bool>());
  auto cleared = cli.run({"push", "outbox", "--clear"});
  EXPECT_EQ(cleared.status, 0) << cleared.err;
  EXPECT_TRUE(cli.runJSON({"topic", "send", "news", "--data", R"({"score":3})", "--alert", "hi"})
                  ["sent"]
                      .get<bool>());
  EXPECT_EQ(cli.run({"topic", "send", "news", "--data", "[1]"}).status, 2);
  auto sent = cli.run({"topic", "send", "news", "--data", R"({"google.x":1})"});
  EXPECT_EQ(sent.status, 1);
  EXPECT_NE(sent.err.find("(712)"), std::string::npos) << sent.err;
  EXPECT_EQ(cli.run({"topic", "send", "news", "--no-apns", "--no-gcm", "--no-mqtt"}).status, 1);
  auto outbox = cli.runJSON({"push", "outbox"});
  ASSERT_EQ(outbox.size(), 1u) << outbox;
  EXPECT_EQ(outbox[0]["kind"], "TOPIC_MESSAGE");
  EXPECT_EQ(outbox[0]["payload"]["score"], 3);
  EXPECT_EQ(outbox[0]["payload"]["aps"]["alert"]["body"], "hi");
  EXPECT_EQ(outbox[0]["payload"]["to"], "news");

  // A bucket's changes, once subscribed.
  ASSERT_EQ(cli.run({"object", "create", "--bucket", "board", "--set", "n=1"}).status, 0);
  EXPECT_TRUE(cli.runJSON({"bucket", "subscribe", "--bucket", "board"})["subscribed"].get<bool>());
  EXPECT_EQ(cli.run({"bucket", "subscribe", "--bucket", "board"}).status, 1) << "twice";
  EXPECT_EQ(cli.run({"push", "outbox", "--clear"}).status, 0);
  ASSERT_EQ(cli.run({"object", "create", "--bucket", "board", "--set", "n=2"}).status, 0);
  outbox = cli.runJSON({"push", "outbox"});
  ASSERT_EQ(outbox.size(), 1u) << outbox;
  EXPECT_EQ(outbox[0]["kind"], "BUCKET_EVENT");
  EXPECT_EQ(outbox[0]["payload"]["bi"], "board");
  EXPECT_FALSE(cli.runJSON({"bucket", "unsubscribe", "--bucket", "board"})["subscribed"].get<bool>());
  EXPECT_EQ(cli.run({"bucket", "unsubscribe", "--bucket", "board"}).status, 1);

  EXPECT_TRUE(cli.runJSON({"topic", "delete", "news", "--yes"})["deleted"].get<bool>());
  EXPECT_EQ(cli.run({"topic", "delete", "news", "--yes"}).status, 1);
  EXPECT_EQ(cli.runJSON({"topic", "list"}).size(), 0u);
}

}  // namespace
}  // namespace jovtest
