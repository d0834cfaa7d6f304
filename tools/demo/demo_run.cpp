#include "tools/demo/demo_run.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "tools/demo/child_process.h"
#include "tools/demo/demo_audio.h"
#include "tools/demo/interrupts.h"
#include "tools/demo/scenario.h"
#include "tools/demo/scratch_folder.h"
#include "tools/demo/timeline.h"

namespace tellora::demo {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kAppId = 1;
constexpr const char* kAppSecret = "demo-secret";
constexpr auto kServerStartLimit = std::chrono::seconds(15);
constexpr auto kStopGrace = std::chrono::seconds(3);
constexpr double kOverrunSeconds = 15;  // clients may end this late before they are stopped

void say(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void sayAll(const std::vector<std::string>& lines) {
  for (const auto& line : lines)
    say(line);
}

class Stopwatch {
 public:
  double seconds() const { return std::chrono::duration<double>(Clock::now() - zero_).count(); }

 private:
  Clock::time_point zero_ = Clock::now();
};

struct RunningClient {
  size_t device;
  ChildProcess process;
  LineReader reader;
  bool exitSeen = false;
};

// Reads the server's first stdout line: "listening on HOST:PORT". Empty when
// it did not come in time, or the server ended first.
std::string waitUntilListening(ChildProcess& server) {
  LineReader reader;
  const auto deadline = Clock::now() + kServerStartLimit;
  while (Clock::now() < deadline && !pendingInterrupt()) {
    pollfd fd{server.stdoutFd(), POLLIN, 0};
    ::poll(&fd, 1, 100);
    bool closed = false;
    for (const std::string& line : reader.read(server.stdoutFd(), closed)) {
      const std::string prefix = "listening on ";
      if (line.rfind(prefix, 0) == 0) return line.substr(prefix.size());
    }
    if (closed || server.poll()) return {};
  }
  return {};
}

void writePrivateFile(const std::string& path, const std::string& text) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) throw std::runtime_error("cannot write " + path);
  const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  if (!written) throw std::runtime_error("cannot write " + path);
}

std::string portOf(const std::string& address) {
  return address.substr(address.rfind(':') + 1);
}

std::vector<std::string> searchArgs(const std::string& port, const DemoDevice& device,
                                    const std::string& input, const std::string& defaults,
                                    double duration) {
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%g", duration);
  return {"search",
          "--register-url",
          "http://127.0.0.1:" + port + "/register",
          "--ws-url",
          "ws://127.0.0.1:" + port + "/ws",
          "--app-id",
          std::to_string(kAppId),
          "--app-secret",
          kAppSecret,
          "--payload",
          device.payload,
          "--input",
          input,
          "--defaults",
          defaults,
          "--duration",
          seconds};
}

// Passes everything the clients print to the timeline until they have all
// ended, the run overruns, the server dies or we are interrupted.
void followClients(std::vector<RunningClient>& clients, ChildProcess& server,
                   DemoTimeline& timeline, const Stopwatch& clock, double until) {
  auto running = [&] {
    for (const auto& c : clients)
      if (!c.exitSeen) return true;
    return false;
  };
  while (running() && !pendingInterrupt()) {
    const double now = clock.seconds();
    if (now >= until) {
      sayAll(timeline.problem(now, "the clients did not end in time; stopping them"));
      return;
    }
    std::vector<pollfd> fds;
    std::vector<RunningClient*> owners;
    for (auto& c : clients)
      if (c.process.stdoutFd() >= 0) {
        fds.push_back({c.process.stdoutFd(), POLLIN, 0});
        owners.push_back(&c);
      }
    double wait = 0.1;
    if (auto due = timeline.nextDue()) wait = std::max(0.0, std::min(wait, *due - now));
    ::poll(fds.data(), fds.size(), static_cast<int>(wait * 1000) + 1);

    for (size_t i = 0; i < fds.size(); ++i) {
      if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      RunningClient& c = *owners[i];
      bool closed = false;
      for (const std::string& line : c.reader.read(c.process.stdoutFd(), closed)) {
        // Stamped on receipt: the clients print each event as it happens.
        if (auto event = parseClientEvent(line))
          sayAll(timeline.clientEvent(clock.seconds(), c.device, *event));
      }
      if (closed) c.process.closeStdout();
    }
    for (auto& c : clients)
      if (!c.exitSeen && c.process.stdoutFd() < 0 && c.process.poll()) {
        c.exitSeen = true;
        sayAll(timeline.clientExited(clock.seconds(), c.device, *c.process.exitStatus()));
      }
    if (auto status = server.poll()) {
      sayAll(timeline.problem(clock.seconds(),
                              "the server ended early with status " + std::to_string(*status)));
      return;
    }
    sayAll(timeline.advance(clock.seconds()));
  }
}

void printSummary(const Verdict& verdict) {
  say("");
  say("Summary");
  for (const Check& c : verdict.checks)
    say(std::string(c.passed ? "  ok      " : "  FAILED  ") + c.what +
        (c.detail.empty() ? "" : ": " + c.detail));
}

}  // namespace

int runDemo(const DemoOptions& o) {
  catchInterrupts();
  const Stopwatch wholeRun;
  std::optional<ScratchFolder> folder;
  DemoAudioFiles files;
  DemoAudioPlan plan;
  plan.seed = o.seed;
  plan.seconds = o.duration + 4;  // a client's file starts playing a moment after it starts
  plan.changeAt = o.duration / 2;
  try {
    folder.emplace();
    say("Three simulated phones search for each other through a local server. A and B are");
    say("in one room, C in another; halfway through, A is carried into a third room.");
    const Stopwatch making;
    files = writeDemoAudio(folder->path(), plan);
    char line[160];
    std::snprintf(line, sizeof line, "Made the sound of three rooms in %.1f s (seed %u).\n",
                  making.seconds(), o.seed);
    say(line);
  } catch (const std::exception& e) {
    if (int s = pendingInterrupt()) return 128 + s;
    std::fprintf(stderr, "tellora-demo: %s\n", e.what());
    return 2;
  }
  if (int s = pendingInterrupt()) return 128 + s;

  const std::vector<DemoDevice> devices = demoDevices(plan.changeAt);
  DemoTimeline timeline(devices);
  const Stopwatch clock;
  std::optional<ChildProcess> server;
  std::vector<RunningClient> clients;
  int serverStatus = 0;
  try {
    // The secret goes in a file, as an operator's would, not on the command line.
    const std::string apps = folder->file("apps");
    writePrivateFile(apps, std::to_string(kAppId) + ":" + kAppSecret + "\n");
    server.emplace(o.serverPath,
                   std::vector<std::string>{"--bind", "127.0.0.1", "--port", "0", "--db",
                                            ":memory:", "--apps-file", apps},
                   folder->file("server.log"));
    const std::string address = waitUntilListening(*server);
    if (address.empty()) {
      if (int s = pendingInterrupt()) return 128 + s;
      folder->keep();
      std::fprintf(stderr, "tellora-demo: the server did not start listening; its log: %s\n",
                   folder->file("server.log").c_str());
      return 2;
    }
    sayAll(timeline.serverListening(clock.seconds(), address));

    const std::string inputs[] = {files.a, files.b, files.c};
    for (size_t d = 0; d < devices.size(); ++d) {
      const std::string& label = devices[d].label;
      clients.push_back({d,
                         ChildProcess(o.cliPath,
                                      searchArgs(portOf(address), devices[d], inputs[d],
                                                 folder->file(label + ".json"), o.duration),
                                      folder->file(label + ".log")),
                         {}});
    }
    followClients(clients, *server, timeline, clock,
                  clock.seconds() + o.duration + kOverrunSeconds);
    timeline.endRun(clock.seconds());
    for (auto& c : clients)
      if (!c.exitSeen) c.process.stop(kStopGrace);
    clients.clear();
    serverStatus = server->stop(kStopGrace);
    server.reset();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "tellora-demo: %s\n", e.what());
    return 2;  // the destructors stop whatever was started
  }

  if (int s = pendingInterrupt()) {
    say("\nInterrupted; everything it started is stopped.");
    return 128 + s;
  }
  if (serverStatus != 0)
    sayAll(timeline.problem(clock.seconds(),
                            "the server stopped with status " + std::to_string(serverStatus)));
  say(DemoTimeline::stamp(clock.seconds(), "all stopped"));

  const Verdict verdict = timeline.verdict();
  printSummary(verdict);
  if (o.keepFiles || !verdict.passed()) folder->keep();
  char total[64];
  std::snprintf(total, sizeof total, "%.0f s in all", wholeRun.seconds());
  say(std::string("\n") + (verdict.passed() ? "Demo passed" : "Demo FAILED") + " (" + total + ")." +
      (o.keepFiles || !verdict.passed() ? " Sound files and logs are in " + folder->path() + "."
                                        : ""));
  return verdict.passed() ? 0 : 1;
}

}  // namespace tellora::demo
