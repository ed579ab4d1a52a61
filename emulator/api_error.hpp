// The error answers of the service: an HTTP status and a body {"errorCode", "message"}.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace jovemu {

/// @brief Thrown by a handler to answer with an error; the request's transaction is rolled back.
class ApiError : public std::runtime_error {
 public:
  ApiError(int status, std::string code, const std::string& message,
           nlohmann::json extra = nlohmann::json::object())
      : std::runtime_error(message),
        status_(status),
        code_(std::move(code)),
        extra_(std::move(extra)) {}

  int status() const { return status_; }
  const std::string& code() const { return code_; }
  /// @brief The answer's body: errorCode, message and any extra keys.
  nlohmann::json body() const {
    nlohmann::json out = extra_;
    out["errorCode"] = code_;
    out["message"] = what();
    return out;
  }

 private:
  int status_;
  std::string code_;
  nlohmann::json extra_;
};

inline ApiError invalidInput(const std::string& message) {
  return ApiError(400, "INVALID_INPUT_DATA", message);
}
inline ApiError userNotFound(const std::string& what = "The user was not found") {
  return ApiError(404, "USER_NOT_FOUND", what);
}
inline ApiError groupNotFound() {
  return ApiError(404, "GROUP_NOT_FOUND", "The group was not found");
}
inline ApiError userExists(const std::string& what) {
  return ApiError(409, "USER_ALREADY_EXISTS", what + " is already taken by another user");
}
inline ApiError forbidden(const std::string& message) {
  return ApiError(403, "FORBIDDEN", message);
}
inline ApiError invalidStatus(const std::string& message) {
  return ApiError(409, "INVALID_STATUS", message);
}
/// @brief The login endpoint's refusal; the client reads "error_description".
inline ApiError invalidGrant(const std::string& description) {
  return ApiError(400, "invalid_grant", description,
                  {{"error", "invalid_grant"}, {"error_description", description}});
}

}  // namespace jovemu
