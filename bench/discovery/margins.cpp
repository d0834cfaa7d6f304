#include "bench/discovery/margins.h"

#include <algorithm>

namespace tellora::scenes {

size_t differentRoomComparisons(const std::vector<SimulatedDevice>& devices, const Replay& replay) {
  return static_cast<size_t>(
      std::count_if(replay.comparisons.begin(), replay.comparisons.end(),
                    [&](const auto& c) { return devices[c.a].room != devices[c.b].room; }));
}

void printMargins(std::FILE* out, const std::vector<SimulatedDevice>& devices, const Replay& replay,
                  const server::MatcherConfig& config) {
  double lowestBer = 1, highestEvidence = -1;
  size_t compared = 0;
  for (const auto& c : replay.comparisons) {
    if (devices[c.a].room == devices[c.b].room || !c.assessment.informative || c.nearby) continue;
    ++compared;
    lowestBer = std::min(lowestBer, c.assessment.agreement.bitErrorRate);
    highestEvidence = std::max(highestEvidence, c.assessment.evidence);
  }
  if (compared == 0) {
    std::fprintf(out, "different rooms compared: never\n");
    return;
  }
  std::fprintf(
      out,
      "different rooms compared: %zu times, highest evidence %.2f (found at %.2f: %.0f%%), "
      "lowest bit error rate %.3f\n",
      compared, highestEvidence, config.findEvidence, 100 * highestEvidence / config.findEvidence,
      lowestBer);
}

}  // namespace tellora::scenes
