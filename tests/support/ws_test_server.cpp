#include "tests/support/ws_test_server.h"

#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <cstdint>
#include <deque>

#include "tests/support/loopback_listener.h"

namespace tellora::testing {

using namespace detail;
namespace http = beast::http;
namespace websocket = beast::websocket;

constexpr std::size_t kInboundFrameLimit = 64u << 20;
constexpr std::size_t kForever = SIZE_MAX;

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
  enum class Kind { Text, Close } kind;
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
struct WsConnection : StreamConnection<WsConnection<NextLayer>, WsState,
                                       websocket::stream<NextLayer>, NextLayer, WsConnectionBase> {
  using WsConnection::StreamConnection::StreamConnection;

  void serve() { readRequest(); }

  bool isOpen() const override { return open_; }

  void enqueue(Outgoing outgoing) override {
    if (!open_) return;
    outbox_.push_back(std::move(outgoing));
    if (!writing_) writeNext();
  }

  void endStream() override {
    beast::error_code ignored;
    this->lowest().socket().shutdown(tcp::socket::shutdown_send, ignored);
  }

  void readRequest() {
    http::async_read(this->layer(), buffer_, request_,
                     [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
                       self->onRequest(ec);
                     });
  }

  void onRequest(beast::error_code ec) {
    if (ec) return end();
    WsUpgradeRequest record;
    recordRequest(record, this->id_, request_);
    unsigned refusal = this->state_.takeRefusal();
    if (refusal == 0 && !websocket::is_upgrade(request_)) refusal = 400;
    record.refusedWithStatus = refusal;
    this->state_.log->update([&](WsServerLog& log) { log.upgrades.push_back(std::move(record)); });
    if (refusal != 0) return refuse(refusal);

    this->lowest().expires_never();
    auto timeouts = websocket::stream_base::timeout::suggested(beast::role_type::server);
    timeouts.handshake_timeout = kServerIoTimeout;
    this->stream_.set_option(timeouts);
    this->stream_.read_message_max(kInboundFrameLimit);
    this->stream_.async_accept(
        request_, [self = this->shared_from_this()](beast::error_code ec) { self->onAccept(ec); });
  }

  void refuse(unsigned status) {
    response_.result(status);
    response_.reason("Refused by the test server");
    response_.version(request_.version());
    response_.keep_alive(false);
    response_.prepare_payload();
    http::async_write(this->layer(), response_,
                      [self = this->shared_from_this()](beast::error_code, std::size_t) {
                        // FIN rather than RST, so the client surely reads the response.
                        beast::error_code ignored;
                        auto& socket = self->lowest().socket();
                        socket.shutdown(tcp::socket::shutdown_send, ignored);
                        self->end();
                      });
  }

  void onAccept(beast::error_code ec) {
    if (ec) return end();
    open_ = true;
    this->state_.log->update([](WsServerLog& log) {
      ++log.acceptedConnections;
      ++log.openConnections;
    });
    read();
  }

  void read() {
    buffer_.clear();
    this->stream_.async_read(buffer_, [self = this->shared_from_this()](
                                          beast::error_code ec, std::size_t) { self->onRead(ec); });
  }

  void onRead(beast::error_code ec) {
    if (ec) {
      if (ec == websocket::error::closed) {
        const uint16_t code = this->stream_.reason().code;
        this->state_.log->update(
            [code](WsServerLog& log) { log.clientCloseCodes.push_back(code); });
      }
      return end();
    }
    WsFrame frame{this->id_, beast::buffers_to_string(buffer_.data()), this->stream_.got_binary()};
    this->state_.log->update([&](WsServerLog& log) { log.frames.push_back(frame); });
    if (const auto handler = this->state_.behaviour->get().handler) {
      for (auto& reply : handler(frame)) {
        if (reply.delay.count() <= 0) {
          enqueue({Outgoing::Kind::Text, std::move(reply.text)});
          continue;
        }
        this->listener_.after(reply.delay, [weak = this->weak_from_this(), text = reply.text] {
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
      this->stream_.async_close(
          websocket::close_reason(static_cast<websocket::close_code>(next.closeCode), next.data),
          [self](beast::error_code) {
            self->outbox_.clear();
            self->writing_ = false;
          });
      return;
    }
    this->stream_.async_write(net::buffer(next.data), [self](beast::error_code ec, std::size_t) {
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
      this->state_.log->update([](WsServerLog& log) {
        --log.openConnections;
        ++log.endedConnections;
      });
    }
    this->listener_.forget(this->id_);
  }

  beast::flat_buffer buffer_;
  http::request<http::string_body> request_;
  http::response<http::string_body> response_;
  std::deque<Outgoing> outbox_;
  bool writing_ = false;
  bool open_ = false;
  bool ended_ = false;
};

// Runs `act` on every open connection; returns how many there were.
template <class F>
std::size_t forEveryOpen(LoopbackListener& listener, F act) {
  return listener.call([&] {
    std::size_t count = 0;
    for (const auto& connection : listener.connections<WsConnectionBase>()) {
      if (!connection->isOpen()) continue;
      act(*connection);
      ++count;
    }
    return count;
  });
}

}  // namespace

WsTestServer::WsTestServer(std::shared_ptr<const TestCertificates> certificates)
    : LoggingLoopbackServer(std::move(certificates)),
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

std::size_t WsTestServer::pushText(std::string text) {
  return forEveryOpen(*listener_, [&](auto& c) { c.enqueue({Outgoing::Kind::Text, text}); });
}

std::size_t WsTestServer::closeConnections(uint16_t code, std::string reason) {
  return forEveryOpen(*listener_, [&](auto& c) {
    c.enqueue({Outgoing::Kind::Close, reason, code});
  });
}

std::size_t WsTestServer::endStreams() {
  return forEveryOpen(*listener_, [](auto& c) { c.endStream(); });
}

void WsTestServer::clearLog() {
  log_->update([](WsServerLog& log) {
    const std::size_t open = log.openConnections;
    log = WsServerLog{};
    log.openConnections = open;
  });
}

}  // namespace tellora::testing
