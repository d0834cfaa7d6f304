// One accepted connection until it becomes a WebSocket or ends: the TLS
// handshake when the server is secure, then HTTP/1.1 requests - registration,
// and the upgrade request, which is authenticated here and refused with 802
// for an unknown client or a wrong secret.
#pragma once

#include <boost/asio/ip/tcp.hpp>

#include <cstdint>

namespace tellora::server {

struct ServerContext;

// `slot` is the connection's count in the address limits; the sessions release it.
void startHttpSession(boost::asio::ip::tcp::socket socket,
                      const boost::asio::ip::tcp::endpoint& peer, uint64_t slot,
                      ServerContext& context);

}  // namespace tellora::server
