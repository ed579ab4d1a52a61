// Access control lists: entries, their subjects and actions, the local list, listing from the
// service and saving entry by entry.

#include "jov/acl.hpp"

#include <algorithm>
#include <stdexcept>

#include "core/exchange.hpp"
#include "jov/bucket.hpp"
#include "jov/encoding.hpp"
#include "jov/group.hpp"
#include "jov/logger.hpp"
#include "jov/object.hpp"
#include "jov/user.hpp"

namespace jov {

namespace {

constexpr const char* kActionNames[] = {"CREATE_OBJECTS_IN_BUCKET",     "QUERY_OBJECTS_IN_BUCKET",
                                        "DROP_BUCKET_WITH_ALL_CONTENT", "READ_OBJECTS_IN_BUCKET",
                                        "READ_EXISTING_OBJECT",         "WRITE_EXISTING_OBJECT",
                                        "READ_EXISTING_OBJECT",         "WRITE_EXISTING_OBJECT",
                                        "SUBSCRIBE_TO_TOPIC",           "SEND_MESSAGE_TO_TOPIC"};
constexpr const char* kAnonymous = "ANONYMOUS_USER";
constexpr const char* kAuthenticated = "ANY_AUTHENTICATED_USER";

// The action a name stands for (the first of the duplicated pairs).
std::optional<JovACLAction> actionNamed(const std::string& name) {
  for (int i = 0; i < 10; ++i)
    if (name == kActionNames[i]) return static_cast<JovACLAction>(i);
  return std::nullopt;
}

// A subject of a listing: {"userID": ...} or {"groupID": ...}. Things are not subjects this
// library can name yet: such an entry is skipped, with a log line.
std::optional<JovACLSubject> subjectOf(const nlohmann::json& record, bool& unreadable) {
  if (!record.is_object()) {
    unreadable = true;
    return std::nullopt;
  }
  if (auto user = jsonString(record, "userID"); user && !user->empty()) {
    if (*user == kAnonymous) return JovAnonymousUser{};
    if (*user == kAuthenticated) return JovAnyAuthenticatedUser{};
    return JovUser::userWithID(*user);
  }
  if (auto group = jsonString(record, "groupID"); group && !group->empty())
    return JovGroup::groupWithID(*group);
  if (record.contains("thingID")) {
    JOV_LOG(JovLogWarning, "An ACL entry of a thing is skipped: " + record.dump());
    return std::nullopt;
  }
  unreadable = true;
  return std::nullopt;
}

using detail::args;
using detail::Exchange;
using detail::onStatus;

constexpr detail::ErrorRule kACLErrors[] = {
    onStatus(401, JovError::codeUnauthorizedRequest()),
};
constexpr Exchange kList{JovMethodGet, "{+}", {.errors = kACLErrors}};
constexpr Exchange kGrant{JovMethodPut, "{+}/{}/{+}", {.errors = kACLErrors}};
constexpr Exchange kRevoke{JovMethodDelete, "{+}/{}/{+}", {.errors = kACLErrors}};

// The subject as a path segment: "UserID:ID" with the ID percent-encoded, the colon as it is.
std::string pathToken(const std::string& entity) {
  auto colon = entity.find(':');
  return entity.substr(0, colon + 1) + urlEncode(entity.substr(colon + 1));
}

}  // namespace

// ------------------------------------------------------------------ entries

JovACLEntry::JovACLEntry(JovACLSubject subject, JovACLAction action)
    : subject_(std::move(subject)), action_(action) {
  if (action < 0 || action > 9) throw std::invalid_argument("Invalid ACL action");
  const bool nullSubject = (std::holds_alternative<std::shared_ptr<JovUser>>(subject_) &&
                            !std::get<std::shared_ptr<JovUser>>(subject_)) ||
                           (std::holds_alternative<std::shared_ptr<JovGroup>>(subject_) &&
                            !std::get<std::shared_ptr<JovGroup>>(subject_));
  if (nullSubject) throw std::invalid_argument("Invalid ACL subject");
}

JovACLEntry::Ptr JovACLEntry::entryWithSubject(JovACLSubject subject, JovACLAction action) {
  return std::make_shared<JovACLEntry>(std::move(subject), action);
}

bool JovACLEntry::grant() const {
  std::lock_guard lock(mutex_);
  return grant_;
}
void JovACLEntry::setGrant(bool grant) {
  std::lock_guard lock(mutex_);
  grant_ = grant;
}
bool JovACLEntry::updated() const {
  std::lock_guard lock(mutex_);
  return updated_;
}

const char* JovACLEntry::actionName(JovACLAction action) {
  return action >= 0 && action <= 9 ? kActionNames[action] : "";
}

std::string JovACLEntry::entityString() const {
  struct Token {
    std::string operator()(const std::shared_ptr<JovUser>& u) const {
      return "UserID:" + u->userID();
    }
    std::string operator()(const std::shared_ptr<JovGroup>& g) const {
      return "GroupID:" + g->groupID();
    }
    std::string operator()(JovAnonymousUser) const { return std::string("UserID:") + kAnonymous; }
    std::string operator()(JovAnyAuthenticatedUser) const {
      return std::string("UserID:") + kAuthenticated;
    }
  };
  return std::visit(Token{}, subject_);
}

// ------------------------------------------------------------------ the list

JovACL::JovACL(Parent parent) : parent_(std::move(parent)) {
  const bool null = std::visit([](const auto& p) { return p == nullptr; }, parent_);
  if (null) throw std::invalid_argument("Invalid ACL parent");
}

std::optional<std::string> JovACL::aclPath() const {
  return std::visit([](const auto& p) { return p->aclPath(); }, parent_);
}

void JovACL::putACLEntry(const JovACLEntry::Ptr& entry) {
  if (!entry) return;
  std::lock_guard lock(mutex_);
  const auto same = [&](const JovACLEntry::Ptr& e) {
    return e == entry ||
           (e->action() == entry->action() && e->entityString() == entry->entityString() &&
            e->grant() == entry->grant());
  };
  if (std::none_of(entries_.begin(), entries_.end(), same)) entries_.push_back(entry);
}

void JovACL::removeACLEntry(const JovACLEntry::Ptr& entry) {
  std::lock_guard lock(mutex_);
  std::erase(entries_, entry);
}

JovACL::Entries JovACL::entries() const {
  std::lock_guard lock(mutex_);
  return entries_;
}

detail::Routine<JovACL::Entries> JovACL::listRoutine() {
  auto path = aclPath();
  JOV_CO_REQUIRE(path, JovError::codeInvalidObjects());
  auto answer = co_await detail::send(kList, args(*path));
  if (!answer) co_return answer.error();
  const nlohmann::json& list = answer->json;
  if (!list.is_object()) co_return detail::unreadableAnswer();
  Entries entries;
  for (const auto& [name, subjects] : list.items()) {
    auto action = actionNamed(name);
    if (!action || !subjects.is_array()) co_return detail::unreadableAnswer();
    for (const nlohmann::json& record : subjects) {
      bool unreadable = false;
      auto subject = subjectOf(record, unreadable);
      if (unreadable) co_return detail::unreadableAnswer();
      if (subject) entries.push_back(JovACLEntry::entryWithSubject(*subject, *action));
    }
  }
  co_return entries;
}

detail::Routine<JovACL::SaveOutcome> JovACL::saveRoutine() {
  SaveOutcome outcome;
  auto path = aclPath();
  if (!path) {
    outcome.error = JovError::errorWithCode(JovError::codeInvalidObjects());
    co_return outcome;
  }
  // Every pending entry is tried; each one that succeeds leaves the list.
  const Entries pending = entries();
  for (const JovACLEntry::Ptr& entry : pending) {
    if (entry->updated()) continue;
    const bool grant = entry->grant();
    auto sent = co_await detail::send(
        grant ? kGrant : kRevoke,
        args(*path, JovACLEntry::actionName(entry->action()), pathToken(entry->entityString())));
    if (!sent) {
      outcome.failed.push_back(entry);
      continue;
    }
    {
      std::lock_guard entryLock(entry->mutex_);
      entry->updated_ = true;
    }
    removeACLEntry(entry);
    outcome.succeeded.push_back(entry);
  }
  if (!outcome.failed.empty())
    outcome.error = JovError::errorWithCode(JovError::codePartialACLFailure());
  co_return outcome;
}

Result<void> JovACL::saveSynchronous(Entries& succeeded, Entries& failed) {
  auto outcome = detail::runSync(saveRoutine());
  if (!outcome) return outcome.error();  // a routine that threw
  succeeded = std::move(outcome.value().succeeded);
  failed = std::move(outcome.value().failed);
  if (outcome.value().error) return *outcome.value().error;
  return {};
}

void JovACL::save(SaveBlock block, JovCancellation cancel) {
  if (!block) block = [](Ptr, Entries, Entries, std::optional<JovError>) {};
  JovBlock<SaveOutcome> adapted = [block = std::move(block), acl = self()](
                                      SaveOutcome outcome, std::optional<JovError> error) {
    block(acl, std::move(outcome.succeeded), std::move(outcome.failed),
          error ? error : outcome.error);
  };
  detail::runBlock(self(), saveRoutine(), std::move(adapted), cancel);
}

void JovACL::save(JovCallback callback, JovCancellation cancel) {
  JovBlock<SaveOutcome> adapted = [callback = std::move(callback), acl = self()](
                                      SaveOutcome outcome, std::optional<JovError> error) {
    JovUtilities::callMethod(callback, acl, std::move(outcome.succeeded), std::move(outcome.failed),
                             error ? error : outcome.error);
  };
  detail::runBlock(self(), saveRoutine(), std::move(adapted), cancel);
}

// ------------------------------------------------------------------ parents

// The list holds its parent; the parent remembers the list only while someone holds it (no
// cycle), so that the entries put on it stay the same list's.
std::shared_ptr<JovACL> JovObject::objectACL() {
  std::lock_guard lock(mutex_);
  auto acl = acl_.lock();
  if (!acl) {
    acl = std::make_shared<JovACL>(JovACL::Parent(self()));
    acl_ = acl;
  }
  return acl;
}

std::shared_ptr<JovACL> JovBucket::bucketACL() {
  std::lock_guard lock(aclMutex_);
  auto acl = acl_.lock();
  if (!acl) {
    acl = std::make_shared<JovACL>(JovACL::Parent(self()));
    acl_ = acl;
  }
  return acl;
}

}  // namespace jov
