// jov-emulator: serves the service's REST interface on loopback from an SQLite store.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "api_error.hpp"
#include "app_registry.hpp"
#include "body_store.hpp"
#include "crypto.hpp"
#include "database.hpp"
#include "mqtt_bridge.hpp"
#include "mqtt_broker.hpp"
#include "router.hpp"
#include "server.hpp"
#include "server_code.hpp"
#include "server_code_store.hpp"
#include "service.hpp"
#include "store_dump.hpp"

namespace {

// A fixed default port keeps the URL a saved client profile holds valid across restarts.
constexpr int kDefaultPort = 8931;

struct Options {
  int port = kDefaultPort;
  std::string data = ":memory:";
  std::vector<std::string> apps;
  std::int64_t tokenTtl = 86400;
  std::size_t maxBody = 16 * 1024 * 1024;
  std::uint64_t maxBodySize = std::uint64_t{5} << 30;
  bool verbose = false;
  bool watchStdin = false;
  std::string exportDir, importDir;
  double codeTimeLimit = 5;
  std::size_t codeMemoryLimit = 64;
  std::string serverCode;
  std::string mqtt, mqttAdmin;
};

// The broker behind --mqtt: none, one of the user's (HOST:PORT with --mqtt-admin), or one this
// process starts and stops ("auto").
class Broker {
 public:
  explicit Broker(const Options& options) {
    if (options.mqtt.empty()) return;
    if (options.mqtt == "auto") {
      startOwn(options);
      return;
    }
    const auto colon = options.mqtt.rfind(':');
    const auto admin = options.mqttAdmin.find(':');
    if (colon == std::string::npos || colon == 0 || admin == std::string::npos || admin == 0) {
      throw std::runtime_error("--mqtt HOST:PORT needs --mqtt-admin USER:PASSWORD");
    }
    const std::string port = options.mqtt.substr(colon + 1);
    if (port.empty() || port.size() > 5 ||
        port.find_first_not_of("0123456789") != std::string::npos || std::stoi(port) < 1 ||
        std::stoi(port) > 65535) {
      throw std::runtime_error("--mqtt " + options.mqtt + ": the port must be 1 to 65535");
    }
    settings_.host = options.mqtt.substr(0, colon);
    settings_.port = std::stoi(port);
    settings_.adminUser = options.mqttAdmin.substr(0, admin);
    settings_.adminPassword = options.mqttAdmin.substr(admin + 1);
    enabled_ = true;
  }
  ~Broker() {
    process_.reset();
    if (!temporary_.empty()) std::filesystem::remove_all(temporary_);
  }

  bool enabled() const { return enabled_; }
  const jovemu::MqttSettings& settings() const { return settings_; }

 private:
  // Its configuration in DATA/mqtt (or a temporary directory for a store in memory): the
  // administrator's password is made once and kept there with the accounts; the port is new
  // each time.
  void startOwn(const Options& options) {
    if (jovemu::findMosquitto().empty()) {
      throw std::runtime_error("--mqtt auto needs mosquitto (Debian package mosquitto)");
    }
    std::filesystem::path dir;
    if (options.data == ":memory:") {
      std::string pattern = (std::filesystem::temp_directory_path() / "jov-mqtt-XXXXXX").string();
      if (!::mkdtemp(pattern.data())) throw std::runtime_error("cannot make a temporary directory");
      dir = temporary_ = pattern;
    } else {
      dir = std::filesystem::path(options.data) / "mqtt";
      std::filesystem::create_directories(dir);
    }
    const auto secret = dir / "admin-password";
    std::string password;
    if (std::ifstream in(secret); in) std::getline(in, password);
    if (password.empty()) {
      password = jovemu::randomHex(16);
      std::ofstream out(secret, std::ios::trunc);
      out << password << "\n";
      if (!out.flush()) throw std::runtime_error("cannot write " + secret.string());
      std::filesystem::permissions(
          secret, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    }
    settings_.adminUser = "jov-emulator";
    settings_.adminPassword = password;
    settings_.port = jovemu::freeLoopbackPort();
    jovemu::writeBrokerConfig(dir, settings_.port, settings_.adminUser, password);
    process_ = std::make_unique<jovemu::BrokerProcess>(dir, settings_.port);
    process_->start();
    enabled_ = true;
  }

  bool enabled_ = false;
  jovemu::MqttSettings settings_;
  std::filesystem::path temporary_;
  std::unique_ptr<jovemu::BrokerProcess> process_;
};

// --server-code: deployed for every --app, unless it already is that application's current
// version (a restart on the same store deploys nothing new).
void deployStartupScript(jovemu::Service& service, const Options& options) {
  std::ifstream file(options.serverCode, std::ios::binary);
  std::string script((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (!file.good() && !file.eof()) throw std::runtime_error("cannot read " + options.serverCode);
  for (const auto& app : options.apps) {
    auto appID = app.substr(0, app.find(':'));
    auto current = service.db.transaction(
        [&](jovemu::Connection& conn) { return jovemu::findServerCode(conn, appID, "current"); });
    if (current && current->script == script) continue;
    try {
      jovemu::deployScript(service, appID, script);
    } catch (const jovemu::ApiError& error) {
      throw std::runtime_error(options.serverCode + ": " + error.what());
    }
  }
}

std::string databasePath(const std::string& data) {
  if (data == ":memory:") return data;
  std::filesystem::create_directories(data);
  return (std::filesystem::path(data) / "emulator.sqlite3").string();
}

// A harness that dies without stopping us closes our standard input: stop then too.
void watchStandardInput() {
  std::thread([] {
    char buffer[256];
    while (true) {
      ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
      if (n == 0 || (n < 0 && errno != EINTR)) break;
    }
    ::kill(::getpid(), SIGTERM);
  }).detach();
}

int run(const Options& options) {
  // SIGINT and SIGTERM are taken by sigwait below, on this thread only; every thread started
  // from here inherits the mask. A shell starts background jobs with SIGINT ignored, and an
  // ignored signal never reaches sigwait: restore the default first.
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);  // a client that hangs up must not kill the emulator

  jovemu::Database db(databasePath(options.data));
  // Before the registry, which reads the applications from the store.
  if (!options.importDir.empty()) jovemu::importStore(db, options.importDir);
  jovemu::AppRegistry apps(db);
  for (const auto& app : options.apps) {
    auto colon = app.find(':');
    apps.registerApp(app.substr(0, colon), app.substr(colon + 1), true);
  }
  jovemu::ServiceSettings settings{options.tokenTtl};
  settings.scriptLimits.time =
      std::chrono::milliseconds(static_cast<std::int64_t>(options.codeTimeLimit * 1000));
  settings.scriptLimits.memoryBytes = options.codeMemoryLimit * 1024 * 1024;
  settings.maxBodySize = options.maxBodySize;
  jovemu::Service service(db, apps, settings);
  // Object bodies are files under DATA/bodies, or in a temporary directory for a store in
  // memory; files no row names any more (a crash, buckets dropped whole) go at start.
  std::unique_ptr<jovemu::BodyFiles> bodies;
  if (options.data == ":memory:") {
    std::string pattern = (std::filesystem::temp_directory_path() / "jov-bodies-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("cannot make a temporary directory");
    bodies = std::make_unique<jovemu::BodyFiles>(pattern, true);
  } else {
    bodies =
        std::make_unique<jovemu::BodyFiles>(std::filesystem::path(options.data) / "bodies", false);
  }
  bodies->sweep(db);
  service.bodies = bodies.get();
  if (!options.serverCode.empty()) deployStartupScript(service, options);
  Broker broker(options);
  std::unique_ptr<jovemu::MqttBridge> bridge;
  if (broker.enabled()) {
    bridge = std::make_unique<jovemu::MqttBridge>(db, broker.settings());
    db.setCommitObserver([raw = bridge.get()] { raw->wake(); });
    bridge->start();
    service.mqtt = bridge.get();
  }
  jovemu::Router router;
  jovemu::addAllRoutes(router, service);

  jovemu::ServerOptions serverOptions;
  serverOptions.port = options.port;
  serverOptions.maxBody = options.maxBody;
  serverOptions.maxStreamBody = options.maxBodySize;
  serverOptions.verbose = options.verbose;
  jovemu::HttpServer server(router, serverOptions);
  server.start();
  service.setPublicBaseURL("http://127.0.0.1:" + std::to_string(server.port()));
  std::cout << server.baseURL() << std::endl;  // the first line; endl flushes it
  if (options.watchStdin) watchStandardInput();

  int received = 0;
  sigwait(&stopSignals, &received);
  if (options.verbose) std::fprintf(stderr, "jov-emulator: stopping on signal %d\n", received);
  server.stop();
  if (bridge) bridge->stop();
  if (!options.exportDir.empty()) jovemu::exportStore(db, options.exportDir);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app{"Local emulator of the service's REST interface, backed by SQLite"};
  app.add_option("--port", options.port, "TCP port on 127.0.0.1 (0 picks a free one)")
      ->capture_default_str()
      ->check(CLI::Range(0, 65535));
  app.add_option("--data", options.data, "Directory of the store, or :memory:");
  app.add_option("--app", options.apps, "Application to serve, as ID:KEY (repeatable)")
      ->check([](const std::string& value) -> std::string {
        auto colon = value.find(':');
        if (colon == std::string::npos || colon == 0 || colon + 1 == value.size()) {
          return "expected ID:KEY";
        }
        return {};
      });
  app.add_option("--token-ttl", options.tokenTtl, "Access-token lifetime in seconds")
      ->check(CLI::Range(std::int64_t{1}, std::int64_t{10} * 365 * 86400));
  app.add_option("--max-body-size", options.maxBodySize,
                 "Largest object body in bytes, in one request or chunked (default 5 GiB)")
      ->check(CLI::PositiveNumber);
  app.add_option("--max-body", options.maxBody, "Largest accepted request body in bytes")
      ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 40));
  app.add_flag("--verbose", options.verbose, "Log one line per request to standard error");
  app.add_flag("--watch-stdin", options.watchStdin, "Stop when standard input is closed");
  app.add_option("--import", options.importDir,
                 "Load the JSON files of --export into the store, which must be empty")
      ->check(CLI::ExistingDirectory);
  app.add_option("--export", options.exportDir,
                 "On exit, write the whole store to DIR, one JSON file per table");
  app.add_option("--server-code", options.serverCode,
                 "A script deployed as the next server-code version of every --app")
      ->check(CLI::ExistingFile);
  app.add_option("--code-time-limit", options.codeTimeLimit,
                 "Seconds one server-code execution may run")
      ->capture_default_str()
      ->check(CLI::Range(0.01, 3600.0));
  app.add_option("--code-memory-limit", options.codeMemoryLimit,
                 "Megabytes one server-code execution may hold")
      ->capture_default_str()
      ->check(CLI::Range(std::size_t{1}, std::size_t{4096}));
  app.add_option("--mqtt", options.mqtt,
                 "Publish MQTT deliveries to a mosquitto broker: HOST:PORT (with --mqtt-admin) "
                 "of one running the dynamic security plugin, or 'auto' to start one");
  app.add_option("--mqtt-admin", options.mqttAdmin,
                 "USER:PASSWORD of that broker's dynamic security administrator");
  CLI11_PARSE(app, argc, argv);

  try {
    return run(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "jov-emulator: %s\n", error.what());
    return 1;
  }
}
