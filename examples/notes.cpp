// Objects, queries and access control in a few lines: Alice keeps notes in her own bucket,
// queries and counts them, and shares one with Bob, who can read it only once she has.
//
//   usage: notes BASE_URL APP_ID APP_KEY DATA_DIR

#include <chrono>
#include <iostream>
#include <string>

#include "jov/acl.hpp"
#include "jov/application.hpp"
#include "jov/bucket.hpp"
#include "jov/user.hpp"

namespace {

template <class R>
bool check(const R& result, const std::string& what) {
  if (result.ok()) return true;
  std::cerr << "Could not " << what << ": " << result.error().describe() << "\n";
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: notes BASE_URL APP_ID APP_KEY DATA_DIR\n";
    return 2;
  }
  using namespace jov;
  Jov::setDataDirectory(argv[4]);
  Jov::beginWithID(argv[2], argv[3], std::string(argv[1]));
  const std::string suffix = std::to_string(std::chrono::system_clock::now().time_since_epoch() /
                                            std::chrono::milliseconds(1));
  auto bob = JovUser::userWithUsername("bob" + suffix, "pass1234");
  auto alice = JovUser::userWithUsername("alice" + suffix, "pass1234");
  if (!check(bob->performRegistrationSynchronous(), "register Bob")) return 1;
  if (!check(alice->performRegistrationSynchronous(), "register Alice")) return 1;

  auto notes = alice->bucketWithName("notes");
  std::shared_ptr<JovObject> shared;
  for (auto [text, priority] : {std::pair{"buy milk", 2}, {"call Bob", 5}, {"water plants", 1}}) {
    auto note = notes->createObject();
    note->setObject(text, "text");
    note->setObject(priority, "priority");
    if (!check(note->saveSynchronous(), "save a note")) return 1;
    if (priority == 5) shared = note;
  }
  std::cout << "Alice saved 3 notes in " << *notes->bucketURI() << ".\n";

  // Two copies of one note: the first save wins; the second, made from the older version, is
  // refused instead of overwriting it.
  auto mine = JovObject::objectWithURI(*shared->objectURI());
  auto stale = JovObject::objectWithURI(*shared->objectURI());
  if (!check(mine->refreshSynchronous(), "load a copy") ||
      !check(stale->refreshSynchronous(), "load another copy")) {
    return 1;
  }
  mine->setObject(6, "priority");
  if (!check(mine->saveSynchronous(false), "save the first copy")) return 1;
  stale->setObject(1, "priority");
  auto refused = stale->saveSynchronous(false);
  std::cout << "A copy saved over a newer version: "
            << (refused.ok() ? std::string("accepted") : refused.error().describe()) << "\n";
  if (refused.ok()) return 1;

  JovQuery urgent(JovClause::greaterThanOrEqual("priority", 2));
  urgent.sortByDesc("priority");
  auto page = notes->executeQuerySynchronous(urgent);
  if (!check(page, "query the notes")) return 1;
  std::cout << "Notes of priority 2 or more, most urgent first:";
  for (const auto& note : std::get<0>(page.value()))
    std::cout << " \"" << note->getObjectForKey("text")->get<std::string>() << "\"";
  auto count = notes->countSynchronous();
  if (!check(count, "count the notes")) return 1;
  std::cout << "\nAlice has " << count.value() << " notes.\n";

  // A second copy of the note, as Bob would make it from its URI.
  auto asBob = [&] {
    if (!JovUser::authenticateSynchronous(bob->username(), "pass1234").ok()) return false;
    return JovObject::objectWithURI(*shared->objectURI())->refreshSynchronous().ok();
  };
  std::cout << "Bob reads \"call Bob\" before Alice shares it: "
            << (asBob() ? "allowed" : "refused") << ".\n";
  if (!check(JovUser::authenticateSynchronous(alice->username(), "pass1234"), "log Alice in"))
    return 1;
  auto acl = shared->objectACL();
  acl->putACLEntry(JovACLEntry::entryWithSubject(bob, JovACLActionReadExistingObject));
  if (!check(acl->saveSynchronous(), "share the note")) return 1;
  const bool allowed = asBob();
  std::cout << "After Alice grants READ_EXISTING_OBJECT: " << (allowed ? "allowed" : "refused")
            << ".\n";
  return allowed ? 0 : 1;
}
