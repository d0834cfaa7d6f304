#include "bench/discovery/discovery_table.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace tellora::scenes {

namespace {

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return NAN;
  std::sort(v.begin(), v.end());
  return v[static_cast<size_t>(p * static_cast<double>(v.size() - 1) + 0.5)];
}

const std::vector<double>* eventsOf(const std::map<DevicePair, std::vector<double>>& events,
                                    const DevicePair& pair) {
  auto it = events.find(pair);
  return it == events.end() ? nullptr : &it->second;
}

// Whether the pair was reported found while the two devices heard different scenes.
bool foundFalsely(const SimulatedDevice& a, const SimulatedDevice& b, const Replay& r,
                  const DevicePair& pair) {
  const auto* found = eventsOf(r.foundMs, pair);
  if (!found) return false;
  if (a.room != b.room) return true;
  const double apart = std::min(a.changeMs, b.changeMs) + kStaleFoundMs;
  return std::any_of(found->begin(), found->end(), [&](double t) { return t > apart; });
}

}  // namespace

DiscoveryTable tabulate(const std::vector<SimulatedDevice>& devices, const Replay& r,
                        double seconds) {
  DiscoveryTable table;
  for (double snr : kRoomSnrsDb) {
    SnrRow row;
    row.snrDb = snr;
    std::vector<double> toFound, toLost;
    for (size_t a = 0; a < devices.size(); ++a)
      for (size_t b = a + 1; b < devices.size(); ++b) {
        const auto& da = devices[a];
        const auto& db = devices[b];
        if (da.snrDb != snr) continue;
        const DevicePair pair{a, b};
        const bool falsely = foundFalsely(da, db, r, pair);
        row.falseFound += falsely ? 1 : 0;
        if (da.room != db.room) continue;
        ++row.pairs;
        const double start = std::max(da.startMs, db.startMs);
        const double apart = std::min(da.changeMs, db.changeMs);
        const auto* found = eventsOf(r.foundMs, pair);
        const auto* lost = eventsOf(r.lostMs, pair);
        if (found && found->front() < apart) {
          ++row.found;
          toFound.push_back((found->front() - start) / 1000);
          if (found->front() - start <= 2000) ++row.foundWithin2s;
        }
        // Fingerprints stop at the end of the scenes: losses after that are expected.
        const double together = std::min(apart, seconds * 1000);
        if (lost && std::any_of(lost->begin(), lost->end(), [&](double t) { return t < together; }))
          ++row.lostEarly;
        if (std::isfinite(apart)) {
          ++row.walkouts;
          double after = INFINITY;
          if (lost)
            for (double t : *lost)
              if (t >= apart) {
                after = (t - apart) / 1000;
                break;
              }
          toLost.push_back(after);
        }
      }
    row.foundMedianS = percentile(toFound, 0.5);
    row.foundP95S = percentile(toFound, 0.95);
    row.lostMedianS = percentile(toLost, 0.5);
    row.lostP95S = percentile(toLost, 0.95);
    row.lostMaxS = toLost.empty() ? NAN : *std::max_element(toLost.begin(), toLost.end());
    table.rows.push_back(row);
  }
  for (size_t a = 0; a < devices.size(); ++a)
    for (size_t b = a + 1; b < devices.size(); ++b) {
      if (devices[a].room != devices[b].room)
        table.differentRoomPairMinutes +=
            (seconds * 1000 - std::max(devices[a].startMs, devices[b].startMs)) / 60000.0;
      table.falseFoundTotal += foundFalsely(devices[a], devices[b], r, {a, b}) ? 1 : 0;
    }
  return table;
}

void printTable(std::FILE* out, const DiscoveryTable& table) {
  std::fprintf(out, "%6s %6s %8s %8s %8s %8s %6s %6s %8s %8s %8s %8s\n", "SNR dB", "pairs",
               "found %", "<=2 s %", "found", "found", "false", "lost", "walk-", "lost", "lost",
               "lost");
  std::fprintf(out, "%6s %6s %8s %8s %8s %8s %6s %6s %8s %8s %8s %8s\n", "", "", "", "", "p50 s",
               "p95 s", "found", "early", "outs", "p50 s", "p95 s", "max s");
  for (const auto& row : table.rows) {
    const double n = std::max(row.pairs, 1);
    std::fprintf(out, "%6.0f %6d %8.1f %8.1f %8.2f %8.2f %6d %6d %8d %8.2f %8.2f %8.2f\n",
                 row.snrDb, row.pairs, 100.0 * row.found / n, 100.0 * row.foundWithin2s / n,
                 row.foundMedianS, row.foundP95S, row.falseFound, row.lostEarly, row.walkouts,
                 row.lostMedianS, row.lostP95S, row.lostMaxS);
  }
}

bool targetsMet(const DiscoveryTable& table) {
  for (const auto& row : table.rows) {
    if (row.snrDb < 5) continue;
    if (row.foundWithin2s < 0.99 * row.pairs || row.falseFound > 0 ||
        (row.walkouts > 0 && !(row.lostMaxS <= 3.0)))
      return false;
  }
  return table.falseFoundTotal == 0;
}

}  // namespace tellora::scenes

namespace tellora::scenes {

void printExceptions(std::FILE* out, const std::vector<SimulatedDevice>& devices, const Replay& r) {
  for (size_t a = 0; a < devices.size(); ++a)
    for (size_t b = a + 1; b < devices.size(); ++b) {
      const auto& da = devices[a];
      const auto& db = devices[b];
      const DevicePair pair{a, b};
      const auto* found = eventsOf(r.foundMs, pair);
      if (foundFalsely(da, db, r, pair))
        std::fprintf(out, "false found: %zu (room %d) ~ %zu (room %d) at %.2f s\n", a, da.room, b,
                     db.room, found->back() / 1000);
      if (da.room != db.room) continue;
      const double start = std::max(da.startMs, db.startMs);
      const double apart = std::min(da.changeMs, db.changeMs);
      if (!found || found->front() >= apart)
        std::fprintf(out, "not found: %zu ~ %zu (room %d, %.0f dB), both searching from %.2f s\n",
                     a, b, da.room, da.snrDb, start / 1000);
      else if (found->front() - start > 2000)
        std::fprintf(out, "found late: %zu ~ %zu (room %d, %.0f dB) after %.2f s, from %.2f s\n", a,
                     b, da.room, da.snrDb, (found->front() - start) / 1000, start / 1000);
    }
}

}  // namespace tellora::scenes
