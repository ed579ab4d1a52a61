#include "app.hpp"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <regex>
#include <set>

namespace jovcli {

namespace {

const std::map<std::string, jov::JovSite> kSites = {
    {"us", jov::JovSiteUS}, {"jp", jov::JovSiteJP},   {"cn", jov::JovSiteCN},
    {"sg", jov::JovSiteSG}, {"cn3", jov::JovSiteCN3}, {"eu", jov::JovSiteEU}};

// The name of every client code the library knows, from its own table.
const std::map<int, std::string>& codeNames() {
  static const std::map<int, std::string> names = [] {
    std::map<int, std::string> all;
#define JOVCLI_CODE_NAME(number, name, description) all.emplace(number, #name);
    JOV_ERROR_CODES(JOVCLI_CODE_NAME)
#undef JOVCLI_CODE_NAME
    return all;
  }();
  return names;
}

bool stdinIsTerminal() {
  return ::isatty(STDIN_FILENO) == 1;
}

std::string readLine() {
  std::string line;
  if (!std::getline(std::cin, line)) throw failure("no input on standard input");
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

std::string cellText(const json& value) {
  if (value.is_null()) return "-";
  if (value.is_string()) return value.get<std::string>();
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  return value.dump();
}

bool isUserID(const std::string& text) {
  static const std::regex uuid(
      "[0-9a-fA-F]{8}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{12}");
  return std::regex_match(text, uuid);
}

}  // namespace

std::string describeError(const jov::JovError& error) {
  std::string text;
  if (error.code() != 0) {
    auto name = codeNames().find(error.code());
    if (name != codeNames().end() && name->second != "JOV_NO_OPERATION") {
      text = name->second + " (" + std::to_string(error.code()) + ")";
    } else {
      text = "error " + std::to_string(error.code());
    }
    if (error.domain() != jov::JovError::kDomain) text = error.domain() + " " + text;
  }
  if (int status = error.jovHttpStatus()) {
    text += (text.empty() ? "" : ", ") + std::string("HTTP ") + std::to_string(status);
    if (auto summary = error.jovErrorSummary()) text += " " + *summary;
  } else if (auto summary = error.jovErrorSummary()) {
    text += (text.empty() ? "" : ", ") + *summary;
  }
  std::string message;
  if (auto server = error.jovErrorMessage()) {
    message = *server;
  } else if (auto d = error.userInfo().find("description");
             d != error.userInfo().end() && d->is_string()) {
    message = d->get<std::string>();
  } else if (auto known = jov::JovError::getDescription(error.code())) {
    message = *known;
  }
  while (!message.empty() && message.back() == ' ') message.pop_back();
  if (text.empty()) text = "the request failed";
  if (!message.empty()) text += ": " + message;
  // A failure below HTTP (refused, name not found, TLS) says what failed and where.
  auto detail = [&error](const char* key) {
    auto found = error.userInfo().find(key);
    return found != error.userInfo().end() && found->is_string() ? found->get<std::string>()
                                                                  : std::string();
  };
  const std::string cause = detail("cause"), url = detail("url");
  if (!cause.empty() || !url.empty()) {
    text += " (" + cause + (cause.empty() || url.empty() ? "" : ", ") + url + ")";
  }
  return text;
}

// ------------------------------------------------------------------ options and profile

void Context::addGlobalOptions(CLI::App& app) {
  // Subcommands hand options they do not know to this app, so global options may come
  // anywhere on the line; subcommands made later inherit the setting.
  app.fallthrough();
  app.add_option("--url", url_, "Base URL of the service (an emulator prints one)");
  app.add_option("--site", site_, "Hosted site instead of a URL: us, jp, cn, sg, cn3, eu")
      ->check(CLI::IsMember({"us", "jp", "cn", "sg", "cn3", "eu"}));
  app.add_option("--app", app_, "Application ID");
  app.add_option("--key", key_, "Application key");
  app.add_option("--data", data_, "Data directory (profiles and sessions)");
  app.add_option("--profile", profile_, "Profile to use (default: \"default\")")
      ->check([](const std::string& name) -> std::string {
        static const std::regex valid("[A-Za-z0-9._-]{1,64}");
        if (!std::regex_match(name, valid) || name == "." || name == "..")
          return "a profile name is 1-64 letters, digits, '.', '_' or '-'";
        return {};
      });
  app.add_flag("--json", json_, "Print JSON");
  app.add_flag("-y,--yes", yes_, "Answer yes to confirmations (needed without a terminal)");
}

bool Context::serviceOptionsGiven() const {
  return !url_.empty() || !site_.empty() || !app_.empty() || !key_.empty();
}

std::filesystem::path Context::profileDirectory() const {
  std::filesystem::path base =
      data_.empty() ? jov::Jov::dataDirectory() : std::filesystem::path(data_);
  return base / "profiles" / profile_;
}

std::filesystem::path Context::profileFile() const {
  return profileDirectory() / "profile.json";
}

std::optional<ServiceSettings> Context::loadProfile() const {
  std::ifstream in(profileFile());
  if (!in) return std::nullopt;
  json saved = json::parse(in, nullptr, false);
  if (!saved.is_object()) throw failure("profile " + profileFile().string() + " is unreadable");
  ServiceSettings settings;
  for (auto [key, field] : {std::pair{"url", &settings.url}, std::pair{"app", &settings.app},
                            std::pair{"key", &settings.key}}) {
    auto value = saved.find(key);
    if (value != saved.end() && value->is_string()) *field = value->get<std::string>();
  }
  if (!settings.complete())
    throw failure("profile " + profileFile().string() + " lacks \"url\", \"app\" or \"key\"");
  return settings;
}

void Context::saveProfile(const ServiceSettings& settings) const {
  auto directory = profileDirectory();
  std::error_code ec;
  std::filesystem::create_directories(directory, ec);
  if (ec) throw failure("cannot create " + directory.string() + ": " + ec.message());
  std::string text =
      json{{"url", settings.url}, {"app", settings.app}, {"key", settings.key}}.dump(2) + "\n";
  // The application key is not for other users of the machine: 0600 from the start, and a
  // rename so that a crash leaves the old profile or the new one.
  auto temporary = profileFile().string() + ".tmp";
  int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  bool written =
      fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  written = fd >= 0 && ::fsync(fd) == 0 && written;
  if (fd >= 0) ::close(fd);
  if (!written || ::rename(temporary.c_str(), profileFile().c_str()) != 0) {
    std::string reason = std::strerror(errno);
    ::unlink(temporary.c_str());
    throw failure("cannot save the profile " + profileFile().string() + ": " + reason);
  }
}

ServiceSettings Context::settingsFromCommandLine(
    const std::optional<ServiceSettings>& saved) const {
  if (!url_.empty() && !site_.empty()) throw usageError("give --url or --site, not both");
  ServiceSettings settings;
  if (!url_.empty()) {
    settings.url = url_;
  } else if (!site_.empty()) {
    settings.url = jov::Jov::siteBaseURL(kSites.at(site_)).value_or("");
  } else if (saved) {
    settings.url = saved->url;
  } else if (!app_.empty() || !key_.empty()) {
    throw usageError("--app and --key need --url or --site (no saved profile \"" + profile_ +
                     "\")");
  }
  settings.app = !app_.empty() ? app_ : saved ? saved->app : "";
  settings.key = !key_.empty() ? key_ : saved ? saved->key : "";
  if (!settings.complete()) {
    throw usageError("no service for profile \"" + profile_ +
                     "\": give --url URL (or --site), --app ID and --key KEY");
  }
  return settings;
}

void Context::startLibrary(const ServiceSettings& settings) {
  jov::Jov::setDataDirectory(profileDirectory());
  try {
    jov::Jov::beginWithID(settings.app, settings.key, settings.url);
  } catch (const std::invalid_argument& error) {
    throw usageError(error.what());
  }
  begun_ = true;
}

void Context::begin() {
  if (begun_) return;
  auto saved = loadProfile();
  if (!saved) {
    if (serviceOptionsGiven()) {
      throw usageError("--url, --site, --app and --key are for login and register");
    }
    throw failure("not logged in (profile \"" + profile_ +
                  "\"): run `jov login --url URL --app ID --key KEY USER`");
  }
  if (serviceOptionsGiven()) {
    auto given = settingsFromCommandLine(saved);
    if (given.url != saved->url || given.app != saved->app || given.key != saved->key) {
      throw usageError("profile \"" + profile_ +
                       "\" uses another service: log in to change it, or use --profile");
    }
  }
  startLibrary(*saved);
}

std::shared_ptr<jov::JovUser> Context::session() {
  begin();
  auto user = jov::JovUser::authenticateWithStoredCredentialsSynchronous();
  if (!user) {
    if (user.error().code() == jov::JovError::codeNonKeychainItemFound()) {
      throw failure("not logged in (profile \"" + profile_ + "\"): run `jov login USER`");
    }
    throw failure("no usable session: " + describeError(user.error()));
  }
  return user.value();
}

std::shared_ptr<jov::JovUser> Context::establishSession(
    const std::string& what,
    const std::function<jov::Result<std::shared_ptr<jov::JovUser>>()>& attempt) {
  auto settings = settingsFromCommandLine(loadProfile());
  startLibrary(settings);
  // The library ends the current session before it logs in; that must happen in a store of
  // its own, so that a refused login leaves the stored session alone.
  auto store = jov::JovKeyChainWrapper::store();
  jov::JovKeyChainWrapper::useMemoryStore();
  jov::Result<std::shared_ptr<jov::JovUser>> result = [&] {
    try {
      return attempt();
    } catch (...) {
      jov::JovKeyChainWrapper::setStore(store);
      throw;
    }
  }();
  jov::JovKeyChainWrapper::setStore(store);
  auto user = check(std::move(result), what);
  check(jov::JovKeyChainWrapper::createJovUser(*user,
                                               jov::JovKeyChainWrapper::kUserCredentialsService),
        "cannot store the session");
  saveProfile(settings);
  return user;
}

std::shared_ptr<jov::JovUser> Context::resolveUser(const std::string& argument) {
  if (argument.empty()) throw usageError("a user argument must not be empty");
  jov::Result<std::shared_ptr<jov::JovUser>> found = [&]() -> decltype(found) {
    if (isUserID(argument)) {
      auto user = jov::JovUser::userWithID(argument);
      auto refreshed = user->refreshSynchronous();
      if (!refreshed) return refreshed.error();
      return user;
    }
    if (argument.find('@') != std::string::npos)
      return jov::JovUser::findUserByEmailSynchronous(argument);
    if (argument.front() == '+') return jov::JovUser::findUserByPhoneSynchronous(argument);
    return jov::JovUser::findUserByUsernameSynchronous(argument);
  }();
  if (!found) {
    // Lookups and record reads answer an unknown user differently; say it one way.
    const auto& error = found.error();
    if (error.code() == 0 && error.jovHttpStatus() == 404) {
      throw failure("user \"" + argument + "\": " +
                    describeError(jov::JovError(jov::JovError::codeUserNotFound(), error.userInfo(),
                                                error.domain())));
    }
    throw failure("user \"" + argument + "\": " + describeError(error));
  }
  return found.value();
}

// ------------------------------------------------------------------ output

void Context::print(const json& value, const std::string& text) const {
  if (json_) {
    std::cout << value.dump(2) << "\n";
  } else if (!text.empty()) {
    std::cout << text << "\n";
  }
}

void Context::printTable(const std::vector<std::string>& keys,
                         const std::vector<std::string>& headers,
                         const std::vector<std::vector<json>>& rows,
                         const std::string& empty) const {
  if (json_) {
    json all = json::array();
    for (const auto& row : rows) {
      json object = json::object();
      for (std::size_t i = 0; i < keys.size(); ++i) object[keys[i]] = row.at(i);
      all.push_back(std::move(object));
    }
    std::cout << all.dump(2) << "\n";
    return;
  }
  if (rows.empty()) {
    std::cout << empty << "\n";
    return;
  }
  std::vector<std::size_t> widths;
  for (const auto& header : headers) widths.push_back(header.size());
  for (const auto& row : rows)
    for (std::size_t i = 0; i < widths.size(); ++i)
      widths[i] = std::max(widths[i], cellText(row.at(i)).size());
  auto line = [&](const std::vector<std::string>& cells) {
    std::string text;
    for (std::size_t i = 0; i < cells.size(); ++i) {
      text += cells[i];
      if (i + 1 < cells.size()) text += std::string(widths[i] - cells[i].size() + 2, ' ');
    }
    std::cout << text << "\n";
  };
  line(headers);
  for (const auto& row : rows) {
    std::vector<std::string> cells;
    for (const auto& value : row) cells.push_back(cellText(value));
    line(cells);
  }
}

std::string localTime(std::chrono::system_clock::time_point when) {
  std::time_t t = std::chrono::system_clock::to_time_t(when);
  std::tm local{};
  ::localtime_r(&t, &local);
  char buffer[64];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S %Z", &local);
  return buffer;
}

std::string isoTime(std::chrono::system_clock::time_point when) {
  std::time_t t = std::chrono::system_clock::to_time_t(when);
  std::tm utc{};
  ::gmtime_r(&t, &utc);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return buffer;
}

json orNull(const std::string& text) {
  return text.empty() ? json(nullptr) : json(text);
}

json assignments(const std::vector<std::string>& set) {
  json fields = json::object();
  for (const auto& assignment : set) {
    const auto equals = assignment.find('=');
    if (equals == std::string::npos || equals == 0)
      throw usageError("--set needs KEY=VALUE, not \"" + assignment + "\"");
    const std::string text = assignment.substr(equals + 1);
    json value = json::parse(text, nullptr, false);
    fields[assignment.substr(0, equals)] =
        value.is_discarded() || value.is_null() ? json(text) : std::move(value);
  }
  return fields;
}

std::string emulatorAppURL(const std::string& suffix) {
  std::string root = jov::Jov::baseURL();
  while (!root.empty() && root.back() == '/') root.pop_back();
  constexpr std::string_view kApi = "/api";
  if (root.ends_with(kApi)) root.resize(root.size() - kApi.size());
  return root + "/emulator/apps/" + jov::urlEncode(jov::Jov::appID()) + suffix;
}

// ------------------------------------------------------------------ prompts

std::string Context::readPassword(const std::string& prompt) const {
  if (!stdinIsTerminal()) return readLine();
  std::fprintf(stderr, "%s", prompt.c_str());
  termios saved{};
  ::tcgetattr(STDIN_FILENO, &saved);
  termios quiet = saved;
  quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  ::tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
  std::string line;
  bool got = static_cast<bool>(std::getline(std::cin, line));
  ::tcsetattr(STDIN_FILENO, TCSANOW, &saved);
  std::fprintf(stderr, "\n");
  if (!got) throw failure("no password given");
  return line;
}

std::string Context::readNewPassword(const std::string& prompt) const {
  std::string first = readPassword(prompt);
  if (!stdinIsTerminal()) return first;
  if (readPassword("Repeat it: ") != first) throw failure("the passwords do not match");
  return first;
}

void Context::confirm(const std::string& question) const {
  if (yes_) return;
  if (!stdinIsTerminal()) {
    throw usageError(question + " Refused: standard input is not a terminal; add --yes");
  }
  std::fprintf(stderr, "%s [y/N] ", question.c_str());
  std::string answer;
  if (!std::getline(std::cin, answer)) answer.clear();
  if (answer != "y" && answer != "Y" && answer != "yes") throw failure("cancelled");
}

// ------------------------------------------------------------------ completion

std::string bashCompletion(const CLI::App& app) {
  // Every command path ("", " group", " group add") with the words that may follow it.
  std::vector<std::pair<std::string, std::string>> paths;
  std::vector<std::string> globals;
  for (const auto* option : app.get_options()) {
    for (const auto& name : option->get_lnames()) globals.push_back("--" + name);
  }
  auto joined = [](const std::vector<std::string>& words) {
    std::string text;
    std::set<std::string> seen;
    for (const auto& w : words)
      if (seen.insert(w).second) text += (text.empty() ? "" : " ") + w;
    return text;
  };
  std::function<void(const CLI::App&, const std::string&)> walk = [&](const CLI::App& command,
                                                                      const std::string& path) {
    std::vector<std::string> words;
    for (const auto* sub : command.get_subcommands({})) words.push_back(sub->get_name());
    if (&command != &app) {
      for (const auto* option : command.get_options()) {
        for (const auto& name : option->get_lnames()) words.push_back("--" + name);
      }
    }
    words.insert(words.end(), globals.begin(), globals.end());
    paths.emplace_back(path, joined(words));
    for (const auto* sub : command.get_subcommands({})) walk(*sub, path + " " + sub->get_name());
  };
  walk(app, "");

  std::string known, cases;
  for (const auto& [path, words] : paths) {
    if (!path.empty()) known += (known.empty() ? "\"" : "|\"") + path + "\"";
    cases += "    \"" + path + "\") words=\"" + words + "\" ;;\n";
  }
  return "# bash completion for jov: source <(jov completion bash)\n"
         "_jov() {\n"
         "  local cur=${COMP_WORDS[COMP_CWORD]} path=\"\" words=\"\" i\n"
         "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
         "    case \"$path ${COMP_WORDS[i]}\" in\n"
         "      " +
         known +
         ") path=\"$path ${COMP_WORDS[i]}\" ;;\n"
         "    esac\n"
         "  done\n"
         "  case \"$path\" in\n" +
         cases +
         "  esac\n"
         "  COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
         "}\n"
         "complete -F _jov jov\n";
}

std::shared_ptr<jov::JovBucket> bucketNamed(Context& ctx, const std::string& name,
                                            const std::string& user, const std::string& group,
                                            bool encrypted) {
  if (!jov::JovBucket::isValidBucketName(name)) throw usageError("invalid bucket name: " + name);
  if (!user.empty()) {
    auto owner = user == "me" ? jov::Jov::currentUser() : ctx.resolveUser(user);
    return encrypted ? owner->encryptedBucketWithName(name) : owner->bucketWithName(name);
  }
  if (!group.empty()) {
    auto owner = jov::JovGroup::groupWithID(group);
    return encrypted ? owner->encryptedBucketWithName(name) : owner->bucketWithName(name);
  }
  return encrypted ? jov::Jov::encryptedBucketWithName(name) : jov::Jov::bucketWithName(name);
}

}  // namespace jovcli
