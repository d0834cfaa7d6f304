// The whole system: three `tellora search` processes (the SDK) against the
// server, fed with synthetic room audio. Two devices hear room 1 through
// different channels and must be told about each other; the third hears
// room 2 and must be told about nobody, and nobody about it.
#include <gtest/gtest.h>

#include <sndfile.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "server/server.h"
#include "tests/support/search_output.h"
#include "tests/tools/scratch_dir.h"
#include "tests/tools/test_audio.h"
#include "tools/scenes/scene_audio.h"

namespace tellora::server {
namespace {

constexpr int kAppId = 7;
constexpr const char* kAppSecret = "e2e-secret";
constexpr double kSceneSeconds = 16;
constexpr const char* kSearchSeconds = "12";

struct Device {
  std::string name;
  std::string payload;
  const scenes::Signal* room;
  scenes::DeviceChannel channel;
  testing::ChildRun run;
};

TEST(SdkSearchAgainstTheServer, DevicesInOneRoomFindEachOtherAndNotTheOneNextDoor) {
  const scenes::Signal talkerA = scenes::randomTalker(101, 5),
                       talkerB = scenes::randomTalker(202, 5);
  if (talkerA.empty()) GTEST_SKIP() << "espeak-ng is not available";
  const auto room1 = scenes::makeRoom(11, kSceneSeconds, {talkerA, talkerB});
  const auto room2 = scenes::makeRoom(22, kSceneSeconds,
                                      {scenes::randomTalker(303, 5), scenes::randomTalker(404, 5)});

  testtools::ScratchDir dir;
  std::vector<Device> devices = {
      {"A", "alice", &room1.scene, {1.0, 25, 0.2, 5, true, 1}, {}},
      {"B", "bob", &room1.scene, {0.6, 18, 0.35, 20, true, 2}, {}},
      {"C", "carol", &room2.scene, {0.9, 22, 0.25, 10, true, 3}, {}},
  };
  for (const auto& d : devices) {
    testaudio::writeItems(dir.file(d.name + ".wav"),
                          scenes::toItems(scenes::hear(*d.room, d.channel)), 1, scenes::kRate,
                          SF_FORMAT_WAV);
    std::filesystem::create_directory(dir.file(d.name));
  }

  ServerOptions options;
  options.port = 0;
  options.databasePath = dir.file("clients.db");
  options.apps = {{kAppId, kAppSecret}};
  Server server(options);
  server.start();

  // All three at once, as devices that start searching together.
  std::vector<std::thread> runs;
  for (auto& d : devices) {
    auto args = testing::searchArgs(server.port(), kAppId, kAppSecret, d.payload,
                                    dir.file(d.name + ".wav"), dir.file(d.name + ".json"));
    args.insert(args.end(), {"--duration", kSearchSeconds});
    runs.emplace_back([&d, &dir, args] {
      d.run =
          testing::runChild(TELLORA_CLI_PATH, args, {}, dir.file(d.name), std::chrono::seconds(40));
    });
  }
  for (auto& t : runs)
    t.join();
  server.stop();

  for (const auto& d : devices) {
    ASSERT_FALSE(d.run.timedOut) << d.name;
    EXPECT_EQ(d.run.exitCode, 0) << d.name << ": " << d.run.err;
    EXPECT_EQ(testing::searchEvents(d.run.out, "searchStarted").size(), 1u)
        << d.name << ": " << d.run.out;
  }
  const auto& [a, b, c] = std::tie(devices[0], devices[1], devices[2]);
  auto payloadsFound = [](const Device& d) {
    std::vector<std::string> payloads;
    for (const auto& e : testing::searchEvents(d.run.out, "clientFound"))
      payloads.push_back(e.value("payload", ""));
    return payloads;
  };
  EXPECT_EQ(payloadsFound(a), std::vector<std::string>{"bob"}) << a.run.out;
  EXPECT_EQ(payloadsFound(b), std::vector<std::string>{"alice"}) << b.run.out;
  EXPECT_TRUE(payloadsFound(c).empty()) << c.run.out;

  // The identifiers pushed are the ones the devices were registered with.
  const auto foundByA = testing::searchEvents(a.run.out, "clientFound");
  if (!foundByA.empty()) {
    EXPECT_EQ(foundByA[0]["clientId"], testing::storedClientId(dir.file("B.json")));
  }
}

}  // namespace
}  // namespace tellora::server
