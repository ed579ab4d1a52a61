#pragma once
// What the users module shares between its source files: access to the user's private fields,
// date conversions, error mapping and the routines behind login, refresh and stored credentials.

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "jov/detail/task.hpp"
#include "jov/error.hpp"
#include "jov/request.hpp"
#include "jov/result.hpp"
#include "jov/user.hpp"

namespace jov::detail {

using TimePoint = JovUser::TimePoint;

// The service's media types of the user exchanges.
inline constexpr const char* kRegistrationRequest = "application/vnd.jov.RegistrationRequest+json";
inline constexpr const char* kRegistrationAndAuthorizationRequest =
    "application/vnd.jov.RegistrationAndAuthorizationRequest+json";
inline constexpr const char* kUserUpdateRequest = "application/vnd.jov.UserUpdateRequest+json";

// A token with less than this many seconds left is refreshed before the next request.
inline constexpr double kRefreshThresholdSeconds = 310.0;

struct UserAccess {
  static JovUser::Ptr create() { return std::make_shared<JovUser>(JovUser::Key{}); }
  static std::string& password(JovUser& u) { return u.password_; }
  static std::string& username(JovUser& u) { return u.username_; }
  static std::string& email(JovUser& u) { return u.email_; }
  static std::string& phoneNumber(JovUser& u) { return u.phoneNumber_; }
  static std::string& country(JovUser& u) { return u.country_; }
  static std::string& uuid(JovUser& u) { return u.uuid_; }
  static bool& phoneVerified(JovUser& u) { return u.phoneVerified_; }
  static bool& emailVerified(JovUser& u) { return u.emailVerified_; }
  static nlohmann::json& customInfo(JovUser& u) { return u.customInfo_; }
  static void setPasswordChanged(JovUser& u, bool changed) { u.passwordChanged_ = changed; }
  static void setValidationError(JovUser& u, std::optional<JovError> e) {
    u.validationError_ = std::move(e);
  }
  static void setTokens(JovUser& u, std::string access, std::string refresh,
                        std::optional<TimePoint> expiresAt) {
    u.setTokens(std::move(access), std::move(refresh), expiresAt);
  }
  static void setAccessToken(JovUser& u, std::string access) {
    u.setAccessToken(std::move(access));
  }
  static void setExpiresAt(JovUser& u, std::optional<TimePoint> expiresAt) {
    std::lock_guard lock(u.mutex_);
    u.accessTokenExpiresAt_ = expiresAt;
  }
  static void setRefreshToken(JovUser& u, std::string refresh) {
    std::lock_guard lock(u.mutex_);
    u.refreshToken_ = std::move(refresh);
  }
  static Routine<void> authenticate(JovUser& u) { return u.authenticateRoutine(); }
  // Clears the flag; true when it was set (the caller then logs in again).
  static bool takePasswordChanged(JovUser& u) { return u.passwordChanged_.exchange(false); }
  static bool passwordChanged(const JovUser& u) { return u.passwordChanged_.load(); }
  static Result<void> refresh(JovUser& u) { return runSync(u.refreshRoutine()); }
  static bool isLoggedInUser(const JovUser& u) { return u.isLoggedInUser(); }
};

// ------------------------------------------------------------------ dates

// Far enough to never expire, near enough for every clock representation.
TimePoint distantFuture();
// Milliseconds since 1970, clamped to the representable range.
TimePoint fromMillis(double millis);
std::int64_t toMillis(TimePoint t);
// Now plus a number of seconds, clamped (a huge "expires_in" reads as the distant future).
TimePoint expiryAfterSeconds(double seconds);
// The "expiresAt" of a token request: now plus Jov's access-token expiration in milliseconds,
// or nothing when that setting is 0 (or the library was not begun).
std::optional<std::int64_t> requestedTokenExpiry();

// ------------------------------------------------------------------ errors and requests

// The service's errorCode, upper-cased; empty when there is none.
std::string serverCodeOf(const JovError& error);
// An error of another code that keeps the original's user information.
JovError mappedError(int code, const JovError& from);
// A request for a path of the application with method, content type and JSON body.
JovRequest makeRequest(const std::string& path, std::int32_t method,
                       const char* contentType = nullptr);

// The country of the process locale (LC_ALL, LC_MESSAGES, LANG): "ja_JP.UTF-8" gives "JP";
// nothing for "C", "POSIX" or a locale without a territory.
std::optional<std::string> deviceCountryCode();
// "EMAIL:" or "PHONE:" and the identifier; nothing when it is neither an e-mail address nor an
// international phone number.
std::optional<std::string> prefixedUserIdentifier(const std::string& identifier);

// ------------------------------------------------------------------ session routines

// Makes the user current and installs the session hooks.
void makeCurrent(const JovUser::Ptr& user);
// Stores the current user's credentials: 501 without a current user with an ID.
Result<void> storeCurrentUserInfoSynchronous();
// Stores them and only logs a failure (a login still succeeds without a stored record).
void storeCurrentUserInfoOrLog();
// Reads the stored user; a stale or foreign record (331) is deleted.
Result<JovUser::Ptr> getStoredUserInfoSynchronous();
// The refresh-token exchange: the response ("access_token", "refresh_token", "expires_in").
Routine<nlohmann::json> refreshAccessTokenRoutine(std::string refreshToken);
// The refresh rule, run before every authenticated request.
Task<std::optional<JovError>> refreshTokenIfNeedRoutine();
// Waits until this many threads wait for a refresh in flight (tests only).
bool waitForRefreshWaiters(int count, std::chrono::milliseconds limit);

}  // namespace jov::detail
