// Buckets, objects, queries and ACLs.
#include "harness.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static jovfuzz::Harness harness(
      {jovemu::addBucketRoutes, jovemu::addObjectRoutes, jovemu::addAclRoutes});
  harness.run(data, size);
  return 0;
}
