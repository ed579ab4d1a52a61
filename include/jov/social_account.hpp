#pragma once
/// @file
/// @brief Social-network providers and the record of a social account linked to a user.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace jov {

/// @brief The social networks a user account can be linked with.
enum JovSocialNetwork : std::int32_t {
  JovSocialNetworkFacebook = 0,
  JovSocialNetworkTwitter = 1,
  JovSocialNetworkGoogle = 2,
  JovSocialNetworkLive = 3,
  JovSocialNetworkLinkedIn = 4,
  JovSocialNetworkYahoo = 5,
  JovSocialNetworkDropbox = 6,
  JovSocialNetworkBox = 7,
  JovSocialNetworkRenren = 8,
  JovSocialNetworkSina = 9,
  JovSocialNetworkQQ = 10,
  JovSocialNetworkGitHub = 11,
};

/// @brief The provider of a service provider name ("facebook", "google-oauth2", "hotmail"...).
///
/// "google", "live" and "hotmail" match by prefix, every other name exactly; an unknown name
/// gives nothing.
std::optional<JovSocialNetwork> socialNetworkForProviderName(std::string_view name);

/// @brief The service's name of a provider ("facebook", "google", "live", ...).
std::string providerNameForSocialNetwork(JovSocialNetwork network);

/// @brief A social account linked to a user: provider, the account's ID there, link time.
class JovSocialAccountInfo {
 public:
  /// @brief A linked account record.
  JovSocialAccountInfo(JovSocialNetwork provider, std::string socialID,
                       std::optional<std::chrono::system_clock::time_point> createdAt)
      : provider_(provider), socialID_(std::move(socialID)), createdAt_(createdAt) {}

  /// @brief The social network.
  JovSocialNetwork provider() const { return provider_; }
  /// @brief The account's ID at the provider.
  const std::string& socialID() const { return socialID_; }
  /// @brief When the account was linked, when the service said.
  std::optional<std::chrono::system_clock::time_point> createdAt() const { return createdAt_; }

  /// @brief Equal when provider, social ID and link time are equal.
  bool operator==(const JovSocialAccountInfo&) const = default;

 private:
  JovSocialNetwork provider_;
  std::string socialID_;
  std::optional<std::chrono::system_clock::time_point> createdAt_;
};

}  // namespace jov
