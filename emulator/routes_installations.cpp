// Push installations: a device token (IOS, ANDROID) or an MQTT client registered under the
// calling user, and the broker account of an MQTT installation.
//
// POST   /installations  InstallationCreationRequest {"installationRegistrationID", "deviceType",
//        "development"?}: 201 {"installationID"}; 409 INSTALLATION_ALREADY_EXISTS for a token
//        installed already (by anybody). Device type "MQTT" may leave the registration ID out
//        (the service makes one) and is answered {"installationID", "installationRegistrationID"}.
// GET    /installations/{ID}/mqtt-endpoint: 200 {"installationID", "username", "password",
//        "mqttTopic", "host", "portTCP"}: the broker account of an MQTT installation of the
//        caller's, made on the first request; 404 INSTALLATION_NOT_FOUND (unknown, or another
//        user's), 400 for another kind, 503 MQTT_ENDPOINT_NOT_AVAILABLE without a broker.
// DELETE /installations/{TYPE:TOKEN}: 204; 404 INSTALLATION_NOT_FOUND when the caller has no
//        installation of that token. An MQTT installation's account goes with it.
#include "api_error.hpp"
#include "crypto.hpp"
#include "mqtt_bridge.hpp"
#include "push_store.hpp"
#include "service.hpp"

namespace jovemu {

namespace {

constexpr const char* kInstallationCreation =
    "application/vnd.jov.InstallationCreationRequest+json";

void install(Service& service, Call& call, const std::string& appID) {
  call.requireMediaType({kInstallationCreation});
  auto body = call.jsonObject();
  InstallationRow row;
  row.deviceType = requiredString(body, "deviceType");
  if (row.deviceType != "IOS" && row.deviceType != "ANDROID" && row.deviceType != "MQTT") {
    throw invalidInput("There are validation errors: deviceType - must be IOS, ANDROID or MQTT");
  }
  const bool mqtt = row.deviceType == "MQTT";
  // An MQTT client has no platform token: the service makes one.
  if (mqtt &&
      (!body.contains("installationRegistrationID") ||
       body["installationRegistrationID"].is_null() || body["installationRegistrationID"] == "")) {
    row.token = randomHex(16);
  } else {
    row.token = requiredString(body, "installationRegistrationID");
  }
  if (row.token.empty()) {
    throw invalidInput(
        "There are validation errors: installationRegistrationID - must not be empty");
  }
  auto development = body.find("development");
  if (development != body.end() && !development->is_null()) {
    if (development->is_boolean()) {
      row.development = development->get<bool>();
    } else if (development->is_string() && (*development == "true" || *development == "false")) {
      row.development = *development == "true";
    } else {
      throw invalidInput("There are validation errors: development - must be true or false");
    }
  }
  auto record = service.db.transaction([&](Connection& conn) {
    auto caller = service.requireUser(call, conn, appID);
    if (findInstallation(conn, appID, row.deviceType, row.token)) {
      throw ApiError(409, "INSTALLATION_ALREADY_EXISTS", "The device token is installed already");
    }
    row.installationID = randomHex(12);
    row.userID = caller.userID;
    row.created = Service::now();
    insertInstallation(conn, appID, row);
    nlohmann::json answer = {{"installationID", row.installationID}};
    if (mqtt) answer["installationRegistrationID"] = row.token;
    return answer;
  });
  call.reply(201, record);
}

ApiError unavailable() {
  return ApiError(503, "MQTT_ENDPOINT_NOT_AVAILABLE",
                  "The service has no MQTT broker to deliver to right now");
}

void mqttEndpoint(Service& service, Call& call, const std::string& appID) {
  const std::string& id = call.param(1);
  auto account = service.db.transaction([&](Connection& conn) {
    auto caller = service.requireUser(call, conn, appID);
    auto row = findInstallationByID(conn, appID, id);
    if (!row || row->userID != caller.userID) {
      throw ApiError(404, "INSTALLATION_NOT_FOUND", "The installation was not found");
    }
    if (row->deviceType != "MQTT") {
      throw invalidInput("The installation does not receive over MQTT");
    }
    // Without a broker there is no account to make.
    if (!service.mqtt) throw unavailable();
    if (auto existing = findMqttAccount(conn, appID, id)) return *existing;
    MqttAccount made(id, randomHex(16));
    insertMqttAccount(conn, appID, made);
    return made;
  });
  // The broker confirms the account before anybody is told to use it; a refusal or no answer
  // leaves it to the next request.
  if (!account.provisioned) {
    if (!service.mqtt->provision(account)) throw unavailable();
    service.db.transaction([&](Connection& conn) { markMqttAccountProvisioned(conn, appID, id); });
  }
  const auto& broker = service.mqtt->settings();
  call.reply(200, nlohmann::json{{"installationID", id},
                                 {"username", account.username},
                                 {"password", account.password},
                                 {"mqttTopic", account.topic},
                                 {"host", broker.host},
                                 {"portTCP", broker.port}});
}

void uninstall(Service& service, Call& call, const std::string& appID) {
  const std::string& id = call.param(1);
  const auto colon = id.find(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == id.size()) {
    throw invalidInput("An installation is addressed as DEVICETYPE:TOKEN");
  }
  const std::string deviceType = id.substr(0, colon), token = id.substr(colon + 1);
  // The broker account of an MQTT installation, to remove once the installation is gone.
  auto removed = service.db.transaction([&](Connection& conn) {
    auto caller = service.requireUser(call, conn, appID);
    auto row = findInstallation(conn, appID, deviceType, token);
    // Another user's installation is not the caller's to see.
    if (!row || row->userID != caller.userID) {
      throw ApiError(404, "INSTALLATION_NOT_FOUND", "The installation was not found");
    }
    deleteInstallation(conn, appID, deviceType, token);
    if (auto account = findMqttAccount(conn, appID, row->installationID)) {
      deleteMqttAccount(conn, appID, row->installationID);
      return std::optional<std::string>(account->username);
    }
    return std::optional<std::string>();
  });
  if (removed && service.mqtt) service.mqtt->remove(*removed);
  call.replyNoContent();
}

}  // namespace

void addInstallationRoutes(Router& router, Service& service) {
  addApiRoute(router, service, "POST", "/installations",
              [&service](Call& call, const std::string& app) { install(service, call, app); });
  addApiRoute(router, service, "GET", "/installations/{}/mqtt-endpoint",
              [&service](Call& call, const std::string& app) { mqttEndpoint(service, call, app); });
  addApiRoute(router, service, "DELETE", "/installations/{}",
              [&service](Call& call, const std::string& app) { uninstall(service, call, app); });
}

}  // namespace jovemu
