// TLS settings for the SDK's client connections (wss:// and https://).
#pragma once

#include <boost/asio/ssl/context.hpp>
#include <boost/system/error_code.hpp>

#include <optional>
#include <string>
#include <string_view>

#include <openssl/ssl.h>

namespace tellora {

// A client context that verifies the server's certificate chain. It trusts the
// system's default CA paths plus, when set, the PEM CA file named by the
// environment variable TELLORA_CA_FILE (for private deployments and tests) and
// the file given to setAdditionalTrustedCaFile(). Built anew for each
// connection, so changes to either take effect at the next attempt. A CA file
// that cannot be loaded is logged and skipped.
boost::asio::ssl::context makeClientTlsContext();

// Trusts this PEM CA file in addition to the others (nullopt removes it).
// Thread-safe.
void setAdditionalTrustedCaFile(std::optional<std::string> path);

// Prepares a client connection to `host` before its handshake: sends the name
// as SNI (not for IP literals, which SNI does not carry) and makes the
// verification require a certificate issued for that name or address.
boost::system::error_code prepareTlsClient(SSL* ssl, std::string_view host);

}  // namespace tellora
