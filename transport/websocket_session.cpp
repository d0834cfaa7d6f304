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

#ifdef __linux__
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#endif

#include <openssl/err.h>
#include <openssl/x509.h>

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
// upgrade limit also bounds the closing handshake, from the close() on, even
// when frames queued before it cannot get out.
constexpr auto kResolveTimeout = std::chrono::seconds(10);
constexpr auto kConnectTimeout = std::chrono::seconds(10);
constexpr auto kTlsHandshakeTimeout = std::chrono::seconds(10);
constexpr auto kUpgradeTimeout = std::chrono::seconds(10);

// OpenSSL's own reason ("certificate verify failed") rather than asio's text,
// which appends the library name.
std::string errorText(const beast::error_code& ec) {
  if (ec.category() == net::error::get_ssl_category()) {
    if (const char* reason = ERR_reason_error_string(static_cast<unsigned long>(ec.value())))
      return reason;
  }
  return ec.message();
}

// "connect: Connection refused", "upgrade: HTTP status 404",
// "tls handshake: certificate verify failed (certificate has expired)".
std::string describeFailure(const beast::error_code& ec, const char* step, unsigned httpStatus,
                            const std::string& detail) {
  std::string text = std::string(step) + ": ";
  text += httpStatus != 0 ? "HTTP status " + std::to_string(httpStatus) : errorText(ec);
  if (!detail.empty()) text += " (" + detail + ")";
  return text;
}

TLRError makeFailure(const beast::error_code& ec, const char* step, unsigned httpStatus,
                     const std::string& detail, bool whileOpen) {
  TLRError error;
  error.domain = ec.category().name();
  error.code = ec.value();
  error.userInfo["message"] = ec.message();
  error.userInfo["step"] = std::string(step);
  error.userInfo[kFailureDescriptionKey] = describeFailure(ec, step, httpStatus, detail);
  if (whileOpen) error.userInfo[kFailureWhileOpenKey] = true;
  if (httpStatus != 0) error.userInfo[kHTTPResponseStatusCodeKey] = int64_t{httpStatus};
  return error;
}

// Whether the connection ended in a reset. The kernel tells that only to the
// first call that meets it: when a write in flight took it, the reader sees
// just the end of the stream (and Beast gives the writer an abort). The
// socket's state still tells: CLOSE after a reset, CLOSE_WAIT after a FIN.
bool wasReset(tcp::socket& socket) {
#ifdef __linux__
  tcp_info info{};
  socklen_t length = sizeof info;
  if (::getsockopt(socket.native_handle(), IPPROTO_TCP, TCP_INFO, &info, &length) == 0)
    return info.tcpi_state == TCP_CLOSE;
#else
  (void)socket;
#endif
  return false;
}

// Why the server's certificate was refused, when it was.
std::string verifyFailure(SSL* ssl) {
  const long result = SSL_get_verify_result(ssl);
  return result == X509_V_OK ? std::string() : X509_verify_cert_error_string(result);
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
        deadline_(context) {
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
        self->fail(make_error_code(boost::system::errc::invalid_argument), "url", 0,
                   "not a ws:// or wss:// URL");
      });
      return;
    }
    deadline_.expires_after(kResolveTimeout);
    deadline_.async_wait([self](beast::error_code ec) {
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
        deadline_.expires_after(kUpgradeTimeout);
        deadline_.async_wait([self = this->shared_from_this()](beast::error_code ec) {
          if (!ec) self->finishClosed(kCloseCodeAbnormal, "closing timed out", false);
        });
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
    deadline_.cancel();
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
    if (ec) {
      std::string detail;
      if constexpr (Secure) detail = verifyFailure(ws_->next_layer().native_handle());
      return fail(ec, "tls handshake", 0, detail);
    }
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
    opened_ = true;
    ws_->binary(true);
    read();
    if (auto delegate = delegate_.lock()) delegate->webSocketDidOpen(*this);
  }

  void read() {
    ws_->async_read(readBuffer_, [self = this->shared_from_this()](
                                     beast::error_code ec, std::size_t) { self->onRead(ec); });
  }

  void onRead(beast::error_code ec) {
    if (finished_) return;
    if (ec && writing_) {
      // A reset is reported to whichever call meets it first; the other sees
      // only the end of the stream or an aborted operation. So the write in
      // flight has the last word (bounded, should it never complete).
      readError_ = ec;
      deadline_.expires_after(kUpgradeTimeout);
      deadline_.async_wait([self = this->shared_from_this()](beast::error_code waitError) {
        if (!waitError && !self->finished_) self->endOpenConnection(self->readError_, "read");
      });
      return;
    }
    if (ec) return endOpenConnection(ec, "read");
    const std::string message = beast::buffers_to_string(readBuffer_.data());
    readBuffer_.consume(readBuffer_.size());
    read();  // before the delegate runs: it may close, which needs a reader
    if (auto delegate = delegate_.lock()) delegate->webSocketDidReceiveMessage(*this, message);
  }

  // How an open connection ended. The server ending it is a close: its close
  // frame, the end of the stream, and also a protocol violation of its own (an
  // oversized message, invalid UTF-8, a malformed frame), since reconnecting at
  // once would meet the same server doing the same. Whatever else breaks the
  // link (a reset, a broken pipe, a time-out, a TLS error) is a failure, which
  // the transport retries while the connection is wanted, as a network switch
  // needs. A close asked for by our side ends as a close in any case.
  void endOpenConnection(beast::error_code ec, const char* step) {
    if (ec == websocket::error::closed) {
      return finishClosed(ws_->reason().code, std::string(ws_->reason().reason.c_str()), true);
    }
    if (state_ == TLRReadyState::Closing)
      return finishClosed(kCloseCodeAbnormal, errorText(ec), false);
    if (ec == net::error::eof || ec == ssl::error::stream_truncated) {
      if (wasReset(beast::get_lowest_layer(*ws_).socket())) {
        return fail(make_error_code(net::error::connection_reset), step);
      }
      return finishClosed(kCloseCodeAbnormal, errorText(ec), false);
    }
    if (ec == websocket::error::message_too_big) {
      return finishClosed(kCloseCodeTooBig, "message too big", false);
    }
    if (ec == websocket::error::bad_frame_payload) {
      return finishClosed(kCloseCodeInvalidPayload, errorText(ec), false);
    }
    if (ec == websocket::condition::protocol_violation) {
      return finishClosed(kCloseCodeProtocolError, errorText(ec), false);
    }
    fail(ec, step);
  }

  // One write at a time. The frame being written is out of `outbox_` and owned
  // by the write's completion, so ending the connection meanwhile (which drops
  // the frames still queued) never touches it.
  void writeNext() {
    if (outbox_.empty() || finished_) {
      writing_ = false;
      return;
    }
    writing_ = true;
    auto self = this->shared_from_this();
    Outgoing next = std::move(outbox_.front());
    outbox_.pop_front();
    if (next.isClose) {
      outbox_.clear();
      ws_->async_close(websocket::close_code::normal, [self](beast::error_code ec) {
        self->writing_ = false;
        if (self->finished_) return;
        if (self->readError_) return self->endOpenConnection(self->readError_, "read");
        // Without the server's answer the reader may wait; end it here.
        if (ec) self->finishClosed(kCloseCodeAbnormal, errorText(ec), false);
      });
      return;
    }
    auto bytes = std::make_shared<std::string>(std::move(next.bytes));
    ws_->async_write(net::buffer(*bytes), [self, bytes](beast::error_code ec, std::size_t) {
      self->writing_ = false;
      if (self->finished_) return;  // only the buffer to release
      const bool writeFailed = ec && ec != net::error::operation_aborted;
      if (self->readError_ && !writeFailed)
        return self->endOpenConnection(self->readError_, "read");
      if (writeFailed) return self->endOpenConnection(ec, "write");
      // Aborted: the stream failed under the reader, which reports it.
      if (!ec) self->writeNext();
    });
  }

  void cancelEverything() {
    deadline_.cancel();
    resolver_.cancel();
    beast::get_lowest_layer(*ws_).close();
  }

  void fail(beast::error_code ec, const char* step, unsigned httpStatus = 0,
            const std::string& detail = {}) {
    if (closedWhileOpening() || finished_) return;
    finish();
    const TLRError error = makeFailure(ec, step, httpStatus, detail, opened_);
    if (auto delegate = delegate_.lock()) delegate->webSocketDidFail(*this, error);
  }

  void finishClosed(uint16_t code, const std::string& reason, bool wasClean) {
    if (finished_) return;
    finish();
    if (auto delegate = delegate_.lock())
      delegate->webSocketDidClose(*this, code, reason, wasClean);
  }

  // A write still in flight completes later and only releases its frame.
  void finish() {
    finished_ = true;
    state_ = TLRReadyState::Closed;
    outbox_.clear();
    cancelEverything();
  }

  net::io_context& context_;
  const WebSocketRequest request_;
  const std::optional<WebSocketEndpoint> endpoint_;
  std::weak_ptr<WebSocketSessionDelegate> delegate_;
  tcp::resolver resolver_;
  net::steady_timer deadline_;         // of the resolve, then of the closing handshake
  std::unique_ptr<ssl::context> tls_;  // outlives ws_, which refers to it
  std::unique_ptr<websocket::stream<NextLayer>> ws_;
  websocket::response_type response_;
  beast::flat_buffer readBuffer_;
  std::deque<Outgoing> outbox_;
  TLRReadyState state_ = TLRReadyState::Connecting;
  bool started_ = false;
  bool closeRequested_ = false;
  bool finished_ = false;
  bool opened_ = false;
  bool writing_ = false;
  beast::error_code readError_;  // the reader's, waiting for the write in flight
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
