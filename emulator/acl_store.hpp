// Access control lists of buckets and objects: (action, subject) grants, the subjects a caller
// speaks for, and the entries a new bucket or object starts with.
//
// Subjects are tokens: "UserID:<id>", "GroupID:<id>", "ThingID:<id>" (kept, not resolved yet),
// "UserID:ANONYMOUS_USER" (every caller, with or without a token) and
// "UserID:ANY_AUTHENTICATED_USER" (every caller with a valid token). A group entry is checked
// against the group's members at the time of the request.
//
// Entries a new bucket starts with:
//   application bucket: CREATE_OBJECTS_IN_BUCKET and QUERY_OBJECTS_IN_BUCKET to any
//     authenticated user; DROP_BUCKET_WITH_ALL_CONTENT to its creator;
//   a user's bucket: the four bucket actions to that user;
//   a group's bucket: the four bucket actions to the group (its members).
// Entries a new object starts with: READ_EXISTING_OBJECT and WRITE_EXISTING_OBJECT to its
// creator (none when the creator is anonymous), and to the user or group owning the bucket.
// Reading an object needs READ_EXISTING_OBJECT on it or READ_OBJECTS_IN_BUCKET on its bucket;
// a query returns only the objects the caller may read.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "database.hpp"
#include "object_store.hpp"
#include "user_store.hpp"

namespace jovemu {

inline constexpr const char* kCreateObjects = "CREATE_OBJECTS_IN_BUCKET";
inline constexpr const char* kQueryObjects = "QUERY_OBJECTS_IN_BUCKET";
inline constexpr const char* kDropBucket = "DROP_BUCKET_WITH_ALL_CONTENT";
inline constexpr const char* kReadObjects = "READ_OBJECTS_IN_BUCKET";
inline constexpr const char* kReadObject = "READ_EXISTING_OBJECT";
inline constexpr const char* kWriteObject = "WRITE_EXISTING_OBJECT";

inline constexpr const char* kAnonymousSubject = "UserID:ANONYMOUS_USER";
inline constexpr const char* kAuthenticatedSubject = "UserID:ANY_AUTHENTICATED_USER";

/// @brief Whether the action applies to buckets (true) or to objects (false); nullopt when it
/// is no action of either.
std::optional<bool> isBucketAction(const std::string& action);

/// @brief The caller of a request: a user, a thing acting with its own token, or anonymous.
struct Requester {
  std::optional<UserRow> user;
  /// Every subject the caller speaks for, its groups included; a thing's owner also speaks for
  /// the thing in the thing's own scope.
  std::vector<std::string> subjects;
  std::optional<std::string> thingID;  ///< set for a thing

  bool anonymous() const { return !user && !thingID; }
  /// The caller's ID: the user's or the thing's; empty when anonymous.
  std::string id() const { return user ? user->userID : thingID.value_or(""); }
  bool speaksFor(const std::string& subject) const;
};
Requester requesterFor(Connection& conn, const std::string& appID,
                       const std::optional<UserRow>& user);

/// @brief One entry of a list: (action, subject).
struct AclEntry {
  std::string action;
  std::string subject;
};

/// @brief The object ID of a bucket's own entries.
inline const std::string kBucketTarget;

/// @brief Whether the caller holds the action on the bucket (objectID empty) or on the object.
bool isAllowed(Connection& conn, std::int64_t bucketKey, const std::string& objectID,
               const std::string& action, const Requester& requester);
/// @brief Whether one of the entries grants the action to the caller (entries not stored yet).
bool isAllowed(const std::vector<AclEntry>& entries, const std::string& action,
               const Requester& requester);

/// @brief Adds an entry; granting what is already granted changes nothing.
void grantEntry(Connection& conn, std::int64_t bucketKey, const std::string& objectID,
                const std::string& action, const std::string& subject);
/// @brief Removes an entry; false when there was none.
bool revokeEntry(Connection& conn, std::int64_t bucketKey, const std::string& objectID,
                 const std::string& action, const std::string& subject);
/// @brief {"ACTION": [{"userID"|"groupID"|"thingID": id}, ...], ...} of the entries.
nlohmann::json aclJson(const std::vector<AclEntry>& entries);
/// @brief 400 unless the subject is "UserID:x", "GroupID:x" or "ThingID:x"; 404 for a user or
/// group that does not exist (the two special users always do; things are kept as given).
void requireSubject(Connection& conn, const std::string& appID, const std::string& subject);
/// @brief aclJson of a bucket's (objectID empty) or an object's entries.
nlohmann::json listEntries(Connection& conn, std::int64_t bucketKey, const std::string& objectID);

std::vector<AclEntry> defaultBucketEntries(const BucketScope& scope,
                                           const std::optional<std::string>& creator);
std::vector<AclEntry> defaultObjectEntries(const BucketScope& scope,
                                           const std::optional<std::string>& creator);

/// @brief Drops the entries of a bucket and its objects, or of one object.
void dropBucketEntries(Connection& conn, std::int64_t bucketKey);
void dropObjectEntries(Connection& conn, std::int64_t bucketKey, const std::string& objectID);
/// @brief Removes every entry naming the subject in the application (its user or group is gone).
void forgetSubject(Connection& conn, const std::string& appID, const std::string& subject);

/// @brief SQL that is true for the rows of a bucket table the caller may read object by object;
/// the subjects are bound from parameter `firstParam` on, the bucket key at `firstParam`.
std::string readableObjectsCondition(int firstParam, std::size_t subjectCount);

}  // namespace jovemu
