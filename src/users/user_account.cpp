// Account maintenance: refresh, save, password change, e-mail and phone changes, phone
// verification, resending verifications and deletion.

#include "core/exchange.hpp"
#include "jov/detail/forms.hpp"
#include "jov/user.hpp"
#include "jov/validation.hpp"
#include "users/user_internal.hpp"

namespace jov {

namespace {

JovError errorOf(int code) {
  return JovError::errorWithCode(code);
}

// Failures the service explains (code 0) become the operation's own code; a failure that
// already has a client code (no connection, ...) is kept.
JovError failureAs(int code, const JovError& error) {
  return error.code() == 0 ? detail::mappedError(code, error) : error;
}

}  // namespace

constexpr detail::Exchange kRefreshUser{JovMethodGet, "/users/{}"};

detail::Routine<void> JovUser::refreshRoutine() {
  JOV_CO_REQUIRE(!uuid_.empty(), JovError::codeInvalidObjects());
  auto answer = co_await detail::send(kRefreshUser, detail::args(uuid_));
  if (!answer) co_return answer.error();
  if (!answer->json.is_object()) co_return detail::unreadableAnswer();
  // A whole record names every pending address; one it leaves out was verified or dropped.
  nlohmann::json& record = answer->json;
  if (!record.contains("_emailAddressPending")) record["_emailAddressPending"] = "";
  if (!record.contains("_phoneNumberPending")) record["_phoneNumberPending"] = "";
  loadFromJSON(record);
  if (isLoggedInUser()) detail::storeCurrentUserInfoOrLog();
  co_return {};
}

Result<void> JovUser::saveRoutine() {
  if (uuid_.empty()) return errorOf(JovError::codeInvalidObjects());
  nlohmann::json body = uploadAttributes();
  JovRequest request =
      detail::makeRequest("/users/" + uuid_, JovMethodPost, detail::kUserUpdateRequest);
  request.postData = body;
  JovResponse response = request.makeSynchronousRequest();
  if (!response.ok()) return *response.error;
  if (!response.json.is_object()) return errorOf(JovError::codeUnableToParseResponse());
  // The answer carries the new modification time; what was sent stays the user's.
  if (customInfo_.contains("_hasPassword")) body["_hasPassword"] = customInfo_["_hasPassword"];
  body.update(response.json);
  loadFromJSON(body);
  return {};
}

Result<void> JovUser::updatePasswordRoutine(std::string fromPassword, std::string newPassword) {
  if (!passwordIsValid(newPassword)) return errorOf(JovError::codeInvalidPasswordFormat());
  if (uuid_.empty()) return errorOf(JovError::codeInvalidObjects());
  JovRequest request = detail::makeRequest("/users/" + uuid_ + "/password", JovMethodPut,
                                           "application/vnd.jov.ChangePasswordRequest+json");
  request.postData = nlohmann::json{{"oldPassword", fromPassword}, {"newPassword", newPassword}};
  JovResponse response = request.makeSynchronousRequest();
  if (!response.ok()) return *response.error;

  // The old token belongs to the old password: log in again with the new one.
  password_ = newPassword;
  passwordChanged_ = true;
  auto login = detail::runSync(authenticateRoutine());
  if (!login) return detail::mappedError(JovError::codeUnableToAuthenticateUser(), login.error());
  return {};
}

Result<void> JovUser::changeEmailRoutine(std::string emailAddress) {
  if (!emailIsValid(emailAddress)) return errorOf(JovError::codeInvalidEmailFormat());
  if (uuid_.empty()) return errorOf(JovError::codeInvalidObjects());
  JovRequest request =
      detail::makeRequest("/users/" + uuid_ + "/email-address", JovMethodPut,
                          "application/vnd.jov.EmailAddressModificationRequest+json");
  request.postData = nlohmann::json{{"emailAddress", emailAddress}};
  JovResponse response = request.makeSynchronousRequest();
  if (!response.ok()) return failureAs(JovError::codeUnableToUpdateEmail(), *response.error);
  return {};
}

Result<void> JovUser::changePhoneRoutine(std::string phoneNumber) {
  if (!phoneNumberIsValid(phoneNumber)) return errorOf(JovError::codeInvalidPhoneFormat());
  if (uuid_.empty()) return errorOf(JovError::codeInvalidObjects());
  JovRequest request =
      detail::makeRequest("/users/" + uuid_ + "/phone-number", JovMethodPut,
                          "application/vnd.jov.PhoneNumberModificationRequest+json");
  request.postData = nlohmann::json{{"phoneNumber", phoneNumber}};
  JovResponse response = request.makeSynchronousRequest();
  if (!response.ok()) return failureAs(JovError::codeUnableToUpdatePhoneNumber(), *response.error);
  return {};
}

Result<void> JovUser::verifyPhoneNumberRoutine(std::string verificationCode) {
  if (uuid_.empty()) return errorOf(JovError::codeInvalidObjects());
  JovRequest request =
      detail::makeRequest("/users/" + uuid_ + "/phone-number/verify", JovMethodPost,
                          "application/vnd.jov.AddressVerificationRequest+json");
  request.postData = nlohmann::json{{"verificationCode", verificationCode}};
  JovResponse response = request.makeSynchronousRequest();
  if (!response.ok()) return failureAs(JovError::codeUnableToVerifyUser(), *response.error);
  std::lock_guard lock(mutex_);  // a refresh elsewhere may be storing the credentials
  phoneVerified_ = true;
  return {};
}

Result<void> JovUser::resendVerificationRoutine(std::string kind) {
  if (uuid_.empty()) return errorOf(JovError::codeInvalidObjects());
  JovRequest request =
      detail::makeRequest("/users/" + uuid_ + "/" + kind + "/resend-verification", JovMethodPost);
  request.postData.reset();
  JovResponse response = request.makeSynchronousRequest();
  if (!response.ok()) return *response.error;
  return {};
}

Result<void> JovUser::resendEmailVerificationRoutine() {
  return resendVerificationRoutine("email-address");
}
Result<void> JovUser::resendPhoneNumberVerificationRoutine() {
  return resendVerificationRoutine("phone-number");
}

Result<void> JovUser::deleteRoutine() {
  if (uuid_.empty()) return errorOf(JovError::codeInvalidObjects());
  JovRequest request = detail::makeRequest("/users/" + uuid_, JovMethodDelete);
  JovResponse response = request.makeSynchronousRequest();
  if (!response.ok()) return *response.error;
  // Deleting any user ends the login, as it always has.
  logOut();
  return {};
}

// ------------------------------------------------------------------ forms

#define JOV_USER_FORMS0(Name, Routine)                                                     \
  Result<void> JovUser::Name##Synchronous() {                                              \
    return Routine();                                                                      \
  }                                                                                        \
  void JovUser::Name(UserBlock block) {                                                    \
    detail::runBlock(detail::withSelf(self(), &JovUser::Routine), std::move(block));       \
  }                                                                                        \
  void JovUser::Name(JovCallback callback) {                                               \
    detail::runCallback(detail::withSelf(self(), &JovUser::Routine), std::move(callback)); \
  }                                                                                        \
  std::future<Result<void>> JovUser::Name##Async() {                                       \
    return detail::runFuture(detail::bind(self(), &JovUser::Routine));                     \
  }

#define JOV_USER_FORMS1(Name, Routine)                                                        \
  Result<void> JovUser::Name##Synchronous(const std::string& a) {                             \
    return Routine(a);                                                                        \
  }                                                                                           \
  void JovUser::Name(const std::string& a, UserBlock block) {                                 \
    detail::runBlock(detail::withSelf(self(), &JovUser::Routine, a), std::move(block));       \
  }                                                                                           \
  void JovUser::Name(const std::string& a, JovCallback callback) {                            \
    detail::runCallback(detail::withSelf(self(), &JovUser::Routine, a), std::move(callback)); \
  }                                                                                           \
  std::future<Result<void>> JovUser::Name##Async(const std::string& a) {                      \
    return detail::runFuture(detail::bind(self(), &JovUser::Routine, a));                     \
  }

Result<void> JovUser::refreshSynchronous() {
  return detail::runSync(refreshRoutine());
}
void JovUser::refresh(UserBlock block, JovCancellation cancel) {
  detail::runBlock(self(), refreshRoutine(), std::move(block), cancel);
}
void JovUser::refresh(JovCallback callback, JovCancellation cancel) {
  detail::runCallback(self(), refreshRoutine(), std::move(callback), cancel);
}
std::future<Result<void>> JovUser::refreshAsync(JovCancellation cancel) {
  return detail::runFuture(self(), refreshRoutine(), cancel);
}
JOV_USER_FORMS0(save, saveRoutine)
JOV_USER_FORMS0(resendEmailVerification, resendEmailVerificationRoutine)
JOV_USER_FORMS0(resendPhoneNumberVerification, resendPhoneNumberVerificationRoutine)
JOV_USER_FORMS1(changeEmail, changeEmailRoutine)
JOV_USER_FORMS1(changePhone, changePhoneRoutine)
JOV_USER_FORMS1(verifyPhoneNumber, verifyPhoneNumberRoutine)

#undef JOV_USER_FORMS0
#undef JOV_USER_FORMS1

Result<void> JovUser::updatePasswordSynchronous(const std::string& fromPassword,
                                                const std::string& newPassword) {
  return updatePasswordRoutine(fromPassword, newPassword);
}
void JovUser::updatePassword(const std::string& fromPassword, const std::string& newPassword,
                             UserBlock block) {
  detail::runBlock(
      detail::withSelf(self(), &JovUser::updatePasswordRoutine, fromPassword, newPassword),
      std::move(block));
}
void JovUser::updatePassword(const std::string& fromPassword, const std::string& newPassword,
                             JovCallback callback) {
  detail::runCallback(
      detail::withSelf(self(), &JovUser::updatePasswordRoutine, fromPassword, newPassword),
      std::move(callback));
}
std::future<Result<void>> JovUser::updatePasswordAsync(const std::string& fromPassword,
                                                       const std::string& newPassword) {
  return detail::runFuture(
      detail::bind(self(), &JovUser::updatePasswordRoutine, fromPassword, newPassword));
}

Result<void> JovUser::deleteSynchronous() {
  return deleteRoutine();
}
void JovUser::deleteWithBlock(UserBlock block) {
  detail::runBlock(detail::withSelf(self(), &JovUser::deleteRoutine), std::move(block));
}
void JovUser::deleteWithCallback(JovCallback callback) {
  detail::runCallback(detail::withSelf(self(), &JovUser::deleteRoutine), std::move(callback));
}
std::future<Result<void>> JovUser::deleteAsync() {
  return detail::runFuture(detail::bind(self(), &JovUser::deleteRoutine));
}

}  // namespace jov
