#include "mqtt_bridge.hpp"

#include <algorithm>
#include <iostream>

namespace jovemu {

namespace {

constexpr const char* kControlTopic = "$CONTROL/dynamic-security/v1";
constexpr const char* kResponseTopic = "$CONTROL/dynamic-security/v1/response";
constexpr int kLoopTimeoutMs = 100;
constexpr int kBatch = 500;

void initialiseLibrary() {
  static std::once_flag once;
  std::call_once(once, [] { mosquitto_lib_init(); });
}

bool refusedOnlyAsExisting(const nlohmann::json& response) {
  auto error = response.find("error");
  if (error == response.end() || !error->is_string()) return true;
  return error->get<std::string>().find("already exists") != std::string::npos;
}

}  // namespace

MqttBridge::MqttBridge(Database& db, MqttSettings settings)
    : db_(db), settings_(std::move(settings)) {}

MqttBridge::~MqttBridge() {
  stop();
}

void MqttBridge::start() {
  if (mosq_) return;
  initialiseLibrary();
  // The cursor: resume after what the broker acknowledged; a store that never published starts
  // after what it holds now (deliveries made without a broker stay in the outbox alone).
  db_.transaction([&](Connection& conn) {
    auto read = conn.prepare("SELECT seq FROM mqtt_published WHERE id = 1");
    if (read.step()) {
      acked_ = read.integer(0);
      return;
    }
    auto last = conn.prepare("SELECT COALESCE(MAX(seq), 0) FROM push_deliveries");
    last.step();
    acked_ = last.integer(0);
    auto insert = conn.prepare("INSERT INTO mqtt_published (id, seq) VALUES (1, ?1)");
    insert.bind(1, acked_).run();
  });
  sent_ = saved_ = acked_;
  mosq_ = mosquitto_new(nullptr, true, this);
  if (!mosq_) throw std::runtime_error("cannot create the MQTT client");
  mosquitto_threaded_set(mosq_, true);
  mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
  mosquitto_int_option(mosq_, MOSQ_OPT_TCP_NODELAY, 1);
  // Publishing is paced by the acknowledgements, not by libmosquitto's small default window.
  mosquitto_max_inflight_messages_set(mosq_, 1000);
  mosquitto_username_pw_set(mosq_, settings_.adminUser.c_str(), settings_.adminPassword.c_str());
  mosquitto_connect_callback_set(mosq_, &MqttBridge::handleConnect);
  mosquitto_publish_callback_set(mosq_, &MqttBridge::handlePublish);
  mosquitto_message_callback_set(mosq_, &MqttBridge::handleMessage);
  network_ = std::thread([this] { runNetwork(); });
  publisher_ = std::thread([this] { runPublisher(); });
}

void MqttBridge::stop() {
  if (!mosq_) return;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  publisher_.join();
  network_.join();
  saveCursor();
  mosquitto_destroy(mosq_);
  mosq_ = nullptr;
}

bool MqttBridge::isStopping() {
  std::lock_guard lock(mutex_);
  return stopping_;
}

void MqttBridge::wake() {
  {
    std::lock_guard lock(mutex_);
    work_ = true;
  }
  changed_.notify_all();
}

// ---------------------------------------------------------------- the network thread

void MqttBridge::runNetwork() {
  std::chrono::milliseconds delay(250);
  bool first = true;
  while (!isStopping()) {
    // Both only start connecting; the loop finishes it, so stop() never waits for the broker.
    int rc = first ? mosquitto_connect_async(mosq_, settings_.host.c_str(), settings_.port, 30)
                   : mosquitto_reconnect_async(mosq_);
    first = false;
    if (rc == MOSQ_ERR_SUCCESS) {
      while (!isStopping()) {
        rc = mosquitto_loop(mosq_, kLoopTimeoutMs, 1);
        if (rc != MOSQ_ERR_SUCCESS) break;
      }
    }
    bool wasConnected = false;
    {
      std::lock_guard lock(mutex_);
      wasConnected = connected_;
      connected_ = false;
      // What was not acknowledged is published again on the next connection.
      inFlight_.clear();
      sent_ = acked_;
      work_ = true;
    }
    if (isStopping()) break;
    if (wasConnected) {
      std::cerr << "jov-emulator: lost the MQTT broker at " << settings_.host << ":"
                << settings_.port << " (" << mosquitto_strerror(rc) << "); reconnecting\n";
      delay = std::chrono::milliseconds(250);
    }
    std::unique_lock lock(mutex_);
    if (changed_.wait_for(lock, delay, [this] { return stopping_; })) break;
    delay = std::min(delay * 2, std::chrono::milliseconds(5000));
  }
  mosquitto_disconnect(mosq_);
}

void MqttBridge::handleConnect(mosquitto* m, void* self, int rc) {
  auto& bridge = *static_cast<MqttBridge*>(self);
  if (rc != 0) {
    std::cerr << "jov-emulator: the MQTT broker refused the administrator: "
              << mosquitto_connack_string(rc) << "\n";
    return;
  }
  mosquitto_subscribe(m, nullptr, kResponseTopic, 1);
  {
    std::lock_guard lock(bridge.mutex_);
    bridge.connected_ = true;
    bridge.work_ = true;
  }
  bridge.changed_.notify_all();
}

void MqttBridge::handlePublish(mosquitto*, void* self, int mid) {
  auto& bridge = *static_cast<MqttBridge*>(self);
  {
    std::lock_guard lock(bridge.mutex_);
    auto found = bridge.inFlight_.find(mid);
    if (found == bridge.inFlight_.end()) return;  // a control command, or from a lost connection
    bridge.inFlight_.erase(found);
    std::int64_t oldest = bridge.sent_;
    for (const auto& [id, seq] : bridge.inFlight_) oldest = std::min(oldest, seq - 1);
    bridge.acked_ = std::max(bridge.acked_, oldest);
  }
  bridge.changed_.notify_all();
}

void MqttBridge::handleMessage(mosquitto*, void* self, const mosquitto_message* message) {
  auto& bridge = *static_cast<MqttBridge*>(self);
  const char* bytes = static_cast<const char*>(message->payload);
  auto answer = nlohmann::json::parse(bytes, bytes + message->payloadlen, nullptr, false);
  if (!answer.is_object() || !answer.contains("responses") || !answer["responses"].is_array()) {
    return;
  }
  std::lock_guard lock(bridge.mutex_);
  for (const auto& response : answer["responses"]) {
    if (!response.is_object() || !response.contains("correlationData")) continue;
    const std::string id = response["correlationData"].is_string()
                               ? response["correlationData"].get<std::string>()
                               : response["correlationData"].dump();
    // The request's ID is "N:I", the index of the command after the colon.
    auto found = bridge.pending_.find(id.substr(0, id.find(':')));
    if (found == bridge.pending_.end()) continue;
    found->second->responses.push_back(response);
  }
  bridge.changed_.notify_all();
}

// ---------------------------------------------------------------- accounts

std::optional<nlohmann::json> MqttBridge::control(nlohmann::json commands,
                                                  std::chrono::milliseconds wait) {
  Pending pending;
  std::string id;
  {
    std::lock_guard lock(mutex_);
    if (!connected_) return std::nullopt;
    id = std::to_string(++nextCorrelation_);
    pending_[id] = &pending;
  }
  for (std::size_t i = 0; i < commands.size(); ++i) {
    commands[i]["correlationData"] = id + ":" + std::to_string(i);
  }
  const std::string payload = nlohmann::json{{"commands", commands}}.dump();
  const int rc = mosquitto_publish(mosq_, nullptr, kControlTopic, static_cast<int>(payload.size()),
                                   payload.data(), 1, false);
  std::unique_lock lock(mutex_);
  if (rc == MOSQ_ERR_SUCCESS) {
    changed_.wait_for(lock, wait,
                      [&] { return stopping_ || pending.responses.size() >= commands.size(); });
  }
  pending_.erase(id);
  if (pending.responses.size() < commands.size()) return std::nullopt;
  return pending.responses;
}

bool MqttBridge::provision(const MqttAccount& account) {
  nlohmann::json commands = nlohmann::json::array();
  commands.push_back(
      {{"command", "createRole"},
       {"rolename", account.username},
       {"acls",
        {{{"acltype", "subscribePattern"}, {"topic", account.topic}, {"allow", true}},
         {{"acltype", "publishClientReceive"}, {"topic", account.topic}, {"allow", true}}}}});
  commands.push_back({{"command", "createClient"},
                      {"username", account.username},
                      {"password", account.password},
                      {"roles", {{{"rolename", account.username}}}}});
  auto responses = control(commands, std::chrono::seconds(5));
  if (!responses) return false;
  bool existed = false;
  for (const auto& response : *responses) {
    if (!refusedOnlyAsExisting(response)) {
      std::cerr << "jov-emulator: the MQTT broker refused " << response.dump() << "\n";
      return false;
    }
    existed = existed || response.contains("error");
  }
  if (!existed) return true;
  // An account left from before (a store restored, a broker kept): this password, this role.
  nlohmann::json repair = nlohmann::json::array();
  repair.push_back({{"command", "setClientPassword"},
                    {"username", account.username},
                    {"password", account.password}});
  repair.push_back({{"command", "addClientRole"},
                    {"username", account.username},
                    {"rolename", account.username}});
  auto repaired = control(repair, std::chrono::seconds(5));
  return repaired && !repaired->at(0).contains("error");
}

void MqttBridge::remove(const std::string& username) {
  nlohmann::json commands = nlohmann::json::array();
  commands.push_back({{"command", "deleteClient"}, {"username", username}});
  commands.push_back({{"command", "deleteRole"}, {"rolename", username}});
  std::lock_guard lock(mutex_);
  if (!connected_) return;
  for (std::size_t i = 0; i < commands.size(); ++i) {
    commands[i]["correlationData"] = "remove:" + std::to_string(i);
  }
  const std::string payload = nlohmann::json{{"commands", commands}}.dump();
  mosquitto_publish(mosq_, nullptr, kControlTopic, static_cast<int>(payload.size()), payload.data(),
                    1, false);
}

// ---------------------------------------------------------------- publishing

void MqttBridge::runPublisher() {
  while (true) {
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock,
                    [this] { return stopping_ || (connected_ && work_) || acked_ != saved_; });
      if (stopping_) return;
    }
    saveCursor();
    publishBatch();
  }
}

void MqttBridge::publishBatch() {
  std::int64_t after = 0;
  {
    std::lock_guard lock(mutex_);
    if (!connected_ || !work_) return;
    work_ = false;
    after = sent_;
  }
  struct Row {
    std::int64_t seq;
    std::string topic, payload;
  };
  std::vector<Row> rows;
  db_.transaction([&](Connection& conn) {
    auto stmt = conn.prepare(
        "SELECT seq, installation_id, payload FROM push_deliveries "
        "WHERE channel = 'MQTT' AND seq > ?1 ORDER BY seq LIMIT ?2");
    stmt.bind(1, after).bind(2, kBatch);
    while (stmt.step()) {
      rows.push_back({stmt.integer(0), mqttTopicOf(stmt.textOr(1)), stmt.textOr(2)});
    }
  });
  for (const auto& row : rows) {
    std::lock_guard lock(mutex_);
    // A connection lost meanwhile starts again from what was acknowledged.
    if (!connected_ || sent_ != after) return;
    int mid = 0;
    const int rc =
        mosquitto_publish(mosq_, &mid, row.topic.c_str(), static_cast<int>(row.payload.size()),
                          row.payload.data(), 1, false);
    if (rc != MOSQ_ERR_SUCCESS) {
      work_ = true;
      return;
    }
    inFlight_[mid] = row.seq;
    sent_ = after = row.seq;
  }
  if (rows.size() == static_cast<std::size_t>(kBatch)) wake();
}

void MqttBridge::saveCursor() {
  std::int64_t acked = 0;
  {
    std::lock_guard lock(mutex_);
    if (acked_ == saved_) return;
    acked = acked_;
  }
  db_.transaction([&](Connection& conn) {
    auto stmt = conn.prepare("UPDATE mqtt_published SET seq = ?1 WHERE id = 1 AND seq < ?1");
    stmt.bind(1, acked).run();
  });
  std::lock_guard lock(mutex_);
  saved_ = std::max(saved_, acked);
}

}  // namespace jovemu
