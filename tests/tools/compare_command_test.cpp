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
  void SetUp() override { writeMono("long.wav", long_); }

  void writeMono(const std::string& name, const std::vector<float>& samples) {
    testaudio::writeItems(dir_.file(name), testaudio::toItems(samples), 1, 8000, SF_FORMAT_WAV);
  }
  // Writes `count` samples of the long recording from `first` on.
  void writeExcerpt(const std::string& name, size_t first, size_t count) {
    writeMono(name, {long_.begin() + static_cast<ptrdiff_t>(first),
                     long_.begin() + static_cast<ptrdiff_t>(first + count)});
  }

  // The plain and the JSON output must agree, and the exit status must
  // follow the verdict.
  Match compare(std::vector<std::string> args) {
    args.insert(args.begin(), "compare");
    for (std::string& arg : args)
      if (arg.ends_with(".wav")) arg = dir_.file(arg);
    const ToolRun run = runTool(args);
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

    args.push_back("--json");
    EXPECT_EQ(nlohmann::json::parse(runTool(args).out, nullptr, false),
              nlohmann::json({{"offset", plain.offsetSeconds},
                              {"confidence", plain.confidence},
                              {"match", plain.match}}));
    return plain;
  }

  ScratchDir dir_;
  const std::vector<float> long_ = testaudio::renderChord(8000, 0.0, 6.0);
};

TEST_F(CompareCommandTest, FindsExcerptsOnAndOffTheHashStepsAndAtOtherRates) {
  writeExcerpt("cut.wav", 8000, 12000);  // 1.0 s to 2.5 s
  // The low bands carry the heaviest bits and follow the phase of the frame,
  // so agreement fades as the cut moves towards half a step (32 samples).
  writeExcerpt("off.wav", 8000 + 4, 12000);
  // 2.504 s is on a hash step of the 8000 Hz file.
  const auto channel = testaudio::toItems(testaudio::renderChord(44100, 2.504, 2.0));
  testaudio::writeItems(dir_.file("cd.wav"), testaudio::interleave({channel, channel}), 2, 44100,
                        SF_FORMAT_WAV);
  struct Case {
    const char* file;
    double offset, tolerance, minConfidence;
  };
  for (const Case& c : {Case{"cut.wav", 1.0, 0, 0.95}, Case{"off.wav", 1.0005, 0.008, 0.8},
                        Case{"cd.wav", 2.504, 0.008, 0.9}, Case{"long.wav", 0.0, 0, 0.95}}) {
    const Match match = compare({c.file, "long.wav"});
    EXPECT_NEAR(match.offsetSeconds, c.offset, c.tolerance) << c.file;
    EXPECT_GT(match.confidence, c.minConfidence) << c.file;
    EXPECT_TRUE(match.match) << c.file;
  }
}

TEST_F(CompareCommandTest, UnrelatedSoundAndSilenceDoNotMatch) {
  writeMono("other.wav", testaudio::renderChord(8000, 40.0, 1.5));
  writeMono("silence.wav", std::vector<float>(12000, 0.0f));
  writeExcerpt("cut.wav", 16000, 12000);
  const Match related = compare({"cut.wav", "long.wav"});
  EXPECT_TRUE(related.match);
  for (const char* name : {"other.wav", "silence.wav"}) {
    const Match unrelated = compare({name, "long.wav"});
    EXPECT_FALSE(unrelated.match) << name;
    EXPECT_LT(unrelated.confidence + 0.2, related.confidence) << name;
  }
}

TEST_F(CompareCommandTest, OptionsReachTheComparison) {
  writeExcerpt("cut.wav", 8000 + 4, 12000);
  // Under a zero threshold only identical blocks count as close, and this cut
  // is off the hash steps, so the score drops.
  EXPECT_LT(compare({"--threshold", "0", "cut.wav", "long.wav"}).confidence,
            compare({"--threshold", "1", "cut.wav", "long.wav"}).confidence);
  EXPECT_NEAR(compare({"--block-size", "4", "cut.wav", "long.wav"}).offsetSeconds, 1.0005, 0.008);
}

}  // namespace
}  // namespace tellora::testtools
