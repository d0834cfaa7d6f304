// Throw-away TLS material for tests: a fresh certificate authority and a server
// certificate it signed, generated with OpenSSL when a test runs and written as
// PEM files to a private temporary directory (removed again with the object).
//
//   auto certs = tellora::testing::TestCertificates::create();
//   server uses certs->certificateChainFile() and certs->privateKeyFile();
//   clients trust certs->caFile().
//
// Every object has its own CA, so the CA of one object does not vouch for the
// server certificate of another: that is how tests build an untrusted server.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace tellora::testing {

struct TestCertificateOptions {
  // Subject alternative names of the server certificate.
  std::vector<std::string> dnsNames{"localhost"};
  std::vector<std::string> ipAddresses{"127.0.0.1"};
  std::string commonName = "localhost";
  // Validity from one hour ago; a negative value yields an already expired certificate.
  int validDays = 2;
};

class TestCertificates {
 public:
  // Generates the CA and the server certificate. Throws std::runtime_error
  // when OpenSSL or the file system fails.
  static std::shared_ptr<const TestCertificates> create(const TestCertificateOptions& options = {});
  ~TestCertificates();
  TestCertificates(const TestCertificates&) = delete;
  TestCertificates& operator=(const TestCertificates&) = delete;

  // The CA certificate (PEM): what a client has to trust.
  std::filesystem::path caFile() const { return directory_ / "ca.pem"; }
  // The server certificate followed by the CA certificate (PEM).
  std::filesystem::path certificateChainFile() const { return directory_ / "server-chain.pem"; }
  // The server's private key (PEM, unencrypted).
  std::filesystem::path privateKeyFile() const { return directory_ / "server-key.pem"; }

 private:
  explicit TestCertificates(std::filesystem::path directory);
  std::filesystem::path directory_;
};

}  // namespace tellora::testing
