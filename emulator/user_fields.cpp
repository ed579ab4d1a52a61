#include "user_fields.hpp"

#include <array>
#include <string_view>

#include "api_error.hpp"
#include "call.hpp"
#include "validation.hpp"

namespace jovemu {

namespace {

// Keys of the user record that are not custom fields even though they lack the "_" prefix.
constexpr std::array<std::string_view, 13> kOwnKeys = {
    "password",       "loginName", "emailAddress", "phoneNumber",          "country",
    "displayName",    "locale",    "userID",       "emailAddressVerified", "phoneNumberVerified",
    "internalUserID", "createdAt", "modifiedAt"};

bool isOwnKey(const std::string& key) {
  for (auto own : kOwnKeys) {
    if (key == own) return true;
  }
  return false;
}

std::optional<std::string> identifier(const nlohmann::json& body, const char* key,
                                      bool (*valid)(const std::string&), const char* rule) {
  auto it = body.find(key);
  if (it == body.end()) return std::nullopt;
  if (it->is_null()) {
    throw invalidInput(std::string("There are validation errors: ") + key + " - cannot be removed");
  }
  auto value = optionalString(body, key);
  if (!valid(*value)) {
    throw invalidInput(std::string("There are validation errors: ") + key + " - " + rule);
  }
  return value;
}

void applyString(const nlohmann::json& body, const char* key, std::optional<std::string>& target,
                 bool (*valid)(const std::string&), const char* rule) {
  auto it = body.find(key);
  if (it == body.end()) return;
  if (it->is_null()) {
    target.reset();
    return;
  }
  auto value = optionalString(body, key);
  if (valid && !valid(*value)) {
    throw invalidInput(std::string("There are validation errors: ") + key + " - " + rule);
  }
  target = value;
}

bool isValidLocale(const std::string& value) {
  return !value.empty() && value.size() <= 64;
}

}  // namespace

IdentityFields readIdentityFields(const nlohmann::json& body) {
  IdentityFields fields;
  fields.loginName = identifier(body, "loginName", isValidLoginName,
                                "must be 3-64 letters, digits, '-', '_' or '.'");
  fields.email = identifier(body, "emailAddress", isValidEmail, "must be an e-mail address");
  fields.phone =
      identifier(body, "phoneNumber", isValidPhone, "must be 7-20 digits, optionally after a '+'");
  return fields;
}

void applyProfileFields(const nlohmann::json& body, UserRow& user) {
  applyString(body, "displayName", user.displayName, isValidDisplayName, "must be 1-50 characters");
  applyString(body, "country", user.country, isValidCountry, "must be two capital letters");
  applyString(body, "locale", user.locale, isValidLocale, "must be a language tag");
  for (auto it = body.begin(); it != body.end(); ++it) {
    const std::string& key = it.key();
    if (key.empty() || key[0] == '_' || isOwnKey(key)) continue;
    if (it->is_null()) {
      user.custom.erase(key);
    } else {
      user.custom[key] = *it;
    }
  }
}

std::optional<std::string> readPassword(const nlohmann::json& body, const char* key,
                                        const char* reportedAs) {
  auto password = optionalString(body, key);
  if (password && !isValidPassword(*password)) {
    throw invalidInput(std::string("There are validation errors: ") + reportedAs +
                       " - must be 4-50 printable ASCII characters");
  }
  return password;
}

void requireCountryForLocalPhone(const UserRow& user) {
  for (const auto* phone : {&user.phone, &user.phonePending}) {
    if (*phone && !isGlobalPhone(**phone) && !user.country) {
      throw invalidInput(
          "There are validation errors: country - must not be null for a local phone number");
    }
  }
}

void requireIdentifiersFree(Connection& conn, const UserRow& user, const IdentityFields& fields) {
  if (fields.loginName && loginNameTaken(conn, user.appID, *fields.loginName, user.userID)) {
    throw userExists("The login name");
  }
  if (fields.email && emailTaken(conn, user.appID, *fields.email, user.userID)) {
    throw userExists("The e-mail address");
  }
  if (fields.phone && phoneTaken(conn, user.appID, *fields.phone, user.country, user.userID)) {
    throw userExists("The phone number");
  }
}

}  // namespace jovemu
