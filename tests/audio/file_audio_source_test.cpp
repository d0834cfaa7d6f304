// Audio files played through the recorder as if a microphone heard them.
#include "audio/file/file_audio_source.h"

#include <gtest/gtest.h>

#include <cmath>
#include "audio/audio_ticks.h"

#include "tests/audio/audio_test_files.h"
#include "tests/audio/recorder_test_support.h"

namespace tellora {
namespace {

using audiotest::LoopRecorder;
using audiotest::RecorderNotifications;
using audiotest::RecordingDelegate;
using std::chrono::milliseconds;

// Distinct, recognisable items: a ramp that wraps.
std::vector<int16_t> ramp(size_t count) {
  std::vector<int16_t> items(count);
  for (size_t i = 0; i < count; ++i)
    items[i] = static_cast<int16_t>((i * 13) % 20000 - 10000);
  return items;
}

std::vector<int16_t> concatenated(const std::vector<audiotest::ReceivedBlock>& blocks) {
  std::vector<int16_t> all;
  for (const auto& block : blocks)
    all.insert(all.end(), block.items.begin(), block.items.end());
  return all;
}

class FileAudioSourceTest : public ::testing::Test {
 protected:
  std::string writeMono8k(const std::string& name, const std::vector<int16_t>& items) {
    const std::string path = dir_.file(name);
    audiotest::writeWav(path, items, 1, 8000);
    return path;
  }

  void record(TLRAudioSourceFactory factory) {
    recorder_ = std::make_unique<LoopRecorder>(8000.0, std::move(factory));
    recorder_->run([this](TLRRecorder& r) {
      r.setDelegate(delegate_);
      r.setRetryDelayUnit(milliseconds(50));
    });
    recorder_->start();
  }

  audiotest::TempDir dir_;
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
  std::unique_ptr<LoopRecorder> recorder_;
};

TEST_F(FileAudioSourceTest, PlaysTheFileOnceInBlocksOf800AndThenFallsSilent) {
  const auto items = ramp(2000);  // two whole blocks and a half
  record(fileAudioSourceFactory(writeMono8k("ramp.wav", items), false));
  ASSERT_TRUE(recorder_->isRec());

  ASSERT_TRUE(delegate_->waitForBlocks(3));
  std::this_thread::sleep_for(milliseconds(300));  // nothing more may come
  const auto blocks = delegate_->blocks();
  ASSERT_EQ(blocks.size(), 3u);
  EXPECT_EQ(blocks[0].items.size(), 800u);
  EXPECT_EQ(blocks[1].items.size(), 800u);
  EXPECT_EQ(blocks[2].items.size(), 400u);
  EXPECT_EQ(concatenated(blocks), items);
  for (const auto& block : blocks)
    EXPECT_TRUE(block.onLoop);
  // The recording itself goes on: an ended file is not a failure.
  EXPECT_TRUE(recorder_->isRec());
}

TEST_F(FileAudioSourceTest, StampsBlocksOneBlockLengthApart) {
  record(fileAudioSourceFactory(writeMono8k("ramp.wav", ramp(4000)), false));
  ASSERT_TRUE(delegate_->waitForBlocks(5));
  const auto blocks = delegate_->blocks();
  const double blockTicks = ticksForItems(800, 8000.0);
  for (size_t i = 1; i < blocks.size(); ++i) {
    EXPECT_DOUBLE_EQ(blocks[i].time - blocks[i - 1].time, blockTicks) << "block " << i;
  }
}

TEST_F(FileAudioSourceTest, LoopsThroughTheFileInsideWholeBlocks) {
  const auto items = ramp(1000);
  record(fileAudioSourceFactory(writeMono8k("short.wav", items), true));
  ASSERT_TRUE(delegate_->waitForBlocks(4));
  recorder_->stop();

  const auto blocks = delegate_->blocks();
  for (const auto& block : blocks)
    EXPECT_EQ(block.items.size(), 800u);
  const auto all = concatenated(blocks);
  for (size_t i = 0; i < all.size(); ++i) {
    ASSERT_EQ(all[i], items[i % items.size()]) << "item " << i;
  }
}

TEST_F(FileAudioSourceTest, PacesBlocksRoughlyInRealTime) {
  record(fileAudioSourceFactory(writeMono8k("long.wav", ramp(8000 * 3)), false));
  const auto started = std::chrono::steady_clock::now();
  ASSERT_TRUE(delegate_->waitForBlocks(10));
  const auto blocks = delegate_->blocks();
  // Ten blocks hold a second of audio; the tenth cannot be complete earlier.
  EXPECT_GE(blocks[9].arrivedAt - started, milliseconds(900));
  // And no block may arrive before its audio is complete.
  for (size_t i = 0; i < blocks.size(); ++i) {
    EXPECT_GE(blocks[i].arrivedAt - started, milliseconds(100) * static_cast<int>(i)) << i;
  }
}

TEST_F(FileAudioSourceTest, ConvertsOtherRatesAndChannelsTo8kMono) {
  // Half a second of a half-amplitude 440 Hz tone, the same in both channels.
  const int rate = 16000;
  std::vector<int16_t> stereo;
  for (int i = 0; i < rate / 2; ++i) {
    const auto v =
        static_cast<int16_t>(std::lround(16383.5 * std::sin(2 * M_PI * 440.0 * i / rate)));
    stereo.push_back(v);
    stereo.push_back(v);
  }
  audiotest::writeWav(dir_.file("stereo.wav"), stereo, 2, rate);
  record(fileAudioSourceFactory(dir_.file("stereo.wav"), false));
  ASSERT_TRUE(delegate_->waitForBlocks(5));
  std::this_thread::sleep_for(milliseconds(250));
  const auto all = concatenated(delegate_->blocks());
  EXPECT_NEAR(static_cast<double>(all.size()), 4000.0, 8.0);
  // The tone keeps its level through the conversion.
  int16_t peak = 0;
  for (int16_t v : all)
    peak = std::max<int16_t>(peak, static_cast<int16_t>(std::abs(v)));
  EXPECT_NEAR(peak, 16384, 1700);
}

TEST_F(FileAudioSourceTest, AFileThatCannotBeReadFailsTheStartAndIsRetried) {
  RecorderNotifications notifications;
  record(fileAudioSourceFactory(dir_.file("missing.wav"), false));
  EXPECT_FALSE(recorder_->isRec());
  ASSERT_TRUE(notifications.waitForCount(TLRAudioErrorNotification, 1));
  EXPECT_EQ(notifications.entries()[0].message,
            "Error with code -1 occure - readAudioFile attemptCount == 2");
  recorder_->stop();

  // The file appears: the next start plays it.
  writeMono8k("missing.wav", ramp(800));
  recorder_->start();
  EXPECT_TRUE(recorder_->isRec());
  ASSERT_TRUE(delegate_->waitForBlocks(1));
  EXPECT_EQ(delegate_->blocks()[0].items, ramp(800));
}

}  // namespace
}  // namespace tellora
