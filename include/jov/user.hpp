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

namespace jov {

class JovGroup;
class JovIdentityData;
class JovUserFields;
class JovUserBuilder;
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

  /// @brief Logs in with the credentials a former login stored; no request is made.
  static Result<Ptr> authenticateWithStoredCredentialsSynchronous();
  /// @brief Block form; raises std::invalid_argument("completion can not be nil") without block.
  static void authenticateWithStoredCredentials(UserBlock block);
  /// @brief Future form.
  static std::future<Result<Ptr>> authenticateWithStoredCredentialsAsync();

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
  /// replaced, other fields only when their key is present. Ignored unless an object.
  void loadFromJSON(const nlohmann::json& record);
  /// @brief The attributes save sends: the custom fields, "country", "displayName", "locale".
  nlohmann::json uploadAttributes() const;
  /// @brief The persisted form of a logged-in user (no password, no custom fields).
  nlohmann::json credentialDictionary() const;
  /// @brief A multi-line text of the fields, for logs.
  std::string describe() const;

  /// @brief Equal when the user IDs are equal.
  bool operator==(const JovUser& other) const { return uuid_ == other.uuid_; }

  // ------------------------------------------------------------------ registration and login

  /// @brief Registers the user, then logs it in (it becomes the current user).
  Result<void> performRegistrationSynchronous();
  /// @brief Block form: the user and the error.
  void performRegistration(UserBlock block);
  /// @brief Delegate form: the user and the error.
  void performRegistration(JovCallback callback);
  /// @brief Future form.
  std::future<Result<void>> performRegistrationAsync();

  /// @brief Registers a pseudo user (no identifier, no password) and makes it current.
  static Result<Ptr> registerAsPseudoUserSynchronous(const JovUserFields& userFields);
  /// @brief Block form; raises std::invalid_argument("completion can not be nil") without block.
  static void registerAsPseudoUser(const JovUserFields& userFields, UserBlock block);
  /// @brief Delegate form.
  static void registerAsPseudoUser(const JovUserFields& userFields, JovCallback callback);
  /// @brief Future form.
  static std::future<Result<Ptr>> registerAsPseudoUserAsync(const JovUserFields& userFields);

  /// @brief Logs in with a login name, e-mail address or international phone number.
  static Result<Ptr> authenticateSynchronous(const std::string& identifier,
                                             const std::string& password);
  /// @brief Block form; raises std::invalid_argument("completion can not be nil") without block.
  static void authenticate(const std::string& identifier, const std::string& password,
                           UserBlock block);
  /// @brief Delegate form.
  static void authenticate(const std::string& identifier, const std::string& password,
                           JovCallback callback);
  /// @brief Future form.
  static std::future<Result<Ptr>> authenticateAsync(const std::string& identifier,
                                                    const std::string& password);

  /// @brief Logs in with a local phone number and its two-letter country code.
  static Result<Ptr> authenticateWithLocalPhoneNumberSynchronous(const std::string& phoneNumber,
                                                                 const std::string& password,
                                                                 const std::string& countryCode);
  /// @brief Block form; raises std::invalid_argument("completion can not be nil") without block.
  static void authenticateWithLocalPhoneNumber(const std::string& phoneNumber,
                                               const std::string& password,
                                               const std::string& countryCode, UserBlock block);
  /// @brief Delegate form.
  static void authenticateWithLocalPhoneNumber(const std::string& phoneNumber,
                                               const std::string& password,
                                               const std::string& countryCode,
                                               JovCallback callback);
  /// @brief Future form.
  static std::future<Result<Ptr>> authenticateWithLocalPhoneNumberAsync(
      const std::string& phoneNumber, const std::string& password, const std::string& countryCode);

  /// @brief Logs in with an access token obtained elsewhere; raises std::invalid_argument
  /// ("token must not nil or empty") for an empty token.
  static Result<Ptr> authenticateWithTokenSynchronous(const std::string& token);
  /// @brief The same, with the token's expiry.
  static Result<Ptr> authenticateWithTokenSynchronous(const std::string& token,
                                                      TimePoint expiresAt);
  /// @brief The same, with expiry and refresh token; raises std::invalid_argument
  /// ("refreshToken must not nil or empty", "expiresAt must not nil").
  static Result<Ptr> authenticateWithTokenSynchronous(const std::string& token,
                                                      std::optional<TimePoint> expiresAt,
                                                      const std::string& refreshToken);
  /// @brief Block form; raises std::invalid_argument("completion can not be nil") without block.
  static void authenticateWithToken(const std::string& token, UserBlock block);
  /// @brief Block form with expiry.
  static void authenticateWithToken(const std::string& token, TimePoint expiresAt, UserBlock block);
  /// @brief Block form with expiry and refresh token.
  static void authenticateWithToken(const std::string& token, std::optional<TimePoint> expiresAt,
                                    const std::string& refreshToken, UserBlock block);
  /// @brief Delegate form.
  static void authenticateWithToken(const std::string& token, JovCallback callback);
  /// @brief Delegate form with expiry.
  static void authenticateWithToken(const std::string& token, TimePoint expiresAt,
                                    JovCallback callback);
  /// @brief Delegate form with expiry and refresh token.
  static void authenticateWithToken(const std::string& token, std::optional<TimePoint> expiresAt,
                                    const std::string& refreshToken, JovCallback callback);
  /// @brief Future form.
  static std::future<Result<Ptr>> authenticateWithTokenAsync(const std::string& token);
  /// @brief Future form with expiry.
  static std::future<Result<Ptr>> authenticateWithTokenAsync(const std::string& token,
                                                             TimePoint expiresAt);
  /// @brief Future form with expiry and refresh token.
  static std::future<Result<Ptr>> authenticateWithTokenAsync(const std::string& token,
                                                             std::optional<TimePoint> expiresAt,
                                                             const std::string& refreshToken);

  /// @brief Gives the logged-in pseudo user identifiers and a password.
  Result<void> putIdentityDataSynchronous(const JovIdentityData& identityData,
                                          const JovUserFields& userFields,
                                          const std::string& password);
  /// @brief Block form: the user and the error.
  void putIdentityData(const JovIdentityData& identityData, const JovUserFields& userFields,
                       const std::string& password, UserBlock block);
  /// @brief Delegate form.
  void putIdentityData(const JovIdentityData& identityData, const JovUserFields& userFields,
                       const std::string& password, JovCallback callback);
  /// @brief Future form.
  std::future<Result<void>> putIdentityDataAsync(const JovIdentityData& identityData,
                                                 const JovUserFields& userFields,
                                                 const std::string& password);

  // ------------------------------------------------------------------ account maintenance

  /// @brief Reads the user's record from the service.
  Result<void> refreshSynchronous();
  /// @brief Block form.
  void refresh(UserBlock block, JovCancellation cancel = {});
  /// @brief Delegate form.
  void refresh(JovCallback callback, JovCancellation cancel = {});
  /// @brief Future form.
  std::future<Result<void>> refreshAsync(JovCancellation cancel = {});

  /// @brief Sends the custom fields, country, display name and locale.
  Result<void> saveSynchronous();
  /// @brief Block form.
  void save(UserBlock block);
  /// @brief Delegate form.
  void save(JovCallback callback);
  /// @brief Future form.
  std::future<Result<void>> saveAsync();

  /// @brief Changes identifiers and attributes of the logged-in user (not a pseudo user).
  Result<void> updateWithIdentityDataSynchronous(const JovIdentityData& identityData,
                                                 const JovUserFields& userFields);
  /// @brief Block form.
  void updateWithIdentityData(const JovIdentityData& identityData, const JovUserFields& userFields,
                              UserBlock block);
  /// @brief Delegate form.
  void updateWithIdentityData(const JovIdentityData& identityData, const JovUserFields& userFields,
                              JovCallback callback);
  /// @brief Future form.
  std::future<Result<void>> updateWithIdentityDataAsync(const JovIdentityData& identityData,
                                                        const JovUserFields& userFields);

  /// @brief Changes attributes of the logged-in user (not a pseudo user).
  Result<void> updateWithUserFieldsSynchronous(const JovUserFields& userFields);
  /// @brief Block form.
  void updateWithUserFields(const JovUserFields& userFields, UserBlock block);
  /// @brief Delegate form.
  void updateWithUserFields(const JovUserFields& userFields, JovCallback callback);
  /// @brief Future form.
  std::future<Result<void>> updateWithUserFieldsAsync(const JovUserFields& userFields);

  /// @brief Changes the password, then logs in again with the new one.
  Result<void> updatePasswordSynchronous(const std::string& fromPassword,
                                         const std::string& newPassword);
  /// @brief Block form.
  void updatePassword(const std::string& fromPassword, const std::string& newPassword,
                      UserBlock block);
  /// @brief Delegate form.
  void updatePassword(const std::string& fromPassword, const std::string& newPassword,
                      JovCallback callback);
  /// @brief Future form.
  std::future<Result<void>> updatePasswordAsync(const std::string& fromPassword,
                                                const std::string& newPassword);

  /// @brief Asks for a password reset of the user with this e-mail address or international
  /// phone number; raises std::invalid_argument for an empty identifier or an unknown method.
  static Result<void> resetPasswordSynchronous(const std::string& userIdentifier,
                                               JovNotificationMethod notificationMethod);
  /// @brief Asks for a password reset by e-mail (the older form).
  static Result<void> resetPasswordSynchronous(const std::string& emailAddress);
  /// @brief Block form.
  static void resetPassword(const std::string& userIdentifier,
                            JovNotificationMethod notificationMethod, JovBlock<> block);
  /// @brief Block form of the older form.
  static void resetPassword(const std::string& emailAddress, JovBlock<> block);
  /// @brief Delegate form.
  static void resetPassword(const std::string& userIdentifier,
                            JovNotificationMethod notificationMethod, JovCallback callback);
  /// @brief Delegate form of the older form.
  static void resetPassword(const std::string& emailAddress, JovCallback callback);
  /// @brief Future form.
  static std::future<Result<void>> resetPasswordAsync(const std::string& userIdentifier,
                                                      JovNotificationMethod notificationMethod);
  /// @brief Future form of the older form.
  static std::future<Result<void>> resetPasswordAsync(const std::string& emailAddress);

  /// @brief Completes a reset with the PIN code sent by SMS, setting a new password if given.
  static Result<void> completeResetPasswordSynchronous(const std::string& userIdentifier,
                                                       const std::string& pinCode,
                                                       const std::optional<std::string>& password);
  /// @brief Block form.
  static void completeResetPassword(const std::string& userIdentifier, const std::string& pinCode,
                                    const std::optional<std::string>& password, JovBlock<> block);
  /// @brief Delegate form.
  static void completeResetPassword(const std::string& userIdentifier, const std::string& pinCode,
                                    const std::optional<std::string>& password,
                                    JovCallback callback);
  /// @brief Future form.
  static std::future<Result<void>> completeResetPasswordAsync(
      const std::string& userIdentifier, const std::string& pinCode,
      const std::optional<std::string>& password);

  /// @brief Asks for a new e-mail address; it stays pending until verified.
  Result<void> changeEmailSynchronous(const std::string& emailAddress);
  /// @brief Block form.
  void changeEmail(const std::string& emailAddress, UserBlock block);
  /// @brief Delegate form.
  void changeEmail(const std::string& emailAddress, JovCallback callback);
  /// @brief Future form.
  std::future<Result<void>> changeEmailAsync(const std::string& emailAddress);

  /// @brief Asks for a new phone number; it stays pending until verified.
  Result<void> changePhoneSynchronous(const std::string& phoneNumber);
  /// @brief Block form.
  void changePhone(const std::string& phoneNumber, UserBlock block);
  /// @brief Delegate form.
  void changePhone(const std::string& phoneNumber, JovCallback callback);
  /// @brief Future form.
  std::future<Result<void>> changePhoneAsync(const std::string& phoneNumber);

  /// @brief Verifies the phone number with the code sent by SMS.
  Result<void> verifyPhoneNumberSynchronous(const std::string& verificationCode);
  /// @brief Block form.
  void verifyPhoneNumber(const std::string& verificationCode, UserBlock block);
  /// @brief Delegate form.
  void verifyPhoneNumber(const std::string& verificationCode, JovCallback callback);
  /// @brief Future form.
  std::future<Result<void>> verifyPhoneNumberAsync(const std::string& verificationCode);

  /// @brief Sends the e-mail verification again.
  Result<void> resendEmailVerificationSynchronous();
  /// @brief Block form.
  void resendEmailVerification(UserBlock block);
  /// @brief Delegate form.
  void resendEmailVerification(JovCallback callback);
  /// @brief Future form.
  std::future<Result<void>> resendEmailVerificationAsync();

  /// @brief Sends the phone verification code again.
  Result<void> resendPhoneNumberVerificationSynchronous();
  /// @brief Block form.
  void resendPhoneNumberVerification(UserBlock block);
  /// @brief Delegate form.
  void resendPhoneNumberVerification(JovCallback callback);
  /// @brief Future form.
  std::future<Result<void>> resendPhoneNumberVerificationAsync();

  /// @brief Deletes the user on the service; then logs out, whichever user it was.
  Result<void> deleteSynchronous();
  /// @brief Block form.
  void deleteWithBlock(UserBlock block);
  /// @brief Delegate form.
  void deleteWithCallback(JovCallback callback);
  /// @brief Future form.
  std::future<Result<void>> deleteAsync();

  // ------------------------------------------------------------------ lookup

  /// @brief The user with this login name.
  static Result<Ptr> findUserByUsernameSynchronous(const std::string& username);
  /// @brief Block form; raises std::invalid_argument("completion can not be nil") without block.
  static void findUserByUsername(const std::string& username, UserBlock block);
  /// @brief Delegate form.
  static void findUserByUsername(const std::string& username, JovCallback callback);
  /// @brief Future form.
  static std::future<Result<Ptr>> findUserByUsernameAsync(const std::string& username);

  /// @brief The user with this e-mail address.
  static Result<Ptr> findUserByEmailSynchronous(const std::string& email);
  /// @brief Block form; raises std::invalid_argument("completion can not be nil") without block.
  static void findUserByEmail(const std::string& email, UserBlock block);
  /// @brief Delegate form.
  static void findUserByEmail(const std::string& email, JovCallback callback);
  /// @brief Future form.
  static std::future<Result<Ptr>> findUserByEmailAsync(const std::string& email);

  /// @brief The user with this phone number.
  static Result<Ptr> findUserByPhoneSynchronous(const std::string& phoneNumber);
  /// @brief Block form; raises std::invalid_argument("completion can not be nil") without block.
  static void findUserByPhone(const std::string& phoneNumber, UserBlock block);
  /// @brief Delegate form.
  static void findUserByPhone(const std::string& phoneNumber, JovCallback callback);
  /// @brief Future form.
  static std::future<Result<Ptr>> findUserByPhoneAsync(const std::string& phoneNumber);

  // ------------------------------------------------------------------ groups

  /// @name memberOfGroups
  /// The groups the user is a member of (GET "/groups/?is_member=USERID").
  /// Errors: 501 when the user has no ID; 324 user not found; 202 unreadable answer; and the
  /// errors of every exchange. The block and delegate receive the groups, then the error.
  /// @{
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
  /// The groups the user owns (GET "/groups/?owner=USERID"). Errors as memberOfGroups.
  /// @{
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

  // One blocking routine per operation; the public forms call these.
  Result<void> registrationRoutine();
  detail::Routine<void> authenticateRoutine();
  Result<void> putIdentityRoutine(JovIdentityData identityData, JovUserFields userFields,
                                  std::string password);
  detail::Routine<void> refreshRoutine();
  detail::Routine<Groups> memberOfGroupsRoutine();
  detail::Routine<Groups> ownerOfGroupsRoutine();
  Result<void> saveRoutine();
  Result<void> updateIdentityRoutine(std::optional<JovIdentityData> identityData,
                                     JovUserFields userFields);
  Result<void> updateIdentityDataRoutine(JovIdentityData identityData, JovUserFields userFields);
  Result<void> updateUserFieldsRoutine(JovUserFields userFields);
  Result<void> updatePasswordRoutine(std::string fromPassword, std::string newPassword);
  Result<void> changeEmailRoutine(std::string emailAddress);
  Result<void> changePhoneRoutine(std::string phoneNumber);
  Result<void> verifyPhoneNumberRoutine(std::string verificationCode);
  Result<void> resendVerificationRoutine(std::string kind);
  Result<void> resendEmailVerificationRoutine();
  Result<void> resendPhoneNumberVerificationRoutine();
  Result<void> deleteRoutine();

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
