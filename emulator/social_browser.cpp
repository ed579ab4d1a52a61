// Login through a browser, the way native applications do OAuth: the application opens
// GET /api/apps/APP/oauth2/authorize/PROVIDER?redirect_uri=R&state=S&code_challenge=C
// &code_challenge_method=S256 in the system browser; the service sends the browser to the
// provider's authorization page (here a stand-in at /emulator/provider/PROVIDER/authorize, a
// login form for the provider accounts made through /emulator/social/PROVIDER/accounts, whose
// password is the account's access token); the provider sends it back to the service, which
// redirects to R (a loopback address only) with a one-time code and S; the application trades
// the code and its PKCE verifier for the user's tokens (grant "authorization_code").
//
// Pending authorizations and codes live in memory: a login in a browser lasts minutes.
#include <openssl/evp.h>

#include <map>
#include <mutex>
#include <regex>

#include "api_error.hpp"
#include "crypto.hpp"
#include "social_login.hpp"

namespace jovemu {

namespace {

constexpr std::int64_t kPendingLifetimeMs = 10 * 60 * 1000;
constexpr std::int64_t kCodeLifetimeMs = 60 * 1000;

struct Pending {
  std::string appID, provider, redirectURI, state, challenge;
  std::int64_t created = 0;
  // Set once the provider authorized: the account, and the code handed out for it.
  std::string socialID, code;
  bool used = false;
};

struct Authorizations {
  std::mutex mutex;
  std::map<std::string, Pending> byRequest;   // request ID -> authorization
  std::map<std::string, std::string> byCode;  // code -> request ID

  void expire(std::int64_t now) {
    for (auto it = byRequest.begin(); it != byRequest.end();) {
      if (now - it->second.created > kPendingLifetimeMs) {
        byCode.erase(it->second.code);
        it = byRequest.erase(it);
      } else {
        ++it;
      }
    }
  }
};

Authorizations& authorizations() {
  static Authorizations a;
  return a;
}

// http://127.0.0.1:PORT/..., http://[::1]:PORT/... or http://localhost:PORT/...: the only
// places a desktop application can listen, and the only ones a code is sent to.
bool isLoopbackRedirect(const std::string& uri) {
  static const std::regex loopback(
      R"(http://(127\.0\.0\.1|\[::1\]|localhost):[0-9]{1,5}(/[^#]*)?)");
  return std::regex_match(uri, loopback);
}

std::string base64url(const unsigned char* bytes, std::size_t length) {
  std::string out(4 * ((length + 2) / 3) + 1, '\0');
  out.resize(static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                                      bytes, static_cast<int>(length))));
  for (char& c : out) {
    if (c == '+') c = '-';
    if (c == '/') c = '_';
  }
  while (!out.empty() && out.back() == '=') out.pop_back();
  return out;
}

std::string challengeOf(const std::string& verifier) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(verifier.data(), verifier.size(), digest, &length, EVP_sha256(), nullptr);
  return base64url(digest, length);
}

std::string percentEncode(const std::string& text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

std::string htmlEscape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

void redirect(Call& call, const std::string& to) {
  call.setHeader("Location", to);
  call.setHeader("Cache-Control", "no-store");
  call.response().status = 302;
}

// Back to the application with the outcome (and the state it sent).
std::string backTo(const Pending& p, const std::string& query) {
  const char joiner = p.redirectURI.find('?') == std::string::npos ? '?' : '&';
  return p.redirectURI + joiner + query + "&state=" + percentEncode(p.state);
}

void authorize(Service& service, Call& call) {
  const std::string& appID = call.param(0);
  const std::string& provider = call.param(1);
  if (!service.apps.exists(appID))
    throw ApiError(404, "APP_NOT_FOUND", "The application was not found");
  const auto redirectURI = call.query("redirect_uri").value_or("");
  if (!isLoopbackRedirect(redirectURI))
    throw invalidInput("redirect_uri - must be an http address on the loopback interface");
  Pending p{appID,
            provider,
            redirectURI,
            call.query("state").value_or(""),
            call.query("code_challenge").value_or(""),
            Service::now(),
            {},
            {},
            false};
  if (!isKnownProvider(provider)) {
    redirect(call, backTo(p, "error=invalid_provider"));
    return;
  }
  if (p.challenge.size() < 43 || call.query("code_challenge_method").value_or("") != "S256") {
    redirect(call, backTo(p, "error=invalid_request"));
    return;
  }
  const std::string request = randomHex(16);
  {
    auto& all = authorizations();
    std::lock_guard lock(all.mutex);
    all.expire(Service::now());
    all.byRequest[request] = p;
  }
  redirect(call, "/emulator/provider/" + percentEncode(provider) + "/authorize?request=" + request);
}

// The stand-in provider's page: who is signing in, and to which application.
void providerPage(Call& call, const std::string& provider, const std::string& request,
                  const std::string& problem) {
  std::string html = "<!doctype html><html><head><meta charset=\"utf-8\"><title>Sign in with " +
                     htmlEscape(provider) + "</title></head><body><h1>Sign in with " +
                     htmlEscape(provider) + "</h1>";
  if (!problem.empty()) html += "<p id=\"problem\">" + htmlEscape(problem) + "</p>";
  html += "<form id=\"login\" method=\"post\" action=\"/emulator/provider/" +
          htmlEscape(percentEncode(provider)) +
          "/authorize\"><input type=\"hidden\" name=\"request\" value=\"" + htmlEscape(request) +
          "\"><label>Account <input id=\"username\" name=\"username\"></label>"
          "<label>Password <input id=\"password\" name=\"password\" type=\"password\"></label>"
          "<button id=\"allow\" name=\"decision\" value=\"allow\">Allow</button>"
          "<button id=\"deny\" name=\"decision\" value=\"deny\">Deny</button></form></body></html>";
  call.response().set_content(html, "text/html; charset=utf-8");
  call.response().status = problem.empty() ? 200 : 401;
}

void showProviderPage(Call& call) {
  const auto request = call.query("request").value_or("");
  {
    auto& all = authorizations();
    std::lock_guard lock(all.mutex);
    if (!all.byRequest.contains(request))
      throw ApiError(404, "AUTHORIZATION_NOT_FOUND", "The authorization request has expired");
  }
  providerPage(call, call.param(0), request, "");
}

void decide(Service& service, Call& call) {
  const std::string& provider = call.param(0);
  httplib::Params form;
  httplib::detail::parse_query_text(call.rawBody(), form);
  auto field = [&form](const char* name) {
    auto it = form.find(name);
    return it == form.end() ? std::string() : it->second;
  };
  const std::string request = field("request");
  Pending p;
  {
    auto& all = authorizations();
    std::lock_guard lock(all.mutex);
    auto it = all.byRequest.find(request);
    if (it == all.byRequest.end() || it->second.provider != provider || !it->second.code.empty())
      throw ApiError(404, "AUTHORIZATION_NOT_FOUND", "The authorization request has expired");
    p = it->second;
  }
  if (field("decision") == "deny") {
    redirect(call, backTo(p, "error=access_denied"));
    return;
  }
  const std::string account = field("username");
  const bool known = service.db.transaction([&](Connection& conn) {
    auto token = providerAccountToken(conn, provider, account);
    return token && !account.empty() && *token == field("password");
  });
  if (!known) {
    providerPage(call, provider, request, "Wrong account or password.");
    return;
  }
  const std::string code = randomHex(20);
  {
    auto& all = authorizations();
    std::lock_guard lock(all.mutex);
    auto it = all.byRequest.find(request);
    if (it == all.byRequest.end() || !it->second.code.empty())
      throw ApiError(404, "AUTHORIZATION_NOT_FOUND", "The authorization request has expired");
    it->second.socialID = account;
    it->second.code = code;
    it->second.created = Service::now();
    all.byCode[code] = request;
  }
  redirect(call, backTo(p, "code=" + code));
}

ApiError badCode(const std::string& why) {
  return invalidGrant(why);
}

}  // namespace

SocialLogin authorizationCodeLogin(Service& service, const std::string& appID,
                                   const nlohmann::json& body, std::int64_t expiresAt,
                                   std::string& providerToken) {
  const auto code = optionalString(body, "code").value_or("");
  const auto verifier = optionalString(body, "code_verifier").value_or("");
  const auto redirectURI = optionalString(body, "redirect_uri").value_or("");
  Pending p;
  {
    auto& all = authorizations();
    std::lock_guard lock(all.mutex);
    auto byCode = all.byCode.find(code);
    if (code.empty() || byCode == all.byCode.end()) throw badCode("The code is not valid");
    auto it = all.byRequest.find(byCode->second);
    // A code works once, for a minute, for the application it was made for.
    all.byCode.erase(byCode);
    if (it == all.byRequest.end()) throw badCode("The code is not valid");
    p = it->second;
    all.byRequest.erase(it);
  }
  if (p.appID != appID || Service::now() - p.created > kCodeLifetimeMs)
    throw badCode("The code is not valid");
  if (redirectURI != p.redirectURI) throw badCode("The redirect_uri is not the one authorized");
  if (challengeOf(verifier) != p.challenge) throw badCode("The code_verifier does not match");
  return service.db.transaction([&](Connection& conn) {
    providerToken = providerAccountToken(conn, p.provider, p.socialID).value_or("");
    return loginProviderAccount(conn, appID, p.provider, p.socialID, expiresAt);
  });
}

void addSocialBrowserRoutes(Router& router, Service& service) {
  // Opened by a browser: no application headers, the application is in the path.
  router.add("GET", "/api/apps/{}/oauth2/authorize/{}",
             [&service](Call& call) { authorize(service, call); });
  router.add("GET", "/emulator/provider/{}/authorize", [](Call& call) { showProviderPage(call); });
  router.add("POST", "/emulator/provider/{}/authorize",
             [&service](Call& call) { decide(service, call); });
}

}  // namespace jovemu
