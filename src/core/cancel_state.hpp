#pragma once
// The state behind JovCancellation: whether (and why) an operation was cancelled, its deadline,
// and the hook that aborts the exchange in flight.

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "jov/error.hpp"

namespace jov::detail {

class CancelState {
 public:
  using Clock = std::chrono::steady_clock;

  /// Cancels with 1301 (cancel()) or 1302 (deadline); the first reason wins. Runs the hook of
  /// the exchange in flight, if any, on this thread.
  void cancel(int code) {
    std::function<void()> hook;
    {
      std::lock_guard lock(mutex_);
      if (code_ != 0) return;
      code_ = code;
      hook = std::move(hook_);
    }
    if (hook) hook();
  }

  /// The error to finish with once cancelled; nothing while the operation may go on.
  std::optional<JovError> error() const {
    std::lock_guard lock(mutex_);
    if (code_ == 0) return std::nullopt;
    return JovError::errorWithCode(code_);
  }
  bool isCancelled() const {
    std::lock_guard lock(mutex_);
    return code_ != 0;
  }

  /// Registers how to abort the exchange in flight; false (nothing registered) when the
  /// operation is already cancelled.
  bool attach(std::function<void()> hook) {
    std::lock_guard lock(mutex_);
    if (code_ != 0) return false;
    hook_ = std::move(hook);
    return true;
  }
  void detach() {
    std::function<void()> dropped;
    std::lock_guard lock(mutex_);
    dropped.swap(hook_);
  }

  void setDeadline(Clock::time_point when) {
    std::lock_guard lock(mutex_);
    deadline_ = when;
  }
  std::optional<Clock::time_point> deadline() const {
    std::lock_guard lock(mutex_);
    return deadline_;
  }

 private:
  mutable std::mutex mutex_;
  int code_ = 0;
  std::function<void()> hook_;
  std::optional<Clock::time_point> deadline_;
};

}  // namespace jov::detail
