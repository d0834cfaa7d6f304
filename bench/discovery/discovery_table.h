// The benchmark's figures per signal-to-noise ratio, from a replay.
#pragma once

#include <cstdio>
#include <vector>

#include "bench/discovery/replay.h"

namespace tellora::scenes {

struct SnrRow {
  double snrDb = 0;
  int pairs = 0;  // co-located pairs
  int found = 0;  // ...found before either walked out
  int foundWithin2s = 0;
  double foundMedianS = 0, foundP95S = 0;
  int falseFound = 0;  // pairs of different scenes reported found
  int lostEarly = 0;   // co-located pairs reported lost while still together
  int walkouts = 0;    // co-located pairs that one device leaves
  double lostMedianS = 0, lostP95S = 0, lostMaxS = 0;  // after the scenes diverge
};

struct DiscoveryTable {
  std::vector<SnrRow> rows;
  double differentRoomPairMinutes = 0;
  int falseFoundTotal = 0;
};

// Found later than this after a device walked out counts as a false found.
inline constexpr double kStaleFoundMs = 3000;

DiscoveryTable tabulate(const std::vector<SimulatedDevice>& devices, const Replay& replay,
                        double seconds);
void printTable(std::FILE* out, const DiscoveryTable& table);
// The targets at 5 dB or better: >= 99 % found within 2 s, no false found, lost within 3 s.
bool targetsMet(const DiscoveryTable& table);
// The co-located pairs found later than 2 s or not at all, and the false founds.
void printExceptions(std::FILE* out, const std::vector<SimulatedDevice>& devices,
                     const Replay& replay);

}  // namespace tellora::scenes
