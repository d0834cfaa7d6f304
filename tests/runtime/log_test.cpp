#include "runtime/log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "runtime/user_defaults.h"
#include "tellora/logging.h"

namespace tellora {
namespace {

namespace fs = std::filesystem;

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "tellora-log-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
    // The debug switch lives in the standard store; keep it away from the
    // real configuration.
    UserDefaults::setStandardPath(folder_ / "defaults.json");
    TLRSetLogSink([this](std::string_view line) {
      std::lock_guard lock(mutex_);
      lines_.emplace_back(line);
    });
  }
  void TearDown() override {
    TLRSetLogSink({});
    fs::remove_all(folder_);
  }
  std::vector<std::string> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }

  fs::path folder_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

TEST_F(LogTest, LogfFormatsOneLineIntoTheSink) {
  logf("Tellora: %s %d", "reconnect", 3);
  logLine("plain");
  EXPECT_EQ(lines(), (std::vector<std::string>{"Tellora: reconnect 3", "plain"}));
}

TEST_F(LogTest, DebugfFollowsTheDebugSwitchAtEveryCall) {
  debugf("hidden %d", 1);
  UserDefaults::standard().setBool("debug", true);
  EXPECT_TRUE(debugEnabled());
  debugf("shown %d", 2);
  UserDefaults::standard().setBool("debug", false);
  debugf("hidden %d", 3);
  EXPECT_EQ(lines(), (std::vector<std::string>{"shown 2"}));
}

TEST_F(LogTest, DebugSwitchIsReadFromTheStoredFile) {
  UserDefaults(folder_ / "on.json").setBool("debug", true);
  UserDefaults::setStandardPath(folder_ / "on.json");
  debugf("from a previous launch");
  EXPECT_EQ(lines().size(), 1u);
}

TEST_F(LogTest, SinkCallsNeverOverlap) {
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> count{0};
  TLRSetLogSink([&](std::string_view) {
    if (++inside > 1) ++overlaps;
    std::this_thread::yield();
    --inside;
    ++count;
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 500; ++i)
        logf("line %d", i);
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(count.load(), 2000);
  EXPECT_EQ(overlaps.load(), 0);
}

TEST_F(LogTest, SinkMayLogAndReplaceItself) {
  std::vector<std::string> seen;
  TLRSetLogSink([&](std::string_view line) {
    seen.emplace_back(line);
    if (line == "outer") logf("nested");
    if (line == "swap") TLRSetLogSink([&](std::string_view) { seen.emplace_back("replaced"); });
  });
  logf("outer");
  logf("swap");
  logf("after");
  EXPECT_EQ(seen, (std::vector<std::string>{"outer", "nested", "swap", "replaced"}));
}

TEST_F(LogTest, EmptySinkRestoresStderr) {
  TLRSetLogSink({});
  testing::internal::CaptureStderr();
  logf("to stderr %d", 5);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "to stderr 5\n");
  EXPECT_TRUE(lines().empty());
}

TEST(Strprintf, FormatsLongAndEmptyTexts) {
  EXPECT_EQ(strprintf("%s=%.1f", "delay", 12.25), "delay=12.2");
  EXPECT_EQ(strprintf("%s", ""), "");
  const std::string longText(5000, 'x');
  EXPECT_EQ(strprintf("<%s>", longText.c_str()), "<" + longText + ">");
}

}  // namespace
}  // namespace tellora
