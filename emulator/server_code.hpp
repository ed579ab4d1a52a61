// What the server-code routes share with the emulator's start-up: deploying a script, and the
// data API a running script calls.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "script_runtime.hpp"
#include "service.hpp"

namespace jovemu {

/// @brief Checks that the script compiles (400 INVALID_SCRIPT with the engine's message when
/// not) and stores it as the application's next version, or as `requested` (409
/// "SERVER_CODE_VERSION_EXISTS" unless it is greater than every deployed version); returns the
/// version.
std::int64_t deployScript(Service& service, const std::string& appID, const std::string& script,
                          std::optional<std::int64_t> requested = {});

/// @brief The data API of a script run by `caller`: every call is one transaction of its own,
/// with the caller's ACLs applied as on the REST routes.
std::unique_ptr<ScriptDataApi> makeScriptDataApi(Service& service, const ScriptCaller& caller);

}  // namespace jovemu
