// `tellora compare` finding excerpts inside the recording they were cut from.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <nlohmann/json.hpp>
#include <regex>

#include "tests/tools/test_audio.h"
#include "tests/tools/tool_runner.h"

namespace tellora::testtools {
namespace {

struct Match {
  double offsetSeconds = -1.0;
  double confidence = -1.0;
  bool match = false;
};

constexpr int kNoMatch = 3;

class CompareCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    long_ = testaudio::renderChord(8000, 0.0, 6.0);
    writeMono("long.wav", long_, 8000);
  }

  void writeMono(const std::string& name, const std::vector<float>& samples, int rate) {
    testaudio::writeItems(dir_.file(name), testaudio::toItems(samples), 1, rate, SF_FORMAT_WAV);
  }

  // The excerpt of the long recording from `first` on, `count` samples.
  std::vector<float> excerpt(size_t first, size_t count) const {
    return {long_.begin() + static_cast<ptrdiff_t>(first),
            long_.begin() + static_cast<ptrdiff_t>(first + count)};
  }

  // The plain and the JSON output must agree, and the exit status must
  // follow the verdict.
  Match compare(const std::vector<std::string>& args) {
    std::vector<std::string> full{"compare"};
    full.insert(full.end(), args.begin(), args.end());
    const ToolRun run = runTool(full);
    EXPECT_EQ(run.err, "");
    const std::regex format(
        "offset (\\d+\\.\\d{3}) s\nconfidence (-?\\d+\\.\\d{4})\n(match|no match)\n");
    std::smatch parts;
    if (!std::regex_match(run.out, parts, format)) {
      ADD_FAILURE() << "unexpected output: " << run.out;
      return {};
    }
    const Match plain{std::stod(parts[1]), std::stod(parts[2]), parts[3] == "match"};
    EXPECT_EQ(run.exitCode, plain.match ? 0 : kNoMatch) << run.err;

    full.push_back("--json");
    const auto json = nlohmann::json::parse(runTool(full).out, nullptr, false);
    EXPECT_EQ(json, nlohmann::json({{"offset", plain.offsetSeconds},
                                    {"confidence", plain.confidence},
                                    {"match", plain.match}}));
    return plain;
  }

  ScratchDir dir_;
  std::vector<float> long_;
};

TEST_F(CompareCommandTest, FindsAnExcerptCutOnAHashStep) {
  writeMono("cut.wav", excerpt(8000, 12000), 8000);  // 1.0 s to 2.5 s
  const Match match = compare({dir_.file("cut.wav"), dir_.file("long.wav")});
  EXPECT_DOUBLE_EQ(match.offsetSeconds, 1.0);
  EXPECT_GT(match.confidence, 0.95);
}

TEST_F(CompareCommandTest, FindsAnExcerptCutSlightlyOffTheHashSteps) {
  // The low bands carry the heaviest bits and follow the phase of the frame,
  // so agreement fades as the cut moves towards half a step (32 samples).
  writeMono("cut.wav", excerpt(8000 + 4, 12000), 8000);  // 1.0005 s
  const Match match = compare({dir_.file("cut.wav"), dir_.file("long.wav")});
  EXPECT_NEAR(match.offsetSeconds, 1.0005, 0.008);
  EXPECT_GT(match.confidence, 0.8);
}

TEST_F(CompareCommandTest, FindsAStereoCdRateRecordingOfTheSameSound) {
  // 2.504 s is on a hash step of the 8000 Hz file.
  const auto channel = testaudio::toItems(testaudio::renderChord(44100, 2.504, 2.0));
  testaudio::writeItems(dir_.file("cd.wav"), testaudio::interleave({channel, channel}), 2, 44100,
                        SF_FORMAT_WAV);
  const Match match = compare({dir_.file("cd.wav"), dir_.file("long.wav")});
  EXPECT_NEAR(match.offsetSeconds, 2.504, 0.008);
  EXPECT_GT(match.confidence, 0.9);
}

TEST_F(CompareCommandTest, FileAgainstItselfMatchesAtTheStart) {
  const Match match = compare({dir_.file("long.wav"), dir_.file("long.wav")});
  EXPECT_DOUBLE_EQ(match.offsetSeconds, 0.0);
  EXPECT_GT(match.confidence, 0.95);
}

TEST_F(CompareCommandTest, UnrelatedSoundAndSilenceDoNotMatch) {
  writeMono("other.wav", testaudio::renderChord(8000, 40.0, 1.5), 8000);
  writeMono("silence.wav", std::vector<float>(12000, 0.0f), 8000);
  writeMono("cut.wav", excerpt(16000, 12000), 8000);
  const Match related = compare({dir_.file("cut.wav"), dir_.file("long.wav")});
  EXPECT_TRUE(related.match);
  for (const char* name : {"other.wav", "silence.wav"}) {
    const Match unrelated = compare({dir_.file(name), dir_.file("long.wav")});
    EXPECT_FALSE(unrelated.match) << name;
    EXPECT_LT(unrelated.confidence + 0.2, related.confidence) << name;
  }
}

TEST_F(CompareCommandTest, OptionsReachTheComparison) {
  writeMono("cut.wav", excerpt(8000 + 4, 12000), 8000);
  const std::string cut = dir_.file("cut.wav");
  const std::string full = dir_.file("long.wav");
  // Under a zero threshold only identical blocks count as close, and this cut
  // is off the hash steps, so the score drops.
  const Match strict = compare({"--threshold", "0", cut, full});
  const Match loose = compare({"--threshold", "1", cut, full});
  EXPECT_LT(strict.confidence, loose.confidence);
  const Match smallBlocks = compare({"--block-size", "4", cut, full});
  EXPECT_NEAR(smallBlocks.offsetSeconds, 1.0005, 0.008);
}

}  // namespace
}  // namespace tellora::testtools
