// The data API of server code, over the emulator's object store. A bucket path is the one the
// REST routes use: "/buckets/NAME", "/users/ID/buckets/NAME" ("me": the caller) or
// "/groups/ID/buckets/NAME". Refusals carry the status the REST route would answer with.
#include <algorithm>

#include "api_error.hpp"
#include "bucket_access.hpp"
#include "crypto.hpp"
#include "group_store.hpp"
#include "query_sql.hpp"
#include "server_code.hpp"

namespace jovemu {

namespace {

struct BucketPath {
  BucketScope scope;
  std::string name;
};

std::vector<std::string> splitPath(const std::string& path) {
  std::vector<std::string> parts;
  std::size_t start = 1;
  while (start <= path.size()) {
    auto slash = path.find('/', start);
    if (slash == std::string::npos) slash = path.size();
    parts.push_back(path.substr(start, slash - start));
    start = slash + 1;
  }
  return parts;
}

std::string stringArgument(const nlohmann::json& args, std::size_t index, const char* what) {
  if (args.size() <= index || !args[index].is_string()) {
    throw invalidInput(std::string(what) + " must be a string");
  }
  return args[index].get<std::string>();
}

class StoreDataApi final : public ScriptDataApi {
 public:
  StoreDataApi(Service& service, ScriptCaller caller)
      : service_(service), caller_(std::move(caller)) {}

  nlohmann::json getObject(const nlohmann::json& args) override {
    return guarded([&](Connection& conn, const Requester& requester) -> nlohmann::json {
      auto path = bucketPath(conn, args);
      auto id = objectID(args);
      auto bucket = findBucket(conn, caller_.appID, path.scope, path.name);
      if (!bucket) return nullptr;
      auto object = findObject(conn, *bucket, id);
      if (!object) return nullptr;
      requireAllowed(mayRead(conn, *bucket, id, requester), requester, "read this object");
      return object->doc;
    });
  }

  nlohmann::json saveObject(const nlohmann::json& args) override {
    return guarded([&](Connection& conn, const Requester& requester) -> nlohmann::json {
      auto path = bucketPath(conn, args);
      if (args.size() < 2 || !args[1].is_object()) throw invalidInput("object must be an object");
      nlohmann::json fields = args[1];
      std::optional<std::string> id;
      if (auto given = fields.find("_id"); given != fields.end() && !given->is_null()) {
        if (!given->is_string()) throw invalidInput("_id must be a string");
        id = given->get<std::string>();
        requireObjectID(*id);
      }
      // The other keys beginning with "_" are the store's: a document read back and saved
      // again keeps its version history, not the copy's.
      for (auto it = fields.begin(); it != fields.end();) {
        it = it.key().starts_with("_") ? fields.erase(it) : std::next(it);
      }
      auto bucket = findBucket(conn, caller_.appID, path.scope, path.name);
      std::optional<ObjectRow> existing;
      if (bucket && id) existing = findObject(conn, *bucket, *id);
      auto now = Service::now();
      if (existing) {
        requireAllowed(isAllowed(conn, bucket->key, *id, kWriteObject, requester), requester,
                       "write this object");
        ObjectRow object = *existing;
        object.doc = std::move(fields);
        object.version += 1;
        object.modified = std::max(now, existing->modified);
        std::optional<std::string> type;
        if (existing->doc.contains("_dataType")) type = existing->doc["_dataType"];
        storeObject(conn, *bucket, object, type);
        return object.doc;
      }
      if (!bucket) bucket = createBucketFor(conn, path, requester);
      requireAllowed(isAllowed(conn, bucket->key, kBucketTarget, kCreateObjects, requester),
                     requester, "create objects in this bucket");
      if (!id) {
        id = randomHex(12);
        while (findObject(conn, *bucket, *id)) id = randomHex(12);
      }
      ObjectRow object{*id, std::move(fields), 1, now, now, caller_.userID};
      storeObject(conn, *bucket, object, std::nullopt);
      for (const auto& entry : defaultObjectEntries(bucket->scope, object.owner)) {
        grantEntry(conn, bucket->key, object.id, entry.action, entry.subject);
      }
      return object.doc;
    });
  }

  nlohmann::json query(const nlohmann::json& args) override {
    return guarded([&](Connection& conn, const Requester& requester) -> nlohmann::json {
      auto path = bucketPath(conn, args);
      QueryRequest request;
      if (args.size() > 1 && !args[1].is_null()) request.clause = args[1];
      request.limit = kMaxQueryLimit;
      auto bucket = findBucket(conn, caller_.appID, path.scope, path.name);
      if (!bucket) {
        throw ApiError(404, "BUCKET_NOT_FOUND", "The bucket " + path.name + " was not found");
      }
      requireAllowed(isAllowed(conn, bucket->key, kBucketTarget, kQueryObjects, requester),
                     requester, "query this bucket");
      ReadFilter filter;
      filter.all = isAllowed(conn, bucket->key, kBucketTarget, kReadObjects, requester);
      if (!filter.all) filter.subjects = requester.subjects;
      auto page = runQuery(conn, *bucket, request, filter);
      return page.results;
    });
  }

  nlohmann::json deleteObject(const nlohmann::json& args) override {
    return guarded([&](Connection& conn, const Requester& requester) -> nlohmann::json {
      auto path = bucketPath(conn, args);
      auto id = objectID(args);
      auto bucket = findBucket(conn, caller_.appID, path.scope, path.name);
      if (!bucket || !findObject(conn, *bucket, id)) return false;
      requireAllowed(isAllowed(conn, bucket->key, id, kWriteObject, requester), requester,
                     "delete this object");
      return jovemu::deleteObject(conn, *bucket, id);
    });
  }

 private:
  // One transaction per call; the route's refusals reach the script as ScriptApiError.
  template <typename Fn>
  nlohmann::json guarded(Fn&& fn) {
    try {
      return service_.db.transaction([&](Connection& conn) {
        std::optional<UserRow> user;
        if (caller_.userID) {
          user = findUser(conn, caller_.appID, *caller_.userID);
          if (!user) throw userNotFound("The calling user no longer exists");
        }
        return fn(conn, requesterFor(conn, caller_.appID, user));
      });
    } catch (const ApiError& error) {
      throw ScriptApiError(error.status(), error.what());
    }
  }

  BucketPath bucketPath(Connection& conn, const nlohmann::json& args) {
    auto text = stringArgument(args, 0, "bucketPath");
    auto parts = text.starts_with("/") ? splitPath(text) : std::vector<std::string>{};
    BucketPath path;
    if (parts.size() == 2 && parts[0] == "buckets") {
      path.scope = {ScopeKind::App, {}};
    } else if (parts.size() == 4 && parts[2] == "buckets" && parts[0] == "users") {
      std::string owner = parts[1];
      if (owner == "me") {
        if (!caller_.userID) throw ApiError(401, "UNAUTHORIZED", "An access token is required");
        owner = *caller_.userID;
      } else if (!findUser(conn, caller_.appID, owner)) {
        throw userNotFound();
      }
      path.scope = {ScopeKind::User, owner};
    } else if (parts.size() == 4 && parts[2] == "buckets" && parts[0] == "groups") {
      if (!findGroup(conn, caller_.appID, parts[1])) throw groupNotFound();
      path.scope = {ScopeKind::Group, parts[1]};
    } else {
      throw invalidInput(
          "bucketPath must be /buckets/NAME, /users/ID/buckets/NAME or "
          "/groups/ID/buckets/NAME");
    }
    path.name = parts.back();
    if (!isValidBucketName(path.name)) {
      throw invalidInput("The bucket name must be 2-64 of letters, digits, '-', '_' and '.'");
    }
    return path;
  }

  static std::string objectID(const nlohmann::json& args) {
    auto id = stringArgument(args, 1, "objectID");
    requireObjectID(id);
    return id;
  }

  static bool mayRead(Connection& conn, const BucketRow& bucket, const std::string& id,
                      const Requester& requester) {
    return isAllowed(conn, bucket.key, kBucketTarget, kReadObjects, requester) ||
           isAllowed(conn, bucket.key, id, kReadObject, requester);
  }

  // A bucket is made on first use when a new bucket of its scope would let the caller create
  // objects in it, as on the REST route.
  BucketRow createBucketFor(Connection& conn, const BucketPath& path, const Requester& requester) {
    auto entries = defaultBucketEntries(path.scope, caller_.userID);
    requireAllowed(isAllowed(entries, kCreateObjects, requester), requester,
                   "create objects in this bucket");
    auto bucket =
        createBucket(conn, caller_.appID, path.scope, path.name, caller_.userID, Service::now());
    for (const auto& entry : entries) {
      grantEntry(conn, bucket.key, kBucketTarget, entry.action, entry.subject);
    }
    return bucket;
  }

  Service& service_;
  ScriptCaller caller_;
};

}  // namespace

std::unique_ptr<ScriptDataApi> makeScriptDataApi(Service& service, const ScriptCaller& caller) {
  return std::make_unique<StoreDataApi>(service, caller);
}

}  // namespace jovemu
