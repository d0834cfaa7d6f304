#include "transport/websocket_session.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <chrono>
#include <deque>
#include <string_view>
#include <type_traits>

#include "transport/tls_context.h"

namespace tellora {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;

// Each step of opening has its own limit, so a silent server costs one failed
// attempt (and a retry) instead of a connection that hangs for ever. The
// upgrade limit also bounds the closing handshake.
constexpr auto kResolveTimeout = std::chrono::seconds(10);
constexpr auto kConnectTimeout = std::chrono::seconds(10);
constexpr auto kTlsHandshakeTimeout = std::chrono::seconds(10);
constexpr auto kUpgradeTimeout = std::chrono::seconds(10);

TLRError makeFailure(const beast::error_code& ec, const char* step, unsigned httpStatus) {
  TLRError error;
  error.domain = ec.category().name();
  error.code = ec.value();
  error.userInfo["message"] = ec.message();
  error.userInfo["step"] = std::string(step);
  if (httpStatus != 0) error.userInfo[kHTTPResponseStatusCodeKey] = int64_t{httpStatus};
  return error;
}

template <bool Secure>
class BasicWebSocketSession final
    : public WebSocketSession,
      public std::enable_shared_from_this<BasicWebSocketSession<Secure>> {
 public:
  using NextLayer =
      std::conditional_t<Secure, beast::ssl_stream<beast::tcp_stream>, beast::tcp_stream>;

  BasicWebSocketSession(net::io_context& context, WebSocketRequest request,
                        std::optional<WebSocketEndpoint> endpoint,
                        std::weak_ptr<WebSocketSessionDelegate> delegate)
      : context_(context),
        request_(std::move(request)),
        endpoint_(std::move(endpoint)),
        delegate_(std::move(delegate)),
        resolver_(context),
        resolveDeadline_(context) {
    if constexpr (Secure) {
      tls_ = std::make_unique<ssl::context>(makeClientTlsContext());
      ws_ = std::make_unique<websocket::stream<NextLayer>>(context, *tls_);
    } else {
      ws_ = std::make_unique<websocket::stream<NextLayer>>(context);
    }
  }

  TLRReadyState readyState() const override { return state_; }

  void open() override {
    if (started_ || state_ != TLRReadyState::Connecting) return;
    started_ = true;
    auto self = this->shared_from_this();
    if (!endpoint_) {
      // Reported from the loop, never from inside open().
      net::post(context_, [self] {
        self->fail(make_error_code(boost::system::errc::invalid_argument), "url");
      });
      return;
    }
    resolveDeadline_.expires_after(kResolveTimeout);
    resolveDeadline_.async_wait([self](beast::error_code ec) {
      if (!ec) self->resolver_.cancel();
    });
    resolver_.async_resolve(endpoint_->host, endpoint_->port,
                            [self](beast::error_code ec, tcp::resolver::results_type results) {
                              self->onResolve(ec, std::move(results));
                            });
  }

  void close() override {
    switch (state_) {
      case TLRReadyState::Connecting:
        if (!started_) {
          state_ = TLRReadyState::Closed;
          finished_ = true;
          return;
        }
        // The step in flight completes aborted and reports the close.
        closeRequested_ = true;
        state_ = TLRReadyState::Closing;
        cancelEverything();
        return;
      case TLRReadyState::Open:
        state_ = TLRReadyState::Closing;
        outbox_.push_back(Outgoing{{}, true});
        if (!writing_) writeNext();
        return;
      default:
        return;
    }
  }

  void send(std::string bytes) override {
    if (state_ != TLRReadyState::Open) return;
    outbox_.push_back(Outgoing{std::move(bytes), false});
    if (!writing_) writeNext();
  }

  void abandon() override {
    delegate_.reset();
    if (state_ == TLRReadyState::Open) {
      close();  // a polite close frame; nobody hears the outcome
    } else if (!finished_) {
      closeRequested_ = true;
      cancelEverything();
    }
  }

 private:
  struct Outgoing {
    std::string bytes;
    bool isClose = false;
  };

  // Every step handler starts with this: a close asked for while opening wins
  // over whatever the step achieved.
  bool closedWhileOpening() {
    if (!closeRequested_) return false;
    finishClosed(websocket::close_code::normal, "", false);
    return true;
  }

  void onResolve(beast::error_code ec, tcp::resolver::results_type results) {
    resolveDeadline_.cancel();
    if (closedWhileOpening()) return;
    if (ec) return fail(ec, "resolve");
    beast::get_lowest_layer(*ws_).expires_after(kConnectTimeout);
    beast::get_lowest_layer(*ws_).async_connect(
        results, [self = this->shared_from_this()](beast::error_code ec, tcp::endpoint) {
          self->onConnect(ec);
        });
  }

  void onConnect(beast::error_code ec) {
    if (closedWhileOpening()) return;
    if (ec) return fail(ec, "connect");
    if constexpr (Secure) {
      if (auto error = prepareTlsClient(ws_->next_layer().native_handle(), endpoint_->host))
        return fail(error, "tls setup");
      beast::get_lowest_layer(*ws_).expires_after(kTlsHandshakeTimeout);
      ws_->next_layer().async_handshake(
          ssl::stream_base::client,
          [self = this->shared_from_this()](beast::error_code ec) { self->onTlsHandshake(ec); });
    } else {
      upgrade();
    }
  }

  void onTlsHandshake(beast::error_code ec) {
    if (closedWhileOpening()) return;
    if (ec) return fail(ec, "tls handshake");
    upgrade();
  }

  void upgrade() {
    // From here on the websocket stream's own timeouts apply, not the socket's.
    beast::get_lowest_layer(*ws_).expires_never();
    websocket::stream_base::timeout timeouts{};
    timeouts.handshake_timeout = kUpgradeTimeout;
    timeouts.idle_timeout = websocket::stream_base::none();
    timeouts.keep_alive_pings = false;
    ws_->set_option(timeouts);
    ws_->set_option(websocket::stream_base::decorator(
        [headers = request_.headers](websocket::request_type& request) {
          for (const auto& [name, value] : headers)
            request.insert(name, value);
        }));
    ws_->read_message_max(kInboundMessageLimit);
    ws_->async_handshake(
        response_, endpoint_->hostHeader, endpoint_->target,
        [self = this->shared_from_this()](beast::error_code ec) { self->onUpgrade(ec); });
  }

  void onUpgrade(beast::error_code ec) {
    if (closedWhileOpening()) return;
    if (ec) {
      const unsigned status = ec == websocket::error::upgrade_declined ? response_.result_int() : 0;
      return fail(ec, "upgrade", status);
    }
    state_ = TLRReadyState::Open;
    ws_->binary(true);
    read();
    if (auto delegate = delegate_.lock()) delegate->webSocketDidOpen(*this);
  }

  void read() {
    ws_->async_read(readBuffer_, [self = this->shared_from_this()](
                                     beast::error_code ec, std::size_t) { self->onRead(ec); });
  }

  // An open connection that ends without a close frame (end of stream, reset,
  // a write failure, or an inbound message over the size limit) is reported as
  // a close with 1006 (1009 for the oversized message), not as a failure:
  // failures mean "could not be opened" and lead to retries while a close
  // is left to the owner.
  void onRead(beast::error_code ec) {
    if (finished_) return;
    if (ec == websocket::error::closed) {
      return finishClosed(ws_->reason().code, std::string(ws_->reason().reason.c_str()), true);
    }
    if (ec == websocket::error::message_too_big) {
      return finishClosed(kCloseCodeTooBig, "message too big", false);
    }
    if (ec) return finishClosed(kCloseCodeAbnormal, ec.message(), false);
    const std::string message = beast::buffers_to_string(readBuffer_.data());
    readBuffer_.consume(readBuffer_.size());
    read();  // before the delegate runs: it may close, which needs a reader
    if (auto delegate = delegate_.lock()) delegate->webSocketDidReceiveMessage(*this, message);
  }

  void writeNext() {
    if (outbox_.empty() || finished_) {
      writing_ = false;
      return;
    }
    writing_ = true;
    auto self = this->shared_from_this();
    if (outbox_.front().isClose) {
      outbox_.clear();
      ws_->async_close(websocket::close_code::normal, [self](beast::error_code ec) {
        self->writing_ = false;
        // Without the server's answer the reader may wait; end it here.
        if (ec) self->finishClosed(kCloseCodeAbnormal, ec.message(), false);
      });
      return;
    }
    ws_->async_write(net::buffer(outbox_.front().bytes), [self](beast::error_code ec, std::size_t) {
      self->outbox_.pop_front();
      if (ec) {
        self->writing_ = false;
        return self->finishClosed(kCloseCodeAbnormal, ec.message(), false);
      }
      self->writeNext();
    });
  }

  void cancelEverything() {
    resolveDeadline_.cancel();
    resolver_.cancel();
    beast::get_lowest_layer(*ws_).close();
  }

  void fail(beast::error_code ec, const char* step, unsigned httpStatus = 0) {
    if (closedWhileOpening() || finished_) return;
    finished_ = true;
    state_ = TLRReadyState::Closed;
    cancelEverything();
    const TLRError error = makeFailure(ec, step, httpStatus);
    if (auto delegate = delegate_.lock()) delegate->webSocketDidFail(*this, error);
  }

  void finishClosed(uint16_t code, const std::string& reason, bool wasClean) {
    if (finished_) return;
    finished_ = true;
    state_ = TLRReadyState::Closed;
    outbox_.clear();
    cancelEverything();
    if (auto delegate = delegate_.lock())
      delegate->webSocketDidClose(*this, code, reason, wasClean);
  }

  net::io_context& context_;
  const WebSocketRequest request_;
  const std::optional<WebSocketEndpoint> endpoint_;
  std::weak_ptr<WebSocketSessionDelegate> delegate_;
  tcp::resolver resolver_;
  net::steady_timer resolveDeadline_;
  std::unique_ptr<ssl::context> tls_;  // outlives ws_, which refers to it
  std::unique_ptr<websocket::stream<NextLayer>> ws_;
  websocket::response_type response_;
  beast::flat_buffer readBuffer_;
  std::deque<Outgoing> outbox_;
  TLRReadyState state_ = TLRReadyState::Connecting;
  bool started_ = false;
  bool closeRequested_ = false;
  bool finished_ = false;
  bool writing_ = false;
};

}  // namespace

std::optional<WebSocketEndpoint> parseWebSocketUrl(const std::string& url) {
  auto parsed = parseEndpointUrl(url, /*acceptWebSocketSchemes=*/true);
  if (auto* endpoint = std::get_if<EndpointUrl>(&parsed)) return std::move(*endpoint);
  return std::nullopt;
}

std::shared_ptr<WebSocketSession> WebSocketSession::create(
    boost::asio::io_context& context, WebSocketRequest request,
    std::weak_ptr<WebSocketSessionDelegate> delegate) {
  auto endpoint = parseWebSocketUrl(request.url);
  if (endpoint && endpoint->secure) {
    return std::make_shared<BasicWebSocketSession<true>>(context, std::move(request),
                                                         std::move(endpoint), std::move(delegate));
  }
  return std::make_shared<BasicWebSocketSession<false>>(context, std::move(request),
                                                        std::move(endpoint), std::move(delegate));
}

}  // namespace tellora
