// The sources beside the microphone, through the recorder to its delegate:
// audio files played as if a microphone heard them (how files are decoded and
// converted is the reader's test, tests/tools/audio_file_reader_test.cpp), and
// blocks the host pushes itself.
#include "audio/file/file_audio_source.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <thread>

#include "audio/audio_ticks.h"
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
  std::vector<int16_t> allItems() {
    std::vector<int16_t> all;
    for (const auto& block : delegate_->blocks.values())
      all.insert(all.end(), block.items.begin(), block.items.end());
    return all;
  }

  testtools::ScratchDir dir_;
  std::shared_ptr<RecordingDelegate> delegate_;
  std::unique_ptr<LoopRecorder> recorder_;
};

TEST_F(FileAudioSourceTest, PlaysTheFileOnceInEvenlyStampedBlocksOf800AndThenFallsSilent) {
  const auto items = ramp(2000);  // two whole blocks and a half
  record(write("ramp.wav", items), false);
  ASSERT_TRUE(delegate_->waitForBlocks(3));
  std::this_thread::sleep_for(milliseconds(300));  // nothing more may come
  const auto blocks = delegate_->blocks.values();
  ASSERT_EQ(blocks.size(), 3u);
  EXPECT_EQ(blocks[0].items.size(), 800u);
  EXPECT_EQ(blocks[2].items.size(), 400u);
  EXPECT_EQ(allItems(), items);
  for (size_t i = 0; i < blocks.size(); ++i) {
    EXPECT_TRUE(blocks[i].onLoop);
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
  const auto all = allItems();
  for (size_t i = 0; i < all.size(); ++i)
    ASSERT_EQ(all[i], items[i % items.size()]) << "item " << i;
}

TEST_F(FileAudioSourceTest, PacesBlocksRoughlyInRealTime) {
  record(write("long.wav", ramp(8000 * 3)), false);
  const auto started = std::chrono::steady_clock::now();
  ASSERT_TRUE(delegate_->waitForBlocks(10));
  // No block may arrive before its audio is complete.
  const auto blocks = delegate_->blocks.values();
  for (size_t i = 0; i < 10; ++i)
    EXPECT_GE(blocks[i].arrivedAt - started, milliseconds(100) * static_cast<int>(i)) << i;
}

TEST_F(FileAudioSourceTest, PlaysOtherRatesAtTheRecordersRate) {
  // Half a second of 16 kHz stereo is 4000 items at 8000 Hz.
  record(write("stereo.wav", ramp(16000), 2, 16000), false);
  ASSERT_TRUE(delegate_->waitForBlocks(5));
  std::this_thread::sleep_for(milliseconds(250));
  EXPECT_NEAR(static_cast<double>(allItems().size()), 4000.0, 8.0);
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
  EXPECT_TRUE(recorder_->isRec());
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

TEST_F(HostFedSourceTest, DeliversPushedBlocksOnTheLoopWithTheHostsTicksOnlyWhileRecording) {
  std::vector<int16_t> first(800), second(333);
  for (size_t i = 0; i < first.size(); ++i)
    first[i] = static_cast<int16_t>(i * 37 - 9000);
  for (size_t i = 0; i < second.size(); ++i)
    second[i] = static_cast<int16_t>(-static_cast<int>(i));
  EXPECT_FALSE(feed_->push(first.data(), 800, 1.0));
  EXPECT_FALSE(feed_->sampleRate().has_value());
  recorder_.start();
  recorder_.stop();
  EXPECT_FALSE(feed_->push(first.data(), 800, 1.0));

  recorder_.start();
  EXPECT_EQ(feed_->sampleRate(), 8000.0);
  std::thread host([&] {
    EXPECT_TRUE(feed_->push(first.data(), static_cast<uint32_t>(first.size()), 5e9));
    EXPECT_TRUE(feed_->push(second.data(), static_cast<uint32_t>(second.size()), 5.1e9));
  });
  host.join();

  ASSERT_TRUE(delegate_->waitForBlocks(2));
  EventLoop::main().drain();
  const auto blocks = delegate_->blocks.values();
  ASSERT_EQ(blocks.size(), 2u);
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

}  // namespace
}  // namespace tellora
