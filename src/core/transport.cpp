#include "jov/transport.hpp"

#include <strings.h>

#include <string_view>
#include <thread>

namespace jov {

std::optional<std::string> jovHeaderValue(const JovHeaders& headers, const std::string& name) {
  for (const auto& [field, value] : headers)
    if (strcasecmp(field.c_str(), name.c_str()) == 0) return value;
  return std::nullopt;
}

// A request carries about ten headers: room for them at once rather than four regrowths.
constexpr std::size_t kUsualHeaders = 12;

void JovURLRequest::setValue(const std::string& value, const std::string& field) {
  std::erase_if(headers_,
                [&](const auto& h) { return strcasecmp(h.first.c_str(), field.c_str()) == 0; });
  addValue(value, field);
}

bool JovURLRequest::isIdempotent() const {
  if (method_ == "POST" || method_ == "PATCH") return false;
  return !jovHeaderValue(headers_, "X-HTTP-Method-Override").has_value();
}

void JovURLRequest::addValue(const std::string& value, const std::string& field) {
  if (headers_.empty()) headers_.reserve(kUsualHeaders);
  headers_.emplace_back(field, value);
}

}  // namespace jov

namespace jov {

void JovURLRequest::sendRequestAsync(std::function<void()> done) {
  // A transport without an event loop of its own: one thread per exchange. Only test doubles
  // and custom transports get here; the libcurl transport drives its exchanges from the I/O
  // loop.
  std::thread([this, done = std::move(done)] {
    sendRequest();
    done();
  }).detach();
}

bool JovURLRequest::keepsHeader(const char* name, std::size_t length) const {
  if (keepAllHeaders_) return true;
  static constexpr std::string_view kRead[] = {
      "ETag",     "Content-Type", "Content-Length",        "Content-Range",
      "Location", "X-Step-count", "X-Environment-version",
  };
  for (std::string_view wanted : kRead)
    if (wanted.size() == length && strncasecmp(wanted.data(), name, length) == 0) return true;
  return false;
}

}  // namespace jov
