// The server process goes away in the middle of a search and comes back on
// the same port and database: killed hard (SIGKILL), with hosts that restart
// their search after a stop, or drained for a rolling restart (SIGTERM), with
// hosts that let the SDK resume. Either way the hosts find each other again
// under the identities they already had, without crashing or piling up threads,
// and never a host that hears another room.
#include <sndfile.h>

#include <csignal>

#include "tests/faults/facade_fixture.h"
#include "tests/support/search_output.h"
#include "tests/tools/test_audio.h"
#include "tools/scenes/scene_audio.h"

namespace tellora::faults {
namespace {

using nlohmann::json;

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
  void SetUp() override {
    if (!writeRooms()) GTEST_SKIP() << "espeak-ng is not available";
    startServer();
  }

  // On `port`, or any port at first. The application comes from the
  // environment, as an installed server's would.
  void startServer() {
    server = std::make_unique<BackgroundProcess>(
        TELLORA_SERVER_PATH,
        std::vector<std::string>{"--bind", "127.0.0.1", "--port", std::to_string(port), "--db",
                                 dir.file("clients.db"), "--drain-seconds", "1"},
        dir.path(), "server-" + std::to_string(++serverRuns),
        testing::Environment{{"TELLORA_SERVER_APP", kApp}});
    ASSERT_TRUE(waitUntil([&] { return listeningPort(server->out()) != 0; }, 10s)) << server->err();
    port = listeningPort(server->out());
  }

  // `how` is "--restart-on-stop 1" (the host restarts), "--resume" (the SDK
  // does) or "--duration 1" (a first short run that registers the host).
  std::unique_ptr<BackgroundProcess> startHost(const std::string& name,
                                               std::vector<std::string> how) {
    auto args = testing::searchArgs(port, 7, "restart-secret", name, dir.file(name + ".wav"),
                                    dir.file(name + ".json"));
    args.push_back("--loop");
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
  std::unique_ptr<BackgroundProcess> server;
  uint16_t port = 0;
};

TEST_F(ServerKilledMidSearch, HostsRestartTheSearchAndFindEachOtherAgainUnderTheSameIdentity) {
  const std::string names[] = {"alice", "bob"};
  std::string ids[2];
  std::unique_ptr<BackgroundProcess> hosts[2];
  for (int i : {0, 1}) {
    // A first short run registers the host, so the search under test starts on
    // a stored identity, as on every launch of an app but the first.
    EXPECT_EQ(startHost(names[i], {"--duration", "1"})->waitExit(10s), 0) << names[i];
    ids[i] = testing::storedClientId(dir.file(names[i] + ".json"));
    ASSERT_FALSE(ids[i].empty()) << names[i];
  }
  // Both start together: the files they play are one room's sound in step.
  for (int i : {0, 1})
    hosts[i] = startHost(names[i], {"--restart-on-stop", "1"});
  const auto both = [&](const char* kind, int afterRestart) {
    return !eventsAfterRestart(hosts[0]->out(), kind, afterRestart).empty() &&
           !eventsAfterRestart(hosts[1]->out(), kind, afterRestart).empty();
  };
  const auto outputs = [&] { return hosts[0]->out() + hosts[1]->out() + server->err(); };
  ASSERT_TRUE(waitUntil([&] { return both("clientFound", 0); }, 25s)) << outputs();
  const long threads[] = {hosts[0]->threadCount(), hosts[1]->threadCount()};

  server->signal(SIGKILL);
  server->waitExit(5s);
  // The dropped connection stops each search; the host starts it again at once
  // and the SDK keeps trying to reach the server in the background.
  ASSERT_TRUE(waitUntil([&] { return both("searchRestarting", 0); }, 5s)) << outputs();
  startServer();
  ASSERT_TRUE(waitUntil([&] { return both("clientFound", 1); }, 30s)) << outputs();
  for (int i : {0, 1})
    EXPECT_EQ(hosts[i]->threadCount(), threads[i]) << names[i];

  for (auto& host : hosts)
    host->signal(SIGTERM);
  for (int i : {0, 1}) {
    BackgroundProcess& host = *hosts[i];
    EXPECT_EQ(host.waitExit(5s), 0) << host.err();
    SCOPED_TRACE(host.out());
    // The drop is a close without a server close code: the stop carries no error.
    const auto stops = eventsAfterRestart(host.out(), "searchStopped", 0);
    ASSERT_FALSE(stops.empty());
    EXPECT_TRUE(stops.front()["error"].is_null());
    EXPECT_EQ(eventsAfterRestart(host.out(), "searchStarted", 1).size(), 1u);
    // Same identities, and each is told about the other under the known id.
    EXPECT_EQ(testing::storedClientId(dir.file(names[i] + ".json")), ids[i]);
    EXPECT_EQ(eventsAfterRestart(host.out(), "clientFound", 1).front()["clientId"], ids[1 - i]);
  }
}

// A rolling restart: the node drains (its sessions closed with 1001 over a
// second) and a new one takes the port. With resume on, the hosts never hear
// of it: no stop until their own, and they find each other again. Carol, in
// the room next door, is found by nobody and finds nobody.
TEST_F(ServerKilledMidSearch, ADrainedNodeGoesUnnoticedByHostsThatResume) {
  auto alice = startHost("alice", {"--resume"});
  auto bob = startHost("bob", {"--resume"});
  auto carol = startHost("carol", {"--resume"});
  auto found = [&](const BackgroundProcess& host, std::size_t times) {
    return eventsAfterRestart(host.out(), "clientFound", 0).size() >= times;
  };
  ASSERT_TRUE(waitUntil([&] { return found(*alice, 1) && found(*bob, 1); }, 25s))
      << alice->out() << bob->out() << server->err();

  server->signal(SIGTERM);
  EXPECT_EQ(server->waitExit(10s), 0) << server->err();
  EXPECT_NE(server->err().find("draining: closing"), std::string::npos) << server->err();
  startServer();
  EXPECT_TRUE(waitUntil([&] { return found(*alice, 2) && found(*bob, 2); }, 30s))
      << alice->out() << bob->out() << server->err();

  for (const auto& host : {alice.get(), bob.get(), carol.get()}) {
    EXPECT_TRUE(eventsAfterRestart(host->out(), "searchStopped", 0).empty()) << host->out();
    host->signal(SIGTERM);
    EXPECT_EQ(host->waitExit(5s), 0) << host->err();
    for (const auto& event : eventsAfterRestart(host->out(), "clientFound", 0))
      EXPECT_NE(event.value("payload", ""), "carol") << host->out();
  }
  EXPECT_TRUE(eventsAfterRestart(carol->out(), "clientFound", 0).empty()) << carol->out();
}

}  // namespace
}  // namespace tellora::faults
