// Where an http:// or https:// URL points, split for a Beast client.
#pragma once

#include <string>
#include <variant>

#include "registration/http_error.h"
#include "runtime/endpoint_url.h"

namespace tellora {

using HttpEndpoint = EndpointUrl;

// The endpoint, or BadURL (unparseable, no host, port 0) / UnsupportedURL
// (any scheme but http and https).
std::variant<HttpEndpoint, TLRHTTPErrorCode> parseHttpUrl(const std::string& url);

}  // namespace tellora
