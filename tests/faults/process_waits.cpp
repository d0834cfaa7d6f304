#include "tests/faults/process_waits.h"

#include <cstdlib>
#include <thread>

namespace tellora::faults {

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

uint16_t listeningPort(const std::string& serverOutput) {
  const auto at = serverOutput.find("listening on ");
  if (at == std::string::npos) return 0;
  const auto colon = serverOutput.find(':', at);
  const auto end = serverOutput.find('\n', at);
  if (colon == std::string::npos || end == std::string::npos) return 0;
  return static_cast<uint16_t>(std::atoi(serverOutput.c_str() + colon + 1));
}

}  // namespace tellora::faults
