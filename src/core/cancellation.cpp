#include "jov/cancellation.hpp"

#include "core/cancel_state.hpp"

namespace jov {

JovCancellation::JovCancellation() : state_(std::make_shared<detail::CancelState>()) {}

void JovCancellation::cancel() const {
  state_->cancel(JovError::codeOperationCancelled());
}

bool JovCancellation::isCancelled() const {
  return state_->isCancelled();
}

void JovCancellation::setDeadline(Clock::time_point when) {
  state_->setDeadline(when);
}

std::optional<JovCancellation::Clock::time_point> JovCancellation::deadline() const {
  return state_->deadline();
}

}  // namespace jov
