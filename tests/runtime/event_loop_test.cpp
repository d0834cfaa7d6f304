#include "runtime/event_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/runtime/runtime_sandbox.h"

namespace tellora {
namespace {

using namespace std::chrono_literals;
using testing::waitUntil;

class EventLoopTest : public ::testing::Test {
 protected:
  EventLoop loop_{"test-loop"};
};

TEST_F(EventLoopTest, KeepsEachPostersOrderUnderConcurrentPostsAndDrainWaitsForThem) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 2000;
  std::vector<std::pair<int, int>> seen;  // touched on the loop only, read after drain()
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
  for (const auto& [thread, index] : seen)
    ASSERT_EQ(index, next[thread]++) << "poster " << thread;
}

TEST_F(EventLoopTest, CallAndDispatchRunInlineOnTheLoopAndDispatchNeverWaitsElsewhere) {
  std::vector<int> order;
  const bool onLoop = loop_.call([&] {
    order.push_back(1);
    loop_.call([&] { order.push_back(2); });      // would deadlock if queued
    loop_.dispatch([&] { order.push_back(3); });  // would come after 4 if queued
    order.push_back(4);
    return loop_.isCurrent();
  });
  EXPECT_TRUE(onLoop);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));

  // From another thread it is queued: the task below waits for this thread.
  std::promise<void> gate;
  loop_.dispatch([opened = gate.get_future().share()] { opened.wait(); });
  gate.set_value();
  loop_.drain();
}

TEST_F(EventLoopTest, ExceptionsReachTheCallerOrAreSwallowedAndTheLoopKeepsRunning) {
  EXPECT_THROW(loop_.call([]() -> int { throw std::runtime_error("boom"); }), std::runtime_error);
  loop_.post([] { throw std::runtime_error("stray"); });
  EXPECT_EQ(loop_.call([] { return 7; }), 7);
}

TEST_F(EventLoopTest, DelayedTasksRunInDeadlineOrderAfterPlainPosts) {
  std::vector<char> order;  // touched on the loop only
  const auto posted = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point slowRanAt;
  loop_.postAfter(80ms, [&] {
    order.push_back('C');
    slowRanAt = std::chrono::steady_clock::now();
  });
  // Armed from the loop itself.
  loop_.post([&] { loop_.postAfter(30ms, [&] { order.push_back('B'); }); });
  loop_.post([&] { order.push_back('A'); });
  ASSERT_TRUE(waitUntil([&] { return loop_.call([&] { return order.size() == 3; }); }));
  EXPECT_EQ(order, (std::vector<char>{'A', 'B', 'C'}));
  EXPECT_GE(slowRanAt - posted, 80ms);
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

class RepeatingTimerTest : public ::testing::Test {
 protected:
  void TearDown() override {
    loop_.call([&] { timer_.reset(); });
  }
  void makeTimer(std::chrono::milliseconds interval, Task tick) {
    loop_.call(
        [&] { timer_ = std::make_unique<RepeatingTimer>(loop_, interval, std::move(tick)); });
  }
  void start() {
    loop_.call([&] { timer_->start(); });
  }
  int ticksAfter(std::chrono::milliseconds pause) {
    std::this_thread::sleep_for(pause);
    return loop_.call([&] { return ticks_; });
  }
  bool ticksReach(int count) {
    return waitUntil([&] { return ticksAfter(0ms) >= count; });
  }

  EventLoop loop_{"timer-loop"};
  std::unique_ptr<RepeatingTimer> timer_;  // touched on the loop only
  int ticks_ = 0;                          // touched on the loop only
};

TEST_F(RepeatingTimerTest, TicksOnOneScheduleFromStartUntilInvalidatedFromItsTickAndStartsAgain) {
  constexpr auto kInterval = 5ms;
  std::chrono::steady_clock::time_point startedAt, sixthAt;
  makeTimer(kInterval, [&] {
    timer_->start();  // a no-op while valid: must not add a second chain of ticks
    if (++ticks_ != 6) return;
    timer_->invalidate();
    sixthAt = std::chrono::steady_clock::now();
  });
  EXPECT_EQ(ticksAfter(20ms), 0) << "ticked before start";
  startedAt = std::chrono::steady_clock::now();
  start();
  ASSERT_TRUE(ticksReach(6));
  // Ticks never come early, so one schedule allows at most one per interval.
  EXPECT_LE(6, (sixthAt - startedAt) / kInterval + 1);
  EXPECT_EQ(ticksAfter(20ms), 6);
  start();
  EXPECT_TRUE(ticksReach(9));
}

TEST_F(RepeatingTimerTest, CanBeDestroyedFromItsTick) {
  // The tick keeps using its own captures after destroying the timer; the
  // sanitizers catch it if the timer ran the stored function in place.
  makeTimer(1ms, [&, afterwards = 0]() mutable {
    ++ticks_;
    timer_.reset();
    ++afterwards;
  });
  start();
  ASSERT_TRUE(ticksReach(1));
  EXPECT_EQ(ticksAfter(10ms), 1);
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
  EXPECT_EQ(ticksAfter(10ms), 0);
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
  EXPECT_EQ(laterJobRan.get_future().wait_for(5s), std::future_status::ready);
}

}  // namespace
}  // namespace tellora
