#include "jov/transport.hpp"

#include <strings.h>

namespace jov {

std::optional<std::string> jovHeaderValue(const JovHeaders& headers, const std::string& name) {
  for (const auto& [field, value] : headers)
    if (strcasecmp(field.c_str(), name.c_str()) == 0) return value;
  return std::nullopt;
}

void JovURLRequest::setValue(const std::string& value, const std::string& field) {
  std::erase_if(headers_,
                [&](const auto& h) { return strcasecmp(h.first.c_str(), field.c_str()) == 0; });
  headers_.emplace_back(field, value);
}

void JovURLRequest::addValue(const std::string& value, const std::string& field) {
  headers_.emplace_back(field, value);
}

}  // namespace jov
