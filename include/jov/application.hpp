#pragma once
/// @file
/// @brief Jov: the process-wide entry point (application ID and key, site, settings, current user).

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace jov {

class JovBucket;
class JovGroup;
class JovServerCodeEntry;
class JovThing;
class JovTopic;
template <class T>
struct JovListResult;
template <class T>
class Result;
class JovUser;
class JovURLRequestFactory;

namespace detail {
class SessionHooks;
void setCurrentUser(std::shared_ptr<JovUser> user, const std::string& userID);
void setSessionHooks(std::shared_ptr<SessionHooks> hooks);
std::shared_ptr<SessionHooks> sessionHooks();
}  // namespace detail

/// @brief The sites (regions) of the service.
enum JovSite : std::int32_t {
  JovSiteUS = 0,
  JovSiteJP = 1,
  JovSiteCN = 2,
  JovSiteSG = 3,
  JovSiteCN3 = 4,
  JovSiteEU = 5,
};

/// @brief When and how often an exchange that failed on the way is sent again (see
/// Jov::setRetryPolicy).
///
/// Only GET, HEAD, PUT and DELETE are retried, and only when no answer came (no connection, a
/// connection lost, no byte for the idle limit) or the answer was 502, 503 or 504. POST, PATCH
/// and requests carrying "X-HTTP-Method-Override" are never retried.
///
/// The n-th retry waits initialDelay * multiplier^(n-1), at most maxDelay, of which the
/// fraction `jitter` is drawn at random; the wait runs on the library's I/O thread, and
/// cancelling the operation ends it at once.
struct JovRetryPolicy {
  /// @brief Attempts in all, the first one included (1: never retry).
  int maxAttempts = 3;
  /// @brief The wait before the first retry.
  std::chrono::milliseconds initialDelay{200};
  /// @brief The longest wait between two attempts.
  std::chrono::milliseconds maxDelay{5000};
  /// @brief The factor by which the wait grows from one retry to the next.
  double multiplier = 2.0;
  /// @brief The part of each wait (0 to 1) drawn at random, so that clients do not retry in step.
  double jitter = 0.5;
  /// @brief No retry starts later than this after the first attempt started.
  std::chrono::milliseconds budget{30000};
};

/// @brief The process-wide singleton: begin it once, then use the rest of the library.
///
/// Every operation is static and forwards to the one instance; all of them are safe to call
/// from any thread.
class Jov {
 public:
  /// @brief The one instance behind the static operations; made on first use and never
  /// destroyed, so it stays valid while the process exits.
  static Jov& sharedInstance();
  Jov(const Jov&) = delete;
  Jov& operator=(const Jov&) = delete;

  /// @brief Begins with the US site.
  static void beginWithID(const std::string& appID, const std::string& appKey);
  /// @brief Begins with one of the six sites; an unknown site leaves no base URL.
  static void beginWithID(const std::string& appID, const std::string& appKey, JovSite site);
  /// @brief Begins with a base URL of the application's choosing (an emulator, a proxy).
  static void beginWithID(const std::string& appID, const std::string& appKey,
                          const std::string& customURL);

  /// @brief The application ID given to begin; empty before.
  static std::string appID();
  /// @brief The application key given to begin; empty before.
  static std::string appKey();
  /// @brief The application name (never set by begin; stays empty).
  static std::string appName();
  /// @brief The base URL requests are built on; empty before begin or for an unknown site.
  static std::string baseURL();
  /// @brief The per-application base URL for the six sites; empty for a custom server.
  static std::string jovAppsBaseURL();
  /// @brief The fixed base URL of a site, or nothing for a value outside the six sites.
  static std::optional<std::string> siteBaseURL(JovSite site);

  /// @brief The SDK version, "2.7.8".
  static std::string getSDKVersion();
  /// @brief The build number, "1".
  static std::string getBuildNumber();
  /// @brief The "X-Jov-SDK" header value: "sn=is;sv=VERSION;pv=OS_RELEASE".
  static std::string sdkClientInfo();

  /// @brief Sets the log level (see JovLogLevel).
  static void setLogLevel(std::int32_t level);
  /// @brief The log level; messages with a level not above it are printed.
  static std::int32_t logLevel();

  /// @brief Sets the requested access-token lifetime in seconds (0: the service's default).
  static void setAccessTokenExpiration(std::int64_t seconds);
  /// @brief The requested access-token lifetime in seconds.
  static std::int64_t accessTokenExpiration();

  /// @brief Stores the APNS development-mode flag (the notification types are kept too).
  static void enableAPNSWithDevelopmentMode(bool developmentMode, std::uint32_t notificationTypes);
  /// @brief Stores the device token as 64 lower-case hex digits; nothing clears it.
  static void setAPNSDeviceToken(const std::optional<std::vector<std::uint8_t>>& token);
  /// @brief The device token (64 lower-case hex digits), empty when none is set.
  static std::string deviceToken();
  /// @brief The APNS development-mode flag.
  static bool isDevelopmentMode();

  /// @brief The logged-in user, or nullptr.
  static std::shared_ptr<JovUser> currentUser();
  /// @brief Replaces the current user (nullptr logs nobody in); loads that user's scratch data.
  static void setCurrentUser(std::shared_ptr<JovUser> user);
  /// @brief Makes the library act as a thing that registered itself: while nobody is logged in,
  /// requests carry the thing's access token (a logged-in user's token comes first). nullptr
  /// stops acting as a thing. The choice is kept in memory only.
  static void setCurrentThing(std::shared_ptr<JovThing> thing);
  /// @brief The thing the library acts as, or nullptr.
  static std::shared_ptr<JovThing> currentThing();

  /// @brief A copy of the current user's scratch data (a JSON object).
  static nlohmann::json currentUserData();
  /// @brief Replaces the current user's scratch data in memory (saveCurrentUserData writes it).
  static void setCurrentUserData(nlohmann::json data);
  /// @brief Writes the current user's scratch data to the preferences store.
  static void saveCurrentUserData();
  /// @brief The scratch data stored under a key, stored as an empty object first when absent.
  static nlohmann::json userData(const std::string& key);

  /// @brief Sets the directory of the preferences and credential stores (before begin).
  static void setDataDirectory(const std::filesystem::path& directory);
  /// @brief The data directory: the one set, else $XDG_DATA_HOME/jov or ~/.local/share/jov.
  static std::filesystem::path dataDirectory();

  /// @brief Replaces the transport factory (tests plug in a fake; nullptr restores libcurl).
  static void setRequestFactory(std::shared_ptr<JovURLRequestFactory> factory);
  /// @brief The transport factory in use.
  static std::shared_ptr<JovURLRequestFactory> requestFactory();

  /// @brief Limit for establishing a connection (default 30 s).
  static void setConnectTimeout(std::chrono::milliseconds timeout);
  /// @brief The limit set by setConnectTimeout (30 s unless changed).
  static std::chrono::milliseconds connectTimeout();
  /// @brief A request that receives or sends no byte for this long fails with 201 (default 60 s).
  static void setIdleTimeout(std::chrono::milliseconds timeout);
  /// @brief The limit set by setIdleTimeout (60 s unless changed).
  static std::chrono::milliseconds idleTimeout();
  /// @brief A CA bundle to verify TLS peers with, instead of the system's; empty restores it.
  static void setCAFile(const std::filesystem::path& caFile);
  /// @brief The CA bundle set, empty for the system's.
  static std::filesystem::path caFile();

  /// @brief Retries exchanges that failed on the way by this policy; nothing (the default)
  /// sends every exchange once. See JovRetryPolicy for what is retried.
  ///
  /// @code
  /// jov::JovRetryPolicy policy;
  /// policy.maxAttempts = 4;
  /// jov::Jov::setRetryPolicy(policy);
  /// @endcode
  static void setRetryPolicy(std::optional<JovRetryPolicy> policy);
  /// @brief The retry policy set, or nothing when exchanges are sent once.
  static std::optional<JovRetryPolicy> retryPolicy();
  /// @brief The largest answer kept in memory, in bytes (default 16 MiB; 0: no limit). A larger
  /// answer fails with 202 after at most this many bytes were read. Bodies downloaded to a file
  /// are not limited.
  static void setMaxAnswerSize(std::size_t bytes);
  /// @brief The limit set by setMaxAnswerSize (16 MiB unless changed).
  static std::size_t maxAnswerSize();
  /// @brief Shows secrets in the request trace: by default the values of "Authorization",
  /// "X-Jov-AppKey" and of the JSON fields "password", "newPassword", "access_token",
  /// "refresh_token", "_accessToken" and "thingPassword" print as "***".
  static void setTraceSecrets(bool show);
  /// @brief True when the trace shows secrets (false unless set).
  static bool traceSecrets();

  /// @brief Number of worker threads for asynchronous operations (default 4; at least 1).
  static void setWorkerPoolSize(std::size_t threads);
  /// @brief Number of worker threads for asynchronous operations.
  static std::size_t workerPoolSize();

  /// @brief Does nothing; kept for applications written against the other SDKs.
  static void shutDown() {}

  /// @brief A new group with this name, created on the service by its first save.
  static std::shared_ptr<JovGroup> groupWithName(const std::string& name);
  /// @brief A new group whose members are added by its first save.
  static std::shared_ptr<JovGroup> groupWithName(
      const std::string& name, const std::vector<std::shared_ptr<JovUser>>& members);

  /// @brief The application-scope bucket of this name (nothing is fetched or created).
  static std::shared_ptr<JovBucket> bucketWithName(const std::string& name);
  /// @brief The application-scope encrypted bucket of this name.
  static std::shared_ptr<JovBucket> encryptedBucketWithName(const std::string& name);

  /// @brief The application's push topic of this name ("/topics/NAME"; nothing is fetched).
  static std::shared_ptr<JovTopic> topicWithName(const std::string& name);
  /// @brief One page of the application's topics, from the page the key names or from the
  /// first; see JovTopic::listTopicsSynchronous for the errors.
  static Result<JovListResult<std::shared_ptr<JovTopic>>> listTopicsSynchronous(
      std::optional<std::string> paginationKey = {});

  /// @brief The entry of this name at the "current" (latest) code version, with no
  /// runtime-environment version; the checks are those of the three-argument form.
  static std::shared_ptr<JovServerCodeEntry> serverCodeEntry(
      const std::optional<std::string>& entryName);
  /// @brief The entry of this name at a code version, with no runtime-environment version.
  static std::shared_ptr<JovServerCodeEntry> serverCodeEntry(
      const std::optional<std::string>& entryName, const std::optional<std::string>& version);
  /// @brief The entry of this name at a code version and a runtime-environment version (-1:
  /// none). Raises std::invalid_argument, checking in this order: no name "entryName must not
  /// nil"; no or empty version "version must not nil or empty string"; a name that is not a
  /// letter followed by letters, digits and "_": "entryName is invalid. Valid entryName pattern
  /// is [a-zA-Z][_a-zA-Z0-9]*$".
  static std::shared_ptr<JovServerCodeEntry> serverCodeEntry(
      const std::optional<std::string>& entryName, const std::optional<std::string>& version,
      int environmentVersion);

 private:
  Jov() = default;
  friend void detail::setCurrentUser(std::shared_ptr<JovUser>, const std::string&);
  friend void detail::setSessionHooks(std::shared_ptr<detail::SessionHooks>);
  friend std::shared_ptr<detail::SessionHooks> detail::sessionHooks();
  struct State;
  static State& state();
};

}  // namespace jov
