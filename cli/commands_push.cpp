// Push: install or uninstall this machine's device token; listen for pushes over MQTT; topics
// of the application, a user (--user) or a group (--group): create, list, delete, subscribe,
// unsubscribe, send; and the emulator's push outbox (what every device would have received).
//
// Without --token, push install and uninstall use this machine's own token: 32 random bytes kept
// in the data directory ("device-token", hex), made on the first install. push listen keeps the
// MQTT installation it made for the logged-in user in "mqtt-installation.json" there, so that
// every listen of that user is the same installation.
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>

#include "app.hpp"

namespace jovcli {

namespace {

using jov::JovPushInstallation;
using jov::JovPushSubscription;
using jov::JovTopic;

// Hex digits as bytes; a usage error for an odd length or a character that is not hex.
std::vector<std::uint8_t> bytesOfHex(const std::string& hex) {
  auto digit = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  if (hex.empty() || hex.size() % 2 != 0) {
    throw usageError("the token must be an even number of hex digits");
  }
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    int high = digit(hex[i]), low = digit(hex[i + 1]);
    if (high < 0 || low < 0) throw usageError("the token must be an even number of hex digits");
    bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
  }
  return bytes;
}

// This machine's token, made and kept on first use when `create` is set; nothing when there is
// none yet and none is to be made.
std::optional<std::vector<std::uint8_t>> machineToken(bool create) {
  const auto path = jov::Jov::dataDirectory() / "device-token";
  std::string hex;
  if (std::ifstream in(path); in) in >> hex;
  if (hex.size() == 64) return bytesOfHex(hex);
  if (!create) return std::nullopt;
  std::random_device random;
  std::vector<std::uint8_t> bytes(32);
  for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random() & 0xFF);
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::trunc);
  out << jov::hexToken(bytes) << "\n";
  if (!out.flush()) throw failure("cannot write " + path.string());
  return bytes;
}

struct TopicArgs {
  std::string name, user, group;
};

std::filesystem::path mqttInstallationFile() {
  return jov::Jov::dataDirectory() / "mqtt-installation.json";
}

// The MQTT installation kept for this user, if any.
jov::JovMQTTInstallation::Ptr savedMQTTInstallation(const std::string& userID) {
  std::ifstream in(mqttInstallationFile());
  if (!in) return nullptr;
  const json saved = json::parse(in, nullptr, false);
  if (!saved.is_object() || saved.value("userID", "") != userID) return nullptr;
  const std::string id = saved.value("installationID", "");
  const std::string registration = saved.value("installationRegistrationID", "");
  if (id.empty() || registration.empty()) return nullptr;
  return jov::JovMQTTInstallation::installationWithIDs(id, registration);
}

void saveMQTTInstallation(const std::string& userID, const jov::JovMQTTInstallation& installed) {
  const auto path = mqttInstallationFile();
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::trunc);
  out << json{{"userID", userID},
              {"installationID", installed.installationID().value_or("")},
              {"installationRegistrationID", installed.installationRegistrationID().value_or("")}}
             .dump()
      << "\n";
  if (!out.flush()) throw failure("cannot write " + path.string());
}

// One received push as a line: when, where from, and the payload.
std::string describePush(const jov::JovReceivedMessage& message) {
  static const std::pair<jov::JovMessageField, const char*> kShown[] = {
      {jov::JovMessageFieldTopic, "topic"},
      {jov::JovMessageFieldBucketID, "bucket"},
      {jov::JovMessageFieldSender, "from"}};
  std::string line = localTime(std::chrono::system_clock::now());
  for (const auto& [field, label] : kShown) {
    if (auto value = message.getValueOfJovMessageField(field)) {
      line += std::string(" ") + label + " " +
              (value->is_string() ? value->get<std::string>() : value->dump());
    }
  }
  return line + ": " + message.rawMessage().dump();
}

// jov push listen: prints pushes as they arrive, until --count of them or --timeout seconds,
// or until interrupted.
void listen(Context& ctx, int count, double timeout) {
  auto user = ctx.session();
  auto installation = savedMQTTInstallation(user->userID());
  std::optional<jov::JovMQTTEndpoint> endpoint;
  if (installation) {
    auto fetched = installation->endpointSynchronous();
    // An installation removed meanwhile (on the service, or by another program) is replaced.
    if (fetched)
      endpoint = std::move(fetched).value();
    else if (fetched.error().code() != jov::JovError::codeInstallationNotFound()) {
      throw failure("cannot read the MQTT endpoint: " + describeError(fetched.error()));
    }
  }
  if (!endpoint) {
    installation = ctx.check(jov::JovMQTTInstallation::installSynchronous(),
                             "cannot install this machine for MQTT");
    saveMQTTInstallation(user->userID(), *installation);
    endpoint = ctx.check(installation->endpointSynchronous(), "cannot read the MQTT endpoint");
  }
  auto receiver = jov::JovPushReceiver::receiverWithEndpoint(*endpoint);
  int received = 0;
  receiver->setMessageHandler([&](const jov::JovReceivedMessage& message) {
    ++received;
    if (ctx.jsonOutput())
      std::cout << message.rawMessage().dump() << std::endl;
    else
      std::cout << describePush(message) << std::endl;
    if (count > 0 && received >= count) jov::JovMainQueue::stop();
  });
  // A reason names the broker itself (its cause and URL); a plain change names the topic.
  receiver->setStateHandler([topic = endpoint->topic](jov::JovPushReceiverState state,
                                                      std::optional<jov::JovError> reason) {
    std::cerr << "jov: " << jov::toString(state) << " (" << topic << ")";
    if (reason) std::cerr << ": " << describeError(*reason);
    std::cerr << std::endl;
  });
  ctx.check(receiver->start(), "cannot start listening");
  if (timeout > 0) {
    const auto limit = std::chrono::milliseconds(static_cast<std::int64_t>(timeout * 1000));
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while ((count <= 0 || received < count) && std::chrono::steady_clock::now() < deadline) {
      jov::JovMainQueue::runUntil(static_cast<std::size_t>(1),
                                  std::chrono::duration_cast<std::chrono::milliseconds>(
                                      deadline - std::chrono::steady_clock::now()));
    }
  } else {
    jov::JovMainQueue::run();
  }
  receiver->stop();
  if (count > 0 && received < count) {
    throw failure("received " + std::to_string(received) + " of " + std::to_string(count) +
                  " pushes before the timeout");
  }
}

void addOwnerOptions(CLI::App* command, TopicArgs& args) {
  auto* user = command->add_option("--user", args.user, "A user's topic (ID, e-mail or username)");
  command->add_option("--group", args.group, "A group's topic (group ID)")->excludes(user);
}

JovTopic::Ptr topicOf(Context& ctx, const TopicArgs& args) {
  if (!args.user.empty()) return ctx.resolveUser(args.user)->topicWithName(args.name);
  if (!args.group.empty()) return jov::JovGroup::groupWithID(args.group)->topicWithName(args.name);
  return jov::Jov::topicWithName(args.name);
}

std::string scopeText(const TopicArgs& args) {
  if (!args.user.empty()) return " of user " + args.user;
  if (!args.group.empty()) return " of group " + args.group;
  return "";
}

void addPushInstallCommands(CLI::App& jov, Context& ctx) {
  struct Args {
    std::string token;
    bool development = false, mqtt = false;
  };
  auto args = std::make_shared<Args>();
  auto* push = jov.add_subcommand("push", "Install this device for push notifications");
  push->require_subcommand(1);

  auto* install = push->add_subcommand("install", "Register the device token under your user");
  install->add_option("--token", args->token, "The device token, hex (default: this machine's)");
  install->add_flag("--development", args->development, "A development (sandbox) installation");
  install->callback([&ctx, args] {
    ctx.session();
    JovPushInstallation::Ptr installation;
    if (args->token.empty()) {
      jov::Jov::setAPNSDeviceToken(machineToken(true));
      jov::Jov::enableAPNSWithDevelopmentMode(args->development, 0);
      installation =
          ctx.check(JovPushInstallation::installSynchronous(), "cannot install the device");
    } else {
      installation = ctx.check(JovPushInstallation::installSynchronousWithDeviceToken(
                                   bytesOfHex(args->token), args->development),
                               "cannot install the device");
    }
    const std::string id = installation->installationID().value_or("");
    ctx.print({{"installationID", orNull(id)}}, "installed " + id);
  });

  auto* uninstall = push->add_subcommand("uninstall", "Remove the device token's installation");
  uninstall->add_option("--token", args->token, "The device token, hex (default: this machine's)");
  uninstall->add_flag("--mqtt", args->mqtt, "Remove the MQTT installation push listen made");
  uninstall->callback([&ctx, args] {
    auto user = ctx.session();
    if (args->mqtt) {
      auto installation = savedMQTTInstallation(user->userID());
      if (!installation) throw failure("push listen installed nothing for this user");
      ctx.check(installation->uninstallSynchronous(), "cannot uninstall the MQTT installation");
      std::filesystem::remove(mqttInstallationFile());
    } else if (args->token.empty()) {
      auto token = machineToken(false);
      if (!token) throw failure("this machine has no device token; nothing was installed");
      jov::Jov::setAPNSDeviceToken(token);
      ctx.check(JovPushInstallation::uninstallSynchronous(), "cannot uninstall the device");
    } else {
      ctx.check(JovPushInstallation::uninstallSynchronousWithDeviceToken(bytesOfHex(args->token)),
                "cannot uninstall the device");
    }
    ctx.print({{"uninstalled", true}}, "uninstalled");
  });

  auto* listenCommand = push->add_subcommand(
      "listen", "Print pushes as they arrive over MQTT (one JSON line each with --json)");
  auto count = std::make_shared<int>(0);
  auto timeout = std::make_shared<double>(0);
  listenCommand->add_option("--count", *count, "Stop after this many pushes")
      ->check(CLI::PositiveNumber);
  listenCommand->add_option("--timeout", *timeout, "Stop after this many seconds")
      ->check(CLI::PositiveNumber);
  listenCommand->callback([&ctx, count, timeout] { listen(ctx, *count, *timeout); });

  auto* outbox = push->add_subcommand(
      "outbox", "Show the pushes the emulator delivered, oldest first (emulator only)");
  auto clear = std::make_shared<bool>(false);
  outbox->add_flag("--clear", *clear, "Empty the outbox after showing it");
  outbox->callback([&ctx, clear] {
    ctx.begin();
    const std::string url = emulatorAppURL("/push/outbox");
    auto exchange = [&url](jov::JovRequestMethod method) {
      jov::JovRequest request = jov::JovRequest::withURL(url);
      request.requestMethod = method;
      request.anonymous = true;
      request.postData.reset();
      jov::JovResponse response = request.makeSynchronousRequest();
      if (!response.ok()) {
        throw failure("cannot read the push outbox: " + describeError(*response.error));
      }
      return response;
    };
    const json deliveries = exchange(jov::JovMethodGet).json.value("deliveries", json::array());
    std::vector<std::vector<json>> rows;
    for (const auto& d : deliveries) {
      rows.push_back({d.value("kind", ""), d.value("userID", ""), d.value("channel", ""),
                      d.value("payload", json::object())});
    }
    ctx.printTable({"kind", "userID", "channel", "payload"}, {"KIND", "USER", "CHANNEL", "PAYLOAD"},
                   rows, "(no deliveries)");
    if (*clear) exchange(jov::JovMethodDelete);
  });
}

void addTopicCommands(CLI::App& jov, Context& ctx) {
  auto args = std::make_shared<TopicArgs>();
  auto* topic = jov.add_subcommand("topic", "Work with push topics");
  topic->require_subcommand(1);

  auto* create = topic->add_subcommand("create", "Create a topic");
  create->add_option("name", args->name, "Topic name")->required();
  addOwnerOptions(create, *args);
  create->callback([&ctx, args] {
    ctx.session();
    ctx.check(topicOf(ctx, *args)->saveSynchronous(), "cannot create the topic");
    ctx.print({{"topicID", args->name}}, "created topic " + args->name + scopeText(*args));
  });

  auto* list = topic->add_subcommand("list", "List topics, every page");
  addOwnerOptions(list, *args);
  list->callback([&ctx, args] {
    ctx.session();
    std::vector<std::vector<json>> rows;
    std::optional<std::string> key;
    do {
      JovTopic::Page page;
      if (!args->user.empty()) {
        page = ctx.check(ctx.resolveUser(args->user)->listTopicsSynchronous(key),
                         "cannot list the topics");
      } else if (!args->group.empty()) {
        page = ctx.check(jov::JovGroup::groupWithID(args->group)->listTopicsSynchronous(key),
                         "cannot list the topics");
      } else {
        page = ctx.check(jov::Jov::listTopicsSynchronous(key), "cannot list the topics");
      }
      for (const auto& t : page.results) rows.push_back({t->name()});
      key = page.paginationKey;
    } while (key);
    ctx.printTable({"topicID"}, {"TOPIC ID"}, rows, "(no topics)");
  });

  auto* remove = topic->add_subcommand("delete", "Delete a topic and its subscriptions");
  remove->add_option("name", args->name, "Topic name")->required();
  addOwnerOptions(remove, *args);
  remove->callback([&ctx, args] {
    ctx.session();
    auto t = topicOf(ctx, *args);
    ctx.confirm("Delete topic " + args->name + scopeText(*args) + "?");
    ctx.check(t->deleteSynchronous(), "cannot delete the topic");
    ctx.print({{"topicID", args->name}, {"deleted", true}}, "deleted topic " + args->name);
  });

  for (bool add : {true, false}) {
    auto* change = topic->add_subcommand(
        add ? "subscribe" : "unsubscribe",
        add ? "Subscribe yourself to a topic" : "Unsubscribe yourself from a topic");
    change->add_option("name", args->name, "Topic name")->required();
    addOwnerOptions(change, *args);
    change->callback([&ctx, args, add] {
      ctx.session();
      auto t = topicOf(ctx, *args);
      if (add) {
        ctx.check(JovPushSubscription::subscribeCurrentUserSynchronous(t), "cannot subscribe");
      } else {
        ctx.check(JovPushSubscription::unsubscribeCurrentUserSynchronous(t), "cannot unsubscribe");
      }
      ctx.print({{"topicID", args->name}, {"subscribed", add}},
                (add ? "subscribed to " : "unsubscribed from ") + args->name + scopeText(*args));
    });
  }

  struct SendArgs {
    std::string data, alert, title;
    bool noAPNS = false, noGCM = false, noMQTT = false;
  };
  auto message = std::make_shared<SendArgs>();
  auto* send = topic->add_subcommand("send", "Send a message to a topic's subscribers");
  send->add_option("name", args->name, "Topic name")->required();
  addOwnerOptions(send, *args);
  send->add_option("--data", message->data, "The message data: a JSON object");
  send->add_option("--alert", message->alert, "The alert text APNs devices show");
  send->add_option("--title", message->title, "The alert title APNs devices show");
  send->add_flag("--no-apns", message->noAPNS, "Do not send through APNs");
  send->add_flag("--no-gcm", message->noGCM, "Do not send through GCM");
  send->add_flag("--no-mqtt", message->noMQTT, "Do not send through MQTT");
  send->callback([&ctx, args, message] {
    json data = json::object();
    if (!message->data.empty()) {
      data = json::parse(message->data, nullptr, false);
      if (!data.is_object()) throw usageError("--data is not a JSON object: " + message->data);
    }
    auto composed = jov::JovPushMessage::composeMessageWithData(data);
    if (!message->alert.empty()) composed.apnsFields->alertBody = message->alert;
    if (!message->title.empty()) composed.apnsFields->alertTitle = message->title;
    composed.setAPNSEnabled(!message->noAPNS);
    composed.setGCMEnabled(!message->noGCM);
    composed.setMQTTEnabled(!message->noMQTT);
    ctx.session();
    ctx.check(topicOf(ctx, *args)->sendMessageSynchronous(composed), "cannot send the message");
    ctx.print({{"topicID", args->name}, {"sent", true}},
              "sent to " + args->name + scopeText(*args));
  });
}

}  // namespace

void addPushCommands(CLI::App& jov, Context& ctx) {
  addPushInstallCommands(jov, ctx);
  addTopicCommands(jov, ctx);
}

}  // namespace jovcli
