// The access-token refresh rule and the other session hooks requests call.
//
// A refresh is single-flight: requests that find the same token near expiry while a refresh is
// running wait for it and use its outcome instead of refreshing again (the service would
// otherwise see the same refresh token twice and may refuse the second use). A blocking request
// waits on a condition variable; an asynchronous one suspends and is resumed on a worker when
// the refresh ends, so no thread is held while it waits. The refresh itself runs on a worker: it
// stores the credentials.

#include "users/session_hooks.hpp"

#include <condition_variable>
#include <coroutine>
#include <mutex>
#include <vector>

#include "core/exchange.hpp"
#include "jov/application.hpp"
#include "jov/encoding.hpp"
#include "jov/logger.hpp"
#include "jov/thing.hpp"
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
  std::vector<std::coroutine_handle<>> suspended;  // asynchronous waiters
};

RefreshFlight& flight() {
  static auto* f = new RefreshFlight();  // leaked: workers may refresh during exit
  return *f;
}

// Waits, with the flight's mutex held by `lock`, until the running refresh ends. A blocking
// routine waits here; an asynchronous one suspends and gives the lock up.
struct AwaitRefresh {
  std::unique_lock<std::mutex>& lock;
  std::uint64_t generation;

  bool await_ready() const noexcept { return false; }
  template <class P>
  bool await_suspend(std::coroutine_handle<P> routine) {
    RefreshFlight& f = flight();
    ++f.waiters;
    f.changed.notify_all();
    if (!routine.promise().env->async) {
      f.changed.wait(lock, [&] { return f.generation != generation; });
      --f.waiters;
      return false;
    }
    f.suspended.push_back(routine);
    lock.unlock();
    return true;
  }
  void await_resume() {
    if (!lock.owns_lock()) {
      lock.lock();
      --flight().waiters;
    }
  }
};

bool nearExpiry(const JovUser& user) {
  if (user.refreshToken().empty()) return false;
  auto expiry = user.accessTokenExpiresAt();
  if (!expiry) return false;
  const double remaining =
      std::chrono::duration<double>(*expiry - std::chrono::system_clock::now()).count();
  return remaining < kRefreshThresholdSeconds;
}

constexpr Exchange kRefreshToken{JovMethodPost, "/oauth2/token", {.anonymous = true}};

Task<std::optional<JovError>> refreshNow(JovUser::Ptr user) {
  // It ends by storing the credentials, or by logging out.
  co_await mayBlock();
  auto exchanged = co_await refreshAccessTokenRoutine(user->refreshToken());
  if (!exchanged) {
    const JovError& error = exchanged.error();
    // Without a connection the token may still be good later: keep the user.
    if (error.domain() == JovError::kDomain &&
        error.code() == JovError::codeUnableToConnectToInternet())
      co_return error;
    // The service refused the refresh token; a 5xx is its own trouble, not the token's.
    const int status = error.jovHttpStatus();
    if (error.userInfo().contains("http_status") && (status < 500 || status > 599) &&
        Jov::currentUser() == user)
      JovUser::logOut();
    co_return mappedError(JovError::codeRefreshTokenFailed(), error);
  }

  const nlohmann::json& answer = exchanged.value();
  auto access = jsonString(answer, "access_token");
  if (!access || access->empty())
    co_return mappedError(JovError::codeRefreshTokenFailed(), unreadableAnswer());
  TimePoint expiry = distantFuture();
  if (auto it = answer.find("expires_in");
      it != answer.end() && it->is_number() && it->get<double>() != 0)
    expiry = expiryAfterSeconds(it->get<double>());
  UserAccess::setTokens(*user, *access, jsonString(answer, "refresh_token").value_or(""), expiry);

  if (Jov::currentUser() == user) {
    auto stored = storeCurrentUserInfoSynchronous();
    if (!stored) co_return mappedError(JovError::codeRefreshTokenFailed(), stored.error());
  }
  co_return std::nullopt;
}

class UserSessionHooks final : public SessionHooks {
 public:
  Task<std::optional<JovError>> reloginIfPasswordChanged() override {
    auto user = Jov::currentUser();
    // Only one request logs in again: the one that clears the flag.
    if (!user || !UserAccess::takePasswordChanged(*user)) co_return std::nullopt;
    auto login = co_await UserAccess::authenticate(*user);
    if (!login) co_return mappedError(JovError::codeUnableToAuthenticateUser(), login.error());
    co_return std::nullopt;
  }

  Task<std::optional<JovError>> refreshTokenIfNeeded() override {
    return refreshTokenIfNeedRoutine();
  }

  bool mayRelogin() override {
    auto user = Jov::currentUser();
    return user && UserAccess::passwordChanged(*user);
  }
  bool mayRefreshToken() override {
    auto user = Jov::currentUser();
    return user && nearExpiry(*user);
  }

  // The current user's token; with nobody logged in, that of the thing the library acts as.
  std::string accessToken() override {
    if (auto user = Jov::currentUser()) return user->accessToken();
    auto thing = Jov::currentThing();
    return thing ? thing->accessToken() : std::string();
  }

  void logOut() override { JovUser::logOut(); }
};

}  // namespace

std::shared_ptr<SessionHooks> userSessionHooks() {
  static auto hooks = std::make_shared<UserSessionHooks>();
  return hooks;
}

Routine<nlohmann::json> refreshAccessTokenRoutine(std::string refreshToken) {
  if (refreshToken.empty()) co_return JovError::errorWithCode(JovError::codeNonRefreshToken());
  nlohmann::json body = {{"grant_type", "refresh_token"}, {"refresh_token", refreshToken}};
  if (auto expiresAt = requestedTokenExpiry()) body["expiresAt"] = *expiresAt;
  auto answer = co_await send(kRefreshToken, args().json(std::move(body)));
  if (!answer) co_return answer.error();
  if (!answer->json.is_object()) co_return unreadableAnswer();
  co_return std::move(answer->json);
}

Task<std::optional<JovError>> refreshTokenIfNeedRoutine() {
  auto user = Jov::currentUser();
  if (!user || !nearExpiry(*user)) co_return std::nullopt;

  const bool blockingOnIoThread = !(co_await CurrentEnv{}).async && onIoThread();
  RefreshFlight& f = flight();
  std::unique_lock lock(f.mutex);
  // A blocking request made on the I/O thread (from a completion an executor ran there) cannot
  // wait for a refresh that needs that thread: it goes out with the token it has, which is near
  // its expiry, not past it.
  if (f.running && blockingOnIoThread) co_return std::nullopt;
  while (f.running) {
    // The running refresh replaces the token this request would send: wait for its outcome.
    const bool same = f.user.lock() == user && f.fromToken == user->accessToken();
    co_await AwaitRefresh{lock, f.generation};
    if (same) co_return f.outcome;
  }
  // No refresh runs while we hold the lock, so this check is not stale.
  if (Jov::currentUser() != user || !nearExpiry(*user)) co_return std::nullopt;

  f.running = true;
  f.user = user;
  f.fromToken = user->accessToken();
  lock.unlock();
  std::optional<JovError> outcome;
  try {
    outcome = co_await refreshNow(user);
  } catch (const std::exception& e) {
    // Waiters must not wait for a refresh that never ends.
    outcome = JovError::errorWithCode(JovError::codeRefreshTokenFailed(), {{"details", e.what()}});
  }
  lock.lock();
  f.running = false;
  f.outcome = outcome;
  ++f.generation;
  std::vector<std::coroutine_handle<>> waiting;
  waiting.swap(f.suspended);
  f.changed.notify_all();
  lock.unlock();
  for (auto handle : waiting) resumeOnWorker(handle);
  co_return outcome;
}

bool waitForRefreshWaiters(int count, std::chrono::milliseconds limit) {
  RefreshFlight& f = flight();
  std::unique_lock lock(f.mutex);
  return f.changed.wait_for(lock, limit, [&] { return f.waiters >= count; });
}

}  // namespace jov::detail
