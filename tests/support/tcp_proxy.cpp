#include "tests/support/tcp_proxy.h"

#include <array>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <future>
#include <list>
#include <optional>
#include <thread>

namespace tellora::testing {
namespace detail {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using boost::system::error_code;

// Everything below runs on the proxy's own thread; the public members hop onto
// it and wait for the answer.
class TcpProxyCore : public std::enable_shared_from_this<TcpProxyCore> {
 public:
  explicit TcpProxyCore(uint16_t upstreamPort)
      : upstream_(asio::ip::make_address("127.0.0.1"), upstreamPort),
        acceptor_(io_, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0)),
        port_(acceptor_.local_endpoint().port()) {}

  template <typename F>
  auto onLoop(F f) -> decltype(f()) {
    std::packaged_task<decltype(f())()> task(std::move(f));
    auto result = task.get_future();
    asio::post(io_, [&task] { task(); });
    return result.get();
  }

  void start() {
    accept();
    thread_ = std::thread([self = shared_from_this()] { self->io_.run(); });
  }

  void shutdown() {
    onLoop([this] {
      error_code ignored;
      acceptor_.close(ignored);
      for (auto& link : links_) link->closeBoth(false);
      links_.clear();
      work_.reset();
      return 0;
    });
    if (thread_.joinable()) thread_.join();
  }

  uint16_t port() const { return port_; }

  struct Link;
  // One direction of one connection.
  struct Pump {
    tcp::socket* from;
    tcp::socket* to;
    std::array<char, 16384> buffer{};
    std::size_t held = 0;  // bytes read but not yet written (waiting out a stall)
    bool busy = false;     // a read or write is in flight
  };

  struct Link : std::enable_shared_from_this<Link> {
    Link(TcpProxyCore& proxy, tcp::socket client)
        : proxy(proxy), client(std::move(client)), upstream(proxy.io_) {
      up.from = &this->client, up.to = &upstream;
      down.from = &upstream, down.to = &this->client;
    }

    void connect() {
      upstream.async_connect(proxy.upstream_, [self = shared_from_this()](error_code ec) {
        if (ec) return self->end();
        self->pump(self->up);
        self->pump(self->down);
      });
    }

    // Moves what is held, then reads more, unless stalled or already moving.
    void pump(Pump& p) {
      if (closed || p.busy || proxy.stalled_) return;
      p.busy = true;
      if (p.held > 0) {
        asio::async_write(*p.to, asio::buffer(p.buffer.data(), p.held),
                          [self = shared_from_this(), &p](error_code ec, std::size_t) {
                            p.busy = false;
                            if (ec) return self->end();
                            p.held = 0;
                            self->pump(p);
                          });
        return;
      }
      p.from->async_read_some(asio::buffer(p.buffer),
                              [self = shared_from_this(), &p](error_code ec, std::size_t n) {
                                p.busy = false;
                                if (ec) return self->end();
                                p.held = n;
                                self->pump(p);
                              });
    }

    void closeBoth(bool reset) {
      if (closed) return;
      closed = true;
      error_code ignored;
      for (tcp::socket* s : {&client, &upstream}) {
        if (reset && s->is_open()) s->set_option(tcp::socket::linger(true, 0), ignored);
        s->close(ignored);
      }
    }

    void end() {
      closeBoth(false);
      proxy.forget(this);
    }

    TcpProxyCore& proxy;
    tcp::socket client;
    tcp::socket upstream;
    Pump up, down;
    bool closed = false;
  };

  void accept() {
    acceptor_.async_accept([self = shared_from_this()](error_code ec, tcp::socket socket) {
      if (ec) return;  // closed
      ++self->accepted_;
      auto link = std::make_shared<Link>(*self, std::move(socket));
      self->links_.push_back(link);
      link->connect();
      self->accept();
    });
  }

  void forget(Link* link) {
    links_.remove_if([link](const std::shared_ptr<Link>& l) { return l.get() == link; });
  }

  void setStalled(bool stalled) {
    onLoop([this, stalled] {
      stalled_ = stalled;
      if (!stalled) {
        for (auto& link : links_) link->pump(link->up), link->pump(link->down);
      }
      return 0;
    });
  }

  std::size_t resetAll() {
    return onLoop([this] {
      const std::size_t n = links_.size();
      for (auto& link : links_) link->closeBoth(true);
      links_.clear();
      return n;
    });
  }

  asio::io_context io_;
  tcp::endpoint upstream_;
  tcp::acceptor acceptor_;
  const uint16_t port_;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work_{
      io_.get_executor()};
  std::list<std::shared_ptr<Link>> links_;
  std::size_t accepted_ = 0;
  bool stalled_ = false;
  std::thread thread_;
};

}  // namespace detail

TcpProxy::TcpProxy(uint16_t upstreamPort)
    : core_(std::make_shared<detail::TcpProxyCore>(upstreamPort)) {
  core_->start();
}

TcpProxy::~TcpProxy() {
  core_->shutdown();
}

uint16_t TcpProxy::port() const {
  return core_->port();
}

void TcpProxy::stall() {
  core_->setStalled(true);
}

void TcpProxy::resume() {
  core_->setStalled(false);
}

bool TcpProxy::isStalled() const {
  return core_->onLoop([this] { return core_->stalled_; });
}

std::size_t TcpProxy::resetConnections() {
  return core_->resetAll();
}

std::size_t TcpProxy::acceptedConnections() const {
  return core_->onLoop([this] { return core_->accepted_; });
}

std::size_t TcpProxy::openConnections() const {
  return core_->onLoop([this] { return core_->links_.size(); });
}

}  // namespace tellora::testing
