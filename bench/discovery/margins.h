// How close devices in different rooms came to a match: the extreme bit error
// rate and contrast of their comparisons, against the matcher's thresholds.
#pragma once

#include <cstdio>
#include <vector>

#include "bench/discovery/replay.h"

namespace tellora::scenes {

// Comparisons the matcher made of pairs in different rooms (the cost of chance meetings).
size_t differentRoomComparisons(const std::vector<SimulatedDevice>& devices, const Replay& replay);

void printMargins(std::FILE* out, const std::vector<SimulatedDevice>& devices, const Replay& replay,
                  const server::MatcherConfig& config);

}  // namespace tellora::scenes
