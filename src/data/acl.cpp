// Access control lists: entries with their subjects and actions, the local list of a bucket or
// an object and its parent. The exchanges and routines are in acl_exchanges.cpp.

#include "jov/acl.hpp"

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "jov/bucket.hpp"
#include "jov/group.hpp"
#include "jov/object.hpp"
#include "jov/thing.hpp"
#include "jov/topic.hpp"
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

}  // namespace

// ------------------------------------------------------------------ entries

JovACLEntry::JovACLEntry(JovACLSubject subject, JovACLAction action)
    : subject_(std::move(subject)), action_(action) {
  if (action < 0 || action > 9) throw std::invalid_argument("Invalid ACL action");
  const bool nullSubject = std::visit(
      [](const auto& s) {
        if constexpr (std::is_same_v<std::decay_t<decltype(s)>, JovAnonymousUser> ||
                      std::is_same_v<std::decay_t<decltype(s)>, JovAnyAuthenticatedUser>) {
          return false;
        } else {
          return s == nullptr;
        }
      },
      subject_);
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
    std::string operator()(const std::shared_ptr<JovThing>& t) const {
      return "ThingID:" + t->thingID();
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
  // Equal entries are those that would send the same request: 6 and 7 are 4 and 5 again.
  const auto same = [&](const JovACLEntry::Ptr& e) {
    return e == entry ||
           (std::string_view(JovACLEntry::actionName(e->action())) ==
                JovACLEntry::actionName(entry->action()) &&
            e->entityString() == entry->entityString() && e->grant() == entry->grant());
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

JovACL::Entries JovACL::claimPending() {
  std::lock_guard lock(mutex_);
  Entries claimed;
  for (const auto& entry : entries_) {
    if (entry->updated() || sending_.contains(entry.get())) continue;
    sending_.insert(entry.get());
    claimed.push_back(entry);
  }
  return claimed;
}

void JovACL::releaseClaimed(const Entries& claimed) {
  std::lock_guard lock(mutex_);
  for (const auto& entry : claimed) sending_.erase(entry.get());
}

void JovACL::markSaved(const JovACLEntry::Ptr& entry) {
  {
    std::lock_guard entryLock(entry->mutex_);
    entry->updated_ = true;
  }
  removeACLEntry(entry);
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

// A topic's list is made anew on each call: a topic keeps no state of its own.
std::shared_ptr<JovACL> JovTopic::topicACL() {
  return std::make_shared<JovACL>(JovACL::Parent(self()));
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
