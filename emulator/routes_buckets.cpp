// Buckets of every scope: queries and counts (POST .../query) and deletion with all content.
#include "api_error.hpp"
#include "bucket_access.hpp"
#include "query_sql.hpp"

namespace jovemu {

namespace {

constexpr const char* kQueryRequest = "application/vnd.jov.QueryRequest+json";

void queryBucket(Service& service, Call& call, const std::string& appID,
                 const BucketAddress& address) {
  call.requireMediaType({kQueryRequest});
  auto request = parseQueryRequest(call.jsonObject());
  auto answer = service.db.transaction([&](Connection& conn) {
    auto context = openBucketContext(service, call, conn, appID, address);
    auto bucket = existingBucket(conn, appID, context, address.name);
    const auto& requester = context.requester;
    requireAllowed(isAllowed(conn, bucket.key, kBucketTarget, kQueryObjects, requester), requester,
                   "query this bucket");
    // Without READ_OBJECTS_IN_BUCKET the caller sees the objects it may read one by one.
    ReadFilter filter;
    filter.all = isAllowed(conn, bucket.key, kBucketTarget, kReadObjects, requester);
    if (!filter.all) filter.subjects = requester.subjects;
    if (request.countInto) {
      return nlohmann::json{
          {"aggregations", {{*request.countInto, countQuery(conn, bucket, request, filter)}}}};
    }
    auto page = runQuery(conn, bucket, request, filter);
    nlohmann::json out = {{"results", page.results}};
    if (page.nextPaginationKey) out["nextPaginationKey"] = *page.nextPaginationKey;
    return out;
  });
  call.reply(200, answer);
}

void deleteBucket(Service& service, Call& call, const std::string& appID,
                  const BucketAddress& address) {
  service.db.transaction([&](Connection& conn) {
    auto context = openBucketContext(service, call, conn, appID, address);
    auto bucket = existingBucket(conn, appID, context, address.name);
    requireAllowed(isAllowed(conn, bucket.key, kBucketTarget, kDropBucket, context.requester),
                   context.requester, "delete this bucket");
    dropBucket(conn, bucket);
  });
  call.replyNoContent();
}

}  // namespace

void addBucketRoutes(Router& router, Service& service) {
  addBucketRoute(router, service, "POST", "/query",
                 [&service](Call& call, const std::string& app, const BucketAddress& address) {
                   queryBucket(service, call, app, address);
                 });
  addBucketRoute(router, service, "DELETE", "",
                 [&service](Call& call, const std::string& app, const BucketAddress& address) {
                   deleteBucket(service, call, app, address);
                 });
}

}  // namespace jovemu
