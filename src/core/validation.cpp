#include "jov/validation.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>

// The service checks its inputs against regular expressions matched over the whole string.
// The checks below accept exactly the same strings, written out by hand: std::regex
// implementations disagree on classes like "0-9-_" (where "-" is a literal hyphen), and a
// whole-string check cannot be fooled by a line break before the end the way "$" can.

namespace jov {
namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isUpper(char c) {
  return c >= 'A' && c <= 'Z';
}
bool isLetter(char c) {
  return isUpper(c) || (c >= 'a' && c <= 'z');
}
bool isAlnum(char c) {
  return isLetter(c) || isDigit(c);
}

// [a-zA-Z0-9-_\.]
bool isNameChar(char c) {
  return isAlnum(c) || c == '-' || c == '_' || c == '.';
}

template <typename Pred>
bool allOf(std::string_view s, std::size_t minLength, std::size_t maxLength, Pred pred) {
  return s.size() >= minLength && s.size() <= maxLength && std::all_of(s.begin(), s.end(), pred);
}

// ^\+?[0-9]{7,20}$ with the sign required, optional or forbidden.
enum class Plus { Required, Optional, Forbidden };

bool phoneMatches(std::string_view s, Plus plus) {
  const bool hasPlus = !s.empty() && s.front() == '+';
  if ((plus == Plus::Required && !hasPlus) || (plus == Plus::Forbidden && hasPlus)) return false;
  if (hasPlus) s.remove_prefix(1);
  return allOf(s, 7, 20, isDigit);
}

// Number of UTF-16 units of well-formed UTF-8 text, or nothing for malformed input
// (overlong forms, surrogates, code points above U+10FFFF, truncated sequences).
std::optional<std::size_t> utf16Length(std::string_view s) {
  std::size_t units = 0;
  for (std::size_t i = 0; i < s.size();) {
    const auto lead = static_cast<std::uint8_t>(s[i]);
    std::size_t extra;
    std::uint32_t cp;
    if (lead < 0x80) {
      extra = 0;
      cp = lead;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
      extra = 1;
      cp = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      extra = 2;
      cp = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      extra = 3;
      cp = lead & 0x07;
    } else {
      return std::nullopt;
    }
    if (s.size() - i <= extra) return std::nullopt;
    for (std::size_t k = 1; k <= extra; ++k) {
      const auto next = static_cast<std::uint8_t>(s[i + k]);
      if ((next & 0xC0) != 0x80) return std::nullopt;
      cp = (cp << 6) | (next & 0x3F);
    }
    if ((extra == 2 && cp < 0x800) || (extra == 3 && (cp < 0x10000 || cp > 0x10FFFF)) ||
        (cp >= 0xD800 && cp <= 0xDFFF)) {
      return std::nullopt;
    }
    units += cp >= 0x10000 ? 2 : 1;
    i += extra + 1;
  }
  return units;
}

}  // namespace

// ^[^@]+@[^@]+$
bool emailIsValid(std::string_view s) {
  const auto at = s.find('@');
  return at != std::string_view::npos && at > 0 && at + 1 < s.size() &&
         s.find('@', at + 1) == std::string_view::npos;
}

// [a-zA-Z0-9-_\.]{3,64}
bool usernameIsValid(std::string_view s) {
  return allOf(s, 3, 64, isNameChar);
}

// [a-zA-Z0-9-_\.]{2,64}
bool bucketNameIsValid(std::string_view s) {
  return allOf(s, 2, 64, isNameChar);
}

// Counted as the service counts: UTF-16 units, so a character outside the BMP counts twice.
bool displaynameIsValid(std::string_view utf8) {
  const auto units = utf16Length(utf8);
  return units && *units >= 1 && *units <= 50;
}

// [ -~]{4,50}
bool passwordIsValid(std::string_view s) {
  return allOf(s, 4, 50, [](char c) { return c >= ' ' && c <= '~'; });
}

bool phoneNumberIsValid(std::string_view s) {
  return phoneMatches(s, Plus::Optional);
}

bool internationalPhoneNumberIsValid(std::string_view s) {
  return phoneMatches(s, Plus::Required);
}

bool localPhoneNumberIsValid(std::string_view s) {
  return phoneMatches(s, Plus::Forbidden);
}

// ^[A-Z]{2}$
bool countryCodeIsValid(std::string_view s) {
  return allOf(s, 2, 2, isUpper);
}

// ^[A-Za-z0-9_-]{1,64}$
bool topicIdIsValid(std::string_view s) {
  return allOf(s, 1, 64, [](char c) { return isAlnum(c) || c == '_' || c == '-'; });
}

// ^[a-zA-Z0-9-_\.]{2,100}$
bool objectIdIsValid(std::string_view s) {
  return allOf(s, 2, 100, isNameChar);
}

// [a-zA-Z][_a-zA-Z0-9]*$
bool serverCodeEntryNameIsValid(std::string_view s) {
  return !s.empty() && isLetter(s.front()) &&
         std::all_of(s.begin() + 1, s.end(), [](char c) { return isAlnum(c) || c == '_'; });
}

// [a-zA-Z0-9-_\.]{2,100}$
bool experimentIDIsValid(std::string_view s) {
  return allOf(s, 2, 100, isNameChar);
}

}  // namespace jov
