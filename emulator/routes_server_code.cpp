// Server code: the service's execution route, and the emulator's own routes that deploy a
// script as a new version and list the versions.
//
// POST /emulator/apps/{appID}/server-code[?version=N] deploys a script (application/javascript)
// as the next version, or as version N when N is greater than every deployed one (409
// SERVER_CODE_VERSION_EXISTS otherwise).
//
// POST /api/apps/{appID}/server-code/versions/{version}/{entry}[?environment-version=N]
//   version: "current" (the latest) or a version number; the body is the entry's argument, a
//   JSON object (empty: {}). A bearer token makes the caller a user; without one the entry runs
//   anonymously. Answers, each with "X-Environment-version" and, once the entry has started,
//   "X-Step-count" (instructions the entry executed, see script_engine.h):
//   200 {"returnedValue": <the entry's result>}
//   400 RUNTIME_ERROR (the entry threw or called done with an error; "message" holds the
//       error's text), EXECUTION_TIMEOUT, MEMORY_LIMIT_EXCEEDED, INVALID_INPUT_DATA (a body that
//       is not a JSON object, an environment version the emulator does not offer)
//   404 SERVER_CODE_VERSION_NOT_FOUND, ENTRY_NOT_FOUND
// The emulator offers environment versions 0 and 6, the ones the client knows; both run on the
// same engine. Without the query the default, 6, is used and reported.
#include <cctype>
#include <charconv>

#include "api_error.hpp"
#include "server_code.hpp"
#include "server_code_store.hpp"

namespace jovemu {

namespace {

constexpr int kEnvironmentVersions[] = {0, 6};
constexpr int kDefaultEnvironment = 6;

bool isValidEntryName(const std::string& name) {
  if (name.empty() || !std::isalpha(static_cast<unsigned char>(name[0]))) return false;
  for (unsigned char c : name) {
    if (!std::isalnum(c) && c != '_') return false;
  }
  return true;
}

int environmentVersion(const Call& call) {
  auto given = call.query("environment-version");
  if (!given) return kDefaultEnvironment;
  for (int offered : kEnvironmentVersions) {
    if (*given == std::to_string(offered)) return offered;
  }
  throw invalidInput("The environment version must be 0 or 6");
}

void requireKnownApp(const Service& service, const std::string& appID) {
  if (!service.apps.exists(appID)) {
    throw ApiError(404, "APP_NOT_FOUND", "The application was not found");
  }
}

ApiError entryNotFound(const std::string& entry) {
  return ApiError(404, "ENTRY_NOT_FOUND", "The server code has no entry " + entry);
}

void execute(Service& service, Call& call, const std::string& appID) {
  const std::string& version = call.param(1);
  const std::string& entry = call.param(2);
  int environment = environmentVersion(call);
  auto argument = call.jsonObject();
  ScriptCaller caller{appID, std::nullopt, std::nullopt};
  auto code = service.db.transaction([&](Connection& conn) {
    if (call.header("Authorization")) {
      caller.userID = service.requireUser(call, conn, appID).userID;
      caller.accessToken = call.bearerToken();
    }
    return findServerCode(conn, appID, version);
  });
  if (!code) {
    throw ApiError(404, "SERVER_CODE_VERSION_NOT_FOUND",
                   "The server code version " + version + " was not found");
  }
  if (!isValidEntryName(entry)) throw entryNotFound(entry);
  call.setHeader("X-Environment-version", std::to_string(environment));

  // No transaction is open while the script runs: other requests go on meanwhile.
  auto data = makeScriptDataApi(service, caller);
  auto result =
      runEntry(code->script, entry, argument, caller, service.settings.scriptLimits, data.get());
  if (result.outcome != ScriptOutcome::NoSuchEntry && result.outcome != ScriptOutcome::EngineFailed)
    call.setHeader("X-Step-count", std::to_string(result.steps));
  switch (result.outcome) {
    case ScriptOutcome::Returned:
      call.reply(200, {{"returnedValue", result.value}});
      return;
    case ScriptOutcome::Threw:
      throw ApiError(400, "RUNTIME_ERROR", result.message);
    case ScriptOutcome::TimedOut:
      throw ApiError(400, "EXECUTION_TIMEOUT", result.message);
    case ScriptOutcome::OutOfMemory:
      throw ApiError(400, "MEMORY_LIMIT_EXCEEDED", result.message);
    case ScriptOutcome::NoSuchEntry:
      throw entryNotFound(entry);
    case ScriptOutcome::EngineFailed:
      break;
  }
  throw ApiError(500, "INTERNAL_SERVER_ERROR", result.message);
}

}  // namespace

std::int64_t deployScript(Service& service, const std::string& appID, const std::string& script,
                          std::optional<std::int64_t> requested) {
  if (script.empty()) throw invalidInput("The script is empty");
  if (auto error = compileError(script, service.settings.scriptLimits)) {
    throw ApiError(400, "INVALID_SCRIPT", *error);
  }
  std::int64_t version = service.db.transaction([&](Connection& conn) {
    return deployServerCode(conn, appID, script, Service::now(), requested);
  });
  if (version == 0) {
    throw ApiError(
        409, "SERVER_CODE_VERSION_EXISTS",
        "Version " + std::to_string(*requested) + " is not greater than every deployed version");
  }
  return version;
}

void addServerCodeRoutes(Router& router, Service& service) {
  addApiRoute(router, service, "POST", "/server-code/versions/{}/{}",
              [&service](Call& call, const std::string& app) { execute(service, call, app); });

  router.add("POST", "/emulator/apps/{}/server-code", [&service](Call& call) {
    requireKnownApp(service, call.param(0));
    call.requireMediaType({"application/javascript", "text/javascript"});
    std::optional<std::int64_t> requested;
    if (auto given = call.query("version")) {
      std::int64_t number = 0;
      auto [end, error] = std::from_chars(given->data(), given->data() + given->size(), number);
      if (error != std::errc() || end != given->data() + given->size() || number < 1) {
        throw invalidInput("The version must be a positive integer");
      }
      requested = number;
    }
    call.reply(201, {{"version", deployScript(service, call.param(0), call.rawBody(), requested)}});
  });

  router.add("GET", "/emulator/apps/{}/server-code", [&service](Call& call) {
    requireKnownApp(service, call.param(0));
    auto versions = service.db.transaction(
        [&](Connection& conn) { return listServerCode(conn, call.param(0)); });
    auto list = nlohmann::json::array();
    for (const auto& row : versions) {
      list.push_back({{"version", row.version}, {"created", row.created}});
    }
    call.reply(200, {{"versions", list},
                     {"current", versions.empty() ? nlohmann::json(nullptr)
                                                  : nlohmann::json(versions.back().version)}});
  });
}

}  // namespace jovemu
