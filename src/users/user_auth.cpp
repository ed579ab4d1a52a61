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

constexpr detail::ErrorRule kRegistrationErrors[] = {
    detail::onCode("USER_ALREADY_EXISTS", JovError::codeDuplicateEntry()),
};
constexpr detail::Exchange kRegister{JovMethodPost,
                                     "/users",
                                     {.contentType = detail::kRegistrationRequest,
                                      .anonymous = true,
                                      .errors = kRegistrationErrors}};
constexpr detail::Exchange kRegisterPseudo{
    JovMethodPost,
    "/users",
    {.contentType = detail::kRegistrationAndAuthorizationRequest, .anonymous = true}};
constexpr detail::Exchange kLogin{JovMethodPost, "/oauth2/token", {.anonymous = true}};
// The token login sends the given token itself, not the current user's.
constexpr detail::Exchange kTokenLogin{JovMethodGet, "/users/me", {.anonymous = true}};

// The user a password login builds: the identifier is tried as an e-mail address, a login name,
// then an international phone number.
Result<JovUser::Ptr> passwordUser(const std::string& identifier, const std::string& password) {
  if (!passwordIsValid(password)) return errorOf(JovError::codeInvalidPasswordFormat());
  if (emailIsValid(identifier)) return JovUser::userWithEmailAddress(identifier, password);
  if (usernameIsValid(identifier)) return JovUser::userWithUsername(identifier, password);
  if (internationalPhoneNumberIsValid(identifier))
    return JovUser::userWithPhoneNumber(identifier, password);
  return errorOf(JovError::codeInvalidUsername());
}

Result<JovUser::Ptr> localPhoneUser(const std::string& phone, const std::string& password,
                                    const std::string& country) {
  if (!localPhoneNumberIsValid(phone)) return errorOf(JovError::codeInvalidLocalPhoneFormat());
  if (!passwordIsValid(password)) return errorOf(JovError::codeInvalidPasswordFormat());
  if (!countryCodeIsValid(country)) return errorOf(JovError::codeInvalidCountryCode());
  auto user = JovUser::userWithPhoneNumber(phone, password);
  UserAccess::country(*user) = country;
  return user;
}

}  // namespace

void JovUser::checkToken(const std::string& token) {
  if (token.empty()) throw std::invalid_argument("token must not nil or empty");
}

void JovUser::checkTokenArguments(const std::string& token,
                                  const std::optional<TimePoint>& expiresAt,
                                  const std::string& refreshToken) {
  checkToken(token);
  if (refreshToken.empty()) throw std::invalid_argument("refreshToken must not nil or empty");
  if (!expiresAt) throw std::invalid_argument("expiresAt must not nil");
}

// ------------------------------------------------------------------ registration

detail::Routine<void> JovUser::registrationRoutine() {
  // Logging out and in touches the stored credentials and preferences.
  co_await detail::mayBlock();
  logOut();
  auto invalid = [this](int code) {
    validationError_ = JovError::errorWithCode(code);
    return *validationError_;
  };
  if (password_.empty() || (username_.empty() && email_.empty() && phoneNumber_.empty()))
    co_return invalid(JovError::codeInvalidUserObject());

  nlohmann::json body = nlohmann::json::object();
  body["password"] = password_;
  if (auto deviceCountry = detail::deviceCountryCode()) body["country"] = *deviceCountry;
  if (!username_.empty()) body["loginName"] = username_;
  if (!displayName_.empty()) body["displayName"] = displayName_;
  if (!email_.empty()) {
    if (validateFields_ && !emailIsValid(email_))
      co_return invalid(JovError::codeInvalidEmailFormat());
    body["emailAddress"] = email_;
  }
  if (!phoneNumber_.empty()) {
    if (validateFields_ && !phoneNumberIsValid(phoneNumber_))
      co_return invalid(JovError::codeInvalidPhoneFormat());
    body["phoneNumber"] = phoneNumber_;
  }
  if (!country_.empty()) body["country"] = country_;
  if (!locale_.empty()) body["locale"] = locale_;
  for (const auto& [key, value] : customInfo_.items())
    if (validate(value, key)) body[key] = value;

  auto answer = co_await detail::send(kRegister, detail::args().json(body));
  if (!answer) co_return answer.error();  // code 0: the caller reads "http_status", "server_code"
  if (!answer->json.is_object()) co_return detail::unreadableAnswer();

  // The answer holds little more than the ID; what was sent is the rest of the record.
  body.erase("password");
  body.update(answer->json);
  if (!loadFromJSON(body)) co_return detail::unreadableAnswer();
  co_return co_await authenticateRoutine();
}

detail::Routine<JovUser::Ptr> JovUser::pseudoRegistrationRoutine(JovUserFields userFields) {
  // Logging out and in touches the stored credentials and preferences.
  co_await detail::mayBlock();
  logOut();
  if (auto invalid = userFields.validate()) co_return *invalid;
  nlohmann::json body = userFields.toJSON();
  auto answer = co_await detail::send(kRegisterPseudo, detail::args().json(body));
  if (!answer) co_return answer.error();
  auto token = jsonString(answer->json, "_accessToken");
  if (!token || token->empty()) co_return detail::unreadableAnswer();

  body.update(answer->json);
  auto user = UserAccess::create();
  if (!user->loadFromJSON(body) || user->userID().empty()) co_return detail::unreadableAnswer();
  UserAccess::setTokens(*user, *token, "", detail::distantFuture());
  // A pseudo user has no password to log in with again, so nothing is stored.
  detail::makeCurrent(user);
  co_return user;
}

// ------------------------------------------------------------------ the login exchange

detail::Routine<void> JovUser::authenticateRoutine() {
  // Logging out and in touches the stored credentials and preferences.
  co_await detail::mayBlock();
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
  // The refresh stores them only when the record changed; a login always does.
  detail::storeCurrentUserInfoOrLog();
  password_.clear();
  co_return {};
}

detail::Routine<JovUser::Ptr> JovUser::loginRoutine(Result<Ptr> user) {
  // Every login logs out first, so that a failed attempt, refused input included, leaves no
  // current user. Logging out and in touches the stored credentials and preferences.
  co_await detail::mayBlock();
  logOut();
  if (!user) co_return user.error();
  auto login = co_await user.value()->authenticateRoutine();
  if (!login) co_return login.error();
  co_return user.value();
}

detail::Routine<JovUser::Ptr> JovUser::passwordLoginRoutine(std::string identifier,
                                                            std::string password) {
  return loginRoutine(passwordUser(identifier, password));
}

detail::Routine<JovUser::Ptr> JovUser::localPhoneLoginRoutine(std::string phoneNumber,
                                                              std::string password,
                                                              std::string countryCode) {
  return loginRoutine(localPhoneUser(phoneNumber, password, countryCode));
}

// ------------------------------------------------------------------ token login

detail::Routine<JovUser::Ptr> JovUser::tokenLoginRoutine(std::string token,
                                                         std::optional<TimePoint> expiresAt,
                                                         std::string refreshToken) {
  co_await detail::mayBlock();
  logOut();
  auto answer =
      co_await detail::send(kTokenLogin, detail::args().header("Authorization", "Bearer " + token));
  if (!answer) co_return answer.error();
  auto user = UserAccess::create();
  if (!user->loadFromJSON(answer->json) || user->userID().empty())
    co_return detail::unreadableAnswer();
  UserAccess::setAccessToken(*user, token);
  if (expiresAt) UserAccess::setExpiresAt(*user, expiresAt);
  if (!refreshToken.empty()) UserAccess::setRefreshToken(*user, refreshToken);
  detail::makeCurrent(user);
  detail::storeCurrentUserInfoOrLog();
  co_return user;
}

}  // namespace jov
