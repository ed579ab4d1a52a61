#pragma once
/// @file
/// @brief JovMQTTInstallation: an installation that receives its pushes over MQTT, for Linux
/// desktops and devices that have neither APNs nor GCM, and the broker endpoint it listens on.

#include <future>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "jov/async.hpp"
#include "jov/cancellation.hpp"
#include "jov/detail/forms.hpp"
#include "jov/error.hpp"
#include "jov/result.hpp"

namespace jov {

/// @brief Where an MQTT installation receives its pushes: the broker, the account the service
/// made for this installation, and the one topic that account may subscribe to.
struct JovMQTTEndpoint {
  std::string installationID;  ///< the installation the account belongs to
  std::string username;        ///< the broker account; also the MQTT client ID to use
  std::string password;        ///< the account's password
  std::string topic;           ///< the topic the installation's pushes are published to
  std::string host;            ///< the broker's host name or address
  int portTCP = 0;             ///< the broker's plain MQTT port
  std::optional<int> portTLS;  ///< the broker's MQTT-over-TLS port, when it has one

  /// @brief The endpoint of an answer ("installationID", "username", "password", "mqttTopic",
  /// "host", "portTCP", optional "portSSL"); nothing when a key is missing or has the wrong type,
  /// or a port is outside 1..65535.
  static std::optional<JovMQTTEndpoint> fromJSON(const nlohmann::json& json);
  /// @brief The same keys fromJSON reads, for keeping an endpoint across runs.
  nlohmann::json toJSON() const;
  /// @brief Equal when every field is.
  bool operator==(const JovMQTTEndpoint&) const = default;
};

/// @brief This device registered under the current user as an MQTT installation: the service
/// publishes every push meant for it (topic messages, bucket events) to the installation's own
/// topic on its MQTT broker, and JovPushReceiver hands them to the application.
///
/// The service generates the registration ID; an application that keeps the installation across
/// runs stores installationID() and installationRegistrationID() and restores it with
/// installationWithIDs().
///
/// @code
/// auto installed = jov::JovMQTTInstallation::installSynchronous();
/// auto endpoint = installed.value()->endpointSynchronous();
/// auto receiver = jov::JovPushReceiver::receiverWithEndpoint(endpoint.value());
/// @endcode
class JovMQTTInstallation : public std::enable_shared_from_this<JovMQTTInstallation> {
 public:
  /// @brief Installations are held by std::shared_ptr.
  using Ptr = std::shared_ptr<JovMQTTInstallation>;
  /// @brief Blocks receive the installation, then the error.
  using InstallationBlock = JovBlock<Ptr>;
  /// @brief Blocks of endpoint() receive the endpoint (an empty one on failure), then the error.
  using EndpointBlock = JovBlock<JovMQTTEndpoint>;

  /// @brief Lets the factories use std::make_shared; not usable outside the class.
  struct Key {
   private:
    friend class JovMQTTInstallation;
    Key() = default;
  };
  /// @brief Made by installation() and installationWithIDs().
  explicit JovMQTTInstallation(Key) {}
  JovMQTTInstallation(const JovMQTTInstallation&) = delete;
  JovMQTTInstallation& operator=(const JovMQTTInstallation&) = delete;

  /// @brief A new installation, not yet installed.
  static Ptr installation();
  /// @brief An installation installed earlier, from the two IDs its install gave.
  static Ptr installationWithIDs(std::string installationID, std::string registrationID);

  /// @brief The ID the service assigned; nothing until an install succeeded.
  std::optional<std::string> installationID() const;
  /// @brief The registration ID the service generated; nothing until an install succeeded.
  std::optional<std::string> installationRegistrationID() const;

  /// @brief Applies an install answer: "installationID" and "installationRegistrationID", both
  /// strings. False, and nothing changed, otherwise.
  bool loadFromJSON(const nlohmann::json& json);

  /// @name install
  /// @{

  /// Registers a new MQTT installation under the current user (POST "/installations" with
  /// "deviceType" "MQTT" and, in development mode only, "development": "true"). Errors: 306
  /// nobody logged in (before any request); 701 (409); 510 (404); 202 an unreadable answer; and
  /// the errors of every exchange.
  static Result<Ptr> installSynchronous(bool developmentMode = false) {
    return detail::runSync(installNewRoutine(developmentMode));
  }
  static void installWithBlock(bool developmentMode, InstallationBlock block,
                               JovCancellation cancel = {}) {
    auto created = installation();
    detail::runBlock(created, created->installRoutine(developmentMode), std::move(block), cancel);
  }
  static void installWithCallback(bool developmentMode, JovCallback callback,
                                  JovCancellation cancel = {}) {
    auto created = installation();
    detail::runCallback(created, created->installRoutine(developmentMode), std::move(callback),
                        cancel);
  }
  static std::future<Result<Ptr>> installAsync(bool developmentMode = false,
                                               JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, installNewRoutine(developmentMode), cancel);
  }
  /// @}

  /// @name endpoint
  /// @{

  /// Fetches the broker endpoint of this installation (GET
  /// "/installations/{installationID}/mqtt-endpoint"); the service answers with the same account
  /// every time. Errors: 306 nobody logged in, 710 not installed (both before any request); 710
  /// (404: unknown, or another user's); 204 (400: not an MQTT installation); 202 an unreadable
  /// answer; a service without a broker answers 503, passed on as it is.
  Result<JovMQTTEndpoint> endpointSynchronous() { return detail::runSync(endpointRoutine()); }
  void endpoint(EndpointBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), endpointRoutine(), std::move(block), cancel);
  }
  void endpoint(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), endpointRoutine(), std::move(callback), cancel);
  }
  std::future<Result<JovMQTTEndpoint>> endpointAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), endpointRoutine(), cancel);
  }
  /// @}

  /// @name uninstall
  /// @{

  /// Removes the installation (DELETE "/installations/MQTT:{registrationID}"); the broker
  /// account goes with it. The IDs are kept. Errors: 306 nobody logged in, 710 not installed
  /// (before any request); 710 (404), 203 (401), 509 (400).
  Result<void> uninstallSynchronous() { return detail::runSync(uninstallRoutine()); }
  void uninstall(JovBlock<> block, JovCancellation cancel = {}) {
    detail::runBlock(self(), uninstallRoutine(), std::move(block), cancel);
  }
  void uninstall(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), uninstallRoutine(), std::move(callback), cancel);
  }
  std::future<Result<void>> uninstallAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), uninstallRoutine(), cancel);
  }
  /// @}

 private:
  detail::Routine<void> installRoutine(bool developmentMode);
  static detail::Routine<Ptr> installNewRoutine(bool developmentMode);
  detail::Routine<JovMQTTEndpoint> endpointRoutine();
  detail::Routine<void> uninstallRoutine();
  Ptr self() { return shared_from_this(); }

  mutable std::mutex mutex_;  // the IDs are read by any thread while an install writes them
  std::optional<std::string> installationID_;
  std::optional<std::string> registrationID_;
};

}  // namespace jov
