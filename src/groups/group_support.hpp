#pragma once
// What the group exchanges share: paths, media types, reading the service's group records and
// turning its "errorCode" answers into the library's codes.

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "jov/error.hpp"
#include "jov/group.hpp"
#include "jov/request.hpp"
#include "jov/result.hpp"

namespace jov::detail {

inline constexpr const char* kGroupCreationRequest =
    "application/vnd.jov.GroupCreationRequest+json";
inline constexpr const char* kGroupCreationResponse =
    "application/vnd.jov.GroupCreationResponse+json";
inline constexpr const char* kMembersRetrievalResponse =
    "application/vnd.jov.MembersRetrievalResponse+json";
inline constexpr const char* kGroupsRetrievalResponse =
    "application/vnd.jov.GroupsRetrievalResponse+json";

/// One "errorCode" of the service and the library code it becomes.
struct ServerCodeMapping {
  const char* serverCode;
  int code;
};

/// The request's error when it already carries a library code; otherwise the code its
/// "errorCode" (upper-cased) maps to, keeping the request's user info; else unchanged.
JovError mapServerError(const JovError& error, std::initializer_list<ServerCodeMapping> mappings);

/// An error of the library's domain with the code's description.
inline JovError groupError(int code) {
  return JovError::errorWithCode(code);
}

/// A request for a path under the application, with no body until the caller gives one (a GET
/// with the default empty JSON object would send "{}").
JovRequest bareRequest(const std::string& path, std::int32_t method);

/// "/groups/ID" with the ID percent-encoded.
std::string groupPath(const std::string& groupID);

/// The group ID of a record: "groupID", else "uuid"; nothing when neither is a non-empty string.
std::optional<std::string> groupIDIn(const nlohmann::json& record);

/// The groups of a listing answer ({"groups": [records]}); 202 when it cannot be read.
Result<std::vector<std::shared_ptr<JovGroup>>> readGroupList(const nlohmann::json& answer);

/// GET "/groups/?KEY=USERID": the groups a user belongs to ("is_member") or owns ("owner").
Result<std::vector<std::shared_ptr<JovGroup>>> listGroupsOfUser(const char* key,
                                                                const std::string& userID);

}  // namespace jov::detail
