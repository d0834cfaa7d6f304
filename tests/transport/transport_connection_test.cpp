// Opening, sending, receiving and closing against a real loopback server.
#include <thread>

#include "tests/transport/transport_fixture.h"

namespace tellora::transport_test {
namespace {

using TransportConnectionTest = TransportTest;

TEST_F(TransportConnectionTest, OpenCarriesTheIdentityOnceAndResetsTheAttemptCounter) {
  setHostAppVersion("2.7.1");
  makeTransport(server_->url("/ws"), "id-42", "s3cr3t");
  EXPECT_FALSE(isOpen());
  EXPECT_EQ(onLoop([this] { return transport_->needSetConnectionState(); }), 0);
  openAndWait();
  EXPECT_TRUE(isOpen());
  EXPECT_EQ(onLoop([this] { return transport_->needSetConnectionState(); }), 1);
  EXPECT_EQ(attempts(), 0u);
  EXPECT_THAT(delegate_->get(), ElementsAre("opened"));

  const auto upgrade = server_->log().upgrades.at(0);
  EXPECT_EQ(upgrade.target, "/ws");
  EXPECT_EQ(upgrade.header("clientId"), "id-42");
  EXPECT_EQ(upgrade.header("clientSecret"), "s3cr3t");
  EXPECT_EQ(upgrade.header("app_version"), "2.7.1");
  for (const char* name : {"clientId", "clientSecret", "app_version"})
    EXPECT_EQ(upgrade.headerCount(name), 1u) << name;
  EXPECT_EQ(upgrade.header("Host"), "127.0.0.1:" + std::to_string(server_->port()));
  setHostAppVersion("unknown");
}

TEST_F(TransportConnectionTest, MessagesGoOutAsBinaryFramesInOrderAndTextFramesComeIn) {
  server_->setHandler([](const testing::WsFrame& frame) {
    return std::vector<testing::WsReply>{{"echo " + frame.payload}};
  });
  makeTransport(server_->url());
  openAndWait();

  const std::string request = R"({"type":2,"id":0})";
  EXPECT_TRUE(onLoop([&] { return transport_->sendMessage(request); }));
  ASSERT_TRUE(delegate_->waitFor("message:echo " + request));

  // Pushes arrive unchanged, non-ASCII text included.
  const std::string push = "{\"type\":102,\"data\":{\"clientId\":\"\xD0\x9F\xD1\x80\xD0\xB8\"}}";
  EXPECT_EQ(server_->pushText(push), 1u);
  EXPECT_TRUE(delegate_->waitFor("message:" + push));

  // Many queued at once go out in order before the close.
  onLoop([this] {
    for (int i = 0; i < 50; ++i)
      EXPECT_TRUE(transport_->sendMessage(std::to_string(i)));
    transport_->close();
  });
  ASSERT_TRUE(
      server_->waitFor([](const WsServerLog& log) { return !log.clientCloseCodes.empty(); }));
  const auto frames = server_->log().frames;
  ASSERT_EQ(frames.size(), 51u);
  EXPECT_TRUE(frames[0].binary);
  EXPECT_EQ(frames[0].payload, request);
  for (int i = 0; i < 50; ++i)
    EXPECT_EQ(frames[i + 1].payload, std::to_string(i));
}

TEST_F(TransportConnectionTest, SendWhileNotOpenIsRefusedAndNothingIsSent) {
  makeTransport(server_->url());
  EXPECT_FALSE(onLoop([this] { return transport_->sendMessage("before open"); }));
  EXPECT_EQ(logCount("Connection is closed"), 1u);

  // Still connecting: refused as well, and nothing is queued for later.
  EXPECT_FALSE(onLoop([this] {
    transport_->open();
    return transport_->sendMessage("while connecting");
  }));
  ASSERT_TRUE(delegate_->waitFor("opened"));

  close();
  EXPECT_FALSE(onLoop([this] { return transport_->sendMessage("after close"); }));
  ASSERT_TRUE(delegate_->waitFor("closed"));
  EXPECT_TRUE(server_->waitForEndedConnections(1));
  EXPECT_TRUE(server_->log().frames.empty());
}

TEST_F(TransportConnectionTest, RepeatedOpensKeepOneConnection) {
  makeTransport(server_->url());
  onLoop([this] {
    transport_->open();
    transport_->open();  // while connecting: counted as an attempt, nothing more
    EXPECT_EQ(transport_->connectionAttempCounter(), 2u);
  });
  ASSERT_TRUE(delegate_->waitFor("opened"));
  EXPECT_EQ(attempts(), 0u);
  open();  // while open
  EXPECT_EQ(logCount("Connection alrady opened"), 1u);
  settle();
  EXPECT_EQ(server_->log().upgrades.size(), 1u);
  EXPECT_THAT(delegate_->get(), ElementsAre("opened"));
  EXPECT_TRUE(isOpen());
}

TEST_F(TransportConnectionTest, OwnCloseIsReportedWithoutErrorEvenWhileConnectingAndCanBeReopened) {
  makeTransport(server_->url());
  onLoop([this] {
    transport_->open();
    transport_->close();
  });
  ASSERT_TRUE(delegate_->waitFor("closed"));
  settle();
  EXPECT_THAT(delegate_->get(), ElementsAre("closed"));  // never opened
  EXPECT_FALSE(isOpen());

  openAndWait();
  close();
  EXPECT_EQ(onLoop([this] { return transport_->needSetConnectionState(); }), 0);
  ASSERT_TRUE(delegate_->waitFor("closed", 2));
  ASSERT_TRUE(
      server_->waitFor([](const WsServerLog& log) { return !log.clientCloseCodes.empty(); }));
  EXPECT_EQ(server_->log().clientCloseCodes.at(0), 1000);

  open();
  ASSERT_TRUE(delegate_->waitFor("opened", 2));
  EXPECT_THAT(delegate_->get(), ElementsAre("closed", "opened", "closed", "opened"));
}

TEST_F(TransportConnectionTest, ConnectedBlockRunsOnceBeforeOpenedAndSurvivesFailures) {
  server_->refuseUpgrades(503, 2);  // two silent failures first
  makeTransport(server_->url());
  onLoop([this] { transport_->openWithBlock([this] { delegate_->add("block"); }); });
  ASSERT_TRUE(delegate_->waitFor("opened"));
  EXPECT_EQ(server_->log().upgrades.size(), 3u);
  EXPECT_THAT(delegate_->get(), ElementsAre("block", "opened"));

  // A later open does not run it again.
  close();
  ASSERT_TRUE(delegate_->waitFor("closed"));
  open();
  ASSERT_TRUE(delegate_->waitFor("opened", 2));
  EXPECT_EQ(delegate_->count("block"), 1u);
}

TEST_F(TransportConnectionTest, NullBlockKeepsThePendingOneAndANewBlockReplacesIt) {
  server_->stop();
  makeTransport(server_->url());
  onLoop([this] {
    transport_->openWithBlock([this] { delegate_->add("first"); });
    transport_->openWithBlock(nullptr);
  });
  ASSERT_TRUE(waitForLog("didFailWithError: (null)"));
  server_->start();
  ASSERT_TRUE(delegate_->waitFor("opened"));
  EXPECT_THAT(delegate_->get(), ElementsAre("first", "opened"));

  close();
  ASSERT_TRUE(delegate_->waitFor("closed"));
  server_->stop();
  onLoop([this] {
    transport_->openWithBlock([this] { delegate_->add("second"); });
    transport_->openWithBlock([this] { delegate_->add("third"); });
  });
  server_->start();
  ASSERT_TRUE(delegate_->waitFor("opened", 2));
  EXPECT_EQ(delegate_->count("second"), 0u);
  EXPECT_EQ(delegate_->count("third"), 1u);
}

TEST_F(TransportConnectionTest, DestroyedTransportReportsNothingMore) {
  makeTransport(server_->url());
  openAndWait();
  destroyTransport();
  // The server still sees the connection end; the delegate hears nothing.
  ASSERT_TRUE(server_->waitForEndedConnections(1));
  server_->pushText("too late");
  settle();
  EXPECT_THAT(delegate_->get(), ElementsAre("opened"));

  makeTransport(server_->url());
  onLoop([this] {
    transport_->open();
    transport_.reset();  // while connecting
  });
  settle();
  EXPECT_THAT(delegate_->get(), ElementsAre("opened"));
}

}  // namespace
}  // namespace tellora::transport_test
