// Base fixture of test suites that drive the SDK on its event loop: a private
// defaults store with "debug" on (so debug lines are written) and the SDK's
// log lines captured, cleared after every test.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "runtime/event_loop.h"
#include "tests/support/watched.h"

namespace tellora::testing {

class SdkTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();
  void TearDown() override;

  // Runs `f` on the SDK's loop and returns its result.
  template <class F>
  static auto onLoop(F f) {
    return EventLoop::main().call(std::move(f));
  }

  // The log lines written since the test began.
  static std::vector<std::string> logLines();
  static std::size_t logCount(const std::string& line);
  static bool waitForLog(const std::string& line, std::size_t times = 1,
                         std::chrono::milliseconds timeout = kDefaultWait);
};

}  // namespace tellora::testing
