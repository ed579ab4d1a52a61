// What installing a device token and installing for MQTT share: the exchange (one route, one
// body type) and the rule that somebody must be logged in.
#pragma once

#include <optional>

#include "core/exchange.hpp"
#include "jov/application.hpp"
#include "jov/error.hpp"
#include "jov/user.hpp"

namespace jov::detail {

// The service answers 409 for an installation that exists already and 404 when it does not
// know the user the installation would belong to.
inline constexpr ErrorRule kInstallErrors[] = {
    onStatus(409, JovError::codeInstallationAlreadyExist()),
    onStatus(404, JovError::codeObjectNotFound()),
};
inline constexpr Exchange kInstall{
    JovMethodPost,
    "/installations",
    {.contentType = "application/vnd.jov.InstallationCreationRequest+json",
     .errors = kInstallErrors}};

// 306 unless a user with an ID is logged in.
inline std::optional<JovError> requireInstallingUser() {
  auto user = Jov::currentUser();
  if (!user || user->userID().empty()) {
    return JovError::errorWithCode(JovError::codeInvalidUserObject());
  }
  return std::nullopt;
}

}  // namespace jov::detail
