// Drives the emulator's router with requests decoded from fuzz input, against an in-memory
// store, and aborts on an answer the service never gives: a 500, no status, or a body that is
// not JSON.
//
// Input: requests separated by a line "~~~"; each is "METHOD TARGET", header lines, an empty
// line, then the body. "{app}", "{key}", "{token}" and "{user}" stand for the application, its
// key, the access token and the ID of a user the harness registered beforehand.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "router.hpp"
#include "service.hpp"

namespace jovfuzz {

using RouteFamily = std::function<void(jovemu::Router&, jovemu::Service&)>;

class Harness {
 public:
  explicit Harness(const std::vector<RouteFamily>& families);
  ~Harness();
  /// Runs every request of the input; aborts on an answer the service never gives.
  void run(const std::uint8_t* data, std::size_t size);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace jovfuzz
