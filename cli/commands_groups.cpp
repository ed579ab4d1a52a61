// Groups: create, list, members, add, remove, rename, delete.
#include "app.hpp"

namespace jovcli {

namespace {

using jov::JovGroup;
using jov::JovUser;

json groupJSON(const JovGroup& group) {
  return {{"groupID", orNull(group.groupID())},
          {"name", orNull(group.name())},
          {"owner", group.owner() ? orNull(group.owner()->userID()) : json(nullptr)}};
}

}  // namespace

void addGroupCommands(CLI::App& jov, Context& ctx) {
  struct Args {
    std::string group, name;
    std::vector<std::string> users;
    bool memberOf = false;
  };
  auto args = std::make_shared<Args>();

  auto* group = jov.add_subcommand("group", "Work with groups");
  group->require_subcommand(1);

  auto* create = group->add_subcommand("create", "Create a group owned by you");
  create->add_option("name", args->name, "Name of the group")->required();
  create->add_option("--member", args->users, "A member: user ID, e-mail or username (repeatable)");
  create->callback([&ctx, args] {
    ctx.session();
    auto g = JovGroup::groupWithName(args->name);
    for (const auto& user : args->users) g->addUser(ctx.resolveUser(user));
    ctx.check(g->saveSynchronous(), "cannot create the group");
    ctx.print(groupJSON(*g), "created group " + g->groupID() + " \"" + g->name() + "\"");
  });

  auto* list = group->add_subcommand("list", "List the groups you own, or belong to");
  list->add_flag("--member", args->memberOf, "Groups you are a member of");
  list->callback([&ctx, args] {
    auto user = ctx.session();
    auto groups = ctx.check(
        args->memberOf ? user->memberOfGroupsSynchronous() : user->ownerOfGroupsSynchronous(),
        "cannot list the groups");
    std::vector<std::vector<json>> rows;
    for (const auto& g : groups) {
      auto value = groupJSON(*g);
      rows.push_back({value["groupID"], value["name"], value["owner"]});
    }
    ctx.printTable({"groupID", "name", "owner"}, {"GROUP ID", "NAME", "OWNER"}, rows,
                   "(no groups)");
  });

  auto* members = group->add_subcommand("members", "List a group's members");
  members->add_option("group", args->group, "Group ID")->required();
  members->callback([&ctx, args] {
    ctx.session();
    auto users = ctx.check(JovGroup::groupWithID(args->group)->getMemberListSynchronous(),
                           "cannot list the members");
    std::vector<std::vector<json>> rows;
    for (const auto& u : users) rows.push_back({orNull(u->userID())});
    ctx.printTable({"userID"}, {"USER ID"}, rows, "(no members)");
  });

  for (bool add : {true, false}) {
    auto* change = group->add_subcommand(add ? "add" : "remove",
                                         add ? "Add members to a group" : "Remove members");
    change->add_option("group", args->group, "Group ID")->required();
    change->add_option("users", args->users, "User IDs, e-mail addresses or usernames")->required();
    change->callback([&ctx, args, add] {
      ctx.session();
      auto g = JovGroup::groupWithID(args->group);
      std::vector<std::string> ids;
      for (const auto& name : args->users) {
        auto user = ctx.resolveUser(name);
        add ? g->addUser(user) : g->removeUser(user);
        ids.push_back(user->userID());
      }
      ctx.check(g->saveSynchronous(), "cannot change the members");
      std::string text = add ? "added to " : "removed from ";
      ctx.print(json{{"groupID", args->group}, {add ? "added" : "removed", ids}},
                text + args->group + ": " + std::to_string(ids.size()) + " user(s)");
    });
  }

  auto* rename = group->add_subcommand("rename", "Rename a group");
  rename->add_option("group", args->group, "Group ID")->required();
  rename->add_option("name", args->name, "New name")->required();
  rename->callback([&ctx, args] {
    ctx.session();
    auto g = JovGroup::groupWithID(args->group);
    ctx.check(g->changeGroupNameSynchronous(args->name), "cannot rename the group");
    ctx.print(json{{"groupID", args->group}, {"name", args->name}},
              "renamed " + args->group + " to \"" + args->name + "\"");
  });

  auto* remove = group->add_subcommand("delete", "Delete a group (asks first; --yes does not)");
  remove->add_option("group", args->group, "Group ID")->required();
  remove->callback([&ctx, args] {
    ctx.confirm("Delete group " + args->group + "?");
    ctx.session();
    ctx.check(JovGroup::groupWithID(args->group)->deleteSynchronous(), "cannot delete the group");
    ctx.print(json{{"groupID", args->group}, {"deleted", true}}, "deleted " + args->group);
  });
}

}  // namespace jovcli
