// The applications the emulator serves, with their keys; kept in the store and in memory so
// that the header check of every request does not touch the database.
#pragma once

#include <map>
#include <shared_mutex>
#include <string>

#include "database.hpp"

namespace jovemu {

class AppRegistry {
 public:
  enum class Outcome { Created, Existing, Conflict };

  /// @brief Loads the applications already in the store.
  explicit AppRegistry(Database& db);

  /// @brief Registers an application; an existing ID keeps its key unless `replaceKey`.
  Outcome registerApp(const std::string& appID, const std::string& appKey, bool replaceKey);
  /// @brief Whether the ID is registered with exactly this key.
  bool matches(const std::string& appID, const std::string& appKey) const;
  bool exists(const std::string& appID) const;

 private:
  Database& db_;
  mutable std::shared_mutex mutex_;
  std::map<std::string, std::string> keys_;
};

}  // namespace jovemu
