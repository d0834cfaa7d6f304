// Replays the simulated devices' fingerprints into a matcher in arrival order,
// calling advance on a fixed tick as the server does, and records its events.
#pragma once

#include <map>
#include <utility>
#include <vector>

#include "bench/discovery/simulated_devices.h"
#include "server/matcher/matcher.h"

namespace tellora::scenes {

using DevicePair = std::pair<size_t, size_t>;  // first < second

struct Replay {
  std::map<DevicePair, std::vector<double>> foundMs, lostMs;
  std::vector<server::PairComparison> comparisons;  // of different rooms, when asked for
  server::MatcherStats stats;
  double matcherCpuSeconds = 0;  // spent inside the matcher's calls
  double clientSeconds = 0;      // searching time summed over the devices
};

struct ReplayOptions {
  double seconds = 45;
  double tickMs = 100;  // how often the server calls advance
  bool keepComparisons = false;
};

Replay replay(const std::vector<SimulatedDevice>& devices, const server::MatcherConfig& config,
              const ReplayOptions& options);

}  // namespace tellora::scenes
