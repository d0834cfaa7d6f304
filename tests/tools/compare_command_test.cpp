// `tellora compare` finding excerpts inside the recording they were cut from.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <regex>

#include "tests/tools/test_audio.h"
#include "tests/tools/tool_runner.h"

namespace tellora::testtools {
namespace {

struct Match {
  double offsetSeconds = -1.0;
  double confidence = -1.0;
};

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

  Match compare(const std::vector<std::string>& args) {
    std::vector<std::string> full{"compare"};
    full.insert(full.end(), args.begin(), args.end());
    const ToolRun run = runTool(full);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    const std::regex format("offset (\\d+\\.\\d{3}) s\nconfidence (-?\\d+\\.\\d{4})\n");
    std::smatch parts;
    if (!std::regex_match(run.out, parts, format)) {
      ADD_FAILURE() << "unexpected output: " << run.out;
      return {};
    }
    return {std::stod(parts[1]), std::stod(parts[2])};
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

TEST_F(CompareCommandTest, UnrelatedSoundScoresBelowTheTrueExcerpt) {
  std::vector<float> other = testaudio::renderChord(8000, 40.0, 1.5);
  writeMono("other.wav", other, 8000);
  writeMono("cut.wav", excerpt(16000, 12000), 8000);
  const Match unrelated = compare({dir_.file("other.wav"), dir_.file("long.wav")});
  const Match related = compare({dir_.file("cut.wav"), dir_.file("long.wav")});
  EXPECT_LT(unrelated.confidence + 0.2, related.confidence);
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
