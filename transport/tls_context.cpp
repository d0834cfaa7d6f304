#include "transport/tls_context.h"

#include <boost/asio/error.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ssl/error.hpp>

#include <cstdlib>
#include <mutex>

#include <openssl/err.h>

#include "runtime/log.h"

namespace tellora {
namespace {

std::mutex caFileMutex;
std::optional<std::string> additionalCaFile;

void trustCaFile(boost::asio::ssl::context& context, const std::string& path) {
  boost::system::error_code ec;
  context.load_verify_file(path, ec);
  if (ec) logf("Tellora: cannot load CA file %s: %s", path.c_str(), ec.message().c_str());
}

boost::system::error_code lastSslError() {
  return {static_cast<int>(ERR_get_error()), boost::asio::error::get_ssl_category()};
}

}  // namespace

boost::asio::ssl::context makeClientTlsContext() {
  boost::asio::ssl::context context(boost::asio::ssl::context::tls_client);
  context.set_options(boost::asio::ssl::context::default_workarounds |
                      boost::asio::ssl::context::no_sslv2 | boost::asio::ssl::context::no_sslv3);
  context.set_verify_mode(boost::asio::ssl::verify_peer);
  boost::system::error_code ec;
  context.set_default_verify_paths(ec);
  if (ec) logf("Tellora: cannot load the system CA paths: %s", ec.message().c_str());
  if (const char* path = std::getenv("TELLORA_CA_FILE"); path && *path) trustCaFile(context, path);
  std::optional<std::string> extra;
  {
    std::lock_guard lock(caFileMutex);
    extra = additionalCaFile;
  }
  if (extra && !extra->empty()) trustCaFile(context, *extra);
  return context;
}

void setAdditionalTrustedCaFile(std::optional<std::string> path) {
  std::lock_guard lock(caFileMutex);
  additionalCaFile = std::move(path);
}

boost::system::error_code prepareTlsClient(SSL* ssl, std::string_view host) {
  const std::string name(host);
  boost::system::error_code addressError;
  boost::asio::ip::make_address(name, addressError);
  const bool isAddress = !addressError;
  if (!isAddress && SSL_set_tlsext_host_name(ssl, name.c_str()) != 1) return lastSslError();
  // With OpenSSL 3 this accepts IP literals too and then checks the
  // certificate's IP address entries instead of its DNS names.
  if (SSL_set1_host(ssl, name.c_str()) != 1) return lastSslError();
  return {};
}

}  // namespace tellora
