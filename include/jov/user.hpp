#pragma once
/// @file
/// @brief JovUser: an application user, the current user, login and account maintenance.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "jov/async.hpp"
#include "jov/cancellation.hpp"
#include "jov/detail/forms.hpp"
#include "jov/detail/task.hpp"
#include "jov/result.hpp"
#include "jov/social_account.hpp"
#include "jov/user_builder.hpp"

namespace jov {

class JovBucket;
class JovGroup;
class JovTopic;
template <class T>
struct JovListResult;
namespace detail {
struct UserAccess;
}

/// @brief How a password-reset request reaches the user.
enum JovNotificationMethod : std::int32_t {
  JovNotificationMethodEmail = 0,  ///< @brief A link by e-mail.
  JovNotificationMethodSMS = 1,    ///< @brief A link by SMS.
  JovNotificationMethodSMSPin =
      2,  ///< @brief A PIN code by SMS (complete with completeResetPassword).
};

/// @brief One application user; the logged-in one is the current user.
///
/// Users are held by std::shared_ptr and made by the factories; two users are equal when their
/// user IDs are. Operations that need a user pass it on to asynchronous work, which keeps it
/// alive until its completion ran.
class JovUser : public std::enable_shared_from_this<JovUser> {
 public:
  /// @brief Time points of the user's dates.
  using TimePoint = std::chrono::system_clock::time_point;
  /// @brief A user.
  using Ptr = std::shared_ptr<JovUser>;
  /// @brief Blocks that receive a user (or nullptr) and the error.
  using UserBlock = JovBlock<Ptr>;
  /// @brief A list of groups.
  using Groups = std::vector<std::shared_ptr<JovGroup>>;

  /// @brief Lets the factories use std::make_shared; not usable outside the class.
  struct Key {
   private:
    friend class JovUser;
    friend struct detail::UserAccess;
    Key() = default;
  };
  /// @brief Made by the factories only.
  explicit JovUser(Key);
  JovUser(const JovUser&) = delete;
  JovUser& operator=(const JovUser&) = delete;

  // ------------------------------------------------------------------ factories

  /// @brief An unregistered user with a login name.
  static Ptr userWithUsername(const std::string& username, const std::string& password);
  /// @brief An unregistered user with an e-mail address.
  static Ptr userWithEmailAddress(const std::string& emailAddress, const std::string& password);
  /// @brief An unregistered user with a phone number.
  static Ptr userWithPhoneNumber(const std::string& phoneNumber, const std::string& password);
  /// @brief An unregistered user with a login name and an e-mail address.
  static Ptr userWithUsernameAndEmailAddress(const std::string& username,
                                             const std::string& emailAddress,
                                             const std::string& password);
  /// @brief An unregistered user with a login name and a phone number.
  static Ptr userWithUsernameAndPhoneNumber(const std::string& username,
                                            const std::string& phoneNumber,
                                            const std::string& password);
  /// @brief An unregistered user with an e-mail address and a phone number.
  static Ptr userWithEmailAddressAndPhoneNumber(const std::string& emailAddress,
                                                const std::string& phoneNumber,
                                                const std::string& password);
  /// @brief An unregistered user with a login name, an e-mail address and a phone number.
  static Ptr userWithUsernameAndEmailAddressAndPhoneNumber(const std::string& username,
                                                           const std::string& emailAddress,
                                                           const std::string& phoneNumber,
                                                           const std::string& password);
  /// @brief The user with this ID; nothing is fetched.
  static Ptr userWithID(const std::string& userID);
  /// @brief The user of a URI "jovcloud://users/ID"; nullptr for any other URI.
  static Ptr userWithURI(const std::string& uri);
  /// @brief The user of a credential dictionary; nullptr when "userID", "accessToken" or
  /// "accesstokenExpiresAt" is missing or mistyped.
  static Ptr userWithCredentialDictionary(const nlohmann::json& credentials);

  // ------------------------------------------------------------------ the current user

  /// @brief The logged-in user, or nullptr.
  static Ptr currentUser();
  /// @brief Whether a user is logged in.
  static bool loggedIn();
  /// @brief Logs the current user out and deletes the stored credentials.
  static void logOut();

  /// @name authenticateWithStoredCredentials
  /// @{

  /// Logs in with the credentials a former login stored; no request is made.
  /// Errors: 330 when nothing is stored; 331 for a stale or foreign record (it is deleted).
  /// The block receives the user, then the error; it is required ("completion can not be nil").
  static Result<Ptr> authenticateWithStoredCredentialsSynchronous();
  static void authenticateWithStoredCredentials(UserBlock block, JovCancellation cancel = {}) {
    detail::runClassBlock(storedCredentialsRoutine(), std::move(block), cancel);
  }
  static std::future<Result<Ptr>> authenticateWithStoredCredentialsAsync(
      JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, storedCredentialsRoutine(), cancel);
  }
  /// @}

  // ------------------------------------------------------------------ attributes

  /// @brief The service's user ID; empty until registered.
  std::string userID() const { return uuid_; }
  /// @brief The login name.
  const std::string& username() const { return username_; }
  /// @brief The display name.
  const std::string& displayName() const { return displayName_; }
  /// @brief Sets the display name (sent by save).
  void setDisplayName(const std::string& displayName) { displayName_ = displayName; }
  /// @brief The e-mail address.
  const std::string& email() const { return email_; }
  /// @brief A new e-mail address waiting for verification.
  const std::string& pendingEmail() const { return pendingEmail_; }
  /// @brief The phone number ("+" and digits, or local digits used with country()).
  const std::string& phoneNumber() const { return phoneNumber_; }
  /// @brief A new phone number waiting for verification.
  const std::string& pendingPhoneNumber() const { return pendingPhoneNumber_; }
  /// @brief The two-letter country code.
  const std::string& country() const { return country_; }
  /// @brief Sets the country code (sent by save).
  void setCountry(const std::string& country) { country_ = country; }
  /// @brief The locale as a BCP 47 tag ("ja-JP"), or empty.
  const std::string& locale() const { return locale_; }
  /// @brief Sets the locale; "_" separators are read as "-".
  void setLocale(const std::string& locale);
  /// @brief When the user was created, when known.
  std::optional<TimePoint> created() const { return created_; }
  /// @brief When the user was last modified, when known.
  std::optional<TimePoint> modified() const { return modified_; }
  /// @brief Whether the e-mail address is verified.
  bool emailVerified() const { return emailVerified_; }
  /// @brief Whether the phone number is verified.
  bool phoneVerified() const { return phoneVerified_; }
  /// @brief Whether the service disabled the account.
  bool disabled() const { return disabled_; }
  /// @brief Whether the password was changed locally and not yet used to log in.
  bool passwordChanged() const { return passwordChanged_.load(); }
  /// @brief Whether optional fields are validated before registration.
  bool validateFields() const { return validateFields_; }
  /// @brief Switches the validation of optional fields.
  void setValidateFields(bool validate) { validateFields_ = validate; }
  /// @brief The last validation error, if any.
  const std::optional<JovError>& validationError() const { return validationError_; }
  /// @brief The linked social accounts by provider.
  const std::map<JovSocialNetwork, JovSocialAccountInfo>& linkedSocialAccounts() const {
    return linkedSocialAccounts_;
  }
  /// @brief Whether an account of this provider is linked.
  bool isLinkedWithSocialProvider(JovSocialNetwork provider) const;

  /// @brief The access token of the logged-in user; empty for other users.
  std::string accessToken() const;
  /// @brief The refresh token, if the service issued one.
  std::string refreshToken() const;
  /// @brief When the access token expires; nothing after log-out.
  std::optional<TimePoint> accessTokenExpiresAt() const;
  /// @brief "access_token", "expires_at" (milliseconds since 1970) and "refresh_token" (when held).
  nlohmann::json accessTokenDictionary() const;

  /// @brief "jovcloud://users/ID".
  std::string objectURI() const;
  /// @brief The owner token of things: "UserID:ID".
  std::string thingOwnerID() const;
  /// @brief The base path of the user's topics: "/users/ID/topics".
  std::string topicBaseURI() const;

  /// @brief True when the user has no login name, e-mail or phone and no "_hasPassword" field.
  ///
  /// "_hasPassword" makes the user a full user whatever its value, even false.
  bool isPseudoUser() const;

  // ------------------------------------------------------------------ custom fields

  /// @brief Sets a custom field when validate() accepts it; false when nothing was stored.
  bool setObject(const nlohmann::json& value, const std::string& key);
  /// @brief A custom field, or nothing.
  std::optional<nlohmann::json> getObjectForKey(const std::string& key) const;
  /// @brief Whether a custom field is set.
  bool hasObject(const std::string& key) const;
  /// @brief Removes a custom field.
  void removeObjectForKey(const std::string& key);
  /// @brief Whether a custom field may be set: the key is not empty, does not begin with "_"
  /// and is not "internalUserID", and the value serialises as JSON.
  bool validate(const nlohmann::json& value, const std::string& key) const;
  /// @brief The custom fields (a JSON object).
  const nlohmann::json& customInfo() const { return customInfo_; }

  // ------------------------------------------------------------------ JSON forms

  /// @brief Reads a user record of the service; custom fields and linked accounts are
  /// replaced, other fields only when their key is present (a null value counts as absent).
  /// False, and nothing changed, when the record is not an object or a known key has another
  /// type than the service sends.
  bool loadFromJSON(const nlohmann::json& record);
  /// @brief The attributes save sends: the custom fields, "country", "displayName", "locale".
  nlohmann::json uploadAttributes() const;
  /// @brief The persisted form of a logged-in user (no password, no custom fields).
  nlohmann::json credentialDictionary() const;
  /// @brief A multi-line text of the fields, for logs.
  std::string describe() const;

  /// @brief Equal when the user IDs are equal.
  bool operator==(const JovUser& other) const { return uuid_ == other.uuid_; }

  // ------------------------------------------------------------------ registration and login
  //
  // Every operation has four forms: xSynchronous blocks and returns the result; x(..., block)
  // and x(..., JovCallback) run it on the library's engine and deliver on the main queue; xAsync
  // gives a future ready on a worker. Every asynchronous form takes an optional JovCancellation.
  // Errors common to every exchange: 101 (not begun), 201 (no connection), 202 (an answer that
  // cannot be read), 203 (token refused), and 0 with the service's "http_status",
  // "server_code" and "server_message" for a refusal the operation does not map.

  /// @name performRegistration
  /// @{

  /// Registers the user (POST "/users"), then logs it in: it becomes the current user and its
  /// credentials are stored. Logs out first.
  /// Errors: 306 without a password or an identifier; 305 / 308 for an invalid e-mail address or
  /// phone number when validateFields is on (also kept in validationError); 503 when the
  /// identifier is taken ("USER_ALREADY_EXISTS"); and the login's errors.
  /// The block and delegate receive the user, then the error.
  Result<void> performRegistrationSynchronous() { return detail::runSync(registrationRoutine()); }
  void performRegistration(UserBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), registrationRoutine(), std::move(block), cancel);
  }
  void performRegistration(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), registrationRoutine(), std::move(callback), cancel);
  }
  std::future<Result<void>> performRegistrationAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), registrationRoutine(), cancel);
  }
  /// @}

  /// @name registerAsPseudoUser
  /// @{

  /// Registers a user without identifiers or password (POST "/users") and makes it current; its
  /// token never expires and nothing is stored. Logs out first.
  /// Errors: the fields' validation errors; 202 when the answer has no "_accessToken".
  /// The block (required) and delegate receive the new user, then the error.
  static Result<Ptr> registerAsPseudoUserSynchronous(const JovUserFields& userFields) {
    return detail::runSync(pseudoRegistrationRoutine(userFields));
  }
  static void registerAsPseudoUser(const JovUserFields& userFields, UserBlock block,
                                   JovCancellation cancel = {}) {
    detail::runClassBlock(pseudoRegistrationRoutine(userFields), std::move(block), cancel);
  }
  static void registerAsPseudoUser(const JovUserFields& userFields, JovCallback callback,
                                   JovCancellation cancel = {}) {
    detail::runCallback(nullptr, pseudoRegistrationRoutine(userFields), std::move(callback),
                        cancel);
  }
  static std::future<Result<Ptr>> registerAsPseudoUserAsync(const JovUserFields& userFields,
                                                            JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, pseudoRegistrationRoutine(userFields), cancel);
  }
  /// @}

  /// @name authenticate
  /// @{

  /// Logs in with a login name, e-mail address or international phone number and a password
  /// (POST "/oauth2/token", then the user's record is read and the credentials stored).
  /// Logs out first, so a failed attempt leaves no current user. Errors before any request: 304
  /// invalid password; 307 an identifier that is none of the three. The block (required) and
  /// delegate receive the user, then the error.
  static Result<Ptr> authenticateSynchronous(const std::string& identifier,
                                             const std::string& password) {
    return detail::runSync(passwordLoginRoutine(identifier, password));
  }
  static void authenticate(const std::string& identifier, const std::string& password,
                           UserBlock block, JovCancellation cancel = {}) {
    detail::runClassBlock(passwordLoginRoutine(identifier, password), std::move(block), cancel);
  }
  static void authenticate(const std::string& identifier, const std::string& password,
                           JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(nullptr, passwordLoginRoutine(identifier, password), std::move(callback),
                        cancel);
  }
  static std::future<Result<Ptr>> authenticateAsync(const std::string& identifier,
                                                    const std::string& password,
                                                    JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, passwordLoginRoutine(identifier, password), cancel);
  }
  /// @}

  /// @name authenticateWithLocalPhoneNumber
  /// @{

  /// Logs in with a local phone number and its two-letter country code ("PHONE:CC-NUMBER").
  /// Errors before any request: 316 invalid local number, 304 invalid password, 315 invalid
  /// country code; then those of authenticate.
  static Result<Ptr> authenticateWithLocalPhoneNumberSynchronous(const std::string& phoneNumber,
                                                                 const std::string& password,
                                                                 const std::string& countryCode) {
    return detail::runSync(localPhoneLoginRoutine(phoneNumber, password, countryCode));
  }
  static void authenticateWithLocalPhoneNumber(const std::string& phoneNumber,
                                               const std::string& password,
                                               const std::string& countryCode, UserBlock block,
                                               JovCancellation cancel = {}) {
    detail::runClassBlock(localPhoneLoginRoutine(phoneNumber, password, countryCode),
                          std::move(block), cancel);
  }
  static void authenticateWithLocalPhoneNumber(const std::string& phoneNumber,
                                               const std::string& password,
                                               const std::string& countryCode, JovCallback callback,
                                               JovCancellation cancel = {}) {
    detail::runCallback(nullptr, localPhoneLoginRoutine(phoneNumber, password, countryCode),
                        std::move(callback), cancel);
  }
  static std::future<Result<Ptr>> authenticateWithLocalPhoneNumberAsync(
      const std::string& phoneNumber, const std::string& password, const std::string& countryCode,
      JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, localPhoneLoginRoutine(phoneNumber, password, countryCode),
                             cancel);
  }
  /// @}

  /// @name authenticateWithToken
  /// @{

  /// Logs in with an access token obtained elsewhere (GET "/users/me" with that token), and
  /// optionally its expiry and refresh token; the user becomes current and is stored.
  /// Raises std::invalid_argument: "token must not nil or empty"; with a refresh token also
  /// "refreshToken must not nil or empty" and "expiresAt must not nil".
  /// Errors: 202 when the answer is not a user record with an ID.
  static Result<Ptr> authenticateWithTokenSynchronous(const std::string& token) {
    return detail::runSync(tokenLoginRoutine(checkedToken(token), std::nullopt, {}));
  }
  static Result<Ptr> authenticateWithTokenSynchronous(const std::string& token,
                                                      TimePoint expiresAt) {
    return detail::runSync(tokenLoginRoutine(checkedToken(token), expiresAt, {}));
  }
  static Result<Ptr> authenticateWithTokenSynchronous(const std::string& token,
                                                      std::optional<TimePoint> expiresAt,
                                                      const std::string& refreshToken) {
    checkTokenArguments(token, expiresAt, refreshToken);
    return detail::runSync(tokenLoginRoutine(token, expiresAt, refreshToken));
  }
  static void authenticateWithToken(const std::string& token, UserBlock block,
                                    JovCancellation cancel = {}) {
    detail::runClassBlock(tokenLoginRoutine(checkedToken(token), std::nullopt, {}),
                          std::move(block), cancel);
  }
  static void authenticateWithToken(const std::string& token, TimePoint expiresAt, UserBlock block,
                                    JovCancellation cancel = {}) {
    detail::runClassBlock(tokenLoginRoutine(checkedToken(token), expiresAt, {}), std::move(block),
                          cancel);
  }
  static void authenticateWithToken(const std::string& token, std::optional<TimePoint> expiresAt,
                                    const std::string& refreshToken, UserBlock block,
                                    JovCancellation cancel = {}) {
    checkTokenArguments(token, expiresAt, refreshToken);
    detail::runClassBlock(tokenLoginRoutine(token, expiresAt, refreshToken), std::move(block),
                          cancel);
  }
  static void authenticateWithToken(const std::string& token, JovCallback callback,
                                    JovCancellation cancel = {}) {
    detail::runCallback(nullptr, tokenLoginRoutine(checkedToken(token), std::nullopt, {}),
                        std::move(callback), cancel);
  }
  static void authenticateWithToken(const std::string& token, TimePoint expiresAt,
                                    JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(nullptr, tokenLoginRoutine(checkedToken(token), expiresAt, {}),
                        std::move(callback), cancel);
  }
  static void authenticateWithToken(const std::string& token, std::optional<TimePoint> expiresAt,
                                    const std::string& refreshToken, JovCallback callback,
                                    JovCancellation cancel = {}) {
    checkTokenArguments(token, expiresAt, refreshToken);
    detail::runCallback(nullptr, tokenLoginRoutine(token, expiresAt, refreshToken),
                        std::move(callback), cancel);
  }
  static std::future<Result<Ptr>> authenticateWithTokenAsync(const std::string& token,
                                                             JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, tokenLoginRoutine(checkedToken(token), std::nullopt, {}),
                             cancel);
  }
  static std::future<Result<Ptr>> authenticateWithTokenAsync(const std::string& token,
                                                             TimePoint expiresAt,
                                                             JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, tokenLoginRoutine(checkedToken(token), expiresAt, {}),
                             cancel);
  }
  static std::future<Result<Ptr>> authenticateWithTokenAsync(const std::string& token,
                                                             std::optional<TimePoint> expiresAt,
                                                             const std::string& refreshToken,
                                                             JovCancellation cancel = {}) {
    checkTokenArguments(token, expiresAt, refreshToken);
    return detail::runFuture(nullptr, tokenLoginRoutine(token, expiresAt, refreshToken), cancel);
  }
  /// @}

  /// @name putIdentityData
  /// @{

  /// Gives the logged-in pseudo user identifiers and a password (POST "/users/me"), after
  /// reading its record again. Errors: 327 when the user is not the logged-in one; the identity
  /// data's and fields' validation errors; 326 a local phone number without a country; 304
  /// invalid password; 306 when the user is not a pseudo user; 503 identifier taken; 324 user
  /// not found. The block and delegate receive the user, then the error.
  Result<void> putIdentityDataSynchronous(const JovIdentityData& identityData,
                                          const JovUserFields& userFields,
                                          const std::string& password) {
    return detail::runSync(putIdentityRoutine(identityData, userFields, password));
  }
  void putIdentityData(const JovIdentityData& identityData, const JovUserFields& userFields,
                       const std::string& password, UserBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), putIdentityRoutine(identityData, userFields, password),
                     std::move(block), cancel);
  }
  void putIdentityData(const JovIdentityData& identityData, const JovUserFields& userFields,
                       const std::string& password, JovCallback callback,
                       JovCancellation cancel = {}) {
    detail::runCallback(self(), putIdentityRoutine(identityData, userFields, password),
                        std::move(callback), cancel);
  }
  std::future<Result<void>> putIdentityDataAsync(const JovIdentityData& identityData,
                                                 const JovUserFields& userFields,
                                                 const std::string& password,
                                                 JovCancellation cancel = {}) {
    return detail::runFuture(self(), putIdentityRoutine(identityData, userFields, password),
                             cancel);
  }
  /// @}

  // ------------------------------------------------------------------ account maintenance

  /// @name refresh
  /// @{

  /// Reads the user's record (GET "/users/ID"); the logged-in user's credentials are stored
  /// again. Errors: 501 when the user has no ID; 202 when the record cannot be read (the user is
  /// then left unchanged). The block and delegate receive the user, then the error.
  Result<void> refreshSynchronous() { return detail::runSync(refreshRoutine()); }
  void refresh(UserBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), refreshRoutine(), std::move(block), cancel);
  }
  void refresh(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), refreshRoutine(), std::move(callback), cancel);
  }
  std::future<Result<void>> refreshAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), refreshRoutine(), cancel);
  }
  /// @}

  /// @name save
  /// @{

  /// Sends the custom fields, country, display name and locale (POST "/users/ID").
  /// Errors: 501 when the user has no ID; 202 for an unreadable answer.
  Result<void> saveSynchronous() { return detail::runSync(saveRoutine()); }
  void save(UserBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), saveRoutine(), std::move(block), cancel);
  }
  void save(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), saveRoutine(), std::move(callback), cancel);
  }
  std::future<Result<void>> saveAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), saveRoutine(), cancel);
  }
  /// @}

  /// @name updateWithIdentityData
  /// @{

  /// Changes identifiers and attributes of the logged-in full user (POST "/users/me"), after
  /// reading its record again. Errors: 327 not the logged-in user; validation errors; 326 a
  /// local phone number without a country; 328 a pseudo user; 503 identifier taken; 324.
  Result<void> updateWithIdentityDataSynchronous(const JovIdentityData& identityData,
                                                 const JovUserFields& userFields) {
    return detail::runSync(updateIdentityRoutine(identityData, userFields));
  }
  void updateWithIdentityData(const JovIdentityData& identityData, const JovUserFields& userFields,
                              UserBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), updateIdentityRoutine(identityData, userFields), std::move(block),
                     cancel);
  }
  void updateWithIdentityData(const JovIdentityData& identityData, const JovUserFields& userFields,
                              JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), updateIdentityRoutine(identityData, userFields),
                        std::move(callback), cancel);
  }
  std::future<Result<void>> updateWithIdentityDataAsync(const JovIdentityData& identityData,
                                                        const JovUserFields& userFields,
                                                        JovCancellation cancel = {}) {
    return detail::runFuture(self(), updateIdentityRoutine(identityData, userFields), cancel);
  }
  /// @}

  /// @name updateWithUserFields
  /// @{

  /// Changes attributes of the logged-in full user; errors as updateWithIdentityData.
  Result<void> updateWithUserFieldsSynchronous(const JovUserFields& userFields) {
    return detail::runSync(updateIdentityRoutine(std::nullopt, userFields));
  }
  void updateWithUserFields(const JovUserFields& userFields, UserBlock block,
                            JovCancellation cancel = {}) {
    detail::runBlock(self(), updateIdentityRoutine(std::nullopt, userFields), std::move(block),
                     cancel);
  }
  void updateWithUserFields(const JovUserFields& userFields, JovCallback callback,
                            JovCancellation cancel = {}) {
    detail::runCallback(self(), updateIdentityRoutine(std::nullopt, userFields),
                        std::move(callback), cancel);
  }
  std::future<Result<void>> updateWithUserFieldsAsync(const JovUserFields& userFields,
                                                      JovCancellation cancel = {}) {
    return detail::runFuture(self(), updateIdentityRoutine(std::nullopt, userFields), cancel);
  }
  /// @}

  /// @name updatePassword
  /// @{

  /// Changes the password (PUT "/users/ID/password"), then logs in again with the new one.
  /// Errors: 304 invalid new password; 501 no ID; 302 when the new login fails (its error's
  /// information kept).
  Result<void> updatePasswordSynchronous(const std::string& fromPassword,
                                         const std::string& newPassword) {
    return detail::runSync(updatePasswordRoutine(fromPassword, newPassword));
  }
  void updatePassword(const std::string& fromPassword, const std::string& newPassword,
                      UserBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), updatePasswordRoutine(fromPassword, newPassword), std::move(block),
                     cancel);
  }
  void updatePassword(const std::string& fromPassword, const std::string& newPassword,
                      JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), updatePasswordRoutine(fromPassword, newPassword),
                        std::move(callback), cancel);
  }
  std::future<Result<void>> updatePasswordAsync(const std::string& fromPassword,
                                                const std::string& newPassword,
                                                JovCancellation cancel = {}) {
    return detail::runFuture(self(), updatePasswordRoutine(fromPassword, newPassword), cancel);
  }
  /// @}

  /// @name resetPassword
  /// @{

  /// Asks for a password reset of the user with this e-mail address or international phone
  /// number (POST "/users/EMAIL:…|PHONE:…/password/request-reset", anonymous); the older form
  /// takes an e-mail address and sends no body. Raises std::invalid_argument for an empty
  /// identifier ("userIdentifier can not be nil or empty string") or an unknown method
  /// ("Invalid notificationMethod value"). Errors: 329 (or 305 in the older form) for an
  /// identifier of neither kind; 329 "INVALID_INPUT_DATA"; 324 (404); 332 (409).
  static Result<void> resetPasswordSynchronous(const std::string& userIdentifier,
                                               JovNotificationMethod notificationMethod) {
    checkResetArguments(userIdentifier, notificationMethod);
    return detail::runSync(resetPasswordRoutine(userIdentifier, notificationMethod));
  }
  static Result<void> resetPasswordSynchronous(const std::string& emailAddress) {
    checkResetArguments(emailAddress);
    return detail::runSync(resetPasswordByEmailRoutine(emailAddress));
  }
  static void resetPassword(const std::string& userIdentifier,
                            JovNotificationMethod notificationMethod, JovBlock<> block,
                            JovCancellation cancel = {}) {
    checkResetArguments(userIdentifier, notificationMethod);
    detail::runClassBlock(resetPasswordRoutine(userIdentifier, notificationMethod),
                          std::move(block), cancel);
  }
  static void resetPassword(const std::string& emailAddress, JovBlock<> block,
                            JovCancellation cancel = {}) {
    checkResetArguments(emailAddress);
    detail::runClassBlock(resetPasswordByEmailRoutine(emailAddress), std::move(block), cancel);
  }
  static void resetPassword(const std::string& userIdentifier,
                            JovNotificationMethod notificationMethod, JovCallback callback,
                            JovCancellation cancel = {}) {
    checkResetArguments(userIdentifier, notificationMethod);
    detail::runCallback(nullptr, resetPasswordRoutine(userIdentifier, notificationMethod),
                        std::move(callback), cancel);
  }
  static void resetPassword(const std::string& emailAddress, JovCallback callback,
                            JovCancellation cancel = {}) {
    checkResetArguments(emailAddress);
    detail::runCallback(nullptr, resetPasswordByEmailRoutine(emailAddress), std::move(callback),
                        cancel);
  }
  static std::future<Result<void>> resetPasswordAsync(const std::string& userIdentifier,
                                                      JovNotificationMethod notificationMethod,
                                                      JovCancellation cancel = {}) {
    checkResetArguments(userIdentifier, notificationMethod);
    return detail::runFuture(nullptr, resetPasswordRoutine(userIdentifier, notificationMethod),
                             cancel);
  }
  static std::future<Result<void>> resetPasswordAsync(const std::string& emailAddress,
                                                      JovCancellation cancel = {}) {
    checkResetArguments(emailAddress);
    return detail::runFuture(nullptr, resetPasswordByEmailRoutine(emailAddress), cancel);
  }
  /// @}

  /// @name completeResetPassword
  /// @{

  /// Completes a reset with the PIN code sent by SMS, setting a new password when given (POST
  /// ".../password/complete-reset", anonymous). Errors before any request: 334 empty PIN, 329
  /// identifier of neither kind, 304 invalid password. From the service: 304 (password
  /// refused), 335 (same as the old one), 336 (password required), 334 (wrong PIN), 332
  /// (status), 337 (PIN expired).
  static Result<void> completeResetPasswordSynchronous(const std::string& userIdentifier,
                                                       const std::string& pinCode,
                                                       const std::optional<std::string>& password) {
    return detail::runSync(completeResetPasswordRoutine(userIdentifier, pinCode, password));
  }
  static void completeResetPassword(const std::string& userIdentifier, const std::string& pinCode,
                                    const std::optional<std::string>& password, JovBlock<> block,
                                    JovCancellation cancel = {}) {
    detail::runClassBlock(completeResetPasswordRoutine(userIdentifier, pinCode, password),
                          std::move(block), cancel);
  }
  static void completeResetPassword(const std::string& userIdentifier, const std::string& pinCode,
                                    const std::optional<std::string>& password,
                                    JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(nullptr, completeResetPasswordRoutine(userIdentifier, pinCode, password),
                        std::move(callback), cancel);
  }
  static std::future<Result<void>> completeResetPasswordAsync(
      const std::string& userIdentifier, const std::string& pinCode,
      const std::optional<std::string>& password, JovCancellation cancel = {}) {
    return detail::runFuture(
        nullptr, completeResetPasswordRoutine(userIdentifier, pinCode, password), cancel);
  }
  /// @}

  /// @name changeEmail
  /// @{

  /// Asks for a new e-mail address (PUT "/users/ID/email-address"); it stays pending until
  /// verified. Errors: 305 invalid address; 501 no ID; 311 any refusal of the service.
  Result<void> changeEmailSynchronous(const std::string& emailAddress) {
    return detail::runSync(changeEmailRoutine(emailAddress));
  }
  void changeEmail(const std::string& emailAddress, UserBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), changeEmailRoutine(emailAddress), std::move(block), cancel);
  }
  void changeEmail(const std::string& emailAddress, JovCallback callback,
                   JovCancellation cancel = {}) {
    detail::runCallback(self(), changeEmailRoutine(emailAddress), std::move(callback), cancel);
  }
  std::future<Result<void>> changeEmailAsync(const std::string& emailAddress,
                                             JovCancellation cancel = {}) {
    return detail::runFuture(self(), changeEmailRoutine(emailAddress), cancel);
  }
  /// @}

  /// @name changePhone
  /// @{

  /// Asks for a new phone number (PUT "/users/ID/phone-number"); it stays pending until
  /// verified. Errors: 308 invalid number; 501 no ID; 312 any refusal of the service.
  Result<void> changePhoneSynchronous(const std::string& phoneNumber) {
    return detail::runSync(changePhoneRoutine(phoneNumber));
  }
  void changePhone(const std::string& phoneNumber, UserBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), changePhoneRoutine(phoneNumber), std::move(block), cancel);
  }
  void changePhone(const std::string& phoneNumber, JovCallback callback,
                   JovCancellation cancel = {}) {
    detail::runCallback(self(), changePhoneRoutine(phoneNumber), std::move(callback), cancel);
  }
  std::future<Result<void>> changePhoneAsync(const std::string& phoneNumber,
                                             JovCancellation cancel = {}) {
    return detail::runFuture(self(), changePhoneRoutine(phoneNumber), cancel);
  }
  /// @}

  /// @name verifyPhoneNumber
  /// @{

  /// Verifies the phone number with the code sent by SMS (POST
  /// "/users/ID/phone-number/verify"). Errors: 501 no ID; 313 any refusal of the service.
  Result<void> verifyPhoneNumberSynchronous(const std::string& verificationCode) {
    return detail::runSync(verifyPhoneNumberRoutine(verificationCode));
  }
  void verifyPhoneNumber(const std::string& verificationCode, UserBlock block,
                         JovCancellation cancel = {}) {
    detail::runBlock(self(), verifyPhoneNumberRoutine(verificationCode), std::move(block), cancel);
  }
  void verifyPhoneNumber(const std::string& verificationCode, JovCallback callback,
                         JovCancellation cancel = {}) {
    detail::runCallback(self(), verifyPhoneNumberRoutine(verificationCode), std::move(callback),
                        cancel);
  }
  std::future<Result<void>> verifyPhoneNumberAsync(const std::string& verificationCode,
                                                   JovCancellation cancel = {}) {
    return detail::runFuture(self(), verifyPhoneNumberRoutine(verificationCode), cancel);
  }
  /// @}

  /// @name resendEmailVerification
  /// @{

  /// Sends the e-mail verification again (POST ".../email-address/resend-verification").
  /// Errors: 501 no ID.
  Result<void> resendEmailVerificationSynchronous() {
    return detail::runSync(resendEmailVerificationRoutine());
  }
  void resendEmailVerification(UserBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), resendEmailVerificationRoutine(), std::move(block), cancel);
  }
  void resendEmailVerification(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), resendEmailVerificationRoutine(), std::move(callback), cancel);
  }
  std::future<Result<void>> resendEmailVerificationAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), resendEmailVerificationRoutine(), cancel);
  }
  /// @}

  /// @name resendPhoneNumberVerification
  /// @{

  /// Sends the phone verification code again (POST ".../phone-number/resend-verification").
  /// Errors: 501 no ID.
  Result<void> resendPhoneNumberVerificationSynchronous() {
    return detail::runSync(resendPhoneNumberVerificationRoutine());
  }
  void resendPhoneNumberVerification(UserBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), resendPhoneNumberVerificationRoutine(), std::move(block), cancel);
  }
  void resendPhoneNumberVerification(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), resendPhoneNumberVerificationRoutine(), std::move(callback),
                        cancel);
  }
  std::future<Result<void>> resendPhoneNumberVerificationAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), resendPhoneNumberVerificationRoutine(), cancel);
  }
  /// @}

  /// @name delete
  /// @{

  /// Deletes the user on the service (DELETE "/users/ID"); then logs out, whichever user it
  /// was. Errors: 501 no ID.
  Result<void> deleteSynchronous() { return detail::runSync(deleteRoutine()); }
  void deleteWithBlock(UserBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), deleteRoutine(), std::move(block), cancel);
  }
  void deleteWithCallback(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), deleteRoutine(), std::move(callback), cancel);
  }
  std::future<Result<void>> deleteAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), deleteRoutine(), cancel);
  }
  /// @}

  // ------------------------------------------------------------------ lookup

  /// @name findUserByUsername, findUserByEmail, findUserByPhone
  /// @{

  /// The user with this login name, e-mail address or phone number (GET
  /// "/users/LOGIN_NAME:…", "EMAIL:…", "PHONE:…"). Errors before any request: 307, 305, 308 for
  /// an invalid value; 202 for an unreadable record. The block is required.
  static Result<Ptr> findUserByUsernameSynchronous(const std::string& username) {
    return detail::runSync(findUserRoutine(FindBy::Username, username));
  }
  static void findUserByUsername(const std::string& username, UserBlock block,
                                 JovCancellation cancel = {}) {
    detail::runClassBlock(findUserRoutine(FindBy::Username, username), std::move(block), cancel);
  }
  static void findUserByUsername(const std::string& username, JovCallback callback,
                                 JovCancellation cancel = {}) {
    detail::runCallback(nullptr, findUserRoutine(FindBy::Username, username), std::move(callback),
                        cancel);
  }
  static std::future<Result<Ptr>> findUserByUsernameAsync(const std::string& username,
                                                          JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, findUserRoutine(FindBy::Username, username), cancel);
  }
  static Result<Ptr> findUserByEmailSynchronous(const std::string& email) {
    return detail::runSync(findUserRoutine(FindBy::Email, email));
  }
  static void findUserByEmail(const std::string& email, UserBlock block,
                              JovCancellation cancel = {}) {
    detail::runClassBlock(findUserRoutine(FindBy::Email, email), std::move(block), cancel);
  }
  static void findUserByEmail(const std::string& email, JovCallback callback,
                              JovCancellation cancel = {}) {
    detail::runCallback(nullptr, findUserRoutine(FindBy::Email, email), std::move(callback),
                        cancel);
  }
  static std::future<Result<Ptr>> findUserByEmailAsync(const std::string& email,
                                                       JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, findUserRoutine(FindBy::Email, email), cancel);
  }
  static Result<Ptr> findUserByPhoneSynchronous(const std::string& phoneNumber) {
    return detail::runSync(findUserRoutine(FindBy::Phone, phoneNumber));
  }
  static void findUserByPhone(const std::string& phoneNumber, UserBlock block,
                              JovCancellation cancel = {}) {
    detail::runClassBlock(findUserRoutine(FindBy::Phone, phoneNumber), std::move(block), cancel);
  }
  static void findUserByPhone(const std::string& phoneNumber, JovCallback callback,
                              JovCancellation cancel = {}) {
    detail::runCallback(nullptr, findUserRoutine(FindBy::Phone, phoneNumber), std::move(callback),
                        cancel);
  }
  static std::future<Result<Ptr>> findUserByPhoneAsync(const std::string& phoneNumber,
                                                       JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, findUserRoutine(FindBy::Phone, phoneNumber), cancel);
  }
  /// @}

  // ------------------------------------------------------------------ buckets

  /// @brief The user's bucket of this name ("/users/ID/buckets/NAME"; nothing is fetched).
  std::shared_ptr<JovBucket> bucketWithName(const std::string& name);
  /// @brief The user's encrypted bucket of this name.
  std::shared_ptr<JovBucket> encryptedBucketWithName(const std::string& name);

  // ------------------------------------------------------------------ topics

  /// @brief The user's push topic of this name ("/users/ID/topics/NAME"; nothing is fetched).
  std::shared_ptr<JovTopic> topicWithName(const std::string& name);
  /// @brief One page of the user's topics, from the page the key names or from the first; see
  /// JovTopic::listTopicsSynchronous for the errors. The block receives the page, then the error.
  Result<JovListResult<std::shared_ptr<JovTopic>>> listTopicsSynchronous(
      std::optional<std::string> paginationKey = {});
  /// @brief The block form of listTopicsSynchronous.
  void listTopics(std::optional<std::string> paginationKey,
                  JovBlock<JovListResult<std::shared_ptr<JovTopic>>> block,
                  JovCancellation cancel = {});

  // ------------------------------------------------------------------ groups

  /// @name memberOfGroups
  /// @{

  /// The groups the user is a member of (GET "/groups/?is_member=USERID").
  /// Errors: 501 when the user has no ID; 324 user not found; 202 unreadable answer; and the
  /// errors of every exchange. The block and delegate receive the groups, then the error.
  Result<Groups> memberOfGroupsSynchronous() { return detail::runSync(memberOfGroupsRoutine()); }
  void memberOfGroups(JovBlock<Groups> block, JovCancellation cancel = {}) {
    detail::runBlock(shared_from_this(), memberOfGroupsRoutine(), std::move(block), cancel);
  }
  void memberOfGroups(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(shared_from_this(), memberOfGroupsRoutine(), std::move(callback), cancel);
  }
  std::future<Result<Groups>> memberOfGroupsAsync(JovCancellation cancel = {}) {
    return detail::runFuture(shared_from_this(), memberOfGroupsRoutine(), cancel);
  }
  /// @}

  /// @name ownerOfGroups
  /// @{

  /// The groups the user owns (GET "/groups/?owner=USERID"). Errors as memberOfGroups.
  Result<Groups> ownerOfGroupsSynchronous() { return detail::runSync(ownerOfGroupsRoutine()); }
  void ownerOfGroups(JovBlock<Groups> block, JovCancellation cancel = {}) {
    detail::runBlock(shared_from_this(), ownerOfGroupsRoutine(), std::move(block), cancel);
  }
  void ownerOfGroups(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(shared_from_this(), ownerOfGroupsRoutine(), std::move(callback), cancel);
  }
  std::future<Result<Groups>> ownerOfGroupsAsync(JovCancellation cancel = {}) {
    return detail::runFuture(shared_from_this(), ownerOfGroupsRoutine(), cancel);
  }
  /// @}

 private:
  friend struct detail::UserAccess;
  friend class JovUserBuilder;

  // One routine per operation; the public forms above run it.
  enum class FindBy { Username, Email, Phone };
  static detail::Routine<Ptr> storedCredentialsRoutine();
  detail::Routine<void> registrationRoutine();
  static detail::Routine<Ptr> pseudoRegistrationRoutine(JovUserFields userFields);
  detail::Routine<void> authenticateRoutine();
  static detail::Routine<Ptr> loginRoutine(Result<Ptr> user);
  static detail::Routine<Ptr> passwordLoginRoutine(std::string identifier, std::string password);
  static detail::Routine<Ptr> localPhoneLoginRoutine(std::string phoneNumber, std::string password,
                                                     std::string countryCode);
  static detail::Routine<Ptr> tokenLoginRoutine(std::string token,
                                                std::optional<TimePoint> expiresAt,
                                                std::string refreshToken);
  detail::Routine<void> putIdentityRoutine(JovIdentityData identityData, JovUserFields userFields,
                                           std::string password);
  detail::Routine<void> refreshRoutine();
  // loadFromJSON that tells whether any field took a new value. A whole record (the answer to a
  // refresh) also clears a pending address it does not name.
  bool loadRecord(const nlohmann::json& record, bool& changed, bool whole = false);
  detail::Routine<Groups> memberOfGroupsRoutine();
  detail::Routine<Groups> ownerOfGroupsRoutine();
  detail::Routine<void> saveRoutine();
  detail::Routine<void> updateIdentityRoutine(std::optional<JovIdentityData> identityData,
                                              JovUserFields userFields);
  detail::Routine<void> updatePasswordRoutine(std::string fromPassword, std::string newPassword);
  static detail::Routine<void> resetPasswordRoutine(std::string identifier,
                                                    JovNotificationMethod method);
  static detail::Routine<void> resetPasswordByEmailRoutine(std::string emailAddress);
  static detail::Routine<void> completeResetPasswordRoutine(std::string identifier,
                                                            std::string pinCode,
                                                            std::optional<std::string> password);
  detail::Routine<void> changeEmailRoutine(std::string emailAddress);
  detail::Routine<void> changePhoneRoutine(std::string phoneNumber);
  detail::Routine<void> verifyPhoneNumberRoutine(std::string verificationCode);
  detail::Routine<void> resendEmailVerificationRoutine();
  detail::Routine<void> resendPhoneNumberVerificationRoutine();
  detail::Routine<void> deleteRoutine();
  static detail::Routine<Ptr> findUserRoutine(FindBy kind, std::string value);

  // Misuse checks of the public forms: they raise std::invalid_argument on the caller's thread.
  static void checkToken(const std::string& token);
  static const std::string& checkedToken(const std::string& token) {
    checkToken(token);
    return token;
  }
  static void checkTokenArguments(const std::string& token,
                                  const std::optional<TimePoint>& expiresAt,
                                  const std::string& refreshToken);
  static void checkResetArguments(const std::string& identifier, JovNotificationMethod method);
  static void checkResetArguments(const std::string& emailAddress);

  Ptr self() { return shared_from_this(); }
  bool isLoggedInUser() const;
  void setTokens(std::string accessToken, std::string refreshToken,
                 std::optional<TimePoint> expiresAt);
  void setAccessToken(std::string accessToken);

  // Identity and attributes: used by one operation at a time (see DESIGN.md, Threads).
  std::atomic<bool> passwordChanged_{false};
  std::string uuid_, username_, displayName_, password_, email_, pendingEmail_;
  std::string phoneNumber_, pendingPhoneNumber_, country_, locale_;
  std::optional<TimePoint> created_, modified_;
  bool emailVerified_ = false, phoneVerified_ = false, disabled_ = false;
  bool validateFields_ = false;
  std::optional<JovError> validationError_;
  std::map<JovSocialNetwork, JovSocialAccountInfo> linkedSocialAccounts_;
  nlohmann::json customInfo_ = nlohmann::json::object();

  // Guards the tokens, which every request thread reads and a refresh replaces, and the fields
  // loadFromJSON writes while a refresh on another thread may store the credentials.
  mutable std::mutex mutex_;
  std::string accessToken_, refreshToken_;
  std::optional<TimePoint> accessTokenExpiresAt_;
};

}  // namespace jov

/// @brief Users hash by their user ID.
template <>
struct std::hash<jov::JovUser> {
  /// @brief The hash of the user ID.
  std::size_t operator()(const jov::JovUser& user) const noexcept {
    return std::hash<std::string>()(user.userID());
  }
};
