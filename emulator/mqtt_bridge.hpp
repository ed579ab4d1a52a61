// The emulator's side of MQTT delivery: one administrator connection to a mosquitto broker that
// runs the dynamic security plugin. It makes and removes the account of each MQTT installation,
// and publishes every stored MQTT delivery, in order, to its installation's topic: at least
// once, including those stored while the broker was down.
#pragma once

#include <mosquitto.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "database.hpp"
#include "push_store.hpp"

namespace jovemu {

struct MqttSettings {
  std::string host = "127.0.0.1";  ///< the broker, as clients reach it
  int port = 1883;
  std::string adminUser, adminPassword;
};

class MqttBridge {
 public:
  MqttBridge(Database& db, MqttSettings settings);
  ~MqttBridge();
  MqttBridge(const MqttBridge&) = delete;
  MqttBridge& operator=(const MqttBridge&) = delete;

  /// @brief Connects (and keeps reconnecting) in the background, and starts publishing.
  void start();
  void stop();

  const MqttSettings& settings() const { return settings_; }

  /// @brief Makes the broker account; true once the broker confirmed it (an account that exists
  /// already gets this password), false when it did not answer within a few seconds.
  bool provision(const MqttAccount& account);
  /// @brief Removes the account; does not wait for the broker.
  void remove(const std::string& username);
  /// @brief New MQTT deliveries were committed.
  void wake();

 private:
  // One command list sent to the dynamic security plugin, waiting for its answer.
  struct Pending {
    bool answered = false;
    nlohmann::json responses;
  };

  void runNetwork();
  void runPublisher();
  bool isStopping();
  // Sends commands; the plugin's responses, or nothing after the timeout or without connection.
  std::optional<nlohmann::json> control(nlohmann::json commands, std::chrono::milliseconds wait);
  void publishBatch();
  void saveCursor();

  static void handleConnect(mosquitto*, void* self, int rc);
  static void handlePublish(mosquitto*, void* self, int mid);
  static void handleMessage(mosquitto*, void* self, const mosquitto_message* message);

  Database& db_;
  const MqttSettings settings_;
  mosquitto* mosq_ = nullptr;
  std::thread network_, publisher_;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool stopping_ = false;
  bool connected_ = false;  // CONNACK accepted and subscribed to the control responses
  bool work_ = true;        // deliveries may be waiting
  std::int64_t sent_ = 0;   // the last delivery handed to the broker
  std::int64_t acked_ = 0;  // every delivery up to this one was acknowledged
  std::int64_t saved_ = 0;  // what the store holds as acknowledged
  std::map<int, std::int64_t> inFlight_;     // message ID -> delivery seq
  std::map<std::string, Pending*> pending_;  // correlation data -> waiting control request
  std::uint64_t nextCorrelation_ = 0;
};

}  // namespace jovemu
