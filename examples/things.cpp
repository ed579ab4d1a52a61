// Things in a few lines: alice registers two devices (she owns what she registers), lets her
// family group own one, lists her sensors; then one device logs a reading in its own bucket,
// acting with its own access token.
//
//   usage: things BASE_URL APP_ID APP_KEY DATA_DIR

#include <chrono>
#include <iostream>
#include <string>

#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/group.hpp"
#include "jov/object.hpp"
#include "jov/thing.hpp"
#include "jov/user.hpp"

namespace {

// Prints what failed and why; true when the operation went through.
template <class R>
bool check(const R& result, const std::string& what) {
  if (result.ok()) return true;
  std::cerr << "Could not " << what << ": " << result.error().describe() << "\n";
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: things BASE_URL APP_ID APP_KEY DATA_DIR\n";
    return 2;
  }
  using namespace jov;
  Jov::setDataDirectory(argv[4]);
  Jov::beginWithID(argv[2], argv[3], std::string(argv[1]));

  const std::string suffix = std::to_string(std::chrono::system_clock::now().time_since_epoch() /
                                            std::chrono::milliseconds(1));
  auto bob = JovUser::userWithUsername("bob" + suffix, "pass1234");
  auto alice = JovUser::userWithUsername("alice" + suffix, "pass1234");
  if (!check(bob->performRegistrationSynchronous(), "register bob") ||
      !check(alice->performRegistrationSynchronous(), "register alice")) {
    return 1;
  }

  JovThingFields fields;
  fields.vendor = "acme";
  fields.firmwareVersion = "2.1";
  fields.setCustomField("room", "kitchen");
  auto thermostat =
      JovThing::registerThingSynchronous("thermo-" + suffix, "secret", "sensor", fields);
  auto lamp = JovThing::registerThingSynchronous("lamp-" + suffix, "secret", "lamp");
  if (!check(thermostat, "register the thermostat") || !check(lamp, "register the lamp")) return 1;
  std::cout << "alice registered " << thermostat.value()->thingID() << " (sensor) and "
            << lamp.value()->thingID() << " (lamp)\n";

  auto family = Jov::groupWithName("family", {bob});
  if (!check(family->saveSynchronous(), "create the family group") ||
      !check(thermostat.value()->registerOwnerSynchronous(family), "share the thermostat")) {
    return 1;
  }
  std::cout << "her family group owns the thermostat too\n";

  auto sensors = JovThingQuery::thingQuery(alice, std::nullopt);
  sensors.thingType = "sensor";
  auto found = JovThing::querySynchronous(sensors);
  if (!check(found, "list the sensors")) return 1;
  for (const auto& thing : found.value().results) {
    std::cout << "alice's sensor: " << thing->vendorThingID() << " in "
              << thing->fields().customFields().value("room", "?") << ", firmware "
              << thing->fields().firmwareVersion.value_or("?") << "\n";
  }

  // The device acts for itself: nobody logged in, its own token.
  JovUser::logOut();
  Jov::setCurrentThing(thermostat.value());
  auto reading = thermostat.value()->bucketWithName("readings")->createObject();
  reading->setObject(21.5, "celsius");
  if (!check(reading->saveSynchronous(), "log a reading")) return 1;
  std::cout << "the thermostat logged " << reading->objectURI().value_or("") << "\n";
  Jov::setCurrentThing(nullptr);

  // Bob, through the group, reads it.
  if (!check(JovUser::authenticateSynchronous("bob" + suffix, "pass1234"), "log bob in")) return 1;
  auto seen = JovObject::objectWithURI(reading->objectURI().value_or(""));
  if (!check(seen->refreshSynchronous(), "read the reading as bob")) return 1;
  std::cout << "bob reads it through his group: "
            << seen->getObjectForKey("celsius").value_or(nullptr).dump() << " celsius\n";
  JovUser::logOut();
  return 0;
}
