#include "registration/http_url.h"

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

std::variant<HttpEndpoint, TLRHTTPErrorCode> parseHttpUrl(const std::string& url) {
  const auto parsed = boost::urls::parse_uri(url);
  if (!parsed) return TLRHTTPErrorCode::BadURL;
  const boost::urls::url_view& view = *parsed;
  HttpEndpoint endpoint;
  switch (view.scheme_id()) {
    case boost::urls::scheme::http:
      endpoint.secure = false;
      break;
    case boost::urls::scheme::https:
      endpoint.secure = true;
      break;
    default:
      return TLRHTTPErrorCode::UnsupportedURL;
  }
  endpoint.host = view.host_address();
  if (!isUsableHost(endpoint.host)) return TLRHTTPErrorCode::BadURL;
  const bool explicitPort = view.has_port() && !view.port().empty();
  if (explicitPort) {
    // port_number() wraps values over 65535, so the text itself is checked.
    const std::string_view text = view.port();
    unsigned number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number == 0 || number > 65535) {
      return TLRHTTPErrorCode::BadURL;
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
