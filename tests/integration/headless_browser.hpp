// A real browser for tests: Debian's chromium, headless, driven through the DevTools protocol
// over a pipe (--remote-debugging-pipe: commands on its fd 3, answers on its fd 4, each a JSON
// text ended by a NUL byte). It opens a URL, evaluates JavaScript in the page, and closes it.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>

#include "process.hpp"

namespace jovtest {

class HeadlessBrowser {
 public:
  /// @brief The chromium of the system, when there is one.
  static std::optional<std::string> find() {
    for (const char* path : {"/usr/bin/chromium", "/usr/bin/chromium-browser"})
      if (::access(path, X_OK) == 0) return std::string(path);
    return std::nullopt;
  }

  /// @brief Starts the browser on `url`; false when it could not start or show a page.
  bool open(const std::string& url) {
    auto program = find();
    if (!program) return false;
    int toBrowser[2], fromBrowser[2];
    if (::pipe2(toBrowser, O_CLOEXEC) != 0 || ::pipe2(fromBrowser, O_CLOEXEC) != 0) return false;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(toBrowser[0], 3);
      ::dup2(fromBrowser[1], 4);
      int devnull = ::open("/dev/null", O_RDWR);
      ::dup2(devnull, 1);
      ::dup2(devnull, 2);
      const std::string profile = "--user-data-dir=" + profile_.str();
      ::execl(program->c_str(), program->c_str(), "--headless=new", "--no-sandbox", "--disable-gpu",
              "--no-first-run", "--disable-dev-shm-usage", "--remote-debugging-pipe",
              profile.c_str(), url.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::close(toBrowser[0]);
    ::close(fromBrowser[1]);
    out_ = toBrowser[1];
    in_ = fromBrowser[0];
    if (pid_ < 0) return false;
    // The page the browser opened, and a session attached to it.
    for (auto until = Clock::now() + std::chrono::seconds(20); Clock::now() < until;) {
      auto targets = call("Target.getTargets", nlohmann::json::object());
      if (!targets) return false;
      for (const auto& target : (*targets)["targetInfos"]) {
        if (target.value("type", "") != "page") continue;
        targetID_ = target.value("targetId", "");
        auto attached = call("Target.attachToTarget", {{"targetId", targetID_}, {"flatten", true}});
        if (!attached) return false;
        session_ = attached->value("sessionId", "");
        return !session_.empty();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }

  /// @brief Evaluates an expression in the page until it gives true, within `limit`.
  bool evaluateUntil(const std::string& expression, std::chrono::milliseconds limit) {
    for (auto until = Clock::now() + limit; Clock::now() < until;) {
      auto result =
          call("Runtime.evaluate", {{"expression", expression}, {"returnByValue", true}}, session_);
      if (result && (*result)["result"].value("value", nlohmann::json()) == true) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }

  /// @brief Closes the page, as a person closing the tab.
  void closePage() { call("Target.closeTarget", {{"targetId", targetID_}}); }

  ~HeadlessBrowser() {
    if (out_ >= 0) ::close(out_);
    if (in_ >= 0) ::close(in_);
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }

 private:
  using Clock = std::chrono::steady_clock;

  // Sends a command and waits (10 s at most) for its answer; events in between are skipped.
  std::optional<nlohmann::json> call(const std::string& method, const nlohmann::json& params,
                                     const std::string& session = "") {
    nlohmann::json message = {{"id", ++lastID_}, {"method", method}, {"params", params}};
    if (!session.empty()) message["sessionId"] = session;
    std::string text = message.dump();
    text.push_back('\0');
    if (::write(out_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
      return std::nullopt;
    for (auto until = Clock::now() + std::chrono::seconds(10); Clock::now() < until;) {
      auto nul = buffer_.find('\0');
      if (nul == std::string::npos) {
        pollfd p{in_, POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0) continue;
        char chunk[65536];
        ssize_t n = ::read(in_, chunk, sizeof chunk);
        if (n <= 0) return std::nullopt;
        buffer_.append(chunk, static_cast<std::size_t>(n));
        continue;
      }
      auto reply = nlohmann::json::parse(buffer_.substr(0, nul), nullptr, false);
      buffer_.erase(0, nul + 1);
      if (reply.is_object() && reply.value("id", -1) == lastID_)
        return reply.contains("result") ? reply["result"] : nlohmann::json::object();
    }
    return std::nullopt;
  }

  TempDir profile_;
  pid_t pid_ = -1;
  int out_ = -1, in_ = -1;
  int lastID_ = 0;
  std::string buffer_, targetID_, session_;
};

}  // namespace jovtest
