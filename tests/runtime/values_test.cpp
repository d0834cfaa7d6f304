// The small shared value types: client identity, errors and the clock.
#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <memory>
#include <string>

#include "runtime/clock.h"
#include "tellora/client.h"
#include "tellora/error.h"

namespace tellora {
namespace {

TEST(TLRClientTest, EqualityIsIdentityOfTheIdInstance) {
  const auto id = std::make_shared<const std::string>("client-7");
  const TLRClient reported(id, "hello");
  EXPECT_EQ(reported, TLRClient(id, std::nullopt));  // payload plays no part

  const TLRClient fromEqualCharacters(std::make_shared<const std::string>("client-7"), "hello");
  const TLRClient fromPlainString(std::string("client-7"), "hello");
  EXPECT_FALSE(reported == fromEqualCharacters);
  EXPECT_FALSE(fromPlainString == TLRClient(std::string("client-7"), "hello"));
  EXPECT_EQ(fromEqualCharacters.clientID(), reported.clientID());

  // Without an id instance: an empty id, equal to nothing.
  const TLRClient nameless(std::shared_ptr<const std::string>(), "p");
  EXPECT_EQ(nameless.clientID(), "");
  EXPECT_FALSE(nameless == TLRClient(std::shared_ptr<const std::string>(), "p"));
}

TEST(TLRErrorTest, DescriptionNamesTheSdkDomainAndEveryKindOfValue) {
  EXPECT_EQ(TLRError::make(101, {{"message", std::string("Microphone is disabled")}}).description(),
            "Error Domain=com.tellora.quillmark.ErrorDomain Code=101 "
            "UserInfo={message=Microphone is disabled}");
  EXPECT_EQ(TLRError::make(3002).description(),
            "Error Domain=com.tellora.quillmark.ErrorDomain Code=3002");
  EXPECT_EQ((TLRError{"other", -1, {}}.description()), "Error Domain=other Code=-1");
  const auto error = TLRError::make(801, {{"b", true},
                                          {"d", 0.5},
                                          {"i", int64_t{-42}},
                                          {"n", std::monostate{}},
                                          {"s", std::string("x")}});
  EXPECT_EQ(error.description(),
            "Error Domain=com.tellora.quillmark.ErrorDomain Code=801 "
            "UserInfo={b=1, d=0.5, i=-42, n=(null), s=x}");
}

TEST(ClockTest, SystemClockTracksRealTime) {
  const double before = static_cast<double>(std::time(nullptr));
  const double wall = wallClockSeconds();
  EXPECT_GE(wall, before);
  EXPECT_LT(wall, before + 2);
  bool finerThanMilliseconds = false;
  for (int i = 0; i < 10 && !finerThanMilliseconds; ++i) {
    const double milliseconds = wallClockSeconds() * 1e3;
    finerThanMilliseconds = milliseconds != std::floor(milliseconds);
  }
  EXPECT_TRUE(finerThanMilliseconds);

  const double first = monotonicTicks();
  const double second = monotonicTicks();
  EXPECT_GT(first, 0);
  EXPECT_GE(second, first);
}

}  // namespace
}  // namespace tellora
