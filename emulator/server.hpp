// The HTTP side of the emulator: a cpp-httplib server on loopback that hands every request to
// the router, with the size limit, the error bodies and the request log.
#pragma once

#include <httplib.h>

#include <cstddef>
#include <memory>
#include <string>
#include <thread>

#include "router.hpp"

namespace jovemu {

struct ServerOptions {
  int port = 0;  ///< 0 picks a free port
  std::size_t maxBody = 16 * 1024 * 1024;
  bool verbose = false;
  std::size_t threads = 64;
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
  /// @brief Stops accepting and waits until the requests in progress are answered.
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
