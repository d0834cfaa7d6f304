// tellora-demo run for real: the server, three `tellora search` clients and
// generated sound. Paths of the three programs come from the build.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

#include "tests/support/child_process.h"
#include "tests/tools/scratch_dir.h"
#include "tools/demo/child_process.h"

namespace tellora::demo {
namespace {

using namespace std::chrono_literals;

std::vector<std::string> demoArgs() {
  return {"--server", TELLORA_SERVER_PATH, "--cli", TELLORA_CLI_PATH};
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(DemoRunTest, ABFindAndLoseEachOtherAndNobodyFindsC) {
  testtools::ScratchDir scratch;
  const auto run = testing::runChild(TELLORA_DEMO_PATH, demoArgs(), {}, scratch.path(), 120s);
  ASSERT_FALSE(run.timedOut);
  EXPECT_EQ(run.exitCode, 0) << run.out << run.err;
  for (const char* line :
       {"server listening on 127.0.0.1:", "A, B and C searching", "A found B (payload \"bob\")",
        "B found A (payload \"alice\")", "A's room changes", "A lost B", "B lost A", "Demo passed"})
    EXPECT_TRUE(contains(run.out, line)) << line << "\n" << run.out;
  EXPECT_FALSE(contains(run.out, "FAILED")) << run.out;
  EXPECT_FALSE(contains(run.out, "unexpected")) << run.out;
}

// The demo's children are handed to us when it goes away (we are their
// subreaper), so whatever it left behind shows up as a child of ours.
class DemoCleanupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    // A demo killed outright cannot remove its folder: keep it in ours.
    const char* tmpdir = getenv("TMPDIR");
    if (tmpdir) savedTmpdir = tmpdir;
    setenv("TMPDIR", scratch.path().c_str(), 1);
  }
  void TearDown() override {
    if (savedTmpdir)
      setenv("TMPDIR", savedTmpdir->c_str(), 1);
    else
      unsetenv("TMPDIR");
    // A failed test must not leave anything running either.
    killChildren();
    reapStrays(5s);
    prctl(PR_SET_CHILD_SUBREAPER, 0);
  }

  static void killChildren() {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", ignored)) {
      std::ifstream stat(entry.path() / "stat");
      std::string line;
      if (!std::getline(stat, line) || line.rfind(')') == std::string::npos) continue;
      // "pid (name) state ppid ...": the name may hold spaces, so read after ')'.
      std::istringstream rest(line.substr(line.rfind(')') + 1));
      char state = 0;
      pid_t parent = 0;
      rest >> state >> parent;
      const std::string name = entry.path().filename().string();
      if (parent == getpid() && name.find_first_not_of("0123456789") == std::string::npos)
        kill(std::stoi(name), SIGKILL);
    }
  }

  // Starts the demo and waits until its clients search.
  ChildProcess startDemoUntilSearching() {
    ChildProcess demo(TELLORA_DEMO_PATH, demoArgs(), scratch.file("demo.log"));
    LineReader reader;
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd fd{demo.stdoutFd(), POLLIN, 0};
      ::poll(&fd, 1, 100);
      bool closed = false;
      for (const std::string& line : reader.read(demo.stdoutFd(), closed))
        if (contains(line, "searching")) return demo;
      if (closed) break;
    }
    ADD_FAILURE() << "the demo never reported its clients searching";
    return demo;
  }

  struct Strays {
    int ended = 0;              // handed to us and reaped
    bool stillRunning = false;  // some were still alive at the deadline
  };
  // Reaps what was handed to us, waiting up to `within` for the last of it.
  static Strays reapStrays(std::chrono::milliseconds within) {
    Strays strays;
    const auto deadline = std::chrono::steady_clock::now() + within;
    for (;;) {
      const pid_t pid = waitpid(-1, nullptr, WNOHANG);
      if (pid > 0) {
        ++strays.ended;
        continue;
      }
      if (pid < 0) return strays;  // ECHILD: nobody left
      if (std::chrono::steady_clock::now() > deadline) {
        strays.stillRunning = true;
        return strays;
      }
      std::this_thread::sleep_for(20ms);
    }
  }

  testtools::ScratchDir scratch;
  std::optional<std::string> savedTmpdir;
};

TEST_F(DemoCleanupTest, InterruptedDemoStopsEverythingItStarted) {
  ChildProcess demo = startDemoUntilSearching();
  ASSERT_EQ(kill(demo.pid(), SIGINT), 0);
  const auto status = demo.waitFor(15s);
  ASSERT_TRUE(status) << "the demo did not end after SIGINT";
  EXPECT_EQ(*status, 128 + SIGINT);
  // It waited for its own children: none are handed to us, dead or alive.
  const Strays strays = reapStrays(0ms);
  EXPECT_EQ(strays.ended, 0);
  EXPECT_FALSE(strays.stillRunning);
}

TEST_F(DemoCleanupTest, KilledDemoTakesItsChildrenAlong) {
  ChildProcess demo = startDemoUntilSearching();
  ASSERT_EQ(kill(demo.pid(), SIGKILL), 0);
  ASSERT_TRUE(demo.waitFor(5s));
  // Server and clients are handed to us and must end on their own, at once.
  const Strays strays = reapStrays(5s);
  EXPECT_EQ(strays.ended, 4) << "the server and three clients";
  EXPECT_FALSE(strays.stillRunning);
}

}  // namespace
}  // namespace tellora::demo
