// A raw HTTP/1.1 server on loopback that does, for each request, what the test's script says:
// answer (with a Content-Length or chunked), or close the connection without answering. It keeps
// connections alive, so that a request can arrive on a connection the client reuses.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace jovtest {

class ScriptedServer {
 public:
  /// One request as it arrived.
  struct Seen {
    std::string method, path, body;
    int connection = 0;  // 0 for the first connection accepted, 1 for the next...
    int onConnection = 0;  // 0 for the first request on its connection
  };
  /// What to do with it.
  struct Step {
    bool close = false;  // read the request, then close without a byte of answer
    int status = 200;
    std::string body;
    bool chunked = false;  // no Content-Length: the body in chunks of at most 16 KiB
    int stallMs = 0;       // silence before the answer
    int stallMidBodyMs = 0;  // the head and half the body, then silence
    bool cutShort = false;   // a Content-Length larger than the body, then close
    static Step answer(int status, std::string body = "{}") {
      return {false, status, std::move(body), false};
    }
    static Step chunks(std::string body) { return {false, 200, std::move(body), true}; }
    static Step hangUp() { return {true, 0, {}, false}; }
  };
  using Script = std::function<Step(const Seen&)>;

  explicit ScriptedServer(Script script) : script_(std::move(script)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::listen(listener_, 64);
    socklen_t len = sizeof addr;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len);
    port = ntohs(addr.sin_port);
    acceptor_ = std::thread([this] { acceptLoop(); });
  }
  ~ScriptedServer() {
    stopping_ = true;
    ::shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    {
      std::lock_guard lock(mutex_);
      for (int fd : open_) ::shutdown(fd, SHUT_RDWR);
    }
    for (auto& t : workers_) t.join();
    ::close(listener_);
  }

  std::string base() const { return "http://127.0.0.1:" + std::to_string(port) + "/api"; }
  std::vector<Seen> seen() {
    std::lock_guard lock(mutex_);
    return seen_;
  }
  /// Body bytes the server managed to hand to the kernel for the client.
  std::size_t bytesWritten() const { return written_; }

  int port = 0;

 private:
  void acceptLoop() {
    int index = 0;
    while (!stopping_) {
      int fd = ::accept(listener_, nullptr, nullptr);
      if (fd < 0) return;
      int one = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      std::lock_guard lock(mutex_);
      open_.push_back(fd);
      workers_.emplace_back([this, fd, connection = index++] { serve(fd, connection); });
    }
  }

  bool sendAll(int fd, const std::string& data, bool body) {
    std::size_t done = 0;
    while (done < data.size()) {
      ssize_t n = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
      if (n <= 0) return false;
      done += static_cast<std::size_t>(n);
      if (body) written_ += static_cast<std::size_t>(n);
    }
    return true;
  }

  void serve(int fd, int connection) {
    std::string buffer;
    char chunk[16384];
    for (int onConnection = 0;; ++onConnection) {
      // The head, then as many body bytes as Content-Length says.
      std::size_t headEnd;
      while ((headEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
        ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0) return finish(fd);
        buffer.append(chunk, static_cast<std::size_t>(n));
      }
      std::string head = buffer.substr(0, headEnd);
      std::size_t length = 0;
      for (std::size_t at = head.find("\r\n"); at != std::string::npos;
           at = head.find("\r\n", at + 2)) {
        if (strncasecmp(head.c_str() + at + 2, "Content-Length:", 15) == 0)
          length = std::stoul(head.substr(at + 17));
      }
      while (buffer.size() < headEnd + 4 + length) {
        ssize_t n = ::recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0) return finish(fd);
        buffer.append(chunk, static_cast<std::size_t>(n));
      }
      Seen seen;
      seen.method = head.substr(0, head.find(' '));
      seen.path = head.substr(head.find(' ') + 1, head.find(' ', head.find(' ') + 1) -
                                                      head.find(' ') - 1);
      seen.body = buffer.substr(headEnd + 4, length);
      seen.connection = connection;
      seen.onConnection = onConnection;
      buffer.erase(0, headEnd + 4 + length);
      {
        std::lock_guard lock(mutex_);
        seen_.push_back(seen);
      }
      Step step = script_(seen);
      if (step.close) return finish(fd);
      if (!pause(step.stallMs)) return finish(fd);
      std::string reply = "HTTP/1.1 " + std::to_string(step.status) + " X\r\n" +
                          "Content-Type: application/json\r\nConnection: keep-alive\r\n";
      if (step.cutShort || step.stallMidBodyMs > 0) {
        const std::size_t half = step.body.size() / 2;
        reply += "Content-Length: " + std::to_string(step.body.size() + (step.cutShort ? 100 : 0)) +
                 "\r\n\r\n";
        if (!sendAll(fd, reply, false) || !sendAll(fd, step.body.substr(0, half), true) ||
            !pause(step.stallMidBodyMs) || !sendAll(fd, step.body.substr(half), true))
          return finish(fd);
        if (step.cutShort) return finish(fd);
        continue;
      }
      if (!step.chunked) {
        reply += "Content-Length: " + std::to_string(step.body.size()) + "\r\n\r\n";
        if (!sendAll(fd, reply, false) || !sendAll(fd, step.body, true)) return finish(fd);
        continue;
      }
      reply += "Transfer-Encoding: chunked\r\n\r\n";
      if (!sendAll(fd, reply, false)) return finish(fd);
      for (std::size_t at = 0; at < step.body.size(); at += 16384) {
        std::string piece = step.body.substr(at, 16384);
        char size[32];
        std::snprintf(size, sizeof size, "%zx\r\n", piece.size());
        if (!sendAll(fd, size, false) || !sendAll(fd, piece, true) || !sendAll(fd, "\r\n", false))
          return finish(fd);
      }
      if (!sendAll(fd, "0\r\n\r\n", false)) return finish(fd);
    }
  }

  // Waits, in slices so that the server's end does not wait for it; false once it is ending.
  bool pause(int ms) {
    for (int waited = 0; waited < ms && !stopping_; waited += 10)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return !stopping_;
  }

  void finish(int fd) {
    std::lock_guard lock(mutex_);
    std::erase(open_, fd);
    ::close(fd);
  }

  Script script_;
  int listener_ = -1;
  std::atomic<bool> stopping_{false};
  std::atomic<std::size_t> written_{0};
  std::thread acceptor_;
  std::mutex mutex_;
  std::vector<int> open_;
  std::vector<std::thread> workers_;
  std::vector<Seen> seen_;
};

}  // namespace jovtest
