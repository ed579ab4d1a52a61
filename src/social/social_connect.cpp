// The social connectors: one per network, each holding the provider session the library
// keeps, and the checks the public forms make before any work.

#include "jov/social_connect.hpp"

#include <stdexcept>

#include "jov/error.hpp"

namespace jov {

JovSocialNetworkConnector::JovSocialNetworkConnector(JovSocialNetwork network)
    : network_(network), providerName_(providerNameForSocialNetwork(network)) {}

bool JovSocialNetworkConnector::requiresTokenSecret() const {
  // Twitter still signs its API calls with OAuth 1.0a: a token is useless without its secret.
  return network_ == JovSocialNetworkTwitter;
}

std::optional<JovSocialToken> JovSocialNetworkConnector::session() const {
  std::lock_guard lock(mutex_);
  return session_;
}

void JovSocialNetworkConnector::logOut() {
  std::lock_guard lock(mutex_);
  session_.reset();
}

void JovSocialNetworkConnector::setSession(JovSocialToken token) {
  std::lock_guard lock(mutex_);
  session_ = std::move(token);
}

JovSocialConnect& JovSocialConnect::sharedInstance() {
  // Never destroyed: a log-out may run from an exit handler after statics are gone.
  static auto* instance = new JovSocialConnect();
  return *instance;
}

std::shared_ptr<JovSocialNetworkConnector> JovSocialConnect::connector(JovSocialNetwork network) {
  checkedNetwork(network);
  std::lock_guard lock(mutex_);
  auto& slot = connectors_[network];
  if (!slot) slot = std::make_shared<JovSocialNetworkConnector>(network);
  return slot;
}

void JovSocialConnect::resetAll() {
  logOutAll();
}

void JovSocialConnect::logOutAll() {
  std::lock_guard lock(mutex_);
  for (auto& [network, connector] : connectors_) connector->logOut();
}

JovSocialNetwork JovSocialConnect::checkedNetwork(JovSocialNetwork network) {
  if (providerNameForSocialNetwork(network).empty())
    JovIllegalStateException::raiseSocialNetworkIsNotSet("unknown social network " +
                                                         std::to_string(network));
  return network;
}

const JovSocialToken& JovSocialConnect::checkedToken(JovSocialNetwork network,
                                                     const JovSocialToken& token) {
  checkedNetwork(network);
  if (token.accessToken.empty()) throw std::invalid_argument("accessToken must not nil or empty");
  if (token.tokenSecret.empty() && sharedInstance().connector(network)->requiresTokenSecret())
    throw std::invalid_argument("tokenSecret must not nil or empty");
  return token;
}

}  // namespace jov
