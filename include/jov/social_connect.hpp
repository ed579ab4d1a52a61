#pragma once
/// @file
/// @brief JovSocialConnect: login with a social network's token, and linking a social account
/// to the logged-in user.

#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "jov/async.hpp"
#include "jov/cancellation.hpp"
#include "jov/detail/forms.hpp"
#include "jov/detail/task.hpp"
#include "jov/result.hpp"
#include "jov/social_account.hpp"
#include "jov/user.hpp"

namespace jov {

/// @brief How a login in the browser reaches the person, and how long it waits for them.
struct JovBrowserLoginOptions {
  /// @brief Opens the authorization page; false when it could not. Empty: runs
  /// "xdg-open URL" (the desktop's default browser). A device without a browser can show
  /// the URL, or a QR code of it, and return true.
  std::function<bool(const std::string& url)> openURL;
  /// @brief How long the person has to sign in before the login gives up (320).
  std::chrono::seconds timeout{300};
};

/// @brief What a provider handed the application when the person signed in there.
///
/// Every provider gives an access token. OAuth 1.0a providers (Twitter) also give a token
/// secret, which the service needs to call the provider; OpenID Connect providers may give an
/// ID token, which the service checks instead of calling the provider.
struct JovSocialToken {
  std::string accessToken;  ///< @brief The provider's access token; never empty.
  std::string tokenSecret;  ///< @brief The OAuth 1.0a token secret; empty when none.
  std::string openIDToken;  ///< @brief The OpenID Connect ID token; empty when none.

  /// @brief Equal when the three texts are.
  bool operator==(const JovSocialToken&) const = default;
};

/// @brief One social network as the library knows it: its name at the service, what its
/// tokens need, and the provider session the library holds (the token last used to log in or
/// link with it).
class JovSocialNetworkConnector {
 public:
  /// @brief A connector of a network; JovSocialConnect makes one per network.
  explicit JovSocialNetworkConnector(JovSocialNetwork network);
  JovSocialNetworkConnector(const JovSocialNetworkConnector&) = delete;
  JovSocialNetworkConnector& operator=(const JovSocialNetworkConnector&) = delete;

  /// @brief The network.
  JovSocialNetwork network() const { return network_; }
  /// @brief The service's name of the network ("facebook", "twitter", ...).
  const std::string& providerName() const { return providerName_; }
  /// @brief Whether the network's tokens come with a token secret (OAuth 1.0a).
  bool requiresTokenSecret() const;

  /// @brief The token last used to log in or link with this network; nothing after a log-out.
  std::optional<JovSocialToken> session() const;
  /// @brief Whether a provider session is held.
  bool isLoggedIn() const { return session().has_value(); }
  /// @brief Forgets the provider session.
  void logOut();

 private:
  friend class JovSocialConnect;
  void setSession(JovSocialToken token);

  JovSocialNetwork network_;
  std::string providerName_;
  mutable std::mutex mutex_;
  std::optional<JovSocialToken> session_;
};

/// @brief Social network login and account linking, with a token the application obtained
/// from the provider (its own SDK, a device flow, a browser).
///
/// @code
/// jov::JovSocialToken token{.accessToken = facebookToken};
/// auto user = jov::JovSocialConnect::loginWithTokenSynchronous(jov::JovSocialNetworkFacebook,
///                                                             token);
/// // later, for the logged-in user:
/// jov::JovSocialConnect::linkWithTokenSynchronous(jov::JovSocialNetworkTwitter,
///                                                 {.accessToken = t, .tokenSecret = s});
/// @endcode
///
/// Log-out forgets every provider session (logOutAll); a login with stored credentials resets
/// them (resetAll).
class JovSocialConnect {
 public:
  /// @brief Blocks that receive the user (or nullptr) and the error.
  using UserBlock = JovUser::UserBlock;

  /// @brief The process-wide instance.
  static JovSocialConnect& sharedInstance();

  /// @brief The connector of a network. Raises JovIllegalStateException
  /// ("JovSocialNetwork Exception : ...") for a value that names no network.
  std::shared_ptr<JovSocialNetworkConnector> connector(JovSocialNetwork network);
  /// @brief Forgets every provider session: a stored-credential login starts from none.
  void resetAll();
  /// @brief Logs out of every network: JovUser::logOut calls it.
  void logOutAll();

  /// @name loginWithToken
  /// @{

  /// Logs in with a provider's token (POST "/oauth2/token" with the grant "social_token"): the
  /// service finds the user linked with that provider account, or creates one on first use. The
  /// user becomes current, its record is read (GET "/users/ID") and its credentials are stored;
  /// the connector keeps the token as its session.
  /// Raises std::invalid_argument: "accessToken must not nil or empty", and for a network that
  /// needs one "tokenSecret must not nil or empty"; JovIllegalStateException for an unknown
  /// network. Errors: 314 the application has no valid key for the network at the service; 317
  /// the provider refused the token; 321 the service could not complete the login with the
  /// provider; 302 the user is disabled; 202 unreadable answer. A failed login leaves nobody
  /// logged in.
  static Result<JovUser::Ptr> loginWithTokenSynchronous(JovSocialNetwork network,
                                                        const JovSocialToken& token) {
    return detail::runSync(loginRoutine(network, checkedToken(network, token)));
  }
  static void loginWithToken(JovSocialNetwork network, const JovSocialToken& token, UserBlock block,
                             JovCancellation cancel = {}) {
    detail::runClassBlock(loginRoutine(network, checkedToken(network, token)), std::move(block),
                          cancel);
  }
  static void loginWithToken(JovSocialNetwork network, const JovSocialToken& token,
                             JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(nullptr, loginRoutine(network, checkedToken(network, token)),
                        std::move(callback), cancel);
  }
  static std::future<Result<JovUser::Ptr>> loginWithTokenAsync(JovSocialNetwork network,
                                                               const JovSocialToken& token,
                                                               JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, loginRoutine(network, checkedToken(network, token)), cancel);
  }
  /// @}

  /// @name linkWithToken
  /// @{

  /// Links the provider account of a token to the logged-in user
  /// (PUT "/users/ID/third-party-accounts/PROVIDER"); the user's linked accounts are read from
  /// the answer and the connector keeps the token as its session.
  /// Raises as loginWithToken. Errors: 327 nobody is logged in; 318 the provider account is
  /// linked already (to this user or another); 314; 317; 202 unreadable answer (the user is
  /// then unchanged).
  static Result<JovUser::Ptr> linkWithTokenSynchronous(JovSocialNetwork network,
                                                       const JovSocialToken& token) {
    return detail::runSync(linkRoutine(network, checkedToken(network, token)));
  }
  static void linkWithToken(JovSocialNetwork network, const JovSocialToken& token, UserBlock block,
                            JovCancellation cancel = {}) {
    detail::runClassBlock(linkRoutine(network, checkedToken(network, token)), std::move(block),
                          cancel);
  }
  static void linkWithToken(JovSocialNetwork network, const JovSocialToken& token,
                            JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(nullptr, linkRoutine(network, checkedToken(network, token)),
                        std::move(callback), cancel);
  }
  static std::future<Result<JovUser::Ptr>> linkWithTokenAsync(JovSocialNetwork network,
                                                              const JovSocialToken& token,
                                                              JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, linkRoutine(network, checkedToken(network, token)), cancel);
  }
  /// @}

  /// @name unlink
  /// @{

  /// Unlinks the logged-in user's account of a network
  /// (DELETE "/users/ID/third-party-accounts/PROVIDER") and forgets that network's session.
  /// Raises JovIllegalStateException for an unknown network. Errors: 327 nobody is logged in;
  /// 319 no account of that network is linked; 202 unreadable answer.
  static Result<JovUser::Ptr> unlinkSynchronous(JovSocialNetwork network) {
    return detail::runSync(unlinkRoutine(checkedNetwork(network)));
  }
  static void unlink(JovSocialNetwork network, UserBlock block, JovCancellation cancel = {}) {
    detail::runClassBlock(unlinkRoutine(checkedNetwork(network)), std::move(block), cancel);
  }
  static void unlink(JovSocialNetwork network, JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(nullptr, unlinkRoutine(checkedNetwork(network)), std::move(callback),
                        cancel);
  }
  static std::future<Result<JovUser::Ptr>> unlinkAsync(JovSocialNetwork network,
                                                       JovCancellation cancel = {}) {
    return detail::runFuture(nullptr, unlinkRoutine(checkedNetwork(network)), cancel);
  }
  /// @}

  /// @name loginInBrowser
  /// @{

  /// Logs in through the system browser, the way native applications use OAuth: the library
  /// listens on a free loopback port (http://127.0.0.1:PORT/callback), opens the service's
  /// authorization page for the network (GET "/oauth2/authorize/PROVIDER" with the redirect
  /// URI, a random state and a PKCE S256 challenge), where the person signs in with the
  /// provider; the browser comes back to the loopback address with a one-time code, which is
  /// traded with its verifier for the user's tokens (POST "/oauth2/token", grant
  /// "authorization_code"). The login then completes as loginWithToken does: the user becomes
  /// current, its record is read, its credentials are stored.
  /// `options` say how the page is opened and how long the login waits.
  /// Raises JovIllegalStateException for an unknown network. Errors: 320 the person denied
  /// access, closed the page (the wait timed out) or the login was cancelled; 322 the page could
  /// not be opened or the service answered the browser with an error; 314 the application has
  /// no key for the network; 321 the service refused the code; 302 the user is disabled; and
  /// the errors of every exchange. A failed login leaves nobody logged in.
  static Result<JovUser::Ptr> loginInBrowserSynchronous(JovSocialNetwork network,
                                                        JovBrowserLoginOptions options = {}) {
    return detail::runSync(browserLoginRoutine(checkedNetwork(network), std::move(options)));
  }
  static void loginInBrowser(JovSocialNetwork network, JovBrowserLoginOptions options,
                             UserBlock block, JovCancellation cancel = {}) {
    detail::runClassBlock(browserLoginRoutine(checkedNetwork(network), std::move(options)),
                          std::move(block), cancel);
  }
  static void loginInBrowser(JovSocialNetwork network, JovBrowserLoginOptions options,
                             JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(nullptr, browserLoginRoutine(checkedNetwork(network), std::move(options)),
                        std::move(callback), cancel);
  }
  static std::future<Result<JovUser::Ptr>> loginInBrowserAsync(JovSocialNetwork network,
                                                               JovBrowserLoginOptions options = {},
                                                               JovCancellation cancel = {}) {
    return detail::runFuture(
        nullptr, browserLoginRoutine(checkedNetwork(network), std::move(options)), cancel);
  }
  /// @}

 private:
  JovSocialConnect() = default;

  static detail::Routine<JovUser::Ptr> browserLoginRoutine(JovSocialNetwork network,
                                                           JovBrowserLoginOptions options);
  // The end of every login: the user of a token answer becomes current, its record is read
  // and its credentials stored; the connector keeps the provider's token.
  static detail::Routine<JovUser::Ptr> completeLogin(JovSocialNetwork network,
                                                     nlohmann::json answer, JovSocialToken token);

  static detail::Routine<JovUser::Ptr> loginRoutine(JovSocialNetwork network, JovSocialToken token);
  static detail::Routine<JovUser::Ptr> linkRoutine(JovSocialNetwork network, JovSocialToken token);
  static detail::Routine<JovUser::Ptr> unlinkRoutine(JovSocialNetwork network);

  // Misuse checks of the public forms: they raise on the caller's thread.
  static JovSocialNetwork checkedNetwork(JovSocialNetwork network);
  static const JovSocialToken& checkedToken(JovSocialNetwork network, const JovSocialToken& token);

  std::mutex mutex_;
  std::map<JovSocialNetwork, std::shared_ptr<JovSocialNetworkConnector>> connectors_;
};

}  // namespace jov
