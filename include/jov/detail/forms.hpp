#pragma once
/// @file
/// @brief The four public forms of every operation, generated from its routine (the library's
/// own use).
///
/// An entity writes an operation once, as a routine; its forms are one line each, inline in the
/// entity's header:
///
/// @code
/// Result<void> refreshSynchronous() { return detail::runSync(refreshRoutine()); }
/// void refresh(GroupBlock b, JovCancellation c = {}) { detail::runBlock(self(), refreshRoutine(),
/// std::move(b), c); } void refresh(JovCallback d, JovCancellation c = {}) {
/// detail::runCallback(self(), refreshRoutine(), std::move(d), c); } std::future<Result<void>>
/// refreshAsync(JovCancellation c = {}) { return detail::runFuture(self(), refreshRoutine(), c); }
/// @endcode
///
/// The asynchronous forms hold the entity (`self`) until the completion ran; class operations
/// pass `nullptr`. A routine that produces nothing (Result<void>) hands its entity to the block
/// or delegate when the block takes one, and only the error otherwise.

#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <tuple>
#include <type_traits>
#include <utility>

#include "jov/async.hpp"
#include "jov/cancellation.hpp"
#include "jov/detail/task.hpp"
#include "jov/result.hpp"

namespace jov::detail {

template <class T>
struct IsTuple : std::false_type {};
template <class... A>
struct IsTuple<std::tuple<A...>> : std::true_type {};

/// The block type left when the first N parameters of a block are given in advance.
template <class... Rest>
struct Trailing {
  template <class... BlockArgs, class... Lead>
  static std::function<void(Rest...)> wrap(std::function<void(BlockArgs...)> block, Lead... lead) {
    if (!block) return {};
    return [block = std::move(block), ... lead = std::move(lead)](Rest... rest) {
      block(lead..., std::move(rest)...);
    };
  }
};
template <std::size_t N, class First, class... Rest>
auto dropLeading() {
  if constexpr (N == 0) {
    return Trailing<First, Rest...>{};
  } else {
    return dropLeading<N - 1, Rest...>();
  }
}

/// Calls the block with the results first and the error last.
template <class Self, class T, class Block>
void deliver(const Self& self, const Block& block, Result<T>& result) {
  std::optional<JovError> error = result.errorIfAny();
  if constexpr (std::is_void_v<T>) {
    if constexpr (std::is_invocable_v<const Block&, Self, std::optional<JovError>>) {
      block(self, std::move(error));
    } else {
      block(std::move(error));
    }
  } else if constexpr (IsTuple<T>::value) {
    T values = result.ok() ? std::move(result.value()) : T{};
    std::apply([&](auto&... v) { block(std::move(v)..., std::move(error)); }, values);
  } else {
    block(result.ok() ? std::move(result.value()) : T{}, std::move(error));
  }
}

/// Block form: runs the routine on the engine; the block runs on the main queue.
template <class Self, class T, class Block>
void runBlock(Self self, Routine<T> routine, Block block, const JovCancellation& cancel) {
  start(std::move(routine), cancel.state(),
        [self = std::move(self), block = std::move(block)](Result<T> result) mutable {
          if (!block) return;
          JovMainQueue::post(
              [self = std::move(self), block = std::move(block),
               result = std::move(result)]() mutable { deliver(self, block, result); });
        });
}

/// The block form of a class operation: raises "completion can not be nil" without a block.
template <class T, class Block>
void runClassBlock(Routine<T> routine, Block block, const JovCancellation& cancel) {
  if (!block) throw std::invalid_argument("completion can not be nil");
  runBlock(nullptr, std::move(routine), std::move(block), cancel);
}

/// A block of (results, error) made from a block that takes some values first (the entity, an
/// argument of the call): `leading(block, self, argument)`. Empty when the block is.
template <class... BlockArgs, class... Lead>
auto leading(std::function<void(BlockArgs...)> block, Lead... lead) {
  using Rest = decltype(dropLeading<sizeof...(Lead), BlockArgs...>());
  return Rest::wrap(std::move(block), std::move(lead)...);
}

/// Delegate form: the delegate's member receives what the block would (results, then error),
/// through a second hop on the main queue as every delegate call takes. Values given as `lead`
/// come first (`runCallback(self, routine, callback, cancel, self, argument)`).
template <class Self, class T, class... Lead>
void runCallback(Self self, Routine<T> routine, JovCallback callback, const JovCancellation& cancel,
                 Lead... lead) {
  start(std::move(routine), cancel.state(),
        [self = std::move(self), callback = std::move(callback),
         lead = std::make_tuple(std::move(lead)...)](Result<T> result) mutable {
          // Nobody to tell, but the operation still ran.
          if (!callback.hasSelector()) return;
          JovMainQueue::post([self = std::move(self), callback = std::move(callback),
                              lead = std::move(lead), result = std::move(result)]() mutable {
            std::optional<JovError> error = result.errorIfAny();
            if constexpr (sizeof...(Lead) > 0) {
              static_assert(!std::is_void_v<T>);
              T values = result.ok() ? std::move(result.value()) : T{};
              std::apply(
                  [&](auto&... l) {
                    if constexpr (IsTuple<T>::value) {
                      std::apply(
                          [&](auto&... v) {
                            JovUtilities::callMethod(callback, l..., std::move(v)...,
                                                     std::move(error));
                          },
                          values);
                    } else {
                      JovUtilities::callMethod(callback, l..., std::move(values), std::move(error));
                    }
                  },
                  lead);
            } else if constexpr (std::is_void_v<T>) {
              if constexpr (std::is_same_v<Self, std::nullptr_t>) {
                JovUtilities::callMethod(callback, std::move(error));
              } else {
                JovUtilities::callMethod(callback, std::move(self), std::move(error));
              }
            } else if constexpr (IsTuple<T>::value) {
              T values = result.ok() ? std::move(result.value()) : T{};
              std::apply(
                  [&](auto&... v) { JovUtilities::callMethod(callback, std::move(v)..., error); },
                  values);
            } else {
              JovUtilities::callMethod(callback, result.ok() ? std::move(result.value()) : T{},
                                       std::move(error));
            }
          });
        });
}

/// Future form: ready on the engine's thread that finished the routine (no main-queue hop).
template <class Self, class T>
std::future<Result<T>> runFuture(Self self, Routine<T> routine, const JovCancellation& cancel) {
  auto promise = std::make_shared<std::promise<Result<T>>>();
  auto future = promise->get_future();
  start(std::move(routine), cancel.state(),
        [self = std::move(self), promise](Result<T> result) mutable {
          promise->set_value(std::move(result));
          self = nullptr;
        });
  return future;
}

}  // namespace jov::detail
