#include "call.hpp"

#include <algorithm>
#include <cctype>

#include "api_error.hpp"

namespace jovemu {

namespace {

// Deeper documents than this are refused before they can be stored or echoed back; the parser
// keeps its own stack, so depth costs memory here, and recursion wherever a value is walked.
constexpr int kMaxJsonDepth = 64;

std::string lower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) {
    text.remove_prefix(1);
  }
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) {
    text.remove_suffix(1);
  }
  return text;
}

struct TooDeep {};

}  // namespace

std::string dumpJson(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void writeError(httplib::Response& res, int status, const std::string& code,
                const std::string& message) {
  res.status = status;
  res.set_content(dumpJson({{"errorCode", code}, {"message", message}}), "application/json");
}

std::optional<std::string> Call::query(const std::string& name) const {
  if (!req_.has_param(name)) return std::nullopt;
  return req_.get_param_value(name);
}

std::optional<std::string> Call::header(const std::string& name) const {
  if (!req_.has_header(name)) return std::nullopt;
  return req_.get_header_value(name);
}

std::optional<std::string> Call::bearerToken() const {
  auto value = header("Authorization");
  if (!value) return std::nullopt;
  std::string_view text = trim(*value);
  constexpr std::string_view kScheme = "bearer ";
  if (text.size() <= kScheme.size() || lower(text.substr(0, kScheme.size())) != kScheme) {
    return std::nullopt;
  }
  auto token = trim(text.substr(kScheme.size()));
  if (token.empty()) return std::nullopt;
  return std::string(token);
}

std::string Call::mediaType() const {
  std::string given = lower(trim(header("Content-Type").value_or("")));
  return std::string(trim(std::string_view(given).substr(0, given.find(';'))));
}

void Call::requireMediaType(std::initializer_list<std::string_view> accepted) const {
  std::string given = mediaType();
  for (auto type : accepted) {
    if (given == lower(type)) return;
  }
  throw ApiError(415, "UNSUPPORTED_MEDIA_TYPE",
                 "The Content-Type must be " + std::string(*accepted.begin()));
}

nlohmann::json Call::jsonObject() const {
  if (trim(req_.body).empty()) return nlohmann::json::object();
  nlohmann::json value;
  try {
    value = nlohmann::json::parse(req_.body,
                                  [](int depth, nlohmann::json::parse_event_t, nlohmann::json&) {
                                    if (depth > kMaxJsonDepth) throw TooDeep{};
                                    return true;
                                  });
  } catch (const nlohmann::json::out_of_range&) {
    // A number no double can hold, such as 1e999.
    throw invalidInput("The request body holds a number out of range");
  } catch (const nlohmann::json::exception&) {
    throw invalidInput("The request body is not valid JSON");
  } catch (const TooDeep&) {
    throw invalidInput("The request body is nested too deeply");
  }
  if (!value.is_object()) throw invalidInput("The request body must be a JSON object");
  return value;
}

void Call::reply(int status, const nlohmann::json& body) {
  res_.status = status;
  res_.set_content(dumpJson(body), "application/json");
}

std::optional<std::string> optionalString(const nlohmann::json& body, const char* key) {
  auto it = body.find(key);
  if (it == body.end() || it->is_null()) return std::nullopt;
  if (!it->is_string()) {
    throw invalidInput(std::string("There are validation errors: ") + key + " - must be a string");
  }
  return it->get<std::string>();
}

std::string requiredString(const nlohmann::json& body, const char* key) {
  auto value = optionalString(body, key);
  if (!value) {
    throw invalidInput(std::string("There are validation errors: ") + key + " - must not be null");
  }
  return *value;
}

}  // namespace jovemu

namespace jovemu {

bool BodyReader::read(const std::function<bool(const char*, std::size_t)>& sink) {
  if (started_) return consumed_;
  started_ = true;
  bool stopped = false;
  bool complete = reader_([&](const char* data, std::size_t length) {
    if (length > limit_ - received_) {
      tooLarge_ = true;
      return false;
    }
    received_ += length;
    if (!sink(data, length)) {
      stopped = true;
      return false;
    }
    return true;
  });
  consumed_ = complete && !stopped && !tooLarge_;
  return consumed_;
}

}  // namespace jovemu
