// Users of an application: their rows, identifier lookups and the record the service returns.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "database.hpp"

namespace jovemu {

struct UserRow {
  std::string appID;
  std::string userID;
  std::optional<std::string> loginName;
  std::optional<std::string> displayName;
  std::optional<std::string> email;
  bool emailVerified = false;
  std::optional<std::string> emailPending;
  std::optional<std::string> phone;
  bool phoneVerified = false;
  std::optional<std::string> phonePending;
  std::optional<std::string> country;
  std::optional<std::string> locale;
  std::optional<std::string> passwordHash;  ///< empty for a pseudo user
  bool disabled = false;
  nlohmann::json custom = nlohmann::json::object();
  std::int64_t created = 0;
  std::int64_t modified = 0;
  /// @brief Linked provider accounts by provider: {"id", "createdAt"}; read only.
  nlohmann::json thirdPartyAccounts = nlohmann::json::object();

  bool hasIdentifier() const { return loginName || email || phone; }
};

std::optional<UserRow> findUser(Connection& conn, const std::string& appID,
                                const std::string& userID);
std::optional<UserRow> findByLoginName(Connection& conn, const std::string& appID,
                                       const std::string& loginName);
std::optional<UserRow> findByEmail(Connection& conn, const std::string& appID,
                                   const std::string& email);
/// @brief A user by phone number as stored; with a country, only a user of that country.
std::optional<UserRow> findByPhone(Connection& conn, const std::string& appID,
                                   const std::string& phone,
                                   const std::optional<std::string>& country = std::nullopt);
/// @brief Resolves "LOGIN_NAME:x", "EMAIL:x", "PHONE:+n", "PHONE:CC-n" or a plain user ID.
std::optional<UserRow> findByIdentifier(Connection& conn, const std::string& appID,
                                        const std::string& identifier);
/// @brief Resolves what a person types to log in: a login name, an e-mail address, a phone
/// number as stored, or "PHONE:CC-number".
std::optional<UserRow> findByLoginIdentifier(Connection& conn, const std::string& appID,
                                             const std::string& identifier);

/// @brief Whether another user already holds the identifier.
bool loginNameTaken(Connection& conn, const std::string& appID, const std::string& loginName,
                    const std::string& exceptUserID);
bool emailTaken(Connection& conn, const std::string& appID, const std::string& email,
                const std::string& exceptUserID);
bool phoneTaken(Connection& conn, const std::string& appID, const std::string& phone,
                const std::optional<std::string>& country, const std::string& exceptUserID);

void insertUser(Connection& conn, const UserRow& user);
/// @brief Writes every column of an existing user.
void updateUser(Connection& conn, const UserRow& user);
void deleteUserRow(Connection& conn, const std::string& appID, const std::string& userID);

/// @brief The user record of the service: never the password or its hash.
nlohmann::json userRecord(const UserRow& user);

}  // namespace jovemu
