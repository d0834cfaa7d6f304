// A client's WebSocket session: the opening handshake on an authenticated
// upgrade request, then frames in (to the hub) and text frames out (replies
// and pushes) through a bounded queue, until either side closes.
#pragma once

#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>

#include <cstdint>
#include <string>

#include "server/matcher/candidate_index.h"

namespace tellora::server {

struct ServerContext;

// Who the session speaks for, as the upgrade request showed.
struct SessionClient {
  ClientKey key = 0;
  int64_t appId = 0;  // the application it registered with: matched only within it
  std::string clientId;
  std::string appVersion;
  std::string peer;          // address:port, for the log
  uint64_t addressSlot = 0;  // its count in the address limits, released when it ends
};

using UpgradeRequest = boost::beast::http::request<boost::beast::http::string_body>;
using PlainStream = boost::beast::tcp_stream;
using TlsStream = boost::beast::ssl_stream<boost::beast::tcp_stream>;

// Takes over the stream of an HTTP session whose upgrade request was accepted.
template <class Stream>
void startWsSession(Stream stream, UpgradeRequest upgrade, SessionClient client,
                    ServerContext& context);

extern template void startWsSession<PlainStream>(PlainStream, UpgradeRequest, SessionClient,
                                                 ServerContext&);
extern template void startWsSession<TlsStream>(TlsStream, UpgradeRequest, SessionClient,
                                               ServerContext&);

}  // namespace tellora::server
