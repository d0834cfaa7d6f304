// `tellora search` run as a user would, against loopback servers, with a WAV
// file in place of the microphone: how it fails. (A search that finds its
// peers runs for real in the demo's test.)
#include <sndfile.h>

#include "tests/facade/facade_fixture.h"
#include "tests/support/search_output.h"

namespace tellora::facade_test {
namespace {

class CliSearchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testaudio::writeItems(dir_.file("room.wav"),
                          testaudio::toItems(testaudio::renderChord(8000, 0.0, 4.0)), 1, 8000,
                          SF_FORMAT_WAV);
    registrar_.setReply(
        testing::HttpReply::json(200, R"({"clientId":"cli-id","clientSecret":"cli-s"})"));
  }

  // Runs a search that must exit 1; the events it printed, in order.
  std::vector<json> failingSearch(std::vector<std::string> args, std::string registerUrl = {},
                                  std::string wsUrl = {}) {
    args.insert(args.begin(), {"search", "--register-url",
                               registerUrl.empty() ? registrar_.url("/register") : registerUrl,
                               "--ws-url", wsUrl.empty() ? match_.url() : wsUrl, "--input",
                               dir_.file("room.wav"), "--app-id", "5", "--app-secret", "cli-secret",
                               "--duration", "3", "--defaults", dir_.file("defaults.json")});
    const auto run = testing::runChild(TELLORA_CLI_PATH, args, {}, dir_.path());
    EXPECT_EQ(run.exitCode, 1) << run.err;  // -1 when killed on a timeout
    lastErr_ = run.err;
    return testing::searchEvents(run.out);
  }

  std::string lastErr_;
  testtools::ScratchDir dir_;
  testing::HttpTestServer registrar_;
  MatchServer match_;
};

TEST_F(CliSearchTest, RefusedRegistrationExitsWithItsCode) {
  registrar_.setReply(testing::HttpReply::json(801, "{}"));
  const auto events = failingSearch({});
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events.back(), json::parse(R"({"event":"searchStopped","error":
      {"domain":"com.tellora.quillmark.ErrorDomain","code":801,
       "description":"Error Domain=com.tellora.quillmark.ErrorDomain Code=801"}})"));
}

// Nothing listens where the tool is sent: it gives up after --connect-timeout,
// says why, and exits 1, whichever of the two endpoints is gone. The first run
// has --debug, which holds for that run only.
TEST_F(CliSearchTest, UnreachableServerFailsAfterTheConnectTimeoutWithTheReason) {
  const std::string gone = "127.0.0.1:" + std::to_string(testing::HttpTestServer().port());
  struct Case {
    std::string registerUrl, wsUrl, reasonStart;
    bool debug;
  };
  const Case cases[] = {{"http://" + gone + "/register", "", "registration failed", true},
                        {"", "ws://" + gone + "/ws", "connect: ", false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reasonStart);
    std::vector<std::string> args = {"--connect-timeout", "1"};
    if (c.debug) args.push_back("--debug");
    const auto events = failingSearch(args, c.registerUrl, c.wsUrl);
    EXPECT_EQ(lastErr_.find("device info {") != std::string::npos, c.debug) << lastErr_;
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ(events.front()["event"], "connectFailed");
    EXPECT_TRUE(events.front()["reason"].get<std::string>().starts_with(c.reasonStart))
        << events.front();
    EXPECT_EQ(events.back()["event"], "searchStopped");
  }
}

}  // namespace
}  // namespace tellora::facade_test
