// The emulator's own routes, for tests and demos: register applications at run time, clear an
// application's data, read and empty an application's outbox, and disable a user. They need no
// application key.
#include "api_error.hpp"
#include "outbox_store.hpp"
#include "push_store.hpp"
#include "service.hpp"
#include "store_dump.hpp"
#include "validation.hpp"

namespace jovemu {

namespace {

void requireKnownApp(const Service& service, const std::string& appID) {
  if (!service.apps.exists(appID)) {
    throw ApiError(404, "APP_NOT_FOUND", "The application was not found");
  }
}

}  // namespace

void addEmulatorRoutes(Router& router, Service& service) {
  router.add("POST", "/emulator/apps", [&service](Call& call) {
    auto body = call.jsonObject();
    auto appID = requiredString(body, "appID");
    auto appKey = requiredString(body, "appKey");
    if (!isValidAppID(appID)) {
      throw invalidInput("The application ID must be 1-64 of letters, digits, '.', '_' and '-'");
    }
    if (appKey.empty()) throw invalidInput("The application key must not be empty");
    // Registering again with the same key is not an error: scripts may run more than once.
    if (service.apps.registerApp(appID, appKey, false) == AppRegistry::Outcome::Conflict) {
      throw ApiError(409, "APP_ALREADY_EXISTS", "The application exists with another key");
    }
    call.reply(201, {{"appID", appID}});
  });

  // Back to a fresh application: every user, token, group and code goes; the application
  // stays registered with its key.
  router.add("DELETE", "/emulator/apps/{}", [&service](Call& call) {
    requireKnownApp(service, call.param(0));
    service.db.transaction([&](Connection& conn) { clearApplicationData(conn, call.param(0)); });
    call.replyNoContent();
  });

  router.add("GET", "/emulator/apps/{}/outbox", [&service](Call& call) {
    requireKnownApp(service, call.param(0));
    auto messages = service.db.transaction(
        [&](Connection& conn) { return outboxMessages(conn, call.param(0)); });
    call.reply(200, messages);
  });

  router.add("DELETE", "/emulator/apps/{}/outbox", [&service](Call& call) {
    requireKnownApp(service, call.param(0));
    service.db.transaction([&](Connection& conn) { clearOutbox(conn, call.param(0)); });
    call.replyNoContent();
  });

  // Every push the application's subscribers would have received, as each channel carries it.
  router.add("GET", "/emulator/apps/{}/push/outbox", [&service](Call& call) {
    requireKnownApp(service, call.param(0));
    auto deliveries =
        service.db.transaction([&](Connection& conn) { return pushOutbox(conn, call.param(0)); });
    call.reply(200, deliveries);
  });

  router.add("DELETE", "/emulator/apps/{}/push/outbox", [&service](Call& call) {
    requireKnownApp(service, call.param(0));
    service.db.transaction([&](Connection& conn) { clearPushOutbox(conn, call.param(0)); });
    call.replyNoContent();
  });

  // There is no service route to disable an account; tests need one to see a refused login.
  router.add("PUT", "/emulator/apps/{}/users/{}/disabled", [&service](Call& call) {
    requireKnownApp(service, call.param(0));
    auto body = call.jsonObject();
    auto disabled = body.find("disabled");
    if (disabled == body.end() || !disabled->is_boolean()) {
      throw invalidInput("There are validation errors: disabled - must be true or false");
    }
    service.db.transaction([&](Connection& conn) {
      auto user = findUser(conn, call.param(0), call.param(1));
      if (!user) throw userNotFound();
      user->disabled = disabled->get<bool>();
      user->modified = Service::now();
      updateUser(conn, *user);
    });
    call.replyNoContent();
  });
}

}  // namespace jovemu
