// Reading the user attributes of a registration or update body into a user row.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "database.hpp"
#include "user_store.hpp"

namespace jovemu {

/// @brief Identifiers a body asks to set; each already checked for its format.
struct IdentityFields {
  std::optional<std::string> loginName;
  std::optional<std::string> email;
  std::optional<std::string> phone;

  bool any() const { return loginName || email || phone; }
};

/// @brief "loginName", "emailAddress", "phoneNumber": 400 for a wrong format or a null.
IdentityFields readIdentityFields(const nlohmann::json& body);

/// @brief "displayName", "country", "locale" and the custom fields (any key not beginning with
/// "_" that the service does not own); a null value clears the attribute.
void applyProfileFields(const nlohmann::json& body, UserRow& user);

/// @brief "password": 400 unless it is 4-50 printable ASCII characters.
std::optional<std::string> readPassword(const nlohmann::json& body, const char* key,
                                        const char* reportedAs);

/// @brief 400 when the user's phone number is a local one without a country.
void requireCountryForLocalPhone(const UserRow& user);

/// @brief 409 USER_ALREADY_EXISTS when another user of the application holds an identifier.
void requireIdentifiersFree(Connection& conn, const UserRow& user, const IdentityFields& fields);

}  // namespace jovemu
