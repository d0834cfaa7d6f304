#include "messaging/client_message.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

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

TEST(MessageIdTest, IdsFollowTheOrderOfFirstSerialisationAndStayPut) {
  TLRCLMessageSetMode mode(3, {});
  TLRCLMessageGetTime time([](double) {});
  TLRCLMessageGetAllNearby nearby([](const json&) {});
  EXPECT_FALSE(mode.hasMessageID());

  // Created mode, time, nearby; serialised nearby, mode, time.
  const int64_t first = wire(nearby)["id"];
  const std::string modeBytes = *mode.messageData();
  EXPECT_EQ(json::parse(modeBytes)["id"], first + 1);
  EXPECT_EQ(wire(time)["id"], first + 2);
  EXPECT_EQ(*mode.messageData(), modeBytes);
  EXPECT_EQ(mode.messageID(), first + 1);
}

TEST(MessageIdTest, AFailedSerialisationStillUsesUpAnId) {
  TLRClientMessage broken(TLRMessageTypeSetPayload, std::monostate{});
  broken.setData(std::string("\xff\xfe"));
  EXPECT_FALSE(broken.messageData().has_value());
  ASSERT_TRUE(broken.hasMessageID());

  TLRCLMessageGetAllNearby next([](const json&) {});
  EXPECT_EQ(wire(next)["id"], broken.messageID() + 1);
}

TEST(WireFormatTest, EachMessageSendsItsTypeAndOwnDataAsCompactJson) {
  TLRCLMessageSetMode mode(3, {});
  TLRCLMessageSetPayload payload(std::string("hello{\"x\":1}"), {});
  TLRCLMessageSetPayload emptyPayload(std::string(), {});
  TLRCLMessageGetAllNearby nearby([](const json&) {});
  TLRCLMessageGetTime time([](double) {});
  TLRCLMessageAddFingerprint fingerprint("q83vAA==", 1700000000123.625, 1700000000620.125, {});
  TLRCLMessageSetEnvironment environment({55.75, 37.62}, {"aa:bb:cc:dd:ee:ff"}, {});
  const json fingerprintData = {
      {"fp", "q83vAA=="}, {"stime", 1700000000123.625}, {"etime", 1700000000620.125}};
  const std::vector<std::pair<TLRClientMessage*, json>> cases = {
      {&mode, {{"type", 0}, {"data", {{"mode", 3}}}}},
      {&payload, {{"type", 1}, {"data", "hello{\"x\":1}"}}},  // the bare text
      {&emptyPayload, {{"type", 1}, {"data", ""}}},
      {&nearby, {{"type", 2}}},
      {&time, {{"type", 3}}},
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
  EXPECT_TRUE(wire(mode)["data"]["mode"].is_number_integer());
}

TEST(WireFormatTest, UnwritableDataGivesNoBytes) {
  TLRCLMessageAddFingerprint badText("\xc3\x28", 1, 2, {});
  TLRCLMessageAddFingerprint notANumber("fp", std::nan(""), 2, {});
  TLRCLMessageSetPayload infinite(json::array({1.0, std::numeric_limits<double>::infinity()}), {});
  EXPECT_FALSE(badText.messageData().has_value());
  EXPECT_FALSE(notANumber.messageData().has_value());
  EXPECT_FALSE(infinite.messageData().has_value());
}

}  // namespace
}  // namespace tellora
