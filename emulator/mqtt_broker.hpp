// A mosquitto broker for the emulator's MQTT deliveries: its configuration (a loopback listener,
// no anonymous clients, the dynamic security plugin holding one administrator and, later, one
// account per installation) and the broker process itself, for `--mqtt auto` and for tests.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace jovemu {

/// @brief A TCP port on 127.0.0.1 that nothing listens on right now.
int freeLoopbackPort();

/// @brief The mosquitto program: /usr/sbin/mosquitto, else one on PATH; empty when none.
std::string findMosquitto();

/// @brief Writes DIR/mosquitto.conf for a broker on 127.0.0.1:PORT (every time), and
/// DIR/dynsec.json with the administrator (only when absent: the accounts made since are kept).
/// The administrator may manage accounts and publish under "jov/"; other accounts may subscribe
/// only where their own role allows. Throws std::runtime_error when a file cannot be written or
/// the dynamic security plugin is not installed.
void writeBrokerConfig(const std::filesystem::path& dir, int port, const std::string& adminUser,
                       const std::string& adminPassword);

/// @brief A mosquitto process running DIR/mosquitto.conf, which listens on `port`.
class BrokerProcess {
 public:
  BrokerProcess(std::filesystem::path dir, int port);
  ~BrokerProcess();
  BrokerProcess(const BrokerProcess&) = delete;
  BrokerProcess& operator=(const BrokerProcess&) = delete;

  /// @brief Starts the broker and waits until it accepts connections (at most 10 s); throws
  /// std::runtime_error when it does not. Its output goes to DIR/mosquitto.log.
  void start();
  /// @brief Stops it (SIGTERM, then SIGKILL after 5 s) and waits for it; nothing when stopped.
  void stop();
  int port() const { return port_; }

 private:
  std::filesystem::path dir_;
  int port_;
  pid_t pid_ = -1;
};

}  // namespace jovemu
