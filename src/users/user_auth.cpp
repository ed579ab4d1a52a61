// Registration and login: password registration, pseudo users, password and local-phone login,
// token login and the refresh-token exchange.

#include <stdexcept>

#include "core/exchange.hpp"
#include "jov/encoding.hpp"
#include "jov/user.hpp"
#include "jov/user_builder.hpp"
#include "jov/validation.hpp"
#include "users/user_internal.hpp"

namespace jov {

namespace {

using detail::UserAccess;

JovError errorOf(int code) {
  return JovError::errorWithCode(code);
}

// What the user logs in with. A phone number that is not verified may not be accepted by the
// service yet, so a verified e-mail address goes first.
std::string loginIdentifier(const std::string& username, const std::string& phone,
                            bool phoneVerified, const std::string& email, bool emailVerified,
                            const std::string& country) {
  if (!username.empty()) return username;
  if (!phone.empty()) {
    if (phoneVerified) return phone;
    if (!email.empty() && emailVerified) return email;
    if (phone.front() == '+') return phone;
    return "PHONE:" + country + "-" + phone;
  }
  return email;
}

// The access token's expiry from "expires_in" seconds; the distant future without one.
JovUser::TimePoint expiryOf(const nlohmann::json& answer) {
  if (auto it = answer.find("expires_in");
      it != answer.end() && it->is_number() && it->get<double>() != 0)
    return detail::expiryAfterSeconds(it->get<double>());
  return detail::distantFuture();
}

Result<JovUser::Ptr> loginWith(const JovUser::Ptr& user) {
  auto login = detail::runSync(UserAccess::authenticate(*user));
  if (!login) return login.error();
  return user;
}

void checkToken(const std::string& token) {
  if (token.empty()) throw std::invalid_argument("token must not nil or empty");
}

void checkTokenArguments(const std::string& token,
                         const std::optional<JovUser::TimePoint>& expiresAt,
                         const std::string& refreshToken) {
  checkToken(token);
  if (refreshToken.empty()) throw std::invalid_argument("refreshToken must not nil or empty");
  if (!expiresAt) throw std::invalid_argument("expiresAt must not nil");
}

Result<JovUser::Ptr> tokenLogin(const std::string& token,
                                const std::optional<JovUser::TimePoint>& expiresAt,
                                const std::string& refreshToken) {
  JovUser::logOut();
  JovRequest request = detail::makeRequest("/users/me", JovMethodGet);
  request.anonymous = true;
  request.customHeaders.push_back({"Authorization", "Bearer " + token});
  JovResponse response = request.makeSynchronousRequest();
  if (!response.ok()) return *response.error;
  if (!response.json.is_object()) return errorOf(JovError::codeUnableToParseResponse());

  auto user = UserAccess::create();
  user->loadFromJSON(response.json);
  if (user->userID().empty()) return errorOf(JovError::codeUnableToParseResponse());
  UserAccess::setAccessToken(*user, token);
  if (expiresAt) UserAccess::setExpiresAt(*user, expiresAt);
  if (!refreshToken.empty()) UserAccess::setRefreshToken(*user, refreshToken);
  detail::makeCurrent(user);
  detail::storeCurrentUserInfoOrLog();
  return user;
}

Result<JovUser::Ptr> pseudoRegistration(const JovUserFields& fields) {
  JovUser::logOut();
  if (auto invalid = fields.validate()) return *invalid;
  nlohmann::json body = fields.toJSON();
  JovRequest request =
      detail::makeRequest("/users", JovMethodPost, detail::kRegistrationAndAuthorizationRequest);
  request.anonymous = true;
  request.postData = body;
  JovResponse response = request.makeSynchronousRequest();
  if (!response.ok()) return *response.error;
  auto token = jsonString(response.json, "_accessToken");
  if (!token || token->empty()) return errorOf(JovError::codeUnableToParseResponse());

  body.update(response.json);
  auto user = UserAccess::create();
  user->loadFromJSON(body);
  if (user->userID().empty()) return errorOf(JovError::codeUnableToParseResponse());
  UserAccess::setTokens(*user, *token, "", detail::distantFuture());
  // A pseudo user has no password to log in with again, so nothing is stored.
  detail::makeCurrent(user);
  return user;
}

Result<JovUser::Ptr> passwordLogin(const std::string& identifier, const std::string& password) {
  JovUser::logOut();
  if (!passwordIsValid(password)) return errorOf(JovError::codeInvalidPasswordFormat());
  JovUser::Ptr user;
  if (emailIsValid(identifier))
    user = JovUser::userWithEmailAddress(identifier, password);
  else if (usernameIsValid(identifier))
    user = JovUser::userWithUsername(identifier, password);
  else if (internationalPhoneNumberIsValid(identifier))
    user = JovUser::userWithPhoneNumber(identifier, password);
  else
    return errorOf(JovError::codeInvalidUsername());
  return loginWith(user);
}

Result<JovUser::Ptr> localPhoneLogin(const std::string& phone, const std::string& password,
                                     const std::string& country) {
  JovUser::logOut();
  if (!localPhoneNumberIsValid(phone)) return errorOf(JovError::codeInvalidLocalPhoneFormat());
  if (!passwordIsValid(password)) return errorOf(JovError::codeInvalidPasswordFormat());
  if (!countryCodeIsValid(country)) return errorOf(JovError::codeInvalidCountryCode());
  auto user = JovUser::userWithPhoneNumber(phone, password);
  UserAccess::country(*user) = country;
  return loginWith(user);
}

}  // namespace

// ------------------------------------------------------------------ registration

Result<void> JovUser::registrationRoutine() {
  logOut();
  auto invalid = [this](int code) {
    validationError_ = JovError::errorWithCode(code);
    return *validationError_;
  };
  if (password_.empty() || (username_.empty() && email_.empty() && phoneNumber_.empty()))
    return invalid(JovError::codeInvalidUserObject());

  nlohmann::json body = nlohmann::json::object();
  body["password"] = password_;
  if (auto deviceCountry = detail::deviceCountryCode()) body["country"] = *deviceCountry;
  if (!username_.empty()) body["loginName"] = username_;
  if (!displayName_.empty()) body["displayName"] = displayName_;
  if (!email_.empty()) {
    if (validateFields_ && !emailIsValid(email_))
      return invalid(JovError::codeInvalidEmailFormat());
    body["emailAddress"] = email_;
  }
  if (!phoneNumber_.empty()) {
    if (validateFields_ && !phoneNumberIsValid(phoneNumber_))
      return invalid(JovError::codeInvalidPhoneFormat());
    body["phoneNumber"] = phoneNumber_;
  }
  if (!country_.empty()) body["country"] = country_;
  if (!locale_.empty()) body["locale"] = locale_;
  for (const auto& [key, value] : customInfo_.items())
    if (validate(value, key)) body[key] = value;

  JovRequest request = detail::makeRequest("/users", JovMethodPost, detail::kRegistrationRequest);
  request.anonymous = true;
  request.postData = body;
  JovResponse response = request.makeSynchronousRequest();
  if (!response.ok()) {
    const JovError& error = *response.error;
    if (error.code() > 0) return error;
    if (detail::serverCodeOf(error) == "USER_ALREADY_EXISTS")
      return detail::mappedError(JovError::codeDuplicateEntry(), error);
    return error;  // code 0: the caller reads "http_status" and "server_code"
  }
  if (!response.json.is_object())
    return JovError::errorWithCode(JovError::codeUnableToParseResponse());

  // The answer holds little more than the ID; what was sent is the rest of the record.
  body.erase("password");
  body.update(response.json);
  loadFromJSON(body);
  return detail::runSync(authenticateRoutine());
}

Result<void> JovUser::performRegistrationSynchronous() {
  return registrationRoutine();
}
void JovUser::performRegistration(UserBlock block) {
  detail::runBlock(detail::withSelf(self(), &JovUser::registrationRoutine), std::move(block));
}
void JovUser::performRegistration(JovCallback callback) {
  detail::runCallback(detail::withSelf(self(), &JovUser::registrationRoutine), std::move(callback));
}
std::future<Result<void>> JovUser::performRegistrationAsync() {
  return detail::runFuture(detail::bind(self(), &JovUser::registrationRoutine));
}

Result<JovUser::Ptr> JovUser::registerAsPseudoUserSynchronous(const JovUserFields& userFields) {
  return pseudoRegistration(userFields);
}
void JovUser::registerAsPseudoUser(const JovUserFields& userFields, UserBlock block) {
  detail::runClassBlock([userFields] { return pseudoRegistration(userFields); }, std::move(block));
}
void JovUser::registerAsPseudoUser(const JovUserFields& userFields, JovCallback callback) {
  detail::runCallback([userFields] { return pseudoRegistration(userFields); }, std::move(callback));
}
std::future<Result<JovUser::Ptr>> JovUser::registerAsPseudoUserAsync(
    const JovUserFields& userFields) {
  return detail::runFuture([userFields] { return pseudoRegistration(userFields); });
}

// ------------------------------------------------------------------ the login exchange

constexpr detail::Exchange kLogin{JovMethodPost, "/oauth2/token", {.anonymous = true}};

detail::Routine<void> JovUser::authenticateRoutine() {
  logOut();
  if (password_.empty() || (username_.empty() && phoneNumber_.empty() && email_.empty()))
    co_return JovError::errorWithCode(JovError::codeInvalidUserObject());

  nlohmann::json body = nlohmann::json::object();
  body["password"] = password_;
  if (auto expiresAt = detail::requestedTokenExpiry()) body["expiresAt"] = *expiresAt;
  body["username"] =
      loginIdentifier(username_, phoneNumber_, phoneVerified_, email_, emailVerified_, country_);

  auto answer = co_await detail::send(kLogin, detail::args().json(std::move(body)));
  if (!answer) co_return answer.error();
  const nlohmann::json& token = answer->json;
  auto access = jsonString(token, "access_token");
  if (!access || access->empty()) co_return detail::unreadableAnswer();

  if (auto id = jsonString(token, "id")) uuid_ = *id;
  setTokens(*access, jsonString(token, "refresh_token").value_or(""), expiryOf(token));
  passwordChanged_ = false;
  detail::makeCurrent(self());
  // Fetching the record stores the credentials too; without it the login has not happened.
  auto fetched = co_await refreshRoutine();
  if (!fetched) {
    logOut();
    co_return fetched.error();
  }
  password_.clear();
  co_return {};
}

Result<JovUser::Ptr> JovUser::authenticateSynchronous(const std::string& identifier,
                                                      const std::string& password) {
  return passwordLogin(identifier, password);
}
void JovUser::authenticate(const std::string& identifier, const std::string& password,
                           UserBlock block) {
  detail::runClassBlock([=] { return passwordLogin(identifier, password); }, std::move(block));
}
void JovUser::authenticate(const std::string& identifier, const std::string& password,
                           JovCallback callback) {
  detail::runCallback([=] { return passwordLogin(identifier, password); }, std::move(callback));
}
std::future<Result<JovUser::Ptr>> JovUser::authenticateAsync(const std::string& identifier,
                                                             const std::string& password) {
  return detail::runFuture([=] { return passwordLogin(identifier, password); });
}

Result<JovUser::Ptr> JovUser::authenticateWithLocalPhoneNumberSynchronous(
    const std::string& phoneNumber, const std::string& password, const std::string& countryCode) {
  return localPhoneLogin(phoneNumber, password, countryCode);
}
void JovUser::authenticateWithLocalPhoneNumber(const std::string& phoneNumber,
                                               const std::string& password,
                                               const std::string& countryCode, UserBlock block) {
  detail::runClassBlock([=] { return localPhoneLogin(phoneNumber, password, countryCode); },
                        std::move(block));
}
void JovUser::authenticateWithLocalPhoneNumber(const std::string& phoneNumber,
                                               const std::string& password,
                                               const std::string& countryCode,
                                               JovCallback callback) {
  detail::runCallback([=] { return localPhoneLogin(phoneNumber, password, countryCode); },
                      std::move(callback));
}
std::future<Result<JovUser::Ptr>> JovUser::authenticateWithLocalPhoneNumberAsync(
    const std::string& phoneNumber, const std::string& password, const std::string& countryCode) {
  return detail::runFuture([=] { return localPhoneLogin(phoneNumber, password, countryCode); });
}

// ------------------------------------------------------------------ token login

Result<JovUser::Ptr> JovUser::authenticateWithTokenSynchronous(const std::string& token) {
  checkToken(token);
  return tokenLogin(token, std::nullopt, "");
}
Result<JovUser::Ptr> JovUser::authenticateWithTokenSynchronous(const std::string& token,
                                                               TimePoint expiresAt) {
  checkToken(token);
  return tokenLogin(token, expiresAt, "");
}
Result<JovUser::Ptr> JovUser::authenticateWithTokenSynchronous(const std::string& token,
                                                               std::optional<TimePoint> expiresAt,
                                                               const std::string& refreshToken) {
  checkTokenArguments(token, expiresAt, refreshToken);
  return tokenLogin(token, expiresAt, refreshToken);
}

void JovUser::authenticateWithToken(const std::string& token, UserBlock block) {
  checkToken(token);
  detail::runClassBlock([=] { return tokenLogin(token, std::nullopt, ""); }, std::move(block));
}
void JovUser::authenticateWithToken(const std::string& token, TimePoint expiresAt,
                                    UserBlock block) {
  checkToken(token);
  detail::runClassBlock([=] { return tokenLogin(token, expiresAt, ""); }, std::move(block));
}
void JovUser::authenticateWithToken(const std::string& token, std::optional<TimePoint> expiresAt,
                                    const std::string& refreshToken, UserBlock block) {
  checkTokenArguments(token, expiresAt, refreshToken);
  detail::runClassBlock([=] { return tokenLogin(token, expiresAt, refreshToken); },
                        std::move(block));
}
void JovUser::authenticateWithToken(const std::string& token, JovCallback callback) {
  checkToken(token);
  detail::runCallback([=] { return tokenLogin(token, std::nullopt, ""); }, std::move(callback));
}
void JovUser::authenticateWithToken(const std::string& token, TimePoint expiresAt,
                                    JovCallback callback) {
  checkToken(token);
  detail::runCallback([=] { return tokenLogin(token, expiresAt, ""); }, std::move(callback));
}
void JovUser::authenticateWithToken(const std::string& token, std::optional<TimePoint> expiresAt,
                                    const std::string& refreshToken, JovCallback callback) {
  checkTokenArguments(token, expiresAt, refreshToken);
  detail::runCallback([=] { return tokenLogin(token, expiresAt, refreshToken); },
                      std::move(callback));
}
std::future<Result<JovUser::Ptr>> JovUser::authenticateWithTokenAsync(const std::string& token) {
  checkToken(token);
  return detail::runFuture([=] { return tokenLogin(token, std::nullopt, ""); });
}
std::future<Result<JovUser::Ptr>> JovUser::authenticateWithTokenAsync(const std::string& token,
                                                                      TimePoint expiresAt) {
  checkToken(token);
  return detail::runFuture([=] { return tokenLogin(token, expiresAt, ""); });
}
std::future<Result<JovUser::Ptr>> JovUser::authenticateWithTokenAsync(
    const std::string& token, std::optional<TimePoint> expiresAt, const std::string& refreshToken) {
  checkTokenArguments(token, expiresAt, refreshToken);
  return detail::runFuture([=] { return tokenLogin(token, expiresAt, refreshToken); });
}

// ------------------------------------------------------------------ refresh-token exchange


}  // namespace jov
