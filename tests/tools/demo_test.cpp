// tellora-demo run for real: the server, three `tellora search` clients and
// generated sound. Paths of the three programs come from the build.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/support/child_process.h"
#include "tests/tools/scratch_dir.h"
#include "tools/demo/child_process.h"

namespace tellora::demo {
namespace {

using namespace std::chrono_literals;

const std::vector<std::string> kDemoArgs = {"--server", TELLORA_SERVER_PATH, "--cli",
                                            TELLORA_CLI_PATH};

TEST(DemoRunTest, ABFindAndLoseEachOtherAndNobodyFindsC) {
  testtools::ScratchDir scratch;
  const auto run = testing::runChild(TELLORA_DEMO_PATH, kDemoArgs, {}, scratch.path(), 120s);
  ASSERT_FALSE(run.timedOut);
  EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
  for (const char* line :
       {"server listening on 127.0.0.1:", "A, B and C searching", "A found B (payload \"bob\")",
        "B found A (payload \"alice\")", "A's room changes", "A lost B", "B lost A", "Demo passed"})
    EXPECT_NE(run.out.find(line), std::string::npos) << line << "\n" << run.out;
  for (const char* line : {"FAILED", "unexpected"})
    EXPECT_EQ(run.out.find(line), std::string::npos) << line << "\n" << run.out;
}

// The demo's children are handed to us when it goes away (we are their
// subreaper), so whatever it left behind shows up as a child of ours.
class DemoCleanupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    // A demo killed outright cannot remove its folder: keep it in ours.
    if (const char* tmpdir = getenv("TMPDIR")) savedTmpdir = tmpdir;
    setenv("TMPDIR", scratch.path().c_str(), 1);
  }
  void TearDown() override {
    if (savedTmpdir)
      setenv("TMPDIR", savedTmpdir->c_str(), 1);
    else
      unsetenv("TMPDIR");
    // A failed test must not leave anything running either: kill our children.
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", ignored)) {
      std::ifstream stat(entry.path() / "stat");
      std::string line;
      pid_t pid = 0, parent = 0;
      // "pid (name) state ppid ...": the name may hold spaces, so read after ')'.
      if (std::getline(stat, line) && std::sscanf(line.c_str(), "%d", &pid) == 1 &&
          std::sscanf(line.c_str() + line.rfind(')'), ") %*c %d", &parent) == 1 &&
          parent == getpid())
        kill(pid, SIGKILL);
    }
    reapStrays(5s);
    prctl(PR_SET_CHILD_SUBREAPER, 0);
  }

  // Starts the demo and waits until its clients search.
  ChildProcess startDemoUntilSearching() {
    ChildProcess demo(TELLORA_DEMO_PATH, kDemoArgs, scratch.file("demo.log"));
    LineReader reader;
    bool closed = false;
    for (const auto deadline = std::chrono::steady_clock::now() + 30s;
         !closed && std::chrono::steady_clock::now() < deadline;) {
      pollfd fd{demo.stdoutFd(), POLLIN, 0};
      ::poll(&fd, 1, 100);
      for (const std::string& line : reader.read(demo.stdoutFd(), closed))
        if (line.find("searching") != std::string::npos) return demo;
    }
    ADD_FAILURE() << "the demo never reported its clients searching";
    return demo;
  }

  // Reaps what was handed to us, waiting up to `within` for the last of it.
  // How many ended, and whether some were still running at the deadline.
  static std::pair<int, bool> reapStrays(std::chrono::milliseconds within) {
    int ended = 0;
    for (const auto deadline = std::chrono::steady_clock::now() + within;;) {
      const pid_t pid = waitpid(-1, nullptr, WNOHANG);
      if (pid > 0)
        ++ended;
      else if (pid < 0)
        return {ended, false};  // ECHILD: nobody left
      else if (std::chrono::steady_clock::now() > deadline)
        return {ended, true};
      else
        std::this_thread::sleep_for(20ms);
    }
  }

  testtools::ScratchDir scratch;
  std::optional<std::string> savedTmpdir;
};

// Interrupted, it waits for its own children: none are handed to us, dead or
// alive. Killed outright, its server and three clients are handed to us and
// must end on their own, at once.
TEST_F(DemoCleanupTest, InterruptedOrKilledDemoLeavesNothingRunning) {
  for (const auto& [signal, strays] : {std::pair{SIGINT, 0}, {SIGKILL, 4}}) {
    SCOPED_TRACE(signal);
    ChildProcess demo = startDemoUntilSearching();
    ASSERT_EQ(kill(demo.pid(), signal), 0);
    const auto status = demo.waitFor(15s);
    ASSERT_TRUE(status) << "the demo did not end";
    EXPECT_EQ(*status, 128 + signal);
    EXPECT_EQ(reapStrays(strays ? 5s : 0s), std::pair(strays, false));
  }
}

}  // namespace
}  // namespace tellora::demo
