// `jov acl` from a shell: grant a user access to an object, list it, revoke it.
#include <gtest/gtest.h>

#include "cli_user.hpp"

namespace jovtest {
namespace {

TEST(CliAcl, GrantListRevoke) {
  CliUser cli;
  const std::string bob = CliUser::registerOther(cli, "bob");
  std::vector<std::string> registration = {"register", "alice"};
  auto service = cli.service();
  registration.insert(registration.end(), service.begin(), service.end());
  ASSERT_EQ(cli.run(registration, "secret99\n").status, 0);

  auto created =
      cli.runJSON({"object", "create", R"({"text": "hi"})", "--bucket", "notes", "--user", "me"});
  const std::string id = created.value("objectID", "");
  ASSERT_FALSE(id.empty());
  const std::vector<std::string> target = {"--bucket", "notes", "--in-user", "me", "--object", id};
  auto with = [&](std::vector<std::string> args) {
    args.insert(args.end(), target.begin(), target.end());
    return args;
  };
  auto granted = cli.runJSON(with({"acl", "grant", "READ_EXISTING_OBJECT", "--user", "bob"}));
  EXPECT_EQ(granted["subject"], "UserID:" + bob);
  ASSERT_EQ(cli.run(with({"acl", "grant", "WRITE_EXISTING_OBJECT", "--authenticated"})).status, 0);
  auto listed = cli.runJSON(with({"acl", "list"}));
  std::set<std::pair<std::string, std::string>> entries;
  for (const auto& row : listed)
    entries.insert({row["action"].get<std::string>(), row["subject"].get<std::string>()});
  EXPECT_TRUE(entries.contains({"READ_EXISTING_OBJECT", "UserID:" + bob}));
  EXPECT_TRUE(entries.contains({"WRITE_EXISTING_OBJECT", "UserID:ANY_AUTHENTICATED_USER"}));

  ASSERT_EQ(cli.run(with({"acl", "revoke", "READ_EXISTING_OBJECT", "--user", bob})).status, 0);
  entries.clear();
  for (const auto& row : cli.runJSON(with({"acl", "list"})))
    entries.insert({row["action"].get<std::string>(), row["subject"].get<std::string>()});
  EXPECT_FALSE(entries.contains({"READ_EXISTING_OBJECT", "UserID:" + bob}));

  EXPECT_EQ(cli.run(with({"acl", "grant", "READ_EXISTING_OBJECT"})).status, 2) << "no subject";
  EXPECT_EQ(cli.run(with({"acl", "grant", "FLY", "--anonymous"})).status, 2);
  EXPECT_EQ(cli.run(with({"acl", "revoke", "READ_EXISTING_OBJECT", "--anonymous"})).status, 1)
      << "revoking what is not granted";
}

}  // namespace
}  // namespace jovtest
