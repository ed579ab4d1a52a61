// The Secret Service credential store (libsecret): one item per service name in the default
// collection of the desktop session's keyring.
//
// It is only used when a Secret Service already answers on the session bus: the probe never
// starts a bus or a keyring, and every call has a deadline, because a locked keyring may wait
// for an unlock prompt that nobody answers on a headless machine.

#include <libsecret/secret.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>

#include "jov/credential_store.hpp"

namespace jov {

namespace {

using Status = JovCredentialStoreStatus;
using namespace std::chrono_literals;

constexpr auto kProbeDeadline = 1500ms;
constexpr auto kCallDeadline = 5s;
constexpr int kProbeTimeoutMs = 1000;

const SecretSchema* schema() {
  static const SecretSchema s = {
      "org.jov.Credentials",
      SECRET_SCHEMA_NONE,
      {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING}, {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
      0,
      nullptr,
      nullptr,
      nullptr,
      nullptr,
      nullptr,
      nullptr,
      nullptr};
  return &s;
}

// Runs a blocking GLib call with a cancellable that a watchdog cancels after the deadline.
template <class Call>
auto withDeadline(std::chrono::milliseconds deadline, Call call) {
  GCancellable* cancellable = g_cancellable_new();
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
  std::thread watchdog([&] {
    std::unique_lock lock(mutex);
    if (!finished.wait_for(lock, deadline, [&] { return done; })) g_cancellable_cancel(cancellable);
  });
  auto result = call(cancellable);
  {
    std::lock_guard lock(mutex);
    done = true;
  }
  finished.notify_all();
  watchdog.join();
  g_object_unref(cancellable);
  return result;
}

// The session bus address, without autolaunching one.
std::string sessionBusAddress() {
  if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address)
    return address;
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime) {
    std::error_code ec;
    auto socket = std::filesystem::path(runtime) / "bus";
    if (std::filesystem::exists(socket, ec)) return "unix:path=" + socket.string();
  }
  return {};
}

bool secretServiceAnswers() {
  const std::string address = sessionBusAddress();
  if (address.empty()) return false;
  return withDeadline(kProbeDeadline, [&](GCancellable* cancellable) {
    GError* error = nullptr;
    GDBusConnection* bus = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, cancellable, &error);
    if (!bus) {
      g_clear_error(&error);
      return false;
    }
    // Only a running service counts: activating one could start a keyring with a prompt.
    GVariant* owned = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "NameHasOwner", g_variant_new("(s)", "org.freedesktop.secrets"), G_VARIANT_TYPE("(b)"),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, kProbeTimeoutMs, cancellable, &error);
    bool answers = false;
    if (owned) {
      gboolean hasOwner = FALSE;
      g_variant_get(owned, "(b)", &hasOwner);
      g_variant_unref(owned);
      if (hasOwner) {
        GVariant* pong = g_dbus_connection_call_sync(
            bus, "org.freedesktop.secrets", "/org/freedesktop/secrets", "org.freedesktop.DBus.Peer",
            "Ping", nullptr, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, kProbeTimeoutMs, cancellable,
            &error);
        answers = pong != nullptr;
        if (pong) g_variant_unref(pong);
      }
    }
    g_clear_error(&error);
    g_dbus_connection_close_sync(bus, nullptr, nullptr);
    g_object_unref(bus);
    return answers;
  });
}

JovCredentialStoreOutcome outcomeOf(GError* error, const char* what) {
  JovCredentialStoreOutcome outcome;
  outcome.code = error->code;
  outcome.detail = std::string(what) + ": " + error->message;
  outcome.status = error->domain == SECRET_ERROR && error->code == SECRET_ERROR_IS_LOCKED
                       ? Status::NotAllowed
                       : Status::Failed;
  g_error_free(error);
  return outcome;
}

class SecretServiceCredentialStore final : public JovCredentialStore {
 public:
  std::string name() const override { return "secret-service"; }

  JovCredentialStoreOutcome add(const std::string& service, const std::string& blob) override {
    std::lock_guard lock(mutex_);
    std::string existing;
    auto found = lookup(service, existing);
    if (found.ok()) return {Status::Duplicate, 0, "exists"};
    if (found.status != Status::NotFound) return found;
    return store(service, blob);
  }

  JovCredentialStoreOutcome update(const std::string& service, const std::string& blob) override {
    std::lock_guard lock(mutex_);
    std::string existing;
    auto found = lookup(service, existing);
    if (!found.ok()) return found;
    return store(service, blob);  // replaces the item with the same attributes
  }

  JovCredentialStoreOutcome read(const std::string& service, std::string& blob) override {
    std::lock_guard lock(mutex_);
    return lookup(service, blob);
  }

  JovCredentialStoreOutcome remove(const std::string& service) override {
    std::lock_guard lock(mutex_);
    return withDeadline(kCallDeadline, [&](GCancellable* cancellable) {
      GError* error = nullptr;
      gboolean removed = secret_password_clear_sync(schema(), cancellable, &error, "service",
                                                    service.c_str(), nullptr);
      if (error) return outcomeOf(error, "clear");
      if (!removed) return JovCredentialStoreOutcome{Status::NotFound, 0, "no record"};
      return JovCredentialStoreOutcome{};
    });
  }

  JovCredentialStoreOutcome removeAll() override {
    std::lock_guard lock(mutex_);
    return withDeadline(kCallDeadline, [&](GCancellable* cancellable) {
      GError* error = nullptr;
      // No attributes: every item of the schema.
      GHashTable* attributes = g_hash_table_new(g_str_hash, g_str_equal);
      secret_password_clearv_sync(schema(), attributes, cancellable, &error);
      g_hash_table_unref(attributes);
      if (error) return outcomeOf(error, "clear all");
      return JovCredentialStoreOutcome{};
    });
  }

 private:
  JovCredentialStoreOutcome lookup(const std::string& service, std::string& blob) {
    return withDeadline(kCallDeadline, [&](GCancellable* cancellable) {
      GError* error = nullptr;
      gchar* secret = secret_password_lookup_sync(schema(), cancellable, &error, "service",
                                                  service.c_str(), nullptr);
      if (error) return outcomeOf(error, "lookup");
      if (!secret) return JovCredentialStoreOutcome{Status::NotFound, 0, "no record"};
      blob = secret;
      secret_password_free(secret);
      return JovCredentialStoreOutcome{};
    });
  }

  JovCredentialStoreOutcome store(const std::string& service, const std::string& blob) {
    return withDeadline(kCallDeadline, [&](GCancellable* cancellable) {
      GError* error = nullptr;
      const std::string label = "Jov credentials (" + service + ")";
      secret_password_store_sync(schema(), SECRET_COLLECTION_DEFAULT, label.c_str(), blob.c_str(),
                                 cancellable, &error, "service", service.c_str(), nullptr);
      if (error) return outcomeOf(error, "store");
      return JovCredentialStoreOutcome{};
    });
  }

  std::mutex mutex_;  // add's lookup and store are one step for this process
};

}  // namespace

std::shared_ptr<JovCredentialStore> makeSecretServiceCredentialStore() {
  if (!secretServiceAnswers()) return nullptr;
  return std::make_shared<SecretServiceCredentialStore>();
}

}  // namespace jov
