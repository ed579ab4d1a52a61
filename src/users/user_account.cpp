// Account maintenance: refresh, save, password change, e-mail and phone changes, phone
// verification, resending verifications and deletion.

#include "core/exchange.hpp"
#include "jov/detail/forms.hpp"
#include "jov/user.hpp"
#include "jov/validation.hpp"
#include "users/user_internal.hpp"

namespace jov {

namespace {

using detail::args;
using detail::Exchange;
using detail::onAny;
using detail::send;

// Failures the service explains (code 0) become the operation's own code; a failure that
// already has a client code (no connection, ...) is kept.
constexpr detail::ErrorRule kEmailErrors[] = {onAny(JovError::codeUnableToUpdateEmail())};
constexpr detail::ErrorRule kPhoneErrors[] = {onAny(JovError::codeUnableToUpdatePhoneNumber())};
constexpr detail::ErrorRule kVerifyErrors[] = {onAny(JovError::codeUnableToVerifyUser())};

constexpr Exchange kRefreshUser{JovMethodGet, "/users/{}"};
constexpr Exchange kSave{JovMethodPost, "/users/{}", {.contentType = detail::kUserUpdateRequest}};
constexpr Exchange kChangePassword{
    JovMethodPut,
    "/users/{}/password",
    {.contentType = "application/vnd.jov.ChangePasswordRequest+json"}};
constexpr Exchange kChangeEmail{
    JovMethodPut,
    "/users/{}/email-address",
    {.contentType = "application/vnd.jov.EmailAddressModificationRequest+json",
     .errors = kEmailErrors}};
constexpr Exchange kChangePhone{
    JovMethodPut,
    "/users/{}/phone-number",
    {.contentType = "application/vnd.jov.PhoneNumberModificationRequest+json",
     .errors = kPhoneErrors}};
constexpr Exchange kVerifyPhone{
    JovMethodPost,
    "/users/{}/phone-number/verify",
    {.contentType = "application/vnd.jov.AddressVerificationRequest+json",
     .errors = kVerifyErrors}};
constexpr Exchange kResendEmail{JovMethodPost, "/users/{}/email-address/resend-verification"};
constexpr Exchange kResendPhone{JovMethodPost, "/users/{}/phone-number/resend-verification"};
constexpr Exchange kDelete{JovMethodDelete, "/users/{}"};

}  // namespace

detail::Routine<void> JovUser::refreshRoutine() {
  JOV_CO_REQUIRE(!uuid_.empty(), JovError::codeInvalidObjects());
  auto answer = co_await send(kRefreshUser, args(uuid_));
  if (!answer) co_return answer.error();
  if (!answer->json.is_object()) co_return detail::unreadableAnswer();
  bool changed = false;
  if (!loadRecord(answer->json, changed, true)) co_return detail::unreadableAnswer();
  // The stored credentials hold some of these fields: written again only when one changed.
  if (changed && isLoggedInUser()) {
    co_await detail::mayBlock();
    detail::storeCurrentUserInfoOrLog();
  }
  co_return {};
}

detail::Routine<void> JovUser::saveRoutine() {
  JOV_CO_REQUIRE(!uuid_.empty(), JovError::codeInvalidObjects());
  nlohmann::json body = uploadAttributes();
  auto answer = co_await send(kSave, args(uuid_).json(body));
  if (!answer) co_return answer.error();
  if (!answer->json.is_object()) co_return detail::unreadableAnswer();
  // The answer carries the new modification time; what was sent stays the user's.
  if (customInfo_.contains("_hasPassword")) body["_hasPassword"] = customInfo_["_hasPassword"];
  body.update(answer->json);
  if (!loadFromJSON(body)) co_return detail::unreadableAnswer();
  co_return {};
}

detail::Routine<void> JovUser::updatePasswordRoutine(std::string fromPassword,
                                                     std::string newPassword) {
  JOV_CO_REQUIRE(passwordIsValid(newPassword), JovError::codeInvalidPasswordFormat());
  JOV_CO_REQUIRE(!uuid_.empty(), JovError::codeInvalidObjects());
  nlohmann::json body = {{"oldPassword", fromPassword}, {"newPassword", newPassword}};
  auto answer = co_await send(kChangePassword, args(uuid_).json(std::move(body)));
  if (!answer) co_return answer.error();

  // The old token belongs to the old password: log in again with the new one.
  password_ = newPassword;
  passwordChanged_ = true;
  auto login = co_await authenticateRoutine();
  if (!login)
    co_return detail::mappedError(JovError::codeUnableToAuthenticateUser(), login.error());
  co_return {};
}

detail::Routine<void> JovUser::changeEmailRoutine(std::string emailAddress) {
  JOV_CO_REQUIRE(emailIsValid(emailAddress), JovError::codeInvalidEmailFormat());
  JOV_CO_REQUIRE(!uuid_.empty(), JovError::codeInvalidObjects());
  nlohmann::json body = {{"emailAddress", emailAddress}};
  auto answer = co_await send(kChangeEmail, args(uuid_).json(std::move(body)));
  if (!answer) co_return answer.error();
  co_return {};
}

detail::Routine<void> JovUser::changePhoneRoutine(std::string phoneNumber) {
  JOV_CO_REQUIRE(phoneNumberIsValid(phoneNumber), JovError::codeInvalidPhoneFormat());
  JOV_CO_REQUIRE(!uuid_.empty(), JovError::codeInvalidObjects());
  nlohmann::json body = {{"phoneNumber", phoneNumber}};
  auto answer = co_await send(kChangePhone, args(uuid_).json(std::move(body)));
  if (!answer) co_return answer.error();
  co_return {};
}

detail::Routine<void> JovUser::verifyPhoneNumberRoutine(std::string verificationCode) {
  JOV_CO_REQUIRE(!uuid_.empty(), JovError::codeInvalidObjects());
  nlohmann::json body = {{"verificationCode", verificationCode}};
  auto answer = co_await send(kVerifyPhone, args(uuid_).json(std::move(body)));
  if (!answer) co_return answer.error();
  std::lock_guard lock(mutex_);  // a refresh elsewhere may be storing the credentials
  phoneVerified_ = true;
  co_return {};
}

detail::Routine<void> JovUser::resendEmailVerificationRoutine() {
  JOV_CO_REQUIRE(!uuid_.empty(), JovError::codeInvalidObjects());
  auto answer = co_await send(kResendEmail, args(uuid_));
  if (!answer) co_return answer.error();
  co_return {};
}

detail::Routine<void> JovUser::resendPhoneNumberVerificationRoutine() {
  JOV_CO_REQUIRE(!uuid_.empty(), JovError::codeInvalidObjects());
  auto answer = co_await send(kResendPhone, args(uuid_));
  if (!answer) co_return answer.error();
  co_return {};
}

detail::Routine<void> JovUser::deleteRoutine() {
  JOV_CO_REQUIRE(!uuid_.empty(), JovError::codeInvalidObjects());
  auto answer = co_await send(kDelete, args(uuid_));
  if (!answer) co_return answer.error();
  // Deleting any user ends the login, as it always has.
  co_await detail::mayBlock();
  logOut();
  co_return {};
}

}  // namespace jov
