#pragma once
/// @file
/// @brief The coroutine type every operation's routine is written in (the library's own use).
///
/// A routine is a coroutine returning `Task<Result<T>>` (alias `Routine<T>`). It runs in one of
/// two modes, chosen by whoever starts it and inherited by every task it awaits:
///
/// - blocking (runSync): everything runs on the caller's thread; an exchange is sent inline and
///   nothing ever suspends for real;
/// - asynchronous (start): the routine starts on the engine's I/O thread; an exchange is added to
///   the thread's curl multi handle and the routine suspends until the answer is in, then resumes
///   on the I/O thread, as curl multi's own callbacks would. Those steps are CPU work only
///   (building requests, reading answers). A routine about to do something that may block (the
///   credential store, the preferences, SQLite, a file it reads or writes whole) first awaits
///   mayBlock(): from there on, it and everything it awaits run on the worker pool.
///
/// Awaiting a child task runs it inline; when the child finished without suspending, the parent
/// simply continues. When it suspended for real, whichever of the two finishes second (the
/// parent's await_suspend or the child's final suspend) continues the parent, so the stack never
/// grows with the number of awaits in a loop.

#include <atomic>
#include <coroutine>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "jov/result.hpp"

namespace jov::detail {

class CancelState;

/// How the routine tree runs: blocking or asynchronous, and the cancellation it answers to.
struct Env {
  bool async = false;
  /// Set by mayBlock(): the routine resumes on workers, never on the I/O thread.
  bool workers = false;
  std::shared_ptr<CancelState> cancel;
};

/// Resumes a suspended coroutine on a worker of the pool.
void resumeOnWorker(std::coroutine_handle<> handle);
/// Resumes a suspended coroutine on the engine's I/O thread, after what that thread runs now.
void resumeOnIoThread(std::coroutine_handle<> handle);
/// Resumes a coroutine of this environment after a wait ended: on the I/O thread, or on a worker
/// once the routine declared that it may block.
void resumeAfterWait(const Env& env, std::coroutine_handle<> handle);
/// True on the engine's I/O thread.
bool onIoThread();
/// Has the worker that runs this coroutine resume `next` once the current resumption returned.
/// A finished child continues its parent this way rather than by symmetric transfer: the parent
/// destroys the child's frame, which must not happen while the child's own code is on the stack.
void continueOnThisWorker(std::coroutine_handle<> next);
/// Submits work to the worker pool.
void submitToWorker(std::function<void()> work);

struct PromiseBase {
  Env* env = nullptr;
  std::coroutine_handle<> continuation;
  std::atomic<bool> ready{false};
  std::exception_ptr exception;

  std::suspend_always initial_suspend() noexcept { return {}; }
  struct FinalAwaiter {
    bool await_ready() noexcept { return false; }
    template <class P>
    std::coroutine_handle<> await_suspend(std::coroutine_handle<P> self) noexcept {
      PromiseBase& p = self.promise();
      // Second to arrive continues the parent: the parent already suspended for real.
      if (p.ready.exchange(true, std::memory_order_acq_rel) && p.continuation)
        continueOnThisWorker(p.continuation);
      return std::noop_coroutine();
    }
    void await_resume() noexcept {}
  };
  FinalAwaiter final_suspend() noexcept { return {}; }
  void unhandled_exception() noexcept { exception = std::current_exception(); }
};

/// A lazily started coroutine producing a T.
template <class T>
class [[nodiscard]] Task {
 public:
  struct promise_type : PromiseBase {
    std::optional<T> value;
    Task get_return_object() noexcept {
      return Task(std::coroutine_handle<promise_type>::from_promise(*this));
    }
    void return_value(T v) { value.emplace(std::move(v)); }
  };
  using Handle = std::coroutine_handle<promise_type>;

  Task(Task&& other) noexcept : handle_(std::exchange(other.handle_, {})) {}
  Task& operator=(Task&& other) noexcept {
    if (this != &other) {
      if (handle_) handle_.destroy();
      handle_ = std::exchange(other.handle_, {});
    }
    return *this;
  }
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;
  ~Task() {
    if (handle_) handle_.destroy();
  }

  /// The result of a finished task; rethrows what escaped the coroutine.
  T take() {
    auto& p = handle_.promise();
    if (p.exception) std::rethrow_exception(p.exception);
    return std::move(*p.value);
  }
  Handle handle() const { return handle_; }

  struct Awaiter {
    Task& task;
    bool await_ready() const noexcept { return false; }
    template <class P>
    bool await_suspend(std::coroutine_handle<P> parent) {
      auto& child = task.handle_.promise();
      child.env = parent.promise().env;
      child.continuation = parent;
      task.handle_.resume();
      // First to arrive: true means the child is still running and will continue us.
      return !child.ready.exchange(true, std::memory_order_acq_rel);
    }
    T await_resume() { return task.take(); }
  };
  Awaiter operator co_await() && noexcept { return Awaiter{*this}; }

 private:
  explicit Task(Handle h) noexcept : handle_(h) {}
  Handle handle_;
};

/// An operation's routine: a task producing Result<T>.
template <class T>
using Routine = Task<Result<T>>;

/// Runs a task to completion on this thread, every exchange inline.
template <class T>
T runSync(Task<T> task) {
  Env env;
  auto h = task.handle();
  h.promise().env = &env;
  h.resume();
  return task.take();
}

/// The error of a routine that threw instead of returning an error (a bug, reported as 103).
JovError unexpectedError(std::exception_ptr error);

/// A fire-and-forget coroutine that owns the environment of an asynchronous run.
struct Detached {
  struct promise_type : PromiseBase {
    Env own;
    Detached get_return_object() noexcept {
      env = &own;
      return Detached{std::coroutine_handle<promise_type>::from_promise(*this)};
    }
    std::suspend_never final_suspend() noexcept { return {}; }
    void return_void() noexcept {}
  };
  std::coroutine_handle<promise_type> handle;
};

template <class T, class Done>
Detached drive(Routine<T> task, Done done) {
  std::optional<Result<T>> result;
  try {
    result.emplace(co_await std::move(task));
  } catch (...) {
    result.emplace(unexpectedError(std::current_exception()));
  }
  done(std::move(*result));
}

/// Arms the deadline of a cancellation for an asynchronous run.
void armDeadline(const std::shared_ptr<CancelState>& cancel);

/// Starts a routine asynchronously: it begins on the I/O thread and `done(Result<T>)` runs once,
/// on the thread where it ended (cancelled, failed or succeeded).
template <class T, class Done>
void start(Routine<T> task, std::shared_ptr<CancelState> cancel, Done done) {
  Detached d = drive<T>(std::move(task), std::move(done));
  d.handle.promise().own.async = true;
  d.handle.promise().own.cancel = std::move(cancel);
  armDeadline(d.handle.promise().own.cancel);
  resumeOnIoThread(d.handle);
}

/// Awaited before a step that may block: in an asynchronous run on the I/O thread the routine
/// moves to a worker, and it and what it awaits stay on workers from there on. Nothing happens
/// in a blocking run.
struct MayBlock {
  bool await_ready() const noexcept { return false; }
  template <class P>
  bool await_suspend(std::coroutine_handle<P> h) {
    Env& env = *h.promise().env;
    if (!env.async) return false;
    env.workers = true;
    if (!onIoThread()) return false;
    resumeOnWorker(h);
    return true;
  }
  void await_resume() const noexcept {}
};
inline MayBlock mayBlock() {
  return {};
}

/// The environment of the routine that awaits this: lets a routine ask whether it runs
/// asynchronously and which cancellation it answers to.
struct CurrentEnv {
  Env* env = nullptr;
  bool await_ready() const noexcept { return false; }
  template <class P>
  bool await_suspend(std::coroutine_handle<P> h) noexcept {
    env = h.promise().env;
    return false;
  }
  Env& await_resume() const noexcept { return *env; }
};

}  // namespace jov::detail
