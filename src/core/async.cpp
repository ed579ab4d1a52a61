// The worker pool and the main queue.
//
// Both are created on first use and deliberately never destroyed: a process may return from
// main while work is in flight, and those workers must not find their pool gone. Pending
// completions are simply not run once the process exits.

#include "jov/async.hpp"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "core/io_loop.hpp"
#include "jov/application.hpp"
#include "jov/detail/task.hpp"
#include "jov/logger.hpp"

namespace jov {

namespace {

class WorkerPool {
 public:
  void submit(std::function<void()> work) {
    std::unique_lock lock(mutex_);
    queue_.push_back(std::move(work));
    // Grow up to the configured size while work waits and no thread is free.
    if (queue_.size() > idle_ && threads_ < Jov::workerPoolSize()) {
      ++threads_;
      std::thread([this] { loop(); }).detach();
    }
    lock.unlock();
    ready_.notify_one();
  }

 private:
  void loop() {
    std::unique_lock lock(mutex_);
    for (;;) {
      ++idle_;
      ready_.wait(lock, [this] { return !queue_.empty(); });
      --idle_;
      auto work = std::move(queue_.front());
      queue_.pop_front();
      lock.unlock();
      // Once the process exits, what is left is dropped: it may need what exit tears down.
      if (detail::IoLoop::exiting()) {
        work = nullptr;
        lock.lock();
        continue;
      }
      try {
        work();
      } catch (const std::exception& e) {
        // Work closures return errors as values; an escaping exception is a bug, not a crash.
        JOV_LOG(0, std::string("Uncaught exception in asynchronous work: ") + e.what());
      } catch (...) {
        JOV_LOG(0, "Uncaught exception in asynchronous work");
      }
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::function<void()>> queue_;
  std::size_t threads_ = 0;
  std::size_t idle_ = 0;
};

WorkerPool& pool() {
  static auto* p = new WorkerPool();
  return *p;
}

class MainQueue {
 public:
  void post(std::function<void()> completion) {
    JovMainQueue::Executor executor;
    {
      std::lock_guard lock(mutex_);
      executor = executor_;
      if (!executor) queue_.push_back(std::move(completion));
    }
    if (executor) {
      executor(std::move(completion));
      return;
    }
    ready_.notify_all();
  }

  // Runs completions until `count` ran, `deadline` passed, or (poll) nothing is ready.
  std::size_t drain(std::size_t count, std::chrono::steady_clock::time_point deadline, bool wait,
                    bool untilStopped) {
    std::size_t ran = 0;
    std::unique_lock lock(mutex_);
    if (untilStopped) stopped_ = false;
    while (ran < count) {
      if (queue_.empty()) {
        if (!wait) break;
        auto ready = [this] { return !queue_.empty() || stopped_; };
        if (deadline == std::chrono::steady_clock::time_point::max()) {
          ready_.wait(lock, ready);
        } else if (!ready_.wait_until(lock, deadline, ready)) {
          break;
        }
      }
      if (stopped_) {
        stopped_ = false;
        break;
      }
      auto completion = std::move(queue_.front());
      queue_.pop_front();
      lock.unlock();
      {
        ThreadMark mark;
        completion();
      }
      ++ran;
      lock.lock();
    }
    return ran;
  }

  void stop() {
    {
      std::lock_guard lock(mutex_);
      stopped_ = true;
    }
    ready_.notify_all();
  }

  void setExecutor(JovMainQueue::Executor executor) {
    std::deque<std::function<void()>> waiting;
    {
      std::lock_guard lock(mutex_);
      executor_ = executor;
      if (executor_) waiting.swap(queue_);
    }
    // Completions posted before the executor arrived go to it, in order.
    for (auto& completion : waiting) executor(std::move(completion));
  }

  std::size_t pending() {
    std::lock_guard lock(mutex_);
    return queue_.size();
  }

  static thread_local bool draining;

 private:
  struct ThreadMark {
    bool previous = draining;
    ThreadMark() { draining = true; }
    ~ThreadMark() { draining = previous; }
  };

  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<std::function<void()>> queue_;
  JovMainQueue::Executor executor_;
  bool stopped_ = false;
};

thread_local bool MainQueue::draining = false;

MainQueue& mainQueue() {
  static auto* q = new MainQueue();
  return *q;
}

}  // namespace

void JovMainQueue::post(std::function<void()> completion) {
  if (completion) mainQueue().post(std::move(completion));
}

std::size_t JovMainQueue::poll() {
  return mainQueue().drain(SIZE_MAX, std::chrono::steady_clock::now(), false, false);
}

std::size_t JovMainQueue::runFor(std::chrono::milliseconds duration) {
  return mainQueue().drain(SIZE_MAX, std::chrono::steady_clock::now() + duration, true, false);
}

std::size_t JovMainQueue::runUntil(std::size_t count, std::chrono::milliseconds limit) {
  return mainQueue().drain(count, std::chrono::steady_clock::now() + limit, true, false);
}

void JovMainQueue::run() {
  mainQueue().drain(SIZE_MAX, std::chrono::steady_clock::time_point::max(), true, true);
}

void JovMainQueue::stop() {
  mainQueue().stop();
}

void JovMainQueue::setExecutor(Executor executor) {
  mainQueue().setExecutor(std::move(executor));
}

std::size_t JovMainQueue::pending() {
  return mainQueue().pending();
}

bool JovMainQueue::isDrainingThread() {
  return MainQueue::draining;
}

void JovUtilities::performRequestMethod(bool async, std::function<void()> work) {
  if (async) {
    performRequestMethodAsync(std::move(work));
  } else {
    performRequestMethodSynchronous(work);
  }
}

void JovUtilities::performRequestMethodAsync(std::function<void()> work) {
  if (work) pool().submit(std::move(work));
}

namespace detail {

void submitToWorker(std::function<void()> work) {
  pool().submit(std::move(work));
}

namespace {
thread_local std::coroutine_handle<> tNext;
}

void continueOnThisWorker(std::coroutine_handle<> next) {
  tNext = next;
}

void resumeHere(std::coroutine_handle<> handle) {
  handle.resume();
  // A routine that finished hands over to its parent here, once its own frame is off the stack.
  while (tNext) std::exchange(tNext, {}).resume();
}

void resumeOnWorker(std::coroutine_handle<> handle) {
  pool().submit([handle] { resumeHere(handle); });
}

void resumeAfterWait(const Env& env, std::coroutine_handle<> handle) {
  if (env.workers) {
    resumeOnWorker(handle);
  } else {
    resumeOnIoThread(handle);
  }
}

JovError unexpectedError(std::exception_ptr error) {
  std::string what = "unknown exception";
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& e) {
    what = e.what();
  } catch (...) {
  }
  JOV_LOG(0, "Uncaught exception in an operation: " + what);
  return JovError::errorWithCode(JovError::codeUndefinedError(), {{"details", what}});
}

JovProgressBlock progressOnMainQueue(JovProgressBlock block) {
  if (!block) return {};
  struct Latest {
    std::mutex mutex;
    bool waiting = false;
    std::int64_t done = 0, total = -1;
  };
  auto latest = std::make_shared<Latest>();
  auto shared = std::make_shared<JovProgressBlock>(std::move(block));
  return [latest, shared](std::int64_t done, std::int64_t total) {
    {
      std::lock_guard lock(latest->mutex);
      latest->done = done;
      latest->total = total;
      if (latest->waiting) return;
      latest->waiting = true;
    }
    JovMainQueue::post([latest, shared] {
      std::int64_t done, total;
      {
        std::lock_guard lock(latest->mutex);
        latest->waiting = false;
        done = latest->done;
        total = latest->total;
      }
      (*shared)(done, total);
    });
  };
}

}  // namespace detail

void JovUtilities::performRequestMethodSynchronous(const std::function<void()>& work) {
  if (work) work();
}

}  // namespace jov
