// The WebSocket transport against a real loopback server: opening (over TLS
// too), sending, receiving and closing; refusals, failed attempts and their
// retries, and how connections end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "runtime/event_loop.h"
#include "tellora/error.h"
#include "tests/runtime/runtime_sandbox.h"
#include "tests/support/tcp_proxy.h"
#include "tests/support/ws_test_server.h"
#include "transport/tls_context.h"
#include "transport/transport.h"

namespace tellora::transport_test {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using testing::WsServerLog;
using testing::WsTestServer;

constexpr auto kRetryInterval = 150ms;

// What the delegate heard, in order: "opened", "closed" (no error),
// "closed:<code>", "message:<text>", and whatever a test adds itself.
class RecordingDelegate : public TLRTransportDelegate, public testing::WatchedList<std::string> {
 public:
  void connectionOpened() override { add("opened"); }
  void connectionClosedWithError(const std::optional<TLRError>& error) override {
    closeErrors.add(error);
    add(error ? "closed:" + std::to_string(error->code) : "closed");
  }
  void didReceiveMessage(const std::string& message) override { add("message:" + message); }

  testing::WatchedList<std::optional<TLRError>> closeErrors;
};

class TransportTest : public ::testing::Test {
 protected:
  TransportTest() { testing::RuntimeSandbox::setDebug(true); }  // the transport's lines are debug
  void TearDown() override {
    destroyTransport();
    EventLoop::main().drain();  // a burst of keepSending() queued meanwhile has run
    server_.reset();
    setAdditionalTrustedCaFile(std::nullopt);
  }

  template <class F>
  static auto loop(F f) {
    return EventLoop::main().call(std::move(f));
  }
  // Calls `member` of the transport on the loop.
  template <class M, class... A>
  auto call(M member, const A&... args) {
    return EventLoop::main().call([&] { return (transport_.get()->*member)(args...); });
  }
  std::size_t logCount(const std::string& line) const { return sandbox_.countLog(line); }
  bool waitForLog(const std::string& line, std::size_t times = 1) const {
    return testing::waitUntil([&] { return logCount(line) >= times; });
  }

  // Makes the transport under test (on the loop), retrying every kRetryInterval.
  void makeTransport(const std::string& url, const std::string& clientID = "client-1",
                     const std::string& clientSecret = "secret-1") {
    destroyTransport();
    transport_ = EventLoop::main().call([&] {
      auto transport = std::make_unique<TLRTransport>(url, clientID, clientSecret, delegate_);
      transport->setRetryInterval(kRetryInterval);
      return transport;
    });
  }
  void open() { call(&TLRTransport::open); }
  void openAndWait() {
    open();
    ASSERT_TRUE(delegate_->waitFor("opened"));
    ASSERT_TRUE(server_->waitForOpenConnections(1));
  }
  void close() { call(&TLRTransport::close); }
  bool isOpen() { return call(&TLRTransport::isConnectionOpened); }
  bool send(const std::string& message) { return call(&TLRTransport::sendMessage, message); }
  uint64_t attempts() { return call(&TLRTransport::connectionAttempCounter); }
  std::optional<std::string> lastFailure() { return call(&TLRTransport::lastFailureDescription); }
  void destroyTransport() {
    loop([this] { transport_.reset(); });
  }
  // Keeps the client writing while the connection is open: a burst of frames
  // on every loop turn, `frames` in all, so that whatever the server does
  // meets writes in flight.
  void keepSending(int frames = 2000) {
    loop([this, frames] { sendBurst(std::make_shared<int>(frames)); });
  }
  // A new server and delegate, for the next case of a table.
  void fresh() {
    destroyTransport();
    server_ = std::make_unique<WsTestServer>();
    delegate_ = std::make_shared<RecordingDelegate>();
  }
  // Waits past a few retry intervals so that anything scheduled would have run.
  static void settle() { std::this_thread::sleep_for(kRetryInterval * 4); }

  void sendBurst(std::shared_ptr<int> left) {
    if (!transport_ || !transport_->isConnectionOpened()) return;
    for (int i = 0; i < 8 && *left > 0; ++i, --*left)
      transport_->sendMessage(std::string(8192, 'f'));
    if (*left > 0) EventLoop::main().post([this, left] { sendBurst(left); });
  }

  testing::RuntimeSandbox sandbox_;
  std::unique_ptr<WsTestServer> server_ = std::make_unique<WsTestServer>();
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
  std::unique_ptr<TLRTransport> transport_;
};

// --- Opening, sending, receiving, closing ----------------------------------------

using TransportConnectionTest = TransportTest;
using TransportTlsTest = TransportTest;
using testing::TestCertificateOptions;
using testing::TestCertificates;

TEST_F(TransportConnectionTest, OpenCarriesTheIdentityOnceAndOpeningAgainIsOnlyLogged) {
  setHostAppVersion("2.7.1");
  makeTransport(server_->url("/ws"), "id-42", "s3cr3t");
  openAndWait();
  const auto upgrade = server_->log().upgrades.at(0);
  EXPECT_EQ(upgrade.target, "/ws");
  EXPECT_EQ(upgrade.header("clientId"), "id-42");
  EXPECT_EQ(upgrade.header("clientSecret"), "s3cr3t");
  EXPECT_EQ(upgrade.header("app_version"), "2.7.1");
  for (const char* name : {"clientId", "clientSecret", "app_version"})
    EXPECT_EQ(upgrade.headerCount(name), 1u) << name;
  EXPECT_EQ(upgrade.header("Host"), "127.0.0.1:" + std::to_string(server_->port()));
  setHostAppVersion("unknown");

  open();  // while open: only logged (while connecting, see the connected block)
  EXPECT_EQ(logCount("Connection alrady opened"), 1u);
  settle();
  EXPECT_EQ(server_->log().upgrades.size(), 1u);
  EXPECT_THAT(delegate_->get(), ElementsAre("opened"));
}

// Out as binary frames in order, in as text unchanged (non-ASCII included),
// up to 1 MiB; a larger one ends the connection (see the server endings).
TEST_F(TransportConnectionTest, MessagesGoOutInOrderAndComeInUpToAMessageOfOneMebibyte) {
  makeTransport(server_->url());
  openAndWait();
  for (const auto& push :
       {std::string("{\"clientId\":\"\xD0\x9F\xD1\x80\xD0\xB8\"}"), std::string(1u << 20, 'a')}) {
    EXPECT_EQ(server_->pushText(push), 1u);
    EXPECT_TRUE(delegate_->waitFor("message:" + push));
  }
  // Many queued at once go out before the close.
  loop([this] {
    for (int i = 0; i < 50; ++i)
      EXPECT_TRUE(transport_->sendMessage(std::to_string(i)));
    transport_->close();
  });
  ASSERT_TRUE(
      server_->waitFor([](const WsServerLog& log) { return !log.clientCloseCodes.empty(); }));
  EXPECT_EQ(server_->log().clientCloseCodes.at(0), 1000);
  const auto frames = server_->log().frames;
  ASSERT_EQ(frames.size(), 50u);
  for (int i = 0; i < 50; ++i) {
    EXPECT_TRUE(frames[i].binary);
    EXPECT_EQ(frames[i].payload, std::to_string(i));
  }
}

// A send while not open (before, while connecting, after a close) is refused
// and not kept for later; our own close is heard without error, even while
// still connecting, and the transport opens again afterwards.
TEST_F(TransportConnectionTest, OwnCloseIsHeardWithoutErrorAndNothingIsSentWhileNotOpen) {
  makeTransport(server_->url());
  EXPECT_FALSE(send("before open"));
  EXPECT_EQ(logCount("Connection is closed"), 1u);
  loop([this] {
    transport_->open();
    transport_->close();
  });
  ASSERT_TRUE(delegate_->waitFor("closed"));
  settle();
  EXPECT_THAT(delegate_->get(), ElementsAre("closed"));  // never opened

  EXPECT_FALSE(loop([this] {
    transport_->open();
    return transport_->sendMessage("while connecting");
  }));
  ASSERT_TRUE(delegate_->waitFor("opened"));
  close();
  EXPECT_FALSE(send("after close"));
  ASSERT_TRUE(delegate_->waitFor("closed", 2));
  open();
  ASSERT_TRUE(delegate_->waitFor("opened", 2));
  EXPECT_THAT(delegate_->get(), ElementsAre("closed", "opened", "closed", "opened"));
  EXPECT_TRUE(server_->log().frames.empty());
}

// The block runs once, at the first open that succeeds (after silent
// failures), before "opened". A null block keeps the pending one; a new block
// replaces it.
TEST_F(TransportConnectionTest, ConnectedBlockRunsOnceAtTheOpenAfterFailuresAndTheLatestOneWins) {
  server_->refuseUpgrades(503, 2);
  makeTransport(server_->url());
  const auto block = [this](const char* name) { return [this, name] { delegate_->add(name); }; };
  loop([&] {  // the second while the first is connecting: one connection
    transport_->openWithBlock(block("first"));
    transport_->openWithBlock(nullptr);
  });
  ASSERT_TRUE(delegate_->waitFor("opened"));
  EXPECT_EQ(server_->log().upgrades.size(), 3u);
  EXPECT_THAT(delegate_->get(), ElementsAre("first", "opened"));

  // A server that is gone is retried, silently, until it comes back.
  close();
  ASSERT_TRUE(delegate_->waitFor("closed"));
  server_->stop();
  loop([&] {
    transport_->openWithBlock(block("second"));
    transport_->openWithBlock(block("third"));
  });
  ASSERT_TRUE(waitForLog("didFailWithError: (null)", 3));
  EXPECT_EQ(lastFailure(), "connect: Connection refused");
  server_->start();
  ASSERT_TRUE(delegate_->waitFor("opened", 2));
  EXPECT_THAT(delegate_->get(), ElementsAre("first", "opened", "closed", "third", "opened"));
  EXPECT_EQ(attempts(), 0u);
  EXPECT_EQ(lastFailure(), std::nullopt);
}

// Destroyed while open, while connecting or with a retry pending.
TEST_F(TransportConnectionTest, DestroyedTransportReportsAndAttemptsNothingMore) {
  makeTransport(server_->url());
  openAndWait();
  destroyTransport();
  // The server still sees the connection end; the delegate hears nothing.
  ASSERT_TRUE(server_->waitForEndedConnections(1));
  server_->pushText("too late");
  makeTransport(server_->url());
  loop([this] {
    transport_->open();
    transport_.reset();  // while connecting
  });
  settle();
  // And with a retry pending.
  const std::size_t upgrades = server_->log().upgrades.size();
  server_->refuseUpgrades(403);
  makeTransport(server_->url());
  open();
  ASSERT_TRUE(waitForLog("didFailWithError: 403"));
  destroyTransport();
  settle();
  EXPECT_EQ(server_->log().upgrades.size(), upgrades + 1);
  EXPECT_THAT(delegate_->get(), ElementsAre("opened"));
}

// wss:// against a loopback server whose certificate comes from a throw-away CA.
// A certificate that verifies carries the connection, under the address or a
// name it lists. One that does not fails the handshake, without a word to the
// delegate, and so does the retry; its common name alone does not count.
TEST_F(TransportTlsTest, OnlyAVerifiedCertificateCarriesTheConnection) {
  struct Case {
    const char* verifyReason;  // OpenSSL's, as the failure carries it; null: verifies
    const char* host = "127.0.0.1";
    TestCertificateOptions certificate{};
    bool fromTheTrustedCa = true;
  };
  const Case cases[] = {
      {nullptr},
      {nullptr, "localhost"},
      {"self-signed certificate in certificate chain", "127.0.0.1", {}, false},
      {"IP address mismatch", "127.0.0.1", {{"elsewhere.invalid"}, {"127.0.0.2"}, "127.0.0.1"}},
      {"certificate has expired", "127.0.0.1", {{"localhost"}, {"127.0.0.1"}, "127.0.0.1", -1}}};
  const auto otherCa = TestCertificates::create();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.verifyReason ? c.verifyReason : c.host);
    fresh();
    server_ = std::make_unique<WsTestServer>(TestCertificates::create(c.certificate));
    setAdditionalTrustedCaFile(
        (c.fromTheTrustedCa ? *server_->certificates() : *otherCa).caFile().string());
    server_->setHandler([](const testing::WsFrame& frame) {
      return std::vector<testing::WsReply>{{"got " + frame.payload}};
    });
    const std::size_t failedBefore = logCount("didFailWithError: (null)");
    makeTransport(server_->url("/ws", c.host));
    open();
    if (!c.verifyReason) {
      ASSERT_TRUE(delegate_->waitFor("opened"));
      EXPECT_TRUE(send("ping"));
      EXPECT_TRUE(delegate_->waitFor("message:got ping"));
      continue;
    }
    ASSERT_TRUE(
        server_->waitFor([](const WsServerLog& log) { return log.failedTlsHandshakes >= 2; }));
    ASSERT_TRUE(waitForLog("didFailWithError: (null)", failedBefore + 2));
    EXPECT_TRUE(server_->log().upgrades.empty());
    EXPECT_TRUE(delegate_->get().empty());
    EXPECT_EQ(lastFailure(),
              std::string("tls handshake: certificate verify failed (") + c.verifyReason + ")");
  }
}

// --- Failures ----------------------------------------------------------------------

using TransportFailureTest = TransportTest;

// Every failed attempt is logged; only the server's own refusals (801/802)
// reach the delegate, with the status as the code, and the retry goes on. A
// close does not cancel the retry already scheduled: it runs once more, and
// what it meets is handled as if still wanted (a refusal reported, a
// connection kept), but a failure is not retried again.
TEST_F(TransportFailureTest, RefusalsAreRetriedAndTheRetryBeforeACloseRunsOnceMore) {
  // The status, how many attempts it refuses, what the delegate hears.
  const std::tuple<unsigned, std::size_t, std::vector<std::string>> cases[] = {
      {403, SIZE_MAX, {}},
      {801, SIZE_MAX, {"closed:801", "closed:801"}},
      {802, SIZE_MAX, {"closed:802", "closed:802"}},
      {403, 1, {"opened"}}};
  for (const auto& [status, refusals, heard] : cases) {
    SCOPED_TRACE(std::to_string(status) + " x" + std::to_string(refusals));
    fresh();
    server_->refuseUpgrades(status, refusals);
    makeTransport(server_->url());
    const std::string failed = "didFailWithError: " + std::to_string(status);
    const std::size_t failedBefore = logCount(failed);
    open();
    ASSERT_TRUE(waitForLog(failed, failedBefore + 1));
    close();
    ASSERT_TRUE(server_->waitForUpgrades(2));
    settle();
    EXPECT_EQ(server_->log().upgrades.size(), 2u);
    EXPECT_EQ(delegate_->get(), heard);
    for (const auto& error : delegate_->closeErrors.get())
      EXPECT_EQ(error, TLRError::make(status));
    EXPECT_EQ(logCount(failed), failedBefore + std::min<std::size_t>(refusals, 2));
    if (refusals == 1) continue;
    EXPECT_EQ(attempts(), 0u);
    EXPECT_EQ(lastFailure(), "upgrade: HTTP status " + std::to_string(status));
  }
}

TEST_F(TransportFailureTest, AttemptLimitReportsTheClientsOwnErrorAndStops) {
  server_->refuseUpgrades(403);
  makeTransport(server_->url());
  loop([this] {
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
  const uint16_t code = GetParam().errorCode;
  makeTransport(server_->url());
  openAndWait();
  keepSending();
  ASSERT_TRUE(server_->waitForFrames(16));
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
  EXPECT_TRUE(send("after"));
  ASSERT_TRUE(delegate_->waitFor("message:again"));
  EXPECT_EQ(server_->log().acceptedConnections, 2u);
}

}  // namespace
}  // namespace tellora::transport_test
