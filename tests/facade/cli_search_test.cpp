// `tellora search` run as a user would: against loopback servers, with a WAV
// file in place of the microphone, reading its JSON lines.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "runtime/user_defaults.h"
#include "tests/facade/match_server.h"
#include "tests/support/child_process.h"
#include "tests/support/http_test_server.h"

namespace tellora::facade_test {
namespace {
using testing::runChild;
using testing::splitLines;
using testing::ChildRun;

namespace fs = std::filesystem;
using namespace std::chrono_literals;

void putLittleEndian(std::ofstream& out, uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i)
    out.put(static_cast<char>((value >> (8 * i)) & 0xff));
}

// Mono 16-bit PCM at 8000 Hz: two drifting tones over a little noise.
void writeWav(const std::string& path, double seconds) {
  const uint32_t count = static_cast<uint32_t>(seconds * 8000);
  std::ofstream out(path, std::ios::binary);
  out.write("RIFF", 4);
  putLittleEndian(out, 36 + count * 2, 4);
  out.write("WAVEfmt ", 8);
  putLittleEndian(out, 16, 4);
  putLittleEndian(out, 1, 2);  // PCM
  putLittleEndian(out, 1, 2);  // mono
  putLittleEndian(out, 8000, 4);
  putLittleEndian(out, 16000, 4);
  putLittleEndian(out, 2, 2);
  putLittleEndian(out, 16, 2);
  out.write("data", 4);
  putLittleEndian(out, count * 2, 4);
  uint32_t seed = 99;
  for (uint32_t i = 0; i < count; ++i) {
    const double t = i / 8000.0;
    seed = seed * 1664525u + 1013904223u;
    const double noise = static_cast<double>(seed >> 16) / 65536.0 - 0.5;
    const double v = 9000 * std::sin(2 * M_PI * (300 + 40 * t) * t) +
                     5000 * std::sin(2 * M_PI * 1700 * t) + 2000 * noise;
    putLittleEndian(out, static_cast<uint16_t>(static_cast<int16_t>(v)), 2);
  }
}

class CliSearchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "tellora-cli-search-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
    writeWav(folder_ + "/room.wav", 4);
    registrar_.setReply(
        testing::HttpReply::json(200, R"({"clientId":"cli-id","clientSecret":"cli-s"})"));
  }
  void TearDown() override { fs::remove_all(folder_); }

  ChildRun search(std::vector<std::string> extra) {
    std::vector<std::string> args = {"search",
                                     "--register-url",
                                     registrar_.url("/register"),
                                     "--ws-url",
                                     match_.url(),
                                     "--app-id",
                                     "5",
                                     "--app-secret",
                                     "cli-secret",
                                     "--input",
                                     folder_ + "/room.wav",
                                     "--defaults",
                                     folder_ + "/defaults.json"};
    args.insert(args.end(), extra.begin(), extra.end());
    return runChild(TELLORA_CLI_PATH, args, {}, folder_);
  }

  // The search events printed, in order; speed status lines (which depend on
  // reply timing) left out.
  static std::vector<nlohmann::json> events(const ChildRun& run) {
    std::vector<nlohmann::json> parsed;
    for (const auto& line : splitLines(run.out)) {
      auto event = nlohmann::json::parse(line, nullptr, false);
      EXPECT_TRUE(event.is_object()) << "not a JSON object: " << line;
      if (event.is_object() && event.value("event", "") != "speedStatus") parsed.push_back(event);
    }
    return parsed;
  }

  std::string folder_;
  testing::HttpTestServer registrar_;
  MatchServer match_;
};

TEST_F(CliSearchTest, ReportsStartFoundClientAndCleanStop) {
  match_.pushAfterNearbyRequest({MatchServer::foundPush("peer", "peer-payload")});
  const auto run = search({"--payload", "cli-payload", "--duration", "3"});
  ASSERT_FALSE(run.timedOut);
  EXPECT_EQ(run.exitCode, 0) << run.err;

  const auto lines = events(run);
  ASSERT_GE(lines.size(), 3u) << run.out;
  EXPECT_EQ(lines.front(), nlohmann::json({{"event", "searchStarted"}}));
  const nlohmann::json found = {
      {"event", "clientFound"}, {"clientId", "peer"}, {"payload", "peer-payload"}};
  EXPECT_NE(std::find(lines.begin(), lines.end(), found), lines.end()) << run.out;
  EXPECT_EQ(lines.back(), nlohmann::json({{"event", "searchStopped"}, {"error", nullptr}}));

  // The file played through: fingerprints reached the server, and the
  // identity went to the --defaults file.
  EXPECT_EQ(match_.requestsOfType(1).at(0)["data"], "cli-payload");
  EXPECT_GE(match_.requestsOfType(4).size(), 2u);
  UserDefaults defaults(folder_ + "/defaults.json");
  EXPECT_EQ(defaults.stringForKey("TLRUserDefaultsClientID"), "cli-id");
}

TEST_F(CliSearchTest, RefusedRegistrationExitsWithItsCode) {
  registrar_.setReply(testing::HttpReply::json(801, "{}"));
  const auto run = search({"--duration", "3"});
  ASSERT_FALSE(run.timedOut);
  EXPECT_EQ(run.exitCode, 1) << run.err;

  const auto lines = events(run);
  ASSERT_FALSE(lines.empty()) << run.err;
  EXPECT_EQ(
      lines.back(),
      nlohmann::json::parse(
          R"({"event":"searchStopped","error":{"domain":"com.tellora.quillmark.ErrorDomain","code":801}})"));
  EXPECT_EQ(match_.ws().log().upgrades.size(), 0u);
}

}  // namespace
}  // namespace tellora::facade_test
