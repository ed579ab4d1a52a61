// Objects and buckets: create, get, update, delete objects; query and count a bucket; delete a
// bucket. A bucket is named by --bucket NAME, in a user's (--user) or a group's (--group) scope,
// else the application's.
#include <iostream>
#include <iterator>

#include "app.hpp"

namespace jovcli {

namespace {

struct BucketArgs {
  std::string bucket, user, group, object, json, where, order;
  bool encrypted = false, descending = false, all = false, force = false;
  std::uint32_t limit = 0;
  std::vector<std::string> set, unset;
};

void addBucketOptions(CLI::App* command, BucketArgs& args) {
  command->add_option("--bucket", args.bucket, "Bucket name")->required();
  auto* user = command->add_option("--user", args.user, "A user's bucket (ID, e-mail or username)");
  command->add_option("--group", args.group, "A group's bucket (group ID)")->excludes(user);
  command->add_flag("--encrypted", args.encrypted, "An encrypted bucket");
}

std::shared_ptr<jov::JovBucket> bucketOf(Context& ctx, const BucketArgs& args) {
  return bucketNamed(ctx, args.bucket, args.user, args.group, args.encrypted);
}

void addFieldOptions(CLI::App* command, BucketArgs& args) {
  command->add_option("fields", args.json, "The fields (JSON object; '-' or nothing: stdin)");
  command->add_option("--set", args.set,
                      "KEY=VALUE, repeatable; VALUE is JSON when it reads as JSON (3, true, "
                      "[1,2], {\"a\":1}), else text");
}

// The fields: the JSON object given (or read from standard input for "-", or for nothing when
// no --set is given either), then every --set KEY=VALUE over it.
json fieldsOf(const BucketArgs& args) {
  json fields = json::object();
  if (!args.json.empty() || args.set.empty()) {
    std::string input = args.json;
    if (input.empty() || input == "-")
      input.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    fields = json::parse(input, nullptr, false);
    if (!fields.is_object()) throw usageError("the fields must be a JSON object");
  }
  json assigned = assignments(args.set);
  for (auto& [key, value] : assigned.items()) fields[key] = std::move(value);
  return fields;
}

void setFields(jov::JovObject& object, const json& fields) {
  for (const auto& [key, value] : fields.items()) {
    if (!object.setObject(value, key))
      throw usageError("cannot set \"" + key + "\": " + object.lastError()->describe());
  }
}

json objectJSON(const jov::JovObject& object) {
  return {{"objectID", orNull(object.uuid().value_or(""))},
          {"uri", orNull(object.objectURI().value_or(""))},
          {"version", orNull(object.etag().value_or(""))},
          {"type", orNull(object.objectType().value_or(""))},
          {"fields", object.dictionaryValue()}};
}

jov::JovQuery queryOf(const BucketArgs& args) {
  jov::JovQuery query;
  if (!args.where.empty()) {
    // A JSON clause as the service reads it, or the readable syntax.
    json clause;
    if (args.where.front() == '{') {
      clause = json::parse(args.where, nullptr, false);
      if (!clause.is_object()) throw usageError("--where is not a JSON clause object");
    } else {
      clause = parseClause(args.where);
    }
    query = jov::JovQuery::queryWithDictionary(clause);
  }
  if (!args.order.empty()) query.sort(args.order, args.descending);
  query.setLimit(args.limit);
  return query;
}

constexpr const char* kWhereHelp =
    "Which objects: comparisons FIELD =, !=, <, <=, >, >=, ^= (prefix) VALUE; FIELD in [V, ...];\n"
    "FIELD has string|integer|decimal|boolean; joined by and, or, not and parentheses. VALUE\n"
    "is a number, true, false, \"text\" or a bare word. E.g. 'age>=18 and name^=\"Al\"'.\n"
    "A JSON clause as the service reads it also works: '{\"type\":\"eq\",...}'.";

}  // namespace

void addObjectCommands(CLI::App& jov, Context& ctx) {
  auto args = std::make_shared<BucketArgs>();

  auto* object = jov.add_subcommand("object", "Work with the objects of a bucket");
  object->require_subcommand(1);

  auto* create = object->add_subcommand("create", "Create an object from a JSON object of fields");
  addBucketOptions(create, *args);
  addFieldOptions(create, *args);
  create->callback([&ctx, args] {
    ctx.session();
    auto created = bucketOf(ctx, *args)->createObject();
    setFields(*created, fieldsOf(*args));
    ctx.check(created->saveSynchronous(), "cannot create the object");
    ctx.print(objectJSON(*created), "created " + created->objectURI().value_or(""));
  });

  auto* get = object->add_subcommand("get", "Show an object");
  addBucketOptions(get, *args);
  get->add_option("object", args->object, "Object ID")->required();
  get->callback([&ctx, args] {
    ctx.session();
    auto found = bucketOf(ctx, *args)->createObjectWithID(args->object);
    ctx.check(found->refreshSynchronous(), "cannot read the object");
    ctx.print(objectJSON(*found), found->dictionaryValue().dump(2));
  });

  auto* update = object->add_subcommand(
      "update", "Change fields of an object (--all: replace the whole document)");
  addBucketOptions(update, *args);
  update->add_option("object", args->object, "Object ID")->required();
  addFieldOptions(update, *args);
  update->add_option("--unset", args->unset, "Remove this field (repeatable)");
  update->add_flag("--all", args->all, "Replace every field");
  update->add_flag("--force", args->force, "Overwrite whatever version the service holds");
  update->callback([&ctx, args] {
    ctx.session();
    auto found = bucketOf(ctx, *args)->createObjectWithID(args->object);
    // Only --unset: nothing to read from standard input.
    json fields = args->unset.empty() || !args->json.empty() || !args->set.empty()
                      ? fieldsOf(*args)
                      : json::object();
    // Read it first, so that the save carries the version it was made from.
    ctx.check(found->refreshSynchronous(), "cannot read the object");
    setFields(*found, fields);
    for (const auto& key : args->unset) found->removeObjectForKey(key);
    ctx.check(args->all ? found->saveAllFieldsSynchronous(args->force)
                        : found->saveSynchronous(args->force),
              "cannot update the object");
    ctx.print(objectJSON(*found), "updated " + found->objectURI().value_or(""));
  });

  auto* remove = object->add_subcommand("delete", "Delete an object (asks first; --yes does not)");
  addBucketOptions(remove, *args);
  remove->add_option("object", args->object, "Object ID")->required();
  remove->callback([&ctx, args] {
    ctx.confirm("Delete object " + args->object + "?");
    ctx.session();
    auto found = bucketOf(ctx, *args)->createObjectWithID(args->object);
    ctx.check(found->deleteSynchronous(), "cannot delete the object");
    ctx.print(json{{"objectID", args->object}, {"deleted", true}}, "deleted " + args->object);
  });

  auto* query = jov.add_subcommand("query", "List the objects of a bucket that match a clause");
  addBucketOptions(query, *args);
  query->add_option("--where", args->where, kWhereHelp);
  query->add_option("--order", args->order, "Order by this field");
  query->add_flag("--desc", args->descending, "Descending order");
  query->add_option("--limit", args->limit, "At most this many objects (all pages otherwise)");
  query->callback([&ctx, args] {
    ctx.session();
    auto bucket = bucketOf(ctx, *args);
    std::optional<jov::JovQuery> page = queryOf(*args);
    json all = json::array();
    std::vector<std::vector<json>> rows;
    while (page) {
      auto result = ctx.check(bucket->executeQuerySynchronous(*page), "cannot query the bucket");
      auto& [objects, next] = result;
      for (const auto& found : objects) {
        all.push_back(objectJSON(*found));
        rows.push_back({orNull(found->uuid().value_or("")), found->dictionaryValue().dump()});
      }
      page = args->limit == 0 ? next : std::nullopt;
    }
    if (ctx.jsonOutput()) {
      ctx.print(all, "");
    } else {
      ctx.printTable({"objectID", "fields"}, {"OBJECT ID", "FIELDS"}, rows, "(no objects)");
    }
  });

  auto* count = jov.add_subcommand("count", "Count the objects of a bucket (that match a clause)");
  addBucketOptions(count, *args);
  count->add_option("--where", args->where, kWhereHelp);
  count->callback([&ctx, args] {
    ctx.session();
    jov::JovQuery query;
    if (!args->where.empty()) query = queryOf(*args);
    auto n = ctx.check(bucketOf(ctx, *args)->countSynchronous(query), "cannot count");
    ctx.print(json{{"count", n}}, std::to_string(n));
  });

  auto* bucket = jov.add_subcommand("bucket", "Work with buckets");
  bucket->require_subcommand(1);
  auto* drop =
      bucket->add_subcommand("delete", "Delete a bucket with all its objects (asks first)");
  addBucketOptions(drop, *args);
  drop->callback([&ctx, args] {
    ctx.confirm("Delete bucket " + args->bucket + " with all its objects?");
    ctx.session();
    ctx.check(bucketOf(ctx, *args)->deleteSynchronous(), "cannot delete the bucket");
    ctx.print(json{{"bucket", args->bucket}, {"deleted", true}}, "deleted " + args->bucket);
  });

  for (bool add : {true, false}) {
    auto* change = bucket->add_subcommand(
        add ? "subscribe" : "unsubscribe",
        add ? "Get a push whenever an object of the bucket changes" : "Stop the bucket's pushes");
    addBucketOptions(change, *args);
    change->callback([&ctx, args, add] {
      ctx.session();
      auto target = bucketOf(ctx, *args);
      if (add) {
        ctx.check(target->subscribeSynchronous(), "cannot subscribe");
      } else {
        ctx.check(target->unsubscribeSynchronous(), "cannot unsubscribe");
      }
      ctx.print(json{{"bucket", args->bucket}, {"subscribed", add}},
                (add ? "subscribed to bucket " : "unsubscribed from bucket ") + args->bucket);
    });
  }
}

}  // namespace jovcli
