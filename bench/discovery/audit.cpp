#include "bench/discovery/audit.h"

#include <cmath>

namespace tellora::scenes {

AuditResult auditDifferentRooms(const std::vector<SimulatedDevice>& devices,
                                const server::MatcherConfig& config, double seconds,
                                double everyMs) {
  const server::WordScores scores(config.clearBitError, config.clearShare, config.scoredBits);
  std::vector<server::WordTimeline> timelines(devices.size(),
                                              server::WordTimeline(config.historySlots));
  std::vector<size_t> nextPart(devices.size(), 0);
  AuditResult out;
  for (double now = everyMs; now <= seconds * 1000; now += everyMs) {
    for (size_t d = 0; d < devices.size(); ++d) {
      const auto& parts = devices[d].parts;
      for (; nextPart[d] < parts.size() && parts[nextPart[d]].arrivalMs <= now; ++nextPart[d]) {
        const Part& part = parts[nextPart[d]];
        const int64_t first = std::llround(part.stimeMs / server::kSlotMs);
        for (size_t i = 0; i < part.words.size(); ++i)
          timelines[d].put(first + static_cast<int64_t>(i), part.words[i]);
      }
    }
    for (size_t a = 0; a < devices.size(); ++a)
      for (size_t b = a + 1; b < devices.size(); ++b) {
        if (devices[a].room == devices[b].room) continue;
        const auto assessment = server::assessPair(timelines[a], timelines[b], config, scores);
        if (!assessment.decisive || !assessment.informative) continue;
        ++out.assessments;
        if (assessment.evidence >= config.findEvidence) ++out.aboveThreshold;
        if (assessment.evidence > out.highestEvidence) {
          out.highestEvidence = assessment.evidence;
          out.a = a;
          out.b = b;
          out.atMs = now;
          out.closest = assessment;
        }
      }
  }
  return out;
}

void printAudit(std::FILE* out, const std::vector<SimulatedDevice>& devices,
                const AuditResult& audit, const server::MatcherConfig& config) {
  if (audit.assessments == 0) {
    std::fprintf(out, "audit of every different-room pair: nothing to compare\n");
    return;
  }
  std::fprintf(out,
               "audit of every different-room pair: %zu comparisons, %zu at or above the find "
               "threshold; highest evidence %.2f (%.0f%% of %.2f): devices %zu and %zu (rooms %d "
               "and %d) at %.2f s, %d words, bit error rate %.3f (chance %.3f)\n",
               audit.assessments, audit.aboveThreshold, audit.highestEvidence,
               100 * audit.highestEvidence / config.findEvidence, config.findEvidence, audit.a,
               audit.b, devices[audit.a].room, devices[audit.b].room, audit.atMs / 1000,
               audit.closest.agreement.overlap, audit.closest.agreement.bitErrorRate,
               audit.closest.chance.bitErrorRate);
}

}  // namespace tellora::scenes
