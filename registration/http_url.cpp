#include "registration/http_url.h"

namespace tellora {

std::variant<HttpEndpoint, TLRHTTPErrorCode> parseHttpUrl(const std::string& url) {
  auto parsed = parseEndpointUrl(url, /*acceptWebSocketSchemes=*/false);
  if (auto* endpoint = std::get_if<EndpointUrl>(&parsed)) return std::move(*endpoint);
  return std::get<EndpointUrlProblem>(parsed) == EndpointUrlProblem::unsupportedScheme
             ? TLRHTTPErrorCode::UnsupportedURL
             : TLRHTTPErrorCode::BadURL;
}

}  // namespace tellora
