// Where an http:// or https:// URL points, split for a Beast client.
#pragma once

#include <string>
#include <variant>

#include "registration/http_error.h"

namespace tellora {

struct HttpEndpoint {
  bool secure = false;
  std::string host;        // name or address, without IPv6 brackets
  std::string port;        // explicit or the scheme's default
  std::string hostHeader;  // value of the Host field: host, plus ":port" when the URL names one
  std::string target;      // path and query, "/" at least; never the fragment
};

// The endpoint, or BadURL (unparseable, no host, port 0) / UnsupportedURL
// (any scheme but http and https).
std::variant<HttpEndpoint, TLRHTTPErrorCode> parseHttpUrl(const std::string& url);

}  // namespace tellora
