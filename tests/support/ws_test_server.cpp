#include "tests/support/ws_test_server.h"

#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <deque>
#include <limits>

#include "tests/support/loopback_listener.h"

namespace tellora::testing {

using namespace detail;
namespace http = beast::http;
namespace websocket = beast::websocket;

constexpr std::size_t kInboundFrameLimit = 64u << 20;
constexpr std::size_t kForever = std::numeric_limits<std::size_t>::max();

// The settings the test changes while connections run.
struct detail::WsBehaviour {
  WsTestServer::FrameHandler handler;
  unsigned refusalStatus = 0;
  std::size_t refusalsLeft = 0;
};

namespace {

// What the connections share with the server object (which may go first).
struct WsState {
  std::shared_ptr<Watched<WsServerLog>> log;
  std::shared_ptr<Watched<WsBehaviour>> behaviour;

  unsigned takeRefusal() const {
    unsigned status = 0;
    behaviour->update([&](WsBehaviour& b) {
      if (b.refusalsLeft == 0) return;
      if (b.refusalsLeft != kForever) --b.refusalsLeft;
      status = b.refusalStatus;
    });
    return status;
  }
};

// Something queued for a connection's writer: a data frame or the closing handshake.
struct Outgoing {
  enum class Kind { Text, Binary, Close } kind;
  std::string data;
  uint16_t closeCode = 0;
};

class WsConnectionBase : public LoopbackConnection {
 public:
  virtual bool isOpen() const = 0;
  virtual void enqueue(Outgoing outgoing) = 0;
  // Ends the byte stream (a FIN) without a close frame.
  virtual void endStream() = 0;
};

// One client connection: optional TLS handshake, the HTTP upgrade request
// (accepted or refused), then frames until either side ends it.
template <class NextLayer>
class WsConnection : public WsConnectionBase,
                     public std::enable_shared_from_this<WsConnection<NextLayer>> {
 public:
  template <class... Args>
  WsConnection(LoopbackListener& listener, WsState state, uint64_t id, Args&&... args)
      : listener_(listener), state_(std::move(state)), id_(id), ws_(std::forward<Args>(args)...) {}

  void start() override {
    beast::get_lowest_layer(ws_).expires_after(kServerIoTimeout);
    if constexpr (std::is_same_v<NextLayer, beast::tcp_stream>) {
      readRequest();
    } else {
      ws_.next_layer().async_handshake(
          ssl::stream_base::server, [self = this->shared_from_this()](beast::error_code ec) {
            if (!ec) return self->readRequest();
            self->state_.log->update([](WsServerLog& log) { ++log.failedTlsHandshakes; });
            self->end();
          });
    }
  }

  bool isOpen() const override { return open_; }

  void enqueue(Outgoing outgoing) override {
    if (!open_) return;
    outbox_.push_back(std::move(outgoing));
    if (!writing_) writeNext();
  }

  void endStream() override {
    beast::error_code ignored;
    beast::get_lowest_layer(ws_).socket().shutdown(tcp::socket::shutdown_send, ignored);
  }

  void drop() override {
    beast::error_code ignored;
    auto& socket = beast::get_lowest_layer(ws_).socket();
    socket.set_option(net::socket_base::linger(true, 0), ignored);
    socket.close(ignored);
  }

 private:
  void readRequest() {
    http::async_read(ws_.next_layer(), buffer_, request_,
                     [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
                       self->onRequest(ec);
                     });
  }

  void onRequest(beast::error_code ec) {
    if (ec) return end();
    WsUpgradeRequest record;
    recordRequest(record, id_, request_);
    unsigned refusal = state_.takeRefusal();
    if (refusal == 0 && !websocket::is_upgrade(request_)) refusal = 400;
    record.refusedWithStatus = refusal;
    state_.log->update([&](WsServerLog& log) { log.upgrades.push_back(std::move(record)); });
    if (refusal != 0) return refuse(refusal);

    beast::get_lowest_layer(ws_).expires_never();
    auto timeouts = websocket::stream_base::timeout::suggested(beast::role_type::server);
    timeouts.handshake_timeout = kServerIoTimeout;
    ws_.set_option(timeouts);
    ws_.read_message_max(kInboundFrameLimit);
    ws_.async_accept(
        request_, [self = this->shared_from_this()](beast::error_code ec) { self->onAccept(ec); });
  }

  void refuse(unsigned status) {
    response_.result(status);
    response_.reason("Refused by the test server");
    response_.version(request_.version());
    response_.keep_alive(false);
    response_.prepare_payload();
    http::async_write(ws_.next_layer(), response_,
                      [self = this->shared_from_this()](beast::error_code, std::size_t) {
                        // FIN rather than RST, so the client surely reads the response.
                        beast::error_code ignored;
                        auto& socket = beast::get_lowest_layer(self->ws_).socket();
                        socket.shutdown(tcp::socket::shutdown_send, ignored);
                        self->end();
                      });
  }

  void onAccept(beast::error_code ec) {
    if (ec) return end();
    open_ = true;
    state_.log->update([](WsServerLog& log) {
      ++log.acceptedConnections;
      ++log.openConnections;
    });
    read();
  }

  void read() {
    buffer_.clear();
    ws_.async_read(buffer_, [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
      self->onRead(ec);
    });
  }

  void onRead(beast::error_code ec) {
    if (ec) {
      if (ec == websocket::error::closed) {
        const uint16_t code = ws_.reason().code;
        state_.log->update([code](WsServerLog& log) { log.clientCloseCodes.push_back(code); });
      }
      return end();
    }
    WsFrame frame{id_, beast::buffers_to_string(buffer_.data()), ws_.got_binary()};
    state_.log->update([&](WsServerLog& log) { log.frames.push_back(frame); });
    if (const auto handler = state_.behaviour->get().handler) {
      for (auto& reply : handler(frame)) {
        if (reply.delay.count() <= 0) {
          enqueue({Outgoing::Kind::Text, std::move(reply.text)});
          continue;
        }
        listener_.after(reply.delay, [weak = this->weak_from_this(), text = reply.text] {
          if (auto self = weak.lock()) self->enqueue({Outgoing::Kind::Text, text});
        });
      }
    }
    read();
  }

  void writeNext() {
    if (outbox_.empty() || !open_) {
      writing_ = false;
      return;
    }
    writing_ = true;
    Outgoing& next = outbox_.front();
    auto self = this->shared_from_this();
    if (next.kind == Outgoing::Kind::Close) {
      ws_.async_close(
          websocket::close_reason(static_cast<websocket::close_code>(next.closeCode), next.data),
          [self](beast::error_code) {
            self->outbox_.clear();
            self->writing_ = false;
          });
      return;
    }
    ws_.binary(next.kind == Outgoing::Kind::Binary);
    ws_.async_write(net::buffer(next.data), [self](beast::error_code ec, std::size_t) {
      self->outbox_.pop_front();
      if (ec) {
        self->writing_ = false;
        return;  // the read side sees the failure and ends the connection
      }
      self->writeNext();
    });
  }

  void end() {
    if (ended_) return;
    ended_ = true;
    if (open_) {
      open_ = false;
      state_.log->update([](WsServerLog& log) {
        --log.openConnections;
        ++log.endedConnections;
      });
    }
    listener_.forget(id_);
  }

  LoopbackListener& listener_;
  const WsState state_;
  const uint64_t id_;
  websocket::stream<NextLayer> ws_;
  beast::flat_buffer buffer_;
  http::request<http::string_body> request_;
  http::response<http::string_body> response_;
  std::deque<Outgoing> outbox_;
  bool writing_ = false;
  bool open_ = false;
  bool ended_ = false;
};

// Queues `outgoing` on every open connection; returns how many.
std::size_t sendToEveryOpen(LoopbackListener& listener, const Outgoing& outgoing) {
  return listener.call([&] {
    std::size_t count = 0;
    for (const auto& connection : listener.connections<WsConnectionBase>()) {
      if (!connection->isOpen()) continue;
      connection->enqueue(outgoing);
      ++count;
    }
    return count;
  });
}

}  // namespace

WsTestServer::WsTestServer(Security security, std::shared_ptr<const TestCertificates> certificates)
    : LoggingLoopbackServer(security, std::move(certificates)),
      behaviour_(std::make_shared<Watched<WsBehaviour>>()) {
  listener_ = std::make_unique<LoopbackListener>(
      certificates_, [state = WsState{log_, behaviour_}](LoopbackListener& listener, uint64_t id,
                                                         tcp::socket socket) {
        return makeConnection<WsConnection>(listener, state, id, std::move(socket));
      });
}

WsTestServer::~WsTestServer() = default;

void WsTestServer::setHandler(FrameHandler handler) {
  behaviour_->update([&](WsBehaviour& b) { b.handler = std::move(handler); });
}

void WsTestServer::refuseUpgrades(unsigned status, std::size_t count) {
  behaviour_->update([&](WsBehaviour& b) {
    b.refusalStatus = status;
    b.refusalsLeft = count;
  });
}

void WsTestServer::refuseAllUpgrades(unsigned status) {
  refuseUpgrades(status, kForever);
}

void WsTestServer::acceptUpgrades() {
  refuseUpgrades(0, 0);
}

std::size_t WsTestServer::pushText(std::string text) {
  return sendToEveryOpen(*listener_, {Outgoing::Kind::Text, std::move(text)});
}

std::size_t WsTestServer::pushBinary(std::string bytes) {
  return sendToEveryOpen(*listener_, {Outgoing::Kind::Binary, std::move(bytes)});
}

std::size_t WsTestServer::closeConnections(uint16_t code, std::string reason) {
  return sendToEveryOpen(*listener_, {Outgoing::Kind::Close, std::move(reason), code});
}

std::size_t WsTestServer::dropConnections() {
  return listener_->call([this] {
    std::size_t count = 0;
    for (const auto& connection : listener_->connections<WsConnectionBase>()) {
      if (!connection->isOpen()) continue;
      connection->drop();
      ++count;
    }
    return count;
  });
}

std::size_t WsTestServer::endStreams() {
  return listener_->call([this] {
    std::size_t count = 0;
    for (const auto& connection : listener_->connections<WsConnectionBase>()) {
      if (!connection->isOpen()) continue;
      connection->endStream();
      ++count;
    }
    return count;
  });
}

void WsTestServer::clearLog() {
  log_->update([](WsServerLog& log) {
    const std::size_t open = log.openConnections;
    log = WsServerLog{};
    log.openConnections = open;
  });
}

}  // namespace tellora::testing
