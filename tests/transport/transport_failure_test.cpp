// Refusals, failed attempts and their retries, and how connections end.
#include <functional>
#include <limits>
#include <thread>

#include "tests/support/tcp_proxy.h"

#include "tests/transport/transport_fixture.h"

namespace tellora::transport_test {
namespace {

using TransportFailureTest = TransportTest;

struct Refusal {
  unsigned status;
  bool reported;  // only the server's own refusals reach the delegate
  // Not the raw bytes, padding included, which valgrind reports as uninitialised.
  friend void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.status; }
};

class TransportRefusalTest : public TransportTest, public ::testing::WithParamInterface<Refusal> {};

TEST_P(TransportRefusalTest, IsLoggedOnEveryAttemptWhileTheRetryGoesOn) {
  const auto [status, reported] = GetParam();
  server_->refuseUpgrades(status, 2);
  makeTransport(server_->url());
  open();
  ASSERT_TRUE(delegate_->waitFor("opened"));
  const std::string refused = "closed:" + std::to_string(status);
  if (reported) {
    EXPECT_THAT(delegate_->get(), ElementsAre(refused, refused, "opened"));
    for (const auto& error : delegate_->closeErrors.get()) {
      ASSERT_TRUE(error.has_value());
      EXPECT_EQ(error->domain, TLRErrorDomain);
      EXPECT_TRUE(error->userInfo.empty());
    }
  } else {
    EXPECT_THAT(delegate_->get(), ElementsAre("opened"));
  }
  EXPECT_EQ(logCount("didFailWithError: " + std::to_string(status)), 2u);
  const auto upgrades = server_->log().upgrades;
  ASSERT_EQ(upgrades.size(), 3u);
  EXPECT_EQ(upgrades[0].refusedWithStatus, status);
  EXPECT_EQ(upgrades[2].refusedWithStatus, 0u);
}

INSTANTIATE_TEST_SUITE_P(Statuses, TransportRefusalTest,
                         ::testing::Values(Refusal{801, true}, Refusal{802, true},
                                           Refusal{403, false}));

TEST_F(TransportFailureTest, ServerThatComesBackIsReachedByTheRetry) {
  server_->stop();
  makeTransport(server_->url());
  open();
  ASSERT_TRUE(waitForLog("didFailWithError: (null)", 3));
  EXPECT_TRUE(delegate_->get().empty());
  EXPECT_GE(attempts(), 3u);
  EXPECT_EQ(lastFailure(), "connect: Connection refused");

  server_->start();
  ASSERT_TRUE(delegate_->waitFor("opened"));
  EXPECT_THAT(delegate_->get(), ElementsAre("opened"));
  EXPECT_EQ(attempts(), 0u);
  EXPECT_EQ(lastFailure(), std::nullopt);
}

TEST_F(TransportFailureTest, RetryScheduledBeforeACloseStillOpensAConnection) {
  server_->refuseUpgrades(403, 1);
  makeTransport(server_->url());
  open();
  ASSERT_TRUE(waitForLog("didFailWithError: 403"));
  close();
  ASSERT_TRUE(delegate_->waitFor("opened"));
  EXPECT_TRUE(isOpen());
  EXPECT_EQ(onLoop([this] { return transport_->needSetConnectionState(); }), 0);
}

TEST_F(TransportFailureTest, FailureWhileNotWantedIsSilentAndNotRetried) {
  server_->refuseUpgrades(403);
  makeTransport(server_->url());
  open();
  ASSERT_TRUE(waitForLog("didFailWithError: 403"));
  close();
  // The retry already scheduled runs once, fails unwanted, and ends there.
  ASSERT_TRUE(waitForLog("didFailWithError: 403", 2));
  settle();
  EXPECT_EQ(server_->log().upgrades.size(), 2u);
  EXPECT_EQ(logCount("didFailWithError: 403"), 2u);
  EXPECT_TRUE(delegate_->get().empty());
  EXPECT_EQ(attempts(), 0u);
  EXPECT_EQ(lastFailure(), "upgrade: HTTP status 403");
}

TEST_F(TransportFailureTest, RefusalWhileNotWantedIsStillReported) {
  server_->refuseUpgrades(801);
  makeTransport(server_->url());
  onLoop([this] { transport_->performOpening(); });  // an attempt nobody asked to keep
  ASSERT_TRUE(delegate_->waitFor("closed:801"));
  settle();
  EXPECT_EQ(server_->log().upgrades.size(), 1u);
  EXPECT_THAT(delegate_->get(), ElementsAre("closed:801"));
}

TEST_F(TransportFailureTest, AttemptLimitReportsTheClientsOwnErrorAndStops) {
  server_->refuseUpgrades(403);
  makeTransport(server_->url());
  onLoop([this] {
    transport_->setConnectionAttempCounterForTesting(std::numeric_limits<int32_t>::max() - 1);
    transport_->open();
  });
  ASSERT_TRUE(delegate_->waitForSize(1));
  const auto error = delegate_->closeErrors.get().at(0);
  ASSERT_TRUE(error.has_value());
  EXPECT_NE(error->domain, TLRErrorDomain);
  EXPECT_EQ(std::get<int64_t>(error->userInfo.at("HTTPResponseStatusCode")), 403);
  settle();
  EXPECT_EQ(server_->log().upgrades.size(), 1u);
  EXPECT_EQ(attempts(), 0u);
}

TEST_F(TransportFailureTest, PendingRetryDoesNothingOnceTheTransportIsGone) {
  server_->refuseUpgrades(403);
  makeTransport(server_->url());
  open();
  ASSERT_TRUE(waitForLog("didFailWithError: 403"));
  destroyTransport();
  settle();
  EXPECT_EQ(server_->log().upgrades.size(), 1u);
}

// The server ending the connection, in order or by breaking the protocol, is a
// close, heard once and not retried; the client is writing all the while. Only
// close codes 3001 and 3002 carry an error.
struct ServerEnding {
  const char* name;
  std::function<void(WsTestServer&)> end;
  uint16_t errorCode = 0;
  friend void PrintTo(const ServerEnding& ending, std::ostream* out) { *out << ending.name; }
};

class TransportServerEndingTest : public TransportTest,
                                  public ::testing::WithParamInterface<ServerEnding> {};

TEST_P(TransportServerEndingTest, IsOneCloseEvenWithWritesInFlight) {
  makeTransport(server_->url());
  openAndWait();
  keepSending();
  ASSERT_TRUE(server_->waitForFrames(16));
  const uint16_t code = GetParam().errorCode;
  GetParam().end(*server_);
  ASSERT_TRUE(delegate_->waitForSize(2));
  EXPECT_FALSE(isOpen());
  settle();
  EXPECT_THAT(delegate_->get(),
              ElementsAre("opened", code ? "closed:" + std::to_string(code) : "closed"));
  if (code) {
    EXPECT_EQ(delegate_->closeErrors.get().at(0), TLRError::make(code));
  }
  EXPECT_EQ(server_->log().acceptedConnections, 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Endings, TransportServerEndingTest,
    ::testing::Values(
        ServerEnding{"CloseFrame", [](WsTestServer& s) { s.closeConnections(1000); }},
        ServerEnding{"CloseFrame3001", [](WsTestServer& s) { s.closeConnections(3001, "bye"); },
                     3001},
        ServerEnding{"CloseFrame3002", [](WsTestServer& s) { s.closeConnections(3002); }, 3002},
        ServerEnding{"CloseFrame4000", [](WsTestServer& s) { s.closeConnections(4000); }},
        ServerEnding{"EndOfStream", [](WsTestServer& s) { s.endStreams(); }},
        ServerEnding{"MessageOverOneMebibyte",
                     [](WsTestServer& s) { s.pushText(std::string((1u << 20) + 1, 'b')); }},
        ServerEnding{"InvalidUtf8Text", [](WsTestServer& s) { s.pushText("\xC3\x28 broken"); }}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(TransportFailureTest, MessageOfOneMebibyteIsTheLargestAccepted) {
  makeTransport(server_->url());
  openAndWait();
  const std::string largest(1u << 20, 'a');
  server_->pushText(largest);
  ASSERT_TRUE(delegate_->waitFor("message:" + largest));
  EXPECT_TRUE(isOpen());
}

// A link that breaks (a reset on the way, as when the phone changes networks)
// is not the server's doing: no close, and the retry brings the connection back.
TEST_F(TransportFailureTest, ResetLinkIsReopenedWithoutAClose) {
  server_->setHandler([](const testing::WsFrame& frame) {
    if (frame.payload != "after") return std::vector<testing::WsReply>{};
    return std::vector<testing::WsReply>{{"again"}};
  });
  testing::TcpProxy proxy(server_->port());
  makeTransport("ws://127.0.0.1:" + std::to_string(proxy.port()) + "/ws");
  openAndWait();
  keepSending();
  ASSERT_TRUE(server_->waitForFrames(16));
  EXPECT_EQ(proxy.resetConnections(), 1u);
  ASSERT_TRUE(delegate_->waitFor("opened", 2));
  EXPECT_EQ(delegate_->count("closed"), 0u);
  EXPECT_EQ(lastFailure(), std::nullopt);  // a broken link is no failed opening

  EXPECT_TRUE(onLoop([this] { return transport_->sendMessage("after"); }));
  ASSERT_TRUE(delegate_->waitFor("message:again"));
  EXPECT_EQ(server_->log().acceptedConnections, 2u);
}

}  // namespace
}  // namespace tellora::transport_test
