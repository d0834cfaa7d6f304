// The search session: the request sequence, fingerprints on the server's
// clock, nearby clients found and lost, stopping, and recorder failures.
#include <atomic>
#include <thread>

#include "tests/facade/facade_fixture.h"

namespace tellora::facade_test {
namespace {

using Strings = std::vector<std::string>;

// The nearby list as "id=payload" ("-" without one).
Strings listed(const std::vector<TLRClient>& clients) {
  Strings listed;
  for (const auto& client : clients)
    listed.push_back(client.clientID() + "=" + client.payload().value_or("-"));
  return listed;
}

using SearchTest = FacadeTest;

TEST_F(SearchTest, ModeThenPayloadThenNearbyAfterClockMeasurementAndOnlyOnce) {
  match_.setNearby(
      json::parse(R"([{"clientId":"n1","payload":"p1"},{"clientId":"n2","payload":null}])"));
  startSearchAndWait("my-payload");
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("found") == 2; }));
  // Another start while searching is only logged; its payload is kept, not sent.
  startSearch("second");
  EXPECT_EQ(sandbox_.countLog("Tellora: search already running"), 1u);
  EXPECT_EQ(call(&TLRTelloraImpl::payload), "second");
  std::this_thread::sleep_for(100ms);

  // The five clock readings, then mode 3, the payload (the bare string) and nearby.
  std::vector<int> types;
  for (const auto& request : match_.requests())
    types.push_back(request["type"]);
  EXPECT_EQ(types, (std::vector<int>{3, 3, 3, 3, 3, 0, 1, 2}));
  EXPECT_EQ(match_.requests(0).at(0)["data"]["mode"], 3);
  EXPECT_EQ(match_.requests(1).at(0)["data"], "my-payload");

  EXPECT_EQ(events_->countOf(TelloraWillStartSearchNotification), 2u);
  EXPECT_LT(events_->indexOf(TelloraWillStartSearchNotification),
            events_->indexOf(TelloraDidStartSearchNotification));
  EXPECT_LT(events_->indexOf(TelloraDidStartSearchNotification), events_->indexOf("started"));
  EXPECT_EQ(events_->named("found")[0].client->payload(), "p1");
  EXPECT_EQ(events_->named(TelloraClientFoundNotification).at(1).client->clientID(), "n2");
  EXPECT_EQ(listed(nearbyClients()), (Strings{"n1=p1", "n2=-"}));
}

// The server's clock runs 1000 ms ahead. "etime" carries the offset itself and
// "stime" the part's local start moved onto the server clock.
TEST_F(SearchTest, FingerprintsGoOnTheServerClockUntilTheStop) {
  startSearchAndWait();
  const double offset = call(&TLRTelloraImpl::timeDifference);
  EXPECT_NEAR(offset, 1000, 50.0 * testing::waitScale());

  const double localStartMs = wallClockSeconds() * 1000;
  feedAudio(1.2);
  ASSERT_TRUE(match_.waitForRequests(4, 1));
  const auto data = match_.requests(4).at(0)["data"];
  EXPECT_EQ(data["fp"].get<std::string>().size(), 156u);
  EXPECT_DOUBLE_EQ(data["etime"].get<double>(), offset);
  EXPECT_NEAR(data["stime"].get<double>() - offset, localStartMs, 20.0 * testing::waitScale());

  // The stop releases the recorder: the host's audio no longer goes anywhere.
  stopSearch();
  const int16_t block[800] = {};
  EXPECT_FALSE(audio_->push(block, 800));
  EXPECT_EQ(recording(), std::pair(false, false));
}

// A server repeating found pushes for ever: the list stays bounded, dropping
// the oldest entries of clients listed again, and the newest stay.
TEST_F(SearchTest, RepeatedPushesKeepTheNearbyListBounded) {
  startSearchAndWait();
  constexpr size_t kLimit = TLRTelloraImpl::kNearbyClientsLimit;
  onLoop([&] {
    facade_->nearbyAddedWithClientID("once", "first");
    for (size_t i = 0; i < kLimit + 500; ++i)
      facade_->nearbyAddedWithClientID("echo", std::to_string(i));
  });
  const auto clients = nearbyClients();
  ASSERT_EQ(clients.size(), kLimit);
  EXPECT_EQ(clients.front().clientID(), "once");
  EXPECT_EQ(clients.back().payload(), std::to_string(kLimit + 499));
}

// Pushes are the server's business: the facade reports them whatever the search
// state and lists a client once per report (a stop keeps the list); a lost
// drops its first entry only.
TEST_F(SearchTest, EveryPushCountsEvenWhileStoppedAndALostDropsTheFirstEntry) {
  match_.setNearby(json::parse(R"([{"clientId":"n1","payload":"p1"}])"));
  startSearchAndWait();
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("found") == 1; }));
  stopSearch();
  match_.pushFound("n1", "late");
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("found") == 2; }));

  // A restart asks for the nearby list again and appends it.
  match_.setNearby(json::parse(R"([{"clientId":"n1","payload":"p3"}])"));
  startSearch("second");
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("found") == 3; }));

  match_.pushLost("n1");
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("lost") == 1; }));
  EXPECT_EQ(listed(nearbyClients()), (Strings{"n1=late", "n1=p3"}));
  EXPECT_EQ(events_->named("lost").at(0).client->payload(), "p1");
  EXPECT_EQ(events_->named(TelloraClientLostNotification).at(0).client->payload(), "p1");

  // Lost for an unknown id is ignored; the push after it shows it was handled.
  match_.pushLost("ghost");
  match_.pushFound("marker", nullptr);
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("found") == 4; }));
  EXPECT_EQ(events_->countOf("lost") + events_->countOf(TelloraClientLostNotification), 2u);
  EXPECT_EQ(listed(nearbyClients()), (Strings{"n1=late", "n1=p3", "marker=-"}));
}

TEST_F(SearchTest, StopCallsTheStoppedCallbackOnceAndAnnouncesEveryTime) {
  startSearchAndWait();
  for (size_t stops = 1; stops <= 2; ++stops) {
    stopSearch();  // the second time, stopped already: the log line and will-stop only
    EXPECT_EQ(sandbox_.countLog("Tellora: stoped search"), stops);
    EXPECT_EQ(events_->countOf(TelloraSearchWillStopNotification), stops);
    ASSERT_EQ(events_->countOf("stopped"), 1u);
  }
  EXPECT_FALSE(events_->named("stopped").at(0).error.has_value());
  EXPECT_EQ(events_->countOf(TelloraSearchStopNotification), 0u);
}

// The stopped callback that starts the next search, as hosts do: it replaces
// itself while it runs, and the new search begins before the stop has ended
// the recorder.
TLRTellora::StoppedBlock restartingCallback(TLRTelloraImpl* facade, std::shared_ptr<int> restarts) {
  return [facade, restarts](const std::optional<TLRError>&) {
    facade->setHostCallbacks(nullptr, nullptr, nullptr, restartingCallback(facade, restarts));
    facade->startSearchingWithPayload("again");
    ++*restarts;  // the closure is still in use after the replacement
  };
}

TEST_F(SearchTest, SearchRestartedFromTheStopCallbackKeepsRecording) {
  startSearchAndWait();
  auto restarts = std::make_shared<int>(0);
  onLoop([&] {
    facade_->setHostCallbacks(nullptr, nullptr, nullptr,
                              restartingCallback(facade_.get(), restarts));
  });
  for (int round = 0; round < 1000; ++round)
    stopSearch();
  EXPECT_EQ(onLoop([&] { return *restarts; }), 1000);
  EXPECT_EQ(searchState(), TLRSearchStateSearching);
  EXPECT_EQ(recording(), std::pair(true, true));
  const size_t sent = match_.requests(4).size();
  feedAudio(1.2);
  EXPECT_TRUE(match_.waitForRequests(4, sent + 1));
}

TEST_F(SearchTest, AnonymousBufferKeepsRecorderRunningAcrossStop) {
  // Shared with the observer, which outlives the test if an assertion ends it early.
  auto recorderStarts = std::make_shared<std::atomic<int>>(0);
  auto& center = TLRNotificationCenter::defaultCenter();
  const auto token =
      center.addObserver(TLRAudioConnectSuccNotification,
                         [recorderStarts](const TLRNotification&) { ++*recorderStarts; });
  createFacade();
  center.post("TelloraPrivateStartUseAnonimousBuffer");
  EventLoop::main().drain();  // the switch is queued on the loop, not waited for
  EXPECT_EQ(sandbox_.countLog("Tellora: AnonimousBuffer turn on"), 1u);

  startSearchAndWait();
  stopSearch();
  EXPECT_EQ(recording(), std::pair(true, true));
  feedAudio(0.4);  // the recorder still takes audio; the hasher keeps it
  startSearch("again");
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("started") == 2; }));
  EXPECT_EQ(*recorderStarts, 1);  // the running recorder was not started again

  center.post("TelloraPrivateStopUseAnonimousBuffer");
  EventLoop::main().drain();
  EXPECT_EQ(sandbox_.countLog("Tellora: AnonimousBuffer turn off"), 1u);
  stopSearch();
  EXPECT_EQ(recording(), std::pair(false, false));
  center.removeObserver(token);
}

class RefusingSource : public TLRAudioSource {
 public:
  TLRAudioStartResult start(const TLRAudioSourceFormat&, BlockSink) override {
    return TLRAudioStartResult::notPermitted(-9997, "Pa_OpenStream");
  }
  void stop() override {}
};

TEST_F(SearchTest, MicrophoneNotPermittedEndsTheSearchWithError101) {
  auto config = configuration();
  config.audioSourceFactory = [] { return std::make_unique<RefusingSource>(); };
  setUpFacade(config);
  startSearch("payload");
  ASSERT_TRUE(waitUntil([&] { return events_->countOf(TelloraSearchStopNotification) == 1; }));
  const auto expected = TLRError::make(101, {{"message", std::string("Microphone is disabled")}});
  EXPECT_EQ(events_->named("stopped").at(0).error, expected);
  EXPECT_EQ(events_->named(TelloraSearchStopNotification)[0].error, expected);
}

}  // namespace
}  // namespace tellora::facade_test
