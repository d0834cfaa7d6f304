// What an operator hands the server besides options: the applications file,
// the state directory, and the log lines it gets back.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

#include <nlohmann/json.hpp>

#include "server/log_output.h"
#include "server/server_config.h"
#include "tests/tools/scratch_dir.h"

namespace tellora::server {
namespace {

class AppsFileTest : public ::testing::Test {
 protected:
  std::string write(const std::string& text, mode_t mode = 0600) {
    const std::string path = dir_.file("apps");
    std::ofstream(path) << text;
    chmod(path.c_str(), mode);
    return path;
  }
  testtools::ScratchDir dir_;
};

TEST_F(AppsFileTest, ReadsIdSecretLinesAndSkipsCommentsAndBlanks) {
  const auto file = readAppsFile(write("# production\n\n7:first\n  8:sec:ret  \r\n"));
  ASSERT_EQ(file.apps.size(), 2u);
  EXPECT_EQ(file.apps[0].id, 7);
  EXPECT_EQ(file.apps[0].secret, "first");
  EXPECT_EQ(file.apps[1].secret, "sec:ret");  // a secret may hold ':'
  EXPECT_TRUE(file.problems.empty());
  EXPECT_TRUE(file.warnings.empty());
}

TEST_F(AppsFileTest, ABadLineIsReportedByNumberWithoutRepeatingIt) {
  const auto file = readAppsFile(write("7:ok\nnot-an-id:hunter2\n"));
  ASSERT_EQ(file.problems.size(), 1u);
  EXPECT_NE(file.problems[0].find("line 2"), std::string::npos);
  EXPECT_EQ(file.problems[0].find("hunter2"), std::string::npos);
}

TEST_F(AppsFileTest, AFileOthersCanReadIsWarnedAboutAndAMissingOneIsAProblem) {
  EXPECT_EQ(readAppsFile(write("7:s\n", 0644)).warnings.size(), 1u);
  EXPECT_EQ(readAppsFile(dir_.file("absent")).problems.size(), 1u);
}

TEST(StateDirectoryTest, SystemdThenXdgThenHome) {
  const auto saved = [](const char* name) {
    const char* value = std::getenv(name);
    return value ? std::optional<std::string>(value) : std::nullopt;
  };
  const auto state = saved("STATE_DIRECTORY"), xdg = saved("XDG_STATE_HOME"), home = saved("HOME");
  setenv("STATE_DIRECTORY", "/var/lib/a:/var/lib/b", 1);
  setenv("XDG_STATE_HOME", "/x", 1);
  setenv("HOME", "/h", 1);
  EXPECT_EQ(defaultStateDirectory(), "/var/lib/a");
  unsetenv("STATE_DIRECTORY");
  EXPECT_EQ(defaultStateDirectory(), "/x/tellora-server");
  unsetenv("XDG_STATE_HOME");
  EXPECT_EQ(defaultStateDirectory(), "/h/.local/state/tellora-server");
  for (const auto& [name, value] :
       {std::pair{"STATE_DIRECTORY", state}, {"XDG_STATE_HOME", xdg}, {"HOME", home}}) {
    if (value) setenv(name, value->c_str(), 1);
  }
}

TEST(StateDirectoryTest, IsCreatedPrivate) {
  testtools::ScratchDir dir;
  const std::string path = dir.file("a/b");
  EXPECT_EQ(prepareStateDirectory(path), std::nullopt);
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
  std::ofstream(dir.file("file")) << "x";
  EXPECT_NE(prepareStateDirectory(dir.file("file/sub")), std::nullopt);
}

// A client's app_version or a peer's bytes end up in log lines: neither may
// split an entry or break its JSON.
TEST(LogOutputTest, OneEntryPerLineWhateverTheMessageHolds) {
  const auto time = std::chrono::system_clock::time_point(std::chrono::milliseconds(1764071400123));
  const std::string message = "client \"x\" said \xff\nforged line";
  const std::string text = formatLogEntry(LogFormat::text, time, LogLevel::warning, message);
  EXPECT_EQ(text.rfind("2025-11-25T11:50:00.123Z warning client", 0), 0u) << text;
  EXPECT_EQ(text.find('\n'), std::string::npos);

  const std::string json = formatLogEntry(LogFormat::json, time, LogLevel::error, message);
  EXPECT_EQ(json.find('\n'), std::string::npos);
  const auto parsed = nlohmann::json::parse(json);
  EXPECT_EQ(parsed["time"], "2025-11-25T11:50:00.123Z");
  EXPECT_EQ(parsed["level"], "error");
  EXPECT_NE(parsed["message"].get<std::string>().find("forged line"), std::string::npos);
}

}  // namespace
}  // namespace tellora::server
