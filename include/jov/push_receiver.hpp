#pragma once
/// @file
/// @brief JovPushReceiver: listens on an MQTT installation's broker endpoint and hands every
/// push it receives to the application as a JovReceivedMessage.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "jov/error.hpp"
#include "jov/mqtt_installation.hpp"
#include "jov/received_message.hpp"
#include "jov/result.hpp"

namespace jov {

/// @brief Where a receiver stands.
enum class JovPushReceiverState {
  Stopped,     ///< not started, or stopped
  Connecting,  ///< started; connecting, or waiting to reconnect after a loss
  Listening,   ///< connected and subscribed: pushes arrive
  Refused,     ///< the broker refused the account or the subscription; retried with backoff
};

/// @brief The name of a state ("stopped", "connecting", "listening", "refused").
const char* toString(JovPushReceiverState state);

/// @brief Listens for the pushes of one MQTT installation.
///
/// start() connects in the background (over TLS when the endpoint offers a TLS port and the
/// options allow it) and subscribes to the installation's topic; a lost connection or a broker
/// restart is followed by reconnecting with exponential backoff, and the broker keeps what was
/// published meanwhile (a persistent session). Every message is posted to JovMainQueue (or the
/// executor installed there), in the order the broker delivered them; a payload that is not a
/// JSON object is logged and skipped. State changes are posted the same way.
///
/// start(), stop() and state() may be called from any thread. After stop() returns, no handler
/// is called any more, not even for messages already posted. Destroying the receiver stops it.
///
/// @code
/// auto receiver = jov::JovPushReceiver::receiverWithEndpoint(endpoint);
/// receiver->setMessageHandler([](const jov::JovReceivedMessage& message) {
///   std::cout << message.rawMessage().dump() << "\n";
/// });
/// receiver->start();
/// jov::JovMainQueue::run();
/// @endcode
class JovPushReceiver {
 public:
  /// @brief Receivers are held by std::shared_ptr.
  using Ptr = std::shared_ptr<JovPushReceiver>;
  /// @brief Receives each push.
  using MessageHandler = std::function<void(const JovReceivedMessage&)>;
  /// @brief Receives each change of state, with the reason of a refusal or a loss.
  using StateHandler = std::function<void(JovPushReceiverState, std::optional<JovError>)>;

  /// @brief How a receiver connects.
  struct Options {
    /// Use the endpoint's TLS port when it has one.
    bool preferTLS = true;
    /// CA certificates for TLS; empty: the system's (/etc/ssl/certs).
    std::string caFile;
    /// MQTT keep-alive: a dead connection is noticed within about 1.5 times this.
    std::chrono::seconds keepAlive{30};
    /// The first wait before reconnecting; each failure doubles it, up to maxReconnectDelay.
    std::chrono::seconds reconnectDelay{1};
    /// The longest wait between two attempts.
    std::chrono::seconds maxReconnectDelay{30};
  };

  /// @brief A receiver for the endpoint, not started, with the default options.
  static Ptr receiverWithEndpoint(JovMQTTEndpoint endpoint);
  /// @brief A receiver for the endpoint, not started, connecting as the options say.
  static Ptr receiverWithEndpoint(JovMQTTEndpoint endpoint, Options options);

  /// @brief The handler of pushes; set it before start().
  void setMessageHandler(MessageHandler handler);
  /// @brief The handler of state changes; set it before start().
  void setStateHandler(StateHandler handler);

  /// @brief Starts connecting. Errors (nothing started): 204 an endpoint without host, topic or
  /// username, or options out of range; 103 the MQTT client could not be set up (TLS files).
  /// Starting a started receiver does nothing.
  Result<void> start();
  /// @brief Disconnects and waits for the network thread to end; does nothing when stopped.
  /// Must not be called from one of the receiver's own handlers.
  void stop();

  /// @brief The current state.
  JovPushReceiverState state() const;
  /// @brief Pushes received (and handed on) since the receiver was made.
  std::uint64_t receivedCount() const;
  /// @brief The endpoint it listens on.
  const JovMQTTEndpoint& endpoint() const;

  ~JovPushReceiver();
  JovPushReceiver(const JovPushReceiver&) = delete;
  JovPushReceiver& operator=(const JovPushReceiver&) = delete;

 private:
  struct Core;
  JovPushReceiver(JovMQTTEndpoint endpoint, Options options);

  std::shared_ptr<Core> core_;
};

}  // namespace jov
