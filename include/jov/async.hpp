#pragma once
/// @file
/// @brief Asynchronous execution: the worker pool, the main queue, completion blocks and delegates.

#include <any>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "jov/error.hpp"

namespace jov {

/// @brief A completion block: the results first, the error last (nothing on success).
template <class... Results>
using JovBlock = std::function<void(Results..., std::optional<JovError>)>;

/// @brief Progress of a body on the move: the bytes moved so far and the total (-1 while it is
/// unknown). The blocking forms call it on the calling thread as bytes move; the other forms
/// post it to the main queue, where a report still waiting is replaced by the newer one.
using JovProgressBlock = std::function<void(std::int64_t done, std::int64_t total)>;

/// @brief The library's stand-in for the application's main thread.
///
/// Completions of the block and delegate forms are posted here in submission order. The
/// application drains the queue (run, runFor, poll) on the thread it treats as its main thread,
/// or installs an executor that hands each completion to its own event loop.
class JovMainQueue {
 public:
  /// @brief Receives each completion; it must run it later on the application's loop thread.
  ///
  /// It is called on the library's I/O thread or on one of its workers. An executor that runs
  /// the completion at once instead of handing it over runs it there: the fastest way for a
  /// completion that only starts the next operation, but one that blocks (a blocking form, a
  /// file, a lock held long) holds up every exchange in flight meanwhile.
  using Executor = std::function<void(std::function<void()>)>;

  /// @brief Posts a completion (to the executor when one is installed).
  static void post(std::function<void()> completion);
  /// @brief Runs the completions that are ready now; returns how many ran.
  static std::size_t poll();
  /// @brief Runs completions as they come for at most this long; returns how many ran.
  static std::size_t runFor(std::chrono::milliseconds duration);
  /// @brief Runs completions until at least `count` ran or the time is up; returns how many ran.
  static std::size_t runUntil(std::size_t count, std::chrono::milliseconds limit);
  /// @brief Runs completions until stop() is called.
  static void run();
  /// @brief Makes run() return after the completion it is running.
  static void stop();
  /// @brief Installs the application's executor; an empty function restores the queue.
  static void setExecutor(Executor executor);
  /// @brief Completions waiting in the queue.
  static std::size_t pending();
  /// @brief True on the thread that is draining the queue right now.
  static bool isDrainingThread();
};

/// @brief A delegate: a weakly held target and a member function to call with the results.
///
/// An empty or expired target, or a member whose parameters do not match what the operation
/// delivers, is skipped silently.
class JovCallback {
 public:
  /// @brief An empty callback: calls nothing.
  JovCallback() = default;

  /// @brief A callback to `completion` on `delegate`.
  template <class Target, class... Args>
  static JovCallback callbackWithDelegate(const std::shared_ptr<Target>& delegate,
                                          void (Target::*completion)(Args...)) {
    JovCallback cb;
    cb.delegate_ = delegate;
    cb.completion_ = erase(completion);
    return cb;
  }

  /// @brief A callback to `completion` with a `progress` member for transfers.
  template <class Target, class... Args, class... Progress>
  static JovCallback callbackWithDelegate(const std::shared_ptr<Target>& delegate,
                                          void (Target::*completion)(Args...),
                                          void (Target::*progress)(Progress...)) {
    JovCallback cb = callbackWithDelegate(delegate, completion);
    cb.progress_ = erase(progress);
    return cb;
  }

  /// @brief The target, or nullptr when empty or expired.
  std::shared_ptr<void> delegate() const { return delegate_.lock(); }
  /// @brief True when a completion member is set.
  bool hasSelector() const { return completion_.has_value(); }
  /// @brief True when a progress member is set.
  bool hasProgress() const { return progress_.has_value(); }

  /// @brief Calls the completion member now, on this thread; false when it was skipped.
  template <class... Args>
  bool invoke(Args&&... args) const {
    return call(completion_, std::forward<Args>(args)...);
  }
  /// @brief Calls the progress member now, on this thread; false when it was skipped.
  template <class... Args>
  bool invokeProgress(Args&&... args) const {
    return call(progress_, std::forward<Args>(args)...);
  }

 private:
  template <class... Args>
  using Erased = std::function<void(void*, std::decay_t<Args>...)>;

  template <class Target, class... Args>
  static std::any erase(void (Target::*member)(Args...)) {
    return Erased<Args...>([member](void* target, std::decay_t<Args>... args) {
      (static_cast<Target*>(target)->*member)(std::move(args)...);
    });
  }

  template <class... Args>
  bool call(const std::any& erased, Args&&... args) const {
    auto* fn = std::any_cast<Erased<Args...>>(&erased);
    if (fn == nullptr) return false;
    std::shared_ptr<void> target = delegate_.lock();
    if (!target) return false;
    (*fn)(target.get(), std::forward<Args>(args)...);
    return true;
  }

  std::weak_ptr<void> delegate_;
  std::any completion_;
  std::any progress_;
};

/// @brief Where work runs and where its completion is delivered.
class JovUtilities {
 public:
  /// @brief Runs the work on a worker when async is true, else at once on this thread.
  static void performRequestMethod(bool async, std::function<void()> work);
  /// @brief Submits the work to the worker pool and returns at once.
  static void performRequestMethodAsync(std::function<void()> work);
  /// @brief Runs the work at once on this thread.
  static void performRequestMethodSynchronous(const std::function<void()>& work);

  /// @brief Posts a call of the callback's completion member with these arguments to the main
  /// queue, without waiting; an empty or expired delegate is skipped when the call runs.
  template <class... Args>
  static void callMethod(const JovCallback& callback, Args... args) {
    if (!callback.hasSelector()) return;
    JovMainQueue::post([callback, tuple = std::make_tuple(std::move(args)...)]() mutable {
      std::apply([&](auto&... a) { callback.invoke(std::move(a)...); }, tuple);
    });
  }
};

namespace detail {
/// The progress block of an asynchronous form: reports go to the main queue, at most one
/// waiting there at a time (the newest values win). Empty when the block is.
JovProgressBlock progressOnMainQueue(JovProgressBlock block);
}  // namespace detail

}  // namespace jov
