#pragma once
/// @file
/// @brief Error values (JovError), the library's exceptions and the per-exchange error handler
/// base.

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "jov/error_codes.inc"

namespace jov {

/// @brief An error a caller can handle: domain "JovSDK", a code of the table and user information.
class JovError {
 public:
  /// @brief The domain of every error the library creates.
  static constexpr const char* kDomain = "JovSDK";

  /// @brief Makes an error with the code and user info as given (no description is added).
  JovError(int code, nlohmann::json userInfo = nlohmann::json::object(),
           std::string domain = kDomain);

  /// @brief Makes an error of the library's domain; adds "description" when the code has one.
  static JovError errorWithCode(int code, nlohmann::json userInfo = nullptr);
  /// @brief The description of a code, or nothing when the code has none.
  static std::optional<std::string> getDescription(int code);

  /// @brief The error domain ("JovSDK" for the library's own errors).
  const std::string& domain() const { return domain_; }
  /// @brief The error code.
  int code() const { return code_; }
  /// @brief The user information, always a JSON object.
  const nlohmann::json& userInfo() const { return userInfo_; }

  /// @brief The "server_code" value; nothing when absent or empty.
  std::optional<std::string> jovErrorSummary() const;
  /// @brief The "server_message" value; nothing when absent or empty.
  std::optional<std::string> jovErrorMessage() const;
  /// @brief The "http_status" value; 0 when absent.
  int jovHttpStatus() const;

  /// @brief A one-line text for logs: domain, code and description or server message, and for a
  /// failure below HTTP its "cause" and "url".
  std::string describe() const;

  /// @brief Equal when domain, code and user info are equal.
  bool operator==(const JovError& other) const = default;

#define JOV_DECLARE_CODE_OPERATION(number, name, description) \
  static constexpr int name() {                               \
    return number;                                            \
  }
#define JOV_NO_OPERATION jovCodeWithoutOperation512
  JOV_ERROR_CODES(JOV_DECLARE_CODE_OPERATION)
#undef JOV_NO_OPERATION
#undef JOV_DECLARE_CODE_OPERATION

 private:
  std::string domain_;
  int code_;
  nlohmann::json userInfo_;
};

/// @brief Raised for calls made in a state that does not allow them (no begin, no logged-in user).
class JovIllegalStateException : public std::logic_error {
 public:
  using std::logic_error::logic_error;
  /// @brief The exception's name, "JovIllegalStateException".
  static constexpr const char* name() { return "JovIllegalStateException"; }
  /// @brief Raises with "Exception : " followed by the text.
  [[noreturn]] static void raiseUserNotLoggedIn(const std::string& text);
  /// @brief Raises with "JovSocialNetwork Exception : " followed by the text.
  [[noreturn]] static void raiseSocialNetworkIsNotSet(const std::string& text);
  /// @brief Raises with "Jov Exception : " followed by the text.
  [[noreturn]] static void raiseJovInitializationIsNotCalled(const std::string& text);
};

/// @brief Base of per-exchange error handlers: maps an HTTP status to an error or to no error.
///
/// A handler is a table of rows, status to client code, like the error tables of the library's
/// own exchanges: a subclass registers the statuses it knows with on(); every other status gives
/// 103. The base knows 400, 401 and 404, each giving no error.
///
/// @code
/// class InstallationErrors : public jov::JovErrorHandlerBase {
///  public:
///   InstallationErrors() { on(409, jov::JovError::codeDuplicateEntry()); }
/// };
/// @endcode
class JovErrorHandlerBase {
 public:
  /// @brief What a handler answers for one status: an error, or nothing for "no error".
  using StatusHandler = std::function<std::optional<JovError>()>;
  /// @brief The code of a row that answers "no error".
  static constexpr int kNoError = -1;

  JovErrorHandlerBase();
  virtual ~JovErrorHandlerBase() = default;

  /// @brief The error for a status: the error of the status's row (nothing for a kNoError row),
  /// else 103.
  std::optional<JovError> errorParser(int httpStatus) const;

 protected:
  /// @brief Registers (or replaces) the row of one status: the error with this code, or no
  /// error for kNoError.
  void on(int httpStatus, int code);
  /// @brief Registers (or replaces) the row of one status with a handler that decides.
  void on(int httpStatus, StatusHandler handler);

 private:
  struct Row {
    int status;
    int code;
    StatusHandler handler;  // when set, decides instead of the code
  };
  std::vector<Row> rows_;
};

}  // namespace jov
