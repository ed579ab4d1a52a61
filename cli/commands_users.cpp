// Users: register, login, logout, whoami, find, passwd.
#include "app.hpp"

namespace jovcli {

namespace {

using jov::JovUser;

// The name a person knows the user by.
std::string nameOf(const JovUser& user) {
  for (const auto* name : {&user.username(), &user.email(), &user.phoneNumber()})
    if (!name->empty()) return *name;
  return user.userID();
}

json userJSON(const JovUser& user) {
  return {{"userID", orNull(user.userID())},
          {"username", orNull(user.username())},
          {"displayName", orNull(user.displayName())},
          {"email", orNull(user.email())},
          {"phoneNumber", orNull(user.phoneNumber())}};
}

std::string userText(const JovUser& user) {
  std::string text = nameOf(user);
  if (!user.displayName().empty()) text += " (" + user.displayName() + ")";
  return text + "  " + user.userID();
}

std::string verification(const std::string& address, bool verified, const std::string& pending) {
  std::string text =
      address.empty() ? "-" : address + (verified ? " (verified)" : " (not verified)");
  if (!pending.empty()) text += ", changing to " + pending + " (not verified)";
  return text;
}

void whoami(Context& ctx) {
  auto user = ctx.session();
  ctx.check(user->refreshSynchronous(), "cannot read your account");
  auto expiry = user->accessTokenExpiresAt();
  json value = userJSON(*user);
  value["emailVerified"] = user->emailVerified();
  value["pendingEmail"] = orNull(user->pendingEmail());
  value["phoneVerified"] = user->phoneVerified();
  value["pendingPhoneNumber"] = orNull(user->pendingPhoneNumber());
  value["pseudoUser"] = user->isPseudoUser();
  value["tokenExpiresAt"] = expiry ? json(isoTime(*expiry)) : json(nullptr);
  value["baseURL"] = jov::Jov::baseURL();
  value["appID"] = jov::Jov::appID();

  std::string text = nameOf(*user);
  if (!user->displayName().empty()) text += " (" + user->displayName() + ")";
  if (user->isPseudoUser()) text += ", pseudo user";
  text += "\n  user ID        " + user->userID();
  text += "\n  e-mail         " +
          verification(user->email(), user->emailVerified(), user->pendingEmail());
  text += "\n  phone          " +
          verification(user->phoneNumber(), user->phoneVerified(), user->pendingPhoneNumber());
  text += "\n  session until  " + (expiry ? localTime(*expiry) : std::string("-"));
  text += "\n  service        " + jov::Jov::appID() + " at " + jov::Jov::baseURL();
  ctx.print(value, text);
}

}  // namespace

void addUserCommands(CLI::App& jov, Context& ctx) {
  struct Args {
    std::string identifier, email, phone, by;
  };
  auto args = std::make_shared<Args>();

  auto* reg = jov.add_subcommand("register", "Register a user and log in as it");
  reg->add_option("username", args->identifier, "Login name")->required();
  reg->add_option("--email", args->email, "E-mail address");
  reg->add_option("--phone", args->phone, "Phone number (+...)");
  reg->callback([&ctx, args] {
    auto user = ctx.establishSession("registration failed", [&] {
      std::string password = ctx.readNewPassword("Password: ");
      const auto& [name, email, phone, by] = *args;
      auto user =
          !email.empty() && !phone.empty()
              ? JovUser::userWithUsernameAndEmailAddressAndPhoneNumber(name, email, phone, password)
          : !email.empty() ? JovUser::userWithUsernameAndEmailAddress(name, email, password)
          : !phone.empty() ? JovUser::userWithUsernameAndPhoneNumber(name, phone, password)
                           : JovUser::userWithUsername(name, password);
      auto registered = user->performRegistrationSynchronous();
      if (!registered) return jov::Result<JovUser::Ptr>(registered.error());
      return jov::Result<JovUser::Ptr>(user);
    });
    ctx.print(userJSON(*user), "registered and logged in as " + nameOf(*user));
  });

  auto* login = jov.add_subcommand("login", "Log in with a username, e-mail address or +phone");
  login->add_option("identifier", args->identifier, "Username, e-mail address or phone number")
      ->required();
  login->callback([&ctx, args] {
    auto user = ctx.establishSession("login failed", [&] {
      return JovUser::authenticateSynchronous(args->identifier, ctx.readPassword("Password: "));
    });
    ctx.print(userJSON(*user), "logged in as " + nameOf(*user));
  });

  jov.add_subcommand("logout", "Log out and forget the stored session")->callback([&ctx] {
    ctx.begin();
    JovUser::logOut();
    ctx.print(json{{"loggedOut", true}}, "logged out");
  });

  jov.add_subcommand("whoami", "Show the logged-in user, fresh from the service")->callback([&ctx] {
    whoami(ctx);
  });

  auto* find = jov.add_subcommand("find", "Show a user given by ID, e-mail, +phone or username");
  find->add_option("user", args->identifier, "User ID, e-mail address, +phone or username")
      ->required();
  find->add_option("--by", args->by, "Look up only by username, email or phone")
      ->check(CLI::IsMember({"username", "email", "phone"}));
  find->callback([&ctx, args] {
    ctx.session();
    const auto& value = args->identifier;
    auto user = args->by.empty() ? ctx.resolveUser(value)
                : args->by == "email"
                    ? ctx.check(JovUser::findUserByEmailSynchronous(value), "lookup failed")
                : args->by == "phone"
                    ? ctx.check(JovUser::findUserByPhoneSynchronous(value), "lookup failed")
                    : ctx.check(JovUser::findUserByUsernameSynchronous(value), "lookup failed");
    ctx.print(userJSON(*user), userText(*user));
  });

  jov.add_subcommand("passwd", "Change your password")->callback([&ctx] {
    auto user = ctx.session();
    std::string from = ctx.readPassword("Current password: ");
    std::string to = ctx.readNewPassword("New password: ");
    ctx.check(user->updatePasswordSynchronous(from, to), "password change failed");
    ctx.print(json{{"passwordChanged", true}}, "password changed");
  });
}

}  // namespace jovcli
