// `tellora fingerprint` run as a user runs it, on WAV files written here.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "tests/fingerprint/audiohash/hashed.h"
#include "tests/tools/scratch_dir.h"
#include "tests/tools/test_audio.h"
#include "tests/tools/tool_runner.h"

namespace tellora::testtools {
namespace {

struct PrintedPart {
  double start = 0;
  double end = 0;
  std::string fingerprint;
  bool operator==(const PrintedPart&) const = default;
};

// Each line of `out` in the plain or the --json form.
std::vector<PrintedPart> parse(const std::string& out, bool json = false) {
  static const std::regex plain(R"((\d+\.\d{3}) (\d+\.\d{3}) ([A-Za-z0-9+/=]+))");
  static const std::regex asJson(
      R"re(\{"start":(\d+\.\d{3}),"end":(\d+\.\d{3}),"fingerprint":"([A-Za-z0-9+/=]+)"\})re");
  std::vector<PrintedPart> parts;
  for (const std::string& text : splitLines(out)) {
    std::smatch m;
    EXPECT_TRUE(std::regex_match(text, m, json ? asJson : plain)) << text;
    if (!m.empty()) parts.push_back({std::stod(m[1]), std::stod(m[2]), m[3]});
  }
  return parts;
}

class FingerprintCommandTest : public ::testing::Test {
 protected:
  std::string writeWav(const std::string& name, const std::vector<int16_t>& items) {
    const std::string path = dir_.file(name);
    testaudio::writeItems(path, items, 1, 8000, SF_FORMAT_WAV);
    return path;
  }
  static std::vector<int16_t> threeSeconds() {
    auto sound = testaudio::renderChord(8000, 0.0, 3.0);
    testaudio::addNoise(sound, 0.05f, 9u);
    return testaudio::toItems(sound);
  }

  ScratchDir dir_;
};

TEST_F(FingerprintCommandTest, PrintsOnePartEvery232MsWithTimesFromTheStartOfTheFileAsTextOrJson) {
  const auto items = threeSeconds();
  const std::string path = writeWav("chord.wav", items);
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
  EXPECT_EQ(parts[0].fingerprint, testing::Hashed(std::span(items).first(3968)).fingerprint());
  EXPECT_NE(parts[0].fingerprint, parts[1].fingerprint);

  const ToolRun json = runTool({"fingerprint", path, "--json"});
  ASSERT_EQ(json.exitCode, 0) << json.err;
  EXPECT_EQ(parse(json.out, true), parts) << "--json carries the same values";
}

TEST_F(FingerprintCommandTest, AFileTooShortForOnePartPrintsNothing) {
  // A full part still waits for the item that does not fit.
  auto items = threeSeconds();
  items.resize(3968);
  const ToolRun run = runTool({"fingerprint", writeWav("short.wav", items)});
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.out, "");

  items.resize(3969);
  EXPECT_EQ(splitLines(runTool({"fingerprint", writeWav("one.wav", items)}).out).size(), 1u);
}

TEST_F(FingerprintCommandTest, AMissingFileFailsWithOneLine) {
  const ToolRun run = runTool({"fingerprint", dir_.file("absent.wav")});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_EQ(run.out, "");
  const auto lines = splitLines(run.err);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("tellora: ", 0), 0u) << lines[0];
}

}  // namespace
}  // namespace tellora::testtools
