// Groups in a few lines: two users, a group owned by the first with the second as a member, the
// members and the owner's groups printed, then the group deleted.
//
//   usage: groups BASE_URL APP_ID APP_KEY DATA_DIR

#include <chrono>
#include <iostream>
#include <string>

#include "jov/application.hpp"
#include "jov/group.hpp"
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
    std::cerr << "usage: groups BASE_URL APP_ID APP_KEY DATA_DIR\n";
    return 2;
  }
  using namespace jov;
  Jov::setDataDirectory(argv[4]);
  Jov::beginWithID(argv[2], argv[3], std::string(argv[1]));

  // Unique names, so that the example can run again on the same application.
  const std::string suffix = std::to_string(std::chrono::system_clock::now().time_since_epoch() /
                                            std::chrono::milliseconds(1));
  auto bob = JovUser::userWithUsername("bob" + suffix, "pass1234");
  auto alice = JovUser::userWithUsername("alice" + suffix, "pass1234");
  // Registering logs the user in: alice, registered last, owns what follows.
  if (!check(bob->performRegistrationSynchronous(), "register " + bob->username())) return 1;
  if (!check(alice->performRegistrationSynchronous(), "register " + alice->username())) return 1;
  std::cout << "Registered " << bob->username() << " and " << alice->username() << ".\n";

  auto group = Jov::groupWithName("Hiking club");
  group->addUser(bob);
  if (!check(group->saveSynchronous(), "create the group")) return 1;
  std::cout << alice->username() << " created the group \"" << group->name() << "\" ("
            << group->groupID() << ") and added " << bob->username() << ".\n";

  auto members = group->getMemberListSynchronous();
  if (!check(members, "list the members")) return 1;
  std::cout << "The group has " << members.value().size() << " members:";
  for (const auto& member : members.value()) {
    const std::string id = member->userID();
    std::cout << " "
              << (id == alice->userID() ? alice->username()
                  : id == bob->userID() ? bob->username()
                                        : id);
  }
  std::cout << ".\n";

  auto owned = alice->ownerOfGroupsSynchronous();
  if (!check(owned, "list the groups of " + alice->username())) return 1;
  std::cout << alice->username() << " owns " << owned.value().size() << " group(s):";
  for (const auto& g : owned.value()) std::cout << " \"" << g->name() << "\"";
  std::cout << ".\n";

  if (!check(group->deleteSynchronous(), "delete the group")) return 1;
  std::cout << "Deleted the group.\n";
  return 0;
}
