// The service's names of the social networks a user can be linked with.

#include "jov/social_account.hpp"

#include <array>
#include <utility>

namespace jov {

namespace {

struct Provider {
  const char* name;
  JovSocialNetwork network;
  bool byPrefix;  // the service appends variants ("google-oauth2", "live-connect", "hotmail")
};

constexpr std::array<Provider, 13> kProviders{{
    {"facebook", JovSocialNetworkFacebook, false},
    {"twitter", JovSocialNetworkTwitter, false},
    {"google", JovSocialNetworkGoogle, true},
    {"live", JovSocialNetworkLive, true},
    {"hotmail", JovSocialNetworkLive, true},
    {"linkedin", JovSocialNetworkLinkedIn, false},
    {"yahoo", JovSocialNetworkYahoo, false},
    {"dropbox", JovSocialNetworkDropbox, false},
    {"box", JovSocialNetworkBox, false},
    {"renren", JovSocialNetworkRenren, false},
    {"sina", JovSocialNetworkSina, false},
    {"qq", JovSocialNetworkQQ, false},
    {"github", JovSocialNetworkGitHub, false},
}};

}  // namespace

std::optional<JovSocialNetwork> socialNetworkForProviderName(std::string_view name) {
  for (const auto& p : kProviders) {
    if (p.byPrefix ? name.starts_with(p.name) : name == p.name) return p.network;
  }
  return std::nullopt;
}

std::string providerNameForSocialNetwork(JovSocialNetwork network) {
  for (const auto& p : kProviders)
    if (p.network == network) return p.name;
  return {};
}

}  // namespace jov
