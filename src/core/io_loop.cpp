#include "core/io_loop.hpp"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <queue>
#include <thread>
#include <unordered_map>
#include <vector>

#include "core/cancel_state.hpp"
#include "jov/detail/task.hpp"
#include "jov/logger.hpp"

namespace jov::detail {

namespace {
std::atomic<bool> gExiting{false};
thread_local bool tOnIoThread = false;
}  // namespace

void curlGlobalInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

class IoLoop::Impl {
 public:
  Impl() {
    curlGlobalInit();
    multi_ = curl_multi_init();
    // Exchanges to one host share its connections; over HTTP/2 they share one.
    curl_multi_setopt(multi_, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 256L);
    // Thousands of operations submitted at once queue for at most this many connections per
    // host instead of opening one each (a server refuses a flood from one client, and a browser
    // would open six).
    curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, 64L);
    thread_ = std::thread([this] { loop(); });
    std::atexit([] { stopAtExit(); });
  }

  void add(LoopTransfer* t) {
    {
      std::lock_guard lock(mutex_);
      adds_.push_back(t);
    }
    wake();
  }
  void cancel(std::shared_ptr<LoopTransfer> t) {
    {
      std::lock_guard lock(mutex_);
      cancels_.push_back(std::move(t));
    }
    wake();
  }
  void addTimer(Clock::time_point when, std::function<void()> fire) {
    {
      std::lock_guard lock(mutex_);
      timers_.push(Timer{when, seq_++, std::move(fire)});
    }
    wake();
  }
  void post(std::coroutine_handle<> handle) {
    if (tOnIoThread) {
      local_.push_back(handle);
      return;
    }
    {
      std::lock_guard lock(mutex_);
      posted_.push_back(handle);
    }
    curl_multi_wakeup(multi_);
  }

  static Impl*& current() {
    static Impl* impl = nullptr;
    return impl;
  }

 private:
  // From another thread, the loop may be asleep in curl_multi_poll; from its own thread, it
  // looks at its queues again before it sleeps.
  void wake() {
    if (tOnIoThread) {
      again_ = true;
    } else {
      curl_multi_wakeup(multi_);
    }
  }

  struct Timer {
    Clock::time_point when;
    std::uint64_t seq;
    std::function<void()> fire;
    bool operator>(const Timer& o) const { return when != o.when ? when > o.when : seq > o.seq; }
  };

  static void stopAtExit() {
    gExiting.store(true);
    Impl* impl = current();
    if (impl == nullptr) return;
    impl->stop_.store(true);
    curl_multi_wakeup(impl->multi_);
    // Transfers still in flight are abandoned with the process; their completions never run.
    if (impl->thread_.joinable()) impl->thread_.join();
  }

  void takeQueued(std::vector<LoopTransfer*>& adds,
                  std::vector<std::shared_ptr<LoopTransfer>>& cancels,
                  std::vector<std::function<void()>>& due, int& waitMs) {
    std::lock_guard lock(mutex_);
    adds.swap(adds_);
    cancels.swap(cancels_);
    local_.insert(local_.end(), posted_.begin(), posted_.end());
    posted_.clear();
    const auto now = Clock::now();
    while (!timers_.empty() && timers_.top().when <= now) {
      due.push_back(std::move(const_cast<Timer&>(timers_.top()).fire));
      timers_.pop();
    }
    if (!timers_.empty()) {
      auto ms = std::chrono::ceil<std::chrono::milliseconds>(timers_.top().when - now).count();
      waitMs = static_cast<int>(std::min<long long>(ms, waitMs));
    }
  }

  void finish(LoopTransfer* t, CURLcode code) {
    CURL* easy = t->easyHandle();
    curl_multi_remove_handle(multi_, easy);
    active_.erase(easy);
    t->transferDone(code);
  }
  LoopTransfer* transferOf(CURL* easy) const {
    auto it = active_.find(easy);
    return it == active_.end() ? nullptr : it->second;
  }

  // Runs the coroutines posted to this thread, and those they post in turn.
  void runLocal() {
    while (!local_.empty()) {
      running_.swap(local_);
      for (auto handle : running_) {
        // Routines return errors as values; what escapes is a completion an executor ran here.
        try {
          resumeHere(handle);
        } catch (const std::exception& e) {
          JOV_LOG(0, std::string("Uncaught exception on the I/O thread: ") + e.what());
        } catch (...) {
          JOV_LOG(0, "Uncaught exception on the I/O thread");
        }
      }
      running_.clear();
    }
  }

  void loop() {
    tOnIoThread = true;
    std::vector<LoopTransfer*> adds;
    std::vector<std::shared_ptr<LoopTransfer>> cancels;
    std::vector<std::function<void()>> due;
    while (!stop_.load()) {
      int waitMs = 1000;
      again_ = false;
      takeQueued(adds, cancels, due, waitMs);
      for (LoopTransfer* t : adds) {
        if (curl_multi_add_handle(multi_, t->easyHandle()) == CURLM_OK) {
          active_.emplace(t->easyHandle(), t);
        } else {
          t->transferDone(CURLE_FAILED_INIT);
        }
      }
      for (auto& t : cancels) {
        // A transfer that already finished is no longer known here: nothing to do.
        if (transferOf(t->easyHandle()) == t.get()) finish(t.get(), CURLE_ABORTED_BY_CALLBACK);
      }
      for (auto& fire : due) fire();
      adds.clear();
      cancels.clear();
      due.clear();
      runLocal();

      int running = 0;
      curl_multi_perform(multi_, &running);
      int queued = 0;
      while (CURLMsg* msg = curl_multi_info_read(multi_, &queued)) {
        if (msg->msg != CURLMSG_DONE) continue;
        CURLcode code = msg->data.result;
        if (LoopTransfer* t = transferOf(msg->easy_handle)) finish(t, code);
      }
      // The routines the answers resume: they may add the next exchanges at once.
      runLocal();
      if (stop_.load()) break;
      if (again_) continue;
      curl_multi_poll(multi_, nullptr, 0, waitMs, nullptr);
    }
  }

  CURLM* multi_ = nullptr;
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::vector<LoopTransfer*> adds_;
  std::vector<std::shared_ptr<LoopTransfer>> cancels_;
  std::priority_queue<Timer, std::vector<Timer>, std::greater<>> timers_;
  std::uint64_t seq_ = 0;
  std::vector<std::coroutine_handle<>> posted_;      // from other threads, under mutex_
  std::unordered_map<CURL*, LoopTransfer*> active_;  // I/O thread only
  std::vector<std::coroutine_handle<>> local_;       // I/O thread only
  std::vector<std::coroutine_handle<>> running_;     // I/O thread only
  bool again_ = false;  // I/O thread only: something was queued meanwhile
};

IoLoop::IoLoop() : impl_(new Impl()) {
  Impl::current() = impl_;
}

IoLoop& IoLoop::instance() {
  static auto* loop = new IoLoop();  // never destroyed: see stopAtExit
  return *loop;
}

void IoLoop::add(LoopTransfer* transfer) {
  impl_->add(transfer);
}
void IoLoop::cancel(std::shared_ptr<LoopTransfer> transfer) {
  impl_->cancel(std::move(transfer));
}
void IoLoop::addTimer(Clock::time_point when, std::function<void()> fire) {
  impl_->addTimer(when, std::move(fire));
}
void IoLoop::post(std::coroutine_handle<> handle) {
  impl_->post(handle);
}

bool onIoThread() {
  return tOnIoThread;
}

void resumeOnIoThread(std::coroutine_handle<> handle) {
  IoLoop::instance().post(handle);
}
bool IoLoop::exiting() {
  return gExiting.load(std::memory_order_relaxed);
}

void armDeadline(const std::shared_ptr<CancelState>& cancel) {
  if (!cancel) return;
  auto deadline = cancel->deadline();
  if (!deadline) return;
  if (*deadline <= CancelState::Clock::now()) {
    cancel->cancel(JovError::codeDeadlineExceeded());
    return;
  }
  std::weak_ptr<CancelState> weak = cancel;
  IoLoop::instance().addTimer(*deadline, [weak] {
    if (auto state = weak.lock()) state->cancel(JovError::codeDeadlineExceeded());
  });
}

}  // namespace jov::detail
