// `jov object|query|count|bucket` from a shell: an object's life, queries, counts, and the exit
// statuses of what goes wrong.
#include <gtest/gtest.h>

#include "cli_user.hpp"

namespace jovtest {
namespace {

TEST(CliObjects, ObjectsQueriesAndCounts) {
  CliUser cli;
  std::vector<std::string> registration = {"register", "keeper"};
  auto service = cli.service();
  registration.insert(registration.end(), service.begin(), service.end());
  ASSERT_EQ(cli.run(registration, "secret99\n").status, 0);

  const std::vector<std::string> notes = {"--bucket", "notes", "--user", "me"};
  auto with = [&](std::vector<std::string> args) {
    args.insert(args.end(), notes.begin(), notes.end());
    return args;
  };
  auto created = cli.runJSON(with({"object", "create", R"({"text": "milk", "n": 2})"}));
  const std::string id = created.value("objectID", "");
  ASSERT_FALSE(id.empty());
  EXPECT_EQ(created["uri"].get<std::string>().rfind("jovcloud://users/", 0), 0u);
  auto fromStdin = cli.run(with({"object", "create", "--json"}), R"({"text": "eggs", "n": 5})");
  ASSERT_EQ(fromStdin.status, 0) << fromStdin.err;

  auto updated = cli.runJSON(with({"object", "update", id, R"({"n": 3})"}));
  EXPECT_EQ(updated["fields"]["text"], "milk");
  EXPECT_EQ(updated["fields"]["n"], 3);
  EXPECT_EQ(cli.runJSON(with({"object", "get", id}))["fields"]["n"], 3);

  // --set KEY=VALUE: JSON when it reads as JSON, else text; --unset removes a field for good.
  auto set = cli.runJSON(with({"object", "update", id, "--set", "tags=[\"a\"]", "--set",
                               "note=buy 2", "--set", "done=true", "--unset", "text"}));
  set["fields"].erase("_owner");
  EXPECT_EQ(set["fields"], (nlohmann::json{{"n", 3}, {"tags", {"a"}}, {"note", "buy 2"},
                                           {"done", true}}));
  auto stored = cli.runJSON(with({"object", "get", id}))["fields"];
  stored.erase("_owner");
  EXPECT_EQ(stored, set["fields"]);
  EXPECT_EQ(cli.runJSON(with({"object", "update", id, "--set", "text=milk", "--set", "done=null"}))
                ["fields"]["done"],
            "null")
      << "null is not a field's value: it stays text";
  EXPECT_EQ(cli.run(with({"object", "update", id, "--set", "=3"})).status, 2);
  EXPECT_EQ(cli.run(with({"object", "update", id, "--set", "novalue"})).status, 2);

  auto listed = cli.runJSON(with({"query", "--order", "n", "--desc"}));
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0]["fields"]["text"], "eggs");
  auto some =
      cli.runJSON(with({"query", "--where", R"({"type":"eq","field":"text","value":"milk"})"}));
  ASSERT_EQ(some.size(), 1u);
  EXPECT_EQ(cli.runJSON(with({"count"}))["count"], 2);
  EXPECT_EQ(cli.runJSON(with(
                {"count", "--where", R"({"type":"range","field":"n","lowerLimit":4})"}))["count"],
            1);

  // The readable clause syntax: comparisons, prefixes, lists, negation and parentheses.
  auto count = [&](const std::string& where) {
    return cli.runJSON(with({"count", "--where", where}))["count"].get<int>();
  };
  EXPECT_EQ(count("n>=4"), 1);
  EXPECT_EQ(count("n > 2 and n <= 5"), 2);
  EXPECT_EQ(count(R"(text ^= "mi" or text = eggs)"), 2);
  EXPECT_EQ(count("not (text in [milk, bread]) AND n<10"), 1);
  EXPECT_EQ(count("text != milk"), 1);
  EXPECT_EQ(count("n has integer"), 2);
  for (const char* bad : {"n >", "n >= 3 and", "(n = 1", "n ~ 3", R"(text = "open)", "= 3"}) {
    auto refused = cli.run(with({"count", "--where", bad}));
    EXPECT_EQ(refused.status, 2) << bad;
    EXPECT_NE(refused.err.find("at column"), std::string::npos) << refused.err;
  }

  // Usage mistakes (2) are caught before any request; refusals of the service give 1.
  EXPECT_EQ(cli.run({"object", "create", "{}", "--bucket", "x"}).status, 2);
  EXPECT_EQ(cli.run(with({"object", "create", "[1]"})).status, 2);
  EXPECT_EQ(cli.run(with({"object", "create", R"({"_owner": 1})"})).status, 2);
  EXPECT_EQ(cli.run(with({"object", "get", "nosuchobject"})).status, 1);
  EXPECT_EQ(cli.run(with({"object", "delete", id})).status, 2) << "no --yes without a terminal";
  EXPECT_EQ(cli.run(with({"object", "delete", id, "--yes"})).status, 0);
  EXPECT_EQ(cli.run(with({"object", "get", id})).status, 1);
  EXPECT_EQ(cli.run(with({"bucket", "delete", "--yes"})).status, 0);
  auto gone = cli.run(with({"count"}));
  EXPECT_EQ(gone.status, 1);
  EXPECT_NE(gone.err.find("BUCKET_NOT_FOUND"), std::string::npos) << gone.err;
}

}  // namespace
}  // namespace jovtest
