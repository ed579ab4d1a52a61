// Codes a person would read off a phone or a mailbox (address verification, password reset),
// and the outbox through which tests read them.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "database.hpp"

namespace jovemu {

inline constexpr const char* kEmailVerification = "EMAIL_VERIFICATION";
inline constexpr const char* kPhoneVerification = "PHONE_VERIFICATION";
inline constexpr const char* kPasswordReset = "PASSWORD_RESET";
inline constexpr const char* kChannelEmail = "EMAIL";
inline constexpr const char* kChannelSms = "SMS";

struct StoredCode {
  std::string code;
  std::string target;  ///< the address the code was sent to
  std::int64_t createdAt = 0;
  bool used = false;
};

/// @brief Makes a new code of this kind for the user (replacing any earlier one) and puts the
/// message that carries it into the outbox.
std::string sendCode(Connection& conn, const std::string& appID, const std::string& userID,
                     const char* kind, const char* channel, const std::string& to,
                     std::int64_t nowMs);

std::optional<StoredCode> findCode(Connection& conn, const std::string& appID,
                                   const std::string& userID, const char* kind);
void markCodeUsed(Connection& conn, const std::string& appID, const std::string& userID,
                  const char* kind);
void dropCode(Connection& conn, const std::string& appID, const std::string& userID,
              const char* kind);
void dropUserCodes(Connection& conn, const std::string& appID, const std::string& userID);

/// @brief {"messages":[...]} of the application, oldest first.
nlohmann::json outboxMessages(Connection& conn, const std::string& appID);
void clearOutbox(Connection& conn, const std::string& appID);

}  // namespace jovemu
