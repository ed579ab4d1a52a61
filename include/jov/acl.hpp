#pragma once
/// @file
/// @brief Access control lists of buckets and objects: JovACL and JovACLEntry.

#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "jov/async.hpp"
#include "jov/cancellation.hpp"
#include "jov/detail/forms.hpp"
#include "jov/result.hpp"

namespace jov {

class JovBucket;
class JovGroup;
class JovObject;
class JovThing;
class JovTopic;
class JovUser;

/// @brief Every user who has not logged in ("UserID:ANONYMOUS_USER").
struct JovAnonymousUser {
  /// @brief Always equal: there is one such subject.
  bool operator==(const JovAnonymousUser&) const = default;
};
/// @brief Every logged-in user ("UserID:ANY_AUTHENTICATED_USER").
struct JovAnyAuthenticatedUser {
  /// @brief Always equal: there is one such subject.
  bool operator==(const JovAnyAuthenticatedUser&) const = default;
};

/// @brief Who an entry grants to: a user, a group, a thing, or one of the two kinds of users.
using JovACLSubject = std::variant<std::shared_ptr<JovUser>, std::shared_ptr<JovGroup>,
                                   JovAnonymousUser, JovAnyAuthenticatedUser,
                                   std::shared_ptr<JovThing>>;

/// @brief What an entry grants. 6 and 7 send the names of 4 and 5.
enum JovACLAction : std::int32_t {
  JovACLActionCreateObjectsInBucket = 0,     ///< "CREATE_OBJECTS_IN_BUCKET" (bucket)
  JovACLActionQueryObjectsInBucket = 1,      ///< "QUERY_OBJECTS_IN_BUCKET" (bucket)
  JovACLActionDropBucketWithAllContent = 2,  ///< "DROP_BUCKET_WITH_ALL_CONTENT" (bucket)
  JovACLActionReadObjectsInBucket = 3,       ///< "READ_OBJECTS_IN_BUCKET" (bucket)
  JovACLActionReadExistingObject = 4,        ///< "READ_EXISTING_OBJECT" (object)
  JovACLActionWriteExistingObject = 5,       ///< "WRITE_EXISTING_OBJECT" (object)
  JovACLActionReadExistingObjectAlias = 6,   ///< "READ_EXISTING_OBJECT" again
  JovACLActionWriteExistingObjectAlias = 7,  ///< "WRITE_EXISTING_OBJECT" again
  JovACLActionSubscribeToTopic = 8,          ///< "SUBSCRIBE_TO_TOPIC" (topic)
  JovACLActionSendMessageToTopic = 9,        ///< "SEND_MESSAGE_TO_TOPIC" (topic)
};

/// @brief One grant (or, with grant false, one revocation) of an action to a subject.
class JovACLEntry {
 public:
  /// @brief Entries are shared between a list and the caller.
  using Ptr = std::shared_ptr<JovACLEntry>;
  /// @brief Raises std::invalid_argument for an action above 9 ("Invalid ACL action") or a null
  /// user or group ("Invalid ACL subject"). Grants by default.
  static Ptr entryWithSubject(JovACLSubject subject, JovACLAction action);
  /// @brief The checks of entryWithSubject.
  JovACLEntry(JovACLSubject subject, JovACLAction action);

  /// @brief Who the entry is about.
  const JovACLSubject& subject() const { return subject_; }
  /// @brief What the entry grants or revokes.
  JovACLAction action() const { return action_; }
  /// @brief True when the entry grants, false when it revokes.
  bool grant() const;
  /// @brief True grants, false revokes.
  void setGrant(bool grant);
  /// @brief True once saved.
  bool updated() const;
  /// @brief "UserID:ID", "GroupID:ID", "UserID:ANONYMOUS_USER" or "UserID:ANY_AUTHENTICATED_USER".
  std::string entityString() const;
  /// @brief The name the service knows the action by.
  static const char* actionName(JovACLAction action);

 private:
  friend class JovACL;
  JovACLSubject subject_;
  JovACLAction action_;
  mutable std::mutex mutex_;
  bool grant_ = true;
  bool updated_ = false;
};

/// @brief The access control list of a bucket, an object or a topic: listed from the service,
/// changed locally with putACLEntry / removeACLEntry, and saved entry by entry (PUT grants,
/// DELETE revokes). Made by JovObject::objectACL(), JovBucket::bucketACL() and
/// JovTopic::topicACL(); thread-safe.
class JovACL : public std::enable_shared_from_this<JovACL> {
 public:
  /// @brief Lists are held by std::shared_ptr.
  using Ptr = std::shared_ptr<JovACL>;
  /// @brief Entries in list order.
  using Entries = std::vector<JovACLEntry::Ptr>;
  /// @brief What a list belongs to: an object, a bucket or a topic; no other kind can be given.
  using Parent = std::variant<std::shared_ptr<JovObject>, std::shared_ptr<JovBucket>,
                              std::shared_ptr<JovTopic>>;
  /// @brief Listing blocks receive the list, the entries, then the error.
  using ListBlock = JovBlock<Ptr, Entries>;
  /// @brief Saving blocks receive the list, the entries saved, those that failed, the error.
  using SaveBlock = JovBlock<Ptr, Entries, Entries>;

  /// @brief Raises std::invalid_argument("Invalid ACL parent") for a null parent.
  explicit JovACL(Parent parent);

  /// @brief The list path, ".../acl" of the parent; nothing while the parent has no path.
  std::optional<std::string> aclPath() const;
  /// @brief Adds an entry to save, unless an equal one is there: the same subject, grant and
  /// action name (6 and 7 are equal to 4 and 5). A null entry is ignored.
  void putACLEntry(const JovACLEntry::Ptr& entry);
  /// @brief Takes an entry out of the local list (it revokes nothing: that is an entry with
  /// grant false).
  void removeACLEntry(const JovACLEntry::Ptr& entry);
  /// @brief The entries waiting to be saved.
  Entries entries() const;

  /// @name listACLEntries
  /// @{

  /// The grants on the service (GET PARENT/acl), each an entry with grant true. Errors: 501 the
  /// parent has no path; 203 (401); 202 unreadable answer; and the errors of every exchange.
  Result<Entries> listACLEntriesSynchronous() { return detail::runSync(listRoutine()); }
  void listACLEntries(ListBlock block, JovCancellation cancel = {}) {
    detail::runBlock(self(), listRoutine(), detail::leading(std::move(block), self()), cancel);
  }
  void listACLEntries(JovCallback callback, JovCancellation cancel = {}) {
    detail::runCallback(self(), listRoutine(), std::move(callback), cancel, self());
  }
  std::future<Result<Entries>> listACLEntriesAsync(JovCancellation cancel = {}) {
    return detail::runFuture(self(), listRoutine(), cancel);
  }
  /// @}

  /// @brief What a save did: the entries saved, those that failed (still pending), and the
  /// error: 514 when any failed, 501 when the parent has no path, 1301/1302 when it was
  /// cancelled (the entries not tried yet are among the failed).
  struct SaveReport {
    Entries succeeded;              ///< saved, marked updated, out of the list
    Entries failed;                 ///< still in the list for the next save
    std::optional<JovError> error;  ///< none when every entry was saved
  };

  /// @name save
  /// @{

  /// Sends every entry not yet saved, in order, one request each: PUT (grant) or DELETE
  /// (revoke) PARENT/acl/ACTION/SUBJECT, with no body. A saved entry is marked updated and
  /// leaves the list; a failed one stays for the next save, which retries only those. Every
  /// pending entry is tried; when any failed, the error is 514 and both lists are still given
  /// (nothing saved is rolled back). An entry already being sent by a save running at the same
  /// time is left to that save. A user or group subject without an ID fails without a request.
  /// The blocking forms fill `succeeded` and `failed`; the block and the delegate receive (list,
  /// succeeded, failed, error); the future gives a SaveReport. Errors: 514 some entry failed; 501
  /// the parent has no path; 1301/1302 cancelled.
  Result<void> saveSynchronous(Entries& succeeded, Entries& failed);
  Result<void> saveSynchronous(Entries& failed);
  Result<void> saveSynchronous() {
    Entries succeeded, failed;
    return saveSynchronous(succeeded, failed);
  }
  void save(SaveBlock block, JovCancellation cancel = {});
  void save(JovCallback callback, JovCancellation cancel = {});
  std::future<SaveReport> saveAsync(JovCancellation cancel = {});
  /// @}

 private:
  Ptr self() { return shared_from_this(); }
  detail::Routine<Entries> listRoutine();
  detail::Routine<SaveReport> saveRoutine();
  // The pending entries no other save is sending, now held by the caller until released.
  Entries claimPending();
  void releaseClaimed(const Entries& claimed);
  // Marks an entry saved and takes it out of the list.
  void markSaved(const JovACLEntry::Ptr& entry);

  const Parent parent_;
  mutable std::mutex mutex_;
  Entries entries_;
  std::set<const JovACLEntry*> sending_;  // claimed by a save in progress
};

}  // namespace jov
