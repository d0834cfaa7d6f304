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
    writeSeconds("sound.wav", 2.0);
    writeSeconds("long.wav", 4.0);
    writeSeconds("empty.wav", 0.0);
    writeSeconds("short.wav", 2175.0 / 8000);  // one sample short of a frame and two steps
    std::ofstream(dir_.file("notes.txt")) << "these are words, not sound\n";
  }
  void writeSeconds(const std::string& name, double seconds) {
    testaudio::writeItems(dir_.file(name),
                          testaudio::toItems(testaudio::renderChord(8000, 0.0, seconds)), 1, 8000,
                          SF_FORMAT_WAV);
  }

  ScratchDir dir_;
  const std::string sound_ = dir_.file("sound.wav"), long_ = dir_.file("long.wav");
  const std::string missing_ = dir_.file("missing.wav"), empty_ = dir_.file("empty.wav");
};

TEST_F(ToolErrorTest, BadInputGetsOneLineOnStderrAndAnErrorStatus) {
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string says;  // part of the message
  };
  const Case cases[] = {{{"hash", missing_},
                         kInputError,
                         "tellora: cannot open " + missing_ + ": No such file or directory\n"},
                        {{"hash", dir_.file("notes.txt")}, kInputError, "is not an audio file"},
                        {{"compare", sound_, missing_}, kInputError, missing_},
                        {{"fingerprint", missing_}, kInputError, missing_},
                        {{"hash", empty_}, kInputError, "tellora: " + empty_ + " holds no audio\n"},
                        {{"hash", dir_.file("short.wav")},
                         kInputError,
                         "too short to hash: 2175 samples at 8000 Hz, one hash word needs 2176"},
                        {{"hash", "--rate", "5999", sound_}, kInputError, "5999 Hz"},
                        {{"compare", long_, sound_}, kInputError, "is longer than"},
                        // 2 s give 217 words: blocks of 217 cannot be scored (216 can, below).
                        {{"compare", "--block-size", "217", sound_, long_},
                         kInputError,
                         "too short for blocks of 217 words"},
                        {{"hash", "--toggles", "33", sound_}, kUsageError, ""},
                        {{"hash", "--toggles", "-1", sound_}, kUsageError, ""},
                        {{"hash", "--toggles", "three", sound_}, kUsageError, ""},
                        {{"hash", "--rate", "0", sound_}, kUsageError, ""},
                        {{"compare", "--block-size", "0", sound_, long_}, kUsageError, ""},
                        {{"compare", "--threshold", "1.5", sound_, long_}, kUsageError, ""},
                        {{}, kUsageError, ""},
                        {{"hash"}, kUsageError, ""},
                        {{"compare", sound_}, kUsageError, ""},
                        {{"hash", "--no-such-option", sound_}, kUsageError, ""},
                        {{"hash", sound_, long_}, kUsageError, ""},
                        {{"unmix", sound_}, kUsageError, ""}};
  for (const Case& c : cases) {
    const ToolRun run = runTool(c.args);
    SCOPED_TRACE(run.err);
    EXPECT_EQ(run.exitCode, c.status);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("tellora: ", 0), 0u);
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << "not exactly one line";
    EXPECT_NE(run.err.find(c.says), std::string::npos) << c.says;
  }
  EXPECT_EQ(runTool({"compare", "--block-size", "216", sound_, long_}).exitCode, 0);
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
