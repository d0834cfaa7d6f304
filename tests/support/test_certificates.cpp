#include "tests/support/test_certificates.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>

namespace tellora::testing {
namespace {

struct KeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct CertDeleter {
  void operator()(X509* cert) const { X509_free(cert); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyDeleter>;
using CertPtr = std::unique_ptr<X509, CertDeleter>;

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("test certificates: ") + what + " failed");
}

KeyPtr makeKey() {
  // P-256 keys are generated in microseconds, unlike RSA keys.
  KeyPtr key(EVP_EC_gen("P-256"));
  check(key != nullptr, "key generation");
  return key;
}

void addExtension(X509* cert, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
  check(ext != nullptr, "certificate extension");
  const int added = X509_add_ext(cert, ext, -1);
  X509_EXTENSION_free(ext);
  check(added == 1, "adding an extension");
}

CertPtr makeCertificate(EVP_PKEY* key, const std::string& commonName, long serial, int validDays) {
  CertPtr cert(X509_new());
  check(cert != nullptr, "X509_new");
  check(X509_set_version(cert.get(), 2) == 1, "certificate version");
  check(ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial) == 1, "serial number");
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), static_cast<long>(validDays) * 86400);
  check(X509_set_pubkey(cert.get(), key) == 1, "public key");
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("Tellora tests"), -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
  return cert;
}

void writePem(const std::filesystem::path& path, X509* first, X509* second, EVP_PKEY* key) {
  FILE* file = std::fopen(path.c_str(), "w");
  check(file != nullptr, "opening a PEM file");
  bool ok = true;
  if (first) ok = ok && PEM_write_X509(file, first) == 1;
  if (second) ok = ok && PEM_write_X509(file, second) == 1;
  if (key) ok = ok && PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
  ok = std::fclose(file) == 0 && ok;
  check(ok, "writing a PEM file");
}

std::filesystem::path makePrivateDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "tellora-certs-XXXXXX").string();
  check(mkdtemp(pattern.data()) != nullptr, "mkdtemp");
  return pattern;
}

}  // namespace

TestCertificates::TestCertificates(std::filesystem::path directory)
    : directory_(std::move(directory)) {}

TestCertificates::~TestCertificates() {
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

std::shared_ptr<const TestCertificates> TestCertificates::create(
    const TestCertificateOptions& options) {
  std::shared_ptr<TestCertificates> result(new TestCertificates(makePrivateDirectory()));

  KeyPtr caKey = makeKey();
  CertPtr ca = makeCertificate(caKey.get(), "Tellora throw-away test CA", 1, 2);
  X509_set_issuer_name(ca.get(), X509_get_subject_name(ca.get()));
  addExtension(ca.get(), ca.get(), NID_basic_constraints, "critical,CA:TRUE");
  addExtension(ca.get(), ca.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  addExtension(ca.get(), ca.get(), NID_subject_key_identifier, "hash");
  check(X509_sign(ca.get(), caKey.get(), EVP_sha256()) > 0, "signing the CA");

  KeyPtr serverKey = makeKey();
  CertPtr server = makeCertificate(serverKey.get(), options.commonName, 2, options.validDays);
  X509_set_issuer_name(server.get(), X509_get_subject_name(ca.get()));
  addExtension(server.get(), ca.get(), NID_basic_constraints, "critical,CA:FALSE");
  addExtension(server.get(), ca.get(), NID_key_usage, "critical,digitalSignature");
  addExtension(server.get(), ca.get(), NID_ext_key_usage, "serverAuth");
  addExtension(server.get(), ca.get(), NID_authority_key_identifier, "keyid");
  std::string altNames;
  for (const auto& dns : options.dnsNames)
    altNames += (altNames.empty() ? "" : ",") + ("DNS:" + dns);
  for (const auto& ip : options.ipAddresses)
    altNames += (altNames.empty() ? "" : ",") + ("IP:" + ip);
  if (!altNames.empty()) addExtension(server.get(), ca.get(), NID_subject_alt_name, altNames);
  check(X509_sign(server.get(), caKey.get(), EVP_sha256()) > 0, "signing the server certificate");

  writePem(result->caFile(), ca.get(), nullptr, nullptr);
  writePem(result->certificateChainFile(), server.get(), ca.get(), nullptr);
  writePem(result->privateKeyFile(), nullptr, nullptr, serverKey.get());
  return result;
}

}  // namespace tellora::testing
