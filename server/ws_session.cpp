#include "server/ws_session.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <deque>
#include <exception>
#include <memory>
#include <utility>

#include "runtime/log.h"
#include "server/server_context.h"

namespace tellora::server {

namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace websocket = beast::websocket;

// The server runs one thread, so the handlers of a session never run
// concurrently and need no strand.
template <class Stream>
class WsSession : public ClientConnection,
                  public ManagedConnection,
                  public std::enable_shared_from_this<WsSession<Stream>> {
 public:
  WsSession(Stream stream, SessionClient client, ServerContext& context)
      : ws_(std::move(stream)), client_(std::move(client)), context_(context) {}

  // Only when the server's io_context goes away with the session still open:
  // the hub is not told, since pushing to others then would start operations
  // on a context that is shutting down.
  ~WsSession() override {
    if (registryId_ != 0) context_.registry.remove(registryId_);
    context_.addressLimits.release(client_.addressSlot);
  }

  void start(UpgradeRequest upgrade) {
    registryId_ = context_.registry.add(this->weak_from_this());
    const auto& limits = context_.options.limits;
    // From here on the WebSocket's own timeouts apply, not the socket's.
    beast::get_lowest_layer(ws_).expires_never();
    websocket::stream_base::timeout timeouts{};
    timeouts.handshake_timeout = limits.wsHandshakeTimeout;
    timeouts.idle_timeout = limits.wsIdleTimeout;
    timeouts.keep_alive_pings = true;
    ws_.set_option(timeouts);
    ws_.set_option(websocket::stream_base::decorator([](websocket::response_type& response) {
      response.set(http::field::server, kServerName);
    }));
    ws_.read_message_max(limits.maxFrameBytes);
    upgrade_ = std::move(upgrade);
    ws_.async_accept(
        upgrade_, [self = this->shared_from_this()](beast::error_code ec) { self->onAccept(ec); });
  }

  // --- ClientConnection ------------------------------------------------------
  void send(std::string text) override {
    if (!open_ || closeQueued_) return;
    const auto& limits = context_.options.limits;
    if (queue_.size() >= limits.maxQueuedFrames ||
        queuedBytes_ + text.size() > limits.maxQueuedBytes) {
      logf("client %s: %zu frames (%zu bytes) unsent, the client does not read; dropping it",
           client_.clientId.c_str(), queue_.size(), queuedBytes_);
      ++context_.metrics.slowClientsDropped;
      return tearDown();
    }
    queuedBytes_ += text.size();
    queue_.push_back({std::move(text), false});
    if (!writing_) writeNext();
  }

  void close(uint16_t code, std::string reason) override {
    if (!open_ || closeQueued_) return;
    closeQueued_ = true;
    closeCode_ = code;
    queue_.push_back({std::move(reason), true});
    if (!writing_) writeNext();
  }

  // --- ManagedConnection -----------------------------------------------------
  void shutdown(uint16_t closeCode) override {
    if (open_) {
      return close(closeCode,
                   closeCode == kCloseGoingAway ? "server going away" : "server shutting down");
    }
    tearDown();
  }

 private:
  struct Outgoing {
    std::string text;  // the frame, or the close reason
    bool isClose;
  };

  void onAccept(beast::error_code ec) {
    if (ec) {
      logf("client %s from %s: WebSocket handshake failed: %s", client_.clientId.c_str(),
           client_.peer.c_str(), ec.message().c_str());
      return end("handshake failed");
    }
    open_ = true;
    ++context_.metrics.wsSessions;
    logf("client %s connected from %s (app_version \"%s\")", client_.clientId.c_str(),
         client_.peer.c_str(), client_.appVersion.c_str());
    context_.hub.attach(client_.key, client_.appId, client_.clientId, this->shared_from_this());
    read();
  }

  void read() {
    ws_.async_read(buffer_, [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
      self->onRead(ec);
    });
  }

  void onRead(beast::error_code ec) {
    if (ec) {
      // While our closing handshake runs, the read ends with it (closed or
      // aborted, depending on who got the client's answer).
      if (closeQueued_ && (ec == websocket::error::closed || ec == net::error::operation_aborted))
        return end("closed by the server with " + std::to_string(closeCode_));
      if (ec == websocket::error::closed)
        return end("closed by the client with " + std::to_string(ws_.reason().code));
      if (ec == websocket::error::message_too_big) return end("frame over the size limit");
      return end("connection lost: " + ec.message());
    }
    ++context_.metrics.wsMessagesIn;
    const std::string frame = beast::buffers_to_string(buffer_.data());
    buffer_.consume(buffer_.size());
    try {
      context_.hub.receive(client_.key, this, frame);
    } catch (const std::exception& e) {
      logf("client %s: a frame failed: %s", client_.clientId.c_str(), e.what());
    }
    read();
  }

  void writeNext() {
    if (queue_.empty() || ended_) {
      writing_ = false;
      return;
    }
    writing_ = true;
    auto self = this->shared_from_this();
    Outgoing& next = queue_.front();
    if (next.isClose) {
      const websocket::close_reason reason(static_cast<websocket::close_code>(closeCode_),
                                           next.text);
      queue_.clear();
      queuedBytes_ = 0;
      // The read loop ends the session when the client answers, or at the
      // handshake timeout when it does not.
      ws_.async_close(reason, [self](beast::error_code ec) {
        self->writing_ = false;
        if (ec) self->tearDown();
      });
      return;
    }
    ws_.text(true);
    ws_.async_write(net::buffer(next.text), [self](beast::error_code ec, std::size_t) {
      self->queuedBytes_ -= self->queue_.front().text.size();
      self->queue_.pop_front();
      if (ec) {
        self->writing_ = false;
        return self->tearDown();
      }
      ++self->context_.metrics.wsMessagesOut;
      self->writeNext();
    });
  }

  // Ends the connection without a closing handshake; the pending operations
  // then fail and end the session from their handlers.
  void tearDown() {
    beast::error_code ignored;
    beast::get_lowest_layer(ws_).socket().close(ignored);
  }

  void end(const std::string& why) {
    if (ended_) return;
    ended_ = true;
    if (open_) {
      open_ = false;
      --context_.metrics.wsSessions;
      context_.hub.detach(client_.key, this);
      logf("client %s disconnected: %s", client_.clientId.c_str(), why.c_str());
    }
    // The queue stays: a write in flight may still read its front.
    if (registryId_ != 0) context_.registry.remove(registryId_);
    registryId_ = 0;
    context_.addressLimits.release(std::exchange(client_.addressSlot, 0));
  }

  websocket::stream<Stream> ws_;
  SessionClient client_;
  ServerContext& context_;
  UpgradeRequest upgrade_;
  beast::flat_buffer buffer_;
  std::deque<Outgoing> queue_;
  std::size_t queuedBytes_ = 0;
  uint64_t registryId_ = 0;
  uint16_t closeCode_ = 0;
  bool open_ = false;
  bool writing_ = false;
  bool closeQueued_ = false;
  bool ended_ = false;
};

}  // namespace

template <class Stream>
void startWsSession(Stream stream, UpgradeRequest upgrade, SessionClient client,
                    ServerContext& context) {
  std::make_shared<WsSession<Stream>>(std::move(stream), std::move(client), context)
      ->start(std::move(upgrade));
}

template void startWsSession<PlainStream>(PlainStream, UpgradeRequest, SessionClient,
                                          ServerContext&);
template void startWsSession<TlsStream>(TlsStream, UpgradeRequest, SessionClient, ServerContext&);

}  // namespace tellora::server
