// wss:// against a loopback server whose certificate comes from a throw-away CA.
#include <cstdlib>

#include "tests/transport/transport_fixture.h"
#include "transport/tls_context.h"

namespace tellora::transport_test {
namespace {

using ::testing::ElementsAre;
using testing::TestCertificateOptions;
using testing::TestCertificates;

class TransportTlsTest : public TransportTest {
 protected:
  void TearDown() override {
    TransportTest::TearDown();
    setAdditionalTrustedCaFile(std::nullopt);
  }

  void useTlsServer(std::shared_ptr<const TestCertificates> certificates) {
    server_ = std::make_unique<WsTestServer>(WsTestServer::Security::Tls, std::move(certificates));
  }

  // Opens and expects the attempt to be refused in the TLS handshake, twice
  // (so the refusal is also retried), without a word to the delegate.
  void expectRefusedHandshakes() {
    open();
    ASSERT_TRUE(
        server_->waitFor([](const WsServerLog& log) { return log.failedTlsHandshakes >= 2; }));
    ASSERT_TRUE(waitForLog("didFailWithError: (null)", 2));
    EXPECT_TRUE(server_->log().upgrades.empty());
    EXPECT_TRUE(delegate_->events().empty());
    EXPECT_FALSE(isOpen());
  }
};

TEST_F(TransportTlsTest, TrustedCertificateCarriesTheConnection) {
  useTlsServer(TestCertificates::create());
  setAdditionalTrustedCaFile(server_->certificates()->caFile().string());
  server_->setHandler([](const testing::WsFrame& frame) {
    return std::vector<testing::WsReply>{{"got " + frame.payload}};
  });
  makeTransport(server_->url("/ws"), "tls-id", "tls-secret");
  ASSERT_EQ(transport_->url().rfind("wss://", 0), 0u);
  open();
  ASSERT_TRUE(delegate_->waitFor("opened"));
  EXPECT_EQ(server_->log().upgrades.at(0).header("clientId"), "tls-id");

  EXPECT_TRUE(onLoop([this] { return transport_->sendMessage("ping"); }));
  ASSERT_TRUE(delegate_->waitFor("message:got ping"));
  EXPECT_TRUE(server_->log().frames.at(0).binary);

  server_->closeConnections(3002);
  ASSERT_TRUE(delegate_->waitFor("closed:3002"));
}

TEST_F(TransportTlsTest, HostNameIsCheckedAgainstTheCertificate) {
  useTlsServer(TestCertificates::create());
  setAdditionalTrustedCaFile(server_->certificates()->caFile().string());
  makeTransport(server_->url("/ws", "localhost"));
  open();
  ASSERT_TRUE(delegate_->waitFor("opened"));
}

TEST_F(TransportTlsTest, CaFileFromTheEnvironmentIsTrusted) {
  useTlsServer(TestCertificates::create());
  ASSERT_EQ(setenv("TELLORA_CA_FILE", server_->certificates()->caFile().c_str(), 1), 0);
  makeTransport(server_->url());
  open();
  const bool opened = delegate_->waitFor("opened");
  destroyTransport();
  unsetenv("TELLORA_CA_FILE");
  EXPECT_TRUE(opened);
}

TEST_F(TransportTlsTest, CertificateFromAnUntrustedCaIsRefused) {
  auto trusted = TestCertificates::create();
  setAdditionalTrustedCaFile(trusted->caFile().string());
  useTlsServer(TestCertificates::create());  // signed by a different CA
  makeTransport(server_->url());
  expectRefusedHandshakes();
}

TEST_F(TransportTlsTest, CertificateForAnotherHostIsRefused) {
  TestCertificateOptions options;
  options.dnsNames = {"elsewhere.invalid"};
  options.ipAddresses = {"127.0.0.2"};
  options.commonName = "127.0.0.1";  // the common name alone does not count
  useTlsServer(TestCertificates::create(options));
  setAdditionalTrustedCaFile(server_->certificates()->caFile().string());
  makeTransport(server_->url());
  expectRefusedHandshakes();
}

TEST_F(TransportTlsTest, ExpiredCertificateIsRefused) {
  TestCertificateOptions options;
  options.validDays = -1;
  useTlsServer(TestCertificates::create(options));
  setAdditionalTrustedCaFile(server_->certificates()->caFile().string());
  makeTransport(server_->url());
  expectRefusedHandshakes();
}

TEST_F(TransportTlsTest, PlainClientAgainstTlsServerFailsAndRetries) {
  useTlsServer(TestCertificates::create());
  const std::string plainUrl = "ws://127.0.0.1:" + std::to_string(server_->port()) + "/ws";
  makeTransport(plainUrl);
  open();
  ASSERT_TRUE(waitForLog("didFailWithError: (null)", 2));
  EXPECT_TRUE(delegate_->events().empty());
}

}  // namespace
}  // namespace tellora::transport_test
