// JovPushInstallation's data: the factory, the token check of the public forms, the answer of
// an install and the uninstall exchange's error handler.

#include <stdexcept>

#include "core/fields.hpp"
#include "jov/encoding.hpp"
#include "jov/logger.hpp"
#include "jov/push_installation.hpp"

namespace jov {

JovPushInstallationErrorHandler::JovPushInstallationErrorHandler() {
  on(400, JovError::codeInvalidContainer());
  on(401, JovError::codeUnauthorizedRequest());
  on(404, JovError::codeInstallationNotFound());
}

JovPushInstallation::Ptr JovPushInstallation::installation() {
  return std::make_shared<JovPushInstallation>(Key{});
}

std::optional<std::string> JovPushInstallation::installationID() const {
  std::lock_guard lock(mutex_);
  return installationID_;
}

std::string JovPushInstallation::checkedToken(const TokenData& deviceToken) {
  if (!deviceToken) throw std::invalid_argument("deviceToken must not nil");
  return hexToken(*deviceToken);
}

bool JovPushInstallation::loadFromJSON(const nlohmann::json& json) {
  static constexpr detail::Field<JovPushInstallation> kFields[] = {
      {"installationID", detail::JsonType::String,
       [](JovPushInstallation& installation, const nlohmann::json& value) {
         JOV_LOG(JovLogDebug, "Updating json: installationID => " + value.get<std::string>());
         installation.installationID_ = value.get<std::string>();
       }},
  };
  if (JovLogger::enabled(JovLogDebug) && json.is_object()) {
    JOV_LOG(JovLogDebug, "Updating with json: " + json.dump());
  }
  std::lock_guard lock(mutex_);
  return detail::loadFields(*this, json, kFields);
}

}  // namespace jov
