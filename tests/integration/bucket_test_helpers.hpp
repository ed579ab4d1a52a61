// Shared by the object, query and ACL tests: requests on bucket paths over raw HTTP.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "emulator_fixture.hpp"

namespace jovtest {

inline const char* kQueryRequest = "application/vnd.jov.QueryRequest+json";

/// POST {bucketPath}/objects with the fields as JSON.
inline EmulatorReply postObject(EmulatorClient& client, const std::string& bucketPath,
                                const nlohmann::json& fields, const std::string& token,
                                const std::string& contentType = "application/json") {
  return client.send("POST", bucketPath + "/objects", fields.dump(), contentType, token);
}

/// The query body the client sends.
inline nlohmann::json queryBody(const nlohmann::json& clause, const std::string& orderBy = "",
                                bool descending = false, int limit = 0,
                                const std::string& paginationKey = "") {
  nlohmann::json query = {{"clause", clause}, {"descending", descending}};
  if (!orderBy.empty()) query["orderBy"] = orderBy;
  nlohmann::json body = {{"bucketQuery", query}};
  if (limit) body["bestEffortLimit"] = limit;
  if (!paginationKey.empty()) body["paginationKey"] = paginationKey;
  return body;
}

inline EmulatorReply postQuery(EmulatorClient& client, const std::string& bucketPath,
                               const nlohmann::json& body, const std::string& token) {
  return client.sendJson("POST", bucketPath + "/query", body, kQueryRequest, token);
}

/// The values of `key` in the results of a query reply, in the order given.
inline std::vector<std::string> valuesOf(const EmulatorReply& reply, const char* key = "k") {
  std::vector<std::string> out;
  if (!reply.body.is_object() || !reply.body.contains("results")) return {"<" + reply.raw + ">"};
  for (const auto& doc : reply.body["results"]) out.push_back(doc.value(key, "?"));
  return out;
}

inline std::vector<std::string> sortedValues(const EmulatorReply& reply, const char* key = "k") {
  auto out = valuesOf(reply, key);
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace jovtest
