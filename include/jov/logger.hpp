#pragma once
/// @file
/// @brief JovLogger: leveled log lines with the library's prefixes, to a replaceable sink.

#include <functional>
#include <string>

namespace jov {

/// @brief Log levels: a message is printed when its level is not above Jov::logLevel().
enum JovLogLevel : int { JovLogError = 0, JovLogWarning = 1, JovLogInfo = 2, JovLogDebug = 3 };

/// @brief Writes the library's log lines; the application may replace the sink.
class JovLogger {
 public:
  /// @brief Receives one finished line (prefix included) and its level.
  using Sink = std::function<void(int level, const std::string& line)>;

  /// @brief Replaces the sink; an empty function restores the default (standard error).
  static void setSink(Sink sink);
  /// @brief Whether a message of this level would be printed now.
  static bool enabled(int level);
  /// @brief Prints one message behind the prefix of its level, when the level is enabled.
  static void jovLogger(int level, const char* file, const char* function, int line,
                        const std::string& message);
  /// @brief The prefix of a level ("Jov Error > ", ..., "Jov Debug FUNCTION:LINE > ").
  static std::string prefix(int level, const char* function, int line);
};

}  // namespace jov

/// Logs through JovLogger; the message expression is evaluated only when the level is enabled.
#define JOV_LOG(level, message)                                                      \
  do {                                                                               \
    if (::jov::JovLogger::enabled(level))                                            \
      ::jov::JovLogger::jovLogger((level), __FILE__, __func__, __LINE__, (message)); \
  } while (0)
