#include "audio/file/audio_file_reader.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <filesystem>
#include <fstream>
#include <limits>

#include "tests/tools/scratch_dir.h"
#include "tests/tools/test_audio.h"

namespace tellora::audiofile {
namespace {

using testaudio::renderChord;
using testaudio::toItems;
using testaudio::writeItems;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

class AudioFileReaderTest : public ::testing::Test {
 protected:
  // Reads `name` in the scratch folder, expecting the decoded audio or an error.
  template <class Expected>
  Expected read(const std::string& name, int rate) {
    auto result = readAudioFile(dir_.file(name), rate);
    if (auto* expected = std::get_if<Expected>(&result)) return *expected;
    const auto* error = std::get_if<std::string>(&result);
    ADD_FAILURE() << name << ": " << (error ? *error : "read without an error");
    return {};
  }

  testtools::ScratchDir dir_;
};

TEST_F(AudioFileReaderTest, FilesAtTheTargetRateBecomeMonoItemsRoundedAndClamped) {
  std::vector<int16_t> items = toItems(renderChord(8000, 0.0, 0.5));
  items.insert(items.end(), {32767, -32768, 0, 1, -1});
  writeItems(dir_.file("mono.wav"), items, 1, 8000, SF_FORMAT_WAV);
  writeItems(dir_.file("same.flac"), items, 1, 8000, SF_FORMAT_FLAC);
  // Stereo is averaged, and rounded half away from zero.
  writeItems(
      dir_.file("stereo.wav"),
      testaudio::interleave({{1000, 1, -1, 32767, -32768, 3}, {-3000, 2, -2, 32767, -32768, -3}}),
      2, 8000, SF_FORMAT_WAV);
  // Float samples are clamped, and NaN becomes silence.
  testaudio::writeFloatWav(dir_.file("float.wav"), {1.5f, -1.5f, kNaN, 0.5f, -kInf, 0.25f}, 8000);
  const std::pair<const char*, std::vector<int16_t>> cases[] = {
      {"mono.wav", items},
      {"same.flac", items},
      {"stereo.wav", {-1000, 2, -2, 32767, -32768, 0}},
      {"float.wav", {32767, -32768, 0, 16384, -32768, 8192}}};
  for (const auto& [name, expected] : cases)
    EXPECT_EQ(read<DecodedAudio>(name, 8000).items, expected) << name;
}

// The sound rendered at another rate reads back as the sound rendered at
// 8000 Hz, away from the edges; a NaN and an infinity late in a float file do
// not spoil the audio before them.
TEST_F(AudioFileReaderTest, OtherRatesAreResampledToTheSameSound) {
  const std::vector<int16_t> channel = toItems(renderChord(44100, 0.0, 1.0));
  writeItems(dir_.file("cd.wav"), testaudio::interleave({channel, channel}), 2, 44100,
             SF_FORMAT_WAV);
  std::vector<float> samples = renderChord(16000, 0.0, 1.0);
  samples[12000] = kNaN;
  samples[12001] = kInf;
  testaudio::writeFloatWav(dir_.file("float16k.wav"), samples, 16000);

  const std::vector<int16_t> expected = toItems(renderChord(8000, 0.0, 1.0));
  for (const auto& [name, first, last, tolerance] :
       {std::tuple{"cd.wav", 200, 7800, 299}, {"float16k.wav", 100, 5900, 200}}) {
    const DecodedAudio audio = read<DecodedAudio>(name, 8000);
    ASSERT_NEAR(static_cast<double>(audio.items.size()), 8000.0, 2.0) << name;
    for (int i = first; i < last; ++i)
      ASSERT_NEAR(audio.items[i], expected[i], tolerance) << name << " item " << i;
  }

  writeItems(dir_.file("low.wav"), toItems(renderChord(8000, 0.0, 0.75)), 1, 8000, SF_FORMAT_WAV);
  EXPECT_NEAR(static_cast<double>(read<DecodedAudio>("low.wav", 22050).items.size()), 0.75 * 22050,
              2.0);
}

TEST_F(AudioFileReaderTest, TruncatedDataYieldsWhatIsThere) {
  const std::vector<int16_t> items = toItems(renderChord(8000, 0.0, 0.5));
  writeItems(dir_.file("cut.wav"), items, 1, 8000, SF_FORMAT_WAV);
  const auto size = std::filesystem::file_size(dir_.file("cut.wav"));
  std::filesystem::resize_file(dir_.file("cut.wav"), size - 1001);  // half an item too

  const DecodedAudio audio = read<DecodedAudio>("cut.wav", 8000);
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
    const std::string error = read<std::string>(name, 8000);
    const bool opened = reason[0] == ' ';
    EXPECT_EQ(error.rfind((opened ? "" : "cannot open ") + dir_.file(name) + reason, 0), 0u)
        << error;
    EXPECT_EQ(error.find('\n'), std::string::npos);
  }
  // An impossible resampling ratio.
  writeItems(dir_.file("cd.wav"), toItems(renderChord(44100, 0.0, 0.1)), 1, 44100, SF_FORMAT_WAV);
  for (int rate : {0, -8000, 100})
    EXPECT_EQ(read<std::string>("cd.wav", rate).rfind("cannot resample", 0), 0u) << rate;
}

}  // namespace
}  // namespace tellora::audiofile
