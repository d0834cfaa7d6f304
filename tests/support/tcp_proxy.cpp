#include "tests/support/tcp_proxy.h"

#include <boost/asio/write.hpp>

#include <array>

#include "tests/support/loopback_listener.h"

namespace tellora::testing {
namespace detail {

using boost::system::error_code;

// Shared by the links; used on the listener's thread only.
struct ProxyState {
  tcp::endpoint upstream;
  bool stalled = false;
  std::size_t accepted = 0;
};

namespace {

// One direction of one connection.
struct Pump {
  tcp::socket* from;
  tcp::socket* to;
  std::array<char, 16384> buffer{};
  std::size_t held = 0;  // bytes read but not yet written (waiting out a stall)
  bool busy = false;     // a read or write is in flight
};

// One proxied connection: the client's socket and one to the upstream port.
class Link : public LoopbackConnection, public std::enable_shared_from_this<Link> {
 public:
  Link(LoopbackListener& listener, std::shared_ptr<ProxyState> state, uint64_t id,
       tcp::socket client)
      : listener_(listener),
        state_(std::move(state)),
        id_(id),
        client_(std::move(client)),
        upstream_(client_.get_executor()) {
    up_.from = &client_, up_.to = &upstream_;
    down_.from = &upstream_, down_.to = &client_;
  }

  void start() override {
    ++state_->accepted;
    upstream_.async_connect(state_->upstream, [self = shared_from_this()](error_code ec) {
      if (ec) return self->end();
      self->resume();
    });
  }

  void drop() override { close(true); }

  void resume() {
    pump(up_);
    pump(down_);
  }

 private:
  // Moves what is held, then reads more, unless stalled or already moving.
  void pump(Pump& p) {
    if (closed_ || p.busy || state_->stalled) return;
    p.busy = true;
    if (p.held > 0) {
      net::async_write(*p.to, net::buffer(p.buffer.data(), p.held),
                       [self = shared_from_this(), &p](error_code ec, std::size_t) {
                         p.busy = false;
                         if (ec) return self->end();
                         p.held = 0;
                         self->pump(p);
                       });
      return;
    }
    p.from->async_read_some(net::buffer(p.buffer),
                            [self = shared_from_this(), &p](error_code ec, std::size_t n) {
                              p.busy = false;
                              if (ec) return self->end();
                              p.held = n;
                              self->pump(p);
                            });
  }

  void close(bool reset) {
    if (closed_) return;
    closed_ = true;
    error_code ignored;
    for (tcp::socket* s : {&client_, &upstream_}) {
      if (reset && s->is_open()) s->set_option(tcp::socket::linger(true, 0), ignored);
      s->close(ignored);
    }
  }

  void end() {
    close(false);
    listener_.forget(id_);
  }

  LoopbackListener& listener_;
  const std::shared_ptr<ProxyState> state_;
  const uint64_t id_;
  tcp::socket client_;
  tcp::socket upstream_;
  Pump up_, down_;
  bool closed_ = false;
};

}  // namespace
}  // namespace detail

using namespace detail;

TcpProxy::TcpProxy(uint16_t upstreamPort) : state_(std::make_shared<ProxyState>()) {
  state_->upstream = {net::ip::make_address_v4("127.0.0.1"), upstreamPort};
  listener_ = std::make_unique<LoopbackListener>(
      nullptr, [state = state_](LoopbackListener& listener, uint64_t id, tcp::socket socket) {
        return std::make_shared<Link>(listener, state, id, std::move(socket));
      });
}

TcpProxy::~TcpProxy() = default;

uint16_t TcpProxy::port() const {
  return listener_->port();
}

void TcpProxy::stall() {
  listener_->call([this] { state_->stalled = true; });
}

void TcpProxy::resume() {
  listener_->call([this] {
    state_->stalled = false;
    for (const auto& link : listener_->connections<Link>())
      link->resume();
  });
}

std::size_t TcpProxy::resetConnections() {
  return listener_->call([this] { return listener_->dropConnections(); });
}

std::size_t TcpProxy::acceptedConnections() const {
  return listener_->call([this] { return state_->accepted; });
}

}  // namespace tellora::testing
