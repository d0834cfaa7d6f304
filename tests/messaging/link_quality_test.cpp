// The delay check. The whole stalled-link story (overdue warning holding the
// restart back, restarts, the give-up with 103) runs end to end in
// tests/faults/in_process_server_test.cpp; these are the rules it cannot reach.
#include <gtest/gtest.h>

#include "messaging/message_service.h"
#include "tests/messaging/service_fixture.h"

namespace tellora::testing {
namespace {

using nlohmann::json;

class LinkCheckTest : public MessageServiceTest {
 protected:
  size_t ticks() const { return sandbox_.countLogStartingWith("Tellora: checkMessagesDelay ("); }
  size_t restarts() const { return sandbox_.countLog("Tellora reconnect"); }
};

TEST_F(LinkCheckTest, OverdueRequestsPostLowAtMostOncePerTickAndAQuietLinkNothing) {
  sandbox_.setDebug(true);
  connect({}, 100ms);
  ASSERT_TRUE(waitUntil([&] { return ticks() >= 3; }));
  EXPECT_TRUE(speedStatuses_->values().empty());

  answerWith([](const json&) { return std::vector<WsReply>{}; });
  onLoop([&] {
    service_->establishClientMode(1, {});
    service_->establishClientMode(2, {});
  });
  ASSERT_TRUE(waitUntil([&] { return speedStatuses_->size() >= 1; }));
  const size_t ticksAtFirstLow = ticks();
  ASSERT_TRUE(waitUntil([&] { return speedStatuses_->size() >= 5; }));
  // Stop ticking, let the posted notifications land, then compare: one "low"
  // per tick whatever the number of overdue requests (+2 for the racing reads).
  onLoop([&] { service_->stopTimer(); });
  EventLoop::main().drain();
  EXPECT_LE(speedStatuses_->size(), ticks() - ticksAtFirstLow + 2);
  EXPECT_EQ(speedStatuses_->count("low"), speedStatuses_->size());
  // The overdue warning does not touch the speed.
  EXPECT_EQ(onLoop([&] { return service_->speed(); }), TLRSpeedHight);
}

// Ticks are driven by hand here so that every restart can be watched to its end.
TEST_F(LinkCheckTest, FiveSlowRepliesRestartTheTransportAndOpenAgain) {
  connect([](const json& request) -> std::vector<WsReply> {
    // Get-time stays unanswered; it must survive the restart.
    if (request["type"] == 3) return {};
    return {replyTo(request)};
  });  // debug stays off: the restart line is written regardless

  // Pushes count as replies slower than 25 s.
  for (uint64_t pushed = 1; pushed <= 5; ++pushed) {
    server_.pushText(R"({"type":102,"data":{"clientId":"c1"}})");
    ASSERT_TRUE(waitUntil([&] { return allMessages() == pushed; }));
    if (pushed == 4) onLoop([&] { service_->checkMessagesDelay(); });
  }
  EXPECT_EQ(restarts(), 0u);
  onLoop([&] {
    service_->requestTime({});
    service_->checkMessagesDelay();
    EXPECT_TRUE(service_->transportRebooting());
    service_->checkMessagesDelay();  // a tick during the restart does not restart again
  });
  EXPECT_EQ(restarts(), 1u);
  ASSERT_TRUE(waitUntil([&] { return *opened_ == 2; }));
  ASSERT_TRUE(server_.waitForUpgrades(2));
  EXPECT_EQ(closed_->size(), 0u);
  onLoop([&] {
    EXPECT_FALSE(service_->transportRebooting());
    EXPECT_EQ(service_->sendedMessages().size(), 1u);
    EXPECT_TRUE(service_->timer()->isValid());
    EXPECT_EQ(service_->badDelaysCount(), 5u);  // only a fast reply brings it back down
  });
  roundTrip();
  onLoop([&] { service_->checkMessagesDelay(); });
  EXPECT_EQ(restarts(), 1u);
}

TEST_F(LinkCheckTest, AStoredGiveUpErrorGoesWithTheNextCloseOnly) {
  connect();
  onLoop([&] {
    service_->setSlowConnectionError(TLRError::make(103));
    service_->closeConnection();
  });
  ASSERT_TRUE(waitUntil([&] { return closed_->size() == 1; }));
  EXPECT_EQ(closed_->values()[0], TLRError::make(103));

  onLoop([&] { service_->transport().open(); });
  ASSERT_TRUE(waitUntil([&] { return *opened_ == 2; }));
  onLoop([&] { service_->closeConnection(); });
  ASSERT_TRUE(waitUntil([&] { return closed_->size() == 2; }));
  EXPECT_FALSE(closed_->values()[1].has_value());
}

}  // namespace
}  // namespace tellora::testing
