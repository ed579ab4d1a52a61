#pragma once
// The users module's side of the request seam (core/session.hpp): re-login after a local
// password change, the access-token refresh rule, the bearer token and log-out.

#include <memory>

#include "core/session.hpp"

namespace jov::detail {

/// The hooks installed whenever a user becomes current (one instance for the process).
std::shared_ptr<SessionHooks> userSessionHooks();

}  // namespace jov::detail
