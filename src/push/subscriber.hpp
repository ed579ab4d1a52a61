// The subscriber path of whoever is logged in, shared by the topic and bucket subscriptions.
#pragma once

#include <optional>
#include <string>

#include "jov/application.hpp"
#include "jov/encoding.hpp"
#include "jov/user.hpp"

namespace jov::detail {

/// "users/ID" of the current user; nothing when nobody is logged in.
inline std::optional<std::string> currentSubscriberPath() {
  auto user = Jov::currentUser();
  if (!user || user->userID().empty()) return std::nullopt;
  return "users/" + urlEncode(user->userID());
}

}  // namespace jov::detail
