// Password reset: the request (a link or a PIN code is sent to the user) and its completion
// with the PIN code.

#include <stdexcept>

#include "core/exchange.hpp"
#include "jov/user.hpp"
#include "jov/validation.hpp"
#include "users/user_internal.hpp"

namespace jov {

namespace {

using detail::onMessagePart;
using detail::onStatus;
using detail::onStatusAndCode;

constexpr detail::ErrorRule kResetErrors[] = {
    onStatusAndCode(400, "INVALID_INPUT_DATA", JovError::codeInvalidUserIdentifier()),
    onStatus(404, JovError::codeUserNotFound()),
    onStatus(409, JovError::codeInvalidUserStatus()),
};
// The service tells the causes of an INVALID_INPUT_DATA apart only in its message.
constexpr detail::ErrorRule kCompleteResetErrors[] = {
    onMessagePart(400, "INVALID_INPUT_DATA", "there are validation errors: password",
                  JovError::codeInvalidPasswordFormat()),
    onMessagePart(400, "INVALID_INPUT_DATA", "the new password cannot be the same",
                  JovError::codeNewPasswordIsSameAsOldOne()),
    onMessagePart(400, "INVALID_INPUT_DATA", "there are validation errors: newpassword",
                  JovError::codePasswordRequired()),
    onStatusAndCode(400, "PASSWORD_TOO_SHORT", JovError::codeInvalidPasswordFormat()),
    onStatusAndCode(403, "INVALID_VERIFICATION_CODE", JovError::codeInvalidPinCode()),
    onStatusAndCode(409, "INVALID_STATUS", JovError::codeInvalidUserStatus()),
    onStatusAndCode(410, "PIN_CODE_EXPIRED", JovError::codePINCodeIsExpired()),
};

constexpr detail::Exchange kRequestReset{
    JovMethodPost,
    "/users/{}/password/request-reset",
    {.contentType = "application/vnd.jov.ResetPasswordRequest+json",
     .anonymous = true,
     .errors = kResetErrors}};
// The older form sends no body, and so no media type of one.
constexpr detail::Exchange kRequestResetByEmail{JovMethodPost,
                                                "/users/EMAIL:{}/password/request-reset",
                                                {.anonymous = true, .errors = kResetErrors}};
constexpr detail::Exchange kCompleteReset{
    JovMethodPost,
    "/users/{}/password/complete-reset",
    {.contentType = "application/vnd.jov.CompletePasswordResetRequest+json",
     .anonymous = true,
     .errors = kCompleteResetErrors}};

}  // namespace

void JovUser::checkResetArguments(const std::string& identifier, JovNotificationMethod method) {
  if (identifier.empty())
    throw std::invalid_argument("userIdentifier can not be nil or empty string");
  if (method != JovNotificationMethodEmail && method != JovNotificationMethodSMS &&
      method != JovNotificationMethodSMSPin)
    throw std::invalid_argument("Invalid notificationMethod value");
}

void JovUser::checkResetArguments(const std::string& emailAddress) {
  if (emailAddress.empty())
    throw std::invalid_argument("userIdentifier can not be nil or empty string");
}

detail::Routine<void> JovUser::resetPasswordRoutine(std::string identifier,
                                                    JovNotificationMethod method) {
  auto prefixed = detail::prefixedUserIdentifier(identifier);
  JOV_CO_REQUIRE(prefixed, JovError::codeInvalidUserIdentifier());
  nlohmann::json body = {
      {"notificationMethod", method == JovNotificationMethodEmail ? "EMAIL" : "SMS"}};
  if (method == JovNotificationMethodSMSPin) body["smsResetMethod"] = "PIN";
  auto answer = co_await detail::send(kRequestReset, detail::args(*prefixed).json(std::move(body)));
  if (!answer) co_return answer.error();
  co_return {};
}

detail::Routine<void> JovUser::resetPasswordByEmailRoutine(std::string emailAddress) {
  JOV_CO_REQUIRE(emailIsValid(emailAddress), JovError::codeInvalidEmailFormat());
  auto answer = co_await detail::send(kRequestResetByEmail, detail::args(emailAddress));
  if (!answer) co_return answer.error();
  co_return {};
}

detail::Routine<void> JovUser::completeResetPasswordRoutine(std::string identifier,
                                                            std::string pinCode,
                                                            std::optional<std::string> password) {
  JOV_CO_REQUIRE(!pinCode.empty(), JovError::codeInvalidPinCode());
  auto prefixed = detail::prefixedUserIdentifier(identifier);
  JOV_CO_REQUIRE(prefixed, JovError::codeInvalidUserIdentifier());
  JOV_CO_REQUIRE(!password || passwordIsValid(*password), JovError::codeInvalidPasswordFormat());
  nlohmann::json body = {{"pinCode", pinCode}};
  if (password) body["newPassword"] = *password;
  auto answer =
      co_await detail::send(kCompleteReset, detail::args(*prefixed).json(std::move(body)));
  if (!answer) co_return answer.error();
  co_return {};
}

}  // namespace jov
