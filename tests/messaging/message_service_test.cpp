#include "messaging/message_service.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "tests/messaging/service_fixture.h"

namespace tellora::testing {
namespace {

using nlohmann::json;

// Thread-safe list of what callbacks received.
template <class T>
class Collected {
 public:
  void add(T value) {
    std::lock_guard lock(mutex_);
    values_.push_back(std::move(value));
  }
  std::vector<T> values() const {
    std::lock_guard lock(mutex_);
    return values_;
  }
  size_t size() const { return values().size(); }

 private:
  mutable std::mutex mutex_;
  std::vector<T> values_;
};

// A plain server: every request answered at once with its id.
std::vector<WsReply> answerAtOnce(const json& request) {
  return {replyTo(request)};
}

class RequestReplyTest : public MessageServiceTest {};

TEST_F(RequestReplyTest, RepliesReachTheCallbackOfTheirRequestByType) {
  answerWith([](const json& request) -> std::vector<WsReply> {
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
  createService();
  openAndWait();

  std::atomic<int> done{0};
  Collected<json> nearby;
  Collected<double> times;
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
  for (const auto& frame : server_.log().frames)
    EXPECT_TRUE(frame.binary);
}

TEST_F(RequestReplyTest, RepliesOutOfOrderFindTheirOwnRequests) {
  answerWith([](const json& request) -> std::vector<WsReply> {
    // The first request is answered last.
    const auto delay = request["data"]["mode"] == 1 ? 150ms : 0ms;
    return {replyTo(request, {}, delay)};
  });
  createService();
  openAndWait();

  Collected<int> order;
  onLoop([&] {
    service_->establishClientMode(1, [&] { order.add(1); });
    service_->establishClientMode(2, [&] { order.add(2); });
  });
  ASSERT_TRUE(waitUntil([&] { return order.size() == 2; }));
  EXPECT_EQ(order.values(), (std::vector<int>{2, 1}));
}

TEST_F(RequestReplyTest, ASecondReplyWithTheSameIdFindsNothing) {
  answerWith([](const json& request) -> std::vector<WsReply> {
    return {replyTo(request), replyTo(request, {}, 20ms)};
  });
  createService();
  openAndWait();

  std::atomic<int> calls{0};
  onLoop([&] { service_->establishClientMode(3, [&] { ++calls; }); });
  ASSERT_TRUE(waitUntil([&] { return onLoop([&] { return service_->allMessagesCount(); }) == 2; }));
  EXPECT_EQ(calls, 1);
  // Matched nothing, so measured from 1970: a very slow reply.
  EXPECT_EQ(onLoop([&] { return service_->badDelaysCount(); }), 1u);
}

TEST_F(RequestReplyTest, NothingIsSentOrKeptWhileDisconnected) {
  answerWith(answerAtOnce);
  createService();
  std::atomic<int> calls{0};
  onLoop([&] {
    service_->requestTime([&](double) { ++calls; });
    service_->addFingerprint("AAAA", 1, 2, [&] { ++calls; });
    service_->requestAllNearbyWithCallback([&](const json&) { ++calls; });
    EXPECT_TRUE(service_->sendedMessages().empty());
  });
  EXPECT_EQ(server_.log().upgrades.size(), 0u);

  // Nor after a close.
  openAndWait();
  onLoop([&] { service_->closeConnection(); });
  ASSERT_TRUE(server_.waitForEndedConnections(1));
  onLoop([&] {
    service_->establishClientPayload(std::string("p"), [&] { ++calls; });
    EXPECT_TRUE(service_->sendedMessages().empty());
  });
  EXPECT_TRUE(server_.log().frames.empty());
  EXPECT_EQ(calls, 0);
}

TEST_F(RequestReplyTest, SetModeOpensAClosedConnectionAndSendsOnceOpen) {
  answerWith(answerAtOnce);
  createService();
  std::atomic<int> calls{0};
  onLoop([&] { service_->establishClientMode(3, [&] { ++calls; }); });
  ASSERT_TRUE(waitUntil([&] { return calls == 1; }));
  const auto requests = receivedRequests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0]["data"], json({{"mode", 3}}));
}

TEST_F(RequestReplyTest, AnUnwritableRequestIsNeitherSentNorKept) {
  answerWith(answerAtOnce);
  createService();
  openAndWait();
  onLoop([&] {
    service_->addFingerprint("\xc3\x28", 1, 2, {});
    EXPECT_TRUE(service_->sendedMessages().empty());
  });
  std::atomic<int> calls{0};
  onLoop([&] { service_->establishClientMode(1, [&] { ++calls; }); });
  ASSERT_TRUE(waitUntil([&] { return calls == 1; }));
  EXPECT_EQ(server_.log().frames.size(), 1u);
}

TEST_F(RequestReplyTest, DebugLinesAppearOnlyWithTheDebugSwitch) {
  answerWith(answerAtOnce);
  createService();
  openAndWait();
  std::atomic<int> calls{0};
  onLoop([&] { service_->addFingerprint("QUJD", 12.5, 14.25, [&] { ++calls; }); });
  ASSERT_TRUE(waitUntil([&] { return calls == 1; }));
  EXPECT_TRUE(logLines().empty());

  setDebug(true);
  onLoop([&] { service_->addFingerprint("QUJD", 12.5, 14.25, [&] { ++calls; }); });
  ASSERT_TRUE(waitUntil([&] { return calls == 2; }));
  EXPECT_EQ(countLogLines("initWithFingerprint: QUJD withStartTime: 12.500000  andEndTime: "
                          "14.250000"),
            1u);
  EXPECT_EQ(countLogLines("Send message - 4"), 1u);
  EXPECT_EQ(countLogLines("Ответ менее 1 сек"), 1u);
}

class TimeReplyTest : public MessageServiceTest {};

TEST_F(TimeReplyTest, TextNumberAndMissingTimesAndTheRecordSentBack) {
  const std::vector<json> replies = {
      {{"data", {{"time", "1234.5"}}}}, {{"data", {{"time", 1234.5}}}}, json::object()};
  std::atomic<size_t> next{0};
  answerWith([&](const json& request) -> std::vector<WsReply> {
    const size_t index = next++;
    return {replyTo(request, index < replies.size() ? replies[index] : json::object())};
  });
  createService();
  openAndWait();

  Collected<double> times;
  for (size_t i = 0; i < replies.size(); ++i) {
    onLoop([&] { service_->requestTime([&](double time) { times.add(time); }); });
    ASSERT_TRUE(waitUntil([&] { return times.size() == i + 1; }));
  }
  EXPECT_EQ(times.values(), (std::vector<double>{1234.5, 1234.5, 0.0}));

  const auto requests = receivedRequests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_FALSE(requests[0].contains("data"));
  auto echoed = [&](size_t i) {
    json reply = replies[i];
    reply["requestId"] = requests[i]["id"];
    return ">>>" + reply.dump() + "<<< ";
  };
  EXPECT_EQ(requests[1]["data"], json({{"d", echoed(0) + "[1234.5] [1234.500000] "}}));
  EXPECT_EQ(requests[2]["data"], json({{"d", echoed(1) + "[1234.5] [1234.500000] "}}));

  // The record of the missing time travels with the next request.
  onLoop([&] { service_->requestTime({}); });
  ASSERT_TRUE(server_.waitForFrames(4));
  EXPECT_EQ(receivedRequests()[3]["data"]["d"], echoed(2) + "[] [0.000000] ");
}

TEST_F(TimeReplyTest, OddTimeValuesReadAsALeadingNumberOrZero) {
  const std::vector<json> times = {" 12.5xyz", "abc", true, json::array({5}), nullptr, -7};
  std::atomic<size_t> next{0};
  answerWith([&](const json& request) -> std::vector<WsReply> {
    const size_t index = next++;
    return {replyTo(request, {{"data", {{"time", times.at(index % times.size())}}}})};
  });
  createService();
  openAndWait();

  Collected<double> received;
  for (size_t i = 0; i < times.size(); ++i) {
    onLoop([&] { service_->requestTime([&](double time) { received.add(time); }); });
    ASSERT_TRUE(waitUntil([&] { return received.size() == i + 1; }));
  }
  EXPECT_EQ(received.values(), (std::vector<double>{12.5, 0, 0, 0, 0, -7}));
}

class SpeedStatusTest : public MessageServiceTest {};

TEST_F(SpeedStatusTest, TheFifthFastReplyInARowAndEveryFurtherOnePostHight) {
  answerWith(answerAtOnce);
  createService();
  openAndWait();

  std::atomic<int> calls{0};
  for (int i = 1; i <= 6; ++i) {
    onLoop([&] { service_->establishClientMode(i, [&] { ++calls; }); });
    ASSERT_TRUE(waitUntil([&] { return calls == i; }));
    EXPECT_EQ(speedStatuses().size(), i < 5 ? 0u : size_t(i - 4)) << "reply " << i;
  }
  EXPECT_EQ(speedStatuses(), (std::vector<std::string>{"hight", "hight"}));
  EXPECT_EQ(onLoop([&] { return service_->speed(); }), TLRSpeedHight);
  EXPECT_EQ(onLoop([&] { return service_->delayLessThenOneSecCount(); }), 6u);
}

TEST_F(SpeedStatusTest, ASlowFingerprintReplyPostsLowAndEndsTheFastRun) {
  answerWith([](const json& request) -> std::vector<WsReply> {
    return {replyTo(request, {}, request["type"] == 4 ? 1100ms : 0ms)};
  });
  createService();
  openAndWait();
  setDebug(true);

  std::atomic<int> calls{0};
  onLoop([&] {
    for (int i = 0; i < 3; ++i)
      service_->establishClientMode(i, [&] { ++calls; });
  });
  ASSERT_TRUE(waitUntil([&] { return calls == 3; }));
  EXPECT_EQ(onLoop([&] { return service_->delayLessThenOneSecCount(); }), 3u);

  onLoop([&] { service_->addFingerprint("AAAA", 1, 2, [&] { ++calls; }); });
  ASSERT_TRUE(waitUntil([&] { return calls == 4; }));
  EXPECT_EQ(speedStatuses(), (std::vector<std::string>{"low"}));
  EXPECT_EQ(onLoop([&] { return service_->speed(); }), TLRSpeedLow);
  EXPECT_EQ(onLoop([&] { return service_->delayLessThenOneSecCount(); }), 0u);
  EXPECT_EQ(countLogLinesStartingWith("Медленно 1."), 1u);
  EXPECT_EQ(countLogLines("send message with speedStatus low"), 1u);
}

TEST_F(SpeedStatusTest, ASlowReplyOfAnotherTypeChangesNothing) {
  answerWith([](const json& request) -> std::vector<WsReply> {
    return {replyTo(request, {}, request["data"]["mode"] == 9 ? 1100ms : 0ms)};
  });
  createService();
  openAndWait();

  std::atomic<int> calls{0};
  onLoop([&] {
    service_->establishClientMode(1, [&] { ++calls; });
    service_->establishClientMode(2, [&] { ++calls; });
  });
  ASSERT_TRUE(waitUntil([&] { return calls == 2; }));
  onLoop([&] { service_->establishClientMode(9, [&] { ++calls; }); });
  ASSERT_TRUE(waitUntil([&] { return calls == 3; }));
  EXPECT_TRUE(speedStatuses().empty());
  EXPECT_EQ(onLoop([&] { return service_->speed(); }), TLRSpeedHight);
  EXPECT_EQ(onLoop([&] { return service_->delayLessThenOneSecCount(); }), 2u);
}

TEST_F(SpeedStatusTest, AFingerprintReplyAfterThreeSecondsPostsInvalidConnection) {
  answerWith(
      [](const json& request) -> std::vector<WsReply> { return {replyTo(request, {}, 3050ms)}; });
  createService();
  openAndWait();

  std::atomic<int> calls{0};
  onLoop([&] { service_->addFingerprint("AAAA", 1, 2, [&] { ++calls; }); });
  ASSERT_TRUE(waitUntil([&] { return calls == 1; }, 10s));
  EXPECT_EQ(speedStatuses(), (std::vector<std::string>{"invalidConnection"}));
  EXPECT_EQ(onLoop([&] { return service_->speed(); }), TLRSpeedInvalidConnection);
}

class PushTest : public MessageServiceTest {};

TEST_F(PushTest, NearbyPushesReachTheDelegate) {
  answerWith(answerAtOnce);
  createService();
  openAndWait();

  server_.pushText(R"({"type":102,"data":{"clientId":"c1","payload":{"name":"x"}}})");
  server_.pushText(R"({"type":102,"data":{"clientId":"c2"}})");
  server_.pushText(R"({"type":103,"data":{"clientId":"c1"}})");
  ASSERT_TRUE(waitUntil([&] { return delegate_->removed().size() == 1; }));

  const auto added = delegate_->added();
  ASSERT_EQ(added.size(), 2u);
  EXPECT_EQ(added[0].first, "c1");
  EXPECT_EQ(added[0].second, json({{"name", "x"}}));
  EXPECT_EQ(added[1].first, "c2");
  EXPECT_TRUE(added[1].second.is_null());
  EXPECT_EQ(delegate_->removed(), (std::vector<std::string>{"c1"}));
}

TEST_F(PushTest, PushesCountAsSlowUntilAReplyWithinTwentyFiveSeconds) {
  answerWith(answerAtOnce);
  createService();
  openAndWait();

  server_.pushText(R"({"type":102,"data":{"clientId":"c1"}})");
  server_.pushText(R"({"type":103,"data":{"clientId":"c1"}})");
  ASSERT_TRUE(waitUntil([&] { return delegate_->removed().size() == 1; }));
  EXPECT_EQ(onLoop([&] { return service_->badDelaysCount(); }), 2u);

  std::atomic<int> calls{0};
  onLoop([&] { service_->establishClientMode(3, [&] { ++calls; }); });
  ASSERT_TRUE(waitUntil([&] { return calls == 1; }));
  EXPECT_EQ(onLoop([&] { return service_->badDelaysCount(); }), 0u);
}

TEST_F(PushTest, AReplyThatAlsoCarriesAPushTypeIsBoth) {
  answerWith([](const json& request) -> std::vector<WsReply> {
    return {replyTo(request, {{"type", 103}, {"data", {{"clientId", "gone"}}}})};
  });
  createService();
  openAndWait();
  std::atomic<int> calls{0};
  onLoop([&] { service_->establishClientMode(3, [&] { ++calls; }); });
  ASSERT_TRUE(waitUntil([&] { return delegate_->removed().size() == 1; }));
  EXPECT_EQ(calls, 1);
}

TEST_F(PushTest, PushesWithoutADelegateAreDropped) {
  answerWith(answerAtOnce);
  createService();
  openAndWait();
  delegate_.reset();  // the service held it weakly
  server_.pushText(R"({"type":102,"data":{"clientId":"c1"}})");
  ASSERT_TRUE(waitUntil([&] { return onLoop([&] { return service_->allMessagesCount(); }) == 1; }));
}

class MalformedFrameTest : public MessageServiceTest {};

TEST_F(MalformedFrameTest, NothingTheServerSendsDisturbsTheNextGoodReply) {
  const std::vector<std::string> garbage = {
      "",
      "not json at all",
      "{\"requestId\":",
      "[1,2,3]",
      "[{\"requestId\":0}]",
      "42",
      "\"a string\"",
      "null",
      R"({"requestId":"0"})",
      R"({"requestId":0.0})",
      R"({"requestId":1e300})",
      R"({"requestId":18446744073709551615})",
      R"({"requestId":-1})",
      R"({"requestId":null,"data":5})",
      R"({"type":"102","data":{"clientId":"x"}})",
      R"({"type":102.0,"data":{"clientId":"x"}})",
      R"({"type":102,"data":5})",
      R"({"type":102,"data":[{"clientId":"x"}]})",
      R"({"type":102,"data":{"clientId":5,"payload":{}}})",
      R"({"type":102,"data":{"clientId":null}})",
      R"({"type":103,"data":{"clientId":{"id":"x"}}})",
      R"({"type":103})",
      R"({"type":999,"data":{"clientId":"x"}})",
      R"({"type":-102})",
      "{\"type\":102,\"data\":{\"clientId\":\"x\"}" + std::string(50000, '[') +
          std::string(50000, ']') + "}",
      std::string(100000, '['),
      std::string(100000, '{'),
  };
  // Malformed replies to real requests: bad "data" of every kind.
  std::atomic<int> nearbyReplies{0};
  answerWith([&](const json& request) -> std::vector<WsReply> {
    if (request["type"] == 2) {
      static const std::vector<json> bad = {{{"data", 5}},
                                            {{"data", {{"nearby", "not a list"}}}},
                                            {{"data", {{"nearby", 3}}}},
                                            {{"data", json::array()}},
                                            json::object()};
      return {replyTo(request, bad.at(nearbyReplies++ % bad.size()))};
    }
    if (request["type"] == 3) return {replyTo(request, {{"data", "1234"}})};
    return {replyTo(request)};
  });
  createService();
  openAndWait();

  for (const auto& frame : garbage)
    server_.pushText(frame);
  ASSERT_TRUE(waitUntil(
      [&] { return onLoop([&] { return service_->allMessagesCount(); }) == garbage.size(); }));
  EXPECT_TRUE(delegate_->added().empty());
  EXPECT_TRUE(delegate_->removed().empty());

  Collected<json> nearby;
  Collected<double> times;
  onLoop([&] {
    for (int i = 0; i < 5; ++i) {
      service_->requestAllNearbyWithCallback([&](const json& list) { nearby.add(list); });
    }
    service_->requestTime([&](double time) { times.add(time); });
  });
  ASSERT_TRUE(waitUntil([&] { return nearby.size() == 5 && times.size() == 1; }));
  for (const auto& list : nearby.values())
    EXPECT_TRUE(list.is_null()) << list;
  EXPECT_EQ(times.values()[0], 0.0);

  // Still in step: a good reply and a good push are handled as usual.
  std::atomic<int> calls{0};
  onLoop([&] { service_->establishClientMode(3, [&] { ++calls; }); });
  server_.pushText(R"({"type":102,"data":{"clientId":"ok","payload":"p"}})");
  ASSERT_TRUE(waitUntil([&] { return calls == 1 && delegate_->added().size() == 1; }));
  EXPECT_EQ(delegate_->added()[0].first, "ok");
  EXPECT_TRUE(onLoop([&] { return service_->sendedMessages().empty(); }));
  EXPECT_TRUE(onLoop([&] { return service_->isConnectionOpened(); }));
}

TEST_F(MalformedFrameTest, TextThatIsNotUtf8IsReadAsAnEmptyObject) {
  createService();
  onLoop([&] {
    service_->didReceiveMessage(std::string("{\"type\":102,\"data\":{\"clientId\":\"\xff\"}}"));
    service_->didReceiveMessage(std::string("\xc3\x28\x00\xfe", 4));
  });
  EXPECT_TRUE(delegate_->added().empty());
  EXPECT_EQ(onLoop([&] { return service_->allMessagesCount(); }), 2u);
}

}  // namespace
}  // namespace tellora::testing
