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
        json({{"index", i}, {"word", plain[i].substr(0, 8)}, {"toggles", plain[i].substr(9)}}));
}

TEST_F(ToolTest, CompareFindsExcerptsAndTellsUnrelatedSoundAndSilenceApart) {
  // Runs `tellora compare`: the plain and the JSON output must agree, and the
  // exit status must follow the verdict.
  const auto compare = [&](std::vector<std::string> args) {
    args.insert(args.begin(), "compare");
    const auto plain = run(args);
    args.push_back("--json");
    const json verdict = json::parse(run(args).out);
    char text[128];
    std::snprintf(text, sizeof text, "offset %.3f s\nconfidence %.4f\n%s\n",
                  verdict["offset"].get<double>(), verdict["confidence"].get<double>(),
                  verdict["match"] ? "match" : "no match");
    EXPECT_EQ(plain.out, text);
    EXPECT_EQ(plain.err, "");
    EXPECT_EQ(plain.exitCode, verdict["match"] ? 0 : kNoMatch);
    return verdict;
  };
  const auto long_ = testaudio::toItems(testaudio::renderChord(8000, 0.0, 6.0));
  writeItems("long.wav", long_);
  writeItems("cut.wav", {long_.begin() + 8000, long_.begin() + 20000});  // 1.0 s to 2.5 s
  // The low bands carry the heaviest bits and follow the phase of the frame,
  // so agreement fades as the cut moves towards half a step (32 samples).
  writeItems("off.wav", {long_.begin() + 8004, long_.begin() + 20004});
  const json related = compare({"cut.wav", "long.wav"}), off = compare({"off.wav", "long.wav"});
  EXPECT_TRUE(related["match"] && off["match"]);
  EXPECT_EQ(related["offset"], 1.0);
  EXPECT_NEAR(off["offset"].get<double>(), 1.0005, 0.008);
  // The threshold reaches the comparison (the block size shows in an error
  // message below): under a zero threshold only identical blocks count as
  // close, and this cut is off the hash steps, so the score drops.
  EXPECT_LT(compare({"--threshold", "0", "off.wav", "long.wav"})["confidence"], off["confidence"]);

  writeChord("other.wav", 1.5, 40.0);
  writeItems("silence.wav", std::vector<int16_t>(12000, 0));
  for (const char* name : {"other.wav", "silence.wav"}) {
    const json unrelated = compare({name, "long.wav"});
    EXPECT_FALSE(unrelated["match"]) << name;
    EXPECT_LT(unrelated["confidence"].get<double>() + 0.2, related["confidence"]) << name;
  }
}

TEST_F(ToolTest, FingerprintPrintsOnePartEvery232MsFromTheStartOfTheFileOnceItIsFull) {
  auto sound = testaudio::renderChord(8000, 0.0, 3.0);
  testaudio::addNoise(sound, 0.05f, 9u);
  const auto items = testaudio::toItems(sound);
  const std::string path = writeItems("noisy.wav", items);
  const auto printed = lines({"fingerprint", path});
  static const std::regex line(R"((\d+\.\d{3}) (\d+\.\d{3}) ([A-Za-z0-9+/=]{156}))");
  ASSERT_EQ(printed.size(), 11u);  // cuts at items 3968 + 1856 k below 24000
  std::vector<std::string> expectedJson;
  for (size_t k = 0; k < printed.size(); ++k) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(printed[k], m, line)) << printed[k];
    EXPECT_DOUBLE_EQ(std::stod(m[1]), 232.0 * k) << k;
    EXPECT_DOUBLE_EQ(std::stod(m[2]), 496.0 + 232.0 * k) << k;
    expectedJson.push_back(R"({"start":)" + m[1].str() + R"(,"end":)" + m[2].str() +
                           R"(,"fingerprint":")" + m[3].str() + R"("})");
  }
  // The first part is the file's first 3968 items exactly.
  EXPECT_EQ(printed[0].substr(14), testing::Hashed(std::span(items).first(3968)).fingerprint());
  EXPECT_EQ(lines({"fingerprint", path, "--json"}), expectedJson);
  // A file of a full part still waits for the item that does not fit.
  for (const size_t count : {3968u, 3969u})
    EXPECT_EQ(lines({"fingerprint", writeItems("part.wav", {items.begin(), items.begin() + count})})
                  .size(),
              count - 3968);
}

TEST_F(ToolTest, BadInputGetsOneLineOnStderrAndAnErrorStatus) {
  const std::string sound = writeChord("sound.wav", 2.0), long_ = writeChord("long.wav", 4.0);
  writeChord("short.wav", 2175.0 / 8000);  // one sample short of a frame and two steps
  std::ofstream(dir_.file("notes.txt")) << "these are words, not sound\n";
  const std::string missing = dir_.file("missing.wav");
  // The reader's own messages are covered in audio_file_reader_test; here they
  // reach the user, with the tool's prefix.
  const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
      {{"hash", missing},
       kInputError,
       "tellora: cannot open " + missing + ": No such file or directory\n"},
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
      {{"hash", "--rate", "0", sound}, kUsageError, ""},
      {{"compare", "--block-size", "0", sound, long_}, kUsageError, ""},
      {{"compare", "--threshold", "1.5", sound, long_}, kUsageError, ""},
      {{}, kUsageError, ""},
      {{"hash"}, kUsageError, ""},
      {{"hash", "--no-such-option", sound}, kUsageError, ""},
      {{"hash", sound, long_}, kUsageError, ""},
      {{"unmix", sound}, kUsageError, ""}};
  static const std::regex oneLine("tellora: [^\n]*\n");
  for (const auto& [args, status, says] : cases) {
    const auto result = run(args);
    SCOPED_TRACE(result.err);
    EXPECT_EQ(result.exitCode, status);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(std::regex_match(result.err, oneLine));
    EXPECT_NE(result.err.find(says), std::string::npos) << says;
  }
  EXPECT_EQ(run({"compare", "--block-size", "216", sound, long_}).exitCode, 0);
}

TEST_F(ToolTest, HelpAndVersionAreNotErrors) {
  const auto help = run({"compare", "--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_NE(help.out.find("offset 1.000 s"), std::string::npos) << help.out;
  EXPECT_EQ(lines({"--version"}), std::vector<std::string>{"tellora " TELLORA_VERSION});
}

}  // namespace
}  // namespace tellora::testtools
