// Waiting on programs that run in the background during a fault test.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "tests/support/child_process.h"

namespace tellora::faults {

using testing::BackgroundProcess;

// Polls `condition` every 50 ms until it holds or `timeout` passes.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

// The "listening on 127.0.0.1:P" port a tellora-server printed; 0 before that.
uint16_t listeningPort(const std::string& serverOutput);

}  // namespace tellora::faults
