// The worker pool, the main queue and the block, delegate and future forms built on them.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

#include "jov/application.hpp"
#include "jov/detail/forms.hpp"

using namespace jov;
using namespace std::chrono_literals;

namespace {

// A minimal entity with one operation in every form, as the library's entities write them.
class Counter : public std::enable_shared_from_this<Counter> {
 public:
  std::atomic<int> runs{0};
  std::thread::id workerThread;
  std::function<void()> beforeWork;  // lets a test hold the work back
  bool fail = false;

  Result<void> bumpSynchronous() { return detail::runSync(bumpRoutine()); }
  void bump(JovBlock<std::shared_ptr<Counter>> block) {
    detail::runBlock(shared_from_this(), bumpRoutine(), std::move(block), {});
  }
  void bump(JovCallback cb) {
    detail::runCallback(shared_from_this(), bumpRoutine(), std::move(cb), {});
  }
  std::future<Result<void>> bumpAsync() {
    return detail::runFuture(shared_from_this(), bumpRoutine(), {});
  }

  Result<int> addSynchronous(int n) { return detail::runSync(addRoutine(n)); }
  void add(int n, JovBlock<int> block) {
    detail::runBlock(shared_from_this(), addRoutine(n), std::move(block), {});
  }

 private:
  detail::Routine<void> bumpRoutine() {
    if (beforeWork) beforeWork();
    workerThread = std::this_thread::get_id();
    ++runs;
    if (fail) co_return JovError::errorWithCode(JovError::codeUndefinedError());
    co_return {};
  }
  detail::Routine<int> addRoutine(int n) {
    ++runs;
    co_return runs.load() + n;
  }
};

struct Listener {
  std::vector<std::string> calls;
  void done(std::shared_ptr<Counter> c, std::optional<JovError> e) {
    calls.push_back(c && !e ? "ok" : "error");
  }
  void doneByRef(const std::shared_ptr<Counter>& c, const std::optional<JovError>&) {
    calls.push_back(c ? "ref" : "null");
  }
  void wrongSignature(int) { calls.push_back("wrong"); }
  void progress(double p) { calls.push_back("progress " + std::to_string(int(p * 100))); }
};

class AsyncTest : public ::testing::Test {
 protected:
  void TearDown() override {
    JovMainQueue::setExecutor(nullptr);
    JovMainQueue::poll();
  }
};

}  // namespace

TEST_F(AsyncTest, BlockFormReturnsAtOnceAndItsBlockRunsOnTheDrainingThread) {
  auto counter = std::make_shared<Counter>();
  std::mutex m;
  std::condition_variable cv;
  bool released = false;
  counter->beforeWork = [&] {
    std::unique_lock lock(m);
    cv.wait(lock, [&] { return released; });
  };
  std::thread::id blockThread;
  bool called = false;
  counter->bump([&](std::shared_ptr<Counter> c, std::optional<JovError> e) {
    called = true;
    blockThread = std::this_thread::get_id();
    EXPECT_EQ(c, counter);
    EXPECT_FALSE(e);
  });
  // The call returned while the work was still held back.
  EXPECT_EQ(counter->runs, 0);
  EXPECT_FALSE(called);
  {
    std::lock_guard lock(m);
    released = true;
  }
  cv.notify_all();
  ASSERT_EQ(JovMainQueue::runUntil(1, 10s), 1u);
  EXPECT_TRUE(called);
  EXPECT_EQ(blockThread, std::this_thread::get_id());
  EXPECT_NE(counter->workerThread, std::this_thread::get_id());

  // Results first, error last; on failure the value is empty.
  int got = -1;
  counter->add(10, [&](int v, std::optional<JovError> e) { got = e ? -2 : v; });
  ASSERT_EQ(JovMainQueue::runUntil(1, 10s), 1u);
  EXPECT_EQ(got, 12);
}

TEST_F(AsyncTest, BlockingFormRunsOnTheCallerAndNeverTouchesTheMainQueue) {
  auto counter = std::make_shared<Counter>();
  std::thread worker([&] {
    EXPECT_TRUE(counter->bumpSynchronous().ok());
    EXPECT_EQ(counter->workerThread, std::this_thread::get_id());
    counter->fail = true;
    auto r = counter->bumpSynchronous();
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.error().code(), 103);
  });
  worker.join();
  EXPECT_EQ(JovMainQueue::pending(), 0u);
  EXPECT_EQ(JovMainQueue::poll(), 0u);
}

TEST_F(AsyncTest, DelegatesAreCalledOnlyWhenAliveAndMatching) {
  auto counter = std::make_shared<Counter>();
  auto listener = std::make_shared<Listener>();
  counter->bump(JovCallback::callbackWithDelegate(listener, &Listener::done));
  counter->bump(JovCallback::callbackWithDelegate(listener, &Listener::doneByRef));
  counter->bump(JovCallback::callbackWithDelegate(listener, &Listener::wrongSignature));
  counter->bump(JovCallback());  // empty: the work still runs
  ASSERT_EQ(JovMainQueue::runUntil(6, 10s), 6u) << "two hops for each of the three delegates";
  // The operation with an empty callback posts nothing; it still runs.
  auto until = std::chrono::steady_clock::now() + 10s;
  while (counter->runs < 4 && std::chrono::steady_clock::now() < until) std::this_thread::yield();
  EXPECT_EQ(counter->runs, 4);
  std::multiset<std::string> calls(listener->calls.begin(), listener->calls.end());
  EXPECT_EQ(calls, (std::multiset<std::string>{"ok", "ref"}));

  // A delegate that goes away before the completion runs is skipped silently.
  auto shortLived = std::make_shared<Listener>();
  std::weak_ptr<Listener> watch = shortLived;
  counter->bump(JovCallback::callbackWithDelegate(shortLived, &Listener::done));
  shortLived.reset();
  EXPECT_TRUE(watch.expired()) << "the callback holds its delegate weakly";
  ASSERT_EQ(JovMainQueue::runUntil(2, 10s), 2u);
  EXPECT_EQ(counter->runs, 5);

  // The progress member has its own signature.
  auto cb = JovCallback::callbackWithDelegate(listener, &Listener::done, &Listener::progress);
  EXPECT_TRUE(cb.hasProgress());
  EXPECT_TRUE(cb.invokeProgress(0.5));
  EXPECT_FALSE(cb.invokeProgress(1));  // an int is not the double the member takes
  EXPECT_EQ(listener->calls.back(), "progress 50");
}

TEST_F(AsyncTest, CompletionsRunInSubmissionOrder) {
  std::vector<int> order;
  for (int i = 0; i < 100; ++i) JovMainQueue::post([&order, i] { order.push_back(i); });
  // Posts from several threads keep each thread's order.
  std::vector<std::thread> threads;
  std::vector<std::vector<int>> perThread(4);
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) JovMainQueue::post([&, t, i] { perThread[t].push_back(i); });
    });
  for (auto& th : threads) th.join();
  ASSERT_EQ(JovMainQueue::poll(), 300u);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(order[i], i);
  for (auto& seq : perThread) {
    ASSERT_EQ(seq.size(), 50u);
    for (int i = 0; i < 50; ++i) ASSERT_EQ(seq[i], i);
  }
}

TEST_F(AsyncTest, AThousandConcurrentOperationsEachCompleteExactlyOnce) {
  auto counter = std::make_shared<Counter>();
  std::vector<int> completions(1000, 0);
  for (int i = 0; i < 1000; ++i)
    counter->bump([&completions, i](std::shared_ptr<Counter>, std::optional<JovError> e) {
      if (!e) ++completions[i];
    });
  ASSERT_EQ(JovMainQueue::runUntil(1000, 60s), 1000u);
  EXPECT_EQ(counter->runs, 1000);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(completions[i], 1) << i;
  EXPECT_EQ(JovMainQueue::runFor(50ms), 0u) << "nothing is delivered twice";
}

TEST_F(AsyncTest, AnInstalledExecutorReceivesEveryCompletion) {
  std::mutex m;
  std::condition_variable cv;
  std::vector<std::function<void()>> received;
  JovMainQueue::setExecutor([&](std::function<void()> f) {
    std::lock_guard lock(m);
    received.push_back(std::move(f));
    cv.notify_all();
  });
  auto counter = std::make_shared<Counter>();
  int delivered = 0;
  for (int i = 0; i < 50; ++i)
    counter->bump([&](std::shared_ptr<Counter>, std::optional<JovError>) { ++delivered; });
  {
    std::unique_lock lock(m);
    ASSERT_TRUE(cv.wait_for(lock, 30s, [&] { return received.size() == 50; }));
  }
  EXPECT_EQ(JovMainQueue::pending(), 0u) << "nothing waits in the library's own queue";
  for (auto& f : received) f();
  EXPECT_EQ(delivered, 50);
}

TEST_F(AsyncTest, WorkKeepsItsEntityAliveUntilTheCompletionRan) {
  std::weak_ptr<Counter> watch;
  std::optional<JovError> error;
  {
    auto counter = std::make_shared<Counter>();
    counter->fail = true;
    watch = counter;
    counter->bump([&](std::shared_ptr<Counter> c, std::optional<JovError> e) {
      EXPECT_TRUE(c) << "the entity is handed back even on failure";
      error = e;
    });
  }
  EXPECT_FALSE(watch.expired());
  ASSERT_EQ(JovMainQueue::runUntil(1, 10s), 1u);
  EXPECT_TRUE(watch.expired());
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 103);
}

TEST_F(AsyncTest, FutureFormBecomesReadyWithoutTheMainQueue) {
  auto counter = std::make_shared<Counter>();
  auto f = counter->bumpAsync();
  ASSERT_EQ(f.wait_for(10s), std::future_status::ready);
  EXPECT_TRUE(f.get().ok());
  EXPECT_EQ(JovMainQueue::pending(), 0u);
}

TEST_F(AsyncTest, RunReturnsWhenStoppedFromACompletion) {
  int ran = 0;
  JovMainQueue::post([&] { ++ran; });
  JovMainQueue::post([&] {
    ++ran;
    EXPECT_TRUE(JovMainQueue::isDrainingThread());
    JovMainQueue::stop();
  });
  JovMainQueue::post([&] { ++ran; });
  JovMainQueue::run();
  EXPECT_EQ(ran, 2);
  EXPECT_FALSE(JovMainQueue::isDrainingThread());
  EXPECT_EQ(JovMainQueue::poll(), 1u);
}
