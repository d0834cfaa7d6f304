// The recorder's start, retry, stop and delivery rules, over a scripted source.
// A source that stalls, and one that keeps delivering, are run end to end in
// tests/faults/in_process_server_test.cpp and by the real capture test.
#include "audio/recorder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <deque>
#include <mutex>
#include <thread>
#include <tuple>

#include "audio/portaudio_start_errors.h"
#include "tests/audio/recorder_test_support.h"

namespace tellora {
namespace {

using audiotest::LoopRecorder;
using audiotest::RecorderNotifications;
using std::chrono::milliseconds;

const TLRAudioStartResult kFailure = TLRAudioStartResult::failure(-1, "Pa_StartStream");

// A backend the test steers: start results come from a script (success once
// the script is used up), and the test delivers blocks through the sink of the
// newest source, from whatever thread it likes.
struct FakeAudioBackend : std::enable_shared_from_this<FakeAudioBackend> {
  struct State {
    std::deque<TLRAudioStartResult> script;
    std::optional<milliseconds> stallTimeout;
    std::vector<audiotest::SteadyTime> startTimes;
    TLRAudioSource::BlockSink sink;  // of the newest started source, even once stopped
    int sourcesMade = 0, stops = 0;
  };
  // Reads or changes the state under the lock.
  template <class F>
  auto with(F f) {
    std::lock_guard lock(mutex);
    return f(state_);
  }
  State state() {
    return with([](State& s) { return s; });
  }
  struct Source final : TLRAudioSource {
    explicit Source(std::shared_ptr<FakeAudioBackend> b) : backend(std::move(b)) {}
    TLRAudioStartResult start(const TLRAudioSourceFormat&, BlockSink sink) override {
      return backend->with([&](State& s) {
        s.startTimes.push_back(std::chrono::steady_clock::now());
        const TLRAudioStartResult result =
            s.script.empty() ? TLRAudioStartResult::success() : s.script.front();
        if (!s.script.empty()) s.script.pop_front();
        if (result.ok()) s.sink = std::move(sink);
        return result;
      });
    }
    void stop() override {
      backend->with([](State& s) { return ++s.stops; });
    }
    std::optional<milliseconds> stallTimeout() const override {
      return backend->with([](State& s) { return s.stallTimeout; });
    }
    std::shared_ptr<FakeAudioBackend> backend;
  };
  TLRAudioSourceFactory factory() {
    return [backend = shared_from_this()] {
      backend->with([](State& s) { return ++s.sourcesMade; });
      return std::make_unique<Source>(backend);
    };
  }
  // False when no source ever started.
  bool deliver(const std::vector<int16_t>& items, double firstItemTicks) {
    const auto sink = state().sink;
    if (sink) sink(items.data(), static_cast<uint32_t>(items.size()), firstItemTicks);
    return static_cast<bool>(sink);
  }

  std::mutex mutex;
  State state_;
};

class RecorderTest : public ::testing::Test {
 protected:
  milliseconds unit_{150};
  std::shared_ptr<FakeAudioBackend> backend_ = std::make_shared<FakeAudioBackend>();
  RecorderNotifications notifications_;
  std::unique_ptr<LoopRecorder> recorder_ =
      std::make_unique<LoopRecorder>(8000.0, backend_->factory(), unit_);
  std::shared_ptr<audiotest::RecordingDelegate> delegate_ = recorder_->delegate;
};

TEST_F(RecorderTest, NotPermittedReportsError101AndNeverRetries) {
  backend_->with([](auto& s) { s.script = {TLRAudioStartResult::notPermitted(-9985, "Pa_Open")}; });
  recorder_->start();

  ASSERT_TRUE(testing::waitUntil([&] { return delegate_->errors.size() == 1; }));
  EXPECT_EQ(delegate_->errors.values().front(),
            TLRError::make(101, {{"message", std::string("Microphone is disabled")}}));
  EXPECT_FALSE(recorder_->isRec());
  EXPECT_EQ(backend_->state().stops, 1) << "a refused source is released";

  std::this_thread::sleep_for(unit_ * 3);
  EXPECT_EQ(backend_->state().sourcesMade, 1);
  EXPECT_EQ(delegate_->errors.size(), 1u);
}

// The messages themselves are checked end to end in the fault tests.
TEST_F(RecorderTest, AFailedStartIsRetriedWithGrowingDelayUntilItRecords) {
  backend_->with([](auto& s) { s.script = {kFailure, kFailure}; });
  recorder_->start();
  EXPECT_FALSE(recorder_->isRec());

  ASSERT_TRUE(notifications_.waitForCount(TLRAudioConnectSuccNotification, 1));
  const auto entries = notifications_.entries();
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[2].name, "audioConnectSucc");
  EXPECT_EQ(delegate_->errors.size(), 0u) << "a failed start is not a disabled microphone";

  const auto starts = backend_->state().startTimes;
  ASSERT_EQ(starts.size(), 3u);
  EXPECT_GE(starts[1] - starts[0], unit_);
  EXPECT_LT(starts[1] - starts[0], unit_ * 2) << "the first retry waits one unit, not two";
  EXPECT_GE(starts[2] - starts[1], unit_ * 2);
  // Each retry is announced before it runs.
  EXPECT_LE(entries[0].at, starts[1]);
  EXPECT_LE(entries[1].at, starts[2]);

  EXPECT_TRUE(recorder_->isRec());
  EXPECT_EQ(recorder_->run([](TLRRecorder& r) { return r.attemptCount(); }), 1);
  EXPECT_EQ(backend_->state().stops, 2) << "each failed source is released before the retry";
  ASSERT_TRUE(backend_->deliver({7, 8}, 1.0));
  ASSERT_TRUE(delegate_->waitForBlocks(1));
}

// Only a device that refuses this user is a disabled microphone; a busy one
// (another program holds it) is retried.
TEST(PortAudioStartErrorsTest, OnlyAnAccessRefusalIsNotPermitted) {
  const std::tuple<PaError, PaHostApiTypeId, long, bool> cases[] = {
      {paDeviceUnavailable, paALSA, 0, false},
      {paInvalidDevice, paALSA, 0, false},
      {paUnanticipatedHostError, paALSA, -EBUSY, false},
      {paUnanticipatedHostError, paALSA, -EACCES, true},
      {paUnanticipatedHostError, paOSS, EPERM, true},
      {paUnanticipatedHostError, paJACK, EACCES, false}};  // JACK's codes are not errno values
  for (const auto& [error, api, hostCode, notPermitted] : cases) {
    const PaHostErrorInfo host{api, hostCode, ""};
    const auto result = classifyPortAudioFailure(error, &host, "Pa_OpenStream");
    EXPECT_EQ(result.kind == TLRAudioStartResult::Kind::notPermitted, notPermitted)
        << "error " << error << " host " << hostCode;
    EXPECT_EQ(result.status, error);
  }
}

TEST_F(RecorderTest, StartAndStopActOnlyOnAChangeAndEveryStartBuildsAFreshSource) {
  recorder_->stop();
  EXPECT_EQ(backend_->state().sourcesMade, 0);
  recorder_->start();
  recorder_->start();
  EXPECT_EQ(backend_->state().sourcesMade, 1);
  recorder_->stop();
  recorder_->stop();
  EXPECT_EQ(backend_->state().stops, 1);
  EXPECT_FALSE(recorder_->isRec());
  recorder_->start();
  EXPECT_EQ(backend_->state().sourcesMade, 2);
  EXPECT_TRUE(recorder_->isRec());
  EXPECT_EQ(notifications_.count(TLRAudioConnectSuccNotification), 2u);
}

TEST_F(RecorderTest, StopOrDestructionCancelsAPendingRetryAndStopEndsTheStallWatch) {
  backend_->with([](auto& s) {
    s.script = {kFailure, TLRAudioStartResult::success(), kFailure};
    s.stallTimeout = milliseconds(300);
  });
  recorder_->start();  // fails: a retry is pending
  recorder_->stop();
  recorder_->start();  // runs, watched for stalls
  recorder_->stop();
  recorder_->start();  // fails again
  recorder_.reset();
  std::this_thread::sleep_for(milliseconds(300) + unit_ * 3);
  EXPECT_EQ(backend_->state().sourcesMade, 3);
  EXPECT_EQ(notifications_.count(TLRAudioErrorNotification), 0u);
}

TEST_F(RecorderTest, AStartDuringAPendingRetryLeavesOnlyOneRetryChain) {
  backend_->with([](auto& s) {
    s.script = {kFailure, TLRAudioStartResult::failure(-2, "Pa_StartStream")};
  });
  recorder_->start();
  recorder_->start();  // fails too and schedules its own retry
  ASSERT_TRUE(notifications_.waitForCount(TLRAudioConnectSuccNotification, 1));
  std::this_thread::sleep_for(unit_ * 3);
  const auto entries = notifications_.entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].message, "Error with code -2 occure - Pa_StartStream attemptCount == 2");
  EXPECT_EQ(backend_->state().sourcesMade, 3);
}

TEST_F(RecorderTest, BlocksFromAStoppedOrEarlierRunAreDropped) {
  recorder_->start();
  recorder_->stop();
  ASSERT_TRUE(backend_->deliver({1, 2, 3}, 1.0));
  EventLoop::main().drain();

  recorder_->start();
  recorder_->run([&](TLRRecorder& r) {
    // A block of this run is still queued when the next one starts.
    backend_->deliver({9, 9, 9}, 1.0);
    r.stopRecording();
    r.startRecording();
  });
  backend_->deliver({4, 5}, 2.0);
  ASSERT_TRUE(delegate_->waitForBlocks(1));
  EventLoop::main().drain();
  EXPECT_EQ(delegate_->allItems(), (std::vector<int16_t>{4, 5}));
}

TEST(RecorderLifetimeTest, MayBeDestroyedOffTheLoopWhileBlocksArrive) {
  auto backend = std::make_shared<FakeAudioBackend>();
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
  EXPECT_GE(backend->state().stops, 1);
}

}  // namespace
}  // namespace tellora
