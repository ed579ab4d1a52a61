#include "server.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include "call.hpp"

namespace jovemu {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kHost = "127.0.0.1";
// cpp-httplib listens with a backlog of 5; a burst of clients needs more.
constexpr int kBacklog = 512;
// The request line and headers together; cpp-httplib itself would read a line without end.
constexpr std::size_t kMaxHeaderBytes = 64 * 1024;
constexpr std::size_t kKeepAliveMaxCount = 1000;
constexpr auto kWriteTimeout = std::chrono::seconds(5);
// After an answer that leaves part of a body unread, the rest is read and dropped for at most
// this long, so that the client sees the answer rather than a reset.
constexpr auto kLingerTime = std::chrono::seconds(1);

const char* errorCodeFor(int status) {
  switch (status) {
    case 400:
      return "INVALID_INPUT_DATA";
    case 404:
      return "NOT_FOUND";
    case 413:
      return "REQUEST_ENTITY_TOO_LARGE";
    case 414:
      return "URI_TOO_LONG";
    default:
      return "HTTP_ERROR";
  }
}

const char* messageFor(int status) {
  switch (status) {
    case 400:
      return "The request could not be read";
    case 404:
      return "No such resource";
    case 413:
      return "The request body is too large";
    case 414:
      return "The request URI is too long";
    default:
      return "The request failed";
  }
}

int millisecondsUntil(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 1 << 30));
}

// Waits until `sock` has something to read (data, end of stream or an error). False on
// timeout, or as soon as `stopFd` becomes readable: the server is stopping.
bool waitReadable(int sock, int stopFd, Clock::time_point deadline) {
  while (true) {
    int timeout = millisecondsUntil(deadline);
    if (timeout == 0) return false;
    pollfd fds[2] = {{sock, POLLIN, 0}, {stopFd, POLLIN, 0}};
    int ready = ::poll(fds, 2, timeout);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0 || fds[1].revents != 0) return false;
    return fds[0].revents != 0;
  }
}

void addressOf(int sock, int (*get)(int, sockaddr*, socklen_t*), std::string& ip, int& port) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  ip.clear();
  port = 0;
  if (get(sock, reinterpret_cast<sockaddr*>(&address), &length) != 0) return;
  char text[INET6_ADDRSTRLEN] = {};
  if (address.ss_family == AF_INET) {
    auto* v4 = reinterpret_cast<sockaddr_in*>(&address);
    ::inet_ntop(AF_INET, &v4->sin_addr, text, sizeof text);
    port = ntohs(v4->sin_port);
  } else if (address.ss_family == AF_INET6) {
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
    ::inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof text);
    port = ntohs(v6->sin6_port);
  }
  ip = text;
}

// What the handlers of one request tell the connection that carries it.
struct ConnectionState {
  bool closeAfterResponse = false;  // part of the body is unread or the stream is unusable
  bool bodyTooLarge = false;
};

// The connection whose request this thread is handling; null outside a connection (a router
// driven directly, as the fuzz targets do).
thread_local ConnectionState* currentConnection = nullptr;

// An error answer after which the connection is closed: what is left of the request is not
// read.
void writeFinalError(httplib::Response& res, int status, const std::string& code,
                     const std::string& message) {
  if (currentConnection) {
    currentConnection->closeAfterResponse = true;
    currentConnection->bodyTooLarge |= status == 413;
    res.set_header("Connection", "close");
  }
  writeError(res, status, code, message);
}

// A socket stream with deadlines: the request line and headers must arrive whole before one
// deadline, a body must keep moving and arrive before another, and neither may exceed its
// byte budget. cpp-httplib reads headers a byte at a time, hence the buffer.
class ConnectionStream final : public httplib::Stream {
 public:
  ConnectionStream(int sock, int stopFd, const ServerOptions& options, std::size_t bodyBudget)
      : sock_(sock), stopFd_(stopFd), options_(options), bodyBudget_(bodyBudget) {}

  void beginHeaders() {
    inBody_ = false;
    deadline_ = Clock::now() + options_.headerTimeout;
    budget_ = kMaxHeaderBytes;
  }
  // A streamed body (an object's) may be as large as its own limit and take as long as it
  // keeps moving; any other must arrive whole before the body deadline.
  void beginBody(bool streamed) {
    inBody_ = true;
    if (streamed) {
      deadline_ = Clock::time_point::max();
      const std::uint64_t framing = options_.maxStreamBody / 64 + kMaxHeaderBytes;
      budget_ = static_cast<std::size_t>(options_.maxStreamBody + framing);
    } else {
      deadline_ = Clock::now() + options_.bodyTimeout;
      budget_ = bodyBudget_;
    }
  }
  bool hasBuffered() const { return position_ < length_; }
  bool failed() const { return failed_; }
  bool bodyOverBudget() const { return bodyOverBudget_; }

  bool is_readable() const override {
    return hasBuffered() || waitReadable(sock_, stopFd_, readDeadline());
  }
  bool is_writable() const override {
    pollfd fd{sock_, POLLOUT, 0};
    int ready;
    do {
      ready = ::poll(&fd, 1, static_cast<int>(std::chrono::milliseconds(kWriteTimeout).count()));
    } while (ready < 0 && errno == EINTR);
    return ready > 0 && (fd.revents & POLLOUT) != 0;
  }

  ssize_t read(char* ptr, std::size_t size) override {
    if (failed_) return -1;
    if (budget_ == 0) {
      // Over the budget for this part of the request: stop reading it.
      if (inBody_) bodyOverBudget_ = true;
      failed_ = true;
      return -1;
    }
    if (!hasBuffered()) {
      if (!waitReadable(sock_, stopFd_, readDeadline())) {
        failed_ = true;
        return -1;
      }
      ssize_t n;
      do {
        n = ::recv(sock_, buffer_, sizeof buffer_, 0);
      } while (n < 0 && errno == EINTR);
      if (n <= 0) {
        failed_ = true;
        return n;
      }
      position_ = 0;
      length_ = static_cast<std::size_t>(n);
    }
    std::size_t n = std::min({size, length_ - position_, budget_});
    std::memcpy(ptr, buffer_ + position_, n);
    position_ += n;
    budget_ -= n;
    return static_cast<ssize_t>(n);
  }

  ssize_t write(const char* ptr, std::size_t size) override {
    if (!is_writable()) return -1;
    ssize_t n;
    do {
      n = ::send(sock_, ptr, size, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n;
  }

  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    addressOf(sock_, ::getpeername, ip, port);
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    addressOf(sock_, ::getsockname, ip, port);
  }
  socket_t socket() const override { return sock_; }

 private:
  // Headers have one deadline in all; a body has its own, and may not pause for too long.
  Clock::time_point readDeadline() const {
    if (!inBody_) return deadline_;
    const auto idle = Clock::now() + options_.bodyIdleTimeout;
    return deadline_ < idle ? deadline_ : idle;
  }

  int sock_;
  int stopFd_;
  const ServerOptions& options_;
  std::size_t bodyBudget_;
  bool inBody_ = false;
  bool failed_ = false;
  bool bodyOverBudget_ = false;
  Clock::time_point deadline_{};
  std::size_t budget_ = kMaxHeaderBytes;
  char buffer_[16 * 1024];
  std::size_t position_ = 0, length_ = 0;
};

// One thread per connection, started when no thread is free, up to a bound; idle threads are
// reused. cpp-httplib's own pool has a fixed size, and a few held connections starve it.
class ConnectionThreads final : public httplib::TaskQueue {
 public:
  explicit ConnectionThreads(std::size_t maxThreads) : maxThreads_(maxThreads) {}

  void enqueue(std::function<void()> job) override {
    std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
    if (jobs_.size() > idle_ && threads_.size() < maxThreads_) {
      threads_.emplace_back([this] { work(); });
    }
    ready_.notify_one();
  }

  void shutdown() override {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    ready_.notify_all();
    // No job is enqueued any more; the vector is stable.
    for (auto& thread : threads_) thread.join();
  }

 private:
  void work() {
    std::unique_lock lock(mutex_);
    while (true) {
      ++idle_;
      ready_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
      --idle_;
      if (jobs_.empty()) return;  // stopping, and nothing left to serve
      auto job = std::move(jobs_.front());
      jobs_.pop_front();
      lock.unlock();
      job();
      lock.lock();
    }
  }

  std::size_t maxThreads_;
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::function<void()>> jobs_;
  std::vector<std::thread> threads_;
  std::size_t idle_ = 0;
  bool stopping_ = false;
};

// Reads and drops what the client still sends, briefly, then closes.
void lingerAndClose(int sock, int stopFd) {
  ::shutdown(sock, SHUT_WR);
  auto deadline = Clock::now() + kLingerTime;
  char scratch[16 * 1024];
  while (waitReadable(sock, stopFd, deadline) && ::recv(sock, scratch, sizeof scratch, 0) > 0) {
  }
  ::close(sock);
}

void refuse(int sock, const char* message) {
  std::string body = dumpJson({{"errorCode", "SERVICE_UNAVAILABLE"}, {"message", message}});
  std::string answer =
      "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json\r\n"
      "Connection: close\r\nContent-Length: " +
      std::to_string(body.size()) + "\r\n\r\n" + body;
  // Whatever fits at once: a refusal never waits on the client.
  [[maybe_unused]] auto sent =
      ::send(sock, answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  ::shutdown(sock, SHUT_RDWR);
  ::close(sock);
}

std::string peerAddress(int sock) {
  std::string ip;
  int port = 0;
  addressOf(sock, ::getpeername, ip, port);
  return ip;
}

}  // namespace

// cpp-httplib with connections served by our own loop: deadlines, budgets and admission.
class HttpServer::Listener : public httplib::Server {
 public:
  explicit Listener(ServerOptions options) : options_(std::move(options)) {
    if (::pipe2(stopPipe_, O_CLOEXEC) != 0) throw std::runtime_error("cannot create a pipe");
    std::size_t threads = options_.maxConnections + 16;  // the spare ones refuse the excess
    new_task_queue = [threads] { return new ConnectionThreads(threads); };
  }
  ~Listener() override {
    ::close(stopPipe_[0]);
    ::close(stopPipe_[1]);
  }

  int socket() const { return static_cast<int>(svr_sock_); }
  /// Which requests stream their body (they get the larger budget and no total deadline).
  void setStreamingRule(std::function<bool(const httplib::Request&)> rule) {
    streams_ = std::move(rule);
  }

  // Wakes every connection waiting for a request or for bytes of one.
  void interrupt() {
    char byte = 0;
    [[maybe_unused]] auto written = ::write(stopPipe_[1], &byte, 1);
  }

 private:
  // Counts a connection against its client's and the server's bounds; false when over either.
  bool admit(const std::string& client) {
    std::lock_guard lock(mutex_);
    auto& count = perClient_[client];
    if (count >= options_.maxConnectionsPerClient || total_ >= options_.maxConnections) {
      if (count == 0) perClient_.erase(client);
      return false;
    }
    ++count;
    ++total_;
    return true;
  }
  void release(const std::string& client) {
    std::lock_guard lock(mutex_);
    --total_;
    if (--perClient_[client] == 0) perClient_.erase(client);
  }

  bool process_and_close_socket(socket_t sock) override {
    std::string client = peerAddress(sock);
    if (!admit(client)) {
      refuse(sock, "Too many connections from this client");
      return true;
    }
    int stopFd = stopPipe_[0];
    // Raw bytes of a body, chunk framing included; the handlers hold the decoded body to
    // the exact limit, this bounds what cpp-httplib may buffer on its own.
    std::size_t bodyBudget = options_.maxBody * 2 + kMaxHeaderBytes;
    ConnectionStream stream(sock, stopFd, options_, bodyBudget);
    ConnectionState state;
    currentConnection = &state;
    bool linger = false;
    for (std::size_t served = 0; served < kKeepAliveMaxCount; ++served) {
      if (!stream.hasBuffered() &&
          !waitReadable(sock, stopFd, Clock::now() + options_.keepAliveTimeout)) {
        break;
      }
      state = ConnectionState{};
      stream.beginHeaders();
      bool closed = false;
      bool last = served + 1 == kKeepAliveMaxCount || !is_running();
      bool ok = process_request(stream, last, closed, [this, &stream](httplib::Request& req) {
        stream.beginBody(streams_ && streams_(req));
      });
      if (stream.bodyOverBudget()) state.bodyTooLarge = true;
      if (!ok || closed || last || state.closeAfterResponse || stream.failed()) {
        linger = state.closeAfterResponse || stream.bodyOverBudget();
        break;
      }
    }
    currentConnection = nullptr;
    if (linger) {
      lingerAndClose(sock, stopFd);
    } else {
      ::shutdown(sock, SHUT_RDWR);
      ::close(sock);
    }
    release(client);
    return true;
  }

  const ServerOptions options_;
  std::function<bool(const httplib::Request&)> streams_;
  int stopPipe_[2] = {-1, -1};
  std::mutex mutex_;
  std::unordered_map<std::string, std::size_t> perClient_;
  std::size_t total_ = 0;
};

namespace {

// Reads the body through cpp-httplib's content receiver, stopping as soon as it passes the
// limit, then hands the request to the router.
void dispatchWithBody(const Router& router, std::size_t maxBody, const httplib::Request& req,
                      httplib::Response& res, const httplib::ContentReader& reader) {
  std::string body;
  bool tooLarge = false;
  auto receive = [&](const char* data, std::size_t length) {
    if (length > maxBody - body.size()) {
      tooLarge = true;
      return false;
    }
    body.append(data, length);
    return true;
  };
  bool complete;
  if (req.is_multipart_form_data()) {
    // No route takes form data; the parts are read against the same limit and dropped.
    complete = reader([](const httplib::MultipartFormData&) { return true; }, receive);
    body.clear();
  } else {
    complete = reader(receive);
  }
  if (tooLarge) {
    writeFinalError(res, 413, errorCodeFor(413), messageFor(413));
    return;
  }
  if (!complete) {
    writeFinalError(res, 400, errorCodeFor(400), messageFor(400));
    return;
  }
  httplib::Request withBody = req;
  withBody.body = std::move(body);
  router.dispatch(withBody, res);
}

// A Content-Length of decimal digits only; anything else is unreadable.
std::optional<std::uint64_t> contentLength(const std::string& text) {
  if (text.empty() || text.size() > 19) return std::nullopt;
  std::uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return value;
}

}  // namespace

HttpServer::HttpServer(const Router& router, ServerOptions options)
    : server_(std::make_unique<Listener>(options)), options_(options) {
  auto& server = *server_;
  const std::size_t maxBody = options_.maxBody;
  const std::uint64_t maxStream = options_.maxStreamBody;
  server_->setStreamingRule([&router](const httplib::Request& req) { return router.streams(req); });
  // The limit of a request's body: an object's body streams to a file and has its own.
  auto limitOf = [&router, maxBody, maxStream](const httplib::Request& req) -> std::uint64_t {
    return router.streams(req) ? maxStream : maxBody;
  };
  // cpp-httplib checks this against Content-Length only; chunked bodies are bounded by the
  // content receivers below and by the connection's byte budget.
  server.set_payload_max_length(
      static_cast<std::size_t>(std::max<std::uint64_t>(maxBody, maxStream)));
  // Answers go out at once rather than waiting on the client's delayed ACK.
  server.set_tcp_nodelay(true);
  // Only for the Keep-Alive header: the connection loop applies these itself.
  server.set_keep_alive_max_count(kKeepAliveMaxCount);
  server.set_keep_alive_timeout(
      std::chrono::duration_cast<std::chrono::seconds>(options_.keepAliveTimeout).count());

  // A body announced too large is refused before the client sends it.
  server.set_expect_100_continue_handler(
      [limitOf](const httplib::Request& req, httplib::Response& res) {
        auto length = contentLength(req.get_header_value("Content-Length"));
        if (length && *length > limitOf(req)) {
          writeFinalError(res, 413, errorCodeFor(413), messageFor(413));
          return 413;
        }
        return 100;
      });

  // Every method goes to the router, which knows the routes; a long path is refused before
  // the regular expression below ever sees it.
  server.set_pre_routing_handler([&router, limitOf](const httplib::Request& req,
                                                    httplib::Response& res) {
    auto handled = httplib::Server::HandlerResponse::Handled;
    if (req.path.size() > 2048) {
      writeFinalError(res, 414, "URI_TOO_LONG", "The request URI is too long");
      return handled;
    }
    bool hasLength = req.has_header("Content-Length");
    bool hasEncoding = req.has_header("Transfer-Encoding");
    // Without a length, only chunked framing says where a body ends; anything else would be
    // read until the client closes.
    if (hasEncoding && req.get_header_value("Transfer-Encoding") != "chunked") {
      writeFinalError(res, 400, "INVALID_INPUT_DATA", "Unsupported Transfer-Encoding");
      return handled;
    }
    if (hasLength && !hasEncoding) {
      auto length = contentLength(req.get_header_value("Content-Length"));
      if (!length || req.get_header_value_count("Content-Length") != 1) {
        writeFinalError(res, 400, "INVALID_INPUT_DATA", "The Content-Length is not valid");
        return handled;
      }
      if (*length > limitOf(req)) {
        writeFinalError(res, 413, errorCodeFor(413), messageFor(413));
        return handled;
      }
    }
    // cpp-httplib reads no body of a GET, HEAD or OPTIONS, and the bytes of one that comes
    // with a body would be taken for the next request on the connection. Such a request is
    // answered without its body, and the connection closed after the answer.
    const bool bodiless = req.method == "GET" || req.method == "HEAD" || req.method == "OPTIONS";
    if (bodiless && (hasEncoding || (hasLength && contentLength(req.get_header_value(
                                                      "Content-Length")) != std::uint64_t{0}))) {
      router.dispatch(req, res);
      if (currentConnection) currentConnection->closeAfterResponse = true;
      res.set_header("Connection", "close");
      return handled;
    }
    // A request with neither Content-Length nor Transfer-Encoding has no body (libcurl sends
    // bodiless PUT and DELETE that way), but cpp-httplib would wait for one until its read
    // timeout: such requests are answered here, before it tries to read.
    if (!hasLength && !hasEncoding) {
      router.dispatch(req, res);
      return handled;
    }
    return httplib::Server::HandlerResponse::Unhandled;
  });
  auto dispatch = [&router](const httplib::Request& req, httplib::Response& res) {
    router.dispatch(req, res);
  };
  auto dispatchReading = [&router, maxBody, maxStream](const httplib::Request& req,
                                                       httplib::Response& res,
                                                       const httplib::ContentReader& reader) {
    if (!router.streams(req)) {
      dispatchWithBody(router, maxBody, req, res, reader);
      return;
    }
    // The route reads the body itself; what it left unread ends the connection.
    BodyReader body(reader, maxStream);
    router.dispatch(req, res, &body);
    if (!body.consumed() && currentConnection) {
      currentConnection->closeAfterResponse = true;
      currentConnection->bodyTooLarge |= body.tooLarge();
      res.set_header("Connection", "close");
    }
  };
  server.Get("/.*", dispatch);
  server.Options("/.*", dispatch);
  server.Post("/.*", dispatchReading);
  server.Put("/.*", dispatchReading);
  server.Patch("/.*", dispatchReading);
  server.Delete("/.*", dispatchReading);

  // Answers cpp-httplib makes itself (body too large, unreadable request) get the service's
  // error body too; the router's own answers already have one.
  server.set_error_handler(
      httplib::Server::HandlerWithResponse([](const httplib::Request&, httplib::Response& res) {
        if (currentConnection && currentConnection->bodyTooLarge && res.status == 400) {
          // A chunked body of a GET that passed the connection's byte budget.
          res.status = 413;
          res.body.clear();
        }
        if (res.body.empty()) {
          writeError(res, res.status, errorCodeFor(res.status), messageFor(res.status));
        }
        return httplib::Server::HandlerResponse::Handled;
      }));
  server.set_exception_handler(
      [](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
        writeError(res, 500, "INTERNAL_SERVER_ERROR", "The emulator failed to handle the request");
      });
  if (options_.verbose) {
    // Method, path and status only: never a body, so never a password.
    server.set_logger([](const httplib::Request& req, const httplib::Response& res) {
      std::fprintf(stderr, "%s %s %d\n", req.method.c_str(), req.path.c_str(), res.status);
    });
  }
}

HttpServer::~HttpServer() {
  stop();
}

namespace {

// Whether another socket holds 127.0.0.1:port, asked after our own bind failed.
bool portInUse(int port) {
  int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (probe < 0) return false;
  int yes = 1;
  ::setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  ::inet_pton(AF_INET, kHost, &address.sin_addr);
  bool inUse = ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 &&
               errno == EADDRINUSE;
  ::close(probe);
  return inUse;
}

}  // namespace

void HttpServer::start() {
  auto& server = *server_;
  // cpp-httplib sets SO_REUSEPORT by default, which lets a second emulator share a port with
  // the first and take half its requests. SO_REUSEADDR alone still allows a restart on a port
  // whose old connections linger in TIME_WAIT, but refuses a port someone listens on.
  server.set_socket_options([](socket_t sock) {
    int yes = 1;
    ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  if (options_.port == 0) {
    port_ = server.bind_to_any_port(kHost);
  } else {
    port_ = server.bind_to_port(kHost, options_.port) ? options_.port : -1;
  }
  if (port_ <= 0 && options_.port != 0 && portInUse(options_.port)) {
    throw std::runtime_error("port " + std::to_string(options_.port) + " is already in use");
  }
  if (port_ <= 0) {
    throw std::runtime_error("cannot listen on " + std::string(kHost) + ":" +
                             std::to_string(options_.port));
  }
  ::listen(server.socket(), kBacklog);
  thread_ = std::thread([&server] { server.listen_after_bind(); });
  // The socket already queues connections; this waits for the accept loop itself.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!server.is_running() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
}

void HttpServer::stop() {
  if (!thread_.joinable()) return;
  // Connections waiting for a request, or for the rest of one, give up at once; the accept
  // loop returns only after the requests being handled are answered.
  server_->interrupt();
  server_->stop();
  thread_.join();
}

std::string HttpServer::baseURL() const {
  return "http://" + std::string(kHost) + ":" + std::to_string(port_) + "/api";
}

}  // namespace jovemu
