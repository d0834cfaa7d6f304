#include "audio/file/audio_file_reader.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>

#include "tests/tools/scratch_dir.h"
#include "tests/tools/test_audio.h"

namespace tellora::audiofile {
namespace {

using testaudio::interleave;
using testaudio::toItems;
using testaudio::writeItems;
using testtools::ScratchDir;

class AudioFileReaderTest : public ::testing::Test {
 protected:
  DecodedAudio read(const std::string& path, int rate) {
    auto result = readAudioFile(path, rate);
    if (auto* error = std::get_if<std::string>(&result)) {
      ADD_FAILURE() << "unexpected error: " << *error;
      return {};
    }
    return std::get<DecodedAudio>(std::move(result));
  }

  std::string readError(const std::string& path, int rate) {
    auto result = readAudioFile(path, rate);
    if (!std::holds_alternative<std::string>(result)) {
      ADD_FAILURE() << path << " was read without an error";
      return {};
    }
    return std::get<std::string>(result);
  }

  ScratchDir dir_;
};

TEST_F(AudioFileReaderTest, MonoFileAtTargetRateComesBackItemForItem) {
  std::vector<int16_t> items = toItems(testaudio::renderChord(8000, 0.0, 0.5));
  items.insert(items.end(), {32767, -32768, 0, 1, -1});
  writeItems(dir_.file("mono.wav"), items, 1, 8000, SF_FORMAT_WAV);

  const DecodedAudio audio = read(dir_.file("mono.wav"), 8000);
  EXPECT_EQ(audio.items, items);
  EXPECT_EQ(audio.sampleRate, 8000);
  EXPECT_EQ(audio.sourceRate, 8000);
  EXPECT_EQ(audio.sourceChannels, 1);
}

TEST_F(AudioFileReaderTest, StereoIsAveragedAndRoundedHalfAwayFromZero) {
  const std::vector<int16_t> left{1000, 1, -1, 32767, -32768, 3};
  const std::vector<int16_t> right{-3000, 2, -2, 32767, -32768, -3};
  writeItems(dir_.file("stereo.wav"), interleave({left, right}), 2, 8000, SF_FORMAT_WAV);

  const DecodedAudio audio = read(dir_.file("stereo.wav"), 8000);
  EXPECT_EQ(audio.items, (std::vector<int16_t>{-1000, 2, -2, 32767, -32768, 0}));
  EXPECT_EQ(audio.sourceChannels, 2);
}

TEST_F(AudioFileReaderTest, FloatSamplesAreClampedAndNaNBecomesSilence) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  testaudio::writeFloatWav(dir_.file("float.wav"), {1.5f, -1.5f, nan, 0.5f, -inf, 0.25f}, 8000);

  const DecodedAudio audio = read(dir_.file("float.wav"), 8000);
  EXPECT_EQ(audio.items, (std::vector<int16_t>{32767, -32768, 0, 16384, -32768, 8192}));
}

// The sound rendered at another rate reads back as the sound rendered at
// 8000 Hz, away from the edges; a NaN and an infinity late in a float file do
// not spoil the audio before them.
TEST_F(AudioFileReaderTest, OtherRatesAreResampledToTheSameSound) {
  const std::vector<int16_t> channel = toItems(testaudio::renderChord(44100, 0.0, 1.0));
  writeItems(dir_.file("cd.wav"), interleave({channel, channel}), 2, 44100, SF_FORMAT_WAV);
  std::vector<float> samples = testaudio::renderChord(16000, 0.0, 1.0);
  samples[12000] = std::numeric_limits<float>::quiet_NaN();
  samples[12001] = std::numeric_limits<float>::infinity();
  testaudio::writeFloatWav(dir_.file("float16k.wav"), samples, 16000);

  const std::vector<int16_t> expected = toItems(testaudio::renderChord(8000, 0.0, 1.0));
  struct Case {
    const char* name;
    int first, last, tolerance;
  };
  for (const Case& c : {Case{"cd.wav", 200, 7800, 299}, Case{"float16k.wav", 100, 5900, 200}}) {
    const DecodedAudio audio = read(dir_.file(c.name), 8000);
    EXPECT_EQ(audio.sampleRate, 8000);
    ASSERT_NEAR(static_cast<double>(audio.items.size()), 8000.0, 2.0) << c.name;
    for (int i = c.first; i < c.last; ++i)
      ASSERT_NEAR(audio.items[i], expected[i], c.tolerance) << c.name << " item " << i;
  }
  EXPECT_EQ(read(dir_.file("cd.wav"), 8000).sourceRate, 44100);

  writeItems(dir_.file("low.wav"), toItems(testaudio::renderChord(8000, 0.0, 0.75)), 1, 8000,
             SF_FORMAT_WAV);
  EXPECT_NEAR(static_cast<double>(read(dir_.file("low.wav"), 22050).items.size()), 0.75 * 22050,
              2.0);
}

TEST_F(AudioFileReaderTest, FlacReadsLikeTheSameWavAndOggVorbisIsRead) {
  const std::vector<int16_t> items = toItems(testaudio::renderChord(8000, 0.3, 0.6));
  writeItems(dir_.file("same.flac"), items, 1, 8000, SF_FORMAT_FLAC);
  EXPECT_EQ(read(dir_.file("same.flac"), 8000).items, items);
  if (!testaudio::writeVorbis(dir_.file("sound.ogg"), testaudio::renderChord(8000, 0.0, 1.0), 8000))
    GTEST_SKIP() << "libsndfile built without Vorbis";
  EXPECT_NEAR(static_cast<double>(read(dir_.file("sound.ogg"), 8000).items.size()), 8000.0, 2.0);
}

TEST_F(AudioFileReaderTest, TruncatedDataYieldsWhatIsThere) {
  const std::vector<int16_t> items = toItems(testaudio::renderChord(8000, 0.0, 0.5));
  writeItems(dir_.file("cut.wav"), items, 1, 8000, SF_FORMAT_WAV);
  const auto size = std::filesystem::file_size(dir_.file("cut.wav"));
  std::filesystem::resize_file(dir_.file("cut.wav"), size - 1001);  // half an item too

  const DecodedAudio audio = read(dir_.file("cut.wav"), 8000);
  ASSERT_EQ(audio.items.size(), items.size() - 501);
  EXPECT_TRUE(std::equal(audio.items.begin(), audio.items.end(), items.begin()));
}

TEST_F(AudioFileReaderTest, WhatIsNotReadableAudioIsExplainedInOneLine) {
  std::ofstream(dir_.file("notes.txt")) << "not a sound\nat all\n";
  std::ofstream(dir_.file("zero.wav")).flush();
  std::string damaged = "RIFF\x24\x00\x00\x00WAVEfmt \x10\x00\x00\x00";
  damaged += std::string(16, '\xff');  // channels, rate and sizes all nonsense
  std::ofstream(dir_.file("damaged.wav"), std::ios::binary)
      << damaged << "data" << std::string(4, '\0');
  writeItems(dir_.file("empty.wav"), {}, 1, 8000, SF_FORMAT_WAV);
  writeItems(dir_.file("empty44.wav"), {}, 2, 44100, SF_FORMAT_WAV);
  const std::pair<std::string, std::string> cases[] = {
      {"absent.wav", ": No such file or directory"},
      {"", ": Is a directory"},
      {"notes.txt", " is not an audio file"},
      {"zero.wav", " is not an audio file"},
      {"damaged.wav", " is not an audio file"},
      {"empty.wav", " holds no audio"},
      {"empty44.wav", " holds no audio"}};
  for (const auto& [name, reason] : cases) {
    const std::string error = readError(dir_.file(name), 8000);
    const bool opened = reason[0] == ' ';
    EXPECT_EQ(error.rfind((opened ? "" : "cannot open ") + dir_.file(name) + reason, 0), 0u)
        << error;
    EXPECT_EQ(error.find('\n'), std::string::npos);
  }
}

TEST_F(AudioFileReaderTest, ImpossibleRatioIsRefused) {
  writeItems(dir_.file("cd.wav"), toItems(testaudio::renderChord(44100, 0.0, 0.1)), 1, 44100,
             SF_FORMAT_WAV);
  for (int rate : {0, -8000, 100}) {
    EXPECT_EQ(readError(dir_.file("cd.wav"), rate).rfind("cannot resample", 0), 0u) << rate;
  }
}

}  // namespace
}  // namespace tellora::audiofile
