// Push and things: installations, topics with their lists, messages and deliveries, bucket
// subscriptions and the changes they report, things, their owners, scopes and queries.
#include "harness.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static jovfuzz::Harness harness({jovemu::addBucketRoutes, jovemu::addObjectRoutes,
                                   jovemu::addPushRoutes, jovemu::addThingRoutes});
  harness.run(data, size);
  return 0;
}
