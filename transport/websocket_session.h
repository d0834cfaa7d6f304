// One WebSocket client connection (Boost.Beast): resolve, connect, TLS for
// wss://, the upgrade request, then frames until it closes. A session makes at
// most one connection; reconnecting takes a new session.
#pragma once

#include <boost/asio/io_context.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "runtime/endpoint_url.h"
#include "tellora/error.h"
#include "transport/transport.h"

namespace tellora {

class WebSocketSession;

// Receives a session's events, always on the session's io_context thread.
class WebSocketSessionDelegate {
 public:
  virtual ~WebSocketSessionDelegate() = default;
  virtual void webSocketDidOpen(WebSocketSession& session) = 0;
  virtual void webSocketDidReceiveMessage(WebSocketSession& session,
                                          const std::string& message) = 0;
  // The open connection ended (or a close was asked for before it opened).
  virtual void webSocketDidClose(WebSocketSession& session, uint16_t code,
                                 const std::string& reason, bool wasClean) = 0;
  // The connection could not be opened, or the open connection broke (reset,
  // write error, time-out) without the server ending it.
  virtual void webSocketDidFail(WebSocketSession& session, const TLRError& error) = 0;
};

// User-info keys of a failure's error: the HTTP status of a refused upgrade; a
// short readable account ("connect: Connection refused"); true when the
// connection had been open.
inline constexpr const char* kHTTPResponseStatusCodeKey = "HTTPResponseStatusCode";
inline constexpr const char* kFailureDescriptionKey = "description";
inline constexpr const char* kFailureWhileOpenKey = "whileOpen";

// Close codes the session reports for endings without a close frame from the
// server: the end of the stream, and the server's protocol violations.
inline constexpr uint16_t kCloseCodeAbnormal = 1006;
inline constexpr uint16_t kCloseCodeProtocolError = 1002;
inline constexpr uint16_t kCloseCodeInvalidPayload = 1007;
inline constexpr uint16_t kCloseCodeTooBig = 1009;

// What a session connects to: a ws:// or wss:// URL and the extra header
// fields of the upgrade request, added in order.
struct WebSocketRequest {
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;
};

// Where a URL points, or nullopt for a URL the session cannot use.
// (http and https name the same endpoints as ws and wss.)
using WebSocketEndpoint = EndpointUrl;
std::optional<WebSocketEndpoint> parseWebSocketUrl(const std::string& url);

// Created, opened, used and closed on the thread running `context`.
class WebSocketSession {
 public:
  // Inbound messages larger than this end the connection.
  static constexpr std::size_t kInboundMessageLimit = 1u << 20;

  static std::shared_ptr<WebSocketSession> create(boost::asio::io_context& context,
                                                  WebSocketRequest request,
                                                  std::weak_ptr<WebSocketSessionDelegate> delegate);
  virtual ~WebSocketSession() = default;

  virtual TLRReadyState readyState() const = 0;
  // Starts the one connection attempt; later calls do nothing.
  virtual void open() = 0;
  // Closes with code 1000 after the frames already queued; a connection still
  // being opened is abandoned. Either way the delegate hears of the close, at
  // the latest when the closing handshake times out.
  virtual void close() = 0;
  // Queues one binary frame; only while open.
  virtual void send(std::string bytes) = 0;
  // Ends the session without telling the delegate anything more.
  virtual void abandon() = 0;
};

}  // namespace tellora
