// Runs programs the way a shell user does: arguments, standard input, and what they print.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace jovtest {

struct ProcessResult {
  int status = -1;  ///< exit status; 128 + signal when killed
  std::string out, err;
};

/// @brief Runs argv[0] with its arguments, standard input fed from `input` then closed (not a
/// terminal), and waits for it, at most 60 s (then it is killed and the result says so).
ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& input = "");

/// @brief A jov-emulator of a test's own, on a free port; stopped (SIGTERM) by stop() or on
/// destruction.
class PrivateEmulator {
 public:
  explicit PrivateEmulator(std::vector<std::string> extraArgs);
  PrivateEmulator(const PrivateEmulator&) = delete;
  PrivateEmulator& operator=(const PrivateEmulator&) = delete;
  ~PrivateEmulator();

  const std::string& baseURL() const { return baseURL_; }
  int port() const { return port_; }
  /// @brief Stops it with SIGTERM; its exit status.
  int stop();

 private:
  pid_t pid_ = -1;
  int stdinFd_ = -1;
  std::string baseURL_;
  int port_ = 0;
};

/// @brief A fresh temporary directory, removed on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::filesystem::path& path() const { return path_; }
  std::string str() const { return path_.string(); }

 private:
  std::filesystem::path path_;
};

}  // namespace jovtest
