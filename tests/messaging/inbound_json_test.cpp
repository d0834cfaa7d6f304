#include "messaging/inbound_json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace tellora {
namespace {

using nlohmann::json;

TEST(ParseInboundObjectTest, AnythingButAnObjectReadsAsEmpty) {
  const std::vector<std::string> texts = {"",
                                          "not json",
                                          "[1,2]",
                                          "42",
                                          "\"text\"",
                                          "null",
                                          "{\"a\":",
                                          "{} trailing",
                                          std::string("{\"a\":\"\xff\"}"),
                                          std::string("{\"a\":1}\0x", 9)};
  for (const std::string& text : texts) {
    const json parsed = parseInboundObject(text);
    EXPECT_TRUE(parsed.is_object()) << text;
    EXPECT_TRUE(parsed.empty()) << text;
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
  EXPECT_EQ(lenientDouble("1700000000123.625"), 1700000000123.625);
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
