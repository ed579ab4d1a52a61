// JovMQTTInstallation: the install, endpoint and uninstall exchanges of an installation that
// receives over MQTT, and the endpoint record the service answers with.

#include "jov/mqtt_installation.hpp"

#include "jov/application.hpp"
#include "jov/logger.hpp"
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

// 404: no such installation, or another user's; 400: an installation of another kind.
constexpr detail::ErrorRule kEndpointErrors[] = {
    onStatus(404, JovError::codeInstallationNotFound()),
    onStatus(400, JovError::codeInvalidRequestData()),
};
constexpr Exchange kEndpoint{
    JovMethodGet, "/installations/{}/mqtt-endpoint", {.errors = kEndpointErrors}};

constexpr detail::ErrorRule kUninstallErrors[] = {
    onStatus(404, JovError::codeInstallationNotFound()),
    onStatus(401, JovError::codeUnauthorizedRequest()),
    onStatus(400, JovError::codeInvalidContainer()),
};
constexpr Exchange kUninstall{
    JovMethodDelete, "/installations/MQTT:{}", {.errors = kUninstallErrors}};

std::optional<int> portOf(const nlohmann::json& json, const char* key) {
  auto found = json.find(key);
  if (found == json.end() || !found->is_number_integer()) return std::nullopt;
  const auto port = found->get<std::int64_t>();
  if (port < 1 || port > 65535) return std::nullopt;
  return static_cast<int>(port);
}

}  // namespace

std::optional<JovMQTTEndpoint> JovMQTTEndpoint::fromJSON(const nlohmann::json& json) {
  if (!json.is_object()) return std::nullopt;
  JovMQTTEndpoint endpoint;
  const std::pair<const char*, std::string*> kStrings[] = {
      {"installationID", &endpoint.installationID},
      {"username", &endpoint.username},
      {"password", &endpoint.password},
      {"mqttTopic", &endpoint.topic},
      {"host", &endpoint.host}};
  for (const auto& [key, into] : kStrings) {
    auto found = json.find(key);
    if (found == json.end() || !found->is_string()) return std::nullopt;
    *into = found->get<std::string>();
  }
  if (endpoint.host.empty() || endpoint.topic.empty()) return std::nullopt;
  auto tcp = portOf(json, "portTCP");
  if (!tcp) return std::nullopt;
  endpoint.portTCP = *tcp;
  if (json.contains("portSSL") && !json.at("portSSL").is_null()) {
    endpoint.portTLS = portOf(json, "portSSL");
    if (!endpoint.portTLS) return std::nullopt;
  }
  return endpoint;
}

nlohmann::json JovMQTTEndpoint::toJSON() const {
  nlohmann::json json = {{"installationID", installationID},
                         {"username", username},
                         {"password", password},
                         {"mqttTopic", topic},
                         {"host", host},
                         {"portTCP", portTCP}};
  if (portTLS) json["portSSL"] = *portTLS;
  return json;
}

JovMQTTInstallation::Ptr JovMQTTInstallation::installation() {
  return std::make_shared<JovMQTTInstallation>(Key{});
}

JovMQTTInstallation::Ptr JovMQTTInstallation::installationWithIDs(std::string installationID,
                                                                  std::string registrationID) {
  auto made = installation();
  made->installationID_ = std::move(installationID);
  made->registrationID_ = std::move(registrationID);
  return made;
}

std::optional<std::string> JovMQTTInstallation::installationID() const {
  std::lock_guard lock(mutex_);
  return installationID_;
}

std::optional<std::string> JovMQTTInstallation::installationRegistrationID() const {
  std::lock_guard lock(mutex_);
  return registrationID_;
}

bool JovMQTTInstallation::loadFromJSON(const nlohmann::json& json) {
  if (!json.is_object()) return false;
  auto id = json.find("installationID");
  auto registration = json.find("installationRegistrationID");
  if (id == json.end() || !id->is_string() || registration == json.end() ||
      !registration->is_string()) {
    return false;
  }
  std::lock_guard lock(mutex_);
  installationID_ = id->get<std::string>();
  registrationID_ = registration->get<std::string>();
  return true;
}

Routine<void> JovMQTTInstallation::installRoutine(bool developmentMode) {
  if (auto refused = detail::requireInstallingUser()) co_return *refused;
  nlohmann::json body = {{"deviceType", "MQTT"}};
  if (developmentMode) body["development"] = "true";
  auto answer = co_await send(kInstall, args().json(std::move(body)));
  if (!answer) co_return answer.error();
  if (!loadFromJSON(answer->json)) co_return detail::unreadableAnswer();
  JOV_LOG(JovLogDebug, "MQTT installation: " + installationID().value_or(""));
  co_return {};
}

Routine<JovMQTTInstallation::Ptr> JovMQTTInstallation::installNewRoutine(bool developmentMode) {
  Ptr created = installation();
  auto installed = co_await created->installRoutine(developmentMode);
  if (!installed) co_return installed.error();
  co_return created;
}

Routine<JovMQTTEndpoint> JovMQTTInstallation::endpointRoutine() {
  if (auto refused = detail::requireInstallingUser()) co_return *refused;
  auto id = installationID();
  if (!id || id->empty()) {
    co_return JovError::errorWithCode(JovError::codeInstallationNotFound());
  }
  auto answer = co_await send(kEndpoint, args(*id));
  if (!answer) co_return answer.error();
  auto endpoint = JovMQTTEndpoint::fromJSON(answer->json);
  if (!endpoint) co_return detail::unreadableAnswer();
  co_return std::move(*endpoint);
}

Routine<void> JovMQTTInstallation::uninstallRoutine() {
  if (auto refused = detail::requireInstallingUser()) co_return *refused;
  auto registration = installationRegistrationID();
  if (!registration || registration->empty()) {
    co_return JovError::errorWithCode(JovError::codeInstallationNotFound());
  }
  auto answer = co_await send(kUninstall, args(*registration));
  if (!answer) co_return answer.error();
  co_return {};
}

}  // namespace jov
