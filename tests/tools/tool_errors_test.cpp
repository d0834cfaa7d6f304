// Bad input to the tool: one line on stderr, nothing on stdout, and status 2
// for usage errors or 1 for what the files hold.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <fstream>

#include "tests/tools/test_audio.h"
#include "tests/tools/tool_runner.h"

namespace tellora::testtools {
namespace {

constexpr int kInputError = 1;
constexpr int kUsageError = 2;

class ToolErrorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    writeMono("sound.wav", 2.0);
    writeMono("long.wav", 4.0);
    std::ofstream(dir_.file("notes.txt")) << "these are words, not sound\n";
  }

  void writeMono(const std::string& name, double seconds) {
    writeItems(name, testaudio::toItems(testaudio::renderChord(8000, 0.0, seconds)));
  }

  void writeItems(const std::string& name, const std::vector<int16_t>& items) {
    testaudio::writeItems(dir_.file(name), items, 1, 8000, SF_FORMAT_WAV);
  }

  // Runs the tool and checks the shape of a failure; returns its message.
  std::string expectFailure(const std::vector<std::string>& args, int status) {
    const ToolRun run = runTool(args);
    EXPECT_EQ(run.exitCode, status) << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("tellora: ", 0), 0u) << run.err;
    EXPECT_TRUE(!run.err.empty() && run.err.back() == '\n');
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << "more than one line: " << run.err;
    return run.err;
  }

  ScratchDir dir_;
};

TEST_F(ToolErrorTest, UnreadableFiles) {
  const std::string missing = dir_.file("missing.wav");
  EXPECT_EQ(expectFailure({"hash", missing}, kInputError),
            "tellora: cannot open " + missing + ": No such file or directory\n");
  EXPECT_NE(expectFailure({"hash", dir_.file("notes.txt")}, kInputError).find("not an audio file"),
            std::string::npos);
  EXPECT_NE(expectFailure({"compare", dir_.file("sound.wav"), missing}, kInputError).find(missing),
            std::string::npos);
}

TEST_F(ToolErrorTest, FilesWithTooLittleAudio) {
  writeItems("empty.wav", {});
  EXPECT_EQ(expectFailure({"hash", dir_.file("empty.wav")}, kInputError),
            "tellora: " + dir_.file("empty.wav") + " holds no audio\n");

  // One sample short of a frame and two steps.
  writeItems("short.wav", testaudio::toItems(testaudio::renderChord(8000, 0.0, 2175.0 / 8000)));
  const std::string message = expectFailure({"hash", dir_.file("short.wav")}, kInputError);
  EXPECT_NE(message.find("too short"), std::string::npos);
  EXPECT_NE(message.find("2175"), std::string::npos);
  EXPECT_NE(message.find("2176"), std::string::npos);
}

TEST_F(ToolErrorTest, ValuesTheHashRefuses) {
  EXPECT_NE(expectFailure({"hash", "--rate", "5999", dir_.file("sound.wav")}, kInputError)
                .find("5999 Hz"),
            std::string::npos);
  for (const char* bits : {"33", "-1", "three"}) {
    expectFailure({"hash", "--toggles", bits, dir_.file("sound.wav")}, kUsageError);
  }
  expectFailure({"hash", "--rate", "0", dir_.file("sound.wav")}, kUsageError);
}

TEST_F(ToolErrorTest, CompareNeedsTheShortFileFirst) {
  EXPECT_NE(expectFailure({"compare", dir_.file("long.wav"), dir_.file("sound.wav")}, kInputError)
                .find("is longer than"),
            std::string::npos);
}

TEST_F(ToolErrorTest, CompareNeedsMoreWordsThanOneBlock) {
  expectFailure({"compare", "--block-size", "0", dir_.file("sound.wav"), dir_.file("long.wav")},
                kUsageError);
  // 2 s give 217 words: blocks of 217 cannot be scored, 216 can.
  EXPECT_NE(expectFailure(
                {"compare", "--block-size", "217", dir_.file("sound.wav"), dir_.file("long.wav")},
                kInputError)
                .find("too short for blocks of 217 words"),
            std::string::npos);
  EXPECT_EQ(
      runTool({"compare", "--block-size", "216", dir_.file("sound.wav"), dir_.file("long.wav")})
          .exitCode,
      0);
  expectFailure({"compare", "--threshold", "1.5", dir_.file("sound.wav"), dir_.file("long.wav")},
                kUsageError);
}

TEST_F(ToolErrorTest, UsageMistakes) {
  expectFailure({}, kUsageError);
  expectFailure({"hash"}, kUsageError);
  expectFailure({"compare", dir_.file("sound.wav")}, kUsageError);
  expectFailure({"hash", "--no-such-option", dir_.file("sound.wav")}, kUsageError);
  expectFailure({"hash", dir_.file("sound.wav"), dir_.file("long.wav")}, kUsageError);
  expectFailure({"unmix", dir_.file("sound.wav")}, kUsageError);
}

TEST_F(ToolErrorTest, HelpAndVersionAreNotErrors) {
  for (const char* command : {"hash", "compare"}) {
    const ToolRun run = runTool({command, "--help"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_NE(run.out.find(std::string("tellora ") + command), std::string::npos) << run.out;
  }
  EXPECT_NE(runTool({"compare", "--help"}).out.find("offset 1.000 s"), std::string::npos);
  const ToolRun version = runTool({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.out, "tellora " TELLORA_VERSION "\n");
}

}  // namespace
}  // namespace tellora::testtools
