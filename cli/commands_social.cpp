// Social accounts: `jov login --with PROVIDER` in the browser (--no-browser prints the URL) or
// with `--token T [--secret S] [--id-token I]`, and
// `jov link PROVIDER --token T`, `jov unlink PROVIDER` for the logged-in user.
#include <iostream>

#include "app.hpp"

namespace jovcli {

namespace {

using jov::JovSocialConnect;
using jov::JovSocialNetwork;
using jov::JovUser;

struct SocialArgs {
  std::string provider, token, secret, idToken;
  bool noBrowser = false;
  int timeout = 300;
};

// The network a provider name on the command line names: the service's names, "hotmail" too.
JovSocialNetwork networkNamed(const std::string& name) {
  auto network = jov::socialNetworkForProviderName(name);
  // Whole names only: the prefix rule is for the names the service sends ("google-oauth2").
  if (!network || (jov::providerNameForSocialNetwork(*network) != name && name != "hotmail"))
    throw usageError("unknown provider '" + name + "'");
  return *network;
}

jov::JovSocialToken tokenOf(const SocialArgs& args) {
  if (args.token.empty()) throw usageError("--token is required");
  return {.accessToken = args.token, .tokenSecret = args.secret, .openIDToken = args.idToken};
}

json linkedJSON(const JovUser& user) {
  json accounts = json::object();
  for (const auto& [network, info] : user.linkedSocialAccounts())
    accounts[jov::providerNameForSocialNetwork(network)] = info.socialID();
  return accounts;
}

std::string linkedText(const JovUser& user) {
  std::string text;
  for (const auto& [network, info] : user.linkedSocialAccounts())
    text += (text.empty() ? "" : ", ") + jov::providerNameForSocialNetwork(network) + " " +
            info.socialID();
  return text.empty() ? "no linked accounts" : "linked: " + text;
}

void addTokenOptions(CLI::App* command, SocialArgs& args) {
  command->add_option("--token", args.token, "The provider's access token");
  command->add_option("--secret", args.secret, "The token secret (OAuth 1.0a providers)");
  command->add_option("--id-token", args.idToken, "The provider's OpenID Connect ID token");
}

}  // namespace

void addSocialCommands(CLI::App& jov, Context& ctx) {
  auto args = std::make_shared<SocialArgs>();

  // `jov login` logs in with a password unless --with names a provider. The choice is made
  // once the line is parsed: with --with, the provider's token login replaces the password
  // login for this run (the global options are read after this point, by the login itself).
  auto* login = jov.get_subcommand("login");
  auto* identifier = login->get_option("identifier");
  identifier->required(false);
  login->add_option("--with", args->provider,
                    "Log in with a social provider: in the browser, or with --token");
  addTokenOptions(login, *args);
  login->add_flag("--no-browser", args->noBrowser,
                  "Print the sign-in URL instead of opening the browser");
  login->add_option("--timeout", args->timeout, "Seconds to wait for the browser sign-in")
      ->check(CLI::PositiveNumber);
  login->parse_complete_callback([&ctx, args, login, identifier] {
    if (args->provider.empty()) {
      if (!args->token.empty() || !args->secret.empty() || !args->idToken.empty())
        throw usageError("--token, --secret and --id-token need --with PROVIDER");
      if (identifier->empty()) throw usageError("an identifier, or --with PROVIDER, is required");
      return;
    }
    if (!identifier->empty()) throw usageError("--with logs in without an identifier");
    auto network = networkNamed(args->provider);
    // Without a token the person signs in at the provider, in a browser.
    const bool inBrowser = args->token.empty();
    std::optional<jov::JovSocialToken> token;
    if (!inBrowser) token = tokenOf(*args);
    login->callback([&ctx, args, network, token] {
      auto user = ctx.establishSession("login failed", [&] {
        if (token) return JovSocialConnect::loginWithTokenSynchronous(network, *token);
        jov::JovBrowserLoginOptions options;
        options.timeout = std::chrono::seconds(args->timeout);
        if (args->noBrowser) {
          options.openURL = [](const std::string& url) {
            std::cerr << "Open this address in a browser to sign in:\n" << url << std::endl;
            return true;
          };
        }
        return JovSocialConnect::loginInBrowserSynchronous(network, options);
      });
      ctx.print(json{{"userID", user->userID()},
                     {"displayName", orNull(user->displayName())},
                     {"linked", linkedJSON(*user)}},
                "logged in as " + user->userID() + " with " + args->provider);
    });
  });

  auto* link = jov.add_subcommand("link", "Link a social provider's account to your account");
  link->add_option("provider", args->provider, "facebook, twitter, google, github, ...")
      ->required();
  addTokenOptions(link, *args);
  link->callback([&ctx, args] {
    auto network = networkNamed(args->provider);
    auto token = tokenOf(*args);
    ctx.session();
    auto user = ctx.check(JovSocialConnect::linkWithTokenSynchronous(network, token),
                          "cannot link the " + args->provider + " account");
    ctx.print(json{{"userID", user->userID()}, {"linked", linkedJSON(*user)}}, linkedText(*user));
  });

  auto* unlink = jov.add_subcommand("unlink", "Unlink your account of a social provider");
  unlink->add_option("provider", args->provider, "facebook, twitter, google, github, ...")
      ->required();
  unlink->callback([&ctx, args] {
    auto network = networkNamed(args->provider);
    ctx.session();
    auto user = ctx.check(JovSocialConnect::unlinkSynchronous(network),
                          "cannot unlink the " + args->provider + " account");
    ctx.print(json{{"userID", user->userID()}, {"linked", linkedJSON(*user)}}, linkedText(*user));
  });
}

}  // namespace jovcli
