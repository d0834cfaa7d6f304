// The recorder's start, retry, stop and delivery rules, over a scripted source.
#include "audio/recorder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/audio/recorder_test_support.h"

namespace tellora {
namespace {

using audiotest::FakeAudioBackend;
using audiotest::LoopRecorder;
using audiotest::RecorderNotifications;
using audiotest::RecordingDelegate;
using std::chrono::milliseconds;

class RecorderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    recorder_ = std::make_unique<LoopRecorder>(8000.0, backend_->factory());
    recorder_->run([this](TLRRecorder& r) {
      r.setDelegate(delegate_);
      r.setErrorHandler(delegate_);
      r.setRetryDelayUnit(unit_);
    });
  }
  void TearDown() override { recorder_.reset(); }

  // Lets the loop run for a while, for checks that something did not happen.
  void idle(milliseconds time) { std::this_thread::sleep_for(time); }

  milliseconds unit_{150};
  std::shared_ptr<FakeAudioBackend> backend_ = FakeAudioBackend::create();
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
  RecorderNotifications notifications_;
  std::unique_ptr<LoopRecorder> recorder_;
};

TEST_F(RecorderTest, StartsWithTheFormatTheHasherExpects) {
  EXPECT_EQ(recorder_->run([](TLRRecorder& r) { return r.sampleRate(); }), 8000.0);
  EXPECT_EQ(recorder_->run([](TLRRecorder& r) { return r.bytesPerFrame(); }), 2u);
  EXPECT_EQ(recorder_->attemptCount(), 1);
  EXPECT_TRUE(recorder_->run([](TLRRecorder& r) { return r.needSetStartTime(); }));

  recorder_->start();
  ASSERT_TRUE(backend_->lastFormat().has_value());
  EXPECT_EQ(backend_->lastFormat()->sampleRate, 8000.0);
  EXPECT_EQ(backend_->lastFormat()->itemsPerBlock, 800u);
  EXPECT_TRUE(recorder_->isRec());
  EXPECT_EQ(notifications_.count(TLRAudioConnectSuccNotification), 1u);
}

TEST_F(RecorderTest, NotPermittedReportsError101AndNeverRetries) {
  backend_->scriptStarts({TLRAudioStartResult::notPermitted(-9985, "Pa_OpenStream")});
  recorder_->start();

  ASSERT_TRUE(delegate_->waitForErrors(1));
  const TLRError error = delegate_->errors().front();
  EXPECT_EQ(error.domain, "com.tellora.quillmark.ErrorDomain");
  EXPECT_EQ(error.domain, TLRErrorDomain);
  EXPECT_EQ(error.code, 101);
  ASSERT_EQ(error.userInfo.size(), 1u);
  EXPECT_EQ(std::get<std::string>(error.userInfo.at("message")), "Microphone is disabled");
  EXPECT_FALSE(recorder_->isRec());
  EXPECT_EQ(backend_->stops(), 1) << "a refused source is released";

  idle(unit_ * 3);
  EXPECT_EQ(backend_->sourcesMade(), 1);
  EXPECT_EQ(notifications_.count(TLRAudioErrorNotification), 0u);
  EXPECT_EQ(notifications_.count(TLRAudioConnectSuccNotification), 0u);
  EXPECT_EQ(delegate_->errors().size(), 1u);
}

TEST_F(RecorderTest, RetriesFailedStartsWithGrowingDelayUntilOneSucceeds) {
  backend_->scriptStarts({TLRAudioStartResult::failure(-66681, "AudioQueueStart"),
                          TLRAudioStartResult::failure(-66681, "AudioQueueStart")});
  recorder_->start();
  EXPECT_FALSE(recorder_->isRec());

  ASSERT_TRUE(notifications_.waitForCount(TLRAudioConnectSuccNotification, 1));
  const auto entries = notifications_.entries();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0].name, "audioError");
  EXPECT_EQ(entries[0].message,
            "Error with code -66681 occure - AudioQueueStart attemptCount == 2");
  EXPECT_EQ(entries[1].name, "audioError");
  EXPECT_EQ(entries[1].message,
            "Error with code -66681 occure - AudioQueueStart attemptCount == 3");
  EXPECT_EQ(entries[2].name, "audioConnectSucc");

  const auto starts = backend_->startTimes();
  ASSERT_EQ(starts.size(), 3u);
  const auto firstDelay = starts[1] - starts[0];
  const auto secondDelay = starts[2] - starts[1];
  EXPECT_GE(firstDelay, unit_);
  EXPECT_LT(firstDelay, unit_ * 2) << "the first retry waits one unit, not two";
  EXPECT_GE(secondDelay, unit_ * 2);
  // Each retry is announced before it runs.
  EXPECT_LE(entries[0].at, starts[1]);
  EXPECT_LE(entries[1].at, starts[2]);

  EXPECT_TRUE(recorder_->isRec());
  EXPECT_EQ(recorder_->attemptCount(), 1);
  EXPECT_EQ(backend_->stops(), 2) << "each failed source is released before the retry";
}

TEST_F(RecorderTest, StopWhileStoppedDoesNothing) {
  recorder_->stop();
  idle(unit_);
  EXPECT_FALSE(recorder_->isRec());
  EXPECT_EQ(backend_->sourcesMade(), 0);
  EXPECT_TRUE(notifications_.entries().empty());

  recorder_->start();
  recorder_->stop();
  recorder_->stop();
  EXPECT_EQ(backend_->stops(), 1);
  EXPECT_FALSE(recorder_->isRec());
}

TEST_F(RecorderTest, StartWhileRecordingDoesNothing) {
  recorder_->start();
  recorder_->start();
  EXPECT_EQ(backend_->sourcesMade(), 1);
  EXPECT_EQ(notifications_.count(TLRAudioConnectSuccNotification), 1u);
}

TEST_F(RecorderTest, EveryStartAfterAStopBuildsAFreshSource) {
  recorder_->start();
  recorder_->stop();
  recorder_->start();
  EXPECT_EQ(backend_->sourcesMade(), 2);
  EXPECT_TRUE(recorder_->isRec());
  EXPECT_EQ(notifications_.count(TLRAudioConnectSuccNotification), 2u);
}

TEST_F(RecorderTest, ANewSourceFactoryServesFromTheNextStartOn) {
  recorder_->start();
  auto other = FakeAudioBackend::create();
  recorder_->run([&](TLRRecorder& r) { r.setSourceFactory(other->factory()); });
  EXPECT_TRUE(recorder_->isRec()) << "the running source is kept";
  EXPECT_EQ(other->sourcesMade(), 0);

  recorder_->stop();
  recorder_->start();
  EXPECT_EQ(backend_->sourcesMade(), 1);
  EXPECT_EQ(other->sourcesMade(), 1);
  EXPECT_TRUE(other->running());
}

TEST_F(RecorderTest, StopCancelsAPendingRetry) {
  backend_->scriptStarts({TLRAudioStartResult::failure(-1, "Pa_StartStream")});
  recorder_->start();
  recorder_->stop();
  idle(unit_ * 3);
  EXPECT_EQ(backend_->sourcesMade(), 1);
  EXPECT_EQ(notifications_.count(TLRAudioErrorNotification), 0u);
  EXPECT_FALSE(recorder_->isRec());
}

TEST_F(RecorderTest, AStartDuringAPendingRetryLeavesOnlyOneRetryChain) {
  backend_->scriptStarts({TLRAudioStartResult::failure(-1, "Pa_StartStream"),
                          TLRAudioStartResult::failure(-2, "Pa_StartStream")});
  recorder_->start();
  recorder_->start();  // fails too and schedules its own retry
  ASSERT_TRUE(notifications_.waitForCount(TLRAudioConnectSuccNotification, 1));
  idle(unit_ * 3);
  const auto entries = notifications_.entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].message, "Error with code -2 occure - Pa_StartStream attemptCount == 2");
  EXPECT_EQ(backend_->sourcesMade(), 3);
}

TEST_F(RecorderTest, DeliversBlocksOnTheLoopThread) {
  recorder_->start();
  const std::vector<int16_t> first{1, -2, 3, -32768, 32767};
  const std::vector<int16_t> second(800, 7);
  std::thread backendThread([&] {
    backend_->deliver(first, 1.5e9);
    backend_->deliver(second, 1.6e9);
  });
  backendThread.join();

  ASSERT_TRUE(delegate_->waitForBlocks(2));
  const auto blocks = delegate_->blocks();
  EXPECT_EQ(blocks[0].items, first);
  EXPECT_EQ(blocks[0].time, 1.5e9);
  EXPECT_EQ(blocks[1].items, second);
  EXPECT_EQ(blocks[1].time, 1.6e9);
  for (const auto& block : blocks)
    EXPECT_TRUE(block.onLoop);
}

TEST_F(RecorderTest, DropsBlocksThatArriveAfterStop) {
  recorder_->start();
  recorder_->stop();
  ASSERT_TRUE(backend_->deliver({1, 2, 3}, 1.0));
  EventLoop::main().drain();
  EventLoop::main().drain();
  EXPECT_TRUE(delegate_->blocks().empty());
}

TEST_F(RecorderTest, BlocksOfAnEarlierRunDoNotReachTheNextOne) {
  recorder_->start();
  recorder_->run([&](TLRRecorder& r) {
    // A block posted by the first run is still queued when the second starts.
    backend_->deliver({9, 9, 9}, 1.0);
    r.stopRecording();
    r.startRecording();
  });
  backend_->deliver({4, 5}, 2.0);
  ASSERT_TRUE(delegate_->waitForBlocks(1));
  EventLoop::main().drain();
  const auto blocks = delegate_->blocks();
  ASSERT_EQ(blocks.size(), 1u);
  EXPECT_EQ(blocks[0].items, (std::vector<int16_t>{4, 5}));
}

class RecorderStallTest : public RecorderTest {
 protected:
  void SetUp() override {
    backend_->setStallTimeout(milliseconds(300));
    RecorderTest::SetUp();
  }
};

TEST_F(RecorderStallTest, RestartsASourceThatStopsDelivering) {
  recorder_->start();
  ASSERT_TRUE(notifications_.waitForCount(TLRAudioConnectSuccNotification, 2));

  const auto entries = notifications_.entries();
  ASSERT_GE(entries.size(), 3u);
  EXPECT_EQ(entries[1].name, "audioError");
  EXPECT_EQ(entries[1].message,
            "Error with code -9987 occure - audioDataReceived attemptCount == 2");
  EXPECT_GE(backend_->stops(), 1) << "the silent source was shut down";
  EXPECT_GE(backend_->sourcesMade(), 2);
  const auto starts = backend_->startTimes();
  EXPECT_GE(starts[1] - starts[0], milliseconds(300) + unit_);
  recorder_->stop();
}

TEST_F(RecorderStallTest, LeavesASteadySourceAlone) {
  recorder_->start();
  std::thread backendThread([&] {
    // Blocks every 20 ms, far inside the 300 ms allowance.
    const auto end = std::chrono::steady_clock::now() + milliseconds(900);
    while (std::chrono::steady_clock::now() < end) {
      backend_->deliver(std::vector<int16_t>(160, 1), 0);
      std::this_thread::sleep_for(milliseconds(20));
    }
  });
  backendThread.join();
  EXPECT_EQ(backend_->sourcesMade(), 1);
  EXPECT_EQ(backend_->stops(), 0);
  EXPECT_EQ(notifications_.count(TLRAudioErrorNotification), 0u);
  EXPECT_TRUE(recorder_->isRec());
}

TEST_F(RecorderStallTest, StopEndsTheWatch) {
  recorder_->start();
  recorder_->stop();
  idle(milliseconds(300) + unit_ * 2);
  EXPECT_EQ(backend_->sourcesMade(), 1);
  EXPECT_EQ(notifications_.count(TLRAudioErrorNotification), 0u);
}

TEST(RecorderLifetimeTest, DestroyingTheRecorderCancelsItsRetry) {
  auto backend = FakeAudioBackend::create();
  backend->scriptStarts({TLRAudioStartResult::failure(-1, "Pa_StartStream")});
  RecorderNotifications notifications;
  {
    LoopRecorder recorder(8000.0, backend->factory());
    recorder.run([](TLRRecorder& r) { r.setRetryDelayUnit(milliseconds(50)); });
    recorder.start();
  }
  std::this_thread::sleep_for(milliseconds(200));
  EXPECT_EQ(notifications.count(TLRAudioErrorNotification), 0u);
  EXPECT_EQ(backend->sourcesMade(), 1);
}

TEST(RecorderLifetimeTest, MayBeDestroyedOffTheLoopWhileBlocksArrive) {
  auto backend = FakeAudioBackend::create();
  auto recorder = std::make_unique<TLRRecorder>(8000.0, backend->factory());
  EventLoop::main().call([&] { recorder->startRecording(); });
  std::atomic<bool> stop{false};
  std::thread backendThread([&] {
    while (!stop)
      backend->deliver(std::vector<int16_t>(800, 3), 0);
  });
  std::this_thread::sleep_for(milliseconds(50));
  recorder.reset();  // on the test thread, not the loop
  stop = true;
  backendThread.join();
  EventLoop::main().drain();
  EXPECT_GE(backend->stops(), 1);
}

}  // namespace
}  // namespace tellora
