// The public static entry points on the process-wide instance, from setup to
// stop, as a host would use them. One test: the instance lives for the process.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <thread>

#include "runtime/event_loop.h"
#include "runtime/user_defaults.h"
#include "tellora/host_fed_audio.h"
#include "tellora/tellora.hpp"
#include "tests/facade/match_server.h"
#include "tests/support/http_test_server.h"

namespace tellora::facade_test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

bool waitUntil(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

struct HostLog {
  std::mutex mutex;
  std::vector<std::string> lines;
  std::vector<std::string> events;
  bool allOnLoop = true;

  void add(const std::string& event) {
    std::lock_guard lock(mutex);
    events.push_back(event);
    allOnLoop = allOnLoop && EventLoop::main().isCurrent();
  }
  size_t count(const std::string& event) {
    std::lock_guard lock(mutex);
    return static_cast<size_t>(std::count(events.begin(), events.end(), event));
  }
  size_t countLines(const std::string& line) {
    std::lock_guard lock(mutex);
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
  }
};

TEST(SharedInstanceTest, HostDrivesSearchThroughStaticEntryPoints) {
  std::string folder = (fs::temp_directory_path() / "tellora-shared-XXXXXX").string();
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  UserDefaults::setStandardPath(fs::path(folder) / "defaults.json");
  auto host = std::make_shared<HostLog>();
  TLRSetLogSink([host](std::string_view line) {
    std::lock_guard lock(host->mutex);
    host->lines.emplace_back(line);
  });

  testing::HttpTestServer registrar;
  registrar.setReply(
      testing::HttpReply::json(200, R"({"clientId":"shared-id","clientSecret":"s"})"));
  MatchServer match;
  match.setNearby(nlohmann::json::array());
  match.pushAfterNearbyRequest({MatchServer::foundPush("peer", "peer-payload")});
  auto audio = TLRHostFedAudio::create();

  TLRTellora::setHostApplication("com.example.shared", "9.9");
  TLRTellora::setTimingsForTesting(0ms, 200ms, 50ms);
  TLRTelloraConfiguration configuration;
  configuration.registrationServerURL = registrar.url("/register");
  configuration.websocketServerURL = match.url();
  configuration.appID = 11;
  configuration.appSecret = "custom-key";
  configuration.audioSourceFactory = audio->sourceFactory();
  TLRTellora::setupWithCustomConfiguration(configuration);
  EXPECT_EQ(host->countLines("Tellora: set custom configuration is OK"), 1u);
  // The first configuration wins: neither of these changes where it goes.
  TLRTellora::setupWithApiKey("ignored-key");
  TLRTellora::setupWithCustomConfiguration(TLRTelloraConfiguration{});
  EXPECT_EQ(host->countLines("Tellora: set custom configuration is OK"), 2u);

  auto& tellora = TLRTellora::sharedInstance();
  EXPECT_EQ(&tellora, &TLRTellora::sharedInstance());
  EXPECT_FALSE(tellora.isSearching());
  // Started while still registering, a search would register a second time.
  ASSERT_TRUE(waitUntil([&] { return tellora.telloraState() == TLRTelloraStateConnected; }));
  TLRTellora::startSearchingWithPayload(
      "shared-payload", [host] { host->add("started"); },
      [host](const TLRClient& c) { host->add("found " + c.clientID() + " " + *c.payload()); },
      [host](const TLRClient& c) { host->add("lost " + c.clientID()); },
      [host](const std::optional<TLRError>& e) {
        host->add(e ? "stopped with error" : "stopped");
      });
  EXPECT_TRUE(tellora.isSearching());
  ASSERT_TRUE(waitUntil([&] { return host->count("found peer peer-payload") == 1; }));
  EXPECT_EQ(host->count("started"), 1u);

  ASSERT_EQ(registrar.requests().size(), 1u);
  const auto body = nlohmann::json::parse(registrar.requests()[0].body);
  EXPECT_EQ(body["app"]["secretKey"], "custom-key");
  EXPECT_EQ(body["app"]["id"], 11);
  EXPECT_EQ(tellora.clientID(), "shared-id");
  EXPECT_EQ(tellora.clientSecret(), "s");
  EXPECT_EQ(tellora.telloraState(), TLRTelloraStateConnected);
  EXPECT_EQ(tellora.searchState(), TLRSearchStateSearching);
  EXPECT_NEAR(tellora.timeDifference(), 0, 50);
  ASSERT_EQ(match.requestsOfType(1).size(), 1u);
  EXPECT_EQ(match.requestsOfType(1)[0]["data"], "shared-payload");
  const auto nearby = tellora.nearbyClients();
  ASSERT_EQ(nearby.size(), 1u);
  EXPECT_EQ(nearby[0].clientID(), "peer");

  // Stopping with a block of its own leaves the search's callback out.
  // Counters are shared: the instance keeps its callbacks after the test.
  auto blockCalls = std::make_shared<std::atomic<int>>(0);
  TLRTellora::stopSearchingWithStoppedBlock([blockCalls] { ++*blockCalls; });
  EXPECT_EQ(*blockCalls, 1);
  EXPECT_EQ(host->count("stopped"), 0u);
  EXPECT_FALSE(tellora.isSearching());

  // A second search replaces the callbacks; stopSearch calls the new one.
  match.pushAfterNearbyRequest({});
  auto secondStops = std::make_shared<std::atomic<int>>(0);
  TLRTellora::startSearchingWithPayload(
      "second", nullptr, nullptr, nullptr,
      [secondStops](const std::optional<TLRError>& e) { *secondStops += e ? 100 : 1; });
  ASSERT_TRUE(match.waitForRequestsOfType(2, 2));
  TLRTellora::stopSearch();
  EXPECT_EQ(*secondStops, 1);
  EXPECT_EQ(host->count("stopped"), 0u);

  match.pushLost("peer");  // no lost callback is set any more: nothing to call
  match.pushFound("marker", nullptr);
  ASSERT_TRUE(waitUntil([&] {
    const auto clients = tellora.nearbyClients();
    return !clients.empty() && clients.back().clientID() == "marker";
  }));
  EXPECT_EQ(tellora.nearbyClients().size(), 1u);
  EXPECT_EQ(host->count("lost peer"), 0u);

  TLRTellora::disconnect();
  EXPECT_TRUE(match.ws().waitForEndedConnections(1));
  EXPECT_TRUE(host->allOnLoop);

  EventLoop::main().drain();
  TLRSetLogSink({});
  fs::remove_all(folder);
}

}  // namespace
}  // namespace tellora::facade_test
