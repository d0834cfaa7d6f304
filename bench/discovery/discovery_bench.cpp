// Discovery quality of the matcher, offline: simulated rooms whose devices hear
// the room's scene through their own gain, noise, reverb, band-limiting and
// clock error. Prints, per signal-to-noise ratio, the share of co-located pairs
// found, the time to found, false "found" between rooms and the time to lost
// after a device's scene changes.
//
//   discovery [--rooms N] [--seconds S] [--seed K]
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "bench/discovery/device_fingerprints.h"
#include "tools/scenes/scene_audio.h"
#include "server/matcher/matcher.h"

using namespace tellora;
using namespace tellora::scenes;

namespace {

struct Device {
  int room;
  double snrDb;
  double startMs;     // when it starts searching
  double changeMs;    // when its scene turns into another one (infinity: never)
  std::vector<Part> parts;
};

struct Options {
  int rooms = 48;
  double seconds = 45;
  uint32_t seed = 7;
};

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return NAN;
  std::sort(v.begin(), v.end());
  return v[static_cast<size_t>(p * (v.size() - 1) + 0.5)];
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (!std::strcmp(argv[i], "--rooms")) o.rooms = std::atoi(argv[i + 1]);
    if (!std::strcmp(argv[i], "--seconds")) o.seconds = std::atof(argv[i + 1]);
    if (!std::strcmp(argv[i], "--seed")) o.seed = static_cast<uint32_t>(std::atoi(argv[i + 1]));
  }
  std::printf("discovery: %d rooms, %.0f s each, seed %u\n", o.rooms, o.seconds, o.seed);

  std::seed_seq spread{o.seed, 0x2545F491u};
  std::mt19937 rng(spread);
  const double snrs[] = {20, 10, 5, 0};
  std::vector<Device> devices;
  for (int r = 0; r < o.rooms; ++r) {
    const double snr = snrs[r % std::size(snrs)];
    // Every room, and the place a device walks to, has talkers of its own.
    const uint32_t seed = o.seed * 1000 + r;
    const Room room = makeRoom(seed, o.seconds, {randomTalker(seed, 4), randomTalker(seed + 77, 4)});
    const Room elsewhere =
        makeRoom(seed + 500, o.seconds, {randomTalker(seed + 500, 4), randomTalker(seed + 577, 4)});
    const int count = 2 + static_cast<int>(rng() % 2);
    for (int d = 0; d < count; ++d) {
      Device dev;
      dev.room = r;
      dev.snrDb = snr;
      dev.startMs = (rng() % 3000);
      // In every other room the first device walks out two thirds of the way in.
      dev.changeMs = (d == 0 && (r / 4) % 2 == 0) ? o.seconds * 1000 * 2 / 3 : INFINITY;
      Signal scene = room.scene;
      if (std::isfinite(dev.changeMs)) {
        const size_t from = static_cast<size_t>(dev.changeMs * kRate / 1000);
        std::copy(elsewhere.scene.begin() + from, elsewhere.scene.end(), scene.begin() + from);
      }
      DeviceChannel ch;
      ch.gain = 0.3 + (rng() % 100) / 100.0;
      ch.snrDb = snr;
      ch.reverb = (rng() % 50) / 100.0;
      ch.delayMs = 2 + rng() % 40;
      ch.bandLimited = rng() % 4 != 0;
      ch.seed = rng();
      const double clockError = static_cast<double>(rng() % 101) - 50.0;
      const double latency = 30 + rng() % 120;
      auto parts = fingerprintParts(toItems(hear(scene, ch)), clockError, latency);
      for (auto& p : parts)
        if (p.arrivalMs >= dev.startMs + 500) dev.parts.push_back(std::move(p));
      devices.push_back(std::move(dev));
    }
  }

  // Replay every part in arrival order.
  struct Arrival {
    double atMs;
    size_t device;
    size_t part;
  };
  std::vector<Arrival> arrivals;
  for (size_t d = 0; d < devices.size(); ++d)
    for (size_t p = 0; p < devices[d].parts.size(); ++p)
      arrivals.push_back({devices[d].parts[p].arrivalMs, d, p});
  std::sort(arrivals.begin(), arrivals.end(),
            [](const Arrival& x, const Arrival& y) { return x.atMs < y.atMs; });

  server::Matcher matcher;
  std::map<std::pair<size_t, size_t>, double> firstFound, lostAt;
  std::set<std::pair<size_t, size_t>> falseFound;
  size_t next = 0;
  for (double now = 0; now <= o.seconds * 1000 + 3000; now += 50) {
    for (size_t d = 0; d < devices.size(); ++d)
      if (devices[d].startMs <= now && devices[d].startMs > now - 50)
        matcher.setSearching(d, true, now);
    for (; next < arrivals.size() && arrivals[next].atMs <= now; ++next) {
      const auto& a = arrivals[next];
      const Part& part = devices[a.device].parts[a.part];
      matcher.addFingerprint(a.device, part.words, part.stimeMs, now);
    }
    for (const auto& e : matcher.advance(now)) {
      const auto pair = std::make_pair(static_cast<size_t>(e.a), static_cast<size_t>(e.b));
      const bool sameRoom = devices[e.a].room == devices[e.b].room;
      if (e.kind == server::MatchEvent::Kind::found) {
        firstFound.emplace(pair, now);
        const bool moved =
            std::isfinite(devices[e.a].changeMs) || std::isfinite(devices[e.b].changeMs);
        const double changed = std::min(devices[e.a].changeMs, devices[e.b].changeMs);
        if (!sameRoom || (moved && now > changed + 3000)) {
          falseFound.insert(pair);
          if (std::getenv("DISCOVERY_VERBOSE"))
            std::printf("false found %zu (room %d) ~ %zu (room %d) at %.1f s: ber %.3f chance %.3f shift %d\n",
                        pair.first, devices[e.a].room, pair.second, devices[e.b].room, now / 1000,
                        e.bitErrorRate, e.chanceBitErrorRate, e.shift);
        }
      } else {
        lostAt.emplace(pair, now);
      }
    }
  }

  std::printf("\n%6s %7s %9s %9s %9s %9s %11s %9s %9s\n", "SNR dB", "pairs", "found %",
              "<=2 s %", "median s", "p95 s", "false found", "lost p50", "lost max");
  double crossPairMinutes = 0;
  for (size_t a = 0; a < devices.size(); ++a)
    for (size_t b = a + 1; b < devices.size(); ++b)
      if (devices[a].room != devices[b].room)
        crossPairMinutes +=
            (o.seconds * 1000 - std::max(devices[a].startMs, devices[b].startMs)) / 60000.0;
  bool targetsMet = true;
  for (double snr : snrs) {
    std::vector<double> toFound, toLost;
    int pairs = 0, found = 0, within2 = 0, falses = 0;
    for (size_t a = 0; a < devices.size(); ++a)
      for (size_t b = a + 1; b < devices.size(); ++b) {
        if (devices[a].snrDb != snr) continue;
        const auto pair = std::make_pair(a, b);
        if (devices[a].room != devices[b].room) {
          falses += falseFound.count(pair) ? 1 : 0;
          continue;
        }
        ++pairs;
        const double start = std::max(devices[a].startMs, devices[b].startMs);
        auto f = firstFound.find(pair);
        if (f != firstFound.end() && f->second < std::min(devices[a].changeMs, devices[b].changeMs)) {
          ++found;
          toFound.push_back((f->second - start) / 1000);
          if (f->second - start <= 2000) ++within2;
        } else if (std::getenv("DISCOVERY_VERBOSE")) {
          std::printf("not found: %zu ~ %zu (room %d), start %.1f s, change %.1f s\n", a, b,
                      devices[a].room, start / 1000, std::min(devices[a].changeMs, devices[b].changeMs) / 1000);
          server::WordTimeline ta(8000), tb(8000);
          for (auto* d : {&devices[a], &devices[b]})
            for (const auto& part : d->parts)
              for (size_t i = 0; i < part.words.size(); ++i)
                (d == &devices[a] ? ta : tb).put(std::llround(part.stimeMs / 8) + i, part.words[i]);
          for (int64_t end = 500; end < 3500; end += 500) {
            auto g = server::compareTimelines(ta, tb, end, 250, 8, 90);
            std::printf("   at %.0f s: ber %.3f shift %d chance %.3f informative %d/%d\n", end * 0.008,
                        g.bitErrorRate, g.shift, server::chanceBitErrorRate(ta, tb, end, 250, 45),
                        server::isInformative(ta, end, 250), server::isInformative(tb, end + g.shift, 250));
          }
        }
        const double changed = std::min(devices[a].changeMs, devices[b].changeMs);
        if (std::isfinite(changed)) {
          auto l = lostAt.find(pair);
          toLost.push_back(l != lostAt.end() && l->second >= changed ? (l->second - changed) / 1000
                                                                     : INFINITY);
        }
      }
    const double lostMax = toLost.empty() ? NAN : *std::max_element(toLost.begin(), toLost.end());
    std::printf("%6.0f %7d %9.1f %9.1f %9.2f %9.2f %11d %9.2f %9.2f\n", snr, pairs,
                100.0 * found / std::max(pairs, 1), 100.0 * within2 / std::max(pairs, 1),
                percentile(toFound, 0.5), percentile(toFound, 0.95), falses,
                percentile(toLost, 0.5), lostMax);
    if (snr >= 5 && (within2 < 0.99 * pairs || falses > 0 || !(lostMax <= 3.0))) targetsMet = false;
  }
  std::printf("\ndifferent-room pair-minutes: %.0f, false found in total: %zu\n", crossPairMinutes,
              falseFound.size());
  std::printf("matcher work: %llu index hits, %llu pair comparisons\n",
              static_cast<unsigned long long>(matcher.stats().indexHits),
              static_cast<unsigned long long>(matcher.stats().evaluations));
  std::printf("targets at 5 dB or better (>= 99%% found within 2 s, no false found, lost within "
              "3 s): %s\n",
              targetsMet ? "met" : "NOT met");
  return 0;
}
