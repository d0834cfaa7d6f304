#include "server/listener.h"

#include "runtime/log.h"
#include "server/http_session.h"
#include "server/server_context.h"

namespace tellora::server {

namespace net = boost::asio;
using tcp = net::ip::tcp;

Listener::Listener(net::io_context& context, const tcp::endpoint& endpoint, ServerContext& server)
    : server_(server), acceptor_(context), retry_(context) {
  acceptor_.open(endpoint.protocol());
  acceptor_.set_option(net::socket_base::reuse_address(true));
  acceptor_.bind(endpoint);
  acceptor_.listen(net::socket_base::max_listen_connections);
  port_ = acceptor_.local_endpoint().port();
}

void Listener::start() {
  accept();
}

void Listener::stop() {
  stopped_ = true;
  boost::system::error_code ignored;
  acceptor_.close(ignored);
  retry_.cancel();
}

void Listener::accept() {
  acceptor_.async_accept(
      [self = shared_from_this()](boost::system::error_code ec, tcp::socket socket) {
        self->onAccept(ec, std::move(socket));
      });
}

void Listener::onAccept(boost::system::error_code ec, tcp::socket socket) {
  if (stopped_) return;
  if (ec) {
    // Out of descriptors, most likely: pausing lets connections end instead
    // of spinning on a listener that fails at once.
    logf("accept failed: %s", ec.message().c_str());
    retry_.expires_after(std::chrono::milliseconds(100));
    retry_.async_wait([self = shared_from_this()](boost::system::error_code wait) {
      if (!wait && !self->stopped_) self->accept();
    });
    return;
  }
  if (server_.registry.size() >= server_.options.limits.maxConnections) {
    noteRefusal();
    boost::system::error_code ignored;
    socket.close(ignored);
  } else {
    if (const int bytes = server_.options.limits.socketSendBufferBytes; bytes > 0) {
      boost::system::error_code ignored;
      socket.set_option(net::socket_base::send_buffer_size(bytes), ignored);
    }
    startHttpSession(std::move(socket), server_);
  }
  accept();
}

void Listener::noteRefusal() {
  ++refusedSinceLog_;
  const auto now = std::chrono::steady_clock::now();
  if (now - lastRefusalLog_ < std::chrono::seconds(1)) return;
  logf("connection cap of %zu reached: %llu connections turned away",
       server_.options.limits.maxConnections, static_cast<unsigned long long>(refusedSinceLog_));
  refusedSinceLog_ = 0;
  lastRefusalLog_ = now;
}

}  // namespace tellora::server
