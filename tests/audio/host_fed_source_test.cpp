// Blocks the host pushes itself, through the recorder to its delegate.
#include "tellora/host_fed_audio.h"

#include <gtest/gtest.h>

#include <thread>

#include "audio/audio_ticks.h"
#include "runtime/clock.h"
#include "tests/audio/recorder_test_support.h"

namespace tellora {
namespace {

using audiotest::LoopRecorder;
using audiotest::RecordingDelegate;

class HostFedSourceTest : public ::testing::Test {
 protected:
  void SetUp() override { recorder_.report(delegate_); }

  std::shared_ptr<TLRHostFedAudio> feed_ = TLRHostFedAudio::create();
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
  LoopRecorder recorder_{8000.0, feed_->sourceFactory()};
};

TEST_F(HostFedSourceTest, RefusesBlocksWhileNotRecording) {
  const std::vector<int16_t> items(800, 1);
  EXPECT_FALSE(feed_->push(items.data(), 800, 1.0));
  EXPECT_FALSE(feed_->sampleRate().has_value());

  recorder_.start();
  recorder_.stop();
  EXPECT_FALSE(feed_->push(items.data(), 800, 1.0));
  EventLoop::main().drain();
  EXPECT_EQ(delegate_->blocks.size(), 0u);
}

TEST_F(HostFedSourceTest, DeliversPushedBlocksOnTheLoopWithTheHostsTicks) {
  recorder_.start();
  EXPECT_EQ(feed_->sampleRate(), 8000.0);
  std::vector<int16_t> first(800), second(333);
  for (size_t i = 0; i < first.size(); ++i)
    first[i] = static_cast<int16_t>(i * 37 - 9000);
  for (size_t i = 0; i < second.size(); ++i)
    second[i] = static_cast<int16_t>(-static_cast<int>(i));
  std::thread host([&] {
    EXPECT_TRUE(feed_->push(first.data(), static_cast<uint32_t>(first.size()), 5e9));
    EXPECT_TRUE(feed_->push(second.data(), static_cast<uint32_t>(second.size()), 5.1e9));
  });
  host.join();

  ASSERT_TRUE(delegate_->waitForBlocks(2));
  const auto blocks = delegate_->blocks.values();
  EXPECT_EQ(blocks[0].items, first);
  EXPECT_EQ(blocks[0].time, 5e9);
  EXPECT_EQ(blocks[1].items, second);
  EXPECT_EQ(blocks[1].time, 5.1e9);
  EXPECT_TRUE(blocks[0].onLoop && blocks[1].onLoop);
}

TEST_F(HostFedSourceTest, ABlockWithoutTicksIsTakenToEndNow) {
  recorder_.start();
  const std::vector<int16_t> items(800, 2);
  const double before = monotonicTicks();
  ASSERT_TRUE(feed_->push(items.data(), 800));
  const double after = monotonicTicks();

  ASSERT_TRUE(delegate_->waitForBlocks(1));
  const double blockLength = ticksForItems(800, 8000.0);
  EXPECT_GE(delegate_->blocks.values()[0].time, before - blockLength);
  EXPECT_LE(delegate_->blocks.values()[0].time, after - blockLength);
}

TEST_F(HostFedSourceTest, ANewerRecordingTakesTheFeedOver) {
  recorder_.start();
  auto otherDelegate = std::make_shared<RecordingDelegate>();
  LoopRecorder other(8000.0, feed_->sourceFactory());
  other.report(otherDelegate);
  other.start();

  // Stopping the older recording must not cut the newer one off.
  recorder_.stop();
  const std::vector<int16_t> items{1, 2, 3};
  EXPECT_TRUE(feed_->push(items.data(), 3, 1.0));
  ASSERT_TRUE(otherDelegate->waitForBlocks(1));
  EventLoop::main().drain();
  EXPECT_EQ(delegate_->blocks.size(), 0u);
  other.stop();
}

}  // namespace
}  // namespace tellora
