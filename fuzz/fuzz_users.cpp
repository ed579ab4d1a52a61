// Registration, login and token refresh, user records, passwords, e-mail and phone changes.
#include "harness.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static jovfuzz::Harness harness({jovemu::addAuthRoutes, jovemu::addUserRoutes,
                                   jovemu::addPasswordRoutes, jovemu::addAddressRoutes});
  harness.run(data, size);
  return 0;
}
