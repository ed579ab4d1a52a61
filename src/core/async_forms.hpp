#pragma once
// The one template behind the block, delegate and future forms of every network operation.
//
// An entity writes each operation once, as a blocking routine returning Result<T>; its other
// forms are one line each:
//
//   Result<void> JovGroup::refreshSynchronous() { return refreshRoutine(); }
//   void JovGroup::refresh(JovBlock<std::shared_ptr<JovGroup>> block) {
//     detail::runBlock(detail::withSelf(self(), &JovGroup::refreshRoutine), std::move(block));
//   }
//   void JovGroup::refresh(JovCallback cb) {
//     detail::runCallback(detail::withSelf(self(), &JovGroup::refreshRoutine), std::move(cb));
//   }
//   std::future<Result<void>> JovGroup::refreshAsync() {
//     return detail::runFuture(detail::bind(self(), &JovGroup::refreshRoutine));
//   }
//
// The work closure holds the entity (and copies of the arguments), so the entity lives until
// its completion has run.

#include <future>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "jov/async.hpp"
#include "jov/result.hpp"

namespace jov::detail {

/// An entity operation's outcome: the block receives the entity itself, then the error.
template <class E>
struct SelfResult {
  std::shared_ptr<E> self;
  std::optional<JovError> error;
};

template <class T>
void deliver(const JovBlock<T>& block, Result<T>& result) {
  if (result.ok())
    block(std::move(result.value()), std::nullopt);
  else
    block(T{}, result.error());
}
inline void deliver(const JovBlock<>& block, Result<void>& result) {
  block(result.errorIfAny());
}
template <class E>
void deliver(const JovBlock<std::shared_ptr<E>>& block, SelfResult<E>& result) {
  block(result.self, result.error);
}

template <class R>
struct BlockFor;
template <class T>
struct BlockFor<Result<T>> {
  using type = JovBlock<T>;
};
template <>
struct BlockFor<Result<void>> {
  using type = JovBlock<>;
};
template <class E>
struct BlockFor<SelfResult<E>> {
  using type = JovBlock<std::shared_ptr<E>>;
};

/// Runs the work on a worker and posts the block, with its results, to the main queue.
template <class Work>
void runBlock(Work work, typename BlockFor<std::invoke_result_t<Work&>>::type block) {
  JovUtilities::performRequestMethodAsync(
      [work = std::move(work), block = std::move(block)]() mutable {
        // The work closure (and the entity it holds) is released before the completion is
        // posted, so the completion is the last owner.
        auto result = std::make_shared<std::invoke_result_t<Work&>>([&] {
          Work local = std::move(work);
          return local();
        }());
        if (!block) return;
        JovMainQueue::post(
            [result = std::move(result), block = std::move(block)]() { deliver(block, *result); });
      });
}

/// Runs the work on a worker; the delegate's member is called on the main queue.
template <class Work>
void runCallback(Work work, JovCallback callback) {
  using Block = typename BlockFor<std::invoke_result_t<Work&>>::type;
  if (!callback.hasSelector()) {
    // Nobody to tell, but the operation still runs.
    runBlock(std::move(work), Block{});
    return;
  }
  Block block = [callback](auto... args) {
    JovUtilities::callMethod(callback, std::move(args)...);
  };
  runBlock(std::move(work), std::move(block));
}

/// Runs the work on a worker; the future becomes ready there (no main-queue hop).
template <class Work>
auto runFuture(Work work) -> std::future<std::invoke_result_t<Work&>> {
  using R = std::invoke_result_t<Work&>;
  auto promise = std::make_shared<std::promise<R>>();
  auto future = promise->get_future();
  JovUtilities::performRequestMethodAsync([work = std::move(work), promise]() mutable {
    Work local = std::move(work);
    promise->set_value(local());
  });
  return future;
}

/// Binds an entity's blocking routine and its arguments (copied) into a work closure.
template <class E, class R, class... Params, class... Args>
auto bind(std::shared_ptr<E> self, R (E::*routine)(Params...), Args&&... args) {
  return [self = std::move(self), routine,
          ... args = std::decay_t<Args>(std::forward<Args>(args))]() mutable -> R {
    return ((*self).*routine)(args...);
  };
}

/// Like bind, for operations whose block receives the entity itself and the error.
template <class E, class... Params, class... Args>
auto withSelf(std::shared_ptr<E> self, Result<void> (E::*routine)(Params...), Args&&... args) {
  return [self = std::move(self), routine,
          ... args = std::decay_t<Args>(std::forward<Args>(args))]() mutable -> SelfResult<E> {
    Result<void> r = ((*self).*routine)(args...);
    return SelfResult<E>{self, r.errorIfAny()};
  };
}

}  // namespace jov::detail
