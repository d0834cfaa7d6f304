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

  const auto requests = receivedRequests();
  ASSERT_EQ(requests.size(), 6u);
  for (size_t i = 0; i < requests.size(); ++i)
    EXPECT_EQ(requests[i]["type"], i);
  EXPECT_EQ(requests[1]["data"], "payload");
  EXPECT_EQ(requests[5]["data"], json::object());
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

  // Set-mode opens and is sent once open.
  roundTrip(3);
  const auto requests = receivedRequests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0]["data"], json({{"mode", 3}}));

  // Nothing else after a close either.
  onLoop([&] { service_->closeConnection(); });
  ASSERT_TRUE(server_.waitForEndedConnections(1));
  requestAll();
  EXPECT_EQ(server_.log().frames.size(), 1u);
  EXPECT_EQ(calls, 0);
}

TEST_F(RequestReplyTest, AnUnwritableRequestIsNeitherSentNorKept) {
  connect();
  onLoop([&] {
    service_->addFingerprint("\xc3\x28", 1, 2, {});
    EXPECT_TRUE(service_->sendedMessages().empty());
  });
  roundTrip(1);
  EXPECT_EQ(server_.log().frames.size(), 1u);
}

using TimeReplyTest = MessageServiceTest;

TEST_F(TimeReplyTest, TimesReadAsALeadingNumberOrZeroAndEachReplyTravelsBack) {
  std::vector<json> replies = {
      {{"data", {{"time", "1234.5"}}}}, {{"data", {{"time", 1234.5}}}}, json::object()};
  for (json odd : {json(" 12.5xyz"), json("abc"), json(true), json::array({5}), json(), json(-7)})
    replies.push_back({{"data", {{"time", odd}}}});
  std::atomic<size_t> next{0};
  connect([&](const json& request) -> Replies {
    return {replyTo(request, replies.at(next++ % replies.size()))};
  });

  Recorded<double> times;
  for (size_t i = 0; i < replies.size(); ++i) {
    onLoop([&] { service_->requestTime([&](double time) { times.add(time); }); });
    ASSERT_TRUE(waitUntil([&] { return times.size() == i + 1; }));
  }
  EXPECT_EQ(times.values(), (std::vector<double>{1234.5, 1234.5, 0, 12.5, 0, 0, 0, 0, -7}));

  // From the second request on, each carries a record of the previous reply.
  const auto requests = receivedRequests();
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
  EXPECT_EQ(speedStatuses_->values(), (std::vector<std::string>{"hight", "hight"}));
  EXPECT_EQ(onLoop([&] { return service_->speed(); }), TLRSpeedHight);
  EXPECT_EQ(onLoop([&] { return service_->delayLessThenOneSecCount(); }), 6u);
}

TEST_F(SpeedStatusTest, OnlyASlowFingerprintReplyPostsLowAndEndsTheFastRun) {
  connect([](const json& request) -> Replies {
    const bool slow = request["type"] == 4 || request["data"]["mode"] == 9;
    return {replyTo(request, {}, slow ? 1100ms : 0ms)};
  });
  roundTrip(1);
  roundTrip(2);
  roundTrip(9);  // slow, but not a fingerprint: changes nothing
  EXPECT_TRUE(speedStatuses_->values().empty());
  EXPECT_EQ(onLoop([&] { return service_->speed(); }), TLRSpeedHight);
  EXPECT_EQ(onLoop([&] { return service_->delayLessThenOneSecCount(); }), 2u);

  std::atomic<bool> added{false};
  onLoop([&] { service_->addFingerprint("AAAA", 1, 2, [&] { added = true; }); });
  ASSERT_TRUE(waitUntil([&] { return added.load(); }));
  EXPECT_EQ(speedStatuses_->values(), (std::vector<std::string>{"low"}));
  EXPECT_EQ(onLoop([&] { return service_->speed(); }), TLRSpeedLow);
  EXPECT_EQ(onLoop([&] { return service_->delayLessThenOneSecCount(); }), 0u);
}

TEST_F(SpeedStatusTest, AFingerprintReplyAfterThreeSecondsPostsInvalidConnection) {
  connect([](const json& request) -> Replies { return {replyTo(request, {}, 3050ms)}; });
  std::atomic<bool> added{false};
  onLoop([&] { service_->addFingerprint("AAAA", 1, 2, [&] { added = true; }); });
  ASSERT_TRUE(waitUntil([&] { return added.load(); }, 10s));
  EXPECT_EQ(speedStatuses_->values(), (std::vector<std::string>{"invalidConnection"}));
  EXPECT_EQ(onLoop([&] { return service_->speed(); }), TLRSpeedInvalidConnection);
}

using PushTest = MessageServiceTest;

TEST_F(PushTest, NearbyPushesReachTheDelegateAndCountAsSlowUntilAFastReply) {
  connect();
  server_.pushText(R"({"type":102,"data":{"clientId":"c1","payload":{"name":"x"}}})");
  server_.pushText(R"({"type":102,"data":{"clientId":"c2"}})");
  server_.pushText(R"({"type":103,"data":{"clientId":"c1"}})");
  ASSERT_TRUE(waitUntil([&] { return delegate_->removed.size() == 1; }));

  const auto added = delegate_->added.values();
  ASSERT_EQ(added.size(), 2u);
  EXPECT_EQ(added[0].first, "c1");
  EXPECT_EQ(added[0].second, json({{"name", "x"}}));
  EXPECT_EQ(added[1].first, "c2");
  EXPECT_TRUE(added[1].second.is_null());
  EXPECT_EQ(delegate_->removed.values(), (std::vector<std::string>{"c1"}));

  // A push matches no request, so it counts as a reply slower than 25 s.
  EXPECT_EQ(onLoop([&] { return service_->badDelaysCount(); }), 3u);
  roundTrip();
  EXPECT_EQ(onLoop([&] { return service_->badDelaysCount(); }), 0u);
}

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

using MalformedFrameTest = MessageServiceTest;

TEST_F(MalformedFrameTest, NothingTheServerSendsDisturbsTheNextGoodReply) {
  const std::vector<std::string> garbage = {
      "",
      "{\"requestId\":",
      "[{\"requestId\":0}]",
      R"({"requestId":"0"})",
      R"({"requestId":1e300})",
      R"({"requestId":-1})",
      R"({"requestId":null,"data":5})",
      R"({"type":"102","data":{"clientId":"x"}})",
      R"({"type":102,"data":5})",
      R"({"type":102,"data":[{"clientId":"x"}]})",
      R"({"type":102,"data":{"clientId":5,"payload":{}}})",
      R"({"type":103,"data":{"clientId":{"id":"x"}}})",
      R"({"type":103})",
      R"({"type":999,"data":{"clientId":"x"}})",
      "{\"type\":102,\"data\":{\"clientId\":\"x\"}" + std::string(50000, '[') +
          std::string(50000, ']') + "}",
      std::string(100000, '['),
  };
  // Malformed replies to real requests: bad "data" of every kind.
  const std::vector<json> badNearby = {{{"data", 5}},
                                       {{"data", {{"nearby", "not a list"}}}},
                                       {{"data", {{"nearby", 3}}}},
                                       {{"data", json::array()}},
                                       json::object()};
  std::atomic<size_t> nearbyReplies{0};
  connect([&](const json& request) -> Replies {
    if (request["type"] == 2) return {replyTo(request, badNearby.at(nearbyReplies++ % 5))};
    if (request["type"] == 3) return {replyTo(request, {{"data", "1234"}})};
    return {replyTo(request)};
  });

  for (const auto& frame : garbage)
    server_.pushText(frame);
  ASSERT_TRUE(waitUntil([&] { return allMessages() == garbage.size(); }));
  EXPECT_EQ(delegate_->added.size() + delegate_->removed.size(), 0u);

  Recorded<json> nearby;
  Recorded<double> times;
  onLoop([&] {
    for (size_t i = 0; i < badNearby.size(); ++i)
      service_->requestAllNearbyWithCallback([&](const json& list) { nearby.add(list); });
    service_->requestTime([&](double time) { times.add(time); });
  });
  ASSERT_TRUE(waitUntil([&] { return nearby.size() == badNearby.size() && times.size() == 1; }));
  for (const auto& list : nearby.values())
    EXPECT_TRUE(list.is_null()) << list;
  EXPECT_EQ(times.values()[0], 0.0);

  // Still in step: a good reply and a good push are handled as usual.
  roundTrip();
  server_.pushText(R"({"type":102,"data":{"clientId":"ok","payload":"p"}})");
  ASSERT_TRUE(waitUntil([&] { return delegate_->added.size() == 1; }));
  EXPECT_EQ(delegate_->added.values()[0].first, "ok");
  EXPECT_TRUE(onLoop([&] { return service_->sendedMessages().empty(); }));
  EXPECT_TRUE(onLoop([&] { return service_->isConnectionOpened(); }));
}

}  // namespace
}  // namespace tellora::testing
