// The wire format both ways: what each request sends, and how whatever the
// server sends is read.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "messaging/client_message.h"
#include "messaging/client_messages.h"
#include "messaging/inbound_json.h"

namespace tellora {
namespace {

using nlohmann::json;

// Ids follow the order of first serialisation: first_message_id_test.cpp. The
// search's own requests (mode, payload, nearby, time) are checked as sent, in
// the facade's search test.
TEST(WireFormatTest, EachMessageSendsItsTypeAndOwnDataAsCompactJson) {
  TLRCLMessageSetMode mode(3, {});
  TLRCLMessageSetPayload emptyPayload(std::string(), {});
  TLRCLMessageAddFingerprint fingerprint("q83vAA==", 1700000000123.625, 1700000000620.125, {});
  TLRCLMessageSetEnvironment environment({55.75, 37.62}, {"aa:bb:cc:dd:ee:ff"}, {});
  const json fingerprintData = {
      {"fp", "q83vAA=="}, {"stime", 1700000000123.625}, {"etime", 1700000000620.125}};
  const std::vector<std::pair<TLRClientMessage*, json>> cases = {
      {&mode, {{"type", 0}, {"data", {{"mode", 3}}}}},
      {&emptyPayload, {{"type", 1}, {"data", ""}}},              // the bare text
      {&fingerprint, {{"type", 4}, {"data", fingerprintData}}},  // fractions kept
      {&environment, {{"type", 5}, {"data", json::object()}}},   // never the values given
  };
  for (const auto& [message, expected] : cases) {
    const std::string bytes = *message->messageData();
    EXPECT_EQ(bytes.find_first_of(" \n"), std::string::npos) << bytes;
    json sent = json::parse(bytes);
    EXPECT_TRUE(sent["id"].is_number_integer()) << bytes;
    sent.erase("id");
    EXPECT_EQ(sent, expected) << bytes;
  }
  EXPECT_TRUE(json::parse(*mode.messageData())["data"]["mode"].is_number_integer());
}

TEST(WireFormatTest, UnwritableDataGivesNoBytes) {
  TLRCLMessageAddFingerprint badText("\xc3\x28", 1, 2, {});
  TLRCLMessageAddFingerprint notANumber("fp", std::nan(""), 2, {});
  TLRCLMessageSetPayload infinite(json::array({1.0, std::numeric_limits<double>::infinity()}), {});
  for (TLRClientMessage* message : std::vector<TLRClientMessage*>{&badText, &notANumber, &infinite})
    EXPECT_FALSE(message->messageData().has_value());
}

TEST(ParseInboundObjectTest, AnythingButAnObjectReadsAsEmpty) {
  for (const std::string& text :
       {std::string(), std::string("not json"), std::string("[1,2]"), std::string("42"),
        std::string("\"text\""), std::string("null"), std::string("{\"a\":"),
        std::string("{} trailing"), std::string("{\"a\":\"\xff\"}"),
        std::string("{\"a\":1}\0x", 9)}) {
    const json parsed = parseInboundObject(text);
    EXPECT_TRUE(parsed.is_object() && parsed.empty()) << text;
  }
  EXPECT_EQ(parseInboundObject("{\"requestId\":7}")["requestId"], 7);
}

TEST(ParseInboundObjectTest, DeepNestingIsRefusedWithoutParsing) {
  const std::string deep = "{\"a\":" + std::string(200000, '[') + std::string(200000, ']') + "}";
  EXPECT_TRUE(parseInboundObject(deep).empty());

  std::string fine = "{\"a\":" + std::string(100, '[') + std::string(100, ']') + "}";
  EXPECT_FALSE(parseInboundObject(fine).empty());
  // Brackets inside strings do not count.
  const std::string quoted = "{\"a\":\"" + std::string(1000, '[') + "\\\"\"}";
  EXPECT_FALSE(parseInboundObject(quoted).empty());
}

TEST(IntegerMemberTest, OnlyIntegersThatFitCount) {
  const json object = json::parse(
      R"({"int":5,"neg":-3,"float":5.0,"text":"5","big":18446744073709551615,
          "max":9223372036854775807,"huge":1e30,"bool":true,"null":null})");
  EXPECT_EQ(integerMember(object, "int"), 5);
  EXPECT_EQ(integerMember(object, "neg"), -3);
  EXPECT_EQ(integerMember(object, "max"), INT64_MAX);
  for (const char* key : {"float", "text", "big", "huge", "bool", "null", "absent"}) {
    EXPECT_FALSE(integerMember(object, key).has_value()) << key;
  }
  EXPECT_FALSE(integerMember(json::array({1}), "int").has_value());
}

TEST(LenientDoubleTest, ReadsTheLeadingNumberZeroWithoutOneAndSaturates) {
  EXPECT_EQ(lenientDouble("1234.5"), 1234.5);
  EXPECT_EQ(lenientDouble("  -12.25abc"), -12.25);
  EXPECT_EQ(lenientDouble("+7"), 7.0);
  EXPECT_EQ(lenientDouble(".5"), 0.5);
  EXPECT_EQ(lenientDouble("5."), 5.0);
  EXPECT_EQ(lenientDouble("1e3x"), 1000.0);
  EXPECT_EQ(lenientDouble("1e"), 1.0);
  EXPECT_EQ(lenientDouble("2E-1"), 0.2);
  EXPECT_EQ(lenientDouble("-1e400"), -HUGE_VAL);
  const std::string tiny = "0." + std::string(400, '0') + "1";
  for (const std::string& zero : std::vector<std::string>{"", "abc", "-", ".", "e5", "nan", "inf",
                                                          "0x10", " ", "1e-400", tiny})
    EXPECT_EQ(lenientDouble(zero), 0.0) << zero;
  for (const std::string& huge :
       std::vector<std::string>{"1e400", std::string(400, '9'), "1e99999999999999999999"})
    EXPECT_EQ(lenientDouble(huge), HUGE_VAL) << huge;
}

}  // namespace
}  // namespace tellora
