#pragma once
/// @file
/// @brief Input validators: each matches its pattern against the whole string.

#include <string_view>

namespace jov {

/// @brief One "@" with at least one other character on each side.
bool emailIsValid(std::string_view s);
/// @brief 3 to 64 of letters, digits, "-", "_", ".".
bool usernameIsValid(std::string_view s);
/// @brief 2 to 64 of letters, digits, "-", "_", ".".
bool bucketNameIsValid(std::string_view s);
/// @brief 1 to 50 UTF-16 units, any characters.
bool displaynameIsValid(std::string_view utf8);
/// @brief 4 to 50 printable ASCII characters, blank included.
bool passwordIsValid(std::string_view s);
/// @brief An optional "+" then 7 to 20 digits.
bool phoneNumberIsValid(std::string_view s);
/// @brief "+" then 7 to 20 digits.
bool internationalPhoneNumberIsValid(std::string_view s);
/// @brief 7 to 20 digits.
bool localPhoneNumberIsValid(std::string_view s);
/// @brief Two capital letters.
bool countryCodeIsValid(std::string_view s);
/// @brief 1 to 64 of letters, digits, "_", "-".
bool topicIdIsValid(std::string_view s);
/// @brief 2 to 100 of letters, digits, "-", "_", ".".
bool objectIdIsValid(std::string_view s);
/// @brief A letter, then letters, digits, "_".
bool serverCodeEntryNameIsValid(std::string_view s);
/// @brief 2 to 100 of letters, digits, "-", "_", ".".
bool experimentIDIsValid(std::string_view s);

}  // namespace jov
