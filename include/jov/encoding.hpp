#pragma once
/// @file
/// @brief Digests, percent-encoding, Base64 and the JSON helpers.

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace jov {

/// @brief MD5 of the UTF-8 bytes (up to the first zero byte) as 32 lower-case hex digits.
std::string md5(std::string_view s);
/// @brief MD5 of the bytes as 32 upper-case hex digits (the integrity value of uploads).
std::string checksum(std::span<const std::uint8_t> bytes);
/// @brief MD5 of the bytes as 32 upper-case hex digits.
std::string checksum(std::string_view bytes);
/// @brief Percent-encodes every byte but letters, digits, "-._~" and "%" (so "/?#[]@..." too).
std::string urlEncode(std::string_view s);
/// @brief Copies RFC 3986 unreserved characters, writes every other byte as "%XX".
std::string RFC3986Encode(std::string_view s);
/// @brief Standard Base64 of the bytes.
std::string base64(std::span<const std::uint8_t> bytes);
/// @brief Standard Base64 of the bytes.
std::string base64(std::string_view bytes);
/// @brief The bytes as two upper-case hex digits each (the push device token).
std::string hexToken(std::span<const std::uint8_t> bytes);

/// @brief Parses JSON text; a failure is traced at level 3 and gives nothing.
std::optional<nlohmann::json> JSONValue(std::string_view text);
/// @brief Compact JSON text of a value; a failure (invalid UTF-8) is traced and gives nothing.
std::optional<std::string> JSONRepresentation(const nlohmann::json& value);
/// @brief A JSON value with null treated as absent: the string at key, or nothing.
std::optional<std::string> jsonString(const nlohmann::json& object, const std::string& key);
/// @brief The number at key as a 64-bit integer, or nothing (null and other types: nothing).
std::optional<std::int64_t> jsonInt64(const nlohmann::json& object, const std::string& key);
/// @brief The boolean at key, or nothing.
std::optional<bool> jsonBool(const nlohmann::json& object, const std::string& key);

}  // namespace jov
