// Things: register a device, read and change it, enable or disable it, delete it, own it (as
// yourself or a group), and list the things you own. A thing is named by its thing ID, or by
// its vendor thing ID with --vendor.
#include "app.hpp"

namespace jovcli {

namespace {

using jov::JovThing;
using jov::JovThingFields;

struct ThingArgs {
  std::string thing, password, type, group;
  std::vector<std::string> set, unset, groups;
  std::string user;
  bool vendor = false;
  unsigned limit = 0;
};

void addThingArgument(CLI::App* command, ThingArgs& args) {
  command->add_option("thing", args.thing, "Thing ID (or vendor thing ID with --vendor)")
      ->required();
  command->add_flag("--vendor", args.vendor, "The thing is named by its vendor thing ID");
}

// The fields of --set assignments: predefined ones by their record names ("_vendor",
// "_numberField1", ...), custom ones by their own.
JovThingFields fieldsOf(JovThingFields fields, const ThingArgs& args) {
  json given = assignments(args.set);
  for (const auto& [key, value] : given.items()) {
    const auto& reserved = JovThingFields::reservedFields();
    if (!key.empty() && key.front() == '_' &&
        std::find(reserved.begin(), reserved.end(), key) == reserved.end()) {
      throw usageError("\"" + key + "\" is no thing field");
    }
  }
  json merged = fields.toJSON();
  for (auto& [key, value] : given.items()) merged[key] = std::move(value);
  // A custom field is removed by sending it as null; predefined ones can only be changed.
  for (const auto& key : args.unset) {
    if (key.empty() || key.front() == '_') throw usageError("\"" + key + "\" cannot be removed");
    merged[key] = nullptr;
  }
  auto read = JovThingFields::fromJSON(merged);
  if (!read) throw usageError("a predefined field has a value of the wrong type");
  return *read;
}

json thingJSON(const JovThing& thing) {
  json out = thing.fields().toJSON();
  out["_thingID"] = thing.thingID();
  out["_vendorThingID"] = thing.vendorThingID();
  out["_thingType"] = thing.thingType();
  out["_disabled"] = thing.disabled();
  if (thing.created() != 0) out["_created"] = thing.created();
  return out;
}

JovThing::Ptr loaded(Context& ctx, const ThingArgs& args) {
  return ctx.check(args.vendor ? JovThing::loadSynchronousWithVendorThingID(args.thing)
                               : JovThing::loadSynchronousWithThingID(args.thing),
                   "cannot load thing " + args.thing);
}

// The owner a command names: the group given with --group, else the current user.
jov::JovThingOwner ownerOf(Context& ctx, const ThingArgs& args) {
  if (!args.group.empty()) return jov::JovGroup::groupWithID(args.group);
  return ctx.session();
}

}  // namespace

void addThingCommands(CLI::App& jov, Context& ctx) {
  auto args = std::make_shared<ThingArgs>();
  auto* thing = jov.add_subcommand("thing", "Work with things (connected devices)");
  thing->require_subcommand(1);
  const char* setHelp =
      "FIELD=VALUE, repeatable: _vendor, _firmwareVersion, _productName, _lot, _stringField1-5, "
      "_numberField1-5, or a custom field; VALUE is JSON when it reads as JSON, else text";

  auto* reg = thing->add_subcommand(
      "register", "Register a device, owned by you; prints its ID and its access token");
  reg->add_option("vendorThingID", args->thing, "The maker's ID of the device")->required();
  reg->add_option("--password", args->password, "The thing's password")->required();
  reg->add_option("--type", args->type, "The thing's type")->required();
  reg->add_option("--set", args->set, setHelp);
  reg->callback([&ctx, args] {
    auto fields = fieldsOf({}, *args);
    ctx.session();
    auto registered = ctx.check(
        JovThing::registerThingSynchronous(args->thing, args->password, args->type, fields),
        "cannot register " + args->thing);
    json out = thingJSON(*registered);
    out["_accessToken"] = registered->accessToken();
    ctx.print(out, "registered " + registered->thingID() + " (" + args->thing + ")");
  });

  auto* get = thing->add_subcommand("get", "Print a thing's record");
  addThingArgument(get, *args);
  get->callback([&ctx, args] {
    ctx.session();
    auto found = loaded(ctx, *args);
    ctx.print(thingJSON(*found), thingJSON(*found).dump(2));
  });

  auto* update = thing->add_subcommand("update", "Change a thing's fields");
  addThingArgument(update, *args);
  update->add_option("--set", args->set, setHelp);
  update->add_option("--unset", args->unset, "A custom FIELD to remove, repeatable");
  update->callback([&ctx, args] {
    ctx.session();
    auto found = loaded(ctx, *args);
    found->setFields(fieldsOf(found->fields(), *args));
    ctx.check(found->updateSynchronous(), "cannot update " + args->thing);
    ctx.print(thingJSON(*found), "updated " + found->thingID());
  });

  for (const bool disable : {false, true}) {
    auto* change = thing->add_subcommand(disable ? "disable" : "enable",
                                         disable ? "Disable a thing" : "Enable a thing");
    addThingArgument(change, *args);
    change->callback([&ctx, args, disable] {
      ctx.session();
      auto found = loaded(ctx, *args);
      ctx.check(disable ? found->disableSynchronous() : found->enableSynchronous(),
                std::string("cannot ") + (disable ? "disable " : "enable ") + args->thing);
      ctx.print(json{{"thingID", found->thingID()}, {"disabled", disable}},
                (disable ? "disabled " : "enabled ") + found->thingID());
    });
  }

  auto* remove = thing->add_subcommand("delete", "Delete a thing (asks first)");
  addThingArgument(remove, *args);
  remove->callback([&ctx, args] {
    ctx.session();
    auto found = loaded(ctx, *args);
    ctx.confirm("Delete thing " + found->thingID() + "?");
    ctx.check(found->deleteSynchronous(), "cannot delete " + args->thing);
    ctx.print(json{{"thingID", found->thingID()}, {"deleted", true}}, "deleted " + found->thingID());
  });

  auto* own = thing->add_subcommand(
      "own", "Become an owner of a thing (yourself, or a group with --group)");
  addThingArgument(own, *args);
  own->add_option("--group", args->group, "Make this group an owner");
  own->add_option("--password", args->password,
                  "The thing's password (without it: an owner adds another owner)");
  own->callback([&ctx, args] {
    auto owner = ownerOf(ctx, *args);
    std::optional<std::string> password;
    if (!args->password.empty()) password = args->password;
    ctx.check(args->vendor ? JovThing::registerOwnerSynchronousWithVendorThingID(owner, args->thing,
                                                                                  password)
                           : JovThing::registerOwnerSynchronousWithThingID(owner, args->thing,
                                                                           password),
              "cannot own " + args->thing);
    ctx.print(json{{"thing", args->thing}, {"owner", true}}, "now owning " + args->thing);
  });

  auto* disown = thing->add_subcommand("disown", "Stop owning a thing (or a group with --group)");
  addThingArgument(disown, *args);
  disown->add_option("--group", args->group, "The group to remove as an owner");
  disown->callback([&ctx, args] {
    auto owner = ownerOf(ctx, *args);
    auto found = loaded(ctx, *args);
    ctx.check(found->unregisterOwnerSynchronous(owner), "cannot disown " + args->thing);
    ctx.print(json{{"thing", args->thing}, {"owner", false}}, "no longer owning " + args->thing);
  });

  auto* isOwner = thing->add_subcommand(
      "is-owner", "Whether you (or a group with --group) own a thing; exit status 1 when not");
  addThingArgument(isOwner, *args);
  isOwner->add_option("--group", args->group, "Ask about this group");
  isOwner->callback([&ctx, args] {
    auto owner = ownerOf(ctx, *args);
    auto found = jov::JovThing::thingWithID(args->thing);
    if (args->vendor) found = loaded(ctx, *args);
    auto answer = found->checkIsOwnerSynchronous(owner);
    if (!answer && answer.error().code() != jov::JovError::codeThingOwnershipNotFound()) {
      throw failure("cannot check " + args->thing + ": " + describeError(answer.error()));
    }
    const bool owns = answer.ok() && answer.value();
    ctx.print(json{{"thing", args->thing}, {"owner", owns}}, owns ? "owner" : "not an owner");
    if (!owns) throw CommandError(kExitFailed, "");
  });

  auto* query = thing->add_subcommand("query", "List the things you or your groups own, every page");
  query->add_option("--user", args->user, "Things of this user (\"me\" for yourself)");
  query->add_option("--group", args->groups, "Things of this group, repeatable");
  query->add_option("--type", args->type, "Only things of this type");
  query->add_option("--limit", args->limit, "The most things per request");
  query->callback([&ctx, args] {
    auto me = ctx.session();
    std::shared_ptr<jov::JovUser> user;
    if (!args->user.empty()) user = args->user == "me" ? me : ctx.resolveUser(args->user);
    std::optional<std::vector<std::shared_ptr<jov::JovGroup>>> groups;
    if (!args->groups.empty()) {
      groups.emplace();
      for (const auto& id : args->groups) groups->push_back(jov::JovGroup::groupWithID(id));
    }
    if (!user && !groups) user = me;
    jov::JovThingQuery thingQuery = jov::JovThingQuery::thingQuery(user, groups);
    if (!args->type.empty()) thingQuery.thingType = args->type;
    thingQuery.limit = args->limit;
    std::vector<std::vector<json>> rows;
    auto page = ctx.check(JovThing::querySynchronous(thingQuery), "cannot query things");
    while (true) {
      for (const auto& found : page.results) {
        rows.push_back({found->thingID(), found->vendorThingID(), found->thingType(),
                        found->disabled()});
      }
      if (!page.hasNext()) break;
      page = ctx.check(page.getNextResultSynchronous(), "cannot query things");
    }
    ctx.printTable({"thingID", "vendorThingID", "thingType", "disabled"},
                   {"THING ID", "VENDOR THING ID", "TYPE", "DISABLED"}, rows, "(no things)");
  });
}

}  // namespace jovcli
