// How close devices in different rooms come to being found, judged for every
// such pair at regular moments whether or not the candidate index would have
// them compared: the safety margin of the find threshold itself.
#pragma once

#include <cstdio>
#include <limits>
#include <vector>

#include "bench/discovery/simulated_devices.h"
#include "server/matcher/matcher.h"

namespace tellora::scenes {

struct AuditResult {
  size_t assessments = 0;  // informative different-room comparisons
  size_t aboveThreshold = 0;
  double highestEvidence = -std::numeric_limits<double>::infinity();
  size_t a = 0, b = 0;  // the pair and moment of the highest evidence
  double atMs = 0;
  server::PairAssessment closest;
};

AuditResult auditDifferentRooms(const std::vector<SimulatedDevice>& devices,
                                const server::MatcherConfig& config, double seconds,
                                double everyMs);
void printAudit(std::FILE* out, const std::vector<SimulatedDevice>& devices,
                const AuditResult& audit, const server::MatcherConfig& config);

}  // namespace tellora::scenes
