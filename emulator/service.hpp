// What every route handler shares: the store, the registered applications, the settings, and
// the checks of the application headers and of bearer tokens.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

#include "app_registry.hpp"
#include "call.hpp"
#include "database.hpp"
#include "router.hpp"
#include "script_runtime.hpp"
#include "user_store.hpp"

namespace jovemu {

struct ServiceSettings {
  std::int64_t tokenTtlSeconds = 86400;
  /// A password-reset PIN is accepted this long after it was sent.
  std::int64_t pinLifetimeMs = 10 * 60 * 1000;
  /// Time and memory each server-code execution may use.
  ScriptLimits scriptLimits;
  /// The largest object body accepted, single request or chunked.
  std::uint64_t maxBodySize = std::uint64_t{5} << 30;
};

class BodyFiles;

class MqttBridge;

class Service {
 public:
  Service(Database& db, AppRegistry& apps, ServiceSettings settings)
      : db(db), apps(apps), settings(settings) {}

  Database& db;
  AppRegistry& apps;
  const ServiceSettings settings;
  /// The MQTT broker deliveries are published to; nullptr when the emulator runs without one.
  MqttBridge* mqtt = nullptr;
  /// Where object bodies are stored; nullptr when the emulator stores none.
  BodyFiles* bodies = nullptr;
  /// "http://127.0.0.1:PORT": where the emulator serves public links (known once it listens).
  std::string publicBaseURL() const {
    std::lock_guard lock(publicMutex_);
    return publicBaseURL_;
  }
  void setPublicBaseURL(std::string url) {
    std::lock_guard lock(publicMutex_);
    publicBaseURL_ = std::move(url);
  }

  /// @brief Milliseconds since 1970.
  static std::int64_t now();

  /// @brief 404 APP_NOT_FOUND unless "X-Jov-AppID"/"X-Jov-AppKey" name the path's application.
  void requireApp(const Call& call, const std::string& appID) const;
  /// @brief The user of the request's bearer token: 403 WRONG_TOKEN for an unknown token,
  /// 401 UNAUTHORIZED for an expired or missing one.
  UserRow requireUser(const Call& call, Connection& conn, const std::string& appID) const;

 private:
  mutable std::mutex publicMutex_;
  std::string publicBaseURL_;
};

/// @brief A service route under "/api/apps/{appID}": the handler runs after the application
/// check, with the application ID; the route's own "{}" segments start at param(1).
using ApiHandler = std::function<void(Call&, const std::string& appID)>;
void addApiRoute(Router& router, const Service& service, std::string method, std::string_view path,
                 ApiHandler handler);

/// @brief The user a "/users/{id}" path names ("me" is the caller); 404 when unknown.
UserRow resolveUserPath(Connection& conn, const std::string& appID, const std::string& segment,
                        const UserRow& caller);
/// @brief As resolveUserPath, and 403 unless that user is the caller.
UserRow requireSelf(Connection& conn, const std::string& appID, const std::string& segment,
                    const UserRow& caller);

void addAuthRoutes(Router& router, Service& service);
void addUserRoutes(Router& router, Service& service);
void addPasswordRoutes(Router& router, Service& service);
void addAddressRoutes(Router& router, Service& service);
void addGroupRoutes(Router& router, Service& service);
void addObjectRoutes(Router& router, Service& service);
void addBucketRoutes(Router& router, Service& service);
void addAclRoutes(Router& router, Service& service);
void addServerCodeRoutes(Router& router, Service& service);
void addPushRoutes(Router& router, Service& service);
void addInstallationRoutes(Router& router, Service& service);
void addEmulatorRoutes(Router& router, Service& service);
void addSocialRoutes(Router& router, Service& service);
void addThingRoutes(Router& router, Service& service);
void addBodyRoutes(Router& router, Service& service);
void addSocialBrowserRoutes(Router& router, Service& service);

/// @brief Every route of the emulator.
void addAllRoutes(Router& router, Service& service);

}  // namespace jovemu
