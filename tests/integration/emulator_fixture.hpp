// One jov-emulator per test binary, started on a free loopback port with a temporary store,
// and a small HTTP client for tests that talk to its routes directly.
#pragma once

#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/types.h>

#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>

#include "jov/encoding.hpp"

namespace jovtest {

struct EmulatorApp {
  std::string appID, appKey, baseURL;  // baseURL ends in "/api"
};

class Emulator {
 public:
  /// Starts jov-emulator once per test binary; it is stopped when the binary exits.
  static Emulator& shared();

  const std::string& baseURL() const { return baseURL_; }  ///< "http://127.0.0.1:PORT/api"
  int port() const { return port_; }
  /// Registers a fresh, unique application through POST /emulator/apps.
  EmulatorApp newApp();
  /// The "messages" array of GET /emulator/apps/{appID}/outbox, oldest first.
  nlohmann::json outbox(const std::string& appID);
  /// The newest code of that kind sent to that user.
  std::optional<std::string> lastCode(const std::string& appID, const std::string& userID,
                                      const std::string& kind);
  /// Stops the emulator (it must exit cleanly) and starts it again on the same store, on the
  /// same port when that port is still free.
  void restart();

  Emulator(const Emulator&) = delete;
  Emulator& operator=(const Emulator&) = delete;
  ~Emulator();

 private:
  Emulator();
  void start(int port);
  int stop();

  std::string dataDir_, baseURL_;
  int port_ = 0;
  pid_t pid_ = -1;
  int stdinFd_ = -1;  // closing it also stops the emulator should this process die
  std::mutex mutex_;
};

/// A new application of the shared emulator with the library begun on it: the real transport,
/// credentials kept in memory, nobody logged in.
EmulatorApp beginLibraryOnNewApp();

/// Percent-encodes everything but the unreserved characters, for path segments.
inline std::string percentEncode(const std::string& text) {
  return jov::RFC3986Encode(text);
}

/// One answer of the emulator: status, parsed JSON body (null when none) and raw body.
struct EmulatorReply {
  int status = 0;
  nlohmann::json body;
  std::string raw;

  std::string errorCode() const { return body.is_object() ? body.value("errorCode", "") : ""; }
};

/// Talks to one application's routes ("/api/apps/{appID}..."), sending its headers.
class EmulatorClient {
 public:
  explicit EmulatorClient(EmulatorApp app) : app_(std::move(app)) {}

  const EmulatorApp& app() const { return app_; }

  /// Sends a request to "/api/apps/{appID}" + path; `token` adds "Authorization".
  EmulatorReply send(const std::string& method, const std::string& path,
                     const std::string& body = "",
                     const std::string& contentType = "application/json",
                     const std::string& token = "", const httplib::Headers& extra = {});
  EmulatorReply get(const std::string& path, const std::string& token) {
    return send("GET", path, "", "application/json", token);
  }
  EmulatorReply sendJson(const std::string& method, const std::string& path,
                         const nlohmann::json& body, const std::string& mediaType,
                         const std::string& token = "") {
    return send(method, path, body.dump(), mediaType, token);
  }

  /// POST /users as a RegistrationRequest; fails the test unless 201.
  nlohmann::json registerUser(const nlohmann::json& fields);
  /// The password grant of POST /oauth2/token; fails the test unless 200.
  nlohmann::json login(const std::string& username, const std::string& password);
  /// Registers a user with a unique login name and password "pass1234", logs it in and returns
  /// {record, access token}.
  std::pair<nlohmann::json, std::string> newUser(nlohmann::json fields = nlohmann::json::object());

 private:
  EmulatorApp app_;
};

/// Checks that `object` holds each key of `expected` with its value (null: the key is absent).
inline void expectFields(const nlohmann::json& object, const nlohmann::json& expected) {
  for (const auto& [key, value] : expected.items())
    EXPECT_EQ((object.contains(key) ? object.at(key) : nlohmann::json()).dump(), value.dump())
        << key;
}

/// The error code of a library result, or -1 for success.
template <class R>
int codeOf(const R& result) {
  return result.ok() ? -1 : result.error().code();
}
/// Success of a library result; a failure shows its error.
template <class R>
::testing::AssertionResult succeeded(const R& result) {
  if (result.ok()) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << result.error().describe();
}

/// Sends a request outside the application routes ("/emulator/...", unknown paths).
EmulatorReply emulatorRequest(const std::string& method, const std::string& path,
                              const std::string& body = "",
                              const std::string& contentType = "application/json",
                              const httplib::Headers& headers = {});

}  // namespace jovtest
