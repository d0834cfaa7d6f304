// Errors of the SDK's HTTP requests (the registration), and how a caller finds
// the HTTP status of a failed request.
//
// Contract:
// - Every failure of a request has the domain kTLRHTTPErrorDomain.
// - A response whose status is outside 200-299 fails with code = that status
//   (e.g. 801, 802, 500). Redirects (301, 302, 303, 307, 308 with a Location)
//   are followed up to five times, never from https to http; any other 3xx, or
//   one past the limit, fails the same way.
// - Any other failure has a negative code from TLRHTTPErrorCode (modelled on the
//   familiar URL-loading codes), e.g. -1004 when nothing listens on the port.
// - Whenever the response's status line and header arrived, the user info holds
//   that status under kTLRHTTPResponseStatusCodeKey ("HTTPResponseStatusCode")
//   as int64_t, also for a 2xx whose body then failed (not JSON, too large,
//   cut off). Without a response (bad URL, DNS, connect, TLS, the server hanging
//   up before answering, time-out before the header) the key is absent.
// - "message" (string) always describes the failure for logs; transport
//   failures add "underlyingError" (string), the system's own description.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tellora/error.h"

namespace tellora {

inline constexpr const char* kTLRHTTPErrorDomain = "com.tellora.HTTPErrorDomain";
// The same key the WebSocket transport uses for a refused upgrade.
inline constexpr const char* kTLRHTTPResponseStatusCodeKey = "HTTPResponseStatusCode";

// Codes of failures that are not an HTTP status. Negative, so they never
// collide with a status.
enum class TLRHTTPErrorCode : int64_t {
  Unknown = -1,
  BadURL = -1000,                     // the URL cannot be parsed or has no host
  TimedOut = -1001,                   // the connect or whole-request time limit passed
  UnsupportedURL = -1002,             // a scheme other than http or https
  CannotFindHost = -1003,             // the host name did not resolve
  CannotConnectToHost = -1004,        // refused or unreachable
  NetworkConnectionLost = -1005,      // the connection ended before a complete response
  BadServerResponse = -1011,          // not an HTTP/1.x response
  CannotParseResponse = -1017,        // a 2xx body that is not JSON
  ResponseTooLarge = -1103,           // body over the cap, or an oversized header
  SecureConnectionFailed = -1200,     // the TLS handshake failed
  ServerCertificateUntrusted = -1202  // the certificate chain or host name did not verify
};

// The HTTP status carried by an error under kTLRHTTPResponseStatusCodeKey, in
// any domain (so also a refused WebSocket upgrade), or nullopt.
std::optional<int64_t> httpStatusOfFailure(const TLRError& error);

// Builders for the two kinds of failure.
TLRError makeHTTPStatusError(unsigned status);
TLRError makeHTTPError(TLRHTTPErrorCode code, std::string message,
                       std::optional<unsigned> status = std::nullopt,
                       std::optional<std::string> underlyingError = std::nullopt);

}  // namespace tellora
