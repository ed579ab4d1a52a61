// A program from outside the repository, built against an installed libjov. It makes no request:
// application setup, a validator and an error description are enough to show that the headers,
// the library and its dependencies fit together.
#include <cstdio>
#include <jov/jov.hpp>
#include <string>

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s EXPECTED_VERSION DATA_DIR\n", argv[0]);
    return 2;
  }
  int failures = 0;
  auto check = [&](bool ok, const std::string& what) {
    if (!ok) {
      std::fprintf(stderr, "consumer: %s\n", what.c_str());
      ++failures;
    }
  };

  jov::Jov::setDataDirectory(argv[2]);
  jov::Jov::beginWithID("consumer-app", "consumer-key", jov::JovSiteJP);
  check(jov::Jov::appID() == "consumer-app", "appID() is " + jov::Jov::appID());
  check(jov::Jov::baseURL() == jov::Jov::siteBaseURL(jov::JovSiteJP).value_or("?"),
        "baseURL() is " + jov::Jov::baseURL());
  check(jov::Jov::getSDKVersion() == argv[1],
        "the library is version " + jov::Jov::getSDKVersion() + ", the package " + argv[1]);
  check(jov::emailIsValid("a@example.com") && !jov::emailIsValid("no-at-sign"), "emailIsValid");

  const auto error = jov::JovError::errorWithCode(jov::JovError::codeNonKeychainItemFound());
  check(error.domain() == "JovSDK" && error.describe().find("1204") != std::string::npos &&
            error.userInfo().contains("description"),
        "describe() is " + error.describe());

  if (failures == 0)
    std::printf("consumer: libjov %s, application %s at %s\n", jov::Jov::getSDKVersion().c_str(),
                jov::Jov::appID().c_str(), jov::Jov::baseURL().c_str());
  return failures == 0 ? 0 : 1;
}
