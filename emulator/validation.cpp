#include "validation.hpp"

#include <algorithm>
#include <cctype>

namespace jovemu {

namespace {

bool allOf(const std::string& value, bool (*accept)(unsigned char)) {
  return std::all_of(value.begin(), value.end(),
                     [accept](char c) { return accept(static_cast<unsigned char>(c)); });
}

bool isDigit(unsigned char c) {
  return c >= '0' && c <= '9';
}
bool isNameChar(unsigned char c) {
  return std::isalnum(c) || c == '-' || c == '_' || c == '.';
}
bool isGroupIDChar(unsigned char c) {
  return (c >= 'a' && c <= 'z') || isDigit(c) || c == '-' || c == '_' || c == '.';
}
bool isPrintableAscii(unsigned char c) {
  return c >= 0x20 && c <= 0x7e;
}

// Counts UTF-16 units of UTF-8 text: characters above U+FFFF take two.
std::size_t utf16Length(const std::string& value) {
  std::size_t units = 0;
  for (unsigned char c : value) {
    if ((c & 0xc0) == 0x80) continue;  // continuation byte
    units += (c >= 0xf0) ? 2 : 1;
  }
  return units;
}

}  // namespace

bool isValidPassword(const std::string& value) {
  return value.size() >= 4 && value.size() <= 50 && allOf(value, isPrintableAscii);
}

bool isValidLoginName(const std::string& value) {
  return value.size() >= 3 && value.size() <= 64 && allOf(value, isNameChar);
}

bool isValidEmail(const std::string& value) {
  auto at = value.find('@');
  return at != std::string::npos && at > 0 && at + 1 < value.size() &&
         value.find('@', at + 1) == std::string::npos && value.size() <= 254;
}

bool isValidPhone(const std::string& value) {
  std::string digits = (!value.empty() && value[0] == '+') ? value.substr(1) : value;
  return digits.size() >= 7 && digits.size() <= 20 && allOf(digits, isDigit);
}

bool isGlobalPhone(const std::string& value) {
  return !value.empty() && value[0] == '+';
}

bool isValidCountry(const std::string& value) {
  // Two capital letters, or the three digits of a region such as "419" that a device locale
  // may carry.
  auto upperOrDigit = [](unsigned char c) { return std::isupper(c) || isDigit(c); };
  return (value.size() == 2 || value.size() == 3) &&
         std::all_of(value.begin(), value.end(),
                     [&](char c) { return upperOrDigit(static_cast<unsigned char>(c)); });
}

bool isValidDisplayName(const std::string& value) {
  auto units = utf16Length(value);
  return units >= 1 && units <= 50;
}

bool isDotSegment(const std::string& value) {
  return value == "." || value == "..";
}

bool isValidGroupID(const std::string& value) {
  return !isDotSegment(value) && !value.empty() && value.size() <= 30 &&
         allOf(value, isGroupIDChar);
}

bool isValidGroupName(const std::string& value) {
  return !value.empty() && utf16Length(value) < 191;
}

bool isValidAppID(const std::string& value) {
  return !isDotSegment(value) && !value.empty() && value.size() <= 64 && allOf(value, isNameChar);
}

}  // namespace jovemu
