#include "jov/error.hpp"

#include <unordered_map>

namespace jov {

namespace {

const std::unordered_map<int, const char*>& descriptionTable() {
  static const auto* table = [] {
    auto* t = new std::unordered_map<int, const char*>();
#define JOV_ADD_DESCRIPTION(number, name, description) \
  if (description != nullptr) t->emplace(number, description);
    JOV_ERROR_CODES(JOV_ADD_DESCRIPTION)
#undef JOV_ADD_DESCRIPTION
    return t;
  }();
  return *table;
}

std::optional<std::string> nonEmptyString(const nlohmann::json& info, const char* key) {
  auto it = info.find(key);
  if (it == info.end() || !it->is_string()) return std::nullopt;
  const auto& s = it->get_ref<const std::string&>();
  if (s.empty()) return std::nullopt;
  return s;
}

}  // namespace

JovError::JovError(int code, nlohmann::json userInfo, std::string domain)
    : domain_(std::move(domain)),
      code_(code),
      userInfo_(userInfo.is_object() ? std::move(userInfo) : nlohmann::json::object()) {}

JovError JovError::errorWithCode(int code, nlohmann::json userInfo) {
  nlohmann::json info = userInfo.is_object() ? std::move(userInfo) : nlohmann::json::object();
  if (auto description = getDescription(code)) info["description"] = *description;
  return JovError(code, std::move(info));
}

std::optional<std::string> JovError::getDescription(int code) {
  const auto& table = descriptionTable();
  auto it = table.find(code);
  if (it == table.end()) return std::nullopt;
  return std::string(it->second);
}

std::optional<std::string> JovError::jovErrorSummary() const {
  return nonEmptyString(userInfo_, "server_code");
}

std::optional<std::string> JovError::jovErrorMessage() const {
  return nonEmptyString(userInfo_, "server_message");
}

int JovError::jovHttpStatus() const {
  auto it = userInfo_.find("http_status");
  if (it == userInfo_.end() || !it->is_number()) return 0;
  return it->get<int>();
}

std::string JovError::describe() const {
  std::string text = domain_ + " error " + std::to_string(code_);
  if (auto status = jovHttpStatus()) text += " (HTTP " + std::to_string(status) + ")";
  if (auto summary = jovErrorSummary()) text += " " + *summary;
  if (auto message = jovErrorMessage()) {
    text += ": " + *message;
  } else if (auto d = userInfo_.find("description"); d != userInfo_.end() && d->is_string()) {
    text += ": " + d->get<std::string>();
  }
  // A failure below HTTP says what failed and for which URL.
  auto cause = nonEmptyString(userInfo_, "cause");
  auto url = nonEmptyString(userInfo_, "url");
  if (cause || url) {
    text += " (";
    if (cause) text += "cause: " + *cause;
    if (cause && url) text += ", ";
    if (url) text += "url: " + *url;
    text += ")";
  }
  return text;
}

void JovIllegalStateException::raiseUserNotLoggedIn(const std::string& text) {
  throw JovIllegalStateException("Exception : " + text);
}

void JovIllegalStateException::raiseSocialNetworkIsNotSet(const std::string& text) {
  throw JovIllegalStateException("JovSocialNetwork Exception : " + text);
}

void JovIllegalStateException::raiseJovInitializationIsNotCalled(const std::string& text) {
  throw JovIllegalStateException("Jov Exception : " + text);
}

JovErrorHandlerBase::JovErrorHandlerBase() {
  for (int status : {400, 401, 404}) on(status, kNoError);
}

void JovErrorHandlerBase::on(int httpStatus, int code) {
  std::erase_if(rows_, [&](const Row& row) { return row.status == httpStatus; });
  rows_.push_back({httpStatus, code, nullptr});
}

void JovErrorHandlerBase::on(int httpStatus, StatusHandler handler) {
  std::erase_if(rows_, [&](const Row& row) { return row.status == httpStatus; });
  rows_.push_back({httpStatus, kNoError, std::move(handler)});
}

std::optional<JovError> JovErrorHandlerBase::errorParser(int httpStatus) const {
  for (const Row& row : rows_) {
    if (row.status != httpStatus) continue;
    if (row.handler) return row.handler();
    if (row.code == kNoError) return std::nullopt;
    return JovError::errorWithCode(row.code);
  }
  return JovError::errorWithCode(JovError::codeUndefinedError());
}

}  // namespace jov
