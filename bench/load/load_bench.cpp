// How many searching clients one tellora-server node serves: starts the real
// server, emulates phones in rooms of 2-3 that hear the same sound (the
// discovery benchmark's simulated rooms, each emulated room under its own
// word mask and from its own place in the sound), and measures a steady
// window per number of clients.
//
//   load [--clients 200,1000,2000] [--ramp S] [--window S] [--server PATH]
//        [--rooms N] [--seconds S] [--seed K] [--cache FILE] [--server-log FILE]
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/discovery/simulated_devices.h"
#include "bench/load/fleet.h"
#include "bench/load/load_plan.h"
#include "bench/load/load_table.h"
#include "bench/load/room_streams.h"
#include "bench/load/server_process.h"

using namespace tellora;
using namespace tellora::load;

namespace {

constexpr int kAppId = 7;
constexpr const char* kAppSecret = "load-bench-secret";

std::filesystem::path ownDirectory() {
  std::error_code ec;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::filesystem::current_path() : self.parent_path();
}

// Every phone holds a socket; the registrations and the process need a few more.
bool ensureDescriptors(int clients) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  const rlim_t need = static_cast<rlim_t>(clients) + 256;
  if (limit.rlim_cur >= need) return true;
  limit.rlim_cur = std::min(need, limit.rlim_max);
  setrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_cur >= need;
}

// Warning and error lines the server logged from `offset` on; moves offset to the end.
int countLogWarnings(const std::string& path, std::streamoff& offset) {
  std::ifstream in(path);
  in.seekg(offset);
  int count = 0;
  std::string line;
  while (std::getline(in, line)) {
    const auto space = line.find(' ');
    if (space == std::string::npos) continue;
    const std::string_view level = std::string_view(line).substr(space + 1, 5);
    if (level == "warni" || level == "error") ++count;
  }
  in.clear();
  in.seekg(0, std::ios::end);
  offset = in.tellg();
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  const auto dir = ownDirectory();
  std::vector<int> clients{200, 1000, 2000};
  std::string serverPath = (dir / ".." / "server" / "tellora-server").lexically_normal().string();
  std::string cache = (dir / "load-rooms.cache").string();
  std::string serverLog = (dir / "load-server.log").string();
  double rampSeconds = 10, windowSeconds = 20;
  uint32_t seed = 1;
  bool verbose = false;
  scenes::RoomSet set;
  set.seconds = 60;

  CLI::App app{"Searching clients one tellora-server node serves.", "load"};
  app.add_option("--clients", clients, "numbers of clients, one round each")
      ->delimiter(',')
      ->check(CLI::Range(2, 100000))
      ->capture_default_str();
  app.add_option("--ramp", rampSeconds, "seconds over which the clients connect")
      ->check(CLI::Range(0.0, 600.0))
      ->capture_default_str();
  app.add_option("--window", windowSeconds, "seconds measured once all clients search")
      ->check(CLI::Range(1.0, 3600.0))
      ->capture_default_str();
  app.add_option("--server", serverPath, "the tellora-server binary")->capture_default_str();
  app.add_option("--server-log", serverLog, "where the server's log goes")->capture_default_str();
  app.add_option("--rooms", set.rooms, "simulated rooms whose sounds the clients hear")
      ->check(CLI::Range(4, 1000))
      ->capture_default_str();
  app.add_option("--seconds", set.seconds, "length of every simulated room's sound")
      ->check(CLI::Range(10.0, 600.0))
      ->capture_default_str();
  app.add_option("--seed", seed, "seed of the rooms' masks, places and phases")
      ->capture_default_str();
  app.add_option("--cache", cache, "file keeping the simulated rooms between runs")
      ->capture_default_str();
  app.add_flag("--verbose", verbose, "report every failing client");
  CLI11_PARSE(app, argc, argv);
  // The table and the error lines on stderr keep their order in a log.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);

  const int most = *std::max_element(clients.begin(), clients.end());
  if (!ensureDescriptors(most)) {
    std::fprintf(stderr, "load: %d clients need more file descriptors than ulimit -n allows\n",
                 most);
    return 2;
  }

  std::printf("load: simulating %d rooms of %.0f s (cached in %s)\n", set.rooms, set.seconds,
              cache.c_str());
  std::fflush(stdout);
  const RoomStreams streams(scenes::simulateDevicesCached(set, cache));
  if (streams.streams().empty()) {
    std::fprintf(stderr, "load: no simulated room without a walk-out; try more --rooms\n");
    return 2;
  }

  // The per-address shares and the registration pace would stop one host
  // from opening this many sessions.
  const std::string capacity = std::to_string(most + 64);
  const std::vector<std::string> args{"--bind",
                                      "127.0.0.1",
                                      "--db",
                                      ":memory:",
                                      "--drain-seconds",
                                      "2",
                                      "--max-connections",
                                      capacity,
                                      "--max-connections-per-address",
                                      capacity,
                                      "--max-pending-per-address",
                                      capacity,
                                      "--registration-burst",
                                      "1e9",
                                      "--registrations-per-second",
                                      "1e9"};
  // The application comes through the environment: on the command line other
  // users could read its secret (and the server warns about it).
  const std::string application = std::to_string(kAppId) + ":" + kAppSecret;
  setenv("TELLORA_SERVER_APP", application.c_str(), 1);
  std::string error;
  auto server = ServerProcess::start(serverPath, args, serverLog, error);
  if (!server) {
    std::fprintf(stderr, "load: %s\n", error.c_str());
    return 1;
  }
  const Endpoint endpoint{"127.0.0.1", server->port()};
  std::printf("load: %s (pid %d) on port %u, log in %s\n", serverPath.c_str(), server->pid(),
              server->port(), serverLog.c_str());

  const auto registerStart = std::chrono::steady_clock::now();
  const auto identities = registerIdentities(endpoint, kAppId, kAppSecret, most, 16, error);
  if (identities.empty()) {
    std::fprintf(stderr, "load: %s\n", error.c_str());
    server->stop(10);
    return 1;
  }
  std::printf(
      "load: %d identities registered in %.1f s; %zu sounds; ramp %.0f s, window %.0f s\n\n", most,
      std::chrono::duration<double>(std::chrono::steady_clock::now() - registerStart).count(),
      streams.streams().size(), rampSeconds, windowSeconds);
  printHeader(stdout);

  RoundOptions options;
  options.rampMs = rampSeconds * 1000;
  options.windowMs = windowSeconds * 1000;
  options.verbose = verbose;
  std::streamoff logOffset = 0;
  countLogWarnings(serverLog, logOffset);
  int status = 0;
  for (const int n : clients) {
    if (!server->running()) {
      std::fprintf(stderr, "load: the server has gone (see %s)\n", serverLog.c_str());
      return 1;
    }
    const LoadPlan plan = makePlan(streams, n, options.rampMs, seed + static_cast<uint32_t>(n));
    ServerSample sample;
    double cpuAtStart = 0, waitAtStart = 0;
    RoundHooks hooks;
    hooks.windowStart = [&] {
      cpuAtStart = server->cpuSeconds();
      waitAtStart = server->runQueueSeconds();
    };
    hooks.serverRunning = [&] { return server->running(); };
    hooks.windowEnd = [&] {
      sample.cpuSeconds = server->cpuSeconds() - cpuAtStart;
      sample.runQueueSeconds = server->runQueueSeconds() - waitAtStart;
      sample.rssKb = server->rssKb();
      sample.peakRssKb = server->peakRssKb();
    };
    const RoundResult round = runRound(endpoint, identities, plan, streams, options, hooks);
    // Let the server take the closed sessions down: what it then still holds
    // is what a round left behind.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    sample.idleRssKb = server->rssKb();
    sample.logWarnings = countLogWarnings(serverLog, logOffset);
    printRow(stdout, round, sample);
    printErrors(stdout, round);
    if (round.errors.total() > 0 || round.falseFound > 0) status = 1;
    if (round.serverGone) {
      std::fprintf(stderr, "load: the server has gone (see %s)\n", serverLog.c_str());
      return 1;
    }
  }

  const int exit = server->stop(15);
  if (exit != 0) {
    std::fprintf(stderr, "load: the server exited with status %d on SIGTERM\n", exit);
    status = 1;
  }
  return status;
}
