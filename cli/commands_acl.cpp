// Access control lists of a bucket or an object: list, grant, revoke. The list is the bucket's
// (--bucket, in the application's scope or --in-user / --in-group), or one object's (--object);
// the subject is --user, --group, --anonymous or --authenticated.
#include "app.hpp"

namespace jovcli {

namespace {

struct AclArgs {
  std::string bucket, owner, group, object, action, toUser, toGroup;
  bool encrypted = false, anonymous = false, authenticated = false;
};

const char* const kActions[] = {"CREATE_OBJECTS_IN_BUCKET",     "QUERY_OBJECTS_IN_BUCKET",
                                "DROP_BUCKET_WITH_ALL_CONTENT", "READ_OBJECTS_IN_BUCKET",
                                "READ_EXISTING_OBJECT",         "WRITE_EXISTING_OBJECT"};

std::shared_ptr<jov::JovACL> aclOf(Context& ctx, const AclArgs& args) {
  auto bucket = bucketNamed(ctx, args.bucket, args.owner, args.group, args.encrypted);
  if (args.object.empty()) return bucket->bucketACL();
  return bucket->createObjectWithID(args.object)->objectACL();
}

jov::JovACLSubject subjectOf(Context& ctx, const AclArgs& args) {
  const int given =
      !args.toUser.empty() + !args.toGroup.empty() + args.anonymous + args.authenticated;
  if (given != 1)
    throw usageError("name one subject: --user, --group, --anonymous or --authenticated");
  if (!args.toUser.empty()) return ctx.resolveUser(args.toUser);
  if (!args.toGroup.empty()) return jov::JovGroup::groupWithID(args.toGroup);
  if (args.anonymous) return jov::JovAnonymousUser{};
  return jov::JovAnyAuthenticatedUser{};
}

jov::JovACLAction actionOf(const std::string& name) {
  for (int i = 0; i < 6; ++i)
    if (name == kActions[i]) return static_cast<jov::JovACLAction>(i);
  throw usageError("unknown action " + name);
}

void addTargetOptions(CLI::App* command, AclArgs& args) {
  command->add_option("--bucket", args.bucket, "Bucket name")->required();
  auto* user =
      command->add_option("--in-user", args.owner, "A user's bucket (ID, e-mail, username, me)");
  command->add_option("--in-group", args.group, "A group's bucket (group ID)")->excludes(user);
  command->add_flag("--encrypted", args.encrypted, "An encrypted bucket");
  command->add_option("--object", args.object, "An object of the bucket (else the bucket's list)");
}

}  // namespace

void addAclCommands(CLI::App& jov, Context& ctx) {
  auto args = std::make_shared<AclArgs>();
  auto* acl = jov.add_subcommand("acl", "Access control lists of buckets and objects");
  acl->require_subcommand(1);

  auto* list = acl->add_subcommand("list", "List who may do what");
  addTargetOptions(list, *args);
  list->callback([&ctx, args] {
    ctx.session();
    auto entries = ctx.check(aclOf(ctx, *args)->listACLEntriesSynchronous(), "cannot list");
    std::vector<std::vector<json>> rows;
    for (const auto& entry : entries)
      rows.push_back({jov::JovACLEntry::actionName(entry->action()), entry->entityString()});
    ctx.printTable({"action", "subject"}, {"ACTION", "SUBJECT"}, rows, "(no entries)");
  });

  for (bool grant : {true, false}) {
    auto* change = acl->add_subcommand(grant ? "grant" : "revoke",
                                       grant ? "Grant an action to a subject" : "Revoke it");
    addTargetOptions(change, *args);
    change->add_option("action", args->action, "e.g. READ_EXISTING_OBJECT")
        ->required()
        ->check(CLI::IsMember(std::vector<std::string>(std::begin(kActions), std::end(kActions))));
    change->add_option("--user", args->toUser, "A user (ID, e-mail or username)");
    change->add_option("--group", args->toGroup, "A group (group ID)");
    change->add_flag("--anonymous", args->anonymous, "Callers who are not logged in");
    change->add_flag("--authenticated", args->authenticated, "Every logged-in user");
    change->callback([&ctx, args, grant] {
      ctx.session();
      auto entry =
          jov::JovACLEntry::entryWithSubject(subjectOf(ctx, *args), actionOf(args->action));
      entry->setGrant(grant);
      auto list = aclOf(ctx, *args);
      list->putACLEntry(entry);
      ctx.check(list->saveSynchronous(), grant ? "cannot grant" : "cannot revoke");
      ctx.print(
          json{{"action", args->action}, {"subject", entry->entityString()}, {"granted", grant}},
          std::string(grant ? "granted " : "revoked ") + args->action + " " +
              (grant ? "to " : "from ") + entry->entityString());
    });
  }
}

}  // namespace jovcli
