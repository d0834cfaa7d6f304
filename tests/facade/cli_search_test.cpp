// `tellora search` run as a user would, against loopback servers, with a WAV
// file in place of the microphone: how it fails. (A search that finds its
// peers runs for real in the demo's test.)
#include <sndfile.h>

#include "tests/facade/facade_fixture.h"
#include "tests/support/child_process.h"
#include "tests/tools/scratch_dir.h"
#include "tests/tools/test_audio.h"

namespace tellora::facade_test {
namespace {

using nlohmann::json;

class CliSearchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testaudio::writeItems(dir_.file("room.wav"),
                          testaudio::toItems(testaudio::renderChord(8000, 0.0, 4.0)), 1, 8000,
                          SF_FORMAT_WAV);
    registrar_.setReply(
        testing::HttpReply::json(200, R"({"clientId":"cli-id","clientSecret":"cli-s"})"));
  }

  // The search events it printed, in order; speed status lines (which depend
  // on reply timing) left out.
  std::vector<json> search(std::vector<std::string> extra, int expectedExit,
                           std::string registerUrl = {}, std::string wsUrl = {}) {
    if (registerUrl.empty()) registerUrl = registrar_.url("/register");
    if (wsUrl.empty()) wsUrl = match_.url();
    std::vector<std::string> args = {"search", "--register-url", registerUrl,          "--ws-url",
                                     wsUrl,    "--input",        dir_.file("room.wav")};
    args.insert(args.end(), {"--app-id", "5", "--app-secret", "cli-secret", "--duration", "3",
                             "--defaults", dir_.file("defaults.json")});
    args.insert(args.end(), extra.begin(), extra.end());
    const auto run = testing::runChild(TELLORA_CLI_PATH, args, {}, dir_.path());
    EXPECT_FALSE(run.timedOut);
    EXPECT_EQ(run.exitCode, expectedExit) << run.err;
    lastErr_ = run.err;
    std::vector<json> events;
    for (const auto& line : testing::splitLines(run.out)) {
      auto event = json::parse(line, nullptr, false);
      EXPECT_TRUE(event.is_object()) << "not a JSON object: " << line;
      if (event.is_object() && event.value("event", "") != "speedStatus") events.push_back(event);
    }
    return events;
  }

  std::string lastErr_;  // what the last run wrote to stderr
  testtools::ScratchDir dir_;
  testing::HttpTestServer registrar_;
  MatchServer match_;
};

TEST_F(CliSearchTest, RefusedRegistrationExitsWithItsCode) {
  registrar_.setReply(testing::HttpReply::json(801, "{}"));
  const auto events = search({}, 1);
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events.back(), json::parse(R"({"event":"searchStopped","error":
      {"domain":"com.tellora.quillmark.ErrorDomain","code":801,
       "description":"Error Domain=com.tellora.quillmark.ErrorDomain Code=801"}})"));
  EXPECT_EQ(match_.ws().log().upgrades.size(), 0u);
}

// Nothing listens where the tool is sent: it gives up after --connect-timeout,
// says why, and exits 1, whichever of the two endpoints is gone. The first run
// has --debug, which holds for that run only.
TEST_F(CliSearchTest, UnreachableServerFailsAfterTheConnectTimeoutWithTheReason) {
  auto gone = std::make_unique<testing::HttpTestServer>();
  const std::string port = std::to_string(gone->port());
  gone.reset();
  struct Case {
    std::string registerUrl;
    std::string wsUrl;
    std::string reasonStart;
    bool debug;
  };
  const Case cases[] = {
      {"http://127.0.0.1:" + port + "/register", "", "registration failed", true},
      {"", "ws://127.0.0.1:" + port + "/ws", "connect: ", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reasonStart);
    std::vector<std::string> args = {"--connect-timeout", "1"};
    if (c.debug) args.push_back("--debug");
    const auto events = search(args, 1, c.registerUrl, c.wsUrl);
    EXPECT_EQ(lastErr_.find("device info {") != std::string::npos, c.debug) << lastErr_;
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ(events.front()["event"], "connectFailed");
    EXPECT_EQ(events.front()["reason"].get<std::string>().rfind(c.reasonStart, 0), 0u)
        << events.front();
    EXPECT_EQ(events.back()["event"], "searchStopped");
  }
}

}  // namespace
}  // namespace tellora::facade_test
