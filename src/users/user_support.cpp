// Small helpers of the user exchanges: requests, error mapping, identifiers and the device's
// country.

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "jov/encoding.hpp"
#include "jov/validation.hpp"
#include "users/user_internal.hpp"

namespace jov::detail {

std::string serverCodeOf(const JovError& error) {
  std::string code = error.jovErrorSummary().value_or("");
  std::transform(code.begin(), code.end(), code.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return code;
}

JovError mappedError(int code, const JovError& from) {
  nlohmann::json info = from.userInfo();
  info.erase("description");  // the new code brings its own
  return JovError::errorWithCode(code, info);
}

JovRequest makeRequest(const std::string& path, std::int32_t method, const char* contentType) {
  JovRequest request(path);
  request.requestMethod = method;
  // JovRequest sends postData with every method number but 0 and 4; a GET carries no body.
  if (method == JovMethodGet || method == JovMethodDelete) request.postData.reset();
  if (contentType) request.content = contentType;
  return request;
}

std::optional<std::string> prefixedUserIdentifier(const std::string& identifier) {
  if (emailIsValid(identifier)) return "EMAIL:" + identifier;
  if (internationalPhoneNumberIsValid(identifier)) return "PHONE:" + identifier;
  return std::nullopt;
}

std::optional<std::string> deviceCountryCode() {
  // The locale of messages decides, as setlocale(LC_MESSAGES, "") would choose it.
  std::string name;
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(variable);
    if (value && *value) {
      name = value;
      break;
    }
  }
  // language[_territory][.codeset][@modifier]; BCP 47 tags ("de-DE") are read the same way.
  name = name.substr(0, name.find_first_of(".@"));
  auto separator = name.find_first_of("_-");
  if (separator == std::string::npos) return std::nullopt;  // also "C" and "POSIX"
  std::string territory = name.substr(separator + 1);
  if (auto next = territory.find_first_of("_-"); next != std::string::npos) {
    // "zh_Hant_TW": a script comes first.
    territory = territory.substr(next + 1);
  }
  if (!countryCodeIsValid(territory)) return std::nullopt;
  return territory;
}

}  // namespace jov::detail
