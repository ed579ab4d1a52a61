// JovUserBuilder, JovIdentityData and JovUserFields: what a user is registered or updated with.

#include "jov/user_builder.hpp"

#include <stdexcept>

#include "jov/encoding.hpp"
#include "jov/user.hpp"
#include "jov/validation.hpp"
#include "users/user_internal.hpp"

namespace jov {

namespace {

void require(bool valid, const char* message) {
  if (!valid) throw std::invalid_argument(message);
}

// Keys with a field of their own, and the service's reserved ones.
bool reservedFieldKey(const std::string& key) {
  static const std::set<std::string> kReserved = {"internalUserID", "userID",      "loginName",
                                                  "emailAddress",   "phoneNumber", "password",
                                                  "country",        "displayName", "locale"};
  return key.empty() || key.front() == '_' || kReserved.contains(key);
}

}  // namespace

// ------------------------------------------------------------------ JovUserBuilder

JovUserBuilder::JovUserBuilder(const std::string& password) : password_(password) {
  require(passwordIsValid(password), "password is invalid");
}

JovUserBuilder JovUserBuilder::builderWithUsername(const std::string& username,
                                                   const std::string& password) {
  JovUserBuilder builder(password);
  builder.setUsername(username);
  return builder;
}

JovUserBuilder JovUserBuilder::builderWithEmail(const std::string& email,
                                                const std::string& password) {
  JovUserBuilder builder(password);
  builder.setEmail(email);
  return builder;
}

JovUserBuilder JovUserBuilder::builderWithGlobalPhoneNumber(const std::string& phoneNumber,
                                                            const std::string& password) {
  JovUserBuilder builder(password);
  builder.setGlobalPhoneNumber(phoneNumber);
  return builder;
}

JovUserBuilder JovUserBuilder::builderWithLocalPhoneNumber(const std::string& phoneNumber,
                                                           const std::string& country,
                                                           const std::string& password) {
  JovUserBuilder builder(password);
  builder.setLocalPhoneNumber(phoneNumber, country);
  return builder;
}

JovUserBuilder JovUserBuilder::builderWithIdentifier(const std::string& identifier,
                                                     const std::string& password) {
  if (emailIsValid(identifier)) return builderWithEmail(identifier, password);
  if (usernameIsValid(identifier)) return builderWithUsername(identifier, password);
  if (internationalPhoneNumberIsValid(identifier))
    return builderWithGlobalPhoneNumber(identifier, password);
  throw std::invalid_argument("identifier is invalid");
}

JovUserBuilder& JovUserBuilder::setUsername(const std::string& username) {
  require(usernameIsValid(username), "username is invalid");
  username_ = username;
  return *this;
}

JovUserBuilder& JovUserBuilder::setEmail(const std::string& email) {
  require(emailIsValid(email), "email is invalid");
  email_ = email;
  return *this;
}

JovUserBuilder& JovUserBuilder::setGlobalPhoneNumber(const std::string& phoneNumber) {
  require(internationalPhoneNumberIsValid(phoneNumber), "phoneNumber is invalid");
  phoneNumber_ = phoneNumber;
  country_.clear();
  return *this;
}

JovUserBuilder& JovUserBuilder::setLocalPhoneNumber(const std::string& phoneNumber,
                                                    const std::string& country) {
  require(localPhoneNumberIsValid(phoneNumber), "phoneNumber is invalid");
  require(countryCodeIsValid(country), "country is invalid");
  phoneNumber_ = phoneNumber;
  country_ = country;
  return *this;
}

std::shared_ptr<JovUser> JovUserBuilder::build() const {
  auto user = detail::UserAccess::create();
  user->setValidateFields(true);
  detail::UserAccess::password(*user) = password_;
  detail::UserAccess::username(*user) = username_;
  detail::UserAccess::email(*user) = email_;
  detail::UserAccess::phoneNumber(*user) = phoneNumber_;
  detail::UserAccess::country(*user) = country_;
  return user;
}

// ------------------------------------------------------------------ JovIdentityData

bool JovIdentityData::hasLocalPhoneNumber() const {
  return !phoneNumber_.empty() && phoneNumber_.front() != '+';
}

std::optional<JovError> JovIdentityData::validate() const {
  if (userName_.empty() && email_.empty() && phoneNumber_.empty())
    return JovError::errorWithCode(JovError::codeInvalidUserObject());
  if (!userName_.empty() && !usernameIsValid(userName_))
    return JovError::errorWithCode(JovError::codeInvalidUsername());
  if (!email_.empty() && !emailIsValid(email_))
    return JovError::errorWithCode(JovError::codeInvalidEmailFormat());
  if (!phoneNumber_.empty() && !phoneNumberIsValid(phoneNumber_))
    return JovError::errorWithCode(JovError::codeInvalidPhoneFormat());
  return std::nullopt;
}

nlohmann::json JovIdentityData::toJSON() const {
  nlohmann::json json = nlohmann::json::object();
  if (!userName_.empty()) json["loginName"] = userName_;
  if (!email_.empty()) json["emailAddress"] = email_;
  if (!phoneNumber_.empty()) json["phoneNumber"] = phoneNumber_;
  return json;
}

JovIdentityDataBuilder& JovIdentityDataBuilder::setUserName(const std::string& userName) {
  data_.userName_ = userName;
  return *this;
}
JovIdentityDataBuilder& JovIdentityDataBuilder::setEmail(const std::string& email) {
  data_.email_ = email;
  return *this;
}
JovIdentityDataBuilder& JovIdentityDataBuilder::setPhoneNumber(const std::string& phoneNumber) {
  data_.phoneNumber_ = phoneNumber;
  return *this;
}

// ------------------------------------------------------------------ JovUserFields

bool JovUserFields::setObject(const nlohmann::json& value, const std::string& key) {
  if (reservedFieldKey(key)) return false;
  if (!JSONRepresentation(nlohmann::json::array({value}))) return false;
  custom_[key] = value;
  return true;
}

std::optional<nlohmann::json> JovUserFields::getObjectForKey(const std::string& key) const {
  auto it = custom_.find(key);
  if (it == custom_.end()) return std::nullopt;
  return *it;
}

bool JovUserFields::hasObject(const std::string& key) const {
  return custom_.contains(key);
}

void JovUserFields::removeObjectForKey(const std::string& key) {
  custom_.erase(key);
}

std::optional<JovError> JovUserFields::validate() const {
  if (!displayName_.empty() && !displaynameIsValid(displayName_))
    return JovError::errorWithCode(JovError::codeInvalidDisplayName());
  if (!country_.empty() && !countryCodeIsValid(country_))
    return JovError::errorWithCode(JovError::codeInvalidCountryCode());
  return std::nullopt;
}

nlohmann::json JovUserFields::toJSON() const {
  nlohmann::json json = nlohmann::json::object();
  if (!displayName_.empty()) json["displayName"] = displayName_;
  if (!country_.empty()) json["country"] = country_;
  for (const auto& [key, value] : custom_.items()) json[key] = value;
  if (!locale_.empty()) json["locale"] = locale_;
  return json;
}

}  // namespace jov
