#include "jov/logger.hpp"

#include <cstdio>
#include <mutex>

#include "jov/application.hpp"

namespace jov {

namespace {

struct LoggerState {
  std::mutex mutex;
  JovLogger::Sink sink;
};

// Leaked on purpose: worker threads may still log while the process exits.
LoggerState& loggerState() {
  static auto* state = new LoggerState();
  return *state;
}

}  // namespace

void JovLogger::setSink(Sink sink) {
  std::lock_guard lock(loggerState().mutex);
  loggerState().sink = std::move(sink);
}

bool JovLogger::enabled(int level) {
  return Jov::logLevel() >= level;
}

std::string JovLogger::prefix(int level, const char* function, int line) {
  switch (level) {
    case 0:
      return "Jov Error > ";
    case 1:
      return "Jov Warning > ";
    case 2:
      return "Jov Info > ";
    case 3:
      return std::string("Jov Debug ") + (function ? function : "") + ":" + std::to_string(line) +
             " > ";
    default:
      return {};
  }
}

void JovLogger::jovLogger(int level, const char* /*file*/, const char* function, int line,
                          const std::string& message) {
  if (!enabled(level)) return;
  std::string text = prefix(level, function, line) + message;
  Sink sink;
  {
    // Copied out so that a sink may itself log without deadlocking.
    std::lock_guard lock(loggerState().mutex);
    sink = loggerState().sink;
  }
  if (sink) {
    sink(level, text);
  } else {
    std::fprintf(stderr, "%s\n", text.c_str());
  }
}

}  // namespace jov
