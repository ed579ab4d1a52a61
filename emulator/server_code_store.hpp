// Deployed server code: each application's scripts as numbered versions, 1, 2, ...; the
// highest is the current one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "database.hpp"

namespace jovemu {

struct ServerCodeVersion {
  std::int64_t version = 0;
  std::int64_t created = 0;
  std::string script;
};

/// @brief Stores the script as the application's next version, or as `requested` when given,
/// and returns its number. A requested version must be greater than every stored one (versions
/// only grow, so "current" stays the latest): otherwise nothing is stored and 0 is returned.
std::int64_t deployServerCode(Connection& conn, const std::string& appID, const std::string& script,
                              std::int64_t nowMs, std::optional<std::int64_t> requested = {});
/// @brief The named version ("current" is the latest; otherwise a decimal number).
std::optional<ServerCodeVersion> findServerCode(Connection& conn, const std::string& appID,
                                                const std::string& version);
/// @brief Every version, oldest first, without their scripts.
std::vector<ServerCodeVersion> listServerCode(Connection& conn, const std::string& appID);

}  // namespace jovemu
