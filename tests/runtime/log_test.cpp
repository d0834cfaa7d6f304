#include "runtime/log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "runtime/user_defaults.h"
#include "tellora/logging.h"
#include "tests/runtime/runtime_sandbox.h"

namespace tellora {
namespace {

using Lines = std::vector<std::string>;

class LogTest : public ::testing::Test {
 protected:
  testing::RuntimeSandbox sandbox_;
};

TEST_F(LogTest, LogfFormatsOneLineAndDebugfFollowsTheSwitchAtEveryCallAndFromTheFile) {
  logf("Tellora: %s %d", "reconnect", 3);
  debugf("hidden %d", 1);
  sandbox_.setDebug(true);
  debugf("shown %d", 2);
  sandbox_.setDebug(false);
  debugf("hidden %d", 3);
  // Switched on by a previous launch.
  const auto stored = sandbox_.folder.file("on.json");
  UserDefaults(stored).setBool("debug", true);
  UserDefaults::setStandardPath(stored);
  debugf("from the file");
  EXPECT_EQ(sandbox_.logLines(), (Lines{"Tellora: reconnect 3", "shown 2", "from the file"}));
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

// A host sink may log, wait for another thread that logs meanwhile (a sink
// that asks the SDK something while the SDK's loop writes a line), and
// replace itself.
TEST_F(LogTest, SinkMayLogWaitForAnotherThreadThatLogsAndReplaceItself) {
  Lines seen;
  TLRSetLogSink([&](std::string_view line) {
    seen.emplace_back(line);
    if (line == "outer") logf("nested");
    if (line == "asks") std::thread([] { logf("answers"); }).join();
    if (line == "swap") TLRSetLogSink([&](std::string_view) { seen.emplace_back("replaced"); });
  });
  for (const char* line : {"outer", "asks", "swap", "after"})
    logf("%s", line);
  EXPECT_EQ(seen, (Lines{"outer", "nested", "asks", "answers", "swap", "replaced"}));
}

TEST_F(LogTest, EmptySinkRestoresStderr) {
  TLRSetLogSink({});
  ::testing::internal::CaptureStderr();
  logf("to stderr %d", 5);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "to stderr 5\n");
  EXPECT_TRUE(sandbox_.logLines().empty());
}

TEST(Strprintf, FormatsTextsLongerThanAnyFixedBuffer) {
  EXPECT_EQ(strprintf("%s", ""), "");
  const std::string longText(5000, 'x');
  EXPECT_EQ(strprintf("<%s>", longText.c_str()), "<" + longText + ">");
}

}  // namespace
}  // namespace tellora
