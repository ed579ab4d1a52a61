// Server code: deploy a script to the emulator, run an entry.
#include <fstream>
#include <iterator>

#include "app.hpp"

namespace jovcli {

namespace {

std::string readScript(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw usageError("cannot read " + path);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

}  // namespace

void addCodeCommands(CLI::App& jov, Context& ctx) {
  struct Args {
    std::string file, entry, version, argument;
    int environment = -1;
  };
  auto args = std::make_shared<Args>();

  auto* code = jov.add_subcommand("code", "Deploy and run server code");
  code->require_subcommand(1);

  auto* deploy = code->add_subcommand(
      "deploy", "Deploy a JavaScript file as the next server-code version (emulator only)");
  deploy->add_option("file", args->file, "The script")->required();
  deploy->add_option("--version", args->version,
                     "The version number to deploy as (greater than every deployed one)");
  deploy->callback([&ctx, args] {
    ctx.begin();
    jov::JovRequest request = jov::JovRequest::withURL(
        emulatorAppURL("/server-code") +
        (args->version.empty() ? "" : "?version=" + jov::urlEncode(args->version)));
    request.requestMethod = jov::JovMethodPost;
    request.anonymous = true;
    request.content = "application/javascript";
    request.postData.reset();
    request.fileData = readScript(args->file);
    jov::JovResponse response = request.makeSynchronousRequest();
    if (!response.ok())
      throw failure("cannot deploy " + args->file + ": " + describeError(*response.error));
    json version =
        response.json.is_object() ? response.json.value("version", json(nullptr)) : json(nullptr);
    ctx.print(json{{"version", version}},
              "deployed " + args->file + " as version " + version.dump());
  });

  auto* run = code->add_subcommand("run", "Run an entry of the server code");
  run->add_option("entry", args->entry, "The entry's name")->required();
  run->add_option("--arg", args->argument, "The argument: a JSON object");
  run->add_option("--version", args->version, "The code version (default: current)");
  run->add_option("--env", args->environment, "The runtime-environment version (0 or 6)");
  run->callback([&ctx, args] {
    std::shared_ptr<const jov::JovServerCodeEntryArgument> argument;
    if (!args->argument.empty()) {
      json parsed = json::parse(args->argument, nullptr, false);
      if (parsed.is_discarded()) throw usageError("--arg is not JSON: " + args->argument);
      argument = jov::JovServerCodeEntryArgument::argumentWithDictionary(parsed);
    }
    auto entry = jov::Jov::serverCodeEntry(
        args->entry, args->version.empty() ? std::string("current") : args->version,
        args->environment);
    ctx.session();
    auto result = ctx.check(entry->executeSynchronous(argument), "cannot run " + args->entry);
    const json& answer = result->returnedValue;
    json value = answer.contains("returnedValue") ? answer["returnedValue"] : answer;
    ctx.print(json{{"returnedValue", value},
                   {"executedSteps", result->executedSteps},
                   {"environmentVersion", result->environmentVersion}},
              value.dump(2) + "\n(" + std::to_string(result->executedSteps) +
                  " steps, environment " + std::to_string(result->environmentVersion) + ")");
  });
}

}  // namespace jovcli
