#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <string>
#include <thread>

#include "messaging/message_service.h"
#include "tests/messaging/service_fixture.h"

namespace tellora::testing {
namespace {

using nlohmann::json;

constexpr char kPush[] = R"({"type":102,"data":{"clientId":"c1"}})";

class LinkCheckTest : public MessageServiceTest {
 protected:
  // Pushes count as replies slower than 25 s.
  void pushSlowReplies(uint64_t count) {
    const uint64_t before = onLoop([&] { return service_->allMessagesCount(); });
    for (uint64_t i = 0; i < count; ++i)
      server_.pushText(kPush);
    ASSERT_TRUE(waitUntil(
        [&] { return onLoop([&] { return service_->allMessagesCount(); }) == before + count; }));
  }
  size_t ticks() const { return countLogLinesStartingWith("Tellora: checkMessagesDelay ("); }
};

TEST_F(LinkCheckTest, AQuietLinkPostsNothing) {
  setDebug(true);
  createService(50ms);
  openAndWait();
  ASSERT_TRUE(waitUntil([&] { return ticks() >= 4; }));
  EXPECT_TRUE(speedStatuses().empty());
}

TEST_F(LinkCheckTest, OverdueRequestsPostLowAtMostOncePerTick) {
  setDebug(true);
  createService(100ms);
  openAndWait();
  // Never answered.
  onLoop([&] {
    service_->establishClientMode(1, {});
    service_->establishClientMode(2, {});
  });
  ASSERT_TRUE(waitUntil([&] { return speedStatuses().size() >= 3; }));
  // Stop ticking, let the posted notifications land, then compare.
  onLoop([&] { service_->stopTimer(); });
  EventLoop::main().drain();
  const size_t lows = speedStatuses().size();
  EXPECT_LE(lows, ticks());
  for (const auto& status : speedStatuses())
    EXPECT_EQ(status, "low");
  EXPECT_EQ(countLogLines("Tellora: delay bigger than 1"), lows);
  // The overdue warning does not touch the speed.
  EXPECT_EQ(onLoop([&] { return service_->speed(); }), TLRSpeedHight);
}

TEST_F(LinkCheckTest, AnOverdueRequestHoldsOffTheRestart) {
  createService();
  openAndWait();
  onLoop([&] { service_->establishClientMode(1, {}); });  // never answered
  pushSlowReplies(5);
  std::this_thread::sleep_for(1100ms);
  onLoop([&] { service_->checkMessagesDelay(); });
  EventLoop::main().drain();
  EXPECT_EQ(speedStatuses(), (std::vector<std::string>{"low"}));
  EXPECT_EQ(countLogLines("Tellora reconnect"), 0u);
  EXPECT_EQ(onLoop([&] { return service_->reconnectsCount(); }), 0u);
}

// Ticks are driven by hand here so that every restart can be watched to its end.
TEST_F(LinkCheckTest, FiveSlowRepliesRestartTheTransportAndOpenAgain) {
  answerWith([](const json& request) -> std::vector<WsReply> {
    // Get-time stays unanswered; it must survive the restart.
    if (request["type"] == 3) return {};
    return {replyTo(request)};
  });
  createService();
  openAndWait();  // debug stays off: the restart line is written regardless

  pushSlowReplies(4);
  onLoop([&] { service_->checkMessagesDelay(); });
  EXPECT_EQ(countLogLines("Tellora reconnect"), 0u);

  pushSlowReplies(1);
  onLoop([&] {
    service_->requestTime({});
    service_->checkMessagesDelay();
    EXPECT_TRUE(service_->transportRebooting());
    // A tick during the restart does not restart again.
    service_->checkMessagesDelay();
  });
  EXPECT_EQ(countLogLines("Tellora reconnect"), 1u);
  ASSERT_TRUE(waitUntil([&] { return openedCount() == 2; }));
  ASSERT_TRUE(server_.waitForUpgrades(2));
  EXPECT_TRUE(closedErrors().empty());
  onLoop([&] {
    EXPECT_FALSE(service_->transportRebooting());
    EXPECT_EQ(service_->reconnectsCount(), 1u);
    // Only a fast reply brings the bad count back down.
    EXPECT_EQ(service_->badDelaysCount(), 5u);
    EXPECT_EQ(service_->sendedMessages().size(), 1u);
    EXPECT_TRUE(service_->timer()->isValid());
  });

  std::atomic<int> calls{0};
  onLoop([&] { service_->establishClientMode(3, [&] { ++calls; }); });
  ASSERT_TRUE(waitUntil([&] { return calls == 1; }));
  onLoop([&] {
    EXPECT_EQ(service_->badDelaysCount(), 0u);
    service_->checkMessagesDelay();
  });
  EXPECT_EQ(countLogLines("Tellora reconnect"), 1u);
}

TEST_F(LinkCheckTest, TheSixthRestartGivesUpWithError103) {
  createService(150ms);
  onLoop([&] { service_->transport().setRetryInterval(100ms); });
  openAndWait();
  pushSlowReplies(5);

  // Nothing answers any more, so every tick restarts until the sixth gives up.
  ASSERT_TRUE(waitUntil([&] { return !closedErrors().empty(); }, 20s));
  const auto errors = closedErrors();
  ASSERT_EQ(errors.size(), 1u);
  ASSERT_TRUE(errors[0].has_value());
  EXPECT_EQ(errors[0]->domain, "com.tellora.quillmark.ErrorDomain");
  EXPECT_EQ(errors[0]->code, 103);
  EXPECT_TRUE(errors[0]->userInfo.empty());
  EXPECT_EQ(countLogLines("Tellora reconnect"), 5u);
  EXPECT_GE(openedCount(), 2);

  onLoop([&] {
    EXPECT_EQ(service_->badDelaysCount(), 0u);
    EXPECT_EQ(service_->reconnectsCount(), 0u);
    EXPECT_FALSE(service_->timer()->isValid());
    // Reported once, then forgotten.
    EXPECT_FALSE(service_->slowConnectionError().has_value());
  });

  // Given up for good: no reopening, no more restarts.
  const size_t upgrades = server_.log().upgrades.size();
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(server_.log().upgrades.size(), upgrades);
  EXPECT_EQ(server_.log().openConnections, 0u);
  EXPECT_EQ(countLogLines("Tellora reconnect"), 5u);
  EXPECT_EQ(closedErrors().size(), 1u);
}

TEST_F(LinkCheckTest, AStoredGiveUpErrorGoesWithTheNextCloseOnly) {
  createService();
  openAndWait();
  onLoop([&] { service_->setSlowConnectionError(TLRError::make(103)); });
  onLoop([&] { service_->closeConnection(); });
  ASSERT_TRUE(waitUntil([&] { return closedErrors().size() == 1; }));
  EXPECT_EQ(closedErrors()[0], TLRError::make(103));

  onLoop([&] { service_->transport().open(); });
  ASSERT_TRUE(server_.waitForUpgrades(2));
  ASSERT_TRUE(waitUntil([&] { return openedCount() == 2; }));
  onLoop([&] { service_->closeConnection(); });
  ASSERT_TRUE(waitUntil([&] { return closedErrors().size() == 2; }));
  EXPECT_FALSE(closedErrors()[1].has_value());
}

TEST_F(LinkCheckTest, ServerCloseCodesReachTheOwnerUnchanged) {
  createService();
  openAndWait();
  server_.closeConnections(3001);
  ASSERT_TRUE(waitUntil([&] { return closedErrors().size() == 1; }));
  EXPECT_EQ(closedErrors()[0], TLRError::make(3001));
}

class DelayRingTest : public MessageServiceTest {};

TEST_F(DelayRingTest, AverageIsUndefinedRightAfterAReset) {
  createService();
  onLoop([&] {
    service_->resetMessageCounter();
    EXPECT_TRUE(std::isnan(service_->averadeDelay()));
  });
}

TEST_F(DelayRingTest, TheFirstDelayAfterAResetLandsInTheSecondEntry) {
  createService();
  onLoop([&] {
    service_->incrementMessageCount();
    service_->addDelayValue(4.0);
    // Entry 0 is still empty: the average over one entry is 0.
    EXPECT_EQ(service_->averadeDelay(), 0.0);
    service_->incrementMessageCount();
    service_->addDelayValue(2.0);
    EXPECT_EQ(service_->averadeDelay(), 2.0);  // (0 + 4) / 2
    for (int i = 0; i < 18; ++i) {
      service_->incrementMessageCount();
      service_->addDelayValue(1.0);
    }
    // The twentieth delay finally fills entry 0.
    EXPECT_FLOAT_EQ(static_cast<float>(service_->averadeDelay()), (4 + 2 + 17 + 1) / 20.0f);
  });
}

}  // namespace
}  // namespace tellora::testing
