#pragma once
// A small persistent key-value store (SQLite) for per-user scratch data and similar records.

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace jov::detail {

class SqliteDatabase;

class PreferencesStore {
 public:
  /// Opens (creating when needed) the store file; a store that cannot be opened keeps nothing
  /// and every call on it fails softly (logged once).
  explicit PreferencesStore(const std::filesystem::path& file);
  ~PreferencesStore();
  PreferencesStore(const PreferencesStore&) = delete;
  PreferencesStore& operator=(const PreferencesStore&) = delete;

  /// The value stored under key, if any.
  std::optional<nlohmann::json> get(const std::string& key);
  /// Stores the value under key, durably; false when the store could not write it. A value
  /// equal to the stored one writes nothing.
  bool set(const std::string& key, const nlohmann::json& value);
  /// Removes the key; false when the store could not write.
  bool remove(const std::string& key);
  /// True when the store file is open.
  bool isOpen() const { return db_ != nullptr; }

 private:
  std::unique_ptr<SqliteDatabase> db_;  // safe from any thread on its own
};

}  // namespace jov::detail
