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
    errorf("accept failed: %s", ec.message().c_str());
    retry_.expires_after(std::chrono::milliseconds(100));
    retry_.async_wait([self = shared_from_this()](boost::system::error_code wait) {
      if (!wait && !self->stopped_) self->accept();
    });
    return;
  }
  boost::system::error_code peerError;
  const auto peer = socket.remote_endpoint(peerError);
  AddressLimits::Refusal why = AddressLimits::Refusal::none;
  const uint64_t displacedBefore = server_.addressLimits.displaced();
  const uint64_t slot = peerError ? 0 : server_.addressLimits.admit(peer.address(), &why);
  if (server_.addressLimits.displaced() != displacedBefore)
    server_.limitLogs.displaced.hit(peer.address().to_string());
  if (slot == 0) {
    // Closed before anything is read: a refused peer costs no more than the accept.
    if (!peerError) noteRefusal(peer.address().to_string(), why);
    boost::system::error_code ignored;
    socket.close(ignored);
  } else {
    if (const int bytes = server_.options.limits.socketSendBufferBytes; bytes > 0) {
      boost::system::error_code ignored;
      socket.set_option(net::socket_base::send_buffer_size(bytes), ignored);
    }
    startHttpSession(std::move(socket), peer, slot, server_);
  }
  accept();
}

void Listener::noteRefusal(const std::string& address, AddressLimits::Refusal why) {
  const auto& shares = server_.addressLimits.settings();
  std::string detail = address + ": ";
  switch (why) {
    case AddressLimits::Refusal::addressShare:
      detail += "holds " + std::to_string(shares.perAddress) + " connections";
      break;
    case AddressLimits::Refusal::pendingShare:
      detail += "holds " + std::to_string(shares.pendingPerAddress) + " connections in handshake";
      break;
    default:
      detail += "server holds " + std::to_string(shares.maxConnections) + " connections";
      break;
  }
  server_.limitLogs.connections.hit(detail);
}

}  // namespace tellora::server
