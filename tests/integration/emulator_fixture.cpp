#include "emulator_fixture.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <vector>

#include "jov/application.hpp"
#include "jov/credential_store.hpp"
#include "jov/user.hpp"

extern char** environ;

namespace jovtest {
namespace {

std::string randomHex(std::size_t length) {
  static std::mutex mutex;
  static std::mt19937_64 engine{std::random_device{}()};
  std::lock_guard lock(mutex);
  std::string out;
  for (std::size_t i = 0; i < length; ++i) out.push_back("0123456789abcdef"[engine() % 16]);
  return out;
}

// Reads the emulator's first line, giving up after 20 s or when the process closes its standard
// output (it exited or failed to start).
std::string readFirstLine(int fd) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  std::string line;
  char c;
  while (true) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) throw std::runtime_error("timed out");
    pollfd pfd{fd, POLLIN, 0};
    if (::poll(&pfd, 1, static_cast<int>(left.count())) <= 0) continue;  // EINTR or the deadline
    ssize_t n = ::read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw std::runtime_error("it closed its output without printing its base URL");
    if (c == '\n') return line;
    line.push_back(c);
  }
}

// Waits for the process to end, within 10 s; -1 when it did not.
int waitExit(pid_t pid) {
  int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (pidfd >= 0) {
    pollfd pfd{pidfd, POLLIN, 0};
    while (::poll(&pfd, 1, 10000) < 0 && errno == EINTR) {
    }
    ::close(pidfd);
  }
  int status = 0;
  if (::waitpid(pid, &status, pidfd >= 0 ? WNOHANG : 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

Emulator& Emulator::shared() {
  static Emulator emulator;
  return emulator;
}

Emulator::Emulator() {
  auto pattern = (std::filesystem::temp_directory_path() / "jov-emulator-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  dataDir_ = pattern;
  try {
    start(0);
  } catch (...) {
    std::error_code ignored;
    std::filesystem::remove_all(dataDir_, ignored);
    throw;
  }
}

Emulator::~Emulator() {
  stop();
  std::error_code ignored;
  std::filesystem::remove_all(dataDir_, ignored);
}

void Emulator::start(int port) {
  int out[2], in[2];
  if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(in, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  // The emulator stops on SIGTERM whatever this process blocks or ignores.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t signals;
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  // A short server-code time limit lets a test see a runaway script stopped without waiting.
  std::vector<std::string> args = {
      JOV_EMULATOR_PATH, "--port",        std::to_string(port), "--data",
      dataDir_,          "--watch-stdin", "--code-time-limit",  "1"};
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  int rc = posix_spawn(&pid_, JOV_EMULATOR_PATH, &actions, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  ::close(out[1]);
  ::close(in[0]);
  stdinFd_ = in[1];
  if (rc != 0) {
    ::close(out[0]);
    pid_ = -1;
    stop();
    throw std::runtime_error("cannot start " JOV_EMULATOR_PATH ": " + std::string(strerror(rc)));
  }
  std::string line;
  try {
    line = readFirstLine(out[0]);
  } catch (const std::exception& error) {
    line = std::string("(") + error.what() + ")";
  }
  ::close(out[0]);  // nothing else comes on standard output; the emulator ignores SIGPIPE
  const std::string prefix = "http://127.0.0.1:";
  if (line.rfind(prefix, 0) != 0 || !line.ends_with("/api")) {
    stop();
    throw std::runtime_error("jov-emulator (" JOV_EMULATOR_PATH ") did not print its base URL: " +
                             line);
  }
  port_ = std::stoi(line.substr(prefix.size()));
  baseURL_ = line;
}

int Emulator::stop() {
  int status = -1;
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    if ((status = waitExit(pid_)) < 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  if (stdinFd_ >= 0) ::close(stdinFd_);
  stdinFd_ = pid_ = -1;
  return status;
}

void Emulator::restart() {
  std::lock_guard lock(mutex_);
  if (int status = stop(); status != 0)
    throw std::runtime_error("jov-emulator did not exit cleanly on SIGTERM: " +
                             std::to_string(status));
  try {
    start(port_);
  } catch (const std::runtime_error&) {
    start(0);  // the old port was taken meanwhile
  }
}

EmulatorApp Emulator::newApp() {
  static std::atomic<int> counter{0};
  EmulatorApp app{
      "t" + std::to_string(::getpid()) + "-" + std::to_string(++counter) + "-" + randomHex(6),
      randomHex(32), baseURL_};
  auto reply = emulatorRequest("POST", "/emulator/apps",
                               nlohmann::json{{"appID", app.appID}, {"appKey", app.appKey}}.dump());
  if (reply.status != 201) throw std::runtime_error("POST /emulator/apps answered " + reply.raw);
  return app;
}

nlohmann::json Emulator::outbox(const std::string& appID) {
  auto reply = emulatorRequest("GET", "/emulator/apps/" + percentEncode(appID) + "/outbox");
  if (reply.status != 200 || !reply.body.contains("messages"))
    throw std::runtime_error("GET outbox answered " + reply.raw);
  return reply.body["messages"];
}

std::optional<std::string> Emulator::lastCode(const std::string& appID, const std::string& userID,
                                              const std::string& kind) {
  auto messages = outbox(appID);
  for (auto it = messages.rbegin(); it != messages.rend(); ++it)
    if ((*it)["userID"] == userID && (*it)["kind"] == kind) return (*it)["code"].get<std::string>();
  return std::nullopt;
}

EmulatorReply emulatorRequest(const std::string& method, const std::string& path,
                              const std::string& body, const std::string& contentType,
                              const httplib::Headers& headers) {
  httplib::Client client("127.0.0.1", Emulator::shared().port());
  client.set_url_encode(false);  // paths are encoded by the tests, as the library does
  client.set_connection_timeout(std::chrono::seconds(10));
  client.set_read_timeout(std::chrono::seconds(30));
  httplib::Request request;
  request.method = method;
  request.path = path;
  request.headers = headers;
  request.body = body;
  if (!contentType.empty()) request.set_header("Content-Type", contentType);
  auto result = client.send(request);
  if (!result) return {-1, nullptr, "transport error " + httplib::to_string(result.error())};
  auto json = nlohmann::json::parse(result->body, nullptr, false);
  return {result->status, json.is_discarded() ? nlohmann::json(nullptr) : json, result->body};
}

EmulatorReply EmulatorClient::send(const std::string& method, const std::string& path,
                                   const std::string& body, const std::string& contentType,
                                   const std::string& token, const httplib::Headers& extra) {
  httplib::Headers headers = extra;
  headers.emplace("X-Jov-AppID", app_.appID);
  headers.emplace("X-Jov-AppKey", app_.appKey);
  if (!token.empty()) headers.emplace("Authorization", "Bearer " + token);
  return emulatorRequest(method, "/api/apps/" + app_.appID + path, body, contentType, headers);
}

nlohmann::json EmulatorClient::registerUser(const nlohmann::json& fields) {
  auto reply = sendJson("POST", "/users", fields, "application/vnd.jov.RegistrationRequest+json");
  EXPECT_EQ(reply.status, 201) << reply.raw;
  return reply.body;
}

nlohmann::json EmulatorClient::login(const std::string& username, const std::string& password) {
  auto reply = sendJson("POST", "/oauth2/token", {{"username", username}, {"password", password}},
                        "application/json");
  EXPECT_EQ(reply.status, 200) << reply.raw;
  return reply.body;
}

std::pair<nlohmann::json, std::string> EmulatorClient::newUser(nlohmann::json fields) {
  static std::atomic<int> counter{0};
  if (!fields.contains("loginName"))
    fields["loginName"] = "user" + std::to_string(++counter) + "_" + randomHex(6);
  if (!fields.contains("password")) fields["password"] = "pass1234";
  auto record = registerUser(fields);
  return {record, login(fields["loginName"], fields["password"]).value("access_token", "")};
}

EmulatorApp beginLibraryOnNewApp() {
  auto app = Emulator::shared().newApp();
  jov::JovKeyChainWrapper::useMemoryStore();
  jov::Jov::setRequestFactory(nullptr);
  jov::Jov::beginWithID(app.appID, app.appKey, app.baseURL);
  jov::JovUser::logOut();
  return app;
}

}  // namespace jovtest
