#include "runtime/endpoint_url.h"

#include <boost/url/parse.hpp>

#include <algorithm>
#include <charconv>
#include <string_view>
#include <system_error>

namespace tellora {
namespace {

// A decoded host may hold anything percent-encoding can express; only names
// that can go into a Host field unchanged are usable.
bool isUsableHost(const std::string& host) {
  return !host.empty() && std::none_of(host.begin(), host.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte <= 0x20 || byte == 0x7f;
  });
}

}  // namespace

std::variant<EndpointUrl, EndpointUrlProblem> parseEndpointUrl(const std::string& url,
                                                               bool acceptWebSocketSchemes) {
  using Problem = EndpointUrlProblem;
  const auto parsed = boost::urls::parse_uri(url);
  if (!parsed) return Problem::malformed;
  const boost::urls::url_view& view = *parsed;
  EndpointUrl endpoint;
  switch (view.scheme_id()) {
    case boost::urls::scheme::http:
      endpoint.secure = false;
      break;
    case boost::urls::scheme::https:
      endpoint.secure = true;
      break;
    case boost::urls::scheme::ws:
    case boost::urls::scheme::wss:
      if (!acceptWebSocketSchemes) return Problem::unsupportedScheme;
      endpoint.secure = view.scheme_id() == boost::urls::scheme::wss;
      break;
    default:
      return Problem::unsupportedScheme;
  }
  endpoint.host = view.host_address();
  if (!isUsableHost(endpoint.host)) return Problem::malformed;
  // After an authority the path must be empty or start with "/". Checked here
  // because the parser reads "host:http/ws" as an empty port and a path "http/ws".
  const std::string_view path = view.encoded_path();
  if (!path.empty() && path.front() != '/') return Problem::malformed;
  const bool explicitPort = view.has_port() && !view.port().empty();
  if (explicitPort) {
    // port_number() wraps values over 65535, so the text itself is checked.
    const std::string_view text = view.port();
    unsigned number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number == 0 || number > 65535) {
      return Problem::malformed;
    }
    endpoint.port = std::to_string(number);
  } else {
    endpoint.port = endpoint.secure ? "443" : "80";
  }
  const bool ipv6 = view.host_type() == boost::urls::host_type::ipv6;
  endpoint.hostHeader = ipv6 ? "[" + endpoint.host + "]" : endpoint.host;
  if (explicitPort) endpoint.hostHeader += ":" + endpoint.port;
  endpoint.target = view.encoded_target();
  if (endpoint.target.empty() || endpoint.target.front() != '/') endpoint.target.insert(0, "/");
  return endpoint;
}

}  // namespace tellora
