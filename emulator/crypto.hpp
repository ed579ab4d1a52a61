// Random identifiers and codes, and password hashing, all from OpenSSL.
#pragma once

#include <cstddef>
#include <string>

namespace jovemu {

/// @brief Lower-case hex text of `bytes` random bytes.
std::string randomHex(std::size_t bytes);
/// @brief A code of `length` random decimal digits, as a person would type it.
std::string randomDigits(std::size_t length);
/// @brief A random user ID in the 8-4-4-4-12 hex form.
std::string newUserID();

/// @brief Salted PBKDF2-HMAC-SHA256 of the password, self-describing ("pbkdf2-sha256$...").
std::string hashPassword(const std::string& password);
/// @brief Whether the password matches a value made by hashPassword.
bool verifyPassword(const std::string& password, const std::string& stored);

}  // namespace jovemu
