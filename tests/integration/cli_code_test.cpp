// `jov code` from a shell: deploy a script to the emulator, run its entries, and the exit
// statuses of what goes wrong.
#include <gtest/gtest.h>

#include <fstream>

#include "cli_user.hpp"

namespace jovtest {
namespace {

TEST(CliCode, DeployAndRunEntries) {
  CliUser cli;
  std::vector<std::string> registration = {"register", "coder"};
  auto service = cli.service();
  registration.insert(registration.end(), service.begin(), service.end());
  ASSERT_EQ(cli.run(registration, "secret99\n").status, 0);

  TempDir dir;
  const auto script = dir.path() / "code.js";
  std::ofstream(script) << "function add(a) { return a.x + a.y; }\nfunction boom() { throw 1; }\n";
  auto deployed = cli.runJSON({"code", "deploy", script.string(), "--version", "4"});
  EXPECT_EQ(deployed["version"], 4);
  EXPECT_EQ(cli.run({"code", "deploy", script.string(), "--version", "4"}).status, 1)
      << "a version that exists is refused";
  EXPECT_EQ(cli.run({"code", "deploy", (dir.path() / "none.js").string()}).status, 2);

  auto sum = cli.runJSON({"code", "run", "add", "--arg", R"({"x": 2, "y": 5})"});
  EXPECT_EQ(sum["returnedValue"], 7);
  EXPECT_GT(sum["executedSteps"].get<long>(), 0);
  EXPECT_EQ(sum["environmentVersion"], 6);
  auto text = cli.run(
      {"code", "run", "add", "--arg", R"({"x": 1, "y": 1})", "--version", "4", "--env", "0"});
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_EQ(text.out.rfind("2\n(", 0), 0u) << text.out;
  EXPECT_NE(text.out.find("environment 0"), std::string::npos) << text.out;

  auto thrown = cli.run({"code", "run", "boom"});
  EXPECT_EQ(thrown.status, 1);
  EXPECT_NE(thrown.err.find("(509), HTTP 400 RUNTIME_ERROR"), std::string::npos) << thrown.err;
  EXPECT_EQ(cli.run({"code", "run", "9lives"}).status, 2) << "refused before any request";
  EXPECT_EQ(cli.run({"code", "run", "add", "--arg", "[1]"}).status, 2);
  EXPECT_EQ(cli.run({"code", "run", "add", "--arg", "{"}).status, 2);
  EXPECT_EQ(cli.run({"code", "run", "missing"}).status, 1);
}

}  // namespace
}  // namespace jovtest
