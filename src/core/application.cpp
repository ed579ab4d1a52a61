#include "jov/application.hpp"

#include <sys/utsname.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <shared_mutex>
#include <stdexcept>

#include "core/session.hpp"
#include "jov/error.hpp"
#include "jov/logger.hpp"
#include "jov/transport.hpp"
#include "platform/preferences.hpp"

namespace jov {

namespace {

// One API host per site, indexed by the site value.
constexpr const char* kSiteHosts[] = {
    "api-us.jovcloud.com", "api-jp.jovcloud.com", "api-cn.jovcloud.cn",
    "api-sg.jovcloud.com", "api-cn3.jovcloud.cn", "api-eu.jovcloud.com",
};
constexpr const char* kSiteCodes[] = {"us", "jp", "cn", "sg", "cn3", "eu"};
// The order in which a base URL's host is compared with the site hosts.
constexpr JovSite kHostMatchOrder[] = {JovSiteJP, JovSiteUS,  JovSiteCN,
                                       JovSiteSG, JovSiteCN3, JovSiteEU};
constexpr const char* kAppsDomain = "apps.jovcloud.com";

// The host of a URL ("https://user@host:port/path" gives "host"); empty when there is none.
std::string hostOf(const std::string& url) {
  auto scheme = url.find("://");
  if (scheme == std::string::npos) return {};
  auto start = scheme + 3;
  auto end = url.find_first_of("/?#", start);
  std::string authority = url.substr(start, end == std::string::npos ? end : end - start);
  if (auto at = authority.rfind('@'); at != std::string::npos) authority.erase(0, at + 1);
  if (!authority.empty() && authority.front() == '[') {
    auto close = authority.find(']');
    return close == std::string::npos ? std::string() : authority.substr(0, close + 1);
  }
  if (auto colon = authority.find(':'); colon != std::string::npos) authority.resize(colon);
  return authority;
}

std::filesystem::path defaultDataDirectory() {
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg)
    return std::filesystem::path(xdg) / "jov";
  if (const char* home = std::getenv("HOME"); home && *home)
    return std::filesystem::path(home) / ".local" / "share" / "jov";
  return std::filesystem::temp_directory_path() / "jov";
}

}  // namespace

struct Jov::State {
  mutable std::shared_mutex mutex;  // guards the fields below that are not atomic
  std::string appID, appKey, appName, baseURL, jovAppsBaseURL;
  std::string deviceToken;
  std::shared_ptr<JovUser> currentUser;
  std::string currentUserID;
  nlohmann::json currentUserData = nlohmann::json::object();
  std::filesystem::path dataDirectory;
  std::shared_ptr<JovURLRequestFactory> requestFactory;
  std::filesystem::path caFile;
  std::mutex preferencesMutex;
  std::shared_ptr<detail::PreferencesStore> preferences;  // opened on first use
  std::shared_ptr<detail::SessionHooks> sessionHooks;

  std::atomic<std::int32_t> logLevel{0};
  std::atomic<std::int64_t> accessTokenExpiration{0};
  std::atomic<bool> developmentMode{false};
  std::atomic<std::uint32_t> notificationTypes{0};
  std::atomic<std::int64_t> connectTimeoutMs{30000};
  std::atomic<std::int64_t> idleTimeoutMs{60000};
  std::atomic<std::size_t> workerPoolSize{4};

  std::mutex scratchMutex;  // the "lock on the singleton" of the scratch data

  // The preferences store of the data directory, opened on first use.
  std::shared_ptr<detail::PreferencesStore> prefs() {
    std::filesystem::path dir;
    {
      std::shared_lock lock(mutex);
      dir = dataDirectory.empty() ? defaultDataDirectory() : dataDirectory;
    }
    std::lock_guard lock(preferencesMutex);
    if (!preferences)
      preferences = std::make_shared<detail::PreferencesStore>(dir / "preferences.sqlite3");
    return preferences;
  }
};

// Leaked on purpose: worker threads may still use the singleton while the process exits.
Jov::State& Jov::state() {
  static auto* s = new State();
  return *s;
}

Jov& Jov::sharedInstance() {
  static auto* instance = new Jov();
  return *instance;
}

std::optional<std::string> Jov::siteBaseURL(JovSite site) {
  auto index = static_cast<std::int32_t>(site);
  if (index < 0 || index > 5) return std::nullopt;
  return std::string("https://") + kSiteHosts[index] + "/api";
}

void Jov::beginWithID(const std::string& appID, const std::string& appKey) {
  beginWithID(appID, appKey, JovSiteUS);
}

void Jov::beginWithID(const std::string& appID, const std::string& appKey, JovSite site) {
  beginWithID(appID, appKey, siteBaseURL(site).value_or(std::string()));
}

void Jov::beginWithID(const std::string& appID, const std::string& appKey,
                      const std::string& customURL) {
  auto factory = makeCurlRequestFactory();
  std::string host = hostOf(customURL);
  std::string appsURL;
  for (JovSite site : kHostMatchOrder) {
    if (!host.empty() && host == kSiteHosts[site]) {
      appsURL = "https://" + appID + "." + kSiteCodes[site] + "." + kAppsDomain + "/api";
      break;
    }
  }
  auto& s = state();
  std::unique_lock lock(s.mutex);
  s.appName.clear();
  s.appID = appID;
  s.appKey = appKey;
  s.baseURL = customURL;
  s.jovAppsBaseURL = appsURL;
  s.requestFactory = std::move(factory);
}

std::string Jov::appID() {
  std::shared_lock lock(state().mutex);
  return state().appID;
}
std::string Jov::appKey() {
  std::shared_lock lock(state().mutex);
  return state().appKey;
}
std::string Jov::appName() {
  std::shared_lock lock(state().mutex);
  return state().appName;
}
std::string Jov::baseURL() {
  std::shared_lock lock(state().mutex);
  return state().baseURL;
}
std::string Jov::jovAppsBaseURL() {
  std::shared_lock lock(state().mutex);
  return state().jovAppsBaseURL;
}

std::string Jov::getSDKVersion() {
  return "2.7.8";
}
std::string Jov::getBuildNumber() {
  return std::to_string(1);
}

std::string Jov::sdkClientInfo() {
  static const std::string info = [] {
    struct utsname name {};
    std::string release = uname(&name) == 0 ? name.release : "";
    return "sn=is;sv=" + getSDKVersion() + ";pv=" + release;
  }();
  return info;
}

void Jov::setLogLevel(std::int32_t level) {
  state().logLevel = level;
}
std::int32_t Jov::logLevel() {
  return state().logLevel;
}

void Jov::setAccessTokenExpiration(std::int64_t seconds) {
  if (seconds < 0) throw std::invalid_argument("expriresIn should be positive number");
  if (appID().empty())
    JovIllegalStateException::raiseJovInitializationIsNotCalled(
        "Jov initialization is not called.");
  state().accessTokenExpiration = seconds;
}

std::int64_t Jov::accessTokenExpiration() {
  if (appID().empty())
    JovIllegalStateException::raiseJovInitializationIsNotCalled(
        "Jov initialization is not called.");
  return state().accessTokenExpiration;
}

void Jov::enableAPNSWithDevelopmentMode(bool developmentMode, std::uint32_t notificationTypes) {
  state().developmentMode = developmentMode;
  state().notificationTypes = notificationTypes;
}

void Jov::setAPNSDeviceToken(const std::optional<std::vector<std::uint8_t>>& token) {
  std::string formatted;
  if (token) {
    if (token->size() < 32) throw std::invalid_argument("deviceToken must be at least 32 bytes");
    // Eight big-endian 32-bit words, each as eight lower-case hex digits.
    char buffer[65];
    const auto& b = *token;
    for (int word = 0; word < 8; ++word) {
      std::uint32_t v = (std::uint32_t{b[word * 4]} << 24) |
                        (std::uint32_t{b[word * 4 + 1]} << 16) |
                        (std::uint32_t{b[word * 4 + 2]} << 8) | std::uint32_t{b[word * 4 + 3]};
      std::snprintf(buffer + word * 8, 9, "%08x", v);
    }
    formatted.assign(buffer, 64);
  }
  std::unique_lock lock(state().mutex);
  state().deviceToken = std::move(formatted);
}

std::string Jov::deviceToken() {
  std::shared_lock lock(state().mutex);
  return state().deviceToken;
}

bool Jov::isDevelopmentMode() {
  return state().developmentMode;
}

std::shared_ptr<JovUser> Jov::currentUser() {
  std::shared_lock lock(state().mutex);
  return state().currentUser;
}

void detail::setCurrentUser(std::shared_ptr<JovUser> user, const std::string& userID) {
  auto& s = Jov::state();
  if (!user) {
    Jov::saveCurrentUserData();
    std::unique_lock lock(s.mutex);
    s.currentUser.reset();
    s.currentUserID.clear();
    std::lock_guard scratch(s.scratchMutex);
    s.currentUserData = nlohmann::json::object();
    return;
  }
  nlohmann::json data = userID.empty() ? nlohmann::json::object() : Jov::userData(userID);
  std::unique_lock lock(s.mutex);
  s.currentUser = std::move(user);
  s.currentUserID = userID;
  std::lock_guard scratch(s.scratchMutex);
  s.currentUserData = std::move(data);
}

nlohmann::json Jov::currentUserData() {
  std::lock_guard lock(state().scratchMutex);
  return state().currentUserData;
}

void Jov::setCurrentUserData(nlohmann::json data) {
  std::lock_guard lock(state().scratchMutex);
  state().currentUserData = data.is_object() ? std::move(data) : nlohmann::json::object();
}

void Jov::saveCurrentUserData() {
  auto& s = state();
  std::string userID;
  {
    std::shared_lock lock(s.mutex);
    userID = s.currentUserID;
  }
  auto prefs = s.prefs();  // before the scratch lock: prefs() takes the state lock
  std::lock_guard lock(s.scratchMutex);
  if (!s.currentUserData.is_object()) s.currentUserData = nlohmann::json::object();
  if (!userID.empty() && !prefs->set(userID, s.currentUserData))
    JOV_LOG(0, "Unable to save the scratch data of user " + userID);
}

nlohmann::json Jov::userData(const std::string& key) {
  auto prefs = state().prefs();
  if (auto stored = prefs->get(key); stored && stored->is_object()) return *stored;
  prefs->set(key, nlohmann::json::object());
  return nlohmann::json::object();
}

void Jov::setDataDirectory(const std::filesystem::path& directory) {
  auto& s = state();
  {
    std::unique_lock lock(s.mutex);
    s.dataDirectory = directory;
  }
  std::lock_guard lock(s.preferencesMutex);
  s.preferences.reset();  // reopened under the new directory on next use
}

std::filesystem::path Jov::dataDirectory() {
  std::shared_lock lock(state().mutex);
  return state().dataDirectory.empty() ? defaultDataDirectory() : state().dataDirectory;
}

void Jov::setRequestFactory(std::shared_ptr<JovURLRequestFactory> factory) {
  if (!factory) factory = makeCurlRequestFactory();
  std::unique_lock lock(state().mutex);
  state().requestFactory = std::move(factory);
}

std::shared_ptr<JovURLRequestFactory> Jov::requestFactory() {
  {
    std::shared_lock lock(state().mutex);
    if (state().requestFactory) return state().requestFactory;
  }
  auto factory = makeCurlRequestFactory();
  std::unique_lock lock(state().mutex);
  if (!state().requestFactory) state().requestFactory = std::move(factory);
  return state().requestFactory;
}

void Jov::setConnectTimeout(std::chrono::milliseconds timeout) {
  state().connectTimeoutMs = timeout.count();
}
std::chrono::milliseconds Jov::connectTimeout() {
  return std::chrono::milliseconds(state().connectTimeoutMs.load());
}
void Jov::setIdleTimeout(std::chrono::milliseconds timeout) {
  state().idleTimeoutMs = timeout.count();
}
std::chrono::milliseconds Jov::idleTimeout() {
  return std::chrono::milliseconds(state().idleTimeoutMs.load());
}
void Jov::setCAFile(const std::filesystem::path& caFile) {
  std::unique_lock lock(state().mutex);
  state().caFile = caFile;
}
std::filesystem::path Jov::caFile() {
  std::shared_lock lock(state().mutex);
  return state().caFile;
}

void Jov::setWorkerPoolSize(std::size_t threads) {
  state().workerPoolSize = threads ? threads : 1;
}
std::size_t Jov::workerPoolSize() {
  return state().workerPoolSize;
}

void detail::setSessionHooks(std::shared_ptr<SessionHooks> hooks) {
  std::unique_lock lock(Jov::state().mutex);
  Jov::state().sessionHooks = std::move(hooks);
}

std::shared_ptr<detail::SessionHooks> detail::sessionHooks() {
  std::shared_lock lock(Jov::state().mutex);
  return Jov::state().sessionHooks;
}

}  // namespace jov
