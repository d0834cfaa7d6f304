// One JSON POST over HTTP/1.1 or HTTPS (Boost.Beast), for the registration.
// The connection is used for this one exchange ("Connection: close"); TLS
// verifies the certificate chain and the host name (transport/tls_context.h).
#pragma once

#include <boost/asio/io_context.hpp>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <variant>

#include "tellora/error.h"

namespace tellora {

struct HttpTimeouts {
  // Resolving, connecting and the TLS handshake together.
  std::chrono::milliseconds connect{std::chrono::seconds(15)};
  // The whole exchange, from the call until the last byte of the response.
  std::chrono::milliseconds request{std::chrono::seconds(30)};
};

// A response body larger than this fails the request: the replies expected
// here are a few hundred bytes.
inline constexpr std::size_t kHttpResponseBodyLimit = 1u << 20;

// A 2xx response whose body is JSON. An empty (or blank) body gives a null
// `body`; any JSON value is accepted, objects or not.
struct HttpJsonResponse {
  unsigned status = 0;
  nlohmann::json body;
};

// Either the response or the failure, as described in registration/http_error.h.
using HttpJsonResult = std::variant<HttpJsonResponse, TLRError>;
using HttpJsonCompletion = std::function<void(HttpJsonResult result)>;

// POSTs `body` as "application/json" to `url`. Callable from any thread; the
// completion runs exactly once, on the thread running `context`, never inside
// this call.
void postJson(boost::asio::io_context& context, const std::string& url, const nlohmann::json& body,
              HttpJsonCompletion completion, HttpTimeouts timeouts = {});

}  // namespace tellora
