#include "server_code_store.hpp"

#include <charconv>

namespace jovemu {

std::int64_t deployServerCode(Connection& conn, const std::string& appID, const std::string& script,
                              std::int64_t nowMs, std::optional<std::int64_t> requested) {
  std::int64_t next = 1;
  {
    auto last = conn.prepare("SELECT MAX(version) FROM server_code WHERE app_id = ?");
    last.bind(1, appID);
    if (last.step() && !last.isNull(0)) next = last.integer(0) + 1;
  }
  if (requested) {
    if (*requested < next) return 0;
    next = *requested;
  }
  conn.prepare("INSERT INTO server_code (app_id, version, script, created) VALUES (?, ?, ?, ?)")
      .bind(1, appID)
      .bind(2, next)
      .bind(3, script)
      .bind(4, nowMs)
      .run();
  return next;
}

std::optional<ServerCodeVersion> findServerCode(Connection& conn, const std::string& appID,
                                                const std::string& version) {
  std::int64_t number = 0;
  bool current = version == "current";
  if (!current) {
    // Digits only: "+1", " 1" or "01x" name no version.
    auto end = version.data() + version.size();
    auto [at, error] = std::from_chars(version.data(), end, number);
    if (version.empty() || version[0] == '+' || version[0] == '-' || error != std::errc() ||
        at != end) {
      return std::nullopt;
    }
  }
  auto query = conn.prepare(
      current
          ? "SELECT version, created, script FROM server_code WHERE app_id = ? "
            "ORDER BY version DESC LIMIT 1"
          : "SELECT version, created, script FROM server_code WHERE app_id = ? AND version = ?");
  query.bind(1, appID);
  if (!current) query.bind(2, number);
  if (!query.step()) return std::nullopt;
  return ServerCodeVersion{query.integer(0), query.integer(1), query.textOr(2)};
}

std::vector<ServerCodeVersion> listServerCode(Connection& conn, const std::string& appID) {
  auto query =
      conn.prepare("SELECT version, created FROM server_code WHERE app_id = ? ORDER BY version");
  query.bind(1, appID);
  std::vector<ServerCodeVersion> out;
  while (query.step()) out.push_back({query.integer(0), query.integer(1), {}});
  return out;
}

}  // namespace jovemu
