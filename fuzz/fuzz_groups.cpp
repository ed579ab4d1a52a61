// Groups: creation with and without an ID, renames, members, listings, deletion.
#include "harness.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static jovfuzz::Harness harness({jovemu::addGroupRoutes});
  harness.run(data, size);
  return 0;
}
