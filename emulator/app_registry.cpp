#include "app_registry.hpp"

#include <openssl/crypto.h>

#include <chrono>
#include <mutex>

namespace jovemu {

AppRegistry::AppRegistry(Database& db) : db_(db) {
  db_.transaction([this](Connection& conn) {
    auto stmt = conn.prepare("SELECT app_id, app_key FROM apps");
    while (stmt.step()) keys_[stmt.textOr(0)] = stmt.textOr(1);
  });
}

AppRegistry::Outcome AppRegistry::registerApp(const std::string& appID, const std::string& appKey,
                                              bool replaceKey) {
  std::unique_lock lock(mutex_);
  auto it = keys_.find(appID);
  if (it != keys_.end() && it->second == appKey) return Outcome::Existing;
  if (it != keys_.end() && !replaceKey) return Outcome::Conflict;
  auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                 std::chrono::system_clock::now().time_since_epoch())
                 .count();
  db_.transaction([&](Connection& conn) {
    auto stmt = conn.prepare(
        "INSERT INTO apps (app_id, app_key, created) VALUES (?1, ?2, ?3) "
        "ON CONFLICT (app_id) DO UPDATE SET app_key = excluded.app_key");
    stmt.bind(1, appID).bind(2, appKey).bind(3, static_cast<std::int64_t>(now));
    stmt.run();
  });
  bool existed = it != keys_.end();
  keys_[appID] = appKey;
  return existed ? Outcome::Existing : Outcome::Created;
}

bool AppRegistry::matches(const std::string& appID, const std::string& appKey) const {
  std::shared_lock lock(mutex_);
  auto it = keys_.find(appID);
  return it != keys_.end() && it->second.size() == appKey.size() &&
         CRYPTO_memcmp(it->second.data(), appKey.data(), appKey.size()) == 0;
}

bool AppRegistry::exists(const std::string& appID) const {
  std::shared_lock lock(mutex_);
  return keys_.count(appID) != 0;
}

}  // namespace jovemu
