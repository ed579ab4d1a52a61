#include "acl_store.hpp"

#include <algorithm>

#include "api_error.hpp"
#include "group_store.hpp"

namespace jovemu {

namespace {

std::string userSubject(const std::string& id) {
  return "UserID:" + id;
}
std::string groupSubject(const std::string& id) {
  return "GroupID:" + id;
}

// The subject owning a user's or group's bucket; none for the application scope.
std::optional<std::string> scopeSubject(const BucketScope& scope) {
  switch (scope.kind) {
    case ScopeKind::User:
      return userSubject(scope.ownerID);
    case ScopeKind::Group:
      return groupSubject(scope.ownerID);
    case ScopeKind::Thing:
      return "ThingID:" + scope.ownerID;
    case ScopeKind::App:
      break;
  }
  return std::nullopt;
}

bool speaksFor(const Requester& requester, const std::string& subject) {
  return std::find(requester.subjects.begin(), requester.subjects.end(), subject) !=
         requester.subjects.end();
}

std::string placeholders(int first, std::size_t count) {
  std::string out;
  for (std::size_t i = 0; i < count; ++i) {
    if (i) out += ", ";
    out += "?" + std::to_string(first + static_cast<int>(i));
  }
  return out;
}

}  // namespace

std::optional<bool> isBucketAction(const std::string& action) {
  for (const char* name : {kCreateObjects, kQueryObjects, kDropBucket, kReadObjects}) {
    if (action == name) return true;
  }
  if (action == kReadObject || action == kWriteObject) return false;
  return std::nullopt;
}

bool Requester::speaksFor(const std::string& subject) const {
  return std::find(subjects.begin(), subjects.end(), subject) != subjects.end();
}

Requester requesterFor(Connection& conn, const std::string& appID,
                       const std::optional<UserRow>& user) {
  Requester requester{user, {kAnonymousSubject}};
  if (!user) return requester;
  requester.subjects.push_back(kAuthenticatedSubject);
  requester.subjects.push_back(userSubject(user->userID));
  for (const auto& group : groupsWithMember(conn, appID, user->userID)) {
    requester.subjects.push_back(groupSubject(group.groupID));
  }
  return requester;
}

bool isAllowed(Connection& conn, std::int64_t bucketKey, const std::string& objectID,
               const std::string& action, const Requester& requester) {
  // The subject list is short (the caller, its groups and the two special subjects); one
  // statement per list length stays in the connection's cache.
  auto stmt = conn.prepare(
      "SELECT 1 FROM acl_entries WHERE bucket_key = ?1 AND object_id = ?2 AND action = ?3 "
      "AND subject IN (" +
      placeholders(4, requester.subjects.size()) + ") LIMIT 1");
  stmt.bind(1, bucketKey).bind(2, objectID).bind(3, action);
  for (std::size_t i = 0; i < requester.subjects.size(); ++i) {
    stmt.bind(4 + static_cast<int>(i), requester.subjects[i]);
  }
  return stmt.step();
}

bool isAllowed(const std::vector<AclEntry>& entries, const std::string& action,
               const Requester& requester) {
  return std::any_of(entries.begin(), entries.end(), [&](const AclEntry& entry) {
    return entry.action == action && speaksFor(requester, entry.subject);
  });
}

void grantEntry(Connection& conn, std::int64_t bucketKey, const std::string& objectID,
                const std::string& action, const std::string& subject) {
  auto stmt = conn.prepare(
      "INSERT OR IGNORE INTO acl_entries (bucket_key, object_id, action, subject) "
      "VALUES (?1, ?2, ?3, ?4)");
  stmt.bind(1, bucketKey).bind(2, objectID).bind(3, action).bind(4, subject);
  stmt.run();
}

bool revokeEntry(Connection& conn, std::int64_t bucketKey, const std::string& objectID,
                 const std::string& action, const std::string& subject) {
  auto stmt = conn.prepare(
      "DELETE FROM acl_entries WHERE bucket_key = ?1 AND object_id = ?2 AND action = ?3 "
      "AND subject = ?4");
  stmt.bind(1, bucketKey).bind(2, objectID).bind(3, action).bind(4, subject);
  stmt.run();
  return conn.changes() > 0;
}

nlohmann::json aclJson(const std::vector<AclEntry>& entries) {
  nlohmann::json out = nlohmann::json::object();
  for (const auto& entry : entries) {
    const auto colon = entry.subject.find(':');
    const std::string kind = entry.subject.substr(0, colon);
    const char* key = kind == "GroupID" ? "groupID" : kind == "ThingID" ? "thingID" : "userID";
    out[entry.action].push_back(nlohmann::json::object({{key, entry.subject.substr(colon + 1)}}));
  }
  return out;
}

nlohmann::json listEntries(Connection& conn, std::int64_t bucketKey, const std::string& objectID) {
  auto stmt = conn.prepare(
      "SELECT action, subject FROM acl_entries WHERE bucket_key = ?1 AND object_id = ?2 "
      "ORDER BY action, subject");
  stmt.bind(1, bucketKey).bind(2, objectID);
  std::vector<AclEntry> entries;
  while (stmt.step()) entries.push_back({stmt.textOr(0), stmt.textOr(1)});
  return aclJson(entries);
}

void requireSubject(Connection& conn, const std::string& appID, const std::string& subject) {
  auto colon = subject.find(':');
  std::string kind = subject.substr(0, colon);
  std::string id = colon == std::string::npos ? "" : subject.substr(colon + 1);
  if (id.empty() || (kind != "UserID" && kind != "GroupID" && kind != "ThingID")) {
    throw invalidInput("The subject must be UserID:<id>, GroupID:<id> or ThingID:<id>");
  }
  if (kind == "UserID" && subject != kAnonymousSubject && subject != kAuthenticatedSubject &&
      !findUser(conn, appID, id)) {
    throw userNotFound();
  }
  if (kind == "GroupID" && !findGroup(conn, appID, id)) throw groupNotFound();
}

std::vector<AclEntry> defaultBucketEntries(const BucketScope& scope,
                                           const std::optional<std::string>& creator) {
  if (auto owner = scopeSubject(scope)) {
    return {{kCreateObjects, *owner},
            {kQueryObjects, *owner},
            {kDropBucket, *owner},
            {kReadObjects, *owner}};
  }
  std::vector<AclEntry> entries{{kCreateObjects, kAuthenticatedSubject},
                                {kQueryObjects, kAuthenticatedSubject}};
  if (creator) entries.push_back({kDropBucket, userSubject(*creator)});
  return entries;
}

std::vector<AclEntry> defaultObjectEntries(const BucketScope& scope,
                                           const std::optional<std::string>& creator) {
  std::vector<AclEntry> entries;
  auto add = [&](const std::string& subject) {
    entries.push_back({kReadObject, subject});
    entries.push_back({kWriteObject, subject});
  };
  if (creator) add(userSubject(*creator));
  if (auto owner = scopeSubject(scope); owner && (!creator || *owner != userSubject(*creator))) {
    add(*owner);
  }
  return entries;
}

void dropBucketEntries(Connection& conn, std::int64_t bucketKey) {
  auto stmt = conn.prepare("DELETE FROM acl_entries WHERE bucket_key = ?1");
  stmt.bind(1, bucketKey);
  stmt.run();
}

void dropObjectEntries(Connection& conn, std::int64_t bucketKey, const std::string& objectID) {
  auto stmt = conn.prepare("DELETE FROM acl_entries WHERE bucket_key = ?1 AND object_id = ?2");
  stmt.bind(1, bucketKey).bind(2, objectID);
  stmt.run();
}

void forgetSubject(Connection& conn, const std::string& appID, const std::string& subject) {
  auto stmt = conn.prepare(
      "DELETE FROM acl_entries WHERE subject = ?2 AND bucket_key IN "
      "(SELECT bucket_key FROM buckets WHERE app_id = ?1)");
  stmt.bind(1, appID).bind(2, subject);
  stmt.run();
}

std::string readableObjectsCondition(int firstParam, std::size_t subjectCount) {
  return "id IN (SELECT object_id FROM acl_entries WHERE bucket_key = ?" +
         std::to_string(firstParam) + " AND action = '" + kReadObject + "' AND subject IN (" +
         placeholders(firstParam + 1, subjectCount) + "))";
}

}  // namespace jovemu
