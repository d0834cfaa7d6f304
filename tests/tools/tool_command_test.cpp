// The tellora tool run as a user runs it: `hash` on the committed chirp
// recording (golden files), `compare` and `fingerprint` on WAV files written
// here, and bad input (one line on stderr, nothing on stdout, status 2 for
// usage errors or 1 for what the files hold).
#include <gtest/gtest.h>
#include <sndfile.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>

#include "tests/fingerprint/audiohash/hashed.h"
#include "tests/support/child_process.h"
#include "tests/tools/scratch_dir.h"
#include "tests/tools/test_audio.h"

namespace tellora::testtools {
namespace {

using nlohmann::json;
using testing::splitLines;

constexpr int kInputError = 1, kUsageError = 2, kNoMatch = 3;
const std::string kData = TELLORA_TOOLS_TEST_DATA "/";

class ToolTest : public ::testing::Test {
 protected:
  // Bare "*.wav" arguments name files of the scratch folder. Output goes
  // through files there, so that neither pipe can fill up and stall the tool.
  testing::ChildRun run(std::vector<std::string> args) {
    for (std::string& arg : args)
      if (arg.ends_with(".wav") && arg.find('/') == std::string::npos) arg = dir_.file(arg);
    return testing::runChild(TELLORA_CLI_PATH, args, {}, dir_.path(), std::chrono::minutes(2));
  }
  // The lines of a run that must succeed quietly.
  std::vector<std::string> lines(const std::vector<std::string>& args) {
    const auto result = run(args);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err, "");
    return splitLines(result.out);
  }
  std::string writeItems(const std::string& name, const std::vector<int16_t>& items,
                         int rate = 8000) {
    testaudio::writeItems(dir_.file(name), items, 1, rate, SF_FORMAT_WAV);
    return dir_.file(name);
  }
  std::string writeChord(const std::string& name, double seconds, double start = 0.0) {
    return writeItems(name, testaudio::toItems(testaudio::renderChord(8000, start, seconds)));
  }

  ScratchDir dir_;
};

// --- hash ----------------------------------------------------------------------

// Committed audio and its committed hash: catches any change in what the tool
// prints for the same file. tests/tools/update_golden.sh rewrites them.
TEST_F(ToolTest, HashOfTheChirpMatchesTheGoldenFilesAndItsJsonCarriesTheSameWords) {
  for (const auto& [toggles, golden] :
       {std::pair{"0", "chirp.hash"}, {"3", "chirp.toggles3.hash"}}) {
    const auto expected = splitLines(readFile(kData + golden));
    ASSERT_FALSE(expected.empty()) << golden << " is missing or empty";
    EXPECT_EQ(lines({"hash", "--toggles", toggles, kData + "chirp.wav"}), expected) << golden;
  }
  const auto plain = splitLines(readFile(kData + "chirp.toggles3.hash"));
  const auto asJson = lines({"hash", "--toggles", "3", "--json", kData + "chirp.wav"});
  ASSERT_EQ(asJson.size(), plain.size());
  for (size_t i = 0; i < asJson.size(); ++i)
    ASSERT_EQ(
        json::parse(asJson[i], nullptr, false),
        json({{"index", i}, {"word", plain[i].substr(0, 8)}, {"toggles", plain[i].substr(9)}}))
        << asJson[i];
}

TEST_F(ToolTest, HashReadsAFileAtTheRateAsked) {
  // 2176 items at 8000 Hz (a frame and two steps) is the shortest file: one word.
  for (const auto& [rate, count] : {std::pair{8000, 2176}, {6000, 6000}, {16000, 16000}}) {
    const auto items = testaudio::toItems(testaudio::renderChord(rate, 0.0, 1.0 * count / rate));
    const std::string path = writeItems(std::to_string(rate) + ".wav", items, rate);
    std::vector<std::string> expected;
    for (uint32_t word : testing::Hashed(testing::Hashed::floats(items), 0, rate).words()) {
      char line[9];
      std::snprintf(line, sizeof line, "%08x", word);
      expected.emplace_back(line);
    }
    EXPECT_EQ(expected.size() == 1, rate == 8000);
    EXPECT_EQ(lines({"hash", "--rate", std::to_string(rate), path}), expected) << rate;
  }
}

// --- compare -------------------------------------------------------------------

struct Match {
  double offsetSeconds = -1.0;
  double confidence = -1.0;
  bool match = false;
};

class CompareTest : public ToolTest {
 protected:
  void SetUp() override { writeItems("long.wav", testaudio::toItems(long_)); }
  // `count` samples of the long recording from `first` on.
  void writeExcerpt(const std::string& name, size_t first, size_t count) {
    const auto from = long_.begin() + static_cast<ptrdiff_t>(first);
    writeItems(name, testaudio::toItems({from, from + static_cast<ptrdiff_t>(count)}));
  }
  // The plain and the JSON output must agree, and the exit status must follow
  // the verdict.
  Match compare(std::vector<std::string> args) {
    args.insert(args.begin(), "compare");
    const auto result = run(args);
    EXPECT_EQ(result.err, "");
    static const std::regex format(
        "offset (\\d+\\.\\d{3}) s\nconfidence (-?\\d+\\.\\d{4})\n(match|no match)\n");
    std::smatch parts;
    if (!std::regex_match(result.out, parts, format)) {
      ADD_FAILURE() << "unexpected output: " << result.out;
      return {};
    }
    const Match plain{std::stod(parts[1]), std::stod(parts[2]), parts[3] == "match"};
    EXPECT_EQ(result.exitCode, plain.match ? 0 : kNoMatch);
    args.push_back("--json");
    EXPECT_EQ(json::parse(run(args).out, nullptr, false), json({{"offset", plain.offsetSeconds},
                                                                {"confidence", plain.confidence},
                                                                {"match", plain.match}}));
    return plain;
  }

  const std::vector<float> long_ = testaudio::renderChord(8000, 0.0, 6.0);
};

TEST_F(CompareTest, FindsExcerptsOnAndOffTheHashStepsAndAtOtherRates) {
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
  // Options reach the comparison: under a zero threshold only identical blocks
  // count as close, and this cut is off the hash steps, so the score drops.
  EXPECT_LT(compare({"--threshold", "0", "off.wav", "long.wav"}).confidence,
            compare({"--threshold", "1", "off.wav", "long.wav"}).confidence);
  EXPECT_NEAR(compare({"--block-size", "4", "off.wav", "long.wav"}).offsetSeconds, 1.0005, 0.008);
}

TEST_F(CompareTest, UnrelatedSoundAndSilenceDoNotMatch) {
  writeChord("other.wav", 1.5, 40.0);
  writeItems("silence.wav", std::vector<int16_t>(12000, 0));
  writeExcerpt("cut.wav", 16000, 12000);
  const Match related = compare({"cut.wav", "long.wav"});
  EXPECT_TRUE(related.match);
  for (const char* name : {"other.wav", "silence.wav"}) {
    const Match unrelated = compare({name, "long.wav"});
    EXPECT_FALSE(unrelated.match) << name;
    EXPECT_LT(unrelated.confidence + 0.2, related.confidence) << name;
  }
}

// --- fingerprint ---------------------------------------------------------------

TEST_F(ToolTest, FingerprintPrintsOnePartEvery232MsFromTheStartOfTheFileAsTextOrJson) {
  auto sound = testaudio::renderChord(8000, 0.0, 3.0);
  testaudio::addNoise(sound, 0.05f, 9u);
  const auto items = testaudio::toItems(sound);
  const std::string path = writeItems("noisy.wav", items);
  const auto printed = lines({"fingerprint", path});
  static const std::regex line(R"((\d+\.\d{3}) (\d+\.\d{3}) ([A-Za-z0-9+/=]{156}))");
  // Cuts at items 3968 + 1856 k below 24000.
  ASSERT_EQ(printed.size(), 11u);
  std::vector<std::string> fingerprints, expectedJson;
  for (size_t k = 0; k < printed.size(); ++k) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(printed[k], m, line)) << printed[k];
    EXPECT_DOUBLE_EQ(std::stod(m[2]), 496.0 + 232.0 * k) << k;
    EXPECT_DOUBLE_EQ(std::stod(m[1]), 232.0 * k) << k;
    fingerprints.push_back(m[3]);
    // --json carries the same values, as printed.
    expectedJson.push_back(R"({"start":)" + m[1].str() + R"(,"end":)" + m[2].str() +
                           R"(,"fingerprint":")" + m[3].str() + R"("})");
  }
  EXPECT_EQ(printed[0].substr(0, 14), "0.000 496.000 ");
  // The first part is the file's first 3968 items exactly.
  EXPECT_EQ(fingerprints[0], testing::Hashed(std::span(items).first(3968)).fingerprint());
  EXPECT_NE(fingerprints[0], fingerprints[1]);
  EXPECT_EQ(lines({"fingerprint", path, "--json"}), expectedJson);
}

TEST_F(ToolTest, FingerprintOfAFullPartStillWaitsForTheItemThatDoesNotFit) {
  const auto items = testaudio::toItems(testaudio::renderChord(8000, 0.0, 0.5));
  EXPECT_TRUE(lines({"fingerprint", writeItems("3968.wav", {items.begin(), items.begin() + 3968})})
                  .empty());
  EXPECT_EQ(
      lines({"fingerprint", writeItems("3969.wav", {items.begin(), items.begin() + 3969})}).size(),
      1u);
}

// --- Bad input -----------------------------------------------------------------

TEST_F(ToolTest, BadInputGetsOneLineOnStderrAndAnErrorStatus) {
  const std::string sound = writeChord("sound.wav", 2.0), long_ = writeChord("long.wav", 4.0);
  writeChord("short.wav", 2175.0 / 8000);  // one sample short of a frame and two steps
  std::ofstream(dir_.file("notes.txt")) << "these are words, not sound\n";
  const std::string missing = dir_.file("missing.wav");
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string says;  // part of the message
  };
  // The reader's own messages are covered in audio_file_reader_test; here they
  // reach the user, with the tool's prefix.
  const Case cases[] = {{{"hash", missing},
                         kInputError,
                         "tellora: cannot open " + missing + ": No such file or directory\n"},
                        {{"compare", sound, missing}, kInputError, missing},
                        {{"fingerprint", missing}, kInputError, missing},
                        {{"hash", dir_.file("notes.txt")}, kInputError, "is not an audio file"},
                        {{"hash", "short.wav"},
                         kInputError,
                         "too short to hash: 2175 samples at 8000 Hz, one hash word needs 2176"},
                        {{"hash", "--rate", "5999", sound}, kInputError, "5999 Hz"},
                        {{"compare", long_, sound}, kInputError, "is longer than"},
                        // 2 s give 217 words: blocks of 217 cannot be scored (216 can, below).
                        {{"compare", "--block-size", "217", sound, long_},
                         kInputError,
                         "too short for blocks of 217 words"},
                        {{"hash", "--toggles", "33", sound}, kUsageError, ""},
                        {{"hash", "--toggles", "-1", sound}, kUsageError, ""},
                        {{"hash", "--toggles", "three", sound}, kUsageError, ""},
                        {{"hash", "--rate", "0", sound}, kUsageError, ""},
                        {{"compare", "--block-size", "0", sound, long_}, kUsageError, ""},
                        {{"compare", "--threshold", "1.5", sound, long_}, kUsageError, ""},
                        {{}, kUsageError, ""},
                        {{"hash"}, kUsageError, ""},
                        {{"compare", sound}, kUsageError, ""},
                        {{"hash", "--no-such-option", sound}, kUsageError, ""},
                        {{"hash", sound, long_}, kUsageError, ""},
                        {{"unmix", sound}, kUsageError, ""}};
  for (const Case& c : cases) {
    const auto result = run(c.args);
    SCOPED_TRACE(result.err);
    EXPECT_EQ(result.exitCode, c.status);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err.rfind("tellora: ", 0), 0u);
    EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << "not exactly one line";
    EXPECT_NE(result.err.find(c.says), std::string::npos) << c.says;
  }
  EXPECT_EQ(run({"compare", "--block-size", "216", sound, long_}).exitCode, 0);
}

TEST_F(ToolTest, HelpAndVersionAreNotErrors) {
  for (const char* command : {"hash", "compare"}) {
    const auto help = run({command, "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find(std::string("tellora ") + command), std::string::npos) << help.out;
  }
  EXPECT_NE(run({"compare", "--help"}).out.find("offset 1.000 s"), std::string::npos);
  EXPECT_EQ(lines({"--version"}), std::vector<std::string>{"tellora " TELLORA_VERSION});
}

}  // namespace
}  // namespace tellora::testtools
