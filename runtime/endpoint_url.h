// Where an http(s):// or ws(s):// URL points, split for a Beast client. The
// registration client and the WebSocket transport read their URLs through it.
#pragma once

#include <string>
#include <variant>

namespace tellora {

struct EndpointUrl {
  bool secure = false;
  std::string host;        // name or address, without IPv6 brackets
  std::string port;        // explicit or the scheme's default
  std::string hostHeader;  // value of the Host field: host, plus ":port" when the URL names one
  std::string target;      // path and query, "/" at least; never the fragment
};

enum class EndpointUrlProblem {
  malformed,          // unparseable, no usable host, port 0 or over 65535, path not after "/"
  unsupportedScheme,  // a scheme the caller does not accept
};

// http and https always; ws and wss too when `acceptWebSocketSchemes`.
std::variant<EndpointUrl, EndpointUrlProblem> parseEndpointUrl(const std::string& url,
                                                               bool acceptWebSocketSchemes);

}  // namespace tellora
