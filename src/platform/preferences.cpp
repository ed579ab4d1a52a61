#include "platform/preferences.hpp"

#include <array>
#include <string_view>
#include <system_error>

#include "core/sqlite.hpp"
#include "jov/logger.hpp"

namespace jov::detail {

namespace {

// Schema steps by version; files made before the version was kept already hold step 1.
constexpr std::array<std::string_view, 1> kSchema = {
    "CREATE TABLE IF NOT EXISTS preferences (key TEXT PRIMARY KEY, value TEXT NOT NULL);",
};

}  // namespace

PreferencesStore::PreferencesStore(const std::filesystem::path& file) {
  std::error_code ec;
  std::filesystem::create_directories(file.parent_path(), ec);
  try {
    auto db = std::make_unique<SqliteDatabase>(file);
    db->migrate(kSchema);
    db_ = std::move(db);
  } catch (const SqliteError& e) {
    JOV_LOG(JovLogError, "Unable to open the preferences store " + file.string() + ": " + e.what());
  }
}

PreferencesStore::~PreferencesStore() = default;

std::optional<nlohmann::json> PreferencesStore::get(const std::string& key) {
  if (!db_) return std::nullopt;
  std::string text;
  try {
    auto s = db_->prepare("SELECT value FROM preferences WHERE key = ?1");
    s.bind(1, key);
    if (!s.step()) return std::nullopt;
    text = s.columnText(0);
  } catch (const SqliteError& e) {
    JOV_LOG(JovLogWarning, "Unable to read the preference " + key + ": " + e.what());
    return std::nullopt;
  }
  auto parsed = nlohmann::json::parse(text, nullptr, false);
  if (parsed.is_discarded()) return std::nullopt;
  return parsed;
}

bool PreferencesStore::set(const std::string& key, const nlohmann::json& value) {
  if (!db_) return false;
  const std::string text = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  try {
    // An unchanged value leaves the row, and so the file, as it is.
    auto s = db_->prepare(
        "INSERT INTO preferences (key, value) VALUES (?1, ?2) ON CONFLICT (key) DO UPDATE"
        " SET value = excluded.value WHERE value IS NOT excluded.value");
    s.bind(1, key).bind(2, text);
    s.step();
    return true;
  } catch (const SqliteError& e) {
    JOV_LOG(JovLogWarning, "Unable to write the preference " + key + ": " + e.what());
    return false;
  }
}

bool PreferencesStore::remove(const std::string& key) {
  if (!db_) return false;
  try {
    auto s = db_->prepare("DELETE FROM preferences WHERE key = ?1");
    s.bind(1, key);
    s.step();
    return true;
  } catch (const SqliteError& e) {
    JOV_LOG(JovLogWarning, "Unable to remove the preference " + key + ": " + e.what());
    return false;
  }
}

}  // namespace jov::detail
