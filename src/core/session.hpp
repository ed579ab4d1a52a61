#pragma once
// The seam between request execution and the current user.
//
// JovRequest asks the current user to log in again after a local password change, to refresh
// an access token that is about to expire, for the bearer token to send, and to log out when
// the service answers 403 "WRONG_TOKEN". The users module implements these hooks and installs
// them; without hooks (no users module in use, or nobody logged in) requests go out anonymous.

#include <memory>
#include <optional>
#include <string>

#include "jov/detail/task.hpp"
#include "jov/error.hpp"

namespace jov {
class JovUser;
}

namespace jov::detail {

class SessionHooks {
 public:
  virtual ~SessionHooks() = default;
  /// When the current user changed its password locally, logs in again with the new one and
  /// clears the flag; a failed login gives 302. Not called for the login exchange itself.
  virtual Task<std::optional<JovError>> reloginIfPasswordChanged() = 0;
  /// Refreshes the current user's access token when it is about to expire; concurrent callers
  /// share one refresh.
  virtual Task<std::optional<JovError>> refreshTokenIfNeeded() = 0;
  /// Whether either of the two above may have work to do: a cheap look, so that a request that
  /// needs neither (nearly all) starts no routine for them.
  virtual bool mayRelogin() = 0;
  virtual bool mayRefreshToken() = 0;
  /// The current user's access token; empty when there is none.
  virtual std::string accessToken() = 0;
  /// Logs the current user out (the service no longer knows its token).
  virtual void logOut() = 0;
};

/// Installs the hooks (nullptr removes them). Safe from any thread.
void setSessionHooks(std::shared_ptr<SessionHooks> hooks);
/// The installed hooks, or nullptr.
std::shared_ptr<SessionHooks> sessionHooks();

/// Sets the current user and loads its scratch data (stored under userID) from the preferences
/// store; nullptr saves the scratch data of the previous user and drops it. Jov::setCurrentUser
/// (defined with the users module) calls this with the user's ID.
void setCurrentUser(std::shared_ptr<JovUser> user, const std::string& userID);

}  // namespace jov::detail
