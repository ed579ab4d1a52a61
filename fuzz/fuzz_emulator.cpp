// The emulator's own routes: applications, the outbox, disabling users.
#include "harness.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static jovfuzz::Harness harness({jovemu::addEmulatorRoutes});
  harness.run(data, size);
  return 0;
}
