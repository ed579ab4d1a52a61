// What every command of `jov` shares: the global options, the profile (which service to talk
// to), the session, output as a table or as JSON, prompts, and how failures end the process.
//
// Adding the commands of an entity takes one new file and one line in main.cpp:
//
//   // cli/commands_things.cpp
//   #include "app.hpp"
//   namespace jovcli {
//   void addThingCommands(CLI::App& jov, Context& ctx) {
//     auto* thing = jov.add_subcommand("thing", "Work with things");
//     thing->require_subcommand(1);
//     auto* show = thing->add_subcommand("show", "Show a thing");
//     auto id = std::make_shared<std::string>();
//     show->add_option("thing", *id)->required();
//     show->callback([&ctx, id] {
//       ctx.session();                                   // restores the logged-in user
//       auto thing = ctx.check(SomeCall(*id), "lookup failed");  // failure: one line, exit 1
//       ctx.print(thingJSON(*thing), describe(*thing));  // JSON with --json, else text
//     });
//   }
//   }  // namespace jovcli
//
// then declare `addThingCommands` below, next to the others, and call it from main.cpp. A
// command's arguments live in heap storage its callback captures (the callback runs after the
// whole line is parsed), global options (--json, --yes, --profile...) are valid anywhere on the
// line, and deletions go through ctx.confirm() first.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "jov/jov.hpp"

namespace jovcli {

using nlohmann::json;

/// @brief Exit statuses of `jov`.
enum ExitStatus : int {
  kExitOK = 0,
  kExitFailed = 1,  ///< the service refused, or an operation failed
  kExitUsage = 2,   ///< the command line was wrong
};

/// @brief Ends a command with a message and a status; main prints "jov: MESSAGE".
class CommandError : public std::runtime_error {
 public:
  CommandError(int status, const std::string& message)
      : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

/// @brief A command-line mistake: exit status 2.
inline CommandError usageError(const std::string& message) {
  return CommandError(kExitUsage, message);
}
/// @brief A failed operation: exit status 1.
inline CommandError failure(const std::string& message) {
  return CommandError(kExitFailed, message);
}

/// @brief One line for an error: its name and code, the HTTP status, the service's error code
/// and message, e.g. "codeUserNotFound (324), HTTP 404 USER_NOT_FOUND: User not found". An
/// error without a client code shows "HTTP 404 USER_NOT_FOUND: ..." alone.
std::string describeError(const jov::JovError& error);

/// @brief The service a profile talks to.
struct ServiceSettings {
  std::string url, app, key;
  bool complete() const { return !url.empty() && !app.empty() && !key.empty(); }
};

/// @brief The shared state of one run of `jov`.
class Context {
 public:
  /// @brief Adds the global options to the top-level app.
  void addGlobalOptions(CLI::App& app);

  bool jsonOutput() const { return json_; }

  /// @brief Begins the library with the profile's service. Service options on the command
  /// line must match the profile: only login and register change it. Without a saved profile,
  /// a failure ("not logged in").
  void begin();
  /// @brief begin(), then the stored session of the profile.
  std::shared_ptr<jov::JovUser> session();
  /// @brief Begins with the service given on the command line (or the saved one), runs
  /// `attempt` in a throw-away credential store, and only when it succeeds stores the new
  /// session and saves the profile: a failed attempt leaves the previous session as it was.
  std::shared_ptr<jov::JovUser> establishSession(
      const std::string& what,
      const std::function<jov::Result<std::shared_ptr<jov::JovUser>>()>& attempt);

  /// @brief The user a command argument names: a user ID, else an e-mail address (with "@"),
  /// a phone number (starting with "+"), else a username. Needs a session.
  std::shared_ptr<jov::JovUser> resolveUser(const std::string& argument);

  /// @brief Prints `value` as JSON with --json, else `text` (nothing when empty).
  void print(const json& value, const std::string& text) const;
  /// @brief Prints rows as an aligned table, or as a JSON array of objects with --json.
  /// Every row has one value per column; `keys` are the JSON keys, `headers` the titles.
  void printTable(const std::vector<std::string>& keys, const std::vector<std::string>& headers,
                  const std::vector<std::vector<json>>& rows, const std::string& empty) const;

  /// @brief A password read without echo from the terminal, else a line of standard input.
  std::string readPassword(const std::string& prompt) const;
  /// @brief A new password, asked twice when reading from a terminal.
  std::string readNewPassword(const std::string& prompt) const;
  /// @brief Returns when the user agreed (--yes, or "y" at the prompt); refuses with exit 2
  /// when standard input is not a terminal and --yes was not given.
  void confirm(const std::string& question) const;

  /// @brief The value of a successful result; else a failure "WHAT: error".
  template <class T>
  T check(jov::Result<T> result, const std::string& what) const {
    if (!result) throw failure(what + ": " + describeError(result.error()));
    if constexpr (!std::is_void_v<T>) return std::move(result).value();
  }

 private:
  std::filesystem::path profileDirectory() const;
  std::filesystem::path profileFile() const;
  std::optional<ServiceSettings> loadProfile() const;
  void saveProfile(const ServiceSettings& settings) const;
  ServiceSettings settingsFromCommandLine(const std::optional<ServiceSettings>& saved) const;
  bool serviceOptionsGiven() const;
  void startLibrary(const ServiceSettings& settings);

  std::string url_, site_, app_, key_, data_, profile_ = "default";
  bool json_ = false, yes_ = false;
  bool begun_ = false;
};

/// @brief The bucket a command names: in the scope of a user (an ID, e-mail, username, or "me")
/// or of a group when one is given, else the application's. A usage error for an invalid name.
std::shared_ptr<jov::JovBucket> bucketNamed(Context& ctx, const std::string& name,
                                            const std::string& user, const std::string& group,
                                            bool encrypted);

/// @brief Text for a point in time, in the local time zone ("2024-05-01 14:03:07 CEST").
std::string localTime(std::chrono::system_clock::time_point when);
/// @brief A point in time in UTC, ISO 8601 ("2024-05-01T12:03:07Z"), for JSON.
std::string isoTime(std::chrono::system_clock::time_point when);
/// @brief A string, or null when empty: JSON output keeps every key.
json orNull(const std::string& text);
/// @brief KEY=VALUE assignments (--set) as a JSON object: VALUE is JSON when it reads as JSON
/// (3, true, [1,2], {"a":1}), else text. A usage error for one without "=" or a key.
json assignments(const std::vector<std::string>& set);
/// @brief The service's clause JSON of a readable clause ('age>=18 and name^="Al"'); the
/// grammar is at the top of clause_syntax.cpp and in `jov query --help`. A usage error, with
/// the column, for text that does not parse.
json parseClause(const std::string& text);
/// @brief The URL of an emulator-only route of the current application:
/// ROOT/emulator/apps/APPID + `suffix`, ROOT being the base URL without its trailing "/api".
std::string emulatorAppURL(const std::string& suffix);

/// @brief A bash completion script for the commands and options of `app`.
std::string bashCompletion(const CLI::App& app);

// One function per entity adds its commands to the top-level app.
void addUserCommands(CLI::App& jov, Context& ctx);
void addGroupCommands(CLI::App& jov, Context& ctx);
void addCodeCommands(CLI::App& jov, Context& ctx);
void addObjectCommands(CLI::App& jov, Context& ctx);
void addBodyCommands(CLI::App& jov, Context& ctx);
void addAclCommands(CLI::App& jov, Context& ctx);
void addPushCommands(CLI::App& jov, Context& ctx);
void addSocialCommands(CLI::App& jov, Context& ctx);
void addThingCommands(CLI::App& jov, Context& ctx);

}  // namespace jovcli
