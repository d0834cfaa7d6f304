#include "runtime/event_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace tellora {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 5s;  // only reached when something is broken

// Waits on the test thread until `done` holds, checking on the loop.
template <class Predicate>
bool eventually(EventLoop& loop, Predicate done) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < deadline) {
    if (loop.call(done)) return true;
    std::this_thread::sleep_for(1ms);
  }
  return false;
}

class EventLoopTest : public ::testing::Test {
 protected:
  EventLoop loop_{"test-loop"};
};

TEST_F(EventLoopTest, KeepsEachPostersOrderUnderConcurrentPosts) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 2000;
  std::vector<std::pair<int, int>> seen;  // touched on the loop only
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i)
        loop_.post([&seen, t, i] { seen.emplace_back(t, i); });
    });
  }
  for (auto& poster : posters)
    poster.join();
  loop_.drain();

  ASSERT_EQ(seen.size(), size_t{kThreads * kPerThread});
  std::vector<int> next(kThreads, 0);
  for (const auto& [thread, index] : seen) {
    ASSERT_EQ(index, next[thread]) << "poster " << thread;
    ++next[thread];
  }
}

TEST_F(EventLoopTest, DrainWaitsForEarlierTasks) {
  bool ran = false;
  loop_.post([&] {
    std::this_thread::sleep_for(20ms);
    ran = true;
  });
  loop_.drain();
  EXPECT_TRUE(ran);
}

TEST_F(EventLoopTest, CallFromOutsideReturnsTheResultFromTheLoop) {
  const auto result = loop_.call([&] { return loop_.isCurrent() ? 42 : -1; });
  EXPECT_EQ(result, 42);
}

TEST_F(EventLoopTest, CallOnTheLoopRunsInlineInsteadOfDeadlocking) {
  std::vector<int> order;
  loop_.call([&] {
    order.push_back(1);
    loop_.call([&] { order.push_back(2); });
    order.push_back(3);
  });
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST_F(EventLoopTest, CallPropagatesExceptionsAndTheLoopKeepsRunning) {
  EXPECT_THROW(loop_.call([]() -> int { throw std::runtime_error("boom"); }), std::runtime_error);
  EXPECT_EQ(loop_.call([] { return 7; }), 7);
}

TEST_F(EventLoopTest, SurvivesAPostedTaskThatThrows) {
  loop_.post([] { throw std::runtime_error("stray"); });
  EXPECT_EQ(loop_.call([] { return 1; }), 1);
}

TEST_F(EventLoopTest, DelayedTasksRunInDeadlineOrderAfterPlainPosts) {
  std::vector<char> order;
  std::promise<void> last;
  const auto posted = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point slowRanAt;
  loop_.postAfter(80ms, [&] {
    order.push_back('C');
    slowRanAt = std::chrono::steady_clock::now();
    last.set_value();
  });
  loop_.postAfter(30ms, [&] { order.push_back('B'); });
  loop_.post([&] { order.push_back('A'); });
  ASSERT_EQ(last.get_future().wait_for(kPatience), std::future_status::ready);
  loop_.drain();
  EXPECT_EQ(order, (std::vector<char>{'A', 'B', 'C'}));
  EXPECT_GE(slowRanAt - posted, 80ms);
}

TEST_F(EventLoopTest, PostAfterFromTheLoopItself) {
  std::promise<bool> fired;
  loop_.post([&] { loop_.postAfter(1ms, [&] { fired.set_value(loop_.isCurrent()); }); });
  auto result = fired.get_future();
  ASSERT_EQ(result.wait_for(kPatience), std::future_status::ready);
  EXPECT_TRUE(result.get());
}

TEST(EventLoopLifetime, DestructionDropsTasksStillWaiting) {
  std::atomic<bool> ran{false};
  {
    EventLoop loop("short-lived");
    loop.postAfter(1h, [&] { ran = true; });
    loop.post([] { std::this_thread::sleep_for(5ms); });
  }
  EXPECT_FALSE(ran.load());
}

TEST(EventLoopMain, IsOneLoopForTheProcess) {
  EXPECT_EQ(&EventLoop::main(), &EventLoop::main());
  EXPECT_TRUE(EventLoop::main().call([] { return EventLoop::main().isCurrent(); }));
}

class RepeatingTimerTest : public ::testing::Test {
 protected:
  void TearDown() override {
    loop_.call([&] { timer_.reset(); });
  }

  void makeTimer(std::chrono::milliseconds interval, Task tick) {
    loop_.call(
        [&] { timer_ = std::make_unique<RepeatingTimer>(loop_, interval, std::move(tick)); });
  }
  int ticks() {
    return loop_.call([&] { return ticks_; });
  }

  EventLoop loop_{"timer-loop"};
  std::unique_ptr<RepeatingTimer> timer_;  // touched on the loop only
  int ticks_ = 0;                          // touched on the loop only
};

TEST_F(RepeatingTimerTest, DoesNotTickBeforeStart) {
  makeTimer(1ms, [&] { ++ticks_; });
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(ticks(), 0);
  EXPECT_FALSE(loop_.call([&] { return timer_->isValid(); }));
}

TEST_F(RepeatingTimerTest, TicksRepeatedlyUntilInvalidated) {
  makeTimer(2ms, [&] { ++ticks_; });
  loop_.call([&] { timer_->start(); });
  ASSERT_TRUE(eventually(loop_, [&] { return ticks_ >= 3; }));

  const int atInvalidate = loop_.call([&] {
    timer_->invalidate();
    return ticks_;
  });
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(ticks(), atInvalidate);
  EXPECT_FALSE(loop_.call([&] { return timer_->isValid(); }));
}

TEST_F(RepeatingTimerTest, CanInvalidateItselfFromItsTick) {
  makeTimer(1ms, [&] {
    if (++ticks_ == 2) timer_->invalidate();
  });
  loop_.call([&] { timer_->start(); });
  ASSERT_TRUE(eventually(loop_, [&] { return ticks_ >= 2; }));
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(ticks(), 2);
}

TEST_F(RepeatingTimerTest, CanBeDestroyedFromItsTick) {
  // The tick keeps using its own captures after destroying the timer; the
  // sanitizers catch it if the timer ran the stored function in place.
  makeTimer(1ms, [&, afterwards = 0]() mutable {
    ++ticks_;
    timer_.reset();
    ++afterwards;
  });
  loop_.call([&] { timer_->start(); });
  ASSERT_TRUE(eventually(loop_, [&] { return ticks_ >= 1; }));
  std::this_thread::sleep_for(10ms);
  EXPECT_EQ(ticks(), 1);
}

TEST_F(RepeatingTimerTest, InvalidateDropsAWaitThatHasAlreadyExpired) {
  makeTimer(1ms, [&] { ++ticks_; });
  loop_.call([&] {
    timer_->start();
    // The deadline passes while the loop is busy; the completion may already
    // be queued when invalidate() runs.
    std::this_thread::sleep_for(10ms);
    timer_->invalidate();
  });
  std::this_thread::sleep_for(10ms);
  EXPECT_EQ(ticks(), 0);
}

TEST_F(RepeatingTimerTest, StartsAgainAfterInvalidate) {
  makeTimer(1ms, [&] { ++ticks_; });
  loop_.call([&] {
    timer_->start();
    timer_->invalidate();
    timer_->start();
  });
  EXPECT_TRUE(loop_.call([&] { return timer_->isValid(); }));
  ASSERT_TRUE(eventually(loop_, [&] { return ticks_ >= 3; }));
}

TEST_F(RepeatingTimerTest, StartWhileRunningKeepsOneSchedule) {
  constexpr auto kInterval = 5ms;
  std::chrono::steady_clock::time_point startedAt;
  makeTimer(kInterval, [&] {
    ++ticks_;
    timer_->start();  // a no-op while valid: must not add a second chain of ticks
  });
  loop_.call([&] {
    startedAt = std::chrono::steady_clock::now();
    timer_->start();
  });
  ASSERT_TRUE(eventually(loop_, [&] { return ticks_ >= 6; }));
  // Ticks never come early, so one schedule allows at most one per interval.
  loop_.call([&] {
    timer_->invalidate();
    const auto elapsed = std::chrono::steady_clock::now() - startedAt;
    EXPECT_LE(ticks_, elapsed / kInterval + 1);
  });
}

TEST(SerialQueueTest, RunsJobsInOrderOffTheCallersThread) {
  SerialQueue queue("hashQueue");
  EXPECT_EQ(queue.label(), "hashQueue");
  std::vector<int> order;
  std::vector<std::thread::id> threads;
  for (int i = 0; i < 500; ++i) {
    queue.post([&, i] {
      order.push_back(i);
      threads.push_back(std::this_thread::get_id());
    });
  }
  queue.drain();
  ASSERT_EQ(order.size(), 500u);
  for (int i = 0; i < 500; ++i)
    EXPECT_EQ(order[i], i);
  for (const auto& id : threads) {
    EXPECT_EQ(id, threads.front());
    EXPECT_NE(id, std::this_thread::get_id());
  }
}

TEST(SerialQueueTest, DestructorRunsJobsAlreadyPostedAndTheirFollowUps) {
  std::atomic<int> done{0};
  {
    SerialQueue queue("draining");
    queue.post([] { std::this_thread::sleep_for(20ms); });
    for (int i = 0; i < 50; ++i)
      queue.post([&] { ++done; });
    queue.post([&] { queue.post([&] { ++done; }); });
  }
  EXPECT_EQ(done.load(), 51);
}

TEST(SerialQueueTest, AJobMayDropTheLastOwnerOfItsQueue) {
  auto queue = std::make_shared<SerialQueue>("self-owned");
  std::promise<void> released;
  std::promise<void> laterJobRan;
  queue->post([owner = queue, wait = released.get_future().share()]() mutable {
    wait.wait();
    owner.reset();  // the queue is destroyed on its own thread
  });
  queue->post([&] { laterJobRan.set_value(); });
  queue.reset();
  released.set_value();
  EXPECT_EQ(laterJobRan.get_future().wait_for(kPatience), std::future_status::ready);
}

}  // namespace
}  // namespace tellora
