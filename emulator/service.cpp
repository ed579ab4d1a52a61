#include "service.hpp"

#include <chrono>

#include "api_error.hpp"
#include "token_store.hpp"

namespace jovemu {

std::int64_t Service::now() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

void Service::requireApp(const Call& call, const std::string& appID) const {
  auto headerID = call.header("X-Jov-AppID");
  auto headerKey = call.header("X-Jov-AppKey");
  if (!headerID || !headerKey || *headerID != appID || !apps.matches(appID, *headerKey)) {
    throw ApiError(404, "APP_NOT_FOUND", "The application was not found or its key is wrong");
  }
}

UserRow Service::requireUser(const Call& call, Connection& conn, const std::string& appID) const {
  auto token = call.bearerToken();
  if (!token) throw ApiError(401, "UNAUTHORIZED", "An access token is required");
  auto check = checkAccessToken(conn, appID, *token, now());
  if (check.state == TokenState::Expired) {
    throw ApiError(401, "UNAUTHORIZED", "The access token has expired");
  }
  std::optional<UserRow> user;
  if (check.state == TokenState::Valid) user = findUser(conn, appID, check.userID);
  if (!user) throw ApiError(403, "WRONG_TOKEN", "The provided token is not valid");
  return *user;
}

void addApiRoute(Router& router, const Service& service, std::string method, std::string_view path,
                 ApiHandler handler) {
  router.add(std::move(method), "/api/apps/{}" + std::string(path),
             [&service, handler = std::move(handler)](Call& call) {
               const std::string& appID = call.param(0);
               service.requireApp(call, appID);
               handler(call, appID);
             });
}

UserRow resolveUserPath(Connection& conn, const std::string& appID, const std::string& segment,
                        const UserRow& caller) {
  if (segment == "me" || segment == caller.userID) return caller;
  auto user = findByIdentifier(conn, appID, segment);
  if (!user) throw userNotFound();
  return *user;
}

UserRow requireSelf(Connection& conn, const std::string& appID, const std::string& segment,
                    const UserRow& caller) {
  auto user = resolveUserPath(conn, appID, segment, caller);
  if (user.userID != caller.userID) throw forbidden("Only the user itself may do this");
  return user;
}

void addAllRoutes(Router& router, Service& service) {
  addAuthRoutes(router, service);
  addUserRoutes(router, service);
  addPasswordRoutes(router, service);
  addAddressRoutes(router, service);
  addGroupRoutes(router, service);
  addObjectRoutes(router, service);
  addBucketRoutes(router, service);
  addAclRoutes(router, service);
  addServerCodeRoutes(router, service);
  addPushRoutes(router, service);
  addEmulatorRoutes(router, service);
  addSocialRoutes(router, service);
  addThingRoutes(router, service);
  addBodyRoutes(router, service);
  addSocialBrowserRoutes(router, service);
}

}  // namespace jovemu
