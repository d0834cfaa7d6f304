// The public static entry points on the process-wide instance, from setup to
// stop, as a host would use them. One test: the instance lives for the process.
#include <atomic>
#include <mutex>
#include <thread>

#include "facade/tellora_access.h"
#include "tests/facade/facade_fixture.h"

namespace tellora::facade_test {
namespace {

// The host's callbacks, all of which must run on the SDK's loop.
struct HostLog : testing::Recorded<std::string> {
  void called(const std::string& event) {
    add(event);
    if (!EventLoop::main().isCurrent()) add("off the loop: " + event);
  }
};

TEST(SharedInstanceTest, HostDrivesSearchThroughStaticEntryPoints) {
  testing::RuntimeSandbox sandbox;
  auto host = std::make_shared<HostLog>();
  testing::HttpTestServer registrar;
  registrar.setReply(
      testing::HttpReply::json(200, R"({"clientId":"shared-id","clientSecret":"s"})"));
  MatchServer match;
  match.pushAfterNearbyRequest({MatchServer::foundPush("peer", "peer-payload")});
  auto audio = TLRHostFedAudio::create();

  TLRTellora::setHostApplication("com.example.shared", "9.9");
  EventLoop::main().call(
      [] { TLRTelloraAccess::impl(TLRTellora::sharedInstance())->setTimings(0ms, 200ms, 50ms); });
  TLRTellora::setupWithCustomConfiguration(
      {registrar.url("/register"), match.url(), 11, "custom-key", audio->sourceFactory()});
  // The first configuration wins: neither of these changes where it goes.
  TLRTellora::setupWithApiKey("ignored-key");
  TLRTellora::setupWithCustomConfiguration(TLRTelloraConfiguration{});
  EventLoop::main().drain();  // setting up is queued, not waited for
  EXPECT_EQ(sandbox.countLog("Tellora: set custom configuration is OK"), 2u);

  auto& tellora = TLRTellora::sharedInstance();
  // Started while still registering, a search would register a second time.
  ASSERT_TRUE(waitUntil([&] { return tellora.telloraState() == TLRTelloraStateConnected; }));
  TLRTellora::startSearchingWithPayload(
      "shared-payload", [host] { host->called("started"); },
      [host](const TLRClient& c) { host->called("found " + c.clientID() + " " + *c.payload()); },
      [host](const TLRClient& c) { host->called("lost " + c.clientID()); },
      [host](const std::optional<TLRError>& e) {
        host->called(e ? "stopped with error" : "stopped");
      });
  ASSERT_TRUE(waitUntil([&] { return host->count("found peer peer-payload") == 1; }));
  ASSERT_EQ(registrar.requests().size(), 1u);
  EXPECT_EQ(json::parse(registrar.requests()[0].body)["app"]["secretKey"], "custom-key");

  // Stopping with a block of its own leaves the search's callback out.
  // Counters are shared: the instance keeps its callbacks after the test.
  auto blockCalls = std::make_shared<std::atomic<int>>(0);
  TLRTellora::stopSearchingWithStoppedBlock([blockCalls] { ++*blockCalls; });
  EXPECT_FALSE(tellora.isSearching());  // queries wait for the calls queued before them
  EXPECT_EQ(*blockCalls, 1);

  // A second search, without payload, replaces the callbacks; stopSearch
  // calls the new one, and a lost has no callback to call.
  match.pushAfterNearbyRequest({});
  auto secondStops = std::make_shared<std::atomic<int>>(0);
  TLRTellora::startSearchingWithPayload(
      std::nullopt, nullptr, nullptr, nullptr,
      [secondStops](const std::optional<TLRError>& e) { *secondStops += e ? 100 : 1; });
  ASSERT_TRUE(match.waitForRequests(2, 2));
  EXPECT_TRUE(match.requests(1).at(1)["data"].is_null());
  TLRTellora::stopSearch();
  match.pushLost("peer");
  match.pushFound("marker", nullptr);
  ASSERT_TRUE(waitUntil([&] {
    const auto clients = tellora.nearbyClients();
    return !clients.empty() && clients.back().clientID() == "marker";
  }));
  EXPECT_EQ(tellora.nearbyClients().size(), 1u);  // the lost one dropped
  EXPECT_EQ(*secondStops, 1);
  EXPECT_EQ(host->count("stopped") + host->count("lost peer"), 0u);

  // Host threads that stop and start while holding a lock that the callbacks
  // take: the calls are queued, so nobody waits for anybody.
  auto hostLock = std::make_shared<std::mutex>();
  auto underLock = [hostLock] { std::lock_guard lock(*hostLock); };
  const auto churn = [&] {
    for (int i = 0; i < 100; ++i) {
      std::lock_guard lock(*hostLock);
      TLRTellora::stopSearch();
      TLRTellora::startSearchingWithPayload(
          "threads", underLock, [underLock](const TLRClient&) { underLock(); },
          [underLock](const TLRClient&) { underLock(); },
          [underLock](const std::optional<TLRError>&) { underLock(); });
    }
  };
  { std::jthread first(churn), second(churn); }
  EXPECT_TRUE(tellora.isSearching());

  TLRTellora::disconnect();
  EXPECT_TRUE(match.ws().waitForEndedConnections(1));
  EXPECT_EQ(host->countIf([](const std::string& e) { return e.starts_with("off the loop"); }), 0u);
  EventLoop::main().drain();
}

}  // namespace
}  // namespace tellora::facade_test
