#pragma once
// The library's I/O thread: one libcurl multi handle that drives every asynchronous exchange,
// the timers of operation deadlines and retries, and the routines' CPU steps between exchanges
// (a routine that may block moves to the worker pool, see mayBlock).

#include <curl/curl.h>

#include <chrono>
#include <coroutine>
#include <functional>
#include <memory>

namespace jov::detail {

/// curl_global_init, once for the process.
void curlGlobalInit();

/// Resumes a coroutine on this thread, then the parents that finished children hand over to.
void resumeHere(std::coroutine_handle<> handle);

/// A transfer the loop drives; its easy handle is fully set up before add().
class LoopTransfer {
 public:
  virtual ~LoopTransfer() = default;
  virtual CURL* easyHandle() = 0;
  /// Runs on the I/O thread once, when the transfer ended or was cancelled
  /// (CURLE_ABORTED_BY_CALLBACK); the handle is no longer in the multi.
  virtual void transferDone(CURLcode code) = 0;
};

class IoLoop {
 public:
  using Clock = std::chrono::steady_clock;

  /// The loop, started on first use; stopped (not destroyed) when the process exits.
  static IoLoop& instance();

  /// Adds a transfer; any thread.
  void add(LoopTransfer* transfer);
  /// Ends a transfer added before; transferDone follows on the I/O thread. Any thread.
  void cancel(std::shared_ptr<LoopTransfer> transfer);
  /// Runs `fire` on the I/O thread at `when` (it must be short: it may not block).
  void addTimer(Clock::time_point when, std::function<void()> fire);
  /// Resumes a coroutine on the I/O thread; from the I/O thread itself, once what runs now
  /// returned (never nested). Any thread.
  void post(std::coroutine_handle<> handle);

  /// True once the process began to exit: late work is dropped instead of run.
  static bool exiting();

  class Impl;

 private:
  IoLoop();
  Impl* impl_;
};

}  // namespace jov::detail
