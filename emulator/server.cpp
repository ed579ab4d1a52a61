#include "server.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cerrno>
#include <cstdio>
#include <stdexcept>

#include "call.hpp"

namespace jovemu {

namespace {

constexpr const char* kHost = "127.0.0.1";
// cpp-httplib listens with a backlog of 5; a burst of clients needs more.
constexpr int kBacklog = 512;

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

}  // namespace

// Exposes the listening socket, which cpp-httplib keeps to itself, to widen its backlog.
class HttpServer::Listener : public httplib::Server {
 public:
  int socket() const { return static_cast<int>(svr_sock_); }
};

HttpServer::HttpServer(const Router& router, ServerOptions options)
    : server_(std::make_unique<Listener>()), options_(options) {
  auto& server = *server_;
  std::size_t threads = options_.threads;
  server.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
  server.set_payload_max_length(options_.maxBody);
  server.set_keep_alive_max_count(1000);
  // A worker waits this long on an idle keep-alive connection, and stop() waits for workers.
  server.set_keep_alive_timeout(1);
  // Answers go out at once rather than waiting on the client's delayed ACK.
  server.set_tcp_nodelay(true);

  // Every method goes to the router, which knows the routes; a long path is refused before
  // the regular expression below ever sees it.
  auto dispatch = [&router](const httplib::Request& req, httplib::Response& res) {
    router.dispatch(req, res);
  };
  server.set_pre_routing_handler([&router](const httplib::Request& req, httplib::Response& res) {
    if (req.path.size() > 2048) {
      writeError(res, 414, "URI_TOO_LONG", "The request URI is too long");
      return httplib::Server::HandlerResponse::Handled;
    }
    // A request with neither Content-Length nor Transfer-Encoding has no body (libcurl sends
    // bodiless PUT and DELETE that way), but cpp-httplib would wait for one until its read
    // timeout: such requests are answered here, before it tries to read.
    if (!req.has_header("Content-Length") && !req.has_header("Transfer-Encoding")) {
      router.dispatch(req, res);
      return httplib::Server::HandlerResponse::Handled;
    }
    return httplib::Server::HandlerResponse::Unhandled;
  });
  server.Get("/.*", dispatch);
  server.Post("/.*", dispatch);
  server.Put("/.*", dispatch);
  server.Patch("/.*", dispatch);
  server.Delete("/.*", dispatch);
  server.Options("/.*", dispatch);

  // Answers cpp-httplib makes itself (body too large, unreadable request) get the service's
  // error body too; the router's own answers already have one.
  server.set_error_handler(
      httplib::Server::HandlerWithResponse([](const httplib::Request&, httplib::Response& res) {
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
  // listen_after_bind returns only after its workers have answered what they were serving.
  server_->stop();
  thread_.join();
}

std::string HttpServer::baseURL() const {
  return "http://" + std::string(kHost) + ":" + std::to_string(port_) + "/api";
}

}  // namespace jovemu
