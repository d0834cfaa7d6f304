#include "messaging/message_service.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "tests/messaging/service_fixture.h"

namespace tellora::testing {
namespace {

using nlohmann::json;
using Replies = std::vector<WsReply>;
using Strings = std::vector<std::string>;

// Matching replies to requests by id, in any order and at most once, is
// checked on every input of fuzz/message_service_fuzzer.cpp.
using RequestReplyTest = MessageServiceTest;

TEST_F(RequestReplyTest, RepliesReachTheCallbackOfTheirRequestByType) {
  connect([](const json& request) -> Replies {
    switch (request["type"].get<int>()) {
      case 2:
        return {replyTo(request, {{"data", {{"nearby", {{{"clientId", "a"}}}}}}})};
      case 3:
        return {replyTo(request, {{"data", {{"time", 1234.5}}}})};
      default:
        // A misleading reply "type" must not steer the dispatch.
        return {replyTo(request, {{"type", 2}})};
    }
  });
  std::atomic<int> done{0};
  Recorded<json> nearby;
  Recorded<double> times;
  onLoop([&] {
    service_->addFingerprint("\xc3\x28", 1, 2, {});  // unwritable: neither sent nor kept
    service_->establishClientMode(3, [&] { ++done; });
    service_->establishClientPayload(std::string("payload"), [&] { ++done; });
    service_->requestAllNearbyWithCallback([&](const json& list) { nearby.add(list); });
    service_->requestTime([&](double time) { times.add(time); });
    service_->addFingerprint("AAAA", 1.5, 2.5, [&] { ++done; });
    service_->establishEnvironmentWithLocation({1, 2}, {"aa"}, [&] { ++done; });
  });

  ASSERT_TRUE(waitUntil([&] { return done == 4 && nearby.size() == 1 && times.size() == 1; }));
  EXPECT_EQ(nearby.values()[0], json::parse(R"([{"clientId":"a"}])"));
  EXPECT_EQ(times.values()[0], 1234.5);
  EXPECT_TRUE(onLoop([&] { return service_->sendedMessages().empty(); }));
  EXPECT_EQ(server_.log().frames.size(), 6u);
}

TEST_F(RequestReplyTest, OnlySetModeOpensAClosedConnectionAndNothingElseIsSentOrKept) {
  answerWith({});
  createService();
  std::atomic<int> calls{0};
  auto requestAll = [&] {
    onLoop([&] {
      service_->requestTime([&](double) { ++calls; });
      service_->addFingerprint("AAAA", 1, 2, [&] { ++calls; });
      service_->requestAllNearbyWithCallback([&](const json&) { ++calls; });
      service_->establishClientPayload(std::string("p"), [&] { ++calls; });
      EXPECT_TRUE(service_->sendedMessages().empty());
    });
  };
  requestAll();
  EXPECT_EQ(server_.log().upgrades.size(), 0u);

  roundTrip(3);
  // Nothing else after a close either.
  onLoop([&] { service_->closeConnection(); });
  ASSERT_TRUE(server_.waitForEndedConnections(1));
  requestAll();
  EXPECT_EQ(server_.log().frames.size(), 1u);
  EXPECT_EQ(calls, 0);
}

// How a text reads as a number is lenientDouble's test; here: which replies
// reach it, and the record each request carries of the previous reply.
TEST_F(RequestReplyTest, TimesReadAsALeadingNumberOrZeroAndEachReplyTravelsBack) {
  std::vector<json> replies = {
      {{"data", {{"time", "1234.5"}}}}, {{"data", {{"time", 1234.5}}}}, json::object()};
  for (json odd : {json(" 12.5xyz"), json(true), json::array({5}), json(), json(-7)})
    replies.push_back({{"data", {{"time", odd}}}});
  replies.push_back({{"data", "1234"}});
  std::atomic<size_t> next{0};
  connect([&](const json& request) -> Replies {
    return {replyTo(request, replies.at(next++ % replies.size()))};
  });

  Recorded<double> times;
  for (size_t i = 0; i < replies.size(); ++i) {
    onLoop([&] { service_->requestTime([&](double time) { times.add(time); }); });
    ASSERT_TRUE(waitUntil([&] { return times.size() == i + 1; }));
  }
  EXPECT_EQ(times.values(), (std::vector<double>{1234.5, 1234.5, 0, 12.5, 0, 0, 0, -7, 0}));

  std::vector<json> requests;
  for (const auto& frame : server_.log().frames)
    requests.push_back(json::parse(frame.payload));
  EXPECT_FALSE(requests[0].contains("data"));
  auto record = [&](size_t i) {
    json reply = replies[i];
    reply["requestId"] = requests[i]["id"];
    return ">>>" + reply.dump() + "<<< ";
  };
  EXPECT_EQ(requests[1]["data"], json({{"d", record(0) + "[1234.5] [1234.500000] "}}));
  EXPECT_EQ(requests[2]["data"], json({{"d", record(1) + "[1234.5] [1234.500000] "}}));
  EXPECT_EQ(requests[3]["data"]["d"], record(2) + "[] [0.000000] ");
}

using SpeedStatusTest = MessageServiceTest;

TEST_F(SpeedStatusTest, TheFifthFastReplyInARowAndEveryFurtherOnePostHight) {
  connect();
  for (int i = 1; i <= 6; ++i) {
    roundTrip(i);
    EXPECT_EQ(speedStatuses_->size(), i < 5 ? 0u : size_t(i - 4)) << "reply " << i;
  }
  EXPECT_EQ(speedStatuses_->values(), (Strings{"hight", "hight"}));
  EXPECT_EQ(onLoop([&] { return service_->speed(); }), TLRSpeedHight);
}

TEST_F(SpeedStatusTest, OnlySlowFingerprintRepliesPostLowOrInvalidConnectionAndEndTheFastRun) {
  auto fingerprintDelay = std::make_shared<std::atomic<int>>(1100);
  connect([fingerprintDelay](const json& request) -> Replies {
    if (request["type"] == 4) return {replyTo(request, {}, fingerprintDelay->load() * 1ms)};
    return {replyTo(request, {}, request["data"]["mode"] == 9 ? 1100ms : 0ms)};
  });
  roundTrip(1);
  roundTrip(2);
  roundTrip(9);  // slow, but not a fingerprint: changes nothing
  EXPECT_TRUE(speedStatuses_->values().empty());
  EXPECT_EQ(onLoop([&] { return service_->delayLessThenOneSecCount(); }), 2u);

  addFingerprint();
  EXPECT_EQ(speedStatuses_->values(), (Strings{"low"}));
  EXPECT_EQ(onLoop([&] { return service_->speed(); }), TLRSpeedLow);
  EXPECT_EQ(onLoop([&] { return service_->delayLessThenOneSecCount(); }), 0u);

  *fingerprintDelay = 3050;
  addFingerprint();
  EXPECT_EQ(speedStatuses_->values(), (Strings{"low", "invalidConnection"}));
  EXPECT_EQ(onLoop([&] { return service_->speed(); }), TLRSpeedInvalidConnection);
}

using PushTest = MessageServiceTest;

// Found and lost pushes reach the host in the facade's tests.
TEST_F(PushTest, AReplyThatAlsoCarriesAPushTypeIsBoth) {
  connect([](const json& request) -> Replies {
    return {replyTo(request, {{"type", 103}, {"data", {{"clientId", "gone"}}}})};
  });
  roundTrip();
  EXPECT_TRUE(waitUntil([&] { return delegate_->removed.size() == 1; }));
}

TEST_F(PushTest, PushesWithoutADelegateAreDropped) {
  connect();
  delegate_.reset();  // the service held it weakly
  server_.pushText(R"({"type":102,"data":{"clientId":"c1"}})");
  EXPECT_TRUE(waitUntil([&] { return allMessages() == 1; }));
}

// Unparsable text and deep nesting are parseInboundObject's test; stray ids and
// bad reply data (kept in step, nearby lists null or a list) are checked on
// every input of the fuzzer. Here: pushes the delegate must never hear of.
TEST_F(PushTest, UnusablePushesReachNoOneAndTheNextGoodOneIsHandled) {
  connect();
  const Strings garbage = {
      R"({"type":"102","data":{"clientId":"x"}})",
      R"({"type":102,"data":5})",
      R"({"type":102,"data":[{"clientId":"x"}]})",
      R"({"type":102,"data":{"clientId":5,"payload":{}}})",
      R"({"type":103,"data":{"clientId":{"id":"x"}}})",
      R"({"type":103})",
      R"({"type":999,"data":{"clientId":"x"}})",
      std::string(100000, '['),
  };
  for (const auto& frame : garbage)
    server_.pushText(frame);
  ASSERT_TRUE(waitUntil([&] { return allMessages() == garbage.size(); }));
  EXPECT_EQ(delegate_->added.size() + delegate_->removed.size(), 0u);

  roundTrip();
  server_.pushText(R"({"type":102,"data":{"clientId":"ok"}})");  // no payload: null
  ASSERT_TRUE(waitUntil([&] { return delegate_->added.size() == 1; }));
  EXPECT_EQ(delegate_->added.values()[0], std::make_pair(std::string("ok"), json()));
}

}  // namespace
}  // namespace tellora::testing
