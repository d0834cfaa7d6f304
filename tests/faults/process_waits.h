// Waiting on programs that run in the background during a fault test.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "tests/support/child_process.h"

namespace tellora::faults {

using testing::BackgroundProcess;

// Polls `condition` every 50 ms until it holds or `timeout` passes.
inline bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

// The "listening on 127.0.0.1:P" port a tellora-server printed; 0 before that.
inline uint16_t listeningPort(const std::string& serverOutput) {
  const auto at = serverOutput.find("listening on ");
  const auto colon = serverOutput.find(':', at);
  if (at == std::string::npos || colon == std::string::npos ||
      serverOutput.find('\n', at) == std::string::npos)
    return 0;
  return static_cast<uint16_t>(std::atoi(serverOutput.c_str() + colon + 1));
}

}  // namespace tellora::faults
