// The HTTP side of the emulator: a cpp-httplib server on loopback that hands every request to
// the router, with the size limit, the error bodies and the request log.
//
// Connections are served one thread each, so clients that hold connections open cannot take
// the threads other clients need; what one client may hold, how long the request line and
// headers may take to arrive and how long a body may pause are bounded.
#pragma once

#include <httplib.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "router.hpp"

namespace jovemu {

struct ServerOptions {
  int port = 0;  ///< 0 picks a free port
  std::size_t maxBody = 16 * 1024 * 1024;
  /// The limit of an object's body, which streams to a file rather than to memory.
  std::uint64_t maxStreamBody = std::uint64_t{5} << 30;
  bool verbose = false;
  /// Connections served at once, every client together; one more is closed at once.
  std::size_t maxConnections = 4096;
  /// Connections one client address may hold; one more is answered 503 and closed.
  std::size_t maxConnectionsPerClient = 256;
  /// The request line and every header must arrive within this time, counted from the first
  /// byte of the request.
  std::chrono::milliseconds headerTimeout{10000};
  /// A body that moves no byte for this long is given up.
  std::chrono::milliseconds bodyIdleTimeout{10000};
  /// A body must arrive whole within this time.
  std::chrono::milliseconds bodyTimeout{120000};
  /// An idle keep-alive connection is closed after this long.
  std::chrono::milliseconds keepAliveTimeout{5000};
};

class HttpServer {
 public:
  HttpServer(const Router& router, ServerOptions options);
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;
  ~HttpServer();

  /// @brief Binds 127.0.0.1 and serves on a thread of its own; returns once connections are
  /// accepted. Throws std::runtime_error when the port cannot be bound.
  void start();
  /// @brief Stops accepting, drops idle and half-received requests and waits until the
  /// requests being handled are answered.
  void stop();

  int port() const { return port_; }
  /// @brief "http://127.0.0.1:PORT/api".
  std::string baseURL() const;

 private:
  class Listener;
  std::unique_ptr<Listener> server_;
  ServerOptions options_;
  int port_ = -1;
  std::thread thread_;
};

}  // namespace jovemu
