// `tellora fingerprint` run as a user runs it, on WAV files written here.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <regex>

#include "tests/fingerprint/audiohash/hashed.h"
#include "tests/tools/test_audio.h"
#include "tests/tools/tool_runner.h"

namespace tellora::testtools {
namespace {

struct PrintedPart {
  double start = 0;
  double end = 0;
  std::string fingerprint;
};

// Each plain line of `out`: START END FINGERPRINT.
std::vector<PrintedPart> parse(const std::string& out) {
  static const std::regex line(R"((\d+\.\d{3}) (\d+\.\d{3}) ([A-Za-z0-9+/=]+))");
  std::vector<PrintedPart> parts;
  for (const std::string& text : splitLines(out)) {
    std::smatch m;
    EXPECT_TRUE(std::regex_match(text, m, line)) << text;
    if (!m.empty()) parts.push_back({std::stod(m[1]), std::stod(m[2]), m[3]});
  }
  return parts;
}

class FingerprintCommandTest : public ::testing::Test {
 protected:
  // The first `count` items of a noisy chord, as a WAV file.
  std::string writeWav(size_t count) {
    items_.resize(count);
    const std::string path = dir_.file(std::to_string(count) + ".wav");
    testaudio::writeItems(path, items_, 1, 8000, SF_FORMAT_WAV);
    return path;
  }

  ScratchDir dir_;
  std::vector<int16_t> items_ = [] {
    auto sound = testaudio::renderChord(8000, 0.0, 3.0);
    testaudio::addNoise(sound, 0.05f, 9u);
    return testaudio::toItems(sound);
  }();
};

TEST_F(FingerprintCommandTest, PrintsOnePartEvery232MsWithTimesFromTheStartOfTheFileAsTextOrJson) {
  const std::string path = writeWav(24000);
  const ToolRun run = runTool({"fingerprint", path});
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.err, "");

  const auto parts = parse(run.out);
  // Cuts at items 3968 + 1856 k below 24000.
  ASSERT_EQ(parts.size(), 11u);
  for (size_t k = 0; k < parts.size(); ++k) {
    EXPECT_EQ(parts[k].fingerprint.size(), 156u) << k;
    EXPECT_DOUBLE_EQ(parts[k].end, 496.0 + 232.0 * k) << k;
    EXPECT_DOUBLE_EQ(parts[k].start, parts[k].end - 496.0) << k;
  }
  EXPECT_EQ(splitLines(run.out)[0].substr(0, 14), "0.000 496.000 ");
  // The first part is the file's first 3968 items exactly.
  EXPECT_EQ(parts[0].fingerprint, testing::Hashed(std::span(items_).first(3968)).fingerprint());
  EXPECT_NE(parts[0].fingerprint, parts[1].fingerprint);

  // --json carries the same values, as printed.
  const ToolRun json = runTool({"fingerprint", path, "--json"});
  ASSERT_EQ(json.exitCode, 0) << json.err;
  std::vector<std::string> expected;
  for (const std::string& line : splitLines(run.out)) {
    const size_t first = line.find(' '), last = line.rfind(' ');
    expected.push_back(R"({"start":)" + line.substr(0, first) + R"(,"end":)" +
                       line.substr(first + 1, last - first - 1) + R"(,"fingerprint":")" +
                       line.substr(last + 1) + R"("})");
  }
  EXPECT_EQ(splitLines(json.out), expected);
}

TEST_F(FingerprintCommandTest, AFullPartStillWaitsForTheItemThatDoesNotFit) {
  const ToolRun run = runTool({"fingerprint", writeWav(3968)});
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(splitLines(runTool({"fingerprint", writeWav(3969)}).out).size(), 1u);
}

}  // namespace
}  // namespace tellora::testtools
