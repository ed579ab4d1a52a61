// Password reset: the request (a link or a PIN code is sent to the user) and its completion
// with the PIN code.

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "jov/encoding.hpp"
#include "jov/user.hpp"
#include "jov/validation.hpp"
#include "users/user_internal.hpp"

namespace jov {

namespace {

JovError errorOf(int code) {
  return JovError::errorWithCode(code);
}

void checkResetArguments(const std::string& identifier, JovNotificationMethod method) {
  if (identifier.empty())
    throw std::invalid_argument("userIdentifier can not be nil or empty string");
  if (method != JovNotificationMethodEmail && method != JovNotificationMethodSMS &&
      method != JovNotificationMethodSMSPin)
    throw std::invalid_argument("Invalid notificationMethod value");
}

JovError mapResetError(const JovError& error) {
  if (error.code() != 0) return error;
  const int status = error.jovHttpStatus();
  if (status == 400 && detail::serverCodeOf(error) == "INVALID_INPUT_DATA")
    return detail::mappedError(JovError::codeInvalidUserIdentifier(), error);
  if (status == 404) return detail::mappedError(JovError::codeUserNotFound(), error);
  if (status == 409) return detail::mappedError(JovError::codeInvalidUserStatus(), error);
  return error;
}

Result<void> requestReset(const std::string& path, std::optional<nlohmann::json> body) {
  JovRequest request = detail::makeRequest(path, JovMethodPost);
  request.anonymous = true;
  if (body) request.content = "application/vnd.jov.ResetPasswordRequest+json";
  request.postData = std::move(body);
  JovResponse response = request.makeSynchronousRequest();
  if (!response.ok()) return mapResetError(*response.error);
  return {};
}

Result<void> requestPasswordReset(const std::string& identifier, JovNotificationMethod method) {
  checkResetArguments(identifier, method);
  auto prefixed = detail::prefixedUserIdentifier(identifier);
  if (!prefixed) return errorOf(JovError::codeInvalidUserIdentifier());
  nlohmann::json body = {
      {"notificationMethod", method == JovNotificationMethodEmail ? "EMAIL" : "SMS"}};
  if (method == JovNotificationMethodSMSPin) body["smsResetMethod"] = "PIN";
  return requestReset("/users/" + urlEncode(*prefixed) + "/password/request-reset", body);
}

Result<void> resetPasswordByEmail(const std::string& email) {
  if (email.empty()) throw std::invalid_argument("userIdentifier can not be nil or empty string");
  if (!emailIsValid(email)) return errorOf(JovError::codeInvalidEmailFormat());
  return requestReset("/users/EMAIL:" + urlEncode(email) + "/password/request-reset", std::nullopt);
}

// The service tells the causes of an INVALID_INPUT_DATA apart only in its message.
JovError mapCompleteResetError(const JovError& error) {
  if (error.code() != 0) return error;
  const int status = error.jovHttpStatus();
  const std::string code = detail::serverCodeOf(error);
  if (status == 400 && code == "INVALID_INPUT_DATA") {
    std::string message = error.jovErrorMessage().value_or("");
    std::transform(message.begin(), message.end(), message.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (message.find("there are validation errors: password") != std::string::npos)
      return detail::mappedError(JovError::codeInvalidPasswordFormat(), error);
    if (message.find("the new password cannot be the same") != std::string::npos)
      return detail::mappedError(JovError::codeNewPasswordIsSameAsOldOne(), error);
    if (message.find("there are validation errors: newpassword") != std::string::npos)
      return detail::mappedError(JovError::codePasswordRequired(), error);
    return error;
  }
  if (status == 400 && code == "PASSWORD_TOO_SHORT")
    return detail::mappedError(JovError::codeInvalidPasswordFormat(), error);
  if (status == 403 && code == "INVALID_VERIFICATION_CODE")
    return detail::mappedError(JovError::codeInvalidPinCode(), error);
  if (status == 409 && code == "INVALID_STATUS")
    return detail::mappedError(JovError::codeInvalidUserStatus(), error);
  if (status == 410 && code == "PIN_CODE_EXPIRED")
    return detail::mappedError(JovError::codePINCodeIsExpired(), error);
  return error;
}

Result<void> completeReset(const std::string& identifier, const std::string& pinCode,
                           const std::optional<std::string>& password) {
  if (pinCode.empty()) return errorOf(JovError::codeInvalidPinCode());
  auto prefixed = detail::prefixedUserIdentifier(identifier);
  if (!prefixed) return errorOf(JovError::codeInvalidUserIdentifier());
  if (password && !passwordIsValid(*password))
    return errorOf(JovError::codeInvalidPasswordFormat());

  nlohmann::json body = {{"pinCode", pinCode}};
  if (password) body["newPassword"] = *password;
  JovRequest request =
      detail::makeRequest("/users/" + urlEncode(*prefixed) + "/password/complete-reset",
                          JovMethodPost, "application/vnd.jov.CompletePasswordResetRequest+json");
  request.anonymous = true;
  request.postData = body;
  JovResponse response = request.makeSynchronousRequest();
  if (!response.ok()) return mapCompleteResetError(*response.error);
  return {};
}

}  // namespace

Result<void> JovUser::resetPasswordSynchronous(const std::string& userIdentifier,
                                               JovNotificationMethod notificationMethod) {
  return requestPasswordReset(userIdentifier, notificationMethod);
}
Result<void> JovUser::resetPasswordSynchronous(const std::string& emailAddress) {
  return resetPasswordByEmail(emailAddress);
}
void JovUser::resetPassword(const std::string& userIdentifier,
                            JovNotificationMethod notificationMethod, JovBlock<> block) {
  checkResetArguments(userIdentifier, notificationMethod);
  detail::runClassBlock([=] { return requestPasswordReset(userIdentifier, notificationMethod); },
                        std::move(block));
}
void JovUser::resetPassword(const std::string& emailAddress, JovBlock<> block) {
  if (emailAddress.empty())
    throw std::invalid_argument("userIdentifier can not be nil or empty string");
  detail::runClassBlock([=] { return resetPasswordByEmail(emailAddress); }, std::move(block));
}
void JovUser::resetPassword(const std::string& userIdentifier,
                            JovNotificationMethod notificationMethod, JovCallback callback) {
  checkResetArguments(userIdentifier, notificationMethod);
  detail::runCallback([=] { return requestPasswordReset(userIdentifier, notificationMethod); },
                      std::move(callback));
}
void JovUser::resetPassword(const std::string& emailAddress, JovCallback callback) {
  if (emailAddress.empty())
    throw std::invalid_argument("userIdentifier can not be nil or empty string");
  detail::runCallback([=] { return resetPasswordByEmail(emailAddress); }, std::move(callback));
}
std::future<Result<void>> JovUser::resetPasswordAsync(const std::string& userIdentifier,
                                                      JovNotificationMethod notificationMethod) {
  checkResetArguments(userIdentifier, notificationMethod);
  return detail::runFuture(
      [=] { return requestPasswordReset(userIdentifier, notificationMethod); });
}
std::future<Result<void>> JovUser::resetPasswordAsync(const std::string& emailAddress) {
  if (emailAddress.empty())
    throw std::invalid_argument("userIdentifier can not be nil or empty string");
  return detail::runFuture([=] { return resetPasswordByEmail(emailAddress); });
}

Result<void> JovUser::completeResetPasswordSynchronous(const std::string& userIdentifier,
                                                       const std::string& pinCode,
                                                       const std::optional<std::string>& password) {
  return completeReset(userIdentifier, pinCode, password);
}
void JovUser::completeResetPassword(const std::string& userIdentifier, const std::string& pinCode,
                                    const std::optional<std::string>& password, JovBlock<> block) {
  detail::runClassBlock([=] { return completeReset(userIdentifier, pinCode, password); },
                        std::move(block));
}
void JovUser::completeResetPassword(const std::string& userIdentifier, const std::string& pinCode,
                                    const std::optional<std::string>& password,
                                    JovCallback callback) {
  detail::runCallback([=] { return completeReset(userIdentifier, pinCode, password); },
                      std::move(callback));
}
std::future<Result<void>> JovUser::completeResetPasswordAsync(
    const std::string& userIdentifier, const std::string& pinCode,
    const std::optional<std::string>& password) {
  return detail::runFuture([=] { return completeReset(userIdentifier, pinCode, password); });
}

}  // namespace jov
