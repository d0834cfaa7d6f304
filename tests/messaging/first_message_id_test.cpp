// Its own binary: the id counter is process-wide and never reset, so only a
// fresh process can show where it starts.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "messaging/client_messages.h"

namespace tellora {
namespace {

TEST(FirstMessageIdTest, TheFirstMessageSerialisedInAProcessHasIdZero) {
  TLRCLMessageSetMode createdFirst(3, {});
  TLRCLMessageGetTime serialisedFirst([](double) {});
  const auto sent = nlohmann::json::parse(*serialisedFirst.messageData());
  EXPECT_EQ(sent["id"], 0);
  EXPECT_EQ(nlohmann::json::parse(*createdFirst.messageData())["id"], 1);
  EXPECT_EQ(nlohmann::json::parse(*serialisedFirst.messageData())["id"], 0);
}

}  // namespace
}  // namespace tellora
