// The formats the service accepts for identifiers, passwords and names.
#pragma once

#include <string>

namespace jovemu {

/// @brief 4 to 50 printable ASCII characters, blank included.
bool isValidPassword(const std::string& value);
/// @brief 3 to 64 of letters, digits, "-", "_", ".".
bool isValidLoginName(const std::string& value);
/// @brief One "@" with at least one other character on each side.
bool isValidEmail(const std::string& value);
/// @brief An optional "+", then 7 to 20 digits.
bool isValidPhone(const std::string& value);
/// @brief Whether a phone number is in international form ("+" and digits).
bool isGlobalPhone(const std::string& value);
/// @brief Two capital letters (or a three-digit region code).
bool isValidCountry(const std::string& value);
/// @brief 1 to 50 characters, counted as UTF-16 units.
bool isValidDisplayName(const std::string& value);
/// @brief "." or "..": path segments a client or proxy may squash, never valid as an ID.
bool isDotSegment(const std::string& value);
/// @brief 1 to 30 of lower-case letters, digits, ".", "_", "-"; not "." nor "..".
bool isValidGroupID(const std::string& value);
/// @brief A non-empty name shorter than 191 characters.
bool isValidGroupName(const std::string& value);
/// @brief An application ID given to /emulator/apps: 1 to 64 of letters, digits, ".", "_", "-";
/// not "." nor "..".
bool isValidAppID(const std::string& value);

}  // namespace jovemu
