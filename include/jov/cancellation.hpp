#pragma once
/// @file
/// @brief JovCancellation: cancels an asynchronous operation in flight, or bounds it by a
/// deadline.

#include <chrono>
#include <memory>
#include <optional>

namespace jov {

namespace detail {
class CancelState;
}

/// @brief A token that cancels the asynchronous operations it is given to.
///
/// Copies share one state: keep a copy, hand another to the operation, and call cancel() from any
/// thread. An operation that is cancelled (or whose deadline passes) while an exchange is in
/// flight aborts that exchange; its completion then runs exactly once with
/// JovError::codeOperationCancelled() (1301) or JovError::codeDeadlineExceeded() (1302), and
/// the entity it worked on is left as it was. An operation that already finished is not
/// affected.
///
/// @code
/// jov::JovCancellation cancel;
/// cancel.setTimeout(std::chrono::seconds(5));
/// group->refresh([](auto group, auto error) { /* ... */ }, cancel);
/// // later, from any thread:
/// cancel.cancel();
/// @endcode
class JovCancellation {
 public:
  /// @brief The clock of deadlines: monotonic, so a change of the wall clock moves none.
  using Clock = std::chrono::steady_clock;

  /// @brief A token that nothing has cancelled yet, with no deadline.
  JovCancellation();

  /// @brief Cancels every operation that holds this token; later calls do nothing.
  void cancel() const;
  /// @brief True once cancel() was called or the deadline passed.
  bool isCancelled() const;

  /// @brief Operations given this token fail with 1302 when they are still running at `when`.
  void setDeadline(Clock::time_point when);
  /// @brief A deadline this long from now.
  void setTimeout(Clock::duration timeout) { setDeadline(Clock::now() + timeout); }
  /// @brief The deadline, when one was set.
  std::optional<Clock::time_point> deadline() const;

  /// @brief The shared state (the library's own use).
  const std::shared_ptr<detail::CancelState>& state() const { return state_; }

 private:
  std::shared_ptr<detail::CancelState> state_;
};

}  // namespace jov
