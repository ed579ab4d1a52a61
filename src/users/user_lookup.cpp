// Finding a user by login name, e-mail address or phone number.

#include "jov/encoding.hpp"
#include "jov/user.hpp"
#include "jov/validation.hpp"
#include "users/user_internal.hpp"

namespace jov {

namespace {

Result<JovUser::Ptr> findUser(const std::string& kind, const std::string& value) {
  JovRequest request = detail::makeRequest("/users/" + kind + ":" + urlEncode(value), JovMethodGet);
  JovResponse response = request.makeSynchronousRequest();
  if (!response.ok()) return *response.error;
  if (!response.json.is_object())
    return JovError::errorWithCode(JovError::codeUnableToParseResponse());
  auto user = JovUser::userWithID("");
  user->loadFromJSON(response.json);
  return user;
}

Result<JovUser::Ptr> findByUsername(const std::string& username) {
  if (!usernameIsValid(username)) return JovError::errorWithCode(JovError::codeInvalidUsername());
  return findUser("LOGIN_NAME", username);
}

Result<JovUser::Ptr> findByEmail(const std::string& email) {
  if (!emailIsValid(email)) return JovError::errorWithCode(JovError::codeInvalidEmailFormat());
  return findUser("EMAIL", email);
}

Result<JovUser::Ptr> findByPhone(const std::string& phone) {
  if (!phoneNumberIsValid(phone))
    return JovError::errorWithCode(JovError::codeInvalidPhoneFormat());
  return findUser("PHONE", phone);
}

}  // namespace

Result<JovUser::Ptr> JovUser::findUserByUsernameSynchronous(const std::string& username) {
  return findByUsername(username);
}
void JovUser::findUserByUsername(const std::string& username, UserBlock block) {
  detail::runClassBlock([=] { return findByUsername(username); }, std::move(block));
}
void JovUser::findUserByUsername(const std::string& username, JovCallback callback) {
  detail::runCallback([=] { return findByUsername(username); }, std::move(callback));
}
std::future<Result<JovUser::Ptr>> JovUser::findUserByUsernameAsync(const std::string& username) {
  return detail::runFuture([=] { return findByUsername(username); });
}

Result<JovUser::Ptr> JovUser::findUserByEmailSynchronous(const std::string& email) {
  return findByEmail(email);
}
void JovUser::findUserByEmail(const std::string& email, UserBlock block) {
  detail::runClassBlock([=] { return findByEmail(email); }, std::move(block));
}
void JovUser::findUserByEmail(const std::string& email, JovCallback callback) {
  detail::runCallback([=] { return findByEmail(email); }, std::move(callback));
}
std::future<Result<JovUser::Ptr>> JovUser::findUserByEmailAsync(const std::string& email) {
  return detail::runFuture([=] { return findByEmail(email); });
}

Result<JovUser::Ptr> JovUser::findUserByPhoneSynchronous(const std::string& phoneNumber) {
  return findByPhone(phoneNumber);
}
void JovUser::findUserByPhone(const std::string& phoneNumber, UserBlock block) {
  detail::runClassBlock([=] { return findByPhone(phoneNumber); }, std::move(block));
}
void JovUser::findUserByPhone(const std::string& phoneNumber, JovCallback callback) {
  detail::runCallback([=] { return findByPhone(phoneNumber); }, std::move(callback));
}
std::future<Result<JovUser::Ptr>> JovUser::findUserByPhoneAsync(const std::string& phoneNumber) {
  return detail::runFuture([=] { return findByPhone(phoneNumber); });
}

}  // namespace jov
