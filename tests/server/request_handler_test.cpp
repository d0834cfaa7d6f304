// Request handling without a network: every request type's reply and effect,
// and malformed frames of every kind ignored without a reply.
#include "server/request_handler.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "fingerprint/part_fingerprint.h"

namespace tellora::server {
namespace {

using nlohmann::json;

constexpr double kNowMs = 1'700'000'000'123.5;

class RequestHandling : public ::testing::Test {
 protected:
  HandledRequest handle(const std::string& frame) {
    return handleRequest(frame, {kNowMs, [] { return json::array(); }});
  }
  static json reply(const HandledRequest& handled) {
    EXPECT_TRUE(handled.reply.has_value());
    return handled.reply ? json::parse(*handled.reply) : json();
  }
};

TEST_F(RequestHandling, SetPayloadTakesTheBareDataValue) {
  auto handled = handle(R"({"type":1,"id":0,"data":"alice"})");
  EXPECT_EQ(reply(handled)["requestId"], 0);
  EXPECT_EQ(std::get<PayloadChange>(*handled.change).payload, "alice");

  handled = handle(R"({"type":1,"id":1,"data":{"name":"alice","age":[1,2]}})");
  EXPECT_EQ(std::get<PayloadChange>(*handled.change).payload["age"][1], 2);

  // A host without a payload sends no "data": the payload becomes null.
  handled = handle(R"({"type":1,"id":2})");
  EXPECT_TRUE(std::get<PayloadChange>(*handled.change).payload.is_null());
}

TEST_F(RequestHandling, GetTimeRepliesWithTheServerClockAndIgnoresTheEchoedRecord) {
  for (const char* frame : {R"({"type":3,"id":7})", R"({"type":3,"id":7,"data":{"d":">>>x<<< "}})",
                            R"({"type":3,"id":7,"data":[1]})"}) {
    const json r = reply(handle(frame));
    EXPECT_EQ(r["requestId"], 7) << frame;
    EXPECT_DOUBLE_EQ(r["data"]["time"].get<double>(), kNowMs) << frame;
  }
}

TEST_F(RequestHandling, AddFingerprintDecodesTheWordsLeastSignificantByteFirst) {
  const std::vector<uint32_t> words = {0x04030201u, 0xDEADBEEFu, 0u, 0xFFFFFFFFu};
  const json frame = {
      {"type", 4},
      {"id", 17},
      {"data",
       {{"fp", fingerprintFromWords(words)}, {"stime", kNowMs - 600.25}, {"etime", -20.5}}}};
  const auto handled = handle(frame.dump());
  EXPECT_EQ(reply(handled), json::parse(R"({"requestId":17})"));
  const auto& added = std::get<FingerprintAdded>(*handled.change);
  EXPECT_EQ(added.words, words);
  // "etime" is the client's clock offset, not an end time: only stime counts.
  EXPECT_DOUBLE_EQ(added.stimeMs, kNowMs - 600.25);
  const auto empty =
      handle(json({{"type", 4}, {"id", 1}, {"data", {{"fp", ""}, {"stime", kNowMs}}}}).dump());
  EXPECT_TRUE(empty.reply);
  EXPECT_TRUE(std::get<FingerprintAdded>(*empty.change).words.empty());
}

TEST_F(RequestHandling, FingerprintsFarFromTheServerClockAreAcknowledgedButNotMatched) {
  auto at = [&](double stime) {
    return handle(
        json({{"type", 4}, {"id", 5}, {"data", {{"fp", "AQIDBA=="}, {"stime", stime}}}}).dump());
  };
  for (double stime : {kNowMs + kMaxFingerprintLeadMs + 1, kNowMs - kMaxFingerprintLagMs - 1, 0.0,
                       -1e300, 1e300}) {
    const auto handled = at(stime);
    EXPECT_EQ(reply(handled)["requestId"], 5) << stime;
    EXPECT_FALSE(handled.change) << stime;
    EXPECT_EQ(handled.ignored, Ignored::outsideWindow) << stime;
  }
  for (double stime : {kNowMs + kMaxFingerprintLeadMs - 1, kNowMs - kMaxFingerprintLagMs + 1})
    EXPECT_TRUE(at(stime).change) << stime;
}

TEST_F(RequestHandling, LargeIdsAreEchoedExactly) {
  EXPECT_EQ(reply(handle(R"({"type":5,"id":9007199254740993})"))["requestId"].get<int64_t>(),
            9007199254740993LL);
  EXPECT_EQ(reply(handle(R"({"type":5,"id":-1})"))["requestId"], -1);
}

struct Malformed {
  const char* frame;
  Ignored why;
};

class MalformedFrames : public ::testing::TestWithParam<Malformed> {};

TEST_P(MalformedFrames, GetNoReplyAndChangeNothing) {
  const Malformed& m = GetParam();
  bool looked = false;
  const auto handled = handleRequest(m.frame, {0, [&] {
                                                 looked = true;
                                                 return json::array();
                                               }});
  EXPECT_FALSE(handled.reply) << m.frame;
  EXPECT_FALSE(handled.change) << m.frame;
  ASSERT_TRUE(handled.ignored) << m.frame;
  EXPECT_EQ(*handled.ignored, m.why) << m.frame;
  EXPECT_FALSE(looked);
}

INSTANTIATE_TEST_SUITE_P(
    RequestHandling, MalformedFrames,
    ::testing::Values(
        Malformed{"", Ignored::notJson}, Malformed{"{", Ignored::notJson},
        Malformed{"not json", Ignored::notJson}, Malformed{"\xff\xfe", Ignored::notJson},
        Malformed{R"({"type":0,"id":1,"data":{"mode":NaN}})", Ignored::notJson},
        Malformed{"[1,2]", Ignored::notARequest}, Malformed{"17", Ignored::notARequest},
        Malformed{R"({"type":2})", Ignored::notARequest},
        Malformed{R"({"id":4})", Ignored::notARequest},
        Malformed{R"({"type":"2","id":4})", Ignored::notARequest},
        Malformed{R"({"type":2,"id":"4"})", Ignored::notARequest},
        Malformed{R"({"type":2,"id":4.5})", Ignored::notARequest},
        Malformed{R"({"type":2,"id":1e400})", Ignored::notJson},  // overflows a double
        Malformed{R"({"type":2,"id":18446744073709551615})", Ignored::notARequest},
        Malformed{R"({"type":2,"id":184467440737095516150})", Ignored::notARequest},
        Malformed{R"({"type":6,"id":1})", Ignored::unknownType},
        Malformed{R"({"type":102,"id":1,"data":{"clientId":"x"}})", Ignored::unknownType},
        Malformed{R"({"type":-1,"id":1})", Ignored::unknownType},
        Malformed{R"({"type":0,"id":1})", Ignored::malformedData},
        Malformed{R"({"type":0,"id":1,"data":3})", Ignored::malformedData},
        Malformed{R"({"type":0,"id":1,"data":{"mode":"3"}})", Ignored::malformedData},
        Malformed{R"({"type":0,"id":1,"data":{"mode":3.5}})", Ignored::malformedData},
        Malformed{R"({"type":0,"id":1,"data":{"mode":1e300}})", Ignored::malformedData},
        Malformed{R"({"type":4,"id":1})", Ignored::malformedData},
        Malformed{R"({"type":4,"id":1,"data":{"fp":"AQIDBA==","etime":0}})",
                  Ignored::malformedData},
        Malformed{R"({"type":4,"id":1,"data":{"fp":"AQIDBA==","stime":"12"}})",
                  Ignored::malformedData},
        Malformed{R"({"type":4,"id":1,"data":{"fp":"AQIDBA==","stime":1e400}})", Ignored::notJson},
        Malformed{R"({"type":4,"id":1,"data":{"fp":7,"stime":0}})", Ignored::malformedData},
        Malformed{R"({"type":4,"id":1,"data":{"fp":"AQID","stime":0}})",  // 3 bytes
                  Ignored::malformedData},
        Malformed{R"({"type":4,"id":1,"data":{"fp":"AQ*DBA==","stime":0}})",
                  Ignored::malformedData},
        Malformed{R"({"type":4,"id":1,"data":["AQIDBA==",0]})", Ignored::malformedData}));

TEST(RequestLimits, DeepNestingIsRefusedBeforeParsing) {
  // Deep enough to overflow a recursive parser or serialiser many times over.
  const std::string deep = std::string(1 << 20, '[') + std::string(1 << 20, ']');
  EXPECT_EQ(handleRequest(deep, {}).ignored, Ignored::notJson);
  const std::string payload =
      R"({"type":1,"id":1,"data":)" + std::string(100, '[') + std::string(100, ']') + "}";
  EXPECT_EQ(handleRequest(payload, {}).ignored, Ignored::notJson);
  // Brackets inside strings are text, not nesting.
  const std::string text = R"({"type":1,"id":1,"data":")" + std::string(1000, '[') + R"(\""})";
  EXPECT_TRUE(handleRequest(text, {}).reply);
}

TEST(RequestLimits, OversizedPayloadsAndFingerprintsAreRefused) {
  const json bigPayload = {{"type", 1}, {"id", 1}, {"data", std::string(kMaxPayloadBytes, 'x')}};
  EXPECT_EQ(handleRequest(bigPayload.dump(), {}).ignored, Ignored::malformedData);

  const std::vector<uint32_t> most(kMaxFingerprintWords, 0x12345678u);
  const json largest = {
      {"type", 4}, {"id", 1}, {"data", {{"fp", fingerprintFromWords(most)}, {"stime", 0}}}};
  EXPECT_TRUE(handleRequest(largest.dump(), {}).change);
  const std::vector<uint32_t> tooMany(kMaxFingerprintWords + 1, 0x12345678u);
  const json tooLong = {
      {"type", 4}, {"id", 1}, {"data", {{"fp", fingerprintFromWords(tooMany)}, {"stime", 0}}}};
  EXPECT_EQ(handleRequest(tooLong.dump(), {}).ignored, Ignored::malformedData);
}

TEST(Pushes, AFoundClientWithoutPayloadIsPushedWithANullOne) {
  EXPECT_EQ(json::parse(foundPush("b", nullptr)),
            json::parse(R"({"type":102,"data":{"clientId":"b","payload":null}})"));
}

}  // namespace
}  // namespace tellora::server
