// wss:// against a loopback server whose certificate comes from a throw-away CA.
#include "tests/transport/transport_fixture.h"
#include "transport/tls_context.h"

namespace tellora::transport_test {
namespace {

using testing::TestCertificates;

class TransportTlsTest : public TransportTest {
 protected:
  void TearDown() override {
    TransportTest::TearDown();
    setAdditionalTrustedCaFile(std::nullopt);
  }

  void useTlsServer(std::shared_ptr<const TestCertificates> certificates) {
    server_ = std::make_unique<WsTestServer>(std::move(certificates));
  }
};

TEST_F(TransportTlsTest, TrustedCertificateCarriesTheConnectionUnderItsAddressAndName) {
  useTlsServer(TestCertificates::create());
  setAdditionalTrustedCaFile(server_->certificates()->caFile().string());
  server_->setHandler([](const testing::WsFrame& frame) {
    return std::vector<testing::WsReply>{{"got " + frame.payload}};
  });
  makeTransport(server_->url("/ws"));
  ASSERT_EQ(transport_->url().rfind("wss://", 0), 0u);
  open();
  ASSERT_TRUE(delegate_->waitFor("opened"));

  EXPECT_TRUE(onLoop([this] { return transport_->sendMessage("ping"); }));
  ASSERT_TRUE(delegate_->waitFor("message:got ping"));

  // The host name is checked against the certificate's names as well.
  destroyTransport();
  makeTransport(server_->url("/ws", "localhost"));
  open();
  ASSERT_TRUE(delegate_->waitFor("opened", 2));
}

struct BadCertificate {
  const char* name;
  const char* verifyReason;  // OpenSSL's, as the failure's description carries it
  bool fromTheTrustedCa;
  std::vector<std::string> dnsNames{"localhost"};
  std::vector<std::string> ipAddresses{"127.0.0.1"};
  int validDays = 2;
  friend void PrintTo(const BadCertificate& bad, std::ostream* out) { *out << bad.name; }
};

class TransportBadCertificateTest : public TransportTlsTest,
                                    public ::testing::WithParamInterface<BadCertificate> {};

// The handshake fails, without a word to the delegate, and so does the retry.
TEST_P(TransportBadCertificateTest, IsRefusedOnEveryAttempt) {
  const BadCertificate& bad = GetParam();
  const auto otherCa = TestCertificates::create();
  // The common name alone does not count.
  useTlsServer(
      TestCertificates::create({bad.dnsNames, bad.ipAddresses, "127.0.0.1", bad.validDays}));
  setAdditionalTrustedCaFile(
      (bad.fromTheTrustedCa ? *server_->certificates() : *otherCa).caFile().string());
  makeTransport(server_->url());
  open();
  ASSERT_TRUE(
      server_->waitFor([](const WsServerLog& log) { return log.failedTlsHandshakes >= 2; }));
  ASSERT_TRUE(waitForLog("didFailWithError: (null)", 2));
  EXPECT_TRUE(server_->log().upgrades.empty());
  EXPECT_TRUE(delegate_->get().empty());
  EXPECT_FALSE(isOpen());
  EXPECT_EQ(lastFailure(),
            std::string("tls handshake: certificate verify failed (") + bad.verifyReason + ")");
}

INSTANTIATE_TEST_SUITE_P(
    Certificates, TransportBadCertificateTest,
    ::testing::Values(
        BadCertificate{"FromAnUntrustedCa", "self-signed certificate in certificate chain", false},
        BadCertificate{
            "ForAnotherHost", "IP address mismatch", true, {"elsewhere.invalid"}, {"127.0.0.2"}},
        BadCertificate{
            "Expired", "certificate has expired", true, {"localhost"}, {"127.0.0.1"}, -1}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tellora::transport_test
