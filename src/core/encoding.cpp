#include "jov/encoding.hpp"

#include <openssl/evp.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "jov/logger.hpp"

namespace jov {
namespace {

constexpr char kLowerHex[] = "0123456789abcdef";
constexpr char kUpperHex[] = "0123456789ABCDEF";

std::string toHex(const unsigned char* data, std::size_t size, const char* digits) {
  std::string out;
  out.reserve(size * 2);
  for (std::size_t i = 0; i < size; ++i) {
    out += digits[data[i] >> 4];
    out += digits[data[i] & 0x0F];
  }
  return out;
}

std::string md5Hex(const void* data, std::size_t size, const char* digits) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(data, size, digest, &length, EVP_md5(), nullptr) != 1) {
    // Only a crypto library without MD5 (a FIPS-only build) gets here.
    throw std::runtime_error("MD5 digest is not available");
  }
  return toHex(digest, length, digits);
}

std::span<const std::uint8_t> asBytes(std::string_view s) {
  return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()};
}

bool isUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

std::string percentEncode(std::string_view s, bool (*keep)(unsigned char)) {
  std::string out;
  out.reserve(s.size());
  std::size_t kept = 0;  // where the run of characters kept as they are began
  for (std::size_t i = 0; i < s.size(); ++i) {
    const auto c = static_cast<unsigned char>(s[i]);
    if (keep(c)) continue;
    out.append(s.data() + kept, i - kept);
    const char escape[3] = {'%', kUpperHex[c >> 4], kUpperHex[c & 0x0F]};
    out.append(escape, 3);
    kept = i + 1;
  }
  out.append(s.data() + kept, s.size() - kept);
  return out;
}

}  // namespace

std::string md5(std::string_view s) {
  // Callers hand in C strings that may carry a terminator; the digest stops where C would.
  s = s.substr(0, s.find('\0'));
  return md5Hex(s.data(), s.size(), kLowerHex);
}

std::string checksum(std::span<const std::uint8_t> bytes) {
  return md5Hex(bytes.data(), bytes.size(), kUpperHex);
}

std::string checksum(std::string_view bytes) {
  return checksum(asBytes(bytes));
}

std::string urlEncode(std::string_view s) {
  // Escapes everything a URL never carries literally, the delimiters, and "%" itself: the
  // result goes into a path segment, where a bare "%" would be read as an escape.
  return percentEncode(s, isUnreserved);
}

std::string RFC3986Encode(std::string_view s) {
  return percentEncode(s, isUnreserved);
}

std::string base64(std::span<const std::uint8_t> bytes) {
  // EVP_EncodeBlock takes an int length, so very large inputs go in whole 3-byte groups.
  constexpr std::size_t kChunk = 3 * (1u << 20);
  std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');  // +1: EVP writes a terminator
  std::size_t written = 0;
  for (std::size_t at = 0; at < bytes.size(); at += kChunk) {
    const auto part = bytes.subspan(at, std::min(kChunk, bytes.size() - at));
    written += static_cast<std::size_t>(
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data() + written), part.data(),
                        static_cast<int>(part.size())));
  }
  out.resize(written);
  return out;
}

std::string base64(std::string_view bytes) {
  return base64(asBytes(bytes));
}

std::string hexToken(std::span<const std::uint8_t> bytes) {
  return toHex(bytes.data(), bytes.size(), kUpperHex);
}

std::optional<nlohmann::json> JSONValue(std::string_view text) {
  try {
    return nlohmann::json::parse(text.begin(), text.end());
  } catch (const nlohmann::json::parse_error& e) {
    JOV_LOG(3, std::string("JSON parse failed: ") + e.what());
    return std::nullopt;
  }
}

std::optional<std::string> JSONRepresentation(const nlohmann::json& value) {
  try {
    return value.dump();
  } catch (const nlohmann::json::type_error& e) {
    JOV_LOG(3, std::string("JSON serialisation failed: ") + e.what());
    return std::nullopt;
  }
}

std::optional<std::string> jsonString(const nlohmann::json& object, const std::string& key) {
  if (!object.is_object()) return std::nullopt;
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

std::optional<std::int64_t> jsonInt64(const nlohmann::json& object, const std::string& key) {
  if (!object.is_object()) return std::nullopt;
  const auto it = object.find(key);
  if (it == object.end()) return std::nullopt;
  if (it->is_number_unsigned()) {
    const auto u = it->get<std::uint64_t>();
    if (u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return std::nullopt;
    }
    return static_cast<std::int64_t>(u);
  }
  if (it->is_number_integer()) return it->get<std::int64_t>();
  if (it->is_number_float()) {
    // Some servers write whole numbers as 12.0; fractions and out-of-range values are not ours.
    const double d = it->get<double>();
    constexpr double kLimit = 9223372036854775808.0;  // 2^63
    if (!std::isfinite(d) || d != std::trunc(d) || d < -kLimit || d >= kLimit) {
      return std::nullopt;
    }
    return static_cast<std::int64_t>(d);
  }
  return std::nullopt;
}

std::optional<bool> jsonBool(const nlohmann::json& object, const std::string& key) {
  if (!object.is_object()) return std::nullopt;
  const auto it = object.find(key);
  if (it == object.end() || !it->is_boolean()) return std::nullopt;
  return it->get<bool>();
}

}  // namespace jov
