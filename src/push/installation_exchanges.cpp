// The install and uninstall exchanges and the routines behind every form of JovPushInstallation.

#include "jov/application.hpp"
#include "jov/logger.hpp"
#include "jov/push_installation.hpp"
#include "jov/user.hpp"
#include "push/installation_exchange.hpp"

namespace jov {

namespace {

using detail::args;
using detail::Exchange;
using detail::onStatus;
using detail::Routine;
using detail::send;

using detail::kInstall;

// Uninstall has no table: its answers go through JovPushInstallationErrorHandler by status.
constexpr Exchange kUninstall{JovMethodDelete, "/installations/IOS:{}"};

// An install or uninstall needs somebody logged in (checked first), then a token.
std::optional<JovError> checkPreconditions(const std::string& hexToken) {
  if (auto refused = detail::requireInstallingUser()) return refused;
  if (hexToken.empty()) return JovError::errorWithCode(JovError::codeDeviceTokenNotSet());
  return std::nullopt;
}

}  // namespace

Routine<void> JovPushInstallation::installRoutine(bool developmentMode, std::string hexToken) {
  if (auto refused = checkPreconditions(hexToken)) co_return *refused;
  nlohmann::json body = {{"installationRegistrationID", hexToken}, {"deviceType", "IOS"}};
  // Production installs leave the key out; the service reads any "development" as a request for
  // the sandbox.
  if (developmentMode) body["development"] = "true";
  auto answer = co_await send(kInstall, args().json(std::move(body)));
  if (!answer) co_return answer.error();
  if (!loadFromJSON(answer->json)) co_return detail::unreadableAnswer();
  JOV_LOG(JovLogDebug, "Loaded json: " + installationID().value_or(""));
  co_return {};
}

Routine<void> JovPushInstallation::installStoredRoutine() {
  return installRoutine(Jov::isDevelopmentMode(), Jov::deviceToken());
}

Routine<JovPushInstallation::Ptr> JovPushInstallation::installNewRoutine(bool developmentMode,
                                                                         std::string hexToken) {
  Ptr created = installation();
  auto installed = co_await created->installRoutine(developmentMode, std::move(hexToken));
  if (!installed) co_return installed.error();
  co_return created;
}

Routine<JovPushInstallation::Ptr> JovPushInstallation::installStoredNewRoutine() {
  return installNewRoutine(Jov::isDevelopmentMode(), Jov::deviceToken());
}

Routine<void> JovPushInstallation::uninstallRoutine(std::string hexToken) {
  if (auto refused = checkPreconditions(hexToken)) co_return *refused;
  auto answer = co_await send(kUninstall, args(hexToken));
  if (answer && answer->status == 204) co_return {};
  // An error with a code of its own (no connection, no application) stays as it is; every other
  // outcome, a 2xx other than 204 included, is read by its status.
  nlohmann::json userInfo = nlohmann::json::object();
  int status = 0;
  if (!answer) {
    const JovError& failed = answer.error();
    if (failed.code() != 0 || failed.domain() != JovError::kDomain) co_return failed;
    userInfo = failed.userInfo();
    status = failed.jovHttpStatus();
  } else {
    status = answer->status;
    userInfo["http_status"] = status;
  }
  std::optional<JovError> mapped = JovPushInstallationErrorHandler().errorParser(status);
  const int code = mapped ? mapped->code() : JovError::codeUndefinedError();
  userInfo.erase("description");
  co_return JovError::errorWithCode(code, std::move(userInfo));
}

Routine<void> JovPushInstallation::uninstallStoredRoutine() {
  return uninstallRoutine(Jov::deviceToken());
}

}  // namespace jov
