#include "groups/group_support.hpp"

#include <algorithm>
#include <cctype>

#include "jov/encoding.hpp"
#include "jov/request.hpp"

namespace jov::detail {

JovError mapServerError(const JovError& error, std::initializer_list<ServerCodeMapping> mappings) {
  if (error.code() != 0) return error;
  std::string serverCode = error.jovErrorSummary().value_or("");
  std::transform(serverCode.begin(), serverCode.end(), serverCode.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  for (const ServerCodeMapping& m : mappings) {
    if (serverCode == m.serverCode) return JovError::errorWithCode(m.code, error.userInfo());
  }
  return error;
}

JovRequest bareRequest(const std::string& path, std::int32_t method) {
  JovRequest request(path);
  request.requestMethod = method;
  request.postData.reset();
  return request;
}

std::string groupPath(const std::string& groupID) {
  return "/groups/" + urlEncode(groupID);
}

std::optional<std::string> groupIDIn(const nlohmann::json& record) {
  for (const char* key : {"groupID", "uuid"}) {
    std::optional<std::string> id = jsonString(record, key);
    if (id && !id->empty()) return id;
  }
  return std::nullopt;
}

Result<std::vector<std::shared_ptr<JovGroup>>> readGroupList(const nlohmann::json& answer) {
  const JovError unreadable = groupError(JovError::codeUnableToParseResponse());
  if (!answer.is_object()) return unreadable;
  const auto it = answer.find("groups");
  if (it == answer.end() || !it->is_array()) return unreadable;
  std::vector<std::shared_ptr<JovGroup>> groups;
  groups.reserve(it->size());
  for (const nlohmann::json& record : *it) {
    // A record without an ID cannot be used as a group: the whole answer is refused rather than
    // handing back a shorter list that looks complete.
    std::optional<std::string> id = groupIDIn(record);
    if (!id) return unreadable;
    auto group = JovGroup::groupWithID(*id);
    group->loadFromJSON(record);
    groups.push_back(std::move(group));
  }
  return groups;
}

Result<std::vector<std::shared_ptr<JovGroup>>> listGroupsOfUser(const char* key,
                                                                const std::string& userID) {
  if (userID.empty()) return groupError(JovError::codeInvalidObjects());
  JovRequest request =
      bareRequest(std::string("/groups/?") + key + "=" + urlEncode(userID), JovMethodGet);
  request.accept = kGroupsRetrievalResponse;
  JovResponse response = request.makeSynchronousRequest();
  if (response.error) {
    return mapServerError(*response.error, {{"USER_NOT_FOUND", JovError::codeUserNotFound()}});
  }
  return readGroupList(response.json);
}

}  // namespace jov::detail
