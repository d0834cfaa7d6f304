// How many searching clients one tellora-server node (or several joined
// through Redis) serves: starts the real server, emulates phones in rooms of 2-3 that hear the same sound (the
// discovery benchmark's simulated rooms, each emulated room under its own
// word mask and from its own place in the sound), and measures a steady
// window per number of clients.
//
//   load [--clients 200,1000,2000] [--ramp S] [--window S] [--server PATH]
//        [--rooms N] [--seconds S] [--seed K] [--cache FILE] [--server-log FILE]
//        [--nodes N --redis HOST:PORT]
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
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
#include "server/cluster/redis_connection.h"

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

// The nodes under test, and the Redis between them: their CPU is the
// service's, summed.
struct Servers {
  std::vector<ServerProcess> processes;
  std::optional<tellora::server::RedisConnection> redis;

  bool running() {
    return std::all_of(processes.begin(), processes.end(), [](auto& p) { return p.running(); });
  }
  double cpuSeconds() {
    double total = redis ? redisCpuSeconds() : 0;
    for (const auto& p : processes)
      total += p.cpuSeconds();
    return total;
  }
  double runQueueSeconds() const {
    double total = 0;
    for (const auto& p : processes)
      total += p.runQueueSeconds();
    return total;
  }
  long sum(long (ServerProcess::*field)() const) const {
    long total = 0;
    for (const auto& p : processes)
      total += (p.*field)();
    return total;
  }
  // Redis reports its own CPU (user + system), in seconds.
  double redisCpuSeconds() {
    const auto info = redis->command({"INFO", "cpu"});
    if (!info) return 0;
    double total = 0;
    for (const char* field : {"used_cpu_sys:", "used_cpu_user:"}) {
      const auto at = info->string.find(field);
      if (at != std::string::npos) total += std::atof(info->string.c_str() + at + std::strlen(field));
    }
    return total;
  }
  bool stop() {
    bool clean = true;
    for (auto& p : processes) {
      const int exit = p.stop(15);
      if (exit != 0) {
        std::fprintf(stderr, "load: a server exited with status %d on SIGTERM\n", exit);
        clean = false;
      }
    }
    return clean;
  }
};

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
  int nodes = 1;
  std::string redis;
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
  app.add_option("--nodes", nodes, "servers joined through --redis; phones spread over them")
      ->check(CLI::Range(1, 16))
      ->capture_default_str();
  app.add_option("--redis", redis, "HOST:PORT of a Redis for --nodes above 1 (its CPU counts)");
  CLI11_PARSE(app, argc, argv);
  if (nodes > 1 && redis.empty()) {
    std::fprintf(stderr, "load: --nodes above 1 needs --redis\n");
    return 2;
  }
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
  std::vector<std::string> args{"--bind",
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
  if (!redis.empty()) args.insert(args.end(), {"--redis", redis});
  // The application comes through the environment: on the command line other
  // users could read its secret (and the server warns about it).
  const std::string application = std::to_string(kAppId) + ":" + kAppSecret;
  setenv("TELLORA_SERVER_APP", application.c_str(), 1);
  std::string error;
  Servers servers;
  std::vector<Endpoint> endpoints;
  std::vector<std::string> logs;
  for (int i = 0; i < nodes; ++i) {
    const std::string log = nodes == 1 ? serverLog : serverLog + "." + std::to_string(i + 1);
    auto server = ServerProcess::start(serverPath, args, log, error);
    if (!server) {
      std::fprintf(stderr, "load: %s\n", error.c_str());
      return 1;
    }
    std::printf("load: %s (pid %d) on port %u, log in %s\n", serverPath.c_str(), server->pid(),
                server->port(), log.c_str());
    endpoints.push_back(Endpoint{"127.0.0.1", server->port()});
    logs.push_back(log);
    servers.processes.push_back(std::move(*server));
  }
  if (!redis.empty()) servers.redis.emplace(*tellora::server::parseRedisAddress(redis));
  const Endpoint endpoint = endpoints.front();

  const auto registerStart = std::chrono::steady_clock::now();
  const auto identities = registerIdentities(endpoint, kAppId, kAppSecret, most, 16, error);
  if (identities.empty()) {
    std::fprintf(stderr, "load: %s\n", error.c_str());
    servers.stop();
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
  std::vector<std::streamoff> logOffsets(logs.size(), 0);
  auto logWarnings = [&] {
    int count = 0;
    for (size_t i = 0; i < logs.size(); ++i)
      count += countLogWarnings(logs[i], logOffsets[i]);
    return count;
  };
  logWarnings();
  int status = 0;
  for (const int n : clients) {
    if (!servers.running()) {
      std::fprintf(stderr, "load: a server has gone (see %s)\n", serverLog.c_str());
      return 1;
    }
    const LoadPlan plan = makePlan(streams, n, options.rampMs, seed + static_cast<uint32_t>(n));
    ServerSample sample;
    double cpuAtStart = 0, waitAtStart = 0;
    RoundHooks hooks;
    hooks.windowStart = [&] {
      cpuAtStart = servers.cpuSeconds();
      waitAtStart = servers.runQueueSeconds();
    };
    hooks.serverRunning = [&] { return servers.running(); };
    hooks.windowEnd = [&] {
      sample.cpuSeconds = servers.cpuSeconds() - cpuAtStart;
      sample.runQueueSeconds = servers.runQueueSeconds() - waitAtStart;
      sample.rssKb = servers.sum(&ServerProcess::rssKb);
      sample.peakRssKb = servers.sum(&ServerProcess::peakRssKb);
    };
    const RoundResult round = runRound(endpoints, identities, plan, streams, options, hooks);
    // Let the server take the closed sessions down: what it then still holds
    // is what a round left behind.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    sample.idleRssKb = servers.sum(&ServerProcess::rssKb);
    sample.logWarnings = logWarnings();
    printRow(stdout, round, sample);
    printErrors(stdout, round);
    if (round.errors.total() > 0 || round.falseFound > 0) status = 1;
    if (round.serverGone) {
      std::fprintf(stderr, "load: a server has gone (see %s)\n", serverLog.c_str());
      return 1;
    }
  }

  if (!servers.stop()) status = 1;
  return status;
}
