#pragma once
/// @file
/// @brief JovPushInstallation: this device's push token registered under the current user.

#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "jov/async.hpp"
#include "jov/cancellation.hpp"
#include "jov/detail/forms.hpp"
#include "jov/error.hpp"
#include "jov/result.hpp"

namespace jov {

/// @brief The error handler of the uninstall exchange: 400 gives 509, 401 gives 203, 404 gives
/// 710; every other status gives 103.
class JovPushInstallationErrorHandler : public JovErrorHandlerBase {
 public:
  JovPushInstallationErrorHandler();
};

/// @brief The registration of this device's push token with the service, under the current user.
///
/// The token is given either as bytes (sent as two upper-case hex digits per byte) or taken from
/// Jov::deviceToken() with Jov::isDevelopmentMode() (the forms without a token argument). The
/// only state kept is the installation ID the service assigns.
///
/// @code
/// auto installed = jov::JovPushInstallation::installSynchronousWithDeviceToken(bytes, false);
/// if (installed) std::cout << *installed.value()->installationID() << "\n";
/// @endcode
class JovPushInstallation : public std::enable_shared_from_this<JovPushInstallation> {
 public:
  /// @brief Installations are held by std::shared_ptr.
  using Ptr = std::shared_ptr<JovPushInstallation>;
  /// @brief A device token as the platform hands it over; nothing stands for "no token".
  using TokenData = std::optional<std::vector<std::uint8_t>>;
  /// @brief Blocks receive the installation, then the error.
  using InstallationBlock = JovBlock<Ptr>;

  /// @brief Lets the factory use std::make_shared; not usable outside the class.
  struct Key {
   private:
    friend class JovPushInstallation;
    Key() = default;
  };
  /// @brief Made by installation() and by the class forms.
  explicit JovPushInstallation(Key) {}
  JovPushInstallation(const JovPushInstallation&) = delete;
  JovPushInstallation& operator=(const JovPushInstallation&) = delete;

  /// @brief A new installation, not yet installed.
  static Ptr installation();

  /// @brief The ID the service assigned; nothing until an install succeeded.
  std::optional<std::string> installationID() const;

  /// @brief Applies an answer of the service: "installationID" (other keys are ignored). False,
  /// and nothing changed, when the value is not an object or "installationID" is not a string.
  bool loadFromJSON(const nlohmann::json& json);

  /// @name install with a token given as bytes
  /// @{

  /// Registers the token (POST "/installations" with "installationRegistrationID", "deviceType"
  /// "IOS" and, in development mode only, "development": "true"). Raises std::invalid_argument
  /// "deviceToken must not nil" without a token. Errors: 306 nobody logged in, 709 an empty token
  /// (both before any request); 701 the token is installed already (409); 510 (404); 202 an
  /// unreadable answer; and the errors of every exchange. The block and delegate receive the
  /// installation, then the error; the synchronous form and the future give the installation.
  static Result<Ptr> installSynchronousWithDeviceToken(const TokenData& deviceToken,
                                                       bool developmentMode) {
    return detail::runSync(installNewRoutine(developmentMode, checkedToken(deviceToken)));
  }
  static void installWithDeviceToken(const TokenData& deviceToken, bool developmentMode,
                                     InstallationBlock block, JovCancellation cancel = {}) {
    auto created = installation();
    detail::runBlock(created, created->installRoutine(developmentMode, checkedToken(deviceToken)),
                     std::move(block), cancel);
  }
  static void installWithDeviceToken(const TokenData& deviceToken, bool developmentMode,
                                     JovCallback callback, JovCancellation cancel = {}) {
    auto created = installation();
    detail::runCallback(created,
                        created->installRoutine(developmentMode, checkedToken(deviceToken)),
                        std::move(callback), cancel);
  }
  static std::future<Result<Ptr>> installWithDeviceTokenAsync(const TokenData& deviceToken,
                                                              bool developmentMode,
                                                              JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, installNewRoutine(developmentMode, checkedToken(deviceToken)),
                             cancel);
  }
  /// @}

  /// @name install with the stored token (class forms)
  /// @{

  /// As installing with a token, with Jov::deviceToken() and Jov::isDevelopmentMode() read when
  /// the exchange starts: no stored token gives 709.
  static Result<Ptr> installSynchronous() { return detail::runSync(installStoredNewRoutine()); }
  static void installWithBlock(InstallationBlock block, JovCancellation cancel = {}) {
    auto created = installation();
    detail::runBlock(created, created->installStoredRoutine(), std::move(block), cancel);
  }
  static void installWithCallback(JovCallback callback, JovCancellation cancel = {}) {
    auto created = installation();
    detail::runCallback(created, created->installStoredRoutine(), std::move(callback), cancel);
  }
  static std::future<Result<Ptr>> installAsync(JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, installStoredNewRoutine(), cancel);
  }
  /// @}

  /// @name install this installation with the stored token
  /// @{

  /// As the class forms, on this installation: its installationID() is set on success and left
  /// as it was on failure.
  Result<void> installSynchronousWithError() { return detail::runSync(installStoredRoutine()); }
  void install(InstallationBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), installStoredRoutine(), std::move(block), cancel);
  }
  void install(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), installStoredRoutine(), std::move(callback), cancel);
  }
  std::future<Result<void>> installInstanceAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), installStoredRoutine(), cancel);
  }
  /// @}

  /// @name uninstall with a token given as bytes
  /// @{

  /// Removes the token's installation (DELETE "/installations/IOS:TOKEN"); only a 204 answer is
  /// success. Raises std::invalid_argument "deviceToken must not nil" without a token. Errors:
  /// 306 nobody logged in, 709 an empty token (before any request); then by the answer's status
  /// through JovPushInstallationErrorHandler (400: 509, 401: 203, 404: 710, any other: 103), the
  /// errors that carry a code of their own (101, 201) unchanged. The block and delegate receive
  /// an installation made for the call, then the error.
  static Result<void> uninstallSynchronousWithDeviceToken(const TokenData& deviceToken) {
    return detail::runSync(uninstallRoutine(checkedToken(deviceToken)));
  }
  static void uninstallWithDeviceToken(const TokenData& deviceToken, InstallationBlock block,
                                       JovCancellation cancel = {}) {
    detail::runBlock(installation(), uninstallRoutine(checkedToken(deviceToken)), std::move(block),
                     cancel);
  }
  static void uninstallWithDeviceToken(const TokenData& deviceToken, JovCallback callback,
                                       JovCancellation cancel = {}) {
    detail::runCallback(installation(), uninstallRoutine(checkedToken(deviceToken)),
                        std::move(callback), cancel);
  }
  static std::future<Result<void>> uninstallWithDeviceTokenAsync(const TokenData& deviceToken,
                                                                 JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, uninstallRoutine(checkedToken(deviceToken)), cancel);
  }
  /// @}

  /// @name uninstall with the stored token
  /// @{

  /// As uninstalling with a token, with Jov::deviceToken(): no stored token gives 709. The block
  /// and delegate receive the error alone.
  static Result<void> uninstallSynchronous() { return detail::runSync(uninstallStoredRoutine()); }
  static void uninstallWithBlock(JovBlock<> block, JovCancellation cancel = {}) {
    detail::runBlock(nullptr, uninstallStoredRoutine(), std::move(block), cancel);
  }
  static void uninstallWithCallback(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(nullptr, uninstallStoredRoutine(), std::move(callback), cancel);
  }
  static std::future<Result<void>> uninstallAsync(JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, uninstallStoredRoutine(), cancel);
  }
  /// @}

 private:
  // The token as the exchanges send it; raises "deviceToken must not nil" on the caller's thread.
  static std::string checkedToken(const TokenData& deviceToken);

  detail::Routine<void> installRoutine(bool developmentMode, std::string hexToken);
  detail::Routine<void> installStoredRoutine();
  static detail::Routine<Ptr> installNewRoutine(bool developmentMode, std::string hexToken);
  static detail::Routine<Ptr> installStoredNewRoutine();
  static detail::Routine<void> uninstallRoutine(std::string hexToken);
  static detail::Routine<void> uninstallStoredRoutine();
  Ptr self() { return shared_from_this(); }

  mutable std::mutex mutex_;  // installationID_ is read by any thread while an install writes it
  std::optional<std::string> installationID_;
};

}  // namespace jov
