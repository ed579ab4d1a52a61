// jov: a command-line client built only on libjov's public API.
//
// `jov login` (or `jov register`) remembers the service (base URL, application ID and key) in
// the profile and the session in the library's credential store; later commands restore that
// session and work as that user. Each entity's commands live in cli/commands_<entity>.cpp and
// are added below (see app.hpp).

#include <cstdio>
#include <iostream>

#include "app.hpp"

int main(int argc, char** argv) {
  using namespace jovcli;
  CLI::App app{"jov: work with the users and groups of an application from the shell"};
  app.set_version_flag("--version", std::string("jov ") + JOV_CLI_VERSION);
  app.require_subcommand(1);
  Context ctx;
  ctx.addGlobalOptions(app);

  addUserCommands(app, ctx);
  addGroupCommands(app, ctx);
  addCodeCommands(app, ctx);
  addObjectCommands(app, ctx);
  addBodyCommands(app, ctx);
  addAclCommands(app, ctx);
  addPushCommands(app, ctx);
  addThingCommands(app, ctx);
  addSocialCommands(app, ctx);

  auto* completion = app.add_subcommand("completion", "Print a shell completion script");
  std::string shell;
  completion->add_option("shell", shell, "Shell (bash)")
      ->required()
      ->check(CLI::IsMember({"bash"}));
  completion->callback([&] { std::cout << bashCompletion(app); });

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& done) {  // --help, --version
    return app.exit(done);
  } catch (const CLI::ParseError& error) {
    app.exit(error);
    return kExitUsage;
  } catch (const CommandError& error) {
    // An answer given by the exit status alone ("is-owner": not an owner) prints nothing more.
    if (*error.what() != '\0') std::fprintf(stderr, "jov: %s\n", error.what());
    return error.status();
  } catch (const std::invalid_argument& error) {
    // The library refuses malformed arguments before any request.
    std::fprintf(stderr, "jov: %s\n", error.what());
    return kExitUsage;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "jov: %s\n", error.what());
    return kExitFailed;
  }
  return kExitOK;
}
