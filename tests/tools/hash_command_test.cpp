// `tellora hash` run as a user runs it, on files written here.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <bit>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <regex>

#include "audio/file/audio_file_reader.h"
#include "fingerprint/pcm.h"
#include "tellora/audiohash.h"
#include "tests/tools/test_audio.h"
#include "tests/tools/tool_runner.h"

namespace tellora::testtools {
namespace {

// What the tool must print for path: the reader's items hashed directly.
std::vector<std::string> expectedLines(const std::string& path, int rate, int toggleBits) {
  auto decoded = audiofile::readAudioFile(path, rate);
  const auto& items = std::get<audiofile::DecodedAudio>(decoded).items;
  std::vector<float> samples(items.size());
  pcmItemsToFloats(items.data(), items.size(), samples.data());
  hashst state;
  inithashst(&state);
  hashres result{};
  EXPECT_EQ(audiohash(samples.data(), static_cast<uint32_t>(samples.size()), &result, &state,
                      toggleBits, rate),
            0);
  std::vector<std::string> lines;
  for (int32_t i = 0; i < result.nbhashes; ++i) {
    char line[32];
    if (toggleBits > 0) {
      std::snprintf(line, sizeof line, "%08x %08x", result.hashes[i], result.toggles[i]);
    } else {
      std::snprintf(line, sizeof line, "%08x", result.hashes[i]);
    }
    lines.emplace_back(line);
  }
  freehash(&result);
  freehashst(&state);
  return lines;
}

std::vector<uint32_t> parseWords(const std::string& out) {
  std::vector<uint32_t> words;
  for (const std::string& line : splitLines(out)) {
    words.push_back(static_cast<uint32_t>(std::stoul(line.substr(0, 8), nullptr, 16)));
  }
  return words;
}

class HashCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::vector<float> sound = testaudio::renderChord(8000, 0.0, 3.0);
    testaudio::addNoise(sound, 0.05f, 7u);
    writeMono("mix.wav", sound, 8000);
  }

  void writeMono(const std::string& name, const std::vector<float>& samples, int rate,
                 int format = SF_FORMAT_WAV) {
    testaudio::writeItems(dir_.file(name), testaudio::toItems(samples), 1, rate, format);
  }

  ToolRun hashOk(const std::vector<std::string>& args) {
    std::vector<std::string> full{"hash"};
    full.insert(full.end(), args.begin(), args.end());
    ToolRun run = runTool(full);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    return run;
  }

  ScratchDir dir_;
};

TEST_F(HashCommandTest, PrintsOneWordPerHashStep) {
  const ToolRun run = hashOk({dir_.file("mix.wav")});
  const auto lines = splitLines(run.out);
  // 3 s at 8000 Hz: 24000 / 64 - 31 frames, two fewer words.
  ASSERT_EQ(lines.size(), 24000u / 64 - 31 - 2);
  const std::regex word("[0-9a-f]{8}");
  for (const std::string& line : lines)
    ASSERT_TRUE(std::regex_match(line, word)) << line;
  EXPECT_EQ(lines, expectedLines(dir_.file("mix.wav"), 8000, 0));
}

TEST_F(HashCommandTest, TogglesFollowEachWordWithTheAskedNumberOfBits) {
  for (int bits : {1, 3, 32}) {
    const ToolRun run = hashOk({"--toggles", std::to_string(bits), dir_.file("mix.wav")});
    const auto lines = splitLines(run.out);
    ASSERT_EQ(lines, expectedLines(dir_.file("mix.wav"), 8000, bits)) << bits;
    for (const std::string& line : lines) {
      ASSERT_EQ(line.size(), 17u);
      const auto mask = static_cast<uint32_t>(std::stoul(line.substr(9), nullptr, 16));
      ASSERT_EQ(std::popcount(mask), bits) << line;
    }
  }
}

TEST_F(HashCommandTest, JsonCarriesTheSameWordsAndToggles) {
  const auto plain = splitLines(hashOk({"--toggles", "3", dir_.file("mix.wav")}).out);
  const auto json = splitLines(hashOk({"--toggles", "3", "--json", dir_.file("mix.wav")}).out);
  ASSERT_EQ(json.size(), plain.size());
  for (size_t i = 0; i < json.size(); ++i) {
    const auto object = nlohmann::json::parse(json[i], nullptr, false);
    ASSERT_EQ(object,
              nlohmann::json(
                  {{"index", i}, {"word", plain[i].substr(0, 8)}, {"toggles", plain[i].substr(9)}}))
        << json[i];
  }
}

TEST_F(HashCommandTest, RateOptionHashesAtThatRate) {
  for (int rate : {6000, 16000}) {
    const ToolRun run = hashOk({"--rate", std::to_string(rate), dir_.file("mix.wav")});
    EXPECT_EQ(splitLines(run.out), expectedLines(dir_.file("mix.wav"), rate, 0)) << rate;
  }
}

TEST_F(HashCommandTest, ExactlyOneWordAtTheShortestLength) {
  // A 2048-sample frame and two 64-sample steps.
  std::vector<float> sound = testaudio::renderChord(8000, 0.0, 2176.0 / 8000);
  ASSERT_EQ(sound.size(), 2176u);
  writeMono("shortest.wav", sound, 8000);
  EXPECT_EQ(splitLines(hashOk({dir_.file("shortest.wav")}).out).size(), 1u);
}

TEST_F(HashCommandTest, StereoAt44100HashesCloseToTheSameSoundAt8000) {
  const auto channel = testaudio::toItems(testaudio::renderChord(44100, 0.0, 3.0));
  testaudio::writeItems(dir_.file("cd.wav"), testaudio::interleave({channel, channel}), 2, 44100,
                        SF_FORMAT_WAV);
  writeMono("direct.wav", testaudio::renderChord(8000, 0.0, 3.0), 8000);

  const auto fromCd = parseWords(hashOk({dir_.file("cd.wav")}).out);
  const auto direct = parseWords(hashOk({dir_.file("direct.wav")}).out);
  // The resampler may end a sample short of the exact length.
  ASSERT_NEAR(static_cast<double>(fromCd.size()), static_cast<double>(direct.size()), 1.0);
  const size_t words = std::min(fromCd.size(), direct.size());
  size_t differingBits = 0;
  for (size_t i = 0; i < words; ++i)
    differingBits += std::popcount(fromCd[i] ^ direct[i]);
  EXPECT_LT(static_cast<double>(differingBits) / (32.0 * words), 0.05);
}

// Committed audio and its committed hash: catches any change in what the tool
// prints for the same file. tests/tools/update_golden.sh rewrites them.
TEST(HashGoldenTest, ChirpWordsPlainAndWithThreeToggles) {
  const std::string data = TELLORA_TOOLS_TEST_DATA;
  for (const auto& [toggles, golden] :
       {std::pair{"0", "chirp.hash"}, {"3", "chirp.toggles3.hash"}}) {
    const ToolRun run = runTool({"hash", "--toggles", toggles, data + "/chirp.wav"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto expected = splitLines(readFile(data + "/" + golden));
    ASSERT_FALSE(expected.empty()) << golden << " is missing or empty";
    EXPECT_EQ(splitLines(run.out), expected) << golden;
  }
}

}  // namespace
}  // namespace tellora::testtools
