// The sources beside the microphone, through the recorder to its delegate:
// audio files played as if a microphone heard them (how files are decoded and
// converted is the reader's test, tests/tools/audio_file_reader_test.cpp), and
// blocks the host pushes itself; and the clock that stamps a device's blocks.
#include "audio/file/file_audio_source.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <cmath>
#include <random>
#include <thread>

#include "audio/audio_ticks.h"
#include "audio/block_clock.h"
#include "runtime/clock.h"
#include "tellora/host_fed_audio.h"
#include "tests/audio/recorder_test_support.h"
#include "tests/tools/scratch_dir.h"
#include "tests/tools/test_audio.h"

namespace tellora {
namespace {

using audiotest::LoopRecorder;
using audiotest::RecordingDelegate;
using std::chrono::milliseconds;

// Distinct, recognisable items: a ramp that wraps.
std::vector<int16_t> ramp(size_t count) {
  std::vector<int16_t> items(count);
  for (size_t i = 0; i < count; ++i)
    items[i] = static_cast<int16_t>((i * 13) % 20000 - 10000);
  return items;
}

class FileAudioSourceTest : public ::testing::Test {
 protected:
  std::string write(const std::string& name, const std::vector<int16_t>& items, int channels = 1,
                    int rate = 8000) {
    testaudio::writeItems(dir_.file(name), items, channels, rate, SF_FORMAT_WAV);
    return dir_.file(name);
  }
  void record(const std::string& path, bool looping) {
    recorder_ = std::make_unique<LoopRecorder>(8000.0, fileAudioSourceFactory(path, looping),
                                               milliseconds(50));
    delegate_ = recorder_->delegate;
    recorder_->start();
  }

  testtools::ScratchDir dir_;
  std::shared_ptr<RecordingDelegate> delegate_;
  std::unique_ptr<LoopRecorder> recorder_;
};

TEST_F(FileAudioSourceTest, PlaysTheFileOnceInRealTimeInEvenlyStampedBlocksOf800) {
  const auto items = ramp(2000);  // two whole blocks and a half
  record(write("ramp.wav", items), false);
  const auto started = std::chrono::steady_clock::now();
  ASSERT_TRUE(delegate_->waitForBlocks(3));
  std::this_thread::sleep_for(milliseconds(300));  // nothing more may come
  const auto blocks = delegate_->blocks.values();
  ASSERT_EQ(blocks.size(), 3u);
  EXPECT_EQ(blocks[0].items.size(), 800u);
  EXPECT_EQ(delegate_->allItems(), items);
  for (size_t i = 0; i < blocks.size(); ++i) {
    EXPECT_TRUE(blocks[i].onLoop);
    // No block may arrive before its audio is complete.
    EXPECT_GE(blocks[i].arrivedAt - started, milliseconds(100) * static_cast<int>(i)) << i;
    if (i > 0) {
      EXPECT_DOUBLE_EQ(blocks[i].time - blocks[i - 1].time, ticksForItems(800, 8000.0));
    }
  }
  // The recording itself goes on: an ended file is not a failure.
  EXPECT_TRUE(recorder_->isRec());
}

TEST_F(FileAudioSourceTest, LoopsThroughTheFileInsideWholeBlocks) {
  const auto items = ramp(1000);
  record(write("short.wav", items), true);
  ASSERT_TRUE(delegate_->waitForBlocks(4));
  recorder_->stop();
  for (const auto& block : delegate_->blocks.values())
    EXPECT_EQ(block.items.size(), 800u);
  const auto all = delegate_->allItems();
  for (size_t i = 0; i < all.size(); ++i)
    ASSERT_EQ(all[i], items[i % items.size()]) << "item " << i;
}

TEST_F(FileAudioSourceTest, PlaysOtherRatesAtTheRecordersRate) {
  // Half a second of 16 kHz stereo is 4000 items at 8000 Hz.
  record(write("stereo.wav", ramp(16000), 2, 16000), false);
  ASSERT_TRUE(delegate_->waitForBlocks(5));
  std::this_thread::sleep_for(milliseconds(250));
  EXPECT_NEAR(static_cast<double>(delegate_->allItems().size()), 4000.0, 8.0);
}

TEST_F(FileAudioSourceTest, AFileThatCannotBeReadFailsTheStartAndIsRetried) {
  audiotest::RecorderNotifications notifications;
  record(dir_.file("missing.wav"), false);
  EXPECT_FALSE(recorder_->isRec());
  ASSERT_TRUE(notifications.waitForCount(TLRAudioErrorNotification, 1));
  EXPECT_EQ(notifications.entries()[0].message,
            "Error with code -1 occure - readAudioFile attemptCount == 2");
  recorder_->stop();

  // The file appears: the next start plays it.
  write("missing.wav", ramp(800));
  recorder_->start();
  ASSERT_TRUE(delegate_->waitForBlocks(1));
  EXPECT_EQ(delegate_->blocks.values()[0].items, ramp(800));
}

// Blocks the host pushes itself, through the recorder to its delegate.
class HostFedSourceTest : public ::testing::Test {
 protected:
  std::shared_ptr<TLRHostFedAudio> feed_ = TLRHostFedAudio::create();
  LoopRecorder recorder_{8000.0, feed_->sourceFactory()};
  std::shared_ptr<RecordingDelegate> delegate_ = recorder_.delegate;
};

// A block without ticks is taken to end now.
TEST_F(HostFedSourceTest, DeliversPushedBlocksOnTheLoopWithTheHostsTicksOnlyWhileRecording) {
  const auto first = ramp(800), second = ramp(333);
  EXPECT_FALSE(feed_->push(first.data(), 800, 1.0));
  EXPECT_FALSE(feed_->sampleRate().has_value());
  recorder_.start();
  EXPECT_EQ(feed_->sampleRate(), 8000.0);
  double before = 0, after = 0;
  std::thread host([&] {
    EXPECT_TRUE(feed_->push(first.data(), 800, 5e9));
    EXPECT_TRUE(feed_->push(second.data(), 333, 5.1e9));
    before = monotonicTicks();
    EXPECT_TRUE(feed_->push(first.data(), 800));
    after = monotonicTicks();
  });
  host.join();

  ASSERT_TRUE(delegate_->waitForBlocks(3));
  EventLoop::main().drain();
  const auto blocks = delegate_->blocks.values();
  ASSERT_EQ(blocks.size(), 3u);
  EXPECT_EQ(blocks[0].items, first);
  EXPECT_EQ(blocks[0].time, 5e9);
  EXPECT_EQ(blocks[1].items, second);
  EXPECT_EQ(blocks[1].time, 5.1e9);
  EXPECT_GE(blocks[2].time, before - ticksForItems(800, 8000.0));
  EXPECT_LE(blocks[2].time, after - ticksForItems(800, 8000.0));
  EXPECT_TRUE(blocks[0].onLoop && blocks[1].onLoop);
}

TEST_F(HostFedSourceTest, ANewerRecordingTakesTheFeedOver) {
  recorder_.start();
  LoopRecorder other(8000.0, feed_->sourceFactory());
  other.start();

  // Stopping the older recording must not cut the newer one off.
  recorder_.stop();
  const std::vector<int16_t> items{1, 2, 3};
  EXPECT_TRUE(feed_->push(items.data(), 3, 1.0));
  ASSERT_TRUE(other.delegate->waitForBlocks(1));
  EventLoop::main().drain();
  EXPECT_EQ(delegate_->blocks.size(), 0u);
  other.stop();
}

constexpr double kTicksPerSecond = 1e9;
constexpr double kMs = kTicksPerSecond / 1000;

// Block stamps against the true capture times of a simulated device: ten
// minutes of 100 ms blocks from a clock that runs off the nominal rate, with
// callbacks late by up to 15 ms and an input overflow that drops 300 ms.
TEST(BlockClockTest, StampsStayWithin20MsOfTheSoundForTenMinutes) {
  struct Device {
    double ppm;             // the device's real rate is 8000 * (1 + ppm / 1e6)
    bool overflow;          // 300 ms dropped before the block at minute five
    uint64_t maxReanchors;  // drift corrections a steady stream may need
  };
  // 200 ppm is 0.2 ms a second, so about one 4 ms correction every 20 seconds.
  for (const Device device : {Device{200, true, 40}, Device{-200, true, 40}, Device{0, false, 3}}) {
    SCOPED_TRACE(device.ppm);
    const double realRate = 8000.0 * (1 + device.ppm / 1e6);
    TLRBlockClock clock(8000.0, kTicksPerSecond);
    std::mt19937 random(7);
    std::uniform_real_distribution<double> lateness(0, 15 * kMs);
    double itemsCaptured = 0, dropped = 0, worst = 0;
    for (int block = 0; block < 6000; ++block) {
      const bool overflow = device.overflow && block == 3000;
      if (overflow) dropped += 0.3 * kTicksPerSecond;
      const double truth = 4.2e12 + itemsCaptured / realRate * kTicksPerSecond + dropped;
      const double stamp = clock.stamp(800, truth + lateness(random), overflow);
      worst = std::max(worst, std::abs(stamp - truth));
      itemsCaptured += 800;
    }
    EXPECT_LE(worst, 20 * kMs);
    EXPECT_EQ(clock.overflows(), device.overflow ? 1u : 0u);
    EXPECT_NEAR(clock.lostTicks(), device.overflow ? 300 * kMs : 0, 20 * kMs);
    // Jitter alone must not move the stamps: blocks stay evenly spaced.
    EXPECT_LE(clock.reanchors(), device.maxReanchors);
  }
}

}  // namespace
}  // namespace tellora
