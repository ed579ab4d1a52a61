// `jov thing` from a shell: register, read, change, disable, own with the password, query, and
// what the service refuses.
#include <gtest/gtest.h>

#include "cli_user.hpp"

namespace jovtest {
namespace {

TEST(CliThings, RegisterOwnQueryAndDelete) {
  CliUser cli;
  std::vector<std::string> registration = {"register", "maker"};
  auto service = cli.service();
  registration.insert(registration.end(), service.begin(), service.end());
  ASSERT_EQ(cli.run(registration, "secret99\n").status, 0);

  auto lamp = cli.runJSON({"thing", "register", "lamp-9", "--password", "pw", "--type", "lamp",
                           "--set", "_vendor=acme", "--set", "_numberField1=3", "--set",
                           "room=hall"});
  ASSERT_TRUE(lamp["_thingID"].is_string()) << lamp;
  const std::string id = lamp["_thingID"];
  EXPECT_FALSE(lamp["_accessToken"].get<std::string>().empty());
  EXPECT_EQ(lamp["_numberField1"], 3);
  EXPECT_EQ(cli.run({"thing", "register", "lamp-9", "--password", "pw", "--type", "lamp"}).status,
            1)
      << "the vendor thing ID is taken";
  EXPECT_EQ(cli.run({"thing", "register", "x", "--password", "pw", "--type", "t", "--set",
                     "_secret=1"})
                .status,
            2);

  // The registering user owns it; reading it by either ID, changing it, disabling it.
  EXPECT_TRUE(cli.runJSON({"thing", "is-owner", id})["owner"].get<bool>());
  auto got = cli.runJSON({"thing", "get", "lamp-9", "--vendor"});
  EXPECT_EQ(got["_thingID"], id);
  EXPECT_EQ(got["room"], "hall");
  auto updated = cli.runJSON({"thing", "update", id, "--set", "_stringField1=on", "--unset", "room"});
  EXPECT_EQ(updated["_stringField1"], "on");
  EXPECT_FALSE(cli.runJSON({"thing", "get", id}).contains("room")) << "sent as null, removed";
  EXPECT_TRUE(cli.runJSON({"thing", "disable", id})["disabled"].get<bool>());
  EXPECT_TRUE(cli.runJSON({"thing", "get", id})["_disabled"].get<bool>());
  EXPECT_FALSE(cli.runJSON({"thing", "enable", id})["disabled"].get<bool>());

  // Another user owns it with the password; not before.
  CliUser other;
  std::vector<std::string> second = {"register", "neighbour"};
  for (const auto& arg : cli.service()) second.push_back(arg);
  ASSERT_EQ(other.run(second, "secret99\n").status, 0);
  auto notOwner = other.run({"thing", "is-owner", id});
  EXPECT_EQ(notOwner.status, 1);
  EXPECT_EQ(notOwner.out, "not an owner\n");
  EXPECT_EQ(other.run({"thing", "get", id}).status, 1);
  EXPECT_EQ(other.run({"thing", "own", id, "--password", "wrong"}).status, 1);
  EXPECT_TRUE(other.runJSON({"thing", "own", "lamp-9", "--vendor", "--password", "pw"})["owner"]
                  .get<bool>());
  EXPECT_EQ(other.runJSON({"thing", "query"}).size(), 1u);
  EXPECT_FALSE(other.runJSON({"thing", "disown", id})["owner"].get<bool>());
  EXPECT_EQ(other.runJSON({"thing", "query"}).size(), 0u);

  // Queries page through every result, narrowed by type.
  ASSERT_EQ(cli.run({"thing", "register", "sensor-1", "--password", "pw", "--type", "sensor"}).status,
            0);
  auto all = cli.runJSON({"thing", "query", "--limit", "1"});
  ASSERT_EQ(all.size(), 2u) << all;
  auto sensors = cli.runJSON({"thing", "query", "--type", "sensor"});
  ASSERT_EQ(sensors.size(), 1u);
  EXPECT_EQ(sensors[0]["vendorThingID"], "sensor-1");

  EXPECT_TRUE(cli.runJSON({"thing", "delete", id, "--yes"})["deleted"].get<bool>());
  EXPECT_EQ(cli.run({"thing", "get", id}).status, 1);
}

}  // namespace
}  // namespace jovtest
