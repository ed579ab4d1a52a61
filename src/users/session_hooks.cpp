// The access-token refresh rule and the other session hooks requests call.
//
// A refresh is single-flight: requests on other threads that find the same token near expiry
// wait for the refresh in flight and use its outcome instead of refreshing again (the service
// would otherwise see the same refresh token twice and may refuse the second use).

#include "users/session_hooks.hpp"

#include <condition_variable>
#include <mutex>

#include "jov/application.hpp"
#include "jov/encoding.hpp"
#include "jov/logger.hpp"
#include "jov/user.hpp"
#include "users/user_internal.hpp"

namespace jov::detail {

namespace {

struct RefreshFlight {
  std::mutex mutex;
  std::condition_variable changed;
  bool running = false;
  std::uint64_t generation = 0;  // counts finished refreshes
  int waiters = 0;
  std::weak_ptr<JovUser> user;  // the refresh running, or the last one
  std::string fromToken;        // the access token it replaces
  std::optional<JovError> outcome;
};

RefreshFlight& flight() {
  static auto* f = new RefreshFlight();  // leaked: workers may refresh during exit
  return *f;
}

bool nearExpiry(const JovUser& user) {
  if (user.refreshToken().empty()) return false;
  auto expiry = user.accessTokenExpiresAt();
  if (!expiry) return false;
  const double remaining =
      std::chrono::duration<double>(*expiry - std::chrono::system_clock::now()).count();
  return remaining < kRefreshThresholdSeconds;
}

std::optional<JovError> refreshNow(const JovUser::Ptr& user) {
  auto exchanged = refreshAccessTokenSynchronous(user->refreshToken());
  if (!exchanged) {
    const JovError& error = exchanged.error();
    // Without a connection the token may still be good later: keep the user.
    if (error.domain() == JovError::kDomain &&
        error.code() == JovError::codeUnableToConnectToInternet())
      return error;
    // The service refused the refresh token; a 5xx is its own trouble, not the token's.
    const int status = error.jovHttpStatus();
    if (error.userInfo().contains("http_status") && (status < 500 || status > 599) &&
        Jov::currentUser() == user)
      JovUser::logOut();
    return mappedError(JovError::codeRefreshTokenFailed(), error);
  }

  const nlohmann::json& answer = exchanged.value();
  auto access = jsonString(answer, "access_token");
  if (!access || access->empty())
    return mappedError(JovError::codeRefreshTokenFailed(),
                       JovError::errorWithCode(JovError::codeUnableToParseResponse()));
  TimePoint expiry = distantFuture();
  if (auto it = answer.find("expires_in");
      it != answer.end() && it->is_number() && it->get<double>() != 0)
    expiry = expiryAfterSeconds(it->get<double>());
  UserAccess::setTokens(*user, *access, jsonString(answer, "refresh_token").value_or(""), expiry);

  if (Jov::currentUser() == user) {
    auto stored = storeCurrentUserInfoSynchronous();
    if (!stored) return mappedError(JovError::codeRefreshTokenFailed(), stored.error());
  }
  return std::nullopt;
}

class UserSessionHooks final : public SessionHooks {
 public:
  std::optional<JovError> reloginIfPasswordChanged() override {
    auto user = Jov::currentUser();
    // Checked before locking: the login below sends requests that come back here.
    if (!user || !user->passwordChanged()) return std::nullopt;
    std::lock_guard lock(reloginMutex_);
    if (!user->passwordChanged()) return std::nullopt;
    UserAccess::setPasswordChanged(*user, false);
    auto login = UserAccess::authenticate(*user);
    if (!login) return mappedError(JovError::codeUnableToAuthenticateUser(), login.error());
    return std::nullopt;
  }

  std::optional<JovError> refreshTokenIfNeeded() override { return refreshTokenIfNeed(); }

  std::string accessToken() override {
    auto user = Jov::currentUser();
    return user ? user->accessToken() : std::string();
  }

  void logOut() override { JovUser::logOut(); }

 private:
  std::mutex reloginMutex_;
};

}  // namespace

std::shared_ptr<SessionHooks> userSessionHooks() {
  static auto hooks = std::make_shared<UserSessionHooks>();
  return hooks;
}

std::optional<JovError> refreshTokenIfNeed() {
  auto user = Jov::currentUser();
  if (!user || !nearExpiry(*user)) return std::nullopt;

  RefreshFlight& f = flight();
  std::unique_lock lock(f.mutex);
  while (f.running) {
    // The running refresh replaces the token this request would send: wait for its outcome.
    const bool same = f.user.lock() == user && f.fromToken == user->accessToken();
    const auto generation = f.generation;
    ++f.waiters;
    f.changed.notify_all();
    f.changed.wait(lock, [&] { return f.generation != generation; });
    --f.waiters;
    if (same) return f.outcome;
  }
  // No refresh runs while we hold the lock, so this check is not stale.
  if (Jov::currentUser() != user || !nearExpiry(*user)) return std::nullopt;

  f.running = true;
  f.user = user;
  f.fromToken = user->accessToken();
  lock.unlock();
  std::optional<JovError> outcome;
  try {
    outcome = refreshNow(user);
  } catch (const std::exception& e) {
    // Waiters must not wait for a refresh that never ends.
    outcome = JovError::errorWithCode(JovError::codeRefreshTokenFailed(), {{"details", e.what()}});
  }
  lock.lock();
  f.running = false;
  f.outcome = outcome;
  ++f.generation;
  f.changed.notify_all();
  return outcome;
}

bool waitForRefreshWaiters(int count, std::chrono::milliseconds limit) {
  RefreshFlight& f = flight();
  std::unique_lock lock(f.mutex);
  return f.changed.wait_for(lock, limit, [&] { return f.waiters >= count; });
}

}  // namespace jov::detail
