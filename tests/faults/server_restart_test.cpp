// The server process goes away in the middle of a search and comes back on
// the same port and database: killed hard (SIGKILL), with hosts that restart
// their search after a stop, or drained for a rolling restart (SIGTERM), with
// hosts that let the SDK resume. Either way the hosts find each other again
// under the identities they already had, without crashing or piling up threads,
// and never a host that hears another room.
#include <gtest/gtest.h>

#include <sndfile.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/faults/facade_fixture.h"
#include "tests/support/search_output.h"
#include "tests/tools/scratch_dir.h"
#include "tests/tools/test_audio.h"
#include "tools/scenes/scene_audio.h"

namespace tellora::faults {
namespace {

using nlohmann::json;
using std::chrono::seconds;

constexpr const char* kApp = "7:restart-secret";

// Events named `kind` that come after the `nth` (1-based) "searchRestarting";
// with nth 0, all of them.
std::vector<json> eventsAfterRestart(const std::string& output, const std::string& kind, int nth) {
  std::vector<json> found;
  int restarts = 0;
  for (const auto& e : testing::searchEvents(output)) {
    if (e["event"] == "searchRestarting") ++restarts;
    if (restarts >= nth && e["event"] == kind) found.push_back(e);
  }
  return found;
}

class ServerKilledMidSearch : public ::testing::Test {
 protected:
  // The application comes from the environment, as an installed server's would.
  std::unique_ptr<BackgroundProcess> startServer(uint16_t port) {
    setenv("TELLORA_SERVER_APP", kApp, 1);
    auto server = std::make_unique<BackgroundProcess>(
        TELLORA_SERVER_PATH,
        std::vector<std::string>{"--bind", "127.0.0.1", "--port", std::to_string(port), "--db",
                                 dir.file("clients.db"), "--drain-seconds", "1"},
        dir.path(), "server-" + std::to_string(++serverRuns));
    unsetenv("TELLORA_SERVER_APP");
    const bool listening =
        waitUntil([&] { return listeningPort(server->out()) != 0; }, seconds(10));
    EXPECT_TRUE(listening) << server->err();
    return server;
  }

  std::vector<std::string> hostArgs(const std::string& name, uint16_t port) {
    auto args = testing::searchArgs(port, 7, "restart-secret", name, dir.file(name + ".wav"),
                                    dir.file(name + ".json"));
    args.push_back("--loop");
    return args;
  }

  // A first short run registers the host, so the search under test starts on
  // a stored identity, as on every launch of an app but the first.
  void registerHost(const std::string& name, uint16_t port) {
    auto args = hostArgs(name, port);
    args.insert(args.end(), {"--duration", "1"});
    BackgroundProcess run(TELLORA_CLI_PATH, args, dir.path(), name + "-registration");
    EXPECT_EQ(run.waitExit(seconds(10)), 0) << run.err();
  }

  // `how` is "--restart-on-stop 1" (the host restarts) or "--resume" (the SDK does).
  std::unique_ptr<BackgroundProcess> startHost(const std::string& name, uint16_t port,
                                               std::vector<std::string> how) {
    auto args = hostArgs(name, port);
    args.insert(args.end(), how.begin(), how.end());
    return std::make_unique<BackgroundProcess>(TELLORA_CLI_PATH, args, dir.path(), name);
  }

  // Two devices in one room, and carol next door hearing another room; false
  // when the synthetic talkers cannot be made here.
  bool writeRooms() {
    const scenes::Signal talkerA = scenes::randomTalker(101, 5);
    if (talkerA.empty()) return false;
    const auto room = scenes::makeRoom(11, 16, {talkerA, scenes::randomTalker(202, 5)});
    const auto nextDoor =
        scenes::makeRoom(22, 16, {scenes::randomTalker(303, 5), scenes::randomTalker(404, 5)});
    for (const auto& [name, scene, channel] :
         {std::tuple{"alice", &room.scene, scenes::DeviceChannel{1.0, 25, 0.2, 5, true, 1}},
          {"bob", &room.scene, scenes::DeviceChannel{0.6, 18, 0.35, 20, true, 2}},
          {"carol", &nextDoor.scene, scenes::DeviceChannel{0.9, 22, 0.25, 10, true, 3}}})
      testaudio::writeItems(dir.file(std::string(name) + ".wav"),
                            scenes::toItems(scenes::hear(*scene, channel)), 1, scenes::kRate,
                            SF_FORMAT_WAV);
    return true;
  }

  testtools::ScratchDir dir;
  int serverRuns = 0;
};

TEST_F(ServerKilledMidSearch, HostsRestartTheSearchAndFindEachOtherAgainUnderTheSameIdentity) {
  if (!writeRooms()) GTEST_SKIP() << "espeak-ng is not available";
  auto server = startServer(0);
  const uint16_t port = listeningPort(server->out());
  ASSERT_NE(port, 0);
  registerHost("alice", port);
  registerHost("bob", port);
  auto alice = startHost("alice", port, {"--restart-on-stop", "1"});
  auto bob = startHost("bob", port, {"--restart-on-stop", "1"});
  auto bothFound = [&](int afterRestart) {
    return !eventsAfterRestart(alice->out(), "clientFound", afterRestart).empty() &&
           !eventsAfterRestart(bob->out(), "clientFound", afterRestart).empty();
  };
  ASSERT_TRUE(waitUntil([&] { return bothFound(0); }, seconds(25)))
      << alice->out() << bob->out() << server->err();
  const std::string aliceId = testing::storedClientId(dir.file("alice.json"));
  const std::string bobId = testing::storedClientId(dir.file("bob.json"));
  ASSERT_FALSE(aliceId.empty());
  ASSERT_FALSE(bobId.empty());
  const long aliceThreads = alice->threadCount(), bobThreads = bob->threadCount();

  server->signal(SIGKILL);
  server->waitExit(seconds(5));
  // The dropped connection stops each search; the host starts it again at once
  // and the SDK keeps trying to reach the server in the background.
  ASSERT_TRUE(waitUntil(
      [&] {
        return !eventsAfterRestart(alice->out(), "searchRestarting", 0).empty() &&
               !eventsAfterRestart(bob->out(), "searchRestarting", 0).empty();
      },
      seconds(5)))
      << alice->out() << bob->out();
  server = startServer(port);

  EXPECT_TRUE(waitUntil([&] { return bothFound(1); }, seconds(30)))
      << alice->out() << bob->out() << server->err();
  EXPECT_EQ(alice->threadCount(), aliceThreads);
  EXPECT_EQ(bob->threadCount(), bobThreads);

  alice->signal(SIGTERM);
  bob->signal(SIGTERM);
  EXPECT_EQ(alice->waitExit(seconds(5)), 0) << alice->err();
  EXPECT_EQ(bob->waitExit(seconds(5)), 0) << bob->err();

  for (const auto* host : {alice.get(), bob.get()}) {
    // The drop is a close without a server close code: the stop carries no error.
    const auto stops = eventsAfterRestart(host->out(), "searchStopped", 0);
    ASSERT_FALSE(stops.empty()) << host->out();
    EXPECT_TRUE(stops.front()["error"].is_null()) << host->out();
    EXPECT_EQ(eventsAfterRestart(host->out(), "searchStarted", 1).size(), 1u) << host->out();
  }
  // Same identities, and each is told about the other under the known id.
  EXPECT_EQ(testing::storedClientId(dir.file("alice.json")), aliceId);
  EXPECT_EQ(testing::storedClientId(dir.file("bob.json")), bobId);
  EXPECT_EQ(eventsAfterRestart(alice->out(), "clientFound", 1).front()["clientId"], bobId);
  EXPECT_EQ(eventsAfterRestart(bob->out(), "clientFound", 1).front()["clientId"], aliceId);
}

// A rolling restart: the node drains (its sessions closed with 1001 over a
// second) and a new one takes the port. With resume on, the hosts never hear
// of it: no stop until their own, and they find each other again. Carol, in
// the room next door, is found by nobody and finds nobody.
TEST_F(ServerKilledMidSearch, ADrainedNodeGoesUnnoticedByHostsThatResume) {
  if (!writeRooms()) GTEST_SKIP() << "espeak-ng is not available";
  auto server = startServer(0);
  const uint16_t port = listeningPort(server->out());
  ASSERT_NE(port, 0);
  auto alice = startHost("alice", port, {"--resume"});
  auto bob = startHost("bob", port, {"--resume"});
  auto carol = startHost("carol", port, {"--resume"});
  auto found = [&](const BackgroundProcess& host, std::size_t times) {
    return eventsAfterRestart(host.out(), "clientFound", 0).size() >= times;
  };
  ASSERT_TRUE(waitUntil([&] { return found(*alice, 1) && found(*bob, 1); }, seconds(25)))
      << alice->out() << bob->out() << server->err();

  server->signal(SIGTERM);
  EXPECT_EQ(server->waitExit(seconds(10)), 0) << server->err();
  EXPECT_NE(server->err().find("draining: closing"), std::string::npos) << server->err();
  server = startServer(port);
  EXPECT_TRUE(waitUntil([&] { return found(*alice, 2) && found(*bob, 2); }, seconds(30)))
      << alice->out() << bob->out() << server->err();

  for (const auto& host : {alice.get(), bob.get(), carol.get()}) {
    EXPECT_TRUE(eventsAfterRestart(host->out(), "searchStopped", 0).empty()) << host->out();
    host->signal(SIGTERM);
    EXPECT_EQ(host->waitExit(seconds(5)), 0) << host->err();
    for (const auto& event : eventsAfterRestart(host->out(), "clientFound", 0))
      EXPECT_NE(event.value("payload", ""), "carol") << host->out();
  }
  EXPECT_TRUE(eventsAfterRestart(carol->out(), "clientFound", 0).empty()) << carol->out();
}

}  // namespace
}  // namespace tellora::faults
