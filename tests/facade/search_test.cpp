// The search session: the request sequence, fingerprints on the server's
// clock, nearby clients found and lost, stopping, and recorder failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include <nlohmann/json.hpp>

#include "runtime/clock.h"
#include "tests/facade/facade_fixture.h"

namespace tellora::facade_test {
namespace {

using Ids = std::vector<std::string>;

Ids idsOf(const std::vector<TLRClient>& clients) {
  Ids ids;
  for (const auto& client : clients)
    ids.push_back(client.clientID());
  return ids;
}

// --- The search sequence -------------------------------------------------------------

using SearchSequenceTest = FacadeTest;

TEST_F(SearchSequenceTest, ModeThenPayloadThenNearbyAfterClockMeasurement) {
  match_.setNearby(nlohmann::json::parse(
      R"([{"clientId":"n1","payload":"p1"},{"clientId":"n2","payload":null}])"));
  startSearchAndWait("my-payload");
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("found") == 2; }));

  // The five clock readings, then mode, payload (the bare string) and nearby.
  const auto requests = match_.requests();
  ASSERT_EQ(requests.size(), 8u);
  for (size_t i = 0; i < 5; ++i)
    EXPECT_EQ(requests[i]["type"], 3);
  EXPECT_EQ(requests[5]["type"], 0);
  EXPECT_EQ(requests[5]["data"], nlohmann::json({{"mode", 3}}));
  EXPECT_EQ(requests[6]["type"], 1);
  EXPECT_EQ(requests[6]["data"], "my-payload");
  EXPECT_EQ(requests[7]["type"], 2);
  EXPECT_FALSE(requests[7].contains("data"));

  EXPECT_LT(events_->indexOf(TelloraWillStartSearchNotification),
            events_->indexOf(TelloraDidStartSearchNotification));
  EXPECT_LT(events_->indexOf(TelloraDidStartSearchNotification), events_->indexOf("started"));
  EXPECT_EQ(searchState(), TLRSearchStateSearching);

  EXPECT_EQ(events_->named("found")[0].client->payload(), "p1");
  EXPECT_FALSE(events_->named("found")[1].client->payload().has_value());
  EXPECT_EQ(events_->named(TelloraClientFoundNotification).at(1).client->clientID(), "n2");
  EXPECT_EQ(idsOf(nearbyClients()), (Ids{"n1", "n2"}));
}

TEST_F(SearchSequenceTest, StartBeforeSetupWaitsForConfiguration) {
  createFacade();
  startSearch("early");
  EXPECT_EQ(sandbox_.countLog("Tellora: Please prepare the configuration"), 1u);
  EXPECT_EQ(searchState(), TLRSearchStateStarting);
  EXPECT_EQ(registrar_.requests().size(), 0u);

  // Setting up later connects, and the pending search runs once the clock is known.
  setUpFacade();
  ASSERT_TRUE(match_.waitForRequestsOfType(1, 1));
  EXPECT_EQ(match_.requestsOfType(1).at(0)["data"], "early");
  EXPECT_TRUE(waitUntil([&] { return events_->countOf("started") == 1; }));
}

TEST_F(SearchSequenceTest, StartWhileSearchingOnlyLogsAndKeepsNewPayload) {
  startSearchAndWait("first");
  startSearch("second");

  EXPECT_EQ(sandbox_.countLog("Tellora: search already running"), 1u);
  EXPECT_EQ(events_->countOf(TelloraWillStartSearchNotification), 2u);
  EXPECT_EQ(onLoop([&] { return facade_->payload(); }), "second");
  EXPECT_TRUE(onLoop([&] { return facade_->needRunSearch(); }));
  EXPECT_EQ(searchState(), TLRSearchStateSearching);
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(match_.requestsOfType(0).size(), 1u);
  EXPECT_EQ(match_.requestsOfType(1).size(), 1u);  // the new payload is not sent
}

// --- Fingerprints ------------------------------------------------------------------------

using FingerprintTest = FacadeTest;

// The server's clock runs 1000 ms ahead. "etime" carries the offset itself and
// "stime" the part's local start moved onto the server clock.
TEST_F(FingerprintTest, SentWithStartOnServerClockAndOffsetAsEndUntilTheStop) {
  startSearchAndWait();
  const double offset = onLoop([&] { return facade_->timeDifference(); });
  EXPECT_NEAR(offset, 1000, 50.0 * testing::waitScale());

  const double localStartMs = wallClockSeconds() * 1000;
  feedAudio(1.2, monotonicTicks());
  ASSERT_TRUE(match_.waitForRequestsOfType(4, 1));
  const auto data = match_.requestsOfType(4).at(0)["data"];
  EXPECT_EQ(data["fp"].get<std::string>().size(), 156u);
  EXPECT_DOUBLE_EQ(data["etime"].get<double>(), offset);
  EXPECT_NEAR(data["stime"].get<double>() - offset, localStartMs, 20.0 * testing::waitScale());

  // The stop releases the recorder: the host's audio no longer goes anywhere.
  onLoop([&] { facade_->stopSearching(); });
  const int16_t block[800] = {};
  EXPECT_FALSE(audio_->push(block, 800));
  EXPECT_FALSE(onLoop([&] { return facade_->isRecording(); }));
}

// --- Nearby tracking ---------------------------------------------------------------------

using NearbyTest = FacadeTest;

// A server repeating found pushes for ever: the list stays bounded, dropping
// the oldest entries of clients listed again, and the newest stay.
TEST_F(NearbyTest, RepeatedPushesKeepTheListBounded) {
  startSearchAndWait();
  onLoop([&] {
    facade_->nearbyAddedWithClientID("once", "first");
    for (size_t i = 0; i < TLRTelloraImpl::kNearbyClientsLimit + 500; ++i)
      facade_->nearbyAddedWithClientID("echo", std::to_string(i));
  });
  const auto listed = nearbyClients();
  ASSERT_EQ(listed.size(), TLRTelloraImpl::kNearbyClientsLimit);
  EXPECT_EQ(listed.front().clientID(), "once");
  EXPECT_EQ(listed.back().payload(), std::to_string(TLRTelloraImpl::kNearbyClientsLimit + 499));
}

// Pushes are the server's business: the facade reports them whatever the search
// state and lists a client once per report; a lost drops its first entry only.
TEST_F(NearbyTest, EveryPushCountsEvenWhileStoppedAndALostDropsTheFirstEntry) {
  match_.setNearby(nlohmann::json::parse(R"([{"clientId":"n1","payload":"p1"}])"));
  startSearchAndWait();
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("found") == 1; }));
  onLoop([&] { facade_->stopSearching(); });
  EXPECT_EQ(nearbyClients().size(), 1u);  // a stop keeps the list
  match_.pushFound("n1", "late");
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("found") == 2; }));

  // A restart asks for the nearby list again and appends it.
  match_.setNearby(nlohmann::json::parse(R"([{"clientId":"n1","payload":"p3"}])"));
  startSearch("second");
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("found") == 3; }));
  EXPECT_EQ(match_.requestsOfType(1).back()["data"], "second");

  match_.pushLost("n1");
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("lost") == 1; }));
  std::vector<std::optional<std::string>> payloads;
  for (const auto& client : nearbyClients())
    payloads.push_back(client.payload());
  EXPECT_EQ(payloads, (std::vector<std::optional<std::string>>{"late", "p3"}));
  EXPECT_EQ(events_->named("lost").at(0).client->payload(), "p1");
  EXPECT_EQ(events_->named(TelloraClientLostNotification).at(0).client->payload(), "p1");

  // Lost for an unknown id is ignored; the push after it shows it was handled.
  match_.pushLost("ghost");
  match_.pushFound("marker", nullptr);
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("found") == 4; }));
  EXPECT_EQ(events_->countOf("lost") + events_->countOf(TelloraClientLostNotification), 2u);
  EXPECT_EQ(idsOf(nearbyClients()), (Ids{"n1", "n1", "marker"}));
}

// --- Stopping ------------------------------------------------------------------------------

using StopTest = FacadeTest;

TEST_F(StopTest, CallsStoppedCallbackOnceAndAnnouncesEveryTime) {
  startSearchAndWait();
  onLoop([&] { facade_->stopSearching(); });

  ASSERT_EQ(events_->countOf("stopped"), 1u);
  EXPECT_FALSE(events_->named("stopped").at(0).error.has_value());
  EXPECT_EQ(sandbox_.countLog("Tellora: stoped search"), 1u);
  EXPECT_EQ(events_->countOf(TelloraSearchWillStopNotification), 1u);
  EXPECT_EQ(searchState(), TLRSearchStateStopped);
  EXPECT_FALSE(onLoop([&] { return facade_->payload(); }).has_value());
  EXPECT_EQ(events_->countOf(TelloraSearchStopNotification), 0u);

  // Stopped already: the log line and the will-stop notification only.
  onLoop([&] { facade_->stopSearching(); });
  EXPECT_EQ(events_->countOf("stopped"), 1u);
  EXPECT_EQ(sandbox_.countLog("Tellora: stoped search"), 2u);
  EXPECT_EQ(events_->countOf(TelloraSearchWillStopNotification), 2u);
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

TEST_F(StopTest, SearchRestartedFromTheStopCallbackKeepsRecording) {
  startSearchAndWait();
  auto restarts = std::make_shared<int>(0);
  onLoop([&] {
    facade_->setHostCallbacks(nullptr, nullptr, nullptr,
                              restartingCallback(facade_.get(), restarts));
  });
  for (int round = 0; round < 1000; ++round)
    onLoop([&] { facade_->stopSearching(); });

  EXPECT_EQ(onLoop([&] { return *restarts; }), 1000);
  EXPECT_EQ(searchState(), TLRSearchStateSearching);
  EXPECT_TRUE(onLoop([&] { return facade_->isRecording() && facade_->recorder()->isRec(); }));
  const size_t sent = match_.requestsOfType(4).size();
  feedAudio(1.2, monotonicTicks());
  EXPECT_TRUE(match_.waitForRequestsOfType(4, sent + 1));
}

TEST_F(StopTest, AnonymousBufferKeepsRecorderRunningAcrossStop) {
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
  EXPECT_EQ(*recorderStarts, 1);
  onLoop([&] { facade_->stopSearching(); });
  EXPECT_TRUE(onLoop([&] { return facade_->isRecording() && facade_->recorder()->isRec(); }));
  // The recorder still takes audio; the hasher keeps it instead of sending.
  feedAudio(0.4, monotonicTicks());

  startSearch("again");
  ASSERT_TRUE(waitUntil([&] { return events_->countOf("started") == 2; }));
  EXPECT_EQ(*recorderStarts, 1);  // the running recorder was not started again

  center.post("TelloraPrivateStopUseAnonimousBuffer");
  EventLoop::main().drain();
  EXPECT_EQ(sandbox_.countLog("Tellora: AnonimousBuffer turn off"), 1u);
  onLoop([&] { facade_->stopSearching(); });
  EXPECT_FALSE(onLoop([&] { return facade_->isRecording() || facade_->recorder()->isRec(); }));
  center.removeObserver(token);
}

// --- Recorder failures -------------------------------------------------------------------

class RefusingSource : public TLRAudioSource {
 public:
  TLRAudioStartResult start(const TLRAudioSourceFormat&, BlockSink) override {
    return TLRAudioStartResult::notPermitted(-9997, "Pa_OpenStream");
  }
  void stop() override {}
};

using RecorderFailureTest = FacadeTest;

TEST_F(RecorderFailureTest, MicrophoneNotPermittedEndsSearchWithError101) {
  auto config = configuration();
  config.audioSourceFactory = [] { return std::make_unique<RefusingSource>(); };
  setUpFacade(config);
  startSearch("payload");
  ASSERT_TRUE(waitUntil([&] {
    return events_->countOf("stopped") == 1 && events_->countOf(TelloraSearchStopNotification) == 1;
  }));

  const auto expected = TLRError::make(101, {{"message", std::string("Microphone is disabled")}});
  EXPECT_EQ(events_->named("stopped")[0].error, expected);
  EXPECT_EQ(events_->named(TelloraSearchStopNotification)[0].error, expected);
  EXPECT_EQ(searchState(), TLRSearchStateStopped);
}

}  // namespace
}  // namespace tellora::facade_test
