// `tellora hash` run as a user runs it, on the committed chirp recording and
// on files written here.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "tests/fingerprint/audiohash/hashed.h"
#include "tests/tools/test_audio.h"
#include "tests/tools/tool_runner.h"

namespace tellora::testtools {
namespace {

const std::string kChirp = TELLORA_TOOLS_TEST_DATA "/chirp.wav";

// The lines `tellora hash ARGS...` prints; it must succeed quietly.
std::vector<std::string> hashLines(std::vector<std::string> args) {
  args.insert(args.begin(), "hash");
  const ToolRun run = runTool(args);
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.err, "");
  return splitLines(run.out);
}

// Committed audio and its committed hash: catches any change in what the tool
// prints for the same file. tests/tools/update_golden.sh rewrites them.
TEST(HashCommandTest, ChirpWordsPlainAndWithThreeTogglesMatchTheGoldenFiles) {
  for (const auto& [toggles, golden] :
       {std::pair{"0", "chirp.hash"}, {"3", "chirp.toggles3.hash"}}) {
    const auto expected = splitLines(readFile(TELLORA_TOOLS_TEST_DATA "/" + std::string(golden)));
    ASSERT_FALSE(expected.empty()) << golden << " is missing or empty";
    EXPECT_EQ(hashLines({"--toggles", toggles, kChirp}), expected) << golden;
  }
}

TEST(HashCommandTest, JsonCarriesTheSameWordsAndToggles) {
  const auto plain = hashLines({"--toggles", "3", kChirp});
  const auto json = hashLines({"--toggles", "3", "--json", kChirp});
  ASSERT_EQ(json.size(), plain.size());
  for (size_t i = 0; i < json.size(); ++i) {
    ASSERT_EQ(nlohmann::json::parse(json[i], nullptr, false),
              nlohmann::json(
                  {{"index", i}, {"word", plain[i].substr(0, 8)}, {"toggles", plain[i].substr(9)}}))
        << json[i];
  }
}

TEST(HashCommandTest, HashesAFileAtTheRateAsked) {
  ScratchDir dir;
  // 2176 items at 8000 Hz (a frame and two steps) is the shortest file: one word.
  for (const auto& [rate, count] : {std::pair{8000, 2176}, {6000, 6000}, {16000, 16000}}) {
    const auto items = testaudio::toItems(testaudio::renderChord(rate, 0.0, 1.0 * count / rate));
    const std::string path = dir.file(std::to_string(rate) + ".wav");
    testaudio::writeItems(path, items, 1, rate, SF_FORMAT_WAV);
    std::vector<std::string> expected;
    for (uint32_t word : testing::Hashed(testing::Hashed::floats(items), 0, rate).words()) {
      char line[9];
      std::snprintf(line, sizeof line, "%08x", word);
      expected.emplace_back(line);
    }
    if (rate == 8000) {
      EXPECT_EQ(expected.size(), 1u);
    }
    EXPECT_EQ(hashLines({"--rate", std::to_string(rate), path}), expected) << rate;
  }
}

}  // namespace
}  // namespace tellora::testtools
