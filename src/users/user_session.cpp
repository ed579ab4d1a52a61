// The current user: making a user current, log-out, and the credentials kept across launches.

#include "core/session.hpp"
#include "jov/application.hpp"
#include "jov/credential_store.hpp"
#include "jov/logger.hpp"
#include "jov/social_connect.hpp"
#include "jov/user.hpp"
#include "platform/credential_write.hpp"
#include "users/session_hooks.hpp"
#include "users/user_internal.hpp"

namespace jov {

void Jov::setCurrentUser(std::shared_ptr<JovUser> user) {
  // Requests reach the current user through the session hooks; install them as soon as there
  // is one (they are harmless while nobody is logged in).
  if (user) detail::setSessionHooks(detail::userSessionHooks());
  std::string userID = user ? user->userID() : std::string();
  detail::setCurrentUser(std::move(user), userID);
}

JovUser::Ptr JovUser::currentUser() {
  return Jov::currentUser();
}

bool JovUser::loggedIn() {
  return Jov::currentUser() != nullptr;
}

void JovUser::logOut() {
  if (auto user = Jov::currentUser()) detail::UserAccess::setExpiresAt(*user, std::nullopt);
  Jov::setCurrentUser(nullptr);
  JovSocialConnect::sharedInstance().logOutAll();
  auto deleted = JovKeyChainWrapper::deleteFromKeychainWithService(
      JovKeyChainWrapper::kUserCredentialsService);
  if (!deleted && deleted.error().code() != JovError::codeNonKeychainItemFound())
    JOV_LOG(JovLogWarning,
            "Fail to delete stored credentials from keychain:" + deleted.error().describe());
}

Result<JovUser::Ptr> JovUser::authenticateWithStoredCredentialsSynchronous() {
  auto stored = detail::getStoredUserInfoSynchronous();
  if (!stored) return stored.error();
  JovSocialConnect::sharedInstance().resetAll();
  detail::makeCurrent(stored.value());
  return stored.value();
}

detail::Routine<JovUser::Ptr> JovUser::storedCredentialsRoutine() {
  co_await detail::mayBlock();
  co_return authenticateWithStoredCredentialsSynchronous();
}

namespace detail {

void makeCurrent(const JovUser::Ptr& user) {
  Jov::setCurrentUser(user);
}

Result<void> storeCurrentUserInfoSynchronous() {
  auto user = Jov::currentUser();
  if (!user || user->userID().empty())
    return JovError::errorWithCode(JovError::codeInvalidObjects());
  return storeCredentialsIfChanged(*user, JovKeyChainWrapper::kUserCredentialsService);
}

void storeCurrentUserInfoOrLog() {
  auto stored = storeCurrentUserInfoSynchronous();
  if (!stored)
    JOV_LOG(JovLogWarning, "Unable to store the credentials: " + stored.error().describe());
}

Result<JovUser::Ptr> getStoredUserInfoSynchronous() {
  auto user =
      JovKeyChainWrapper::jovUserFromMatchingService(JovKeyChainWrapper::kUserCredentialsService);
  if (!user && user.error().code() == JovError::codeValidStoredUserNotFound()) {
    // A stale or foreign record would fail every launch; drop it.
    auto deleted = JovKeyChainWrapper::deleteFromKeychainWithService(
        JovKeyChainWrapper::kUserCredentialsService);
    if (!deleted)
      JOV_LOG(JovLogWarning,
              "Fail to delete stored credentials from keychain:" + deleted.error().describe());
  }
  return user;
}

}  // namespace detail

}  // namespace jov
