#pragma once
// Writing the logged-in user's record only when it changed: a token refresh or a user refresh
// that changed nothing costs no write (two fsyncs and a rename in the file store, a round trip
// to the keyring in the Secret Service).

#include <string>

#include "jov/result.hpp"

namespace jov {
class JovUser;
}

namespace jov::detail {

/// Writes the user's record unless the record last written to the current store for this
/// service is the same.
Result<void> storeCredentialsIfChanged(const JovUser& user, const std::string& service);

}  // namespace jov::detail
