// Server code from an application: a user runs two entries of the application's JavaScript
// (see server_code.js, which the demo's emulator deploys at start) and reads their results.
//
//   usage: server_code BASE_URL APP_ID APP_KEY DATA_DIR

#include "jov/server_code.hpp"

#include <chrono>
#include <iostream>
#include <string>

#include "jov/application.hpp"
#include "jov/user.hpp"

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: server_code BASE_URL APP_ID APP_KEY DATA_DIR\n";
    return 2;
  }
  using namespace jov;
  Jov::setDataDirectory(argv[4]);
  Jov::beginWithID(argv[2], argv[3], std::string(argv[1]));

  const std::string name =
      "coder" + std::to_string(std::chrono::system_clock::now().time_since_epoch().count());
  auto user = JovUser::userWithUsername(name, "pass1234");
  if (auto registered = user->performRegistrationSynchronous(); !registered) {
    std::cerr << "Could not register: " << registered.error().describe() << "\n";
    return 1;
  }

  auto run = [](const char* entryName, const nlohmann::json& argument) {
    auto entry = Jov::serverCodeEntry(entryName);
    auto result =
        entry->executeSynchronous(JovServerCodeEntryArgument::argumentWithDictionary(argument));
    if (!result) {
      std::cerr << "Could not run " << entryName << ": " << result.error().describe() << "\n";
      return false;
    }
    std::cout << entryName << argument.dump() << " returned "
              << result.value()->returnedValue["returnedValue"].dump() << " in "
              << result.value()->executedSteps << " steps (environment "
              << result.value()->environmentVersion << ").\n";
    return true;
  };
  if (!run("add", {{"a", 2}, {"b", 40}})) return 1;
  if (!run("keepNote", {{"text", "buy milk"}})) return 1;
  if (!run("keepNote", {{"text", "call Bob"}})) return 1;

  // An entry that does not exist is an error like any other.
  auto missing = Jov::serverCodeEntry("noSuchEntry")->executeSynchronous();
  std::cout << "noSuchEntry: " << (missing ? std::string("ran?") : missing.error().describe())
            << "\n";
  return missing ? 1 : 0;
}
