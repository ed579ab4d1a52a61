// jov: a command-line client built only on libjov's public API.
//
// `jov login` (or `jov register`) remembers the service (base URL, application ID and key) in
// the data directory and the session in the library's credential store; later commands restore
// that session and work as that user.

#include <termios.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iostream>

#include "jov/jov.hpp"

namespace {

using jov::JovGroup;
using jov::JovUser;
using nlohmann::json;

struct Options {
  std::string url, app, key, site = "us";
  std::string data;
  bool json = false;
};

std::filesystem::path profilePath() {
  return jov::Jov::dataDirectory() / "cli-profile.json";
}

// Reads a password from the terminal without echo, or a line from a pipe.
std::string readPassword(const std::string& prompt) {
  bool tty = ::isatty(STDIN_FILENO);
  termios saved{};
  if (tty) {
    std::fprintf(stderr, "%s", prompt.c_str());
    ::tcgetattr(STDIN_FILENO, &saved);
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    ::tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
  }
  std::string line;
  std::getline(std::cin, line);
  if (tty) {
    ::tcsetattr(STDIN_FILENO, TCSANOW, &saved);
    std::fprintf(stderr, "\n");
  }
  return line;
}

[[noreturn]] void fail(const std::string& what, const jov::JovError& error) {
  std::fprintf(stderr, "jov: %s: %s\n", what.c_str(), error.describe().c_str());
  std::exit(1);
}

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "jov: %s\n", what.c_str());
  std::exit(1);
}

template <class T>
T check(jov::Result<T> result, const std::string& what) {
  if (!result) fail(what, result.error());
  if constexpr (!std::is_void_v<T>) return std::move(result).value();
}

// Begins the library from the command line, else from the saved profile.
void begin(Options& o, bool saveProfile) {
  if (!o.data.empty()) jov::Jov::setDataDirectory(o.data);
  jov::JovKeyChainWrapper::useFileStore();
  if (o.app.empty()) {
    std::ifstream in(profilePath());
    json profile = json::parse(in, nullptr, false);
    if (profile.is_discarded() || !profile.is_object())
      fail("no service configured: run `jov login --url URL --app ID --key KEY USER`");
    o.url = profile.value("url", "");
    o.app = profile.value("app", "");
    o.key = profile.value("key", "");
  }
  if (o.app.empty() || o.key.empty()) fail("--app and --key are required");
  if (!o.url.empty()) {
    jov::Jov::beginWithID(o.app, o.key, o.url);
  } else {
    static const std::map<std::string, jov::JovSite> sites = {
        {"us", jov::JovSiteUS}, {"jp", jov::JovSiteJP},   {"cn", jov::JovSiteCN},
        {"sg", jov::JovSiteSG}, {"cn3", jov::JovSiteCN3}, {"eu", jov::JovSiteEU}};
    auto site = sites.find(o.site);
    if (site == sites.end()) fail("unknown site " + o.site);
    jov::Jov::beginWithID(o.app, o.key, site->second);
    o.url = jov::Jov::baseURL();
  }
  if (saveProfile) {
    std::filesystem::create_directories(jov::Jov::dataDirectory());
    std::ofstream(profilePath()) << json{{"url", o.url}, {"app", o.app}, {"key", o.key}}.dump(2);
    // The application key is not for other users of the machine.
    std::filesystem::permissions(
        profilePath(), std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  }
}

std::shared_ptr<JovUser> session(Options& o) {
  begin(o, false);
  auto user = jov::JovUser::authenticateWithStoredCredentialsSynchronous();
  if (!user) fail("not logged in (run `jov login`)", user.error());
  return user.value();
}

json userJSON(const JovUser& u) {
  json j = {{"userID", u.userID()}};
  if (!u.username().empty()) j["username"] = u.username();
  if (!u.email().empty()) j["email"] = u.email();
  return j;
}

json groupJSON(const JovGroup& g) {
  json j = {{"groupID", g.groupID()}, {"name", g.name()}};
  if (g.owner()) j["owner"] = g.owner()->userID();
  return j;
}

void print(const Options& o, const json& value, const std::string& text) {
  if (o.json) {
    std::printf("%s\n", value.dump(2).c_str());
  } else {
    std::printf("%s\n", text.c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"jov: work with users and groups of a Jov application from the shell"};
  app.require_subcommand(1);
  Options o;
  app.add_option("--url", o.url, "Base URL of the service (an emulator prints one)");
  app.add_option("--site", o.site, "Site when no URL is given: us, jp, cn, sg, cn3, eu");
  app.add_option("--app", o.app, "Application ID");
  app.add_option("--key", o.key, "Application key");
  app.add_option("--data", o.data, "Data directory (session and profile)");
  app.add_flag("--json", o.json, "Print JSON");

  std::string identifier, password, email, phone, name, groupID, userID, newPassword;
  std::vector<std::string> members;

  auto* reg = app.add_subcommand("register", "Register a user and log in as it");
  reg->add_option("username", identifier, "Login name")->required();
  reg->add_option("--email", email, "E-mail address");
  reg->add_option("--phone", phone, "Phone number (+...)");
  reg->callback([&] {
    begin(o, true);
    std::string pw = readPassword("Password: ");
    auto user =
        !email.empty() && !phone.empty()
            ? JovUser::userWithUsernameAndEmailAddressAndPhoneNumber(identifier, email, phone, pw)
        : !email.empty() ? JovUser::userWithUsernameAndEmailAddress(identifier, email, pw)
        : !phone.empty() ? JovUser::userWithUsernameAndPhoneNumber(identifier, phone, pw)
                         : JovUser::userWithUsername(identifier, pw);
    check(user->performRegistrationSynchronous(), "registration failed");
    print(o, userJSON(*user), "registered and logged in as " + user->userID());
  });

  auto* login = app.add_subcommand("login", "Log in (username, e-mail or +phone)");
  login->add_option("identifier", identifier, "Username, e-mail address or phone number")
      ->required();
  login->callback([&] {
    begin(o, true);
    auto user = check(JovUser::authenticateSynchronous(identifier, readPassword("Password: ")),
                      "login failed");
    print(o, userJSON(*user), "logged in as " + user->userID());
  });

  app.add_subcommand("logout", "Log out and forget the stored session")->callback([&] {
    begin(o, false);
    JovUser::logOut();
    print(o, json::object(), "logged out");
  });

  app.add_subcommand("whoami", "Show the logged-in user, fresh from the service")->callback([&] {
    auto user = session(o);
    check(user->refreshSynchronous(), "refresh failed");
    print(o, userJSON(*user), user->describe());
  });

  auto* find = app.add_subcommand("find", "Find a user by username, e-mail or phone");
  std::string by = "username";
  find->add_option("--by", by, "username, email or phone")
      ->check(CLI::IsMember({"username", "email", "phone"}));
  find->add_option("value", identifier)->required();
  find->callback([&] {
    session(o);
    auto found = by == "email"   ? JovUser::findUserByEmailSynchronous(identifier)
                 : by == "phone" ? JovUser::findUserByPhoneSynchronous(identifier)
                                 : JovUser::findUserByUsernameSynchronous(identifier);
    auto user = check(std::move(found), "lookup failed");
    print(o, userJSON(*user), user->describe());
  });

  app.add_subcommand("passwd", "Change the password")->callback([&] {
    auto user = session(o);
    std::string from = readPassword("Current password: ");
    std::string to = readPassword("New password: ");
    check(user->updatePasswordSynchronous(from, to), "password change failed");
    print(o, json::object(), "password changed");
  });

  auto* group = app.add_subcommand("group", "Work with groups");
  group->require_subcommand(1);
  auto* create = group->add_subcommand("create", "Create a group owned by you");
  create->add_option("name", name)->required();
  create->add_option("--member", members, "User ID of a member (repeatable)");
  create->callback([&] {
    session(o);
    auto g = JovGroup::groupWithName(name);
    for (const auto& id : members) g->addUser(JovUser::userWithID(id));
    check(g->saveSynchronous(), "group creation failed");
    print(o, groupJSON(*g), "created group " + g->groupID());
  });
  auto* list = group->add_subcommand("list", "List the groups you own, or belong to");
  bool memberOf = false;
  list->add_flag("--member", memberOf, "Groups you are a member of");
  list->callback([&] {
    auto user = session(o);
    auto groups =
        check(memberOf ? user->memberOfGroupsSynchronous() : user->ownerOfGroupsSynchronous(),
              "listing failed");
    json all = json::array();
    std::string text;
    for (const auto& g : groups) {
      all.push_back(groupJSON(*g));
      text += g->groupID() + "  " + g->name() + "\n";
    }
    print(o, all, text.empty() ? "(no groups)" : text.substr(0, text.size() - 1));
  });
  auto* show = group->add_subcommand("members", "List a group's members");
  show->add_option("group", groupID)->required();
  show->callback([&] {
    session(o);
    auto users =
        check(JovGroup::groupWithID(groupID)->getMemberListSynchronous(), "listing failed");
    json all = json::array();
    std::string text;
    for (const auto& u : users) {
      all.push_back(u->userID());
      text += u->userID() + "\n";
    }
    print(o, all, text.empty() ? "(no members)" : text.substr(0, text.size() - 1));
  });
  auto memberChange = [&](const char* verb, bool add) {
    auto* cmd = group->add_subcommand(verb, add ? "Add a member" : "Remove a member");
    cmd->add_option("group", groupID)->required();
    cmd->add_option("user", userID)->required();
    cmd->callback([&, add] {
      session(o);
      auto g = JovGroup::groupWithID(groupID);
      add ? g->addUser(JovUser::userWithID(userID)) : g->removeUser(JovUser::userWithID(userID));
      check(g->saveSynchronous(), "membership change failed");
      print(o, groupJSON(*g), std::string(add ? "added " : "removed ") + userID);
    });
  };
  memberChange("add", true);
  memberChange("remove", false);
  auto* rename = group->add_subcommand("rename", "Rename a group");
  rename->add_option("group", groupID)->required();
  rename->add_option("name", name)->required();
  rename->callback([&] {
    session(o);
    check(JovGroup::groupWithID(groupID)->changeGroupNameSynchronous(name), "rename failed");
    print(o, json::object(), "renamed");
  });
  auto* remove = group->add_subcommand("delete", "Delete a group");
  remove->add_option("group", groupID)->required();
  remove->callback([&] {
    session(o);
    check(JovGroup::groupWithID(groupID)->deleteSynchronous(), "delete failed");
    print(o, json::object(), "deleted");
  });

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  } catch (const std::exception& e) {
    fail(e.what());
  }
  return 0;
}
