#include "messaging/client_message.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "messaging/client_messages.h"

namespace tellora {
namespace {

using nlohmann::json;

json wire(TLRClientMessage& message) {
  std::optional<std::string> bytes = message.messageData();
  EXPECT_TRUE(bytes.has_value());
  return bytes ? json::parse(*bytes) : json();
}

TEST(MessageIdTest, IdsFollowTheOrderOfFirstSerialisationAcrossTypes) {
  TLRCLMessageSetMode mode(3, {});
  TLRCLMessageGetTime time([](double) {});
  TLRCLMessageGetAllNearby nearby([](const json&) {});
  EXPECT_FALSE(mode.hasMessageID());

  // Created mode, time, nearby; serialised nearby, mode, time.
  const int64_t first = wire(nearby)["id"];
  EXPECT_EQ(wire(mode)["id"], first + 1);
  EXPECT_EQ(wire(time)["id"], first + 2);
}

TEST(MessageIdTest, SerialisingTwiceKeepsTheIdAndTheBytes) {
  TLRCLMessageAddFingerprint message("AAAA", 1.5, 2.5, {});
  const std::optional<std::string> once = message.messageData();
  const std::optional<std::string> twice = message.messageData();
  ASSERT_TRUE(once && twice);
  EXPECT_EQ(*once, *twice);
  EXPECT_EQ(json::parse(*once)["id"], message.messageID());
}

TEST(MessageIdTest, AFailedSerialisationStillUsesUpAnId) {
  TLRClientMessage broken(TLRMessageTypeSetPayload, std::monostate{});
  broken.setData(std::string("\xff\xfe"));
  EXPECT_FALSE(broken.messageData().has_value());
  ASSERT_TRUE(broken.hasMessageID());

  TLRCLMessageGetAllNearby next([](const json&) {});
  EXPECT_EQ(wire(next)["id"], broken.messageID() + 1);
}

class WireFormatTest : public ::testing::Test {};

TEST_F(WireFormatTest, OutputIsCompactJson) {
  TLRCLMessageSetMode message(1, {});
  const std::string bytes = *message.messageData();
  EXPECT_EQ(bytes.find(' '), std::string::npos);
  EXPECT_EQ(bytes.find('\n'), std::string::npos);
}

TEST_F(WireFormatTest, SetModeSendsTheModeAsAnInteger) {
  TLRCLMessageSetMode message(3, [] {});
  const json sent = wire(message);
  EXPECT_EQ(sent["type"], 0);
  EXPECT_EQ(sent["data"], json({{"mode", 3}}));
  EXPECT_TRUE(sent["data"]["mode"].is_number_integer());
}

TEST_F(WireFormatTest, PayloadTextIsTheBareDataValue) {
  TLRCLMessageSetPayload message(std::string("hello {\"x\"}"), [] {});
  const json sent = wire(message);
  EXPECT_EQ(sent["type"], 1);
  ASSERT_TRUE(sent["data"].is_string());
  EXPECT_EQ(sent["data"], "hello {\"x\"}");
}

TEST_F(WireFormatTest, EmptyPayloadTextIsStillSent) {
  TLRCLMessageSetPayload message(std::string(), [] {});
  const json sent = wire(message);
  ASSERT_TRUE(sent.contains("data"));
  EXPECT_EQ(sent["data"], "");
}

TEST_F(WireFormatTest, GetAllNearbyAndAFirstGetTimeHaveNoDataKey) {
  TLRCLMessageGetAllNearby nearby([](const json&) {});
  TLRCLMessageGetTime time([](double) {});
  const json nearbySent = wire(nearby);
  const json timeSent = wire(time);
  EXPECT_EQ(nearbySent["type"], 2);
  EXPECT_FALSE(nearbySent.contains("data"));
  EXPECT_EQ(timeSent["type"], 3);
  EXPECT_FALSE(timeSent.contains("data"));
  EXPECT_EQ(nearbySent.size(), 2u);
}

TEST_F(WireFormatTest, FingerprintKeepsTheFractionsOfItsTimes) {
  TLRCLMessageAddFingerprint message("q83vAA==", 1700000000123.625, 1700000000620.125, {});
  const json sent = wire(message);
  EXPECT_EQ(sent["type"], 4);
  EXPECT_EQ(sent["data"]["fp"], "q83vAA==");
  EXPECT_DOUBLE_EQ(sent["data"]["stime"].get<double>(), 1700000000123.625);
  EXPECT_DOUBLE_EQ(sent["data"]["etime"].get<double>(), 1700000000620.125);
  EXPECT_TRUE(sent["data"]["stime"].is_number_float());
}

TEST_F(WireFormatTest, EnvironmentAlwaysSendsAnEmptyObject) {
  TLRCLMessageSetEnvironment message({55.75, 37.62}, {"aa:bb:cc:dd:ee:ff", "00:11:22:33:44:55"},
                                     [] {});
  const json sent = wire(message);
  EXPECT_EQ(sent["type"], 5);
  ASSERT_TRUE(sent.contains("data"));
  EXPECT_EQ(sent["data"], json::object());
}

TEST_F(WireFormatTest, EnvironmentSettersFillDataOnceItExists) {
  TLRCLMessageSetEnvironment message({1, 2}, {"a"}, {});
  message.setLocation({55.5, 37.25});
  message.setMacAddress({"aa", "bb"});
  EXPECT_EQ(message.data(),
            json({{"geo", {{"lat", 55.5}, {"lng", 37.25}}}, {"wifi", {"aa", "bb"}}}));
}

TEST_F(WireFormatTest, TypedGettersStayEmpty) {
  TLRCLMessageSetMode mode(3, {});
  TLRCLMessageSetPayload payload(std::string("p"), {});
  TLRCLMessageAddFingerprint fingerprint("fp", 1.5, 2.5, {});
  TLRCLMessageSetEnvironment environment({55.5, 37.25}, {"aa"}, {});
  EXPECT_EQ(mode.clientMode(), 0);
  EXPECT_TRUE(payload.payload().is_null());
  EXPECT_EQ(fingerprint.fingerprint(), "");
  EXPECT_EQ(fingerprint.startTime(), 0.0);
  EXPECT_EQ(fingerprint.endTime(), 0.0);
  EXPECT_EQ(environment.location().latitude, 0.0);
  EXPECT_EQ(environment.location().longitude, 0.0);
  EXPECT_TRUE(environment.macAddress().empty());
}

TEST_F(WireFormatTest, UnwritableDataGivesNoBytes) {
  TLRCLMessageAddFingerprint badText("\xc3\x28", 1, 2, {});
  EXPECT_FALSE(badText.messageData().has_value());

  TLRCLMessageAddFingerprint notANumber("fp", std::nan(""), 2, {});
  EXPECT_FALSE(notANumber.messageData().has_value());

  TLRCLMessageSetPayload infinite(json::array({1.0, std::numeric_limits<double>::infinity()}), {});
  EXPECT_FALSE(infinite.messageData().has_value());
}

}  // namespace
}  // namespace tellora
