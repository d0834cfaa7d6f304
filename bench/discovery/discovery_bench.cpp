// Discovery quality of the matcher, offline: simulated rooms whose devices hear
// the room's scene through their own gain, noise, reverb, band-limiting and
// clock error. Prints, per signal-to-noise ratio, the share of co-located pairs
// found and the time to found, false "found" between rooms, and the time to
// lost after a device walks out; then how close different rooms came to a
// match and what the matcher cost.
//
//   discovery [--rooms N] [--seconds S] [--seed K] [--tick MS] [--cache FILE]
//             [--set name=value]... [--config] [--audit] [--verbose]
//
// docs/matching.md explains the figures and the matcher's rules.
#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/discovery/audit.h"
#include "bench/discovery/config_overrides.h"
#include "bench/discovery/discovery_table.h"
#include "bench/discovery/margins.h"
#include "bench/discovery/replay.h"
#include "bench/discovery/simulated_devices.h"

using namespace tellora;
using namespace tellora::scenes;

int main(int argc, char** argv) {
  RoomSet set;
  ReplayOptions replayOptions;
  std::string cache;
  int copies = 1;
  std::vector<std::string> overrides;
  bool showConfig = false, verbose = false, audit = false;
  CLI::App app{"Discovery quality of the matcher on simulated rooms.", "discovery"};
  app.add_option("--rooms", set.rooms, "rooms (each with 2 or 3 devices)")
      ->check(CLI::Range(1, 1000))
      ->capture_default_str();
  app.add_option("--seconds", set.seconds, "length of every room's scene")
      ->check(CLI::Range(5.0, 600.0))
      ->capture_default_str();
  app.add_option("--seed", set.seed, "seed of the room set")->capture_default_str();
  app.add_option("--tick", replayOptions.tickMs, "milliseconds between advance calls")
      ->check(CLI::Range(1.0, 1000.0))
      ->capture_default_str();
  app.add_option("--copies", copies,
                 "replay every room this many times over, each copy unrelated to the others "
                 "(a server of many clients)")
      ->check(CLI::Range(1, 1000))
      ->capture_default_str();
  app.add_option("--cache", cache, "file keeping the synthesised fingerprints between runs");
  app.add_option("--set", overrides, "a matcher setting, name=value (repeatable)");
  app.add_flag("--config", showConfig, "print the matcher settings used");
  app.add_flag("--audit", audit,
               "judge every different-room pair 4 times a second, candidates or not (slow)");
  app.add_flag("--verbose", verbose, "list the pairs found late or not at all, and false founds");
  CLI11_PARSE(app, argc, argv);

  server::MatcherConfig config;
  for (const auto& o : overrides)
    if (!applyOverride(config, o)) {
      std::fprintf(stderr, "discovery: unknown setting or bad value: %s\n", o.c_str());
      return 2;
    }
  std::printf("discovery: %d rooms, %.0f s each, seed %u, advance every %.0f ms\n", set.rooms,
              set.seconds, set.seed, replayOptions.tickMs);
  if (showConfig) std::printf("%s", describe(config).c_str());

  auto devices = cache.empty() ? simulateDevices(set) : simulateDevicesCached(set, cache);
  if (copies > 1) devices = replicateRooms(devices, copies);
  replayOptions.seconds = set.seconds;
  replayOptions.keepComparisons = true;
  const Replay r = replay(devices, config, replayOptions);
  const DiscoveryTable table = tabulate(devices, r, set.seconds);

  std::printf("\n");
  printTable(stdout, table);
  if (verbose) printExceptions(stdout, devices, r);
  std::printf("\ndifferent-room pair-minutes: %.0f, false found in total: %d\n",
              table.differentRoomPairMinutes, table.falseFoundTotal);
  printMargins(stdout, devices, r, config);
  if (audit)
    printAudit(stdout, devices, auditDifferentRooms(devices, config, set.seconds, 250), config);
  std::printf(
      "matcher work: %zu clients, %.0f client-seconds, %llu index hits, %llu pair "
      "comparisons (%.2f of different rooms per client-second), %.1f us CPU per "
      "client-second\n",
      devices.size(), r.clientSeconds, static_cast<unsigned long long>(r.stats.indexHits),
      static_cast<unsigned long long>(r.stats.evaluations),
      static_cast<double>(differentRoomComparisons(devices, r)) / std::max(r.clientSeconds, 1.0),
      1e6 * r.matcherCpuSeconds / std::max(r.clientSeconds, 1.0));
  std::printf(
      "targets at 5 dB or better (>= 99%% found within 2 s, no false found, lost within "
      "3 s): %s\n",
      targetsMet(table) ? "met" : "NOT met");
  return 0;
}
