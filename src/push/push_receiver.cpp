// JovPushReceiver: one libmosquitto client per receiver, driven by a network thread of its own
// that connects, subscribes, reads and reconnects with backoff; what it receives is handed to
// the main queue.

#include "jov/push_receiver.hpp"

#include <mosquitto.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "jov/async.hpp"
#include "jov/logger.hpp"

namespace jov {

namespace {

// The broker's refusal of a subscription in a SUBACK (MQTT 3.1.1).
constexpr int kSubscriptionRefused = 0x80;
// How long one read of the network thread waits; also the longest stop() waits for it.
constexpr int kLoopTimeoutMs = 200;

void initialiseLibrary() {
  static std::once_flag once;
  // Never cleaned up: other receivers may start at any time until the process ends.
  std::call_once(once, [] { mosquitto_lib_init(); });
}

}  // namespace

const char* toString(JovPushReceiverState state) {
  switch (state) {
    case JovPushReceiverState::Stopped:
      return "stopped";
    case JovPushReceiverState::Connecting:
      return "connecting";
    case JovPushReceiverState::Listening:
      return "listening";
    case JovPushReceiverState::Refused:
      return "refused";
  }
  return "stopped";
}

struct JovPushReceiver::Core : std::enable_shared_from_this<Core> {
  Core(JovMQTTEndpoint e, Options o) : endpoint(std::move(e)), options(o) {}

  const JovMQTTEndpoint endpoint;
  const Options options;

  std::mutex lifecycle;  // start() and stop() one at a time
  mosquitto* mosq = nullptr;
  std::thread network;

  std::mutex mutex;  // the handlers, the wait between attempts
  std::condition_variable wake;
  MessageHandler onMessage;
  StateHandler onState;
  bool stopping = false;

  std::atomic<JovPushReceiverState> state{JovPushReceiverState::Stopped};
  std::atomic<std::uint64_t> received{0};
  // Raised by stop(): what was posted under an older generation is not handed on.
  std::atomic<std::uint64_t> generation{0};
  // Held while a handler runs, so that stop() returns only when none runs; recursive because a
  // handler may itself stop the receiver.
  std::recursive_mutex dispatching;
  bool subscribed = false;  // this connection got its SUBACK (network thread only)

  int port() const {
    return options.preferTLS && endpoint.portTLS ? *endpoint.portTLS : endpoint.portTCP;
  }

  // An error of this receiver: what failed, and the broker it was connecting to.
  JovError failure(int code, const std::string& cause) const {
    const bool tls = options.preferTLS && endpoint.portTLS;
    nlohmann::json info = {{"cause", cause},
                           {"url", std::string(tls ? "mqtts://" : "mqtt://") + endpoint.host + ":" +
                                       std::to_string(port())}};
    return JovError::errorWithCode(code, std::move(info));
  }

  // Runs `call` on the main queue unless the receiver was stopped in between.
  void post(std::function<void()> call) {
    const std::uint64_t posted = generation.load();
    JovMainQueue::post([self = shared_from_this(), posted, call = std::move(call)] {
      std::lock_guard running(self->dispatching);
      if (self->generation.load() != posted) return;
      call();
    });
  }

  void changeState(JovPushReceiverState next, std::optional<JovError> reason) {
    const JovPushReceiverState previous = state.exchange(next);
    // Each refusal is news (its reason may differ); other states only when they change.
    if (previous == next && !(next == JovPushReceiverState::Refused && reason)) return;
    StateHandler handler;
    {
      std::lock_guard lock(mutex);
      handler = onState;
    }
    if (!handler) return;
    post([handler = std::move(handler), next, reason = std::move(reason)] {
      handler(next, reason);
    });
  }

  // ------------------------------------------------------------ libmosquitto callbacks
  // (all on the network thread)

  static Core& of(void* userdata) { return *static_cast<Core*>(userdata); }

  static void handleConnect(mosquitto* m, void* userdata, int rc) {
    Core& core = of(userdata);
    if (rc != 0) {
      // 4 and 5: the account is unknown or its password wrong; the rest: the broker's trouble.
      const int code = rc == 4 || rc == 5 ? JovError::codeUnauthorizedRequest()
                                          : JovError::codeUnableToConnectToInternet();
      core.changeState(JovPushReceiverState::Refused,
                       core.failure(code, mosquitto_connack_string(rc)));
      return;
    }
    int mid = 0;
    const int subscribed = mosquitto_subscribe(m, &mid, core.endpoint.topic.c_str(), 1);
    if (subscribed != MOSQ_ERR_SUCCESS) {
      JOV_LOG(JovLogWarning,
              std::string("MQTT subscribe failed: ") + mosquitto_strerror(subscribed));
      mosquitto_disconnect(m);
    }
  }

  static void handleSubscribe(mosquitto* m, void* userdata, int, int count, const int* granted) {
    Core& core = of(userdata);
    if (count < 1 || granted[0] == kSubscriptionRefused) {
      core.changeState(
          JovPushReceiverState::Refused,
          core.failure(JovError::codeUnauthorizedRequest(),
                       "the broker refused the subscription to " + core.endpoint.topic));
      mosquitto_disconnect(m);
      return;
    }
    core.subscribed = true;
    core.changeState(JovPushReceiverState::Listening, std::nullopt);
  }

  static void handleMessage(mosquitto*, void* userdata, const mosquitto_message* message) {
    Core& core = of(userdata);
    const char* bytes = static_cast<const char*>(message->payload);
    auto payload = nlohmann::json::parse(bytes, bytes + message->payloadlen, nullptr, false);
    if (payload.is_discarded() || !payload.is_object()) {
      JOV_LOG(JovLogWarning, "MQTT: skipped a push on " + std::string(message->topic) +
                                 " that is not a JSON object (" +
                                 std::to_string(message->payloadlen) + " bytes)");
      return;
    }
    core.received.fetch_add(1);
    MessageHandler handler;
    {
      std::lock_guard lock(core.mutex);
      handler = core.onMessage;
    }
    if (!handler) return;
    core.post([handler = std::move(handler), received = JovReceivedMessage::messageFromPayload(
                                                 std::move(payload))] { handler(received); });
  }

  // ------------------------------------------------------------ the network thread

  // Waits before the next attempt; false when stop() came meanwhile.
  bool pause(std::chrono::seconds delay) {
    std::unique_lock lock(mutex);
    return !wake.wait_for(lock, delay, [this] { return stopping; });
  }

  bool isStopping() {
    std::lock_guard lock(mutex);
    return stopping;
  }

  void run() {
    std::chrono::seconds delay = options.reconnectDelay;
    bool first = true;
    while (!isStopping()) {
      subscribed = false;
      // The first call keeps host, port and keep-alive for every reconnect after it. Both only
      // start connecting: the loop below finishes it, so stop() never waits for a slow peer.
      int rc = first ? mosquitto_connect_async(mosq, endpoint.host.c_str(), port(),
                                               static_cast<int>(options.keepAlive.count()))
                     : mosquitto_reconnect_async(mosq);
      first = false;
      if (rc == MOSQ_ERR_SUCCESS) {
        while (!isStopping()) {
          rc = mosquitto_loop(mosq, kLoopTimeoutMs, 1);
          if (rc != MOSQ_ERR_SUCCESS) break;
        }
      }
      if (isStopping()) break;
      // A session that got as far as its subscription starts the backoff again.
      if (subscribed) delay = options.reconnectDelay;
      if (state.load() != JovPushReceiverState::Refused) {
        const std::string cause = rc == MOSQ_ERR_ERRNO ? std::string(std::strerror(errno))
                                                       : std::string(mosquitto_strerror(rc));
        changeState(JovPushReceiverState::Connecting,
                    failure(JovError::codeUnableToConnectToInternet(), cause));
      }
      if (!pause(delay)) break;
      delay = std::min(delay * 2, options.maxReconnectDelay);
    }
    mosquitto_disconnect(mosq);
  }
};

JovPushReceiver::JovPushReceiver(JovMQTTEndpoint endpoint, Options options)
    : core_(std::make_shared<Core>(std::move(endpoint), options)) {}

JovPushReceiver::Ptr JovPushReceiver::receiverWithEndpoint(JovMQTTEndpoint endpoint) {
  return receiverWithEndpoint(std::move(endpoint), Options{});
}

JovPushReceiver::Ptr JovPushReceiver::receiverWithEndpoint(JovMQTTEndpoint endpoint,
                                                           Options options) {
  return Ptr(new JovPushReceiver(std::move(endpoint), options));
}

JovPushReceiver::~JovPushReceiver() {
  stop();
}

void JovPushReceiver::setMessageHandler(MessageHandler handler) {
  std::lock_guard lock(core_->mutex);
  core_->onMessage = std::move(handler);
}

void JovPushReceiver::setStateHandler(StateHandler handler) {
  std::lock_guard lock(core_->mutex);
  core_->onState = std::move(handler);
}

JovPushReceiverState JovPushReceiver::state() const {
  return core_->state.load();
}
std::uint64_t JovPushReceiver::receivedCount() const {
  return core_->received.load();
}
const JovMQTTEndpoint& JovPushReceiver::endpoint() const {
  return core_->endpoint;
}

Result<void> JovPushReceiver::start() {
  Core& core = *core_;
  std::lock_guard lifecycle(core.lifecycle);
  if (core.mosq) return {};
  const JovMQTTEndpoint& endpoint = core.endpoint;
  const Options& options = core.options;
  // libmosquitto takes no keep-alive under 5 s (0 would turn it off).
  if (endpoint.host.empty() || endpoint.topic.empty() || endpoint.username.empty() ||
      core.port() < 1 || core.port() > 65535 || options.keepAlive.count() < 5 ||
      options.keepAlive.count() > 65535 || options.reconnectDelay.count() < 1 ||
      options.maxReconnectDelay < options.reconnectDelay) {
    return JovError::errorWithCode(JovError::codeInvalidRequestData());
  }
  initialiseLibrary();
  // A persistent session under the account's name: the broker keeps what is published while
  // the receiver reconnects.
  mosquitto* mosq = mosquitto_new(endpoint.username.c_str(), false, &core);
  if (!mosq) {
    return core.failure(JovError::codeUndefinedError(), "cannot create an MQTT client");
  }
  auto refuse = [&](const std::string& cause) {
    mosquitto_destroy(mosq);
    return core.failure(JovError::codeUndefinedError(), cause);
  };
  mosquitto_threaded_set(mosq, true);
  mosquitto_int_option(mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V311);
  mosquitto_int_option(mosq, MOSQ_OPT_TCP_NODELAY, 1);  // a push is small and waited for
  if (int rc =
          mosquitto_username_pw_set(mosq, endpoint.username.c_str(), endpoint.password.c_str());
      rc != MOSQ_ERR_SUCCESS) {
    return refuse(mosquitto_strerror(rc));
  }
  if (options.preferTLS && endpoint.portTLS) {
    const char* caFile = options.caFile.empty() ? nullptr : options.caFile.c_str();
    const char* caPath = caFile ? nullptr : "/etc/ssl/certs";
    if (int rc = mosquitto_tls_set(mosq, caFile, caPath, nullptr, nullptr, nullptr);
        rc != MOSQ_ERR_SUCCESS) {
      return refuse(std::string("TLS: ") + mosquitto_strerror(rc));
    }
  }
  mosquitto_connect_callback_set(mosq, &Core::handleConnect);
  mosquitto_subscribe_callback_set(mosq, &Core::handleSubscribe);
  mosquitto_message_callback_set(mosq, &Core::handleMessage);
  {
    std::lock_guard lock(core.mutex);
    core.stopping = false;
  }
  core.mosq = mosq;
  core.changeState(JovPushReceiverState::Connecting, std::nullopt);
  core.network = std::thread([&core] { core.run(); });
  return {};
}

void JovPushReceiver::stop() {
  Core& core = *core_;
  std::lock_guard lifecycle(core.lifecycle);
  if (!core.mosq) return;
  {
    std::lock_guard lock(core.mutex);
    core.stopping = true;
  }
  core.wake.notify_all();
  core.network.join();
  mosquitto_destroy(core.mosq);
  core.mosq = nullptr;
  core.generation.fetch_add(1);
  core.state.store(JovPushReceiverState::Stopped);
  // Wait for a handler that is running now (unless it is this thread's own caller).
  std::lock_guard running(core.dispatching);
}

}  // namespace jov
