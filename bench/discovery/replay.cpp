#include "bench/discovery/replay.h"

#include <algorithm>
#include <ctime>

namespace tellora::scenes {

namespace {

// CPU time of this thread: what the matcher costs, whatever else the machine runs.
double threadCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

struct Arrival {
  double atMs;
  size_t device;
  size_t part;
};

std::vector<Arrival> arrivalsInOrder(const std::vector<SimulatedDevice>& devices) {
  std::vector<Arrival> arrivals;
  for (size_t d = 0; d < devices.size(); ++d)
    for (size_t p = 0; p < devices[d].parts.size(); ++p)
      arrivals.push_back({devices[d].parts[p].arrivalMs, d, p});
  std::stable_sort(arrivals.begin(), arrivals.end(),
                   [](const Arrival& x, const Arrival& y) { return x.atMs < y.atMs; });
  return arrivals;
}

}  // namespace

Replay replay(const std::vector<SimulatedDevice>& devices, const server::MatcherConfig& config,
              const ReplayOptions& options) {
  Replay out;
  server::Matcher matcher(config);
  if (options.keepComparisons)
    matcher.onComparison([&](const server::PairComparison& c) {
      if (devices[c.a].room != devices[c.b].room) out.comparisons.push_back(c);
    });
  const auto arrivals = arrivalsInOrder(devices);
  const double endMs = options.seconds * 1000 + 3000;
  double inMatcher = 0;
  size_t next = 0;
  for (double now = 0; now <= endMs; now += options.tickMs) {
    const double before = threadCpuSeconds();
    for (size_t d = 0; d < devices.size(); ++d)
      if (devices[d].startMs <= now && devices[d].startMs > now - options.tickMs)
        matcher.setSearching(d, true, now);
    for (; next < arrivals.size() && arrivals[next].atMs <= now; ++next) {
      const auto& a = arrivals[next];
      const Part& part = devices[a.device].parts[a.part];
      matcher.addFingerprint(a.device, part.words, part.stimeMs, now);
    }
    const auto events = matcher.advance(now);
    inMatcher += threadCpuSeconds() - before;
    for (const auto& e : events) {
      const DevicePair pair{static_cast<size_t>(e.a), static_cast<size_t>(e.b)};
      auto& times = e.kind == server::MatchEvent::Kind::found ? out.foundMs : out.lostMs;
      times[pair].push_back(now);
    }
  }
  out.stats = matcher.stats();
  out.matcherCpuSeconds = inMatcher;
  for (const auto& d : devices)
    out.clientSeconds += std::max(0.0, options.seconds - d.startMs / 1000);
  return out;
}

}  // namespace tellora::scenes
