// Quickstart: register a user, log in, keep the session across launches, and watch an access
// token that is about to expire being refreshed before a request.
//
//   quickstart BASE_URL APP_ID APP_KEY DATA_DIR           first launch
//   quickstart BASE_URL APP_ID APP_KEY DATA_DIR restore   a later launch: no password needed
//
// Exits with status 1 on any failure.

#include <chrono>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <jov/application.hpp>
#include <jov/async.hpp>
#include <jov/credential_store.hpp>
#include <jov/user.hpp>
#include <jov/user_builder.hpp>
#include <random>
#include <string>

using namespace jov;
using namespace std::chrono_literals;

namespace {

[[noreturn]] void fail(const std::string& what, const std::optional<JovError>& error = {}) {
  std::cerr << "quickstart: " << what;
  if (error) std::cerr << ": " << error->describe();
  std::cerr << "\n";
  std::exit(1);
}

std::string timeText(std::optional<JovUser::TimePoint> t) {
  if (!t) return "(none)";
  std::time_t seconds = std::chrono::system_clock::to_time_t(*t);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &utc);
  return text;
}

long secondsLeft(const JovUser& user) {
  auto expiry = user.accessTokenExpiresAt();
  if (!expiry) return 0;
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::seconds>(*expiry - std::chrono::system_clock::now())
          .count());
}

// An authenticated request (reading the user's record). The library refreshes a token with
// less than about five minutes left before it sends the request.
void requestAndReport(const JovUser::Ptr& user) {
  const std::string before = user->accessToken();
  const long left = secondsLeft(*user);
  auto refreshed = user->refreshSynchronous();
  if (!refreshed) fail("the authenticated request failed", refreshed.error());
  if (user->accessToken() != before) {
    std::cout << "The access token had " << left
              << " s left, so it was refreshed before the request.\n"
              << "The new token is valid until " << timeText(user->accessTokenExpiresAt())
              << " and is stored for the next launch.\n";
  } else {
    std::cout << "The access token had " << left << " s left; it was sent as it was.\n";
  }
  std::cout << "The request succeeded: the service knows " << user->username() << ".\n";
}

void firstLaunch() {
  std::random_device random;
  const std::string name = "demo-" + std::to_string(random() % 1000000000u);
  const std::string password = "demo-pass-1234";

  // Registration with a completion block, delivered on the main queue.
  auto user = JovUserBuilder::builderWithUsername(name, password).build();
  std::optional<JovError> registrationError;
  user->performRegistration(
      [&](JovUser::Ptr, std::optional<JovError> error) { registrationError = std::move(error); });
  if (JovMainQueue::runUntil(1, 30s) != 1) fail("registration did not complete in time");
  if (registrationError) fail("registration failed", registrationError);
  std::cout << "Registered user " << name << " (ID " << user->userID() << ").\n";

  JovUser::logOut();
  std::cout << "Logged out; logged in: " << (JovUser::loggedIn() ? "yes" : "no") << ".\n";

  // Tokens requested from now on live 300 s: less than the refresh margin, so the next request
  // refreshes first (and every launch of this demo sees a refresh).
  Jov::setAccessTokenExpiration(300);
  std::cout << "This demo asks for tokens that live 300 s, less than the refresh margin.\n";
  auto login = JovUser::authenticateSynchronous(name, password);
  if (!login) fail("login failed", login.error());
  std::cout << "Logged in again as user ID " << login.value()->userID() << ".\n"
            << "The access token expires at " << timeText(login.value()->accessTokenExpiresAt())
            << ".\n";
  requestAndReport(login.value());
  std::cout << "The credentials stay stored; run again with \"restore\" to use them.\n";
}

void laterLaunch() {
  auto restored = JovUser::authenticateWithStoredCredentialsSynchronous();
  if (!restored) fail("no stored session could be restored", restored.error());
  std::cout << "Restored the session of " << restored.value()->username() << " (ID "
            << restored.value()->userID() << ") from the stored credentials, without a password.\n";
  Jov::setAccessTokenExpiration(300);
  requestAndReport(restored.value());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5 || argc > 6 || (argc == 6 && std::string(argv[5]) != "restore")) {
    std::cerr << "usage: quickstart BASE_URL APP_ID APP_KEY DATA_DIR [restore]\n";
    return 2;
  }
  Jov::setDataDirectory(argv[4]);
  Jov::beginWithID(argv[2], argv[3], std::string(argv[1]));
  // Applications usually leave the store to the library (the desktop's Secret Service when one
  // runs, else files); the demo keeps everything in DATA_DIR.
  JovKeyChainWrapper::useFileStore();

  if (argc == 6)
    laterLaunch();
  else
    firstLaunch();
  return 0;
}
