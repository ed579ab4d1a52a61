// One user of the `jov` command in tests: a data directory of its own against one application
// of the shared emulator.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "emulator_fixture.hpp"
#include "process.hpp"

namespace jovtest {

/// Runs `jov --data DIR ...` as one user.
class CliUser {
 public:
  CliUser() : app_(Emulator::shared().newApp()) {}

  ProcessResult run(std::vector<std::string> args, const std::string& input = "") const {
    args.insert(args.begin(), {JOV_CLI_PATH, "--data", data_.str()});
    return runProcess(args, input);
  }
  std::vector<std::string> service() const {
    return {"--url", app_.baseURL, "--app", app_.appID, "--key", app_.appKey};
  }
  std::filesystem::path profileFile(const std::string& name = "default") const {
    return data_.path() / "profiles" / name / "profile.json";
  }
  nlohmann::json runJSON(std::vector<std::string> args) const {
    args.push_back("--json");
    auto result = run(args);
    EXPECT_EQ(result.status, 0) << result.err;
    return nlohmann::json::parse(result.out, nullptr, false);
  }
  // Registers through the CLI of another data directory, so this user's session stays.
  static std::string registerOther(const CliUser& on, const std::string& name) {
    TempDir other;
    std::vector<std::string> args = {JOV_CLI_PATH, "--data", other.str(), "register", name};
    auto service = on.service();
    args.insert(args.end(), service.begin(), service.end());
    args.insert(args.end(), {"--email", name + "@example.org", "--json"});
    auto result = runProcess(args, "secret99\n");
    EXPECT_EQ(result.status, 0) << result.err;
    return nlohmann::json::parse(result.out, nullptr, false).value("userID", "");
  }

  const EmulatorApp& app() const { return app_; }

 private:
  EmulatorApp app_;
  TempDir data_;
};

}  // namespace jovtest
